#include "sound/midinotering.h"

#include <cerrno>
#include <ctime>

MidiNoteRing::MidiNoteRing()
{
    sem_init(&mWake, 0, 0);
}

MidiNoteRing::~MidiNoteRing()
{
    sem_destroy(&mWake);
}

std::int64_t MidiNoteRing::nowNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

bool MidiNoteRing::push(Type type, int voice, double frequency)
{
    Note note;
    note.type = type;
    note.voice = voice;
    note.frequency = frequency;
    note.stampNs = nowNs();
    if (!mNotes.push(note)) {
        mDropped.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    sem_post(&mWake);
    return true;
}

bool MidiNoteRing::pop(Note& note)
{
    return mNotes.pop(note);
}

void MidiNoteRing::wait(int timeoutMs)
{
    if (!mNotes.empty()) {
        // Records are waiting: take the posts they left without sleeping.
        while (sem_trywait(&mWake) == 0) {
        }
        return;
    }
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += timeoutMs / 1000;
    until.tv_nsec += long(timeoutMs % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        until.tv_sec += 1;
        until.tv_nsec -= 1000000000L;
    }
    while (sem_clockwait(&mWake, CLOCK_MONOTONIC, &until) != 0 && errno == EINTR) {
    }
}

void MidiNoteRing::clear()
{
    Note note;
    while (pop(note)) {
    }
}
