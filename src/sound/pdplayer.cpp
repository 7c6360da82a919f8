#include "sound/pdplayer.h"

#include "model/arbo.h"
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
    if (!mGuiBuffer.init()) {
        qCritical() << "failed to allocate gui command buffer";
        return false;
    }
    if (!mSerialBuffer.init()) {
        qCritical() << "failed to allocate serial command buffer";
        return false;
    }
    if (!mMidiBuffer.init() || !mOscBuffer.init()) {
        qCritical() << "failed to allocate MIDI and OSC command buffers";
        return false;
    }
    // The MIDI input may call in from the MIDI server's real-time thread,
    // which must not log; its drops are counted and reported from here.
    mMidiBuffer.setLogDrops(false);
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
    mGuiBuffer.queueEvent(event);
}

void PdPlayer::queueEventSerial(const ArboEvent* event)
{
    mSerialBuffer.queueEvent(event);
}

void PdPlayer::queueEventMidi(const ArboEvent* event)
{
    mMidiBuffer.queueEvent(event);
}

void PdPlayer::queueEventOsc(const ArboEvent* event)
{
    mOscBuffer.queueEvent(event);
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

void PdPlayer::processEvents(int budget)
{
    // A budget per buffer: a flood costs latency, never an overrun. Each
    // ring first gets a share, in the order wands, MIDI, OSC, window, so that
    // no source can keep the others waiting; what is left goes round again.
    // What is not carried out stays in its ring, in order, for the next
    // buffer.
    PdMessageBuffer* const rings[SOURCE_COUNT] = {&mSerialBuffer, &mMidiBuffer, &mOscBuffer,
                                                  &mGuiBuffer};
    const int share = std::max(1, budget / SOURCE_COUNT);
    for (int source = 0; source < SOURCE_COUNT && budget > 0; ++source) {
        budget -= processBuffer(*rings[source], Source(source), std::min(share, budget));
    }
    for (int source = 0; source < SOURCE_COUNT && budget > 0; ++source) {
        budget -= processBuffer(*rings[source], Source(source), budget);
    }
}

int PdPlayer::processBuffer(PdMessageBuffer& buffer, Source source, int budget)
{
    int done = 0;
    PdMessageBuffer::Chunk chunk;
    while (done < budget && buffer.peek(chunk)) {
        // A command is carried out only with room for all it may report;
        // otherwise it waits, first in its ring, for the GUI thread to catch
        // up, and the commands behind it wait with it.
        if (mResults.freeSlots() < std::size_t(resultsOf(chunk.type))) {
            break;
        }
        buffer.pop();
        carryOut(chunk, source);
        ++done;
    }
    return done;
}

int PdPlayer::resultsOf(int type)
{
    switch (type) {
    case ArboEvent::AllNotesOff:
        return VOICE_COUNT + 1; // a note-off for every voice
    case ArboEvent::NoteToggle:
    case ArboEvent::NoteStart:
        return 4; // a stolen voice's end and stop, a mono voice's end, the note
    case ArboEvent::PatchStep:
        return 0;
    default:
        return 1;
    }
}

bool PdPlayer::acceptValue(int type, float value, float current, Source source)
{
    // The sources refuse such values where they read them; this catches
    // whatever reached a ring anyway, so that neither the sound nor the
    // saved options ever see it.
    bool accepted = ArboEvent::refusal(type, value) == nullptr;
    if (accepted && (type == ArboEvent::VoiceVolumeStep || type == ArboEvent::MasterVolumeStep)) {
        // A step may take a volume past 1 (the patch takes that), but not
        // out of the range a volume may have at all.
        const int absolute =
            type == ArboEvent::VoiceVolumeStep ? ArboEvent::VoiceVolume : ArboEvent::MasterVolume;
        accepted = ArboEvent::refusal(absolute, current + value) == nullptr;
    }
    if (!accepted) {
        RefusedValues& refused = mRefusedValues[source];
        refused.lastType.store(type, std::memory_order_relaxed);
        refused.lastValue.store(value, std::memory_order_relaxed);
        refused.count.fetch_add(1, std::memory_order_relaxed);
    }
    return accepted;
}

void PdPlayer::carryOut(const PdMessageBuffer::Chunk& chunk, Source source)
{
    const float value = chunk.value;
    switch (chunk.type) {
    case ArboEvent::VoiceVolumeStep:
    case ArboEvent::VoiceVolume:
    case ArboEvent::MasterVolumeStep:
    case ArboEvent::MasterVolume:
    case ArboEvent::BaseFrequency:
    case ArboEvent::Macro1:
    case ArboEvent::Macro2:
    case ArboEvent::Macro3:
    case ArboEvent::Macro4:
    case ArboEvent::Macro5:
    case ArboEvent::Macro6:
    case ArboEvent::Macro7:
    case ArboEvent::Macro8: {
        const bool voice = chunk.type == ArboEvent::VoiceVolumeStep;
        if (!acceptValue(chunk.type, value, voice ? voiceVolume() : volume(), source)) {
            return;
        }
        break;
    }
    default:
        break;
    }
    switch (chunk.type) {
    case ArboEvent::NoteToggle:
        toggleNote(chunk.path);
        break;
    case ArboEvent::NoteStart:
        startNote(chunk.path);
        break;
    case ArboEvent::NoteEnd:
        endNote(chunk.path);
        break;
    case ArboEvent::AllNotesOff:
        mVoices.allNotesOff();
        break;
    case ArboEvent::Transpose: {
        // Rounded to the nearest step, halves upward. Anything that is not a
        // prime step of the table (4, 1000, NaN from a hand-written tag map)
        // is refused here: its ratio would be 0 or a division by zero.
        const float rounded = std::floor(value + 0.5f);
        if (!(std::fabs(rounded) <= 31.0f) ||
            (rounded != 0.0f && !Arbo::isValidPrime(static_cast<signed char>(rounded)))) {
            mLastRefusedTransposition.store(value, std::memory_order_relaxed);
            mRefusedTranspositions.fetch_add(1, std::memory_order_relaxed);
            break;
        }
        transpose(static_cast<signed char>(rounded));
        break;
    }
    case ArboEvent::VoiceVolumeStep:
        setVoiceVolume(voiceVolume() + value);
        break;
    case ArboEvent::VoiceVolume:
        setVoiceVolume(value);
        break;
    case ArboEvent::MasterVolumeStep:
        setVolume(volume() + value);
        break;
    case ArboEvent::MasterVolume:
        setVolume(value);
        break;
    case ArboEvent::Monophonic:
        setMonophonic(value > 0.5f);
        break;
    case ArboEvent::PatchStep:
        // Summed up for the GUI thread; one signal for a whole run of steps
        // (see takePatchSteps()).
        mPatchSteps.fetch_add(value > 0.0f ? 1 : -1, std::memory_order_relaxed);
        break;
    case ArboEvent::BaseFrequency:
        setBaseFrequency(value);
        break;
    case ArboEvent::PrimeToggle:
        // Truncated; an index outside the flags is no prime and is ignored.
        if (value >= 0.0f && value < float(PRIME_FLAG_COUNT)) {
            togglePrimeEnabled(int(value));
        }
        break;
    case ArboEvent::Macro1:
    case ArboEvent::Macro2:
    case ArboEvent::Macro3:
    case ArboEvent::Macro4:
    case ArboEvent::Macro5:
    case ArboEvent::Macro6:
    case ArboEvent::Macro7:
    case ArboEvent::Macro8:
        setMacroValue(chunk.type - ArboEvent::Macro1 + 1, value);
        break;
    default:
        break; // codes outside the vocabulary are ignored
    }
}

void PdPlayer::setVolume(float volume)
{
    mMixer.setVolume(volume);
    mResults.report(PlayerResult::Volume, 0, volume);
}

void PdPlayer::setVoiceVolume(float volume)
{
    // Takes effect from the next note-on; nothing goes to the patch now.
    mVoices.setVoiceVolume(volume);
    mResults.report(PlayerResult::VoiceVolume, 0, volume);
}

void PdPlayer::setMonophonic(bool monophonic)
{
    // Voices already sounding are left to ring.
    mVoices.setMonophonic(monophonic);
    mResults.report(PlayerResult::Monophonic, 0, 0.0f, monophonic);
}

void PdPlayer::setBaseFrequency(float frequency)
{
    // Sounding voices keep their frequency; new notes use the new base.
    mVoices.setBaseFrequency(frequency);
    mResults.report(PlayerResult::BaseFrequency, 0, frequency);
}

void PdPlayer::togglePrimeEnabled(int prime)
{
    if (prime < 0 || prime >= PRIME_FLAG_COUNT) {
        return;
    }
    mPrimeEnabled[prime] = !mPrimeEnabled[prime];
    mResults.report(PlayerResult::PrimeEnabled, prime, 0.0f, mPrimeEnabled[prime]);
}

bool PdPlayer::primeEnabled(int prime) const
{
    return prime >= 0 && prime < PRIME_FLAG_COUNT && mPrimeEnabled[prime];
}

void PdPlayer::setMacroValue(int macro, float value)
{
    // Macros are for the whole patch: voice -1 goes out as voice number 0.
    mMixer.sendVoiceMessage(PatchMixer::Macro1 + macro - 1, value, -1);
    if (macro >= 1 && macro <= MACRO_COUNT) {
        mChanger.rememberMacro(macro - 1, value); // for the next patch change
    }
    mResults.report(PlayerResult::MacroValue, macro, value);
}

void PdPlayer::transpose(signed char step)
{
    if (step == 0) {
        mTransposition = ArboRatio(1, 1);
    } else {
        if (!Arbo::isValidPrime(step)) {
            return;
        }
        // The transposition is refused rather than wrapped when it would no
        // longer fit in 64 bits: a wrong ratio would be a wrong pitch.
        if (!mTransposition.multiplyIfExact(ArboRatio::pathRatio(ArboPath(step)))) {
            mLastRefusedTransposition.store(float(step), std::memory_order_relaxed);
            mRefusedTranspositions.fetch_add(1, std::memory_order_relaxed);
            return;
        }
    }
    mResults.report(PlayerResult::Transposed, int(step), 0.0f, false, &mTransposition);
}

// ---------------------------------------------------------------------------
// Notes

bool PdPlayer::resolveNote(const ArboPath& path, ArboRatio& ratio)
{
    // A path comes through the ring as raw bytes; one that is not made of
    // prime steps of the table has no pitch and is ignored like the invalid one.
    if (!path.isValid() || !path.hasValidSteps()) {
        return false;
    }
    // The root has no last step: it consults flag 0, which only PrimeToggle 0
    // changes, so the 1/1 is never blocked by a prime.
    const int length = path.length();
    const int prime = length > 0 ? std::abs(int(path.toCharArray()[length - 1])) : 0;
    if (!primeEnabled(prime)) {
        return false;
    }
    ratio = mTransposition;
    if (!ratio.multiplyIfExact(ArboRatio::pathRatio(path))) {
        quint64 bytes = 0;
        std::memcpy(&bytes, &path, sizeof(bytes));
        mLastRefusedNote.store(bytes, std::memory_order_relaxed);
        mRefusedNotes.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    return true;
}

void PdPlayer::toggleNote(const ArboPath& path)
{
    ArboRatio ratio;
    if (!resolveNote(path, ratio)) {
        return;
    }
    mVoices.toggle(ratio);
}

void PdPlayer::startNote(const ArboPath& path)
{
    ArboRatio ratio;
    if (!resolveNote(path, ratio)) {
        return;
    }
    mVoices.start(ratio, path);
}

void PdPlayer::endNote(const ArboPath& path)
{
    mVoices.end(path);
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
    }
}

void PdPlayer::signalPatchSteps()
{
    // Patch steps are summed on the audio thread; one signal stands for all
    // of them until the window takes them (takePatchSteps()).
    const int steps = mPatchSteps.load(std::memory_order_relaxed);
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
    return mPatchSteps.exchange(0, std::memory_order_acq_rel);
}

quint32 PdPlayer::refusedValues() const
{
    quint32 count = 0;
    for (const RefusedValues& refused : mRefusedValues) {
        count += refused.count.load(std::memory_order_relaxed);
    }
    return count;
}

void PdPlayer::reportRefusedCommands()
{
    static const char* const SOURCE_NAMES[SOURCE_COUNT] = {"the wands", "MIDI", "OSC",
                                                           "the window"};
    for (int source = 0; source < SOURCE_COUNT; ++source) {
        RefusedValues& refused = mRefusedValues[source];
        if (const quint32 count = refused.count.exchange(0)) {
            const int type = refused.lastType.load();
            const float value = refused.lastValue.load();
            const char* why = ArboEvent::refusal(type, value);
            qWarning().noquote()
                << QStringLiteral("Ignored %1 command(s) from %2 with a value out of range "
                                  "(last: event %3 with the value %4, which %5)")
                       .arg(count)
                       .arg(QLatin1String(SOURCE_NAMES[source]))
                       .arg(type)
                       .arg(double(value))
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
    if (const quint32 count = mMidiBuffer.takeSilentDrops()) {
        qWarning().noquote()
            << QStringLiteral("Dropped %1 MIDI command(s): the command buffer was full").arg(count);
    }
    if (const quint32 count = mRefusedTranspositions.exchange(0)) {
        qWarning().noquote() << QStringLiteral("Ignored %1 transposition(s) that are no prime "
                                               "step or would leave the exact ratios (last: %2)")
                                    .arg(count)
                                    .arg(double(mLastRefusedTransposition.load()));
    }
    if (const quint32 count = mRefusedNotes.exchange(0)) {
        ArboPath path;
        const quint64 bytes = mLastRefusedNote.load();
        std::memcpy(static_cast<void*>(&path), &bytes, sizeof(bytes));
        qWarning().noquote()
            << QStringLiteral("Ignored %1 note(s) beyond the exact ratios (last: %2)")
                   .arg(count)
                   .arg(path.toString());
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
