#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <type_traits>

// A fixed-size queue of plain records from one thread to one other, without
// locks: the audio thread's way of handing results to the GUI thread.
//
// The records live in the object itself (no allocation, ever). Each side owns
// one index; a record is copied in before the write index is published
// (release) and read before the read index is, so neither side ever sees a
// record half written. Each side also keeps its last look at the other's
// index and reads the shared one again only when that look says full or
// empty: a busy pair of threads then does not pull the other side's cache
// line over for every record.
//
// Records also go in and out in runs (pushAll(), popUpTo()): the recorder's
// samples travel a buffer at a time, copied in at most two pieces.
//
// Threads: exactly one thread calls push(), pushAll() and freeSlots(), exactly
// one other calls pop(), popUpTo(), readable() and empty(). Neither blocks,
// allocates or locks.
template <typename T, std::size_t Capacity>
class SpscQueue
{
    static_assert(std::is_trivially_copyable<T>::value, "records are copied as they are");
    static_assert(Capacity >= 2 && (Capacity & (Capacity - 1)) == 0,
                  "the capacity is a power of two");

public:
    static constexpr std::size_t CAPACITY = Capacity;

    // Producer. Copies `record` in; false, and nothing copied, when full.
    bool push(const T& record) noexcept
    {
        const std::size_t write = mWrite.load(std::memory_order_relaxed);
        if (write - mReadSeen >= Capacity) {
            mReadSeen = mRead.load(std::memory_order_acquire);
            if (write - mReadSeen >= Capacity) {
                return false;
            }
        }
        mRecords[write & (Capacity - 1)] = record;
        mWrite.store(write + 1, std::memory_order_release);
        return true;
    }

    // Producer. Copies all `count` records in, in order, or none of them
    // (false) when they do not all fit.
    bool pushAll(const T* records, std::size_t count) noexcept
    {
        const std::size_t write = mWrite.load(std::memory_order_relaxed);
        if (Capacity - (write - mReadSeen) < count) {
            mReadSeen = mRead.load(std::memory_order_acquire);
            if (Capacity - (write - mReadSeen) < count) {
                return false;
            }
        }
        const std::size_t at = write & (Capacity - 1);
        const std::size_t first = std::min(count, Capacity - at);
        std::copy_n(records, first, mRecords.data() + at);
        std::copy_n(records + first, count - first, mRecords.data());
        mWrite.store(write + count, std::memory_order_release);
        return true;
    }

    // Producer. How many records fit now; only grows until the next push().
    std::size_t freeSlots() const noexcept
    {
        return Capacity - (mWrite.load(std::memory_order_relaxed) -
                           mRead.load(std::memory_order_acquire));
    }

    // Consumer. Takes the oldest record into `record`; false when empty.
    bool pop(T& record) noexcept
    {
        const std::size_t read = mRead.load(std::memory_order_relaxed);
        if (read == mWriteSeen) {
            mWriteSeen = mWrite.load(std::memory_order_acquire);
            if (read == mWriteSeen) {
                return false;
            }
        }
        record = mRecords[read & (Capacity - 1)];
        mRead.store(read + 1, std::memory_order_release);
        return true;
    }

    // Consumer. Takes up to `max` of the oldest records into `out`, in order;
    // returns how many.
    std::size_t popUpTo(T* out, std::size_t max) noexcept
    {
        const std::size_t read = mRead.load(std::memory_order_relaxed);
        mWriteSeen = mWrite.load(std::memory_order_acquire);
        const std::size_t count = std::min(max, mWriteSeen - read);
        const std::size_t at = read & (Capacity - 1);
        const std::size_t first = std::min(count, Capacity - at);
        std::copy_n(mRecords.data() + at, first, out);
        std::copy_n(mRecords.data(), count - first, out + first);
        mRead.store(read + count, std::memory_order_release);
        return count;
    }

    // Consumer: how many records wait now; only grows until the next pop.
    std::size_t readable() const noexcept
    {
        return mWrite.load(std::memory_order_acquire) - mRead.load(std::memory_order_relaxed);
    }

    // Consumer.
    bool empty() const noexcept
    {
        return mRead.load(std::memory_order_relaxed) == mWrite.load(std::memory_order_acquire);
    }

private:
    // On lines of their own, each with its side's last look at the other
    // index: each line is written by one side only.
    alignas(64) std::atomic<std::size_t> mWrite{0};
    std::size_t mReadSeen = 0; // producer's
    alignas(64) std::atomic<std::size_t> mRead{0};
    std::size_t mWriteSeen = 0; // consumer's
    alignas(64) std::array<T, Capacity> mRecords{};
};
