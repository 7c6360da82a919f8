#include "sound/commanddispatcher.h"

#include "model/arboevent.h"
#include "model/arboratio.h"
#include "sound/playercontrols.h"
#include "sound/playerresultqueue.h"
#include "sound/scenerecaller.h"
#include "sound/recordtap.h"
#include "sound/voicepool.h"

#include <algorithm>

CommandDispatcher::CommandDispatcher(PlayerControls& controls, VoicePool& voices,
                                     SceneRecaller& scenes, const PlayerResultQueue& results)
    : mControls(controls), mVoices(voices), mScenes(scenes), mResults(results)
{
}

const char* CommandDispatcher::init()
{
    if (!mRings[FromWindow].init()) {
        return "failed to allocate gui command buffer";
    }
    if (!mRings[FromWands].init()) {
        return "failed to allocate serial command buffer";
    }
    if (!mRings[FromMidi].init() || !mRings[FromOsc].init()) {
        return "failed to allocate MIDI and OSC command buffers";
    }
    // The MIDI input may call in from the MIDI server's real-time thread,
    // which must not log; its drops are counted here and reported by the
    // player (takeMidiDrops()).
    mRings[FromMidi].setLogDrops(false);
    return nullptr;
}

int CommandDispatcher::process(int budget)
{
    const int given = budget;
    // A budget per buffer: a flood costs latency, never an overrun. Each
    // ring first gets a share, in the order wands, MIDI, OSC, window, so that
    // no source can keep the others waiting; what is left goes round again.
    // What is not carried out stays in its ring, in order, for the next
    // buffer.
    const int share = std::max(1, budget / SOURCE_COUNT);
    for (int source = 0; source < SOURCE_COUNT && budget > 0 && !mScenes.busy(); ++source) {
        budget -= processRing(Source(source), std::min(share, budget));
    }
    for (int source = 0; source < SOURCE_COUNT && budget > 0 && !mScenes.busy(); ++source) {
        budget -= processRing(Source(source), budget);
    }
    return given - budget;
}

int CommandDispatcher::processRing(Source source, int budget)
{
    PdMessageBuffer& ring = mRings[source];
    int done = 0;
    PdMessageBuffer::Chunk chunk;
    while (done < budget && !mScenes.busy() && ring.peek(chunk)) {
        // A command is carried out only with room for all it may report;
        // otherwise it waits, first in its ring, for the GUI thread to catch
        // up, and the commands behind it wait with it.
        if (mResults.freeSlots() < std::size_t(resultsOf(chunk.type))) {
            break;
        }
        ring.pop();
        // A scene command is logged as what it does (see SceneRecaller):
        // the offline render has no scenes to recall.
        if (mLog && (chunk.type < ArboEvent::SceneRecall || chunk.type > ArboEvent::SceneStore)) {
            mLog->logCommand(chunk);
        }
        carryOut(chunk, source);
        ++done;
    }
    return done;
}

int CommandDispatcher::resultsOf(int type)
{
    switch (type) {
    case ArboEvent::AllNotesOff:
        return VoicePool::VOICE_COUNT + 1; // a note-off for every voice
    case ArboEvent::NoteToggle:
    case ArboEvent::NoteStart:
    case ArboEvent::RatioToggle:
        return 4; // a stolen voice's end and stop, a mono voice's end, the note
    case ArboEvent::PatchStep:
    case ArboEvent::SceneRecall: // the recall waits for room itself
    case ArboEvent::SceneStep:
    case ArboEvent::Record:
        return 0;
    default:
        return 1;
    }
}

void CommandDispatcher::carryOut(const PdMessageBuffer::Chunk& chunk, Source source)
{
    if (hasRange(chunk.type)) {
        const bool voice = chunk.type == ArboEvent::VoiceVolumeStep;
        const float current = voice ? mControls.voiceVolume() : mControls.volume();
        if (!acceptValue(chunk.type, chunk.value, current, source)) {
            return;
        }
    }
    switch (chunk.type) {
    case ArboEvent::NoteToggle:
    case ArboEvent::NoteStart:
    case ArboEvent::NoteEnd:
    case ArboEvent::AllNotesOff:
        carryOutNote(chunk);
        break;
    case ArboEvent::Transpose:
        mControls.transposeBy(chunk.value);
        break;
    case ArboEvent::SceneRecall:
        mScenes.recall(int(chunk.value) - 1);
        break;
    case ArboEvent::RatioToggle: {
        ArboRatio ratio;
        if (SceneRecaller::commandRatio(chunk, &ratio)) {
            mVoices.toggle(ratio);
        }
        break;
    }
    case ArboEvent::SceneStep:
        mScenes.step(chunk.value > 0.0f ? 1 : -1);
        break;
    case ArboEvent::SceneStore:
        mScenes.store(source, chunk.value);
        break;
    default:
        carryOutSetting(chunk.type, chunk.value);
        break;
    }
}

bool CommandDispatcher::hasRange(int type)
{
    switch (type) {
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
    case ArboEvent::Macro8:
    case ArboEvent::SceneRecall:
        return true;
    default:
        return false;
    }
}

bool CommandDispatcher::acceptValue(int type, float value, float current, Source source)
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

void CommandDispatcher::carryOutNote(const PdMessageBuffer::Chunk& chunk)
{
    switch (chunk.type) {
    case ArboEvent::NoteEnd:
        mVoices.end(chunk.path);
        return;
    case ArboEvent::AllNotesOff:
        mVoices.allNotesOff();
        return;
    default:
        break;
    }
    ArboRatio ratio;
    if (!mControls.resolveNote(chunk.path, ratio)) {
        return;
    }
    if (chunk.type == ArboEvent::NoteToggle) {
        mVoices.toggle(ratio);
    } else {
        mVoices.start(ratio, chunk.path);
    }
}

void CommandDispatcher::carryOutSetting(int type, float value)
{
    switch (type) {
    case ArboEvent::VoiceVolumeStep:
        mControls.setVoiceVolume(mControls.voiceVolume() + value);
        break;
    case ArboEvent::VoiceVolume:
        mControls.setVoiceVolume(value);
        break;
    case ArboEvent::MasterVolumeStep:
        mControls.setVolume(mControls.volume() + value);
        break;
    case ArboEvent::MasterVolume:
        mControls.setVolume(value);
        break;
    case ArboEvent::Monophonic:
        mControls.setMonophonic(value > 0.5f);
        break;
    case ArboEvent::PatchStep:
        // Summed up for the GUI thread; one signal for a whole run of steps
        // (see PdPlayer::takePatchSteps()).
        mPatchSteps.fetch_add(value > 0.0f ? 1 : -1, std::memory_order_relaxed);
        break;
    case ArboEvent::BaseFrequency:
        mControls.setBaseFrequency(value);
        break;
    case ArboEvent::Record:
        requestRecording(value);
        break;
    case ArboEvent::PrimeToggle:
        // Truncated; an index outside the flags is no prime and is ignored.
        if (value >= 0.0f && value < float(PlayerControls::PRIME_FLAG_COUNT)) {
            mControls.togglePrimeEnabled(int(value));
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
        mControls.setMacroValue(type - ArboEvent::Macro1 + 1, value);
        break;
    default:
        break; // codes outside the vocabulary are ignored
    }
}

void CommandDispatcher::requestRecording(float value)
{
    // Left for the GUI thread, which starts and stops recordings. Requests
    // not yet taken add up: a start or a stop replaces what was there, and a
    // toggle turns a pending start into a stop (and back), and two toggles
    // into none.
    if (value >= 0.5f) {
        mRecordRequest.store(RecordStart, std::memory_order_relaxed);
        return;
    }
    if (value >= 0.0f) {
        mRecordRequest.store(RecordStop, std::memory_order_relaxed);
        return;
    }
    int pending = mRecordRequest.load(std::memory_order_relaxed);
    int next = NoRecordRequest;
    do {
        switch (pending) {
        case RecordStart:
            next = RecordStop;
            break;
        case RecordStop:
            next = RecordStart;
            break;
        case RecordToggle:
            next = NoRecordRequest;
            break;
        default:
            next = RecordToggle;
            break;
        }
    } while (!mRecordRequest.compare_exchange_weak(pending, next, std::memory_order_relaxed));
}

quint32 CommandDispatcher::refusedValues() const
{
    quint32 count = 0;
    for (const RefusedValues& refused : mRefusedValues) {
        count += refused.count.load(std::memory_order_relaxed);
    }
    return count;
}

CommandDispatcher::RefusedValue CommandDispatcher::takeRefusedValues(Source source)
{
    RefusedValues& refused = mRefusedValues[source];
    RefusedValue taken;
    taken.count = refused.count.exchange(0);
    taken.type = refused.lastType.load();
    taken.value = refused.lastValue.load();
    return taken;
}
