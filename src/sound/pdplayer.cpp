#include "sound/pdplayer.h"

#include "model/arboevent.h"
#include "settings/debuglog.h"
#include "sound/denormals.h"
#include "sound/pdinstance.h"
#include "sound/realtimezone.h"
#include "sound/recordtap.h"

#include <z_libpd.h>
#include <z_print_util.h>

#include <QDebug>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstring>
#include <limits>

PdPlayer* PdPlayer::sThis = nullptr;

PdPlayer::PdPlayer(QObject* parent) : QObject(parent)
{
    sThis = this;
    mReportTimer.setInterval(1000);
    connect(&mReportTimer, &QTimer::timeout, this, &PdPlayer::reportRefusedCommands);
    mDeliveryTimer.setInterval(DELIVERY_INTERVAL_MS);
    connect(&mDeliveryTimer, &QTimer::timeout, this, &PdPlayer::deliverResults);
}

PdPlayer::~PdPlayer()
{
    // No audio thread runs any more: the patch changer gives every change
    // still on its way back to the pool, which closes its patches as it goes.
    if (sThis == this) {
        sThis = nullptr;
    }
}

bool PdPlayer::init()
{
    if (const char* failure = mCommands.init()) {
        qCritical() << failure;
        return false;
    }
    qWarning() << "calling libpd init";
    // Pd reads the numbers in patch files and messages with the C library,
    // which follows LC_NUMERIC; Qt has set the locale from the environment, so
    // under a decimal-comma locale 0.5 would read as 0. libpd_init sets "C"
    // only the first time it runs in a process; this holds every time.
    std::setlocale(LC_NUMERIC, "C");
    // Pd prints in pieces; the concatenator hands over whole lines. Set
    // before the instances are made: each takes the print hook it finds.
    libpd_set_printhook(libpd_print_concatenator);
    libpd_set_concatenated_printhook(&PdPlayer::pdPrintHook);
    libpd_set_listhook(&PdPlayer::pdListHook);
    libpd_init(); // -1 when already done in this process, which is fine
    mChanger.makeInstances();
    mReportTimer.start();
    mDeliveryTimer.start();
    return true;
}

int PdPlayer::initAudio(int outChannels, int sampleRate)
{
    qWarning() << "Initialising libpd with sampleRate" << sampleRate;
    mSampleRate = sampleRate;
    mLevelInterval = std::max(64, sampleRate / LEVEL_REPORTS_PER_SECOND);
    mMixer.setSampleRate(sampleRate);
    mChanger.initAudio(outChannels, sampleRate);
    return libpd_init_audio(0, outChannels, sampleRate);
}

void PdPlayer::term()
{
    qWarning() << "PdPlayer::term...";
    unloadPatch();
}

// ---------------------------------------------------------------------------
// Commands

void PdPlayer::queueEventGui(const ArboEvent* event)
{
    mCommands.queue(CommandDispatcher::FromWindow, event);
}

void PdPlayer::queueEventSerial(const ArboEvent* event)
{
    mCommands.queue(CommandDispatcher::FromWands, event);
}

void PdPlayer::queueEventMidi(const ArboEvent* event)
{
    mCommands.queue(CommandDispatcher::FromMidi, event);
}

void PdPlayer::queueEventOsc(const ArboEvent* event)
{
    mCommands.queue(CommandDispatcher::FromOsc, event);
}

void PdPlayer::processEvents(int budget)
{
    // A scene recall under way goes on first; one that the commands begin
    // goes on at once with what is left of the budget, and the commands
    // behind it wait for it.
    mScenes.adoptTable();
    for (;;) {
        budget -= mScenes.proceed(budget);
        if (mScenes.busy() || budget <= 0) {
            return;
        }
        budget -= mCommands.process(budget);
        if (!mScenes.busy()) {
            return;
        }
    }
}

bool PdPlayer::queueSceneStoreOsc(const char* name)
{
    SceneName record;
    mOscSceneTicket = mOscSceneTicket >= 1.0e6f ? 1.0f : mOscSceneTicket + 1.0f;
    record.ticket = mOscSceneTicket;
    std::strncpy(record.text, name ? name : "", sizeof record.text - 1);
    record.text[sizeof record.text - 1] = '\0';
    if (!mOscSceneNames.push(record)) {
        return false;
    }
    const ArboEvent store(ArboEvent::SceneStore, record.ticket);
    mCommands.queue(CommandDispatcher::FromOsc, &store);
    return true;
}

QString PdPlayer::takeOscSceneName(float ticket)
{
    // Names whose command a full ring dropped are passed over.
    SceneName record;
    while (mOscSceneNames.pop(record)) {
        if (record.ticket == ticket) {
            return QString::fromUtf8(record.text);
        }
    }
    return QString();
}

void PdPlayer::render(float* output, int frames) noexcept
{
    // Marks this thread's own audio code: the hooks below ask it, and a test
    // checks that nothing in it allocates, locks or emits (see RealTimeZone).
    const RealTimeZone::Audio zone;
    // Every time rather than once: the audio library does not promise one
    // thread for the stream's whole life, and setting it costs a register
    // write.
    Denormals::flushToZero();
    // The steady clock reads the vDSO: no system call, no lock.
    mResults.startBuffer(std::chrono::duration_cast<std::chrono::nanoseconds>(
                             std::chrono::steady_clock::now().time_since_epoch())
                             .count());

    // A recording begins or ends at the start of a buffer, before anything
    // changes; the commands this buffer carries out are logged at its first
    // sample.
    RecordTap* const recording = beginRecordedBuffer(frames);

    // A patch change starts before the commands, so that this buffer's
    // commands reach the new patch too; while its notes are being started,
    // the commands wait. Commands are carried out whether or not a patch is
    // open.
    const bool preparing = mChanger.takeSwap(noteStartBudget(frames));
    const std::uint32_t takenUp = mChanger.takeTakenUp();
    if (recording && takenUp != 0) {
        recording->logPatchChange(takenUp);
    }
    if (!preparing) {
        // Only for this buffer: a tap may be gone by the next one.
        mCommands.setLog(recording);
        mScenes.setLog(recording);
        // A replayed log holds what each buffer carried out: all of it goes
        // into the same buffer again.
        processEvents(mReplaying ? std::numeric_limits<int>::max() / 2 : commandBudget(frames));
        mCommands.setLog(nullptr);
        mScenes.setLog(nullptr);
    }

    const int samples = std::max(frames, 0) * CHANNELS;
    for (int done = 0; done < frames;) {
        // In pieces no larger than the crossfade's scratch buffer.
        const int piece = std::min(frames - done, PatchMixer::MAX_PIECE_FRAMES);
        if (mMixer.renderPiece(output + done * CHANNELS, piece)) {
            mChanger.finishSwap();
        }
        done += piece;
    }
    // A patch that computes NaN or infinity would send it to the device (a
    // loud crack, or a driver that gives up) and keep it in its filters for
    // good: the buffer is silenced and the patch's DSP switched off and on,
    // which builds its DSP chain afresh.
    bool finite = true;
    for (int i = 0; i < samples; ++i) {
        finite = finite && std::isfinite(output[i]);
    }
    if (!finite) {
        std::fill(output, output + samples, 0.0f);
        mMixer.restartDsp();
        mSilencedBuffers.fetch_add(1, std::memory_order_relaxed);
    }
    // Muted: the patch went on running, only its output is discarded.
    if (mMuted.load(std::memory_order_relaxed)) {
        std::fill(output, output + samples, 0.0f);
    }
    // What goes to the device is what the meter shows and the recording keeps.
    measureLevel(output, frames);
    if (recording) {
        recording->endBuffer(output, frames);
    }
    mBuffersEnded.fetch_add(1, std::memory_order_seq_cst);
}

RecordTap* PdPlayer::beginRecordedBuffer(int frames) noexcept
{
    RecordTap* tap = mRecordTap.load(std::memory_order_acquire);
    if (!tap) {
        return nullptr;
    }
    // Not while a patch change is under way: its half-prepared state could
    // not be sounded again from the log.
    switch (tap->beginBuffer(!mChanger.isChanging())) {
    case RecordTap::Begin:
        captureState(tap->startState());
        tap->start(frames);
        return tap->phase() == RecordTap::Recording ? tap : nullptr;
    case RecordTap::Record:
        return tap;
    case RecordTap::Skip:
        break;
    }
    return nullptr;
}

void PdPlayer::measureLevel(const float* output, int frames) noexcept
{
    const int samples = std::max(frames, 0) * CHANNELS;
    float peak = mLevelPeak;
    double squares = 0.0;
    for (int i = 0; i < samples; ++i) {
        const float magnitude = std::fabs(output[i]);
        peak = std::max(peak, magnitude);
        squares += double(output[i]) * double(output[i]);
    }
    mLevelPeak = peak;
    mLevelSquares += squares;
    mLevelFrames += std::max(frames, 0);
    mLevelClipped = mLevelClipped || peak >= 1.0f;
    if (mLevelFrames >= mLevelInterval) {
        const float rms = float(std::sqrt(mLevelSquares / double(mLevelFrames * CHANNELS)));
        mResults.reportLevel(mLevelPeak, rms, mLevelClipped);
        mLevelPeak = 0.0f;
        mLevelSquares = 0.0;
        mLevelFrames = 0;
        mLevelClipped = false;
    }
}

bool PdPlayer::waitForBufferEnd(int timeoutMs) const
{
    const std::uint64_t seen = mBuffersEnded.load(std::memory_order_seq_cst);
    QElapsedTimer waited;
    waited.start();
    while (isAudioThreadRunning() && mBuffersEnded.load(std::memory_order_seq_cst) == seen) {
        if (waited.elapsed() > timeoutMs) {
            return false;
        }
        QThread::usleep(500);
    }
    return true;
}

void PdPlayer::captureState(PlayerState& state) const
{
    for (int i = 0; i < VOICE_COUNT; ++i) {
        state.voices[i] = mVoices.voices()[i];
    }
    state.sequence = mVoices.sequence();
    state.monoVoice = mVoices.monoVoice();
    state.transposition = mControls.transposition();
    for (int prime = 0; prime < PRIME_FLAG_COUNT; ++prime) {
        state.primeEnabled[prime] = mControls.primeEnabled(prime);
    }
    state.volume = mMixer.volume();
    state.voiceVolume = mVoices.voiceVolume();
    state.baseFrequency = mVoices.baseFrequency();
    state.monophonic = mVoices.monophonic();
    for (int i = 0; i < MACRO_COUNT; ++i) {
        state.macros[i] = mChanger.macroValue(i);
    }
    state.builtInSound = mVoices.builtInSound();
    state.patchSerial = mChanger.playingSerial();
}

void PdPlayer::restoreState(const PlayerState& state)
{
    mControls.setVolume(state.volume);
    mControls.setVoiceVolume(state.voiceVolume);
    mControls.setBaseFrequency(state.baseFrequency);
    mControls.setMonophonic(state.monophonic); // before the voices: it forgets the mono voice
    for (int prime = 0; prime < PRIME_FLAG_COUNT; ++prime) {
        if (mControls.primeEnabled(prime) != state.primeEnabled[prime]) {
            mControls.togglePrimeEnabled(prime);
        }
    }
    mControls.setTransposition(state.transposition);
    for (int i = 0; i < MACRO_COUNT; ++i) {
        if (state.macros[i] >= 0.0f) {
            mControls.setMacroValue(i + 1, state.macros[i]);
        }
    }
    mVoices.setBuiltInSound(state.builtInSound);
    mVoices.restore(state.voices, state.sequence, state.monoVoice);
}

// ---------------------------------------------------------------------------
// Results

void PdPlayer::deliverResults()
{
    PlayerResult result;
    while (mResults.take(result)) {
        mDeliveredBufferStart = std::chrono::steady_clock::time_point(
            std::chrono::nanoseconds(result.bufferStartNs));
        emitResult(result);
    }
    PrintLine line;
    while (mPrintLines.pop(line)) {
        ARBO_DEBUG().noquote() << "libPD:" << line.text;
    }
    signalPatchSteps();
    mScenes.collectRetired();
    if (const int request = mCommands.takeRecordRequest()) {
        emit recordRequested(request);
    }
}

void PdPlayer::emitResult(const PlayerResult& result)
{
    const ArboRatio ratio(result.numerator, result.denominator);
    switch (result.kind) {
    case PlayerResult::NoteOn:
        ARBO_DEBUG() << "noteOn for ratio" << ratio.toString() << "freq" << result.value
                     << "voice" << result.number << "seqId" << result.extra << "stolen"
                     << (result.flag ? "true" : "false");
        emit noteToggled(ratio, true);
        break;
    case PlayerResult::NoteOff:
        ARBO_DEBUG() << "noteOff for ratio" << ratio.toString() << "voice" << result.number;
        emit noteToggled(ratio, false);
        break;
    case PlayerResult::VoiceStopped:
        ARBO_DEBUG() << "voice stopped for" << ratio.toString() << "voice" << result.number;
        break;
    case PlayerResult::Transposed:
        emit transposed(ratio, result.number);
        break;
    case PlayerResult::Volume:
        emit volumeChanged(result.value);
        break;
    case PlayerResult::VoiceVolume:
        emit voiceVolumeChanged(result.value);
        break;
    case PlayerResult::BaseFrequency:
        emit baseFrequencyChanged(result.value);
        break;
    case PlayerResult::Monophonic:
        emit monophonicChanged(result.flag);
        break;
    case PlayerResult::PrimeEnabled:
        emit primeEnabledToggled(result.number, result.flag);
        break;
    case PlayerResult::MacroValue:
        emit macroValueChanged(result.number, result.value);
        break;
    case PlayerResult::SceneRecalled:
        emit sceneRecalled(result.number, quint32(result.extra));
        break;
    case PlayerResult::SceneStored:
        emit sceneStored(result.number, result.value, result.flag);
        break;
    case PlayerResult::Level:
        emit levelMeasured(result.value, result.value2, result.flag);
        break;
    }
}

void PdPlayer::signalPatchSteps()
{
    // Patch steps are summed on the audio thread; one signal stands for all
    // of them until the window takes them (takePatchSteps()).
    const int steps = mCommands.patchSteps();
    if (steps != 0 && !mPatchStepSignalled) {
        mPatchStepSignalled = true;
        if (steps > 0) {
            emit patchIncRequested();
        } else {
            emit patchDecRequested();
        }
    }
}

int PdPlayer::takePatchSteps()
{
    // A step added after this is signalled anew, one added before is in the sum.
    mPatchStepSignalled = false;
    return mCommands.takePatchSteps();
}

void PdPlayer::reportRefusedCommands()
{
    static const char* const SOURCE_NAMES[CommandDispatcher::SOURCE_COUNT] = {
        "the wands", "MIDI", "OSC", "the window"};
    for (int source = 0; source < CommandDispatcher::SOURCE_COUNT; ++source) {
        const CommandDispatcher::RefusedValue refused =
            mCommands.takeRefusedValues(CommandDispatcher::Source(source));
        if (refused.count != 0) {
            const char* why = ArboEvent::refusal(refused.type, refused.value);
            qWarning().noquote()
                << QStringLiteral("Ignored %1 command(s) from %2 with a value out of range "
                                  "(last: event %3 with the value %4, which %5)")
                       .arg(refused.count)
                       .arg(QLatin1String(SOURCE_NAMES[source]))
                       .arg(refused.type)
                       .arg(double(refused.value))
                       .arg(QLatin1String(why ? why : "would take the volume out of 0 to 4"));
        }
    }
    if (const quint32 count = mSilencedBuffers.exchange(0)) {
        qWarning().noquote() << QStringLiteral("Silenced %1 audio buffer(s) in which the patch "
                                               "computed a sample that is not a finite number; "
                                               "its sound was reset")
                                    .arg(count);
    }
    if (const quint32 count = mMixer.takeFailedMessages()) {
        qCritical().noquote()
            << QStringLiteral("libpd_start_message returned an error status %1 time(s)").arg(count);
    }
    if (const quint32 count = mResults.takeLost()) {
        qWarning().noquote()
            << QStringLiteral("%1 voice-stop report(s) for the diagnostics were dropped").arg(count);
    }
    if (const quint32 count = mCommands.takeMidiDrops()) {
        qWarning().noquote()
            << QStringLiteral("Dropped %1 MIDI command(s): the command buffer was full").arg(count);
    }
    float lastTransposition = 0.0f;
    if (const quint32 count = mControls.takeRefusedTranspositions(lastTransposition)) {
        qWarning().noquote() << QStringLiteral("Ignored %1 transposition(s) that are no prime "
                                               "step or would leave the exact ratios (last: %2)")
                                    .arg(count)
                                    .arg(double(lastTransposition));
    }
    ArboPath lastNote;
    if (const quint32 count = mControls.takeRefusedNotes(lastNote)) {
        qWarning().noquote()
            << QStringLiteral("Ignored %1 note(s) beyond the exact ratios (last: %2)")
                   .arg(count)
                   .arg(lastNote.toString());
    }
}

// ---------------------------------------------------------------------------
// libpd's hooks

void PdPlayer::pdPrintHook(const char* text)
{
    const RealTimeZone::Hook hook;
    // On the audio thread a print is only copied (cut to a line's room) for
    // the GUI thread to log; elsewhere (opening a patch) it is logged here.
    PdPlayer* player = sThis;
    if (player && RealTimeZone::inOwnAudioCode()) {
        PrintLine line;
        std::strncpy(line.text, text, sizeof line.text - 1);
        line.text[sizeof line.text - 1] = '\0';
        player->mPrintLines.push(line); // a full queue drops the line
        return;
    }
    ARBO_DEBUG().noquote() << "libPD:" << text;
}

void PdPlayer::pdListHook(const char* recv, int argc, _atom* argv)
{
    const RealTimeZone::Hook hook;
    // The macro names of a patch being opened, off the audio thread.
    if (PdInstance::receiveWhileOpening(recv, argc, argv)) {
        return;
    }
    PdPlayer* player = sThis;
    if (!player || !RealTimeZone::inOwnAudioCode() || std::strcmp(recv, "voice-stop") != 0) {
        return;
    }
    if (argc > 0 && libpd_is_float(&argv[0])) {
        // Range-checked before the conversion: a patch may send anything.
        const float number = libpd_get_float(&argv[0]);
        if (number >= 1.0f && number < float(VOICE_COUNT + 1)) {
            player->mVoices.onVoiceStopReported(libpd_this_instance(), int(number) - 1);
        }
    }
}

// ---------------------------------------------------------------------------
// Patch lifecycle

bool PdPlayer::loadPatch(const QFileInfo& file)
{
    mChanger.collectRetired();
    PdInstance* instance = mChanger.spareInstance();
    if (!instance) {
        qCritical() << "No Pd instance is free for the next patch";
        return false;
    }
    qWarning().noquote() << "Opening PD patch: " << file.absolutePath() << file.fileName();
    // Opened here, off the audio thread, which plays the old patch on.
    if (!instance->open(file.fileName().toLocal8Bit(), file.absolutePath().toLocal8Bit())) {
        return false; // the old patch plays on
    }
    handOver(instance, file.absoluteFilePath());
    mPatchOpen.store(true, std::memory_order_release);
    emit macroNamesReceived(mChanger.macroNames());
    emit macroDefaultsReceived(instance->macroDefaults());
    emit patchLoaded(file.absoluteFilePath());
    return true;
}

void PdPlayer::unloadPatch()
{
    mChanger.collectRetired();
    if (!isPatchOpen()) {
        return;
    }
    qWarning() << "Closing PD patch...";
    handOver(nullptr, QString()); // no instance: the sound fades out and every note ends
    mPatchOpen.store(false, std::memory_order_release);
    emit macroNamesReceived(mChanger.macroNames());
}

void PdPlayer::handOver(PdInstance* instance, const QString& file)
{
    // Named before the audio thread can take it up, so that a recording
    // always knows which patch a change it logs brought.
    const quint32 serial = ++mHandOverSerial;
    emit patchHandingOver(serial, file);
    mChanger.handOver(instance, serial);
    if (!mAudioThreadRunning.load(std::memory_order_acquire)) {
        // No audio thread runs: this thread stands in for it, at once and
        // without a crossfade, after the commands queued before the change.
        processEvents(VOICE_COUNT * VOICE_COUNT);
        mChanger.completeNow();
        mChanger.takeTakenUp(); // no buffer of a recording took it up
        deliverResults();
    }
}
