#pragma once

#include "model/arboratio.h"
#include "sound/playerresult.h"
#include "sound/spscqueue.h"

#include <QtGlobal>

#include <atomic>
#include <cstddef>
#include <cstdint>

// The player's results on their way from the audio thread to the GUI thread:
// a fixed queue of plain records (see PlayerResult), each stamped with the
// start of the buffer that produced it, and a count of those that found no
// room.
//
// Threads: the audio thread (or the one thread that stands in for it while
// none runs) calls startBuffer(), report() and freeSlots(); they never block,
// lock, allocate or log. The GUI thread calls take(). takeLost() is for any
// thread.
class PlayerResultQueue
{
public:
    static constexpr std::size_t CAPACITY = 8192;

    // Audio thread: the buffer being computed began at `steadyNs` (the steady
    // clock's nanoseconds); every result reported from now on carries it.
    void startBuffer(std::int64_t steadyNs) { mBufferStartNs = steadyNs; }

    // Audio thread: how many results fit now; only grows until the next
    // report(). A command is carried out only with room for all it reports.
    std::size_t freeSlots() const { return mResults.freeSlots(); }

    // Audio thread: queues a result for the GUI thread. Room for every result
    // of a command was made sure of before it was carried out; only a
    // voice-stop from the patch can find the queue full, and it is only for
    // the diagnostics: it is dropped and counted.
    void report(PlayerResult::Kind kind, int number, float value = 0.0f, bool flag = false,
                const ArboRatio* ratio = nullptr, int extra = 0)
    {
        PlayerResult result;
        result.kind = kind;
        result.number = number;
        result.extra = extra;
        result.value = value;
        result.flag = flag;
        result.bufferStartNs = mBufferStartNs;
        if (ratio) {
            result.numerator = ratio->numerator();
            result.denominator = ratio->denominator();
        }
        if (!mResults.push(result)) {
            mLost.fetch_add(1, std::memory_order_relaxed);
        }
    }

    // Audio thread: the output level for the meter. It never takes room a
    // command may need: with the queue half full it is left out (the next
    // one comes a few milliseconds later).
    void reportLevel(float peak, float rms, bool clipped)
    {
        if (mResults.freeSlots() <= CAPACITY / 2) {
            return;
        }
        PlayerResult result;
        result.kind = PlayerResult::Level;
        result.value = peak;
        result.value2 = rms;
        result.flag = clipped;
        result.bufferStartNs = mBufferStartNs;
        mResults.push(result);
    }

    // GUI thread: the oldest result into `result`; false when there is none.
    bool take(PlayerResult& result) { return mResults.pop(result); }

    // Any thread: results dropped since the last call, and clears the count.
    quint32 takeLost() { return mLost.exchange(0); }

private:
    SpscQueue<PlayerResult, CAPACITY> mResults;
    std::int64_t mBufferStartNs = 0; // audio thread
    std::atomic<quint32> mLost{0};
};
