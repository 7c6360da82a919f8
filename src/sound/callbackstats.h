#pragma once

#include <array>
#include <atomic>
#include <cstdint>

// How long the audio callback takes, measured against the time its buffer
// lasts (the period): a callback that runs longer than its period has overrun
// and the listener hears a gap.
//
// One writer, the audio callback, records each run; it never allocates, locks,
// logs or waits, and uses no read-modify-write instructions (being the only
// writer, it loads and stores). Any thread may read a snapshot at any time;
// a snapshot taken while the writer runs may lag it by one callback in some
// fields, never more.
//
// Durations go into a histogram of fixed buckets, so that the median, the
// 99th percentile and the worst can be read without keeping every sample:
// below 32 ns one bucket per nanosecond, above that 32 buckets per octave,
// so a percentile is read at most about 3 % high. The worst is kept exactly.
class CallbackStats
{
public:
    static constexpr int SUB_BUCKET_BITS = 5;
    static constexpr int SUB_BUCKETS = 1 << SUB_BUCKET_BITS;
    // Durations of 2^40 ns (about 18 minutes) and more share the last bucket.
    static constexpr int MAX_OCTAVE = 40;
    static constexpr int BUCKET_COUNT = SUB_BUCKETS * (MAX_OCTAVE - SUB_BUCKET_BITS + 1);

    struct Snapshot
    {
        std::uint64_t callbacks = 0;
        // Callbacks that took longer than their period.
        std::uint64_t overruns = 0;
        // Callbacks for which the audio library reported that the output ran
        // dry before them (an xrun, whoever caused it).
        std::uint64_t underflows = 0;
        std::int64_t maxNs = 0;
        std::int64_t totalNs = 0;
        // The period of the latest callback.
        std::int64_t periodNs = 0;
        std::array<std::uint64_t, BUCKET_COUNT> buckets{};

        // The duration that `fraction` (0 to 1) of the callbacks did not
        // exceed: the upper edge of its bucket, capped at the exact worst.
        // 0 when nothing was recorded.
        std::int64_t percentileNs(double fraction) const;
        double meanNs() const { return callbacks ? double(totalNs) / double(callbacks) : 0.0; }
    };

    CallbackStats() = default;
    CallbackStats(const CallbackStats&) = delete;
    CallbackStats& operator=(const CallbackStats&) = delete;

    // Writer (audio thread) only. Never blocks or allocates.
    void record(std::int64_t durationNs, std::int64_t periodNs, bool underflow) noexcept;

    // Any thread. Copies the counters; allocates nothing but the snapshot
    // (about 9 KB, on the caller's stack or wherever it is put).
    Snapshot snapshot() const;

    // Any thread, also while the writer runs: the writer clears everything at
    // its next record() before it counts that callback.
    void requestReset() noexcept;
    // Only while no writer runs (no stream open): clears everything now.
    void reset() noexcept;

    static int bucketIndex(std::int64_t durationNs) noexcept;
    // The largest duration that falls into the bucket.
    static std::int64_t bucketUpperNs(int index) noexcept;

private:
    using Counter = std::atomic<std::uint64_t>;

    static void bump(Counter& counter) noexcept
    {
        counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    void clear() noexcept;

    std::array<Counter, BUCKET_COUNT> mBuckets{};
    Counter mCallbacks{0};
    Counter mOverruns{0};
    Counter mUnderflows{0};
    std::atomic<std::int64_t> mMaxNs{0};
    std::atomic<std::int64_t> mTotalNs{0};
    std::atomic<std::int64_t> mPeriodNs{0};
    // Readers bump the requested generation; the writer clears when it sees
    // one it has not served yet. A counter, not a flag, so that a request made
    // while the writer is clearing is not lost.
    std::atomic<std::uint32_t> mResetRequested{0};
    std::uint32_t mResetServed = 0; // writer only
};
