#pragma once

#include "sound/patchmixer.h"
#include "sound/spscqueue.h"

#include <QStringList>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

class PlayerResultQueue;
class VoicePool;

// A patch change without a gap. The new patch is opened in a spare Pd
// instance of a small pool while the old one plays on; the change is handed
// over to the audio thread, which makes the new patch sound as the old one
// does (its macros, then the notes held) a few notes per buffer, crossfades
// to it (see PatchMixer) and hands the old instance back to be closed.
//
// Threads: the pool and the hand-over in both directions belong to the GUI
// thread (makeInstances() to handOver(), completeNow() and collectRetired());
// takeSwap(), finishSwap() and rememberMacro() to the audio thread, or to
// the GUI thread while it stands in for a missing one (completeNow()). They
// share only the hand-over: an atomic pointer to the change on its way and a
// lock-free queue of the changes done. Nothing here logs.
class PatchChanger
{
public:
    static constexpr int MACRO_COUNT = PatchMixer::MACRO_COUNT;

    PatchChanger(PatchMixer& mixer, VoicePool& voices, PlayerResultQueue& results);
    // Once no audio thread runs any more: every change still on its way is
    // the pool's again, and the pool closes its patches as it goes.
    ~PatchChanger();
    PatchChanger(const PatchChanger&) = delete;
    PatchChanger& operator=(const PatchChanger&) = delete;

    // GUI thread, at start-up: the instances the patches play in, all made
    // now: making or freeing one later would take libpd's global lock while
    // the sound runs.
    void makeInstances();
    // GUI thread, while no audio thread runs: Pd's audio settings for each.
    void initAudio(int outChannels, int sampleRate);

    // GUI thread: closes the instances whose crossfade is over.
    void collectRetired();
    // GUI thread: an instance free for the next patch, or null when none
    // came free within SPARE_WAIT_MS.
    PdInstance* spareInstance();
    // GUI thread: hands `instance` (its patch opened, from spareInstance())
    // over to the audio thread; null: no patch, the sound fades out and every
    // note ends. Macros carry over where the new patch has a macro of the
    // same name; the others take its defaults. A change that the audio
    // thread has not taken up yet is replaced: only the latest one counts.
    // `serial` names the change for a recording (see takeTakenUp()).
    void handOver(PdInstance* instance, std::uint32_t serial = 0);
    // GUI thread, while no audio thread runs, after handOver(): carries the
    // change out at once, without a crossfade.
    void completeNow();
    // GUI thread: the macro names of the patch handed over last.
    const QStringList& macroNames() const { return mMacroNames; }

    // Audio thread. Takes up a change handed over and sets its patch's
    // macros and starts the held notes in it, `noteLimit` notes' worth per
    // call; true while there is more to do (the commands wait meanwhile).
    // Then the crossfade begins.
    bool takeSwap(int noteLimit);
    // Audio thread: the crossfade is over; the old instance goes back.
    void finishSwap();
    // Audio thread: the last value of macro `index` (0-based), for the next
    // patch; negative when it was never set.
    void rememberMacro(int index, float value) { mMacroValues[index] = value; }
    // Audio thread: the value macro `index` (0..7) was last set to; negative
    // when it was never set, and the patch plays its default.
    float macroValue(int index) const { return mMacroValues[index]; }
    // Audio thread: whether a change is being prepared or crossfaded now.
    bool isChanging() const { return mPreparing || mMixer.old() != nullptr; }
    // Audio thread: the serial of the change that takeSwap() took up since
    // the last call (0: none), and clears it; and the serial of the change
    // whose patch plays now.
    std::uint32_t takeTakenUp()
    {
        const std::uint32_t serial = mTakenUp;
        mTakenUp = 0;
        return serial;
    }
    std::uint32_t playingSerial() const { return mPlayingSerial; }

private:
    // A patch change, from the GUI thread to the audio thread and back: the
    // instance to play from now on (null: none), and, once the crossfade is
    // over, the one that played before, for the GUI thread to close.
    struct Swap
    {
        PdInstance* incoming = nullptr;
        PdInstance* retired = nullptr;
        std::uint32_t serial = 0;
        // For each macro of the new patch: the macro of the old one whose
        // value it takes, or -1 for its default (macroDefault, -1: none).
        int macroSource[MACRO_COUNT] = {-1, -1, -1, -1, -1, -1, -1, -1};
        float macroDefault[MACRO_COUNT] = {-1, -1, -1, -1, -1, -1, -1, -1};
    };

    // GUI thread.
    void matchMacros(Swap& swap, const PdInstance& instance) const;
    void release(PdInstance* instance);
    int poolIndex(const PdInstance* instance) const;
    // Audio thread: the steps of takeSwap().
    bool takeUp();
    bool prepare(PdInstance& next, int noteLimit);
    int sendMacro(PdInstance& next, int macro);
    int startHeldNote(PdInstance& next, int voice);
    void beginCrossfade();

    static constexpr int POOL_SIZE = 3;
    static constexpr int SPARE_WAIT_MS = 2000;

    PatchMixer& mMixer;
    VoicePool& mVoices;
    PlayerResultQueue& mResults;
    // Made by makeInstances(), freed by the destructor; owned by the GUI
    // thread, which lends them to the audio thread through Swap records.
    // mInUse has a last slot for "no instance".
    std::array<std::unique_ptr<PdInstance>, POOL_SIZE> mPool;
    std::array<bool, POOL_SIZE + 1> mInUse{};
    std::atomic<Swap*> mIncoming{nullptr};
    SpscQueue<Swap*, 16> mRetired;
    // The macro names of the patch last opened (GUI thread).
    QStringList mMacroNames;

    // Audio thread: the change taken up. Starting the held notes of its
    // patch, from step mPrepareCursor on (the macros, then the voices),
    // before the crossfade.
    Swap* mActiveSwap = nullptr;
    bool mPreparing = false;
    int mPrepareCursor = 0;
    float mNextMacroValues[MACRO_COUNT] = {};
    // The last value of each macro (negative: not known), for the next patch.
    float mMacroValues[MACRO_COUNT] = {-1, -1, -1, -1, -1, -1, -1, -1};
    std::uint32_t mTakenUp = 0;
    std::uint32_t mPlayingSerial = 0;
};
