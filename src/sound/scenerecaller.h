#pragma once

#include "sound/pdmessagebuffer.h"
#include "sound/scenetable.h"
#include "sound/spscqueue.h"

#include <atomic>
#include <cstdint>
#include <memory>

class PatchChanger;
class PlayerControls;
class PlayerResultQueue;
class RecordTap;
class VoicePool;

// Scenes on the audio thread: recalls a scene of the active cue list, steps
// through the list, and takes the sound as it is for a store.
//
// A recall changes only what differs: the prime flags, the base frequency,
// the volumes, the monophonic switch, the macros and the transposition are
// set where the scene's differ; a note sounding in both stays untouched (no
// new note-on), the others end or start with the patch's envelopes. A note
// that would sound at another frequency (the base frequency changed) is
// struck anew. The recall is carried out here, where the sound is, so that it
// takes one pass of the callback whichever thread asked for it, and the
// notes it compares are the ones really sounding. Its note changes count
// against the callback's command budget, like the commands; a big recall
// goes on in the next buffers, and the commands behind it wait for it.
//
// The window builds a SceneTable of the active list and hands it over with
// publish(); the audio thread takes it up between recalls and hands the old
// one back, for the GUI thread to free (collectRetired()). The current scene
// is kept by its id, so that it is found again in a reordered list.
//
// Threads: publish(), collectRetired() and takeSnapshot() belong to the GUI
// thread; the rest to the audio thread (or the one thread that stands in for
// it while none runs), which never blocks, locks, allocates or logs here.
class SceneRecaller
{
public:
    SceneRecaller(PlayerControls& controls, VoicePool& voices, PatchChanger& changer,
                  PlayerResultQueue& results);
    ~SceneRecaller();
    SceneRecaller(const SceneRecaller&) = delete;
    SceneRecaller& operator=(const SceneRecaller&) = delete;

    // GUI thread: the scenes from now on. A table not yet taken up is
    // replaced (and freed here).
    void publish(std::unique_ptr<SceneTable> table);
    // GUI thread: frees the table the audio thread has let go of.
    void collectRetired();
    // GUI thread, after a SceneStored result that says a snapshot was taken:
    // the oldest one. False when there is none.
    bool takeSnapshot(SceneTable::Snapshot& snapshot) { return mSnapshots.pop(snapshot); }

    // Audio thread: takes up a published table, unless a recall is under way.
    void adoptTable();
    // Audio thread: begins the recall of scene `index` (0-based) of the
    // table; an index outside it is ignored.
    void recall(int index);
    // Audio thread: the next (direction > 0) or previous scene; the first
    // when none was recalled yet. Nothing past either end of the list.
    void step(int direction);
    // Audio thread: takes the sound as it is now into a snapshot for the GUI
    // thread, and reports SceneStored with `source` and `ticket` (and whether
    // there was room for it).
    void store(int source, float ticket);
    // Audio thread: carries a recall on by at most `budget` changes; returns
    // how many it made.
    int proceed(int budget);
    // Audio thread: whether a recall is under way.
    bool busy() const { return mPhase != Idle; }

    // The signed prime steps whose product is `ratio`, odd primes first,
    // into `steps`; how many, or -1 when more than `capacity` are needed or
    // the ratio is not made of the lattice's primes. Any thread.
    static int transpositionSteps(const ArboRatio& ratio, signed char* steps, int capacity);

    // A RatioToggle command for `ratio`: the exponents of the lattice's
    // eleven primes, one signed byte each, in the path's eight bytes and the
    // value's first three. False when the ratio is not made of those primes.
    static bool ratioCommand(const ArboRatio& ratio, PdMessageBuffer::Chunk* command);
    // The ratio of such a command; false when its exponents make none that
    // fits in 64 bits. Any thread.
    static bool commandRatio(const PdMessageBuffer::Chunk& command, ArboRatio* ratio);

    // Audio thread, for one buffer: a recording's log (null: none). A recall
    // is logged as the commands it amounts to, not as the recall, since the
    // offline render has no scenes.
    void setLog(RecordTap* tap) { mLog = tap; }

private:
    enum Phase
    {
        Idle,
        Settings,
        NotesOff,
        NotesOn
    };
    void applySettings(const SceneTable::Scene& scene);
    void transposeTo(const ArboRatio& ratio);
    bool inScene(const ArboRatio& ratio) const;
    bool sounding(const ArboRatio& ratio) const;
    // Into the recording's log, if one runs.
    void log(int type, float value, const ArboPath& path = ArboPath());
    void logToggle(const ArboRatio& ratio);
    RecordTap* mLog = nullptr;

    PlayerControls& mControls;
    VoicePool& mVoices;
    PatchChanger& mChanger;
    PlayerResultQueue& mResults;

    // The hand-over: published by the GUI thread, taken up by the audio
    // thread, which parks the table it let go of in mRetired.
    std::atomic<SceneTable*> mPending{nullptr};
    std::atomic<SceneTable*> mRetired{nullptr};
    // Audio thread.
    SceneTable* mTable = nullptr;
    std::uint32_t mCurrentId = 0;
    int mCurrent = -1;
    Phase mPhase = Idle;
    int mCursor = 0;
    bool mRestrike = false;

    // Room for a few stores in a row before the GUI thread takes them.
    SpscQueue<SceneTable::Snapshot, 4> mSnapshots;
    SceneTable::Snapshot mScratch; // audio thread
};
