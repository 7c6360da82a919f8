#pragma once

// Marks, for the calling thread, where this program's own code runs on the
// audio thread, and where libpd's does. The audio thread must never
// allocate, lock, emit a signal or log in the program's own code; libpd may
// still take its instance's lock and some Pd objects allocate. A test
// interposes the allocator and the mutex functions and counts what happens
// while inOwnAudioCode() is true, which keeps that promise checked rather
// than written down.
//
// All of it is a few thread-local writes: cheap enough for every call.
class RealTimeZone
{
public:
    // Whether the calling thread is inside render(), and not inside libpd.
    static bool inOwnAudioCode() noexcept;

    // For the length of render().
    class Audio
    {
    public:
        Audio() noexcept;
        ~Audio();
        Audio(const Audio&) = delete;
        Audio& operator=(const Audio&) = delete;
    };
    // Around a call into libpd.
    class Library
    {
    public:
        Library() noexcept;
        ~Library();
        Library(const Library&) = delete;
        Library& operator=(const Library&) = delete;
    };
    // Around the program's own code that libpd calls back (its hooks).
    class Hook
    {
    public:
        Hook() noexcept;
        ~Hook();
        Hook(const Hook&) = delete;
        Hook& operator=(const Hook&) = delete;

    private:
        int mSavedDepth;
    };
};
