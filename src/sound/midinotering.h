#pragma once

#include "sound/spscqueue.h"

#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

// Carries the notes that the player starts and ends from the audio thread to
// the MIDI thread, without locks: the engine's fixed single-producer
// single-consumer queue (SpscQueue) of small trivially copyable records, and
// a semaphore to wake the reader.
//
// When the ring is full the record is dropped and counted. After each write the writer posts a semaphore so that the MIDI thread wakes
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
    SpscQueue<Note, CAPACITY> mNotes;
    std::atomic<std::uint32_t> mDropped{0};
    sem_t mWake;
};

static_assert(std::is_trivially_copyable<MidiNoteRing::Note>::value,
              "notes are copied through the ring as plain bytes");
static_assert(sizeof(MidiNoteRing::Note) == 24, "a note record is 24 bytes");
