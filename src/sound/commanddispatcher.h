#pragma once

#include "sound/pdmessagebuffer.h"

#include <QtGlobal>

#include <atomic>

class ArboEvent;
class PlayerControls;
class PlayerResultQueue;
class RecordTap;
class SceneRecaller;
class VoicePool;

// The player's commands on their way in: one lock-free command buffer per
// producing thread (the wands' UDP listener, the MIDI input, the OSC
// receiver, the window), drained by the audio thread within a budget per
// buffer, and each command checked and carried out: the notes by the voice
// pool, everything else by the player's controls.
//
// A value out of its range is refused and counted per source, for the GUI
// thread to report: the audio thread never logs because of what the input
// says.
//
// Threads: queue() on the thread that owns the command buffer of `source`
// (never blocks); process() on the audio thread (or the one thread that
// stands in for it while none runs), which never blocks, locks, allocates or
// logs here; init() on the GUI thread at start-up; the counts from any
// thread.
class CommandDispatcher
{
public:
    // Where a command came from: one command buffer each, shared out in this
    // order.
    enum Source
    {
        FromWands,
        FromMidi,
        FromOsc,
        FromWindow,
        SOURCE_COUNT
    };

    CommandDispatcher(PlayerControls& controls, VoicePool& voices, SceneRecaller& scenes,
                      const PlayerResultQueue& results);

    // GUI thread, at start-up: makes the command buffers. Null when all are
    // made, otherwise what could not be.
    const char* init();

    // The thread of `source` only: copies the event into its command buffer.
    // The caller keeps the event.
    void queue(Source source, const ArboEvent* event) { mRings[source].queueEvent(event); }
    // The same, for a command already flattened (a logged one, replayed).
    bool queue(Source source, const PdMessageBuffer::Chunk& chunk)
    {
        return mRings[source].writeChunk(&chunk);
    }

    // Audio thread: carries out at most `budget` commands, in order within
    // each source (see the source for how they share), and leaves the rest.
    // Stops at a scene recall, which the commands behind it wait for (see
    // SceneRecaller). Returns how many it carried out.
    int process(int budget);
    // Audio thread: every command carried out from now on is also logged
    // into `tap` (null: none), at the position of the buffer it is in.
    void setLog(RecordTap* tap) { mLog = tap; }

    // What the Record commands not yet taken by the GUI thread add up to.
    enum RecordRequest
    {
        NoRecordRequest,
        RecordStart,
        RecordStop,
        RecordToggle,
    };
    // Any thread: takes that request.
    int takeRecordRequest() { return mRecordRequest.exchange(NoRecordRequest); }

    // Any thread: the patch steps asked for (+1 each to the next patch, -1
    // each back) since they were last taken, and takes them.
    int patchSteps() const { return mPatchSteps.load(std::memory_order_relaxed); }
    int takePatchSteps() { return mPatchSteps.exchange(0, std::memory_order_acq_rel); }

    // Any thread: values refused since the counts were last taken, over all
    // sources; and, taken (the count cleared), those of one source with the
    // last one refused.
    quint32 refusedValues() const;
    struct RefusedValue
    {
        quint32 count;
        int type;
        float value;
    };
    RefusedValue takeRefusedValues(Source source);
    // MIDI commands dropped for a full buffer (its thread must not log).
    quint32 takeMidiDrops() { return mRings[FromMidi].takeSilentDrops(); }

private:
    // Carries out at most `budget` commands of `source`; how many it did.
    int processRing(Source source, int budget);
    // How many results a command of `type` may report at most.
    static int resultsOf(int type);
    void carryOut(const PdMessageBuffer::Chunk& chunk, Source source);
    // Whether the command `type` carries a value that has a range.
    static bool hasRange(int type);
    // Whether `value` is sane for the command `type` (and, for a volume step,
    // whether the volume stays in range); counts a refusal for `source`.
    bool acceptValue(int type, float value, float current, Source source);
    void carryOutNote(const PdMessageBuffer::Chunk& chunk);
    void carryOutSetting(int type, float value);
    void requestRecording(float value);

    PlayerControls& mControls;
    VoicePool& mVoices;
    SceneRecaller& mScenes;
    const PlayerResultQueue& mResults;
    PdMessageBuffer mRings[SOURCE_COUNT];

    struct RefusedValues
    {
        std::atomic<quint32> count{0};
        std::atomic<int> lastType{0};
        std::atomic<float> lastValue{0.0f};
    };
    RefusedValues mRefusedValues[SOURCE_COUNT];
    // The patch steps not yet taken by the GUI thread.
    std::atomic<int> mPatchSteps{0};
    std::atomic<int> mRecordRequest{NoRecordRequest};
    RecordTap* mLog = nullptr; // audio thread
};
