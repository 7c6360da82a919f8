#include "midi/midiinputtables.h"

#include <thread>

void MidiInputTables::set(const InputMap::Bindings& bindings,
                          const std::function<void(const ArboEvent*)>& release)
{
    // Only this thread writes mCurrent. The other table is nobody's: the
    // last set() waited until the input thread had left it, and since then
    // the input thread enters only the current one (enter() checks again
    // after saying where it is).
    const int old = mCurrent.load();
    const int next = 1 - old;
    Table& table = mTables[size_t(next)];
    table.latch = bindings.latch;
    table.velocity = bindings.midiVelocity;
    table.notes = bindings.midiNotes;
    table.controllers = bindings.midiControllers;
    mCurrent.store(next);
    while (mReading.load() == old) {
        std::this_thread::yield();
    }
    const Table& before = mTables[size_t(old)];
    for (int word = 0; word < 2; ++word) {
        const std::uint64_t held = mHeld[size_t(old)][size_t(word)].exchange(0);
        for (int bit = 0; bit < 64; ++bit) {
            if (held & (std::uint64_t(1) << bit)) {
                release(before.notes[size_t(word * 64 + bit)].release(before.latch));
            }
        }
    }
}

const MidiInputTables::Table& MidiInputTables::enter()
{
    int slot = mCurrent.load();
    for (;;) {
        mReading.store(slot);
        const int now = mCurrent.load();
        if (now == slot) {
            break;
        }
        slot = now;
    }
    mEntered = slot;
    return mTables[size_t(slot)];
}

void MidiInputTables::leave()
{
    mReading.store(-1, std::memory_order_release);
}

void MidiInputTables::pressed(int note)
{
    mHeld[size_t(mEntered)][size_t(note >> 6)].fetch_or(std::uint64_t(1) << (note & 63),
                                                        std::memory_order_relaxed);
}

void MidiInputTables::released(int note)
{
    mHeld[size_t(mEntered)][size_t(note >> 6)].fetch_and(~(std::uint64_t(1) << (note & 63)),
                                                         std::memory_order_relaxed);
}
