#pragma once

#include "input/inputmap.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>

class ArboEvent;

// The MIDI input's bindings, as its input thread reads them, and their
// replacement by the GUI thread while that thread runs (an imported scale
// lays its degrees over the notes, and takes them off again).
//
// There are two tables. The input thread reads the current one between
// enter() and leave(), once for each chunk of bytes; set() fills the other,
// makes it the current one and waits until the input thread has left the old
// one, which is then free for the next set(). The input thread never waits,
// locks or allocates: only the GUI thread waits, for at most one chunk.
//
// A note held down while the tables change would otherwise end through the
// new table, which binds its key to another note, and the old note would
// sound on: the input thread records which notes each table holds, and
// set() hands the releases of those the old table still holds to its
// caller.
//
// Threads: set() on the GUI thread; enter(), leave(), pressed() and
// released() on the one thread that feeds the input (see MidiInput::feed()).
class MidiInputTables
{
public:
    struct Table
    {
        bool latch = false;
        bool velocity = false;
        std::array<InputBinding, 128> notes;
        std::array<InputBinding, 128> controllers;
    };

    // Makes `bindings` current. `release` gets the release of each note
    // held through the table replaced, after the input thread has left it.
    void set(const InputMap::Bindings& bindings,
             const std::function<void(const ArboEvent*)>& release);

    // The input thread: the table to read until leave().
    const Table& enter();
    void leave();
    // The input thread, between enter() and leave(): `note` was pressed or
    // released through the table entered.
    void pressed(int note);
    void released(int note);

private:
    std::array<Table, 2> mTables;
    std::atomic<int> mCurrent{0};
    // The table the input thread is in, or -1.
    std::atomic<int> mReading{-1};
    // The input thread's own: the table it entered.
    int mEntered = 0;
    // For each table, the notes held through it: two words of 64 bits.
    std::array<std::array<std::atomic<std::uint64_t>, 2>, 2> mHeld{};
};
