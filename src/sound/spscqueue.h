#pragma once

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
// Threads: exactly one thread calls push() and freeSlots(), exactly one other
// calls pop() and empty(). Neither blocks, allocates or locks.
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
