#pragma once

#include "sound/pdmessagebuffer.h"
#include "sound/playerstate.h"
#include "sound/spscqueue.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

// The audio thread's side of one recording: what the instrument sends to the
// audio device, a buffer at a time, and every command the engine carried out,
// with the sample position at which it took effect, each into a lock-free
// ring that a writer thread drains into the files (see RecordingWriter).
//
// A recording covers whole buffers. It begins at the start of the first
// buffer after it was made (deferred while a patch change is under way, so
// that the state at its first sample is one that can be sounded again), with
// the player's state at that sample; it ends at the start of the first buffer
// after requestStop(). Positions count frames from its first sample.
//
// Nothing is ever lost silently: a buffer that finds no room in the sample
// ring is counted, frame by frame, and marked in the entries as a gap (the
// writer fills it with silence, so that the file stays in time with the
// log); an entry that finds no room is counted too.
//
// Threads: made, asked to stop and freed by the GUI thread (the player must
// be done with it first: see PdPlayer::setRecordTap()); beginBuffer(),
// start(), logCommand(), logPatchChange() and endBuffer() on the audio
// thread, which never blocks, locks, allocates or logs here; the reading
// side (startState() to popEntry()) on one writer thread; the counts and the
// phase from any thread.
class RecordTap
{
public:
    enum Phase : int
    {
        Armed,     // made, waiting for the first buffer
        Recording, // started; startState() and firstBufferFrames() are set
        Stopped,   // ended; endPosition() is set, nothing more comes
    };

    // What beginBuffer() tells the audio thread to do with this buffer.
    enum BufferStart
    {
        Skip,   // not recorded
        Begin,  // the first recorded buffer: fill startState() in, then start()
        Record, // recorded
    };

    // One carried-out command, patch change or gap, at its position.
    struct Entry
    {
        enum Kind : std::int32_t
        {
            Command,     // `command`
            PatchChange, // the patch of hand-over `serial` was taken up
            Gap,         // `frames` frames found no room in the sample ring
        };
        std::int64_t position = 0;
        Kind kind = Command;
        std::uint32_t serial = 0;
        std::int64_t frames = 0;
        PdMessageBuffer::Chunk command;
    };

    static constexpr int CHANNELS = 2;
    // About 24 seconds of stereo at 44.1 kHz: room for a writer held up by
    // a slow disk for far longer than any file system should take.
    static constexpr std::size_t SAMPLE_CAPACITY = std::size_t(1) << 21;
    static constexpr std::size_t ENTRY_CAPACITY = std::size_t(1) << 14;

    // GUI thread. `keepSamples` false: the log alone, no sample ring.
    explicit RecordTap(bool keepSamples);
    ~RecordTap();
    RecordTap(const RecordTap&) = delete;
    RecordTap& operator=(const RecordTap&) = delete;

    // GUI thread: the recording ends at the start of the next buffer.
    void requestStop() { mStopRequested.store(true, std::memory_order_release); }
    // GUI thread, only while no audio thread runs (and none can start to):
    // ends the recording here, where it stands. False when it had ended.
    bool stopWithoutAudioThread();

    // Audio thread, at the start of each buffer, before any command: takes
    // a requested stop, or, while armed and `canStart`, begins.
    BufferStart beginBuffer(bool canStart) noexcept;
    // Audio thread, after a Begin: the state at the first sample, to be
    // filled in before start()...
    PlayerState& startState() { return mStartState; }
    // ...which makes the recording run, its first buffer `frames` long.
    void start(int frames) noexcept;
    // Audio thread, during a recorded buffer: a command carried out, the
    // patch of hand-over `serial` taken up (0: no patch). Both take effect
    // at the start of this buffer.
    void logCommand(const PdMessageBuffer::Chunk& command) noexcept;
    void logPatchChange(std::uint32_t serial) noexcept;
    // Audio thread, at the end of a recorded buffer: its samples as they go
    // to the device, `frames` interleaved stereo frames.
    void endBuffer(const float* output, int frames) noexcept;

    // Any thread.
    Phase phase() const { return Phase(mPhase.load(std::memory_order_acquire)); }
    bool keepsSamples() const { return mSamples != nullptr; }
    // Frames recorded so far (those lost included).
    std::int64_t position() const { return mPosition.load(std::memory_order_relaxed); }
    std::uint64_t lostFrames() const { return mLostFrames.load(std::memory_order_relaxed); }
    std::uint64_t lostEntries() const { return mLostEntries.load(std::memory_order_relaxed); }

    // The writer thread, once phase() is no longer Armed.
    const PlayerState& startState() const { return mStartState; }
    int firstBufferFrames() const { return mFirstBufferFrames; }
    // The writer thread, once phase() is Stopped: the recording's length.
    std::int64_t endPosition() const { return mEndPosition; }
    // The writer thread: stereo frames waiting, and up to `maxFrames` of them
    // into `out` (interleaved); how many.
    std::size_t readableFrames() const;
    std::size_t readFrames(float* out, std::size_t maxFrames);
    // The writer thread: the oldest entry; false when there is none.
    bool popEntry(Entry& entry) { return mEntries->pop(entry); }

private:
    void push(const Entry& entry) noexcept;

    std::unique_ptr<SpscQueue<float, SAMPLE_CAPACITY>> mSamples;
    std::unique_ptr<SpscQueue<Entry, ENTRY_CAPACITY>> mEntries;
    std::atomic<int> mPhase{Armed};
    std::atomic<bool> mStopRequested{false};
    std::atomic<std::int64_t> mPosition{0};
    std::atomic<std::uint64_t> mLostFrames{0};
    std::atomic<std::uint64_t> mLostEntries{0};
    // Written by the audio thread before the phase that publishes them.
    PlayerState mStartState;
    int mFirstBufferFrames = 0;
    std::int64_t mEndPosition = 0;
};
