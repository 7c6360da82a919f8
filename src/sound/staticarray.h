#pragma once

#include <QtGlobal>

#include <cstddef>

// A fixed-capacity array: N elements stored inline, of which the first size()
// count. It never allocates, so the audio thread can fill and empty it freely.
//
// All N elements exist from construction on (default-constructed); the count
// only says how many are in use. clear() therefore resets the count and leaves
// the old values in place, and growing the count again exposes whatever those
// elements last held.
//
// Indexing at exactly size() extends the count by one: the voice pool is
// filled slot by slot with `voices[i] = ...`, which is why operator[] is not
// bound to size(). Indexing beyond size() or at N is a programming error.
//
// Not thread-safe: one thread at a time, like any plain value.
template <typename T, std::size_t N> class StaticArray
{
    static_assert(N > 0, "a StaticArray needs room for at least one element");

public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    StaticArray() = default;

    // `count` elements, each a copy of `value` (count is capped at N).
    StaticArray(std::size_t count, const T& value) { fill(count, value); }

    static constexpr std::size_t capacity() { return N; }
    std::size_t size() const { return mCount; }
    bool isEmpty() const { return mCount == 0; }
    bool empty() const { return mCount == 0; }
    bool isFull() const { return mCount == N; }

    // Forgets the elements in use; nothing is destroyed or freed.
    void clear() { mCount = 0; }

    // Sets the count (capped at N) without touching the elements.
    void resize(std::size_t count) { mCount = count < N ? count : N; }

    // Makes the first `count` elements (capped at N) copies of `value`.
    void fill(std::size_t count, const T& value)
    {
        resize(count);
        for (std::size_t i = 0; i < mCount; ++i) {
            mItems[i] = value;
        }
    }

    // Appends `value` when there is room. Returns false, and changes nothing,
    // when the array is full.
    bool append(const T& value)
    {
        if (mCount == N) {
            return false;
        }
        mItems[mCount++] = value;
        return true;
    }
    bool push_back(const T& value) { return append(value); }

    T& operator[](std::size_t index)
    {
        Q_ASSERT(index <= mCount && index < N);
        if (index == mCount) {
            ++mCount;
        }
        return mItems[index];
    }
    const T& operator[](std::size_t index) const
    {
        Q_ASSERT(index < mCount);
        return mItems[index];
    }

    T* data() { return mItems; }
    const T* data() const { return mItems; }

    iterator begin() { return mItems; }
    iterator end() { return mItems + mCount; }
    const_iterator begin() const { return mItems; }
    const_iterator end() const { return mItems + mCount; }
    const_iterator cbegin() const { return mItems; }
    const_iterator cend() const { return mItems + mCount; }

private:
    T mItems[N]{};
    std::size_t mCount = 0;
};
