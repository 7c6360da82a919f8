#pragma once

#include "model/arboratio.h"
#include "sound/staticarray.h"

#include <QtGlobal>

#include <atomic>
#include <cstring>

class PatchChanger;
class PatchMixer;
class PlayerResultQueue;
class VoicePool;

// The player's controls, as the commands set them: the master and voice
// volumes, the base frequency, the monophonic switch, the macros, the
// transposition and the per-prime enable flags. Each change goes where it
// takes effect (the patch, or the voices for the next note-on) and is
// reported to the GUI thread. The transposition and the prime flags are kept
// here: they decide where a path of the lattice sounds (resolveNote()).
//
// What is refused (a transposition that is no prime step or would leave the
// exact ratios, a note beyond them) is counted, for the GUI thread to report:
// the audio thread never logs because of what the input says.
//
// Threads: the audio thread, or the one thread that stands in for it while
// none runs; it never blocks, locks, allocates or logs here. The counts are
// for any thread.
class PlayerControls
{
public:
    static constexpr int PRIME_FLAG_COUNT = 32;

    PlayerControls(PatchMixer& mixer, VoicePool& voices, PatchChanger& changer,
                   PlayerResultQueue& results);

    void setVolume(float volume);
    float volume() const;
    void setVoiceVolume(float volume);
    float voiceVolume() const;
    void setMonophonic(bool monophonic);
    void setBaseFrequency(float frequency);
    void togglePrimeEnabled(int prime);
    bool primeEnabled(int prime) const
    {
        return prime >= 0 && prime < PRIME_FLAG_COUNT && mPrimeEnabled[prime];
    }
    // Macro 1..8.
    void setMacroValue(int macro, float value);
    // By one prime step (negative: downward); 0 goes back to 1/1.
    void transpose(signed char step);
    // A transposition command's value: rounded to the nearest step, and
    // refused unless that is 0 or a prime step of the table.
    void transposeBy(float value);
    const ArboRatio& transposition() const { return mTransposition; }
    // The whole transposition at once, as a recording found it; reported
    // with step 0.
    void setTransposition(const ArboRatio& transposition);

    // The sounding ratio of `path` (transposition included); false when the
    // path has no pitch, its prime is switched off or the ratio would leave
    // 64 bits (counted as refused).
    bool resolveNote(const ArboPath& path, ArboRatio& ratio);

    // Any thread: what was refused since the counts were last taken; the
    // take functions clear the count and give the last one refused.
    quint32 refusedTranspositions() const { return mRefusedTranspositions.load(); }
    quint32 refusedNotes() const { return mRefusedNotes.load(); }
    quint32 takeRefusedTranspositions(float& last)
    {
        const quint32 count = mRefusedTranspositions.exchange(0);
        last = mLastRefusedTransposition.load();
        return count;
    }
    quint32 takeRefusedNotes(ArboPath& last);

private:
    void refuseTransposition(float value);

    PatchMixer& mMixer;
    VoicePool& mVoices;
    PatchChanger& mChanger;
    PlayerResultQueue& mResults;
    ArboRatio mTransposition{1, 1};
    StaticArray<bool, PRIME_FLAG_COUNT> mPrimeEnabled{PRIME_FLAG_COUNT, true};

    std::atomic<quint32> mRefusedTranspositions{0};
    std::atomic<float> mLastRefusedTransposition{0.0f};
    std::atomic<quint32> mRefusedNotes{0};
    std::atomic<quint64> mLastRefusedNote{0}; // the path's eight bytes
};
