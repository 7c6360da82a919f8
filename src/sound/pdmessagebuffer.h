#pragma once

#include "model/arbopath.h"
#include "settings/logthrottle.h"
#include "sound/spscqueue.h"

#include <QtGlobal>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

class ArboEvent;

// Carries commands from one producing thread to the audio thread without
// locks, through the engine's single-producer single-consumer queue
// (SpscQueue, the same one that carries the MIDI note tap and the results).
//
// Each command is flattened into a 16-byte Chunk and copied as it is. A
// chunk is written in one call that copies it whole or not at all (when the
// ring is full, the command is dropped), and the write position is published
// only after it is in, so the reader never sees part of a chunk.
//
// Threads: exactly one thread writes a buffer (queueEvent, writeChunk) and
// only the audio thread reads it (peek, pop). Neither side takes a lock or
// waits for the other. Nothing allocates after init(), except the rate-limited
// warning when the ring is full (see writeChunk).
class PdMessageBuffer
{
public:
    // One command as it travels through the ring. Trivially copyable and
    // exactly 16 bytes; the layout is fixed (asserted below the class).
    struct Chunk
    {
        std::int32_t type = -1; // ArboEvent::Type; -1 is no command
        ArboPath path;          // the note's path; empty for other commands
        float value = 0.0f;
    };

    // How many commands the ring holds.
    static constexpr int CAPACITY = 1024;
    static constexpr int CHUNK_BYTES = 16;

    // Between two "Command buffer full" warnings, drops are only counted.
    static constexpr std::chrono::milliseconds FULL_WARNING_INTERVAL{1000};

    // No ring yet: nothing can be written or read before init().
    PdMessageBuffer();
    // Frees the ring. No thread may be writing or reading any more.
    ~PdMessageBuffer();
    PdMessageBuffer(const PdMessageBuffer&) = delete;
    PdMessageBuffer& operator=(const PdMessageBuffer&) = delete;

    // GUI thread, at start-up, before any writer or reader runs. Creates the
    // ring (the one allocation); false when that fails. Calling it again on a
    // buffer that has its ring does nothing and returns true.
    bool init();

    // Writer thread only. Flattens `event` into a chunk on the stack (the path
    // is copied when it is an ArboNoteEvent, otherwise left empty) and writes
    // it with writeChunk. The caller keeps the event. Never blocks; returns
    // whether the command went in (false for a null event, before init(), or
    // when the ring is full).
    bool queueEvent(const ArboEvent* event);

    // Writer thread only. Appends the 16 bytes when the ring has room for
    // them, otherwise drops the chunk and returns false. Never blocks and does
    // not allocate, except when it logs: the warning "Command buffer full" is
    // written for the first drop and then at most once per
    // FULL_WARNING_INTERVAL while drops go on; the drops in between are
    // counted and their number is logged with the next warning, or with the
    // first successful write at least an interval after the last message.
    // Logging allocates and takes the log handler's lock; that is acceptable
    // here because the writers are the GUI and UDP threads, never the audio
    // thread, and the limit keeps a flood of commands from flooding the log.
    bool writeChunk(const Chunk* chunk);

    // Audio thread only. The oldest command in the ring, left in it (true),
    // or false when the ring is empty; pop() then takes it away, so that the
    // reader decides per command whether to carry it out now. Never blocks
    // or allocates.
    bool peek(Chunk& chunk);
    void pop();

    // Before any writer runs. Off: a writer that must not log (a real-time
    // MIDI thread) only counts its drops, and someone else reports them from
    // takeSilentDrops() (any thread; returns the count and clears it).
    void setLogDrops(bool log);
    quint32 takeSilentDrops();

    // Any thread. How many more chunks would fit right now: a snapshot that
    // may only grow until the writer writes again. 0 before init().
    int freeChunks() const;

private:
    void noteDrop();
    void reportDrops();

    // The engine's one single-producer single-consumer queue; made by init(),
    // so that a buffer that is never used costs no 16 KB.
    std::unique_ptr<SpscQueue<Chunk, CAPACITY>> mRing;
    // The reader's look-ahead: a chunk read from the ring by peek() and not
    // yet popped. It comes before anything still in the ring.
    Chunk mAhead;
    bool mHasAhead = false;

    // Writer-side state of the rate-limited warning; touched only by the
    // writer thread (and by the destructor, once no writer is left).
    LogThrottle mFullWarning{FULL_WARNING_INTERVAL};
    bool mLogDrops = true;
    std::atomic<quint32> mSilentDrops{0};
};

static_assert(std::is_trivially_copyable<PdMessageBuffer::Chunk>::value,
              "chunks are copied byte for byte through the ring");
static_assert(std::is_standard_layout<PdMessageBuffer::Chunk>::value,
              "the chunk's layout must be fixed");
static_assert(sizeof(PdMessageBuffer::Chunk) == PdMessageBuffer::CHUNK_BYTES,
              "a chunk is exactly 16 bytes");
static_assert(offsetof(PdMessageBuffer::Chunk, type) == 0, "type at offset 0");
static_assert(offsetof(PdMessageBuffer::Chunk, path) == 4, "path at offset 4");
static_assert(offsetof(PdMessageBuffer::Chunk, value) == 12, "value at offset 12");
