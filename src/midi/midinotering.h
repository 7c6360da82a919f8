#pragma once

#include <semaphore.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

// Carries the notes that the player starts and ends from the audio thread to
// the MIDI thread, without locks: a fixed single-producer single-consumer ring
// of small trivially copyable records.
//
// The writer (the audio thread) copies a record into the next free slot and
// then publishes the write index; the reader copies records out and publishes
// the read index. When the ring is full the record is dropped and counted.
// After each write the writer posts a semaphore so that the MIDI thread wakes
// at once rather than polling: sem_post takes no lock and never blocks (it is
// an atomic increment and, only when the reader sleeps, a futex wake).
//
// Threads: push() from exactly one writer thread (the audio thread), pop() and
// wait() from exactly one reader thread (the MIDI thread). Nothing allocates.
class MidiNoteRing
{
public:
    enum Type : std::int32_t
    {
        NoteOn = 1,
        NoteOff = 2,
        AllNotesOff = 3,
    };

    // One note event. `frequency` is the exact pitch in Hz, computed in double
    // precision from the ratio and the base frequency; `stampNs` is the
    // monotonic time of the push, for latency figures.
    struct Note
    {
        std::int32_t type = 0;
        std::int32_t voice = -1; // the player's voice, 0..127; -1 for all
        double frequency = 0.0;
        std::int64_t stampNs = 0;
    };

    static constexpr std::size_t CAPACITY = 1024; // a power of two

    MidiNoteRing();
    ~MidiNoteRing();
    MidiNoteRing(const MidiNoteRing&) = delete;
    MidiNoteRing& operator=(const MidiNoteRing&) = delete;

    // Writer thread only. Stamps and appends the record; false (and counted)
    // when the ring is full. Never blocks, locks or allocates.
    bool push(Type type, int voice, double frequency = 0.0);

    // Reader thread only. Takes the oldest record into `note`; false when
    // the ring is empty. Never blocks.
    bool pop(Note& note);
    // Reader thread only. Sleeps until a record was pushed or `timeoutMs`
    // passed; returns at once when one is waiting.
    void wait(int timeoutMs);
    // Reader side: throws away everything queued now. The MIDI output calls
    // it on the GUI thread while no MIDI thread runs, so there is still one
    // reader at a time.
    void clear();

    // Any thread: records dropped because the ring was full, since the last
    // call; the count starts again from zero.
    std::uint32_t takeDropped() { return mDropped.exchange(0); }

    // Any thread: the monotonic clock that stamps records, in nanoseconds.
    static std::int64_t nowNs();

private:
    std::array<Note, CAPACITY> mNotes;
    alignas(64) std::atomic<std::size_t> mWrite{0};
    alignas(64) std::atomic<std::size_t> mRead{0};
    std::atomic<std::uint32_t> mDropped{0};
    sem_t mWake;
};

static_assert(std::is_trivially_copyable<MidiNoteRing::Note>::value,
              "notes are copied through the ring as plain bytes");
static_assert(sizeof(MidiNoteRing::Note) == 24, "a note record is 24 bytes");
static_assert((MidiNoteRing::CAPACITY & (MidiNoteRing::CAPACITY - 1)) == 0,
              "the ring's capacity is a power of two");
