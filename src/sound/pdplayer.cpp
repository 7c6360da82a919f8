#include "sound/pdplayer.h"

#include "model/arboevent.h"
#include "sound/midinotering.h"
#include "model/arbo.h"
#include "settings/debuglog.h"
#include "settings/settings.h"
#include "sound/denormals.h"
#include "sound/pdinstance.h"
#include "sound/realtimezone.h"

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

PdPlayer* PdPlayer::sThis = nullptr;

PdPlayer::PdPlayer(QObject* parent) : QObject(parent)
{
    sThis = this;
    for (int i = 0; i < VOICE_COUNT; ++i) {
        mVoices[i] = NoteOn();
    }
    mReportTimer.setInterval(1000);
    connect(&mReportTimer, &QTimer::timeout, this, &PdPlayer::reportRefusedCommands);
    mDeliveryTimer.setInterval(DELIVERY_INTERVAL_MS);
    connect(&mDeliveryTimer, &QTimer::timeout, this, &PdPlayer::deliverResults);
}

PdPlayer::~PdPlayer()
{
    // No audio thread runs any more: every change still on its way is the
    // pool's again, and the pool closes its patches as it goes.
    delete mIncoming.exchange(nullptr);
    delete mActiveSwap;
    Swap* swap = nullptr;
    while (mRetired.pop(swap)) {
        delete swap;
    }
    mCurrent = mOld = nullptr;
    mPool = {};
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
    // The instances the patches play in, all made now: making or freeing one
    // later would take libpd's global lock while the sound runs.
    for (auto& instance : mPool) {
        if (!instance) {
            instance = std::make_unique<PdInstance>();
        }
    }
    mReportTimer.start();
    mDeliveryTimer.start();
    return true;
}

int PdPlayer::initAudio(int outChannels, int sampleRate)
{
    qWarning() << "Initialising libpd with sampleRate" << sampleRate;
    mFadeFrames = std::max(1, int(CROSSFADE_SECONDS * sampleRate));
    for (auto& instance : mPool) {
        if (instance) {
            instance->initAudio(outChannels, sampleRate);
        }
    }
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
    mBufferStartNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                         std::chrono::steady_clock::now().time_since_epoch())
                         .count();

    // A patch change starts before the commands, so that this buffer's
    // commands reach the new patch too; while its notes are being started,
    // the commands wait. Commands are carried out whether or not a patch is
    // open.
    if (!takeSwap(noteStartBudget(frames))) {
        processEvents(commandBudget(frames));
    }

    const int samples = std::max(frames, 0) * CHANNELS;
    for (int done = 0; done < frames;) {
        // In pieces no larger than the crossfade's scratch buffer.
        const int piece = std::min(frames - done, FADE_BUFFER_FRAMES);
        renderPiece(output + done * CHANNELS, piece);
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
        for (PdInstance* instance : {mCurrent, mOld}) {
            if (instance) {
                instance->resetCarry();
                instance->setDsp(false);
                instance->setDsp(true);
            }
        }
        mSilencedBuffers.fetch_add(1, std::memory_order_relaxed);
    }
    // Muted: the patch went on running, only its output is discarded.
    if (mMuted.load(std::memory_order_relaxed)) {
        std::fill(output, output + samples, 0.0f);
    }
}

void PdPlayer::renderPiece(float* output, int frames) noexcept
{
    const int samples = frames * CHANNELS;
    if (mCurrent) {
        mCurrent->process(output, frames);
    } else {
        std::fill(output, output + samples, 0.0f);
    }
    if (!mOld) {
        return;
    }
    // The crossfade: equal power, so that the chord keeps its loudness
    // while one patch gives way to the other.
    mOld->process(mFadeBuffer, frames);
    constexpr double QUARTER_TURN = 1.5707963267948966;
    for (int i = 0; i < frames; ++i) {
        const double position = std::min(1.0, double(mFadeFrame + i) / double(mFadeFrames));
        const float in = float(std::sin(QUARTER_TURN * position));
        const float out = float(std::cos(QUARTER_TURN * position));
        for (int c = 0; c < CHANNELS; ++c) {
            output[i * CHANNELS + c] = output[i * CHANNELS + c] * in + mFadeBuffer[i * CHANNELS + c] * out;
        }
    }
    mFadeFrame += frames;
    if (mFadeFrame >= mFadeFrames) {
        finishSwap();
    }
}

bool PdPlayer::takeSwap(int noteLimit)
{
    if (!mPreparing) {
        // One change at a time; a change waits while the queues lack room
        // for what it may report and return (the old patch's voice-stops
        // during the preparation included).
        if (mOld || mIncoming.load(std::memory_order_relaxed) == nullptr ||
            mRetired.freeSlots() == 0 ||
            mResults.freeSlots() < std::size_t(2 * VOICE_COUNT + MACRO_COUNT + 1)) {
            return false;
        }
        Swap* swap = mIncoming.exchange(nullptr, std::memory_order_acq_rel);
        if (!swap) {
            return false;
        }
        mActiveSwap = swap;
        mPreparing = true;
        mPrepareCursor = 0;
        // Macros carry over where the new patch has the same name; the
        // others take its defaults.
        for (int i = 0; i < MACRO_COUNT; ++i) {
            const int from = swap->macroSource[i];
            mNextMacroValues[i] = from >= 0 ? mMacroValues[from] : swap->macroDefault[i];
        }
    }
    // The new patch is made to sound as the old one does before it is heard:
    // its macros, then the notes held, at their pitches and volumes. A macro
    // goes to all 128 voices and costs about as much as a dozen note starts
    // (some 20 us each in a patch whose memory this core has not touched
    // yet), so a change under a full chord would take milliseconds in one
    // buffer. Instead the work is spread over buffers, `noteLimit` notes'
    // worth each, while the old patch plays on alone and the commands wait
    // in their rings, which keeps the voice table and the macros as they
    // were when the change was taken up.
    PdInstance* next = mActiveSwap->incoming;
    constexpr int MACRO_COST = 12;
    constexpr int STEPS = MACRO_COUNT + VOICE_COUNT;
    for (int spent = 0; next && mPrepareCursor < STEPS && spent < noteLimit; ++mPrepareCursor) {
        if (mPrepareCursor < MACRO_COUNT) {
            const int macro = mPrepareCursor;
            if (mNextMacroValues[macro] >= 0.0f) {
                next->sendList("arbo-in", mNextMacroValues[macro], float(Macro1 + macro), 0.0f);
                spent += MACRO_COST;
            }
            continue;
        }
        const NoteOn& voice = mVoices[mPrepareCursor - MACRO_COUNT];
        if (voice.seqId != 0 && !voice.released && voice.started) {
            next->sendList("arbo-in", voice.frequency, float(Frequency), float(voice.voice + 1));
            next->sendList("arbo-in", voice.volume, float(Volume), float(voice.voice + 1));
            next->sendList("arbo-in", 1.0f, float(Gate), float(voice.voice + 1));
            ++spent;
        }
    }
    if (next && mPrepareCursor < STEPS) {
        return true;
    }
    mPreparing = false;
    beginCrossfade();
    return false;
}

void PdPlayer::beginCrossfade()
{
    PdInstance* next = mActiveSwap->incoming;
    if (!next) {
        allNotesOff(); // closing: every note ends
    }
    mOld = mCurrent;
    mCurrent = next;
    mActiveSwap->retired = mOld;
    mFadeFrame = 0;
    // Those in their release finish in the old patch.
    for (NoteOn& voice : mVoices) {
        if (voice.seqId != 0 && (!next || voice.released)) {
            voice.oldOnly = true;
        }
    }
    if (next) {
        next->resetCarry();
        next->sendFloat("master-vol", mVolume);
        for (int i = 0; i < MACRO_COUNT; ++i) {
            mMacroValues[i] = mNextMacroValues[i];
            if (mMacroValues[i] >= 0.0f) {
                report(PlayerResult::MacroValue, i + 1, mMacroValues[i]);
            }
        }
    }
    if (!mOld) {
        finishSwap(); // from silence: nothing to fade from
    }
}

void PdPlayer::finishSwap()
{
    // The released voices were waiting for "voice-stop" from the patch that
    // is gone; no patch will report them, so they are free now.
    for (NoteOn& voice : mVoices) {
        if (voice.oldOnly) {
            voice = NoteOn();
            voice.voice = int(&voice - &mVoices[0]);
        }
    }
    updateSoundingCount();
    if (!mCurrent) {
        mMonoVoice = -1;
    }
    mRetired.push(mActiveSwap); // room was made sure of in takeSwap()
    mActiveSwap = nullptr;
    mOld = nullptr;
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
        if (!acceptValue(chunk.type, value, voice ? mVoiceVolume : mVolume, source)) {
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
        allNotesOff();
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
        setVoiceVolume(mVoiceVolume + value);
        break;
    case ArboEvent::VoiceVolume:
        setVoiceVolume(value);
        break;
    case ArboEvent::MasterVolumeStep:
        setVolume(mVolume + value);
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
    mVolume = volume;
    sendPdVolumeMessage(mVolume);
    report(PlayerResult::Volume, 0, mVolume);
}

void PdPlayer::setVoiceVolume(float volume)
{
    // Takes effect from the next note-on; nothing goes to the patch now.
    mVoiceVolume = volume;
    report(PlayerResult::VoiceVolume, 0, mVoiceVolume);
}

void PdPlayer::setMonophonic(bool monophonic)
{
    // Voices already sounding are left to ring.
    mMonophonic = monophonic;
    mMonoVoice = -1;
    report(PlayerResult::Monophonic, 0, 0.0f, mMonophonic);
}

void PdPlayer::setBaseFrequency(float frequency)
{
    // Sounding voices keep their frequency; new notes use the new base.
    mBaseFrequency = frequency;
    report(PlayerResult::BaseFrequency, 0, mBaseFrequency);
}

void PdPlayer::togglePrimeEnabled(int prime)
{
    if (prime < 0 || prime >= PRIME_FLAG_COUNT) {
        return;
    }
    mPrimeEnabled[prime] = !mPrimeEnabled[prime];
    report(PlayerResult::PrimeEnabled, prime, 0.0f, mPrimeEnabled[prime]);
}

bool PdPlayer::primeEnabled(int prime) const
{
    return prime >= 0 && prime < PRIME_FLAG_COUNT && mPrimeEnabled[prime];
}

void PdPlayer::setMacroValue(int macro, float value)
{
    // Macros are for the whole patch: voice -1 goes out as voice number 0.
    sendPdVoiceMessage(Macro1 + macro - 1, value, -1);
    if (macro >= 1 && macro <= MACRO_COUNT) {
        mMacroValues[macro - 1] = value; // for the next patch change
    }
    report(PlayerResult::MacroValue, macro, value);
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
    report(PlayerResult::Transposed, int(step), 0.0f, false, &mTransposition);
}

float PdPlayer::ratioToFrequency(const ArboRatio& ratio) const
{
    return float(ratio.numerator()) / float(ratio.denominator()) * mBaseFrequency;
}

// ---------------------------------------------------------------------------
// Notes and voices

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
    const NoteOn* found = findNote(ratio);
    if (found && !found->released) {
        noteOff(ratio);
    } else {
        // Absent, or still releasing: struck again on a new voice.
        noteOn(ratio);
    }
}

void PdPlayer::startNote(const ArboPath& path)
{
    ArboRatio ratio;
    if (!resolveNote(path, ratio)) {
        return;
    }
    const NoteOn* found = findNote(ratio);
    if (found && !found->released) {
        return; // already sounding: the key does not own it
    }
    const int voice = noteOn(ratio);
    mVoices[voice].held = true;
    mVoices[voice].heldPath = path;
}

void PdPlayer::endNote(const ArboPath& path)
{
    // By the path, not the ratio: a transposition between press and release
    // must still end the note the press began.
    for (int i = 0; i < VOICE_COUNT; ++i) {
        NoteOn& record = mVoices[i];
        if (record.seqId != 0 && record.held && !record.released && record.heldPath == path) {
            noteOff(record.ratio);
            return;
        }
    }
}

int PdPlayer::noteOn(const ArboRatio& ratio)
{
    ++mSequence;
    const float frequency = float(ratio.numerator()) / float(ratio.denominator()) * mBaseFrequency;

    int chosen = -1;
    for (int i = 0; i < VOICE_COUNT; ++i) {
        if (mVoices[i].seqId == 0) {
            chosen = i;
            break;
        }
    }
    bool stolen = false;
    if (chosen < 0) {
        // Steal the voice struck longest ago, released or not.
        chosen = 0;
        for (int i = 1; i < VOICE_COUNT; ++i) {
            if (mVoices[i].seqId < mVoices[chosen].seqId) {
                chosen = i;
            }
        }
        NoteOn& victim = mVoices[chosen];
        if (!victim.released) {
            noteOff(victim.ratio);
        }
        onVoiceStopped(chosen);
        stolen = true;
    }

    if (mMonophonic && mMonoVoice != -1) {
        const NoteOn& previous = mVoices[mMonoVoice];
        if (previous.seqId != 0 && !previous.released) {
            noteOff(previous.ratio);
        }
    }
    if (mMonophonic) {
        mMonoVoice = chosen;
    }

    // The note table: an entry for the same ratio still releasing on another
    // voice is replaced by this one.
    if (NoteOn* earlier = findNote(ratio)) {
        earlier->inMap = false;
    }
    NoteOn& record = mVoices[chosen];
    record.ratio = ratio;
    record.voice = chosen;
    record.seqId = mSequence;
    record.released = false;
    record.held = false;
    record.inMap = true;
    record.oldOnly = false;
    record.frequency = frequency;
    record.volume = mVoiceVolume;
    record.started = false;
    updateSoundingCount();

    // Outside the audible range the voice is taken and reported sounding,
    // but the patch is told nothing.
    // Notes are played only strictly inside the audible range; outside it
    // a voice is taken but the patch is told nothing.
    if (frequency > Settings::FREQUENCY_MIN && frequency < Settings::FREQUENCY_MAX) {
        if (mBuiltInSound.load(std::memory_order_relaxed)) {
            record.started = true;
            sendPdVoiceMessage(Frequency, frequency, chosen);
            sendPdVoiceMessage(Volume, mVoiceVolume, chosen);
            sendPdVoiceMessage(Gate, 1.0f, chosen);
        }
        // MIDI gets the same note, its pitch recomputed in double precision
        // from the exact ratio: the MIDI encoding rounds it only once.
        tapNote(MidiNoteRing::NoteOn, chosen,
                double(ratio.numerator()) / double(ratio.denominator()) * double(mBaseFrequency));
    }
    report(PlayerResult::NoteOn, chosen, frequency, stolen, &ratio, record.seqId);
    return chosen;
}

void PdPlayer::noteOff(const ArboRatio& ratio)
{
    NoteOn* record = findNote(ratio);
    if (!record) {
        return;
    }
    // No check of `released`: stop-all sends a second gate-off to voices
    // already releasing, and reports them off again, by design.
    record->released = true;
    sendPdVoiceMessage(Gate, 0.0f, record->voice);
    // A voice that MIDI never started (out of range) or already ended is
    // ignored on the MIDI side, so repeats cost nothing there.
    tapNote(MidiNoteRing::NoteOff, record->voice);
    report(PlayerResult::NoteOff, record->voice, 0.0f, false, &ratio);
}

void PdPlayer::allNotesOff()
{
    for (NoteOn& voice : mVoices) {
        if (voice.inMap) {
            noteOff(voice.ratio);
        }
    }
    tapNote(MidiNoteRing::AllNotesOff, -1);
}

PdPlayer::NoteOn* PdPlayer::findNote(const ArboRatio& ratio)
{
    // A scan of 128 records: no allocation, and faster than hashing a ratio.
    for (NoteOn& voice : mVoices) {
        if (voice.inMap && voice.ratio == ratio) {
            return &voice;
        }
    }
    return nullptr;
}

void PdPlayer::updateSoundingCount()
{
    int count = 0;
    for (const NoteOn& voice : mVoices) {
        count += voice.inMap ? 1 : 0;
    }
    mSoundingNotes.store(count, std::memory_order_relaxed);
}

void PdPlayer::tapNote(int type, int voice, double frequency)
{
    // A copy into a lock-free ring and a semaphore post: no lock, no
    // allocation, no MIDI I/O on this thread. A full ring drops the note,
    // counted by the ring and reported by the MIDI output.
    if (MidiNoteRing* tap = mNoteTap.load(std::memory_order_acquire)) {
        tap->push(static_cast<MidiNoteRing::Type>(type), voice, frequency);
    }
}

void PdPlayer::onVoiceStopped(int voice)
{
    if (voice < 0 || voice >= VOICE_COUNT) {
        return;
    }
    NoteOn& record = mVoices[voice];
    // A voice struck again meanwhile, or a repeated report, is not ours to free.
    if (!record.released) {
        return;
    }
    // The ratio may since sound on another voice; that entry stays.
    if (record.inMap) {
        record.inMap = false;
        updateSoundingCount();
    }
    // Only for the diagnostics: dropped when the queue is full.
    report(PlayerResult::VoiceStopped, voice, 0.0f, false, &record.ratio);
    record.released = false;
    record.held = false;
    record.seqId = 0;
}

void PdPlayer::report(int kind, int number, float value, bool flag, const ArboRatio* ratio,
                      int extra)
{
    PlayerResult result;
    result.kind = static_cast<PlayerResult::Kind>(kind);
    result.number = number;
    result.extra = extra;
    result.value = value;
    result.flag = flag;
    result.bufferStartNs = mBufferStartNs;
    if (ratio) {
        result.numerator = ratio->numerator();
        result.denominator = ratio->denominator();
    }
    // Room for every result of a command was made sure of before it was
    // carried out (see processBuffer); only a voice-stop from the patch can
    // find the queue full, and it is only for the diagnostics.
    if (!mResults.push(result)) {
        mLostResults.fetch_add(1, std::memory_order_relaxed);
    }
}

void PdPlayer::deliverResults()
{
    PlayerResult result;
    while (mResults.pop(result)) {
        mDeliveredBufferStart = std::chrono::steady_clock::time_point(
            std::chrono::nanoseconds(result.bufferStartNs));
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
    PrintLine line;
    while (mPrintLines.pop(line)) {
        ARBO_DEBUG().noquote() << "libPD:" << line.text;
    }
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

// ---------------------------------------------------------------------------
// Messages to the patch

bool PdPlayer::sendPdVoiceMessage(int type, float value, int voice)
{
    // During a crossfade both patches hear every message, so that the old
    // one fades out with what the player does meanwhile.
    bool sent = true;
    for (PdInstance* instance : {mCurrent, mOld}) {
        if (instance && !instance->sendList("arbo-in", value, float(type), float(voice + 1))) {
            // A failed start (a message longer than libpd's buffer: never
            // for three floats) is counted here and logged by the GUI thread.
            mFailedMessages.fetch_add(1, std::memory_order_relaxed);
            sent = false;
        }
    }
    return sent;
}

bool PdPlayer::sendPdVolumeMessage(float value)
{
    bool sent = true;
    for (PdInstance* instance : {mCurrent, mOld}) {
        if (instance && !instance->sendFloat("master-vol", value)) {
            mFailedMessages.fetch_add(1, std::memory_order_relaxed);
            sent = false;
        }
    }
    return sent;
}

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
    if (const quint32 count = mFailedMessages.exchange(0)) {
        qCritical().noquote()
            << QStringLiteral("libpd_start_message returned an error status %1 time(s)").arg(count);
    }
    if (const quint32 count = mLostResults.exchange(0)) {
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
            player->onVoiceStopReported(libpd_this_instance(), int(number) - 1);
        }
    }
}

void PdPlayer::onVoiceStopReported(const _pdinstance* from, int voice)
{
    // During a crossfade a voice belongs to one of the two patches: the
    // old one reports the notes that were releasing when it was replaced,
    // the new one all others.
    const bool fromOld = mOld && from == mOld->pd();
    if (fromOld != mVoices[voice].oldOnly) {
        return;
    }
    onVoiceStopped(voice);
}

// ---------------------------------------------------------------------------
// Patch lifecycle

bool PdPlayer::loadPatch(const QFileInfo& file)
{
    collectRetired();
    PdInstance* instance = spareInstance();
    if (!instance) {
        qCritical() << "No Pd instance is free for the next patch";
        return false;
    }
    qWarning().noquote() << "Opening PD patch: " << file.absolutePath() << file.fileName();
    // Opened here, off the audio thread, which plays the old patch on.
    if (!instance->open(file.fileName().toLocal8Bit(), file.absolutePath().toLocal8Bit())) {
        return false; // the old patch plays on
    }
    auto* swap = new Swap;
    swap->incoming = instance;
    // Macros carry over where the new patch has the same name (as the
    // window shows it: in any case).
    const QStringList& names = instance->macroNames();
    for (int i = 0; i < MACRO_COUNT; ++i) {
        const QString name = names.value(i).trimmed();
        swap->macroSource[i] = -1;
        for (int j = 0; j < mMacroNames.size() && !name.isEmpty(); ++j) {
            if (mMacroNames.at(j).trimmed().compare(name, Qt::CaseInsensitive) == 0) {
                swap->macroSource[i] = j;
                break;
            }
        }
        if (swap->macroSource[i] >= MACRO_COUNT) {
            swap->macroSource[i] = -1;
        }
        swap->macroDefault[i] = instance->macroDefaults().value(i, -1.0f);
    }
    handOver(swap);
    mPatchOpen.store(true, std::memory_order_release);
    mMacroNames = names;
    emit macroNamesReceived(mMacroNames);
    emit macroDefaultsReceived(instance->macroDefaults());
    emit patchLoaded(file.absoluteFilePath());
    return true;
}

void PdPlayer::unloadPatch()
{
    collectRetired();
    if (!isPatchOpen()) {
        return;
    }
    qWarning() << "Closing PD patch...";
    handOver(new Swap); // no instance: the sound fades out and every note ends
    mPatchOpen.store(false, std::memory_order_release);
    mMacroNames.clear();
    emit macroNamesReceived(mMacroNames);
}

void PdPlayer::handOver(Swap* swap)
{
    mInUse[poolIndex(swap->incoming)] = true;
    // A change not yet taken up by the audio thread is replaced: only the
    // latest one counts.
    if (Swap* replaced = mIncoming.exchange(swap, std::memory_order_acq_rel)) {
        release(replaced->incoming);
        delete replaced;
    }
    if (!mAudioThreadRunning.load(std::memory_order_acquire)) {
        // No audio thread runs: this thread stands in for it, at once and
        // without a crossfade, after the commands queued before the change.
        processEvents(VOICE_COUNT * VOICE_COUNT);
        for (int i = 0; i < 2; ++i) { // a change left over, then this one
            if (mOld) {
                finishSwap();
            }
            takeSwap(VOICE_COUNT); // every note at once: the change is over
        }
        if (mOld) {
            finishSwap();
        }
        deliverResults();
    }
}

void PdPlayer::collectRetired()
{
    Swap* swap = nullptr;
    while (mRetired.pop(swap)) {
        release(swap->retired);
        delete swap;
    }
}

void PdPlayer::release(PdInstance* instance)
{
    if (!instance) {
        return;
    }
    instance->close();
    mInUse[poolIndex(instance)] = false;
}

int PdPlayer::poolIndex(const PdInstance* instance) const
{
    for (int i = 0; i < POOL_SIZE; ++i) {
        if (mPool[i].get() == instance) {
            return i;
        }
    }
    return POOL_SIZE; // the spare slot of mInUse: no instance (a closing change)
}

PdInstance* PdPlayer::spareInstance()
{
    // Three instances: the one playing, one fading out, one being prepared.
    QElapsedTimer waited;
    waited.start();
    for (;;) {
        for (int i = 0; i < POOL_SIZE; ++i) {
            if (!mInUse[i] && mPool[i]) {
                return mPool[i].get();
            }
        }
        // A change the audio thread has not taken up yet is given up: only
        // the latest one counts, so its instance is this one's.
        if (Swap* pending = mIncoming.exchange(nullptr, std::memory_order_acq_rel)) {
            release(pending->incoming);
            delete pending;
            continue;
        }
        // Otherwise a crossfade holds the third: it ends within tens of
        // milliseconds, while the audio thread goes on.
        if (waited.elapsed() > SPARE_WAIT_MS) {
            return nullptr;
        }
        QThread::msleep(2);
        collectRetired();
    }
}
