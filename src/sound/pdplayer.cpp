#include "sound/pdplayer.h"

#include "model/arboevent.h"
#include "settings/debuglog.h"
#include "sound/denormals.h"
#include "sound/pdinstance.h"
#include "sound/realtimezone.h"

#include <z_libpd.h>
#include <z_print_util.h>

#include <QDebug>
#include <QFileInfo>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstring>

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

    // A patch change starts before the commands, so that this buffer's
    // commands reach the new patch too; while its notes are being started,
    // the commands wait. Commands are carried out whether or not a patch is
    // open.
    if (!mChanger.takeSwap(noteStartBudget(frames))) {
        processEvents(commandBudget(frames));
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
    handOver(instance);
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
    handOver(nullptr); // no instance: the sound fades out and every note ends
    mPatchOpen.store(false, std::memory_order_release);
    emit macroNamesReceived(mChanger.macroNames());
}

void PdPlayer::handOver(PdInstance* instance)
{
    mChanger.handOver(instance);
    if (!mAudioThreadRunning.load(std::memory_order_acquire)) {
        // No audio thread runs: this thread stands in for it, at once and
        // without a crossfade, after the commands queued before the change.
        processEvents(VOICE_COUNT * VOICE_COUNT);
        mChanger.completeNow();
        deliverResults();
    }
}
