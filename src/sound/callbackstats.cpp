#include "sound/callbackstats.h"

#include <cmath>

int CallbackStats::bucketIndex(std::int64_t durationNs) noexcept
{
    if (durationNs < SUB_BUCKETS) {
        return durationNs < 0 ? 0 : int(durationNs);
    }
    const auto value = std::uint64_t(durationNs);
    const int octave = 63 - __builtin_clzll(value);
    if (octave >= MAX_OCTAVE) {
        return BUCKET_COUNT - 1;
    }
    const int shift = octave - SUB_BUCKET_BITS;
    const int sub = int((value >> shift) & (SUB_BUCKETS - 1));
    return SUB_BUCKETS * (shift + 1) + sub;
}

std::int64_t CallbackStats::bucketUpperNs(int index) noexcept
{
    if (index < SUB_BUCKETS) {
        return index;
    }
    const int shift = index / SUB_BUCKETS - 1;
    const int sub = index % SUB_BUCKETS;
    const std::int64_t lower = std::int64_t(SUB_BUCKETS + sub) << shift;
    return lower + (std::int64_t(1) << shift) - 1;
}

void CallbackStats::record(std::int64_t durationNs, std::int64_t periodNs, bool underflow) noexcept
{
    const std::uint32_t requested = mResetRequested.load(std::memory_order_acquire);
    if (requested != mResetServed) {
        clear();
        mResetServed = requested;
    }
    bump(mBuckets[std::size_t(bucketIndex(durationNs))]);
    bump(mCallbacks);
    if (durationNs > periodNs) {
        bump(mOverruns);
    }
    if (underflow) {
        bump(mUnderflows);
    }
    if (durationNs > mMaxNs.load(std::memory_order_relaxed)) {
        mMaxNs.store(durationNs, std::memory_order_relaxed);
    }
    mTotalNs.store(mTotalNs.load(std::memory_order_relaxed) + durationNs,
                   std::memory_order_relaxed);
    mPeriodNs.store(periodNs, std::memory_order_relaxed);
}

void CallbackStats::clear() noexcept
{
    for (Counter& bucket : mBuckets) {
        bucket.store(0, std::memory_order_relaxed);
    }
    mCallbacks.store(0, std::memory_order_relaxed);
    mOverruns.store(0, std::memory_order_relaxed);
    mUnderflows.store(0, std::memory_order_relaxed);
    mMaxNs.store(0, std::memory_order_relaxed);
    mTotalNs.store(0, std::memory_order_relaxed);
    mPeriodNs.store(0, std::memory_order_relaxed);
}

void CallbackStats::requestReset() noexcept
{
    mResetRequested.fetch_add(1, std::memory_order_release);
}

void CallbackStats::reset() noexcept
{
    clear();
    mResetServed = mResetRequested.load(std::memory_order_relaxed);
}

CallbackStats::Snapshot CallbackStats::snapshot() const
{
    Snapshot result;
    for (std::size_t i = 0; i < mBuckets.size(); ++i) {
        result.buckets[i] = mBuckets[i].load(std::memory_order_relaxed);
    }
    result.callbacks = mCallbacks.load(std::memory_order_relaxed);
    result.overruns = mOverruns.load(std::memory_order_relaxed);
    result.underflows = mUnderflows.load(std::memory_order_relaxed);
    result.maxNs = mMaxNs.load(std::memory_order_relaxed);
    result.totalNs = mTotalNs.load(std::memory_order_relaxed);
    result.periodNs = mPeriodNs.load(std::memory_order_relaxed);
    return result;
}

std::int64_t CallbackStats::Snapshot::percentileNs(double fraction) const
{
    std::uint64_t total = 0;
    for (std::uint64_t count : buckets) {
        total += count;
    }
    if (total == 0) {
        return 0;
    }
    const double clamped = fraction < 0.0 ? 0.0 : (fraction > 1.0 ? 1.0 : fraction);
    // The rank of the wanted callback, counted from 1.
    std::uint64_t rank = std::uint64_t(std::ceil(clamped * double(total)));
    if (rank == 0) {
        rank = 1;
    }
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        seen += buckets[i];
        if (seen >= rank) {
            const std::int64_t upper = bucketUpperNs(int(i));
            return upper < maxNs || maxNs == 0 ? upper : maxNs;
        }
    }
    return maxNs;
}
