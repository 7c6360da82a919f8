#pragma once

#include "sound/pdinstance.h"

#include <QtGlobal>

#include <atomic>
#include <initializer_list>

struct _pdinstance;

// The Pd instances that sound: the one playing and, for the length of a
// crossfade after a patch change, the one giving way to it. Every message to
// the patch goes through here, to both while they fade into each other, so
// that the old one fades out with what the player does meanwhile; and the
// output of both is mixed here, with equal power, so that a chord keeps its
// loudness while one patch gives way to the other.
//
// The patch contract: voice and macro messages go to the receiver "arbo-in"
// as lists (value, VoiceMessage, voice number 1..128, 0 for the whole
// patch), the master volume to "master-vol".
//
// Threads: the audio thread, or the one thread that stands in for it while
// none runs; setSampleRate() only while no audio thread runs. Nothing here
// blocks, locks, allocates or logs; a message that libpd could not start is
// counted (takeFailedMessages(), any thread) for the GUI thread to report.
class PatchMixer
{
public:
    // The second element of a message to "arbo-in".
    enum VoiceMessage
    {
        Gate = 1,      // 1.0 at note-on, 0.0 at note-off
        Frequency = 2, // Hz
        Volume = 3,    // the voice volume
        Macro1 = 4,    // Macro1..Macro8: the macro value, for the whole patch
        Macro2,
        Macro3,
        Macro4,
        Macro5,
        Macro6,
        Macro7,
        Macro8,
    };

    static constexpr int CHANNELS = PdInstance::CHANNELS;
    static constexpr int MACRO_COUNT = 8;
    // How long a patch change crossfades from the old patch to the new one.
    static constexpr double CROSSFADE_SECONDS = 0.04;
    // The most frames renderPiece() takes at once (its scratch buffer's size).
    static constexpr int MAX_PIECE_FRAMES = 1024;

    // While no audio thread runs: the crossfade's length in frames follows
    // the stream's rate.
    void setSampleRate(int sampleRate);

    PdInstance* current() const { return mCurrent; }
    // The instance fading out; null outside a crossfade.
    PdInstance* old() const { return mOld; }
    // Whether `pd` is the instance fading out.
    bool isFadingOut(const _pdinstance* pd) const { return mOld && pd == mOld->pd(); }

    // A message of `type` with `value` for voice `voice` (0-based; -1 for the
    // whole patch) to both instances. False when one could not take it.
    bool sendVoiceMessage(int type, float value, int voice)
    {
        bool sent = true;
        for (PdInstance* instance : {mCurrent, mOld}) {
            if (instance && !instance->sendList("arbo-in", value, float(type), float(voice + 1))) {
                // A failed start (a message longer than libpd's buffer: never
                // for three floats) is counted here and logged by the GUI thread.
                mFailedMessages.fetch_add(1, std::memory_order_relaxed);
                sent = false;
            }
        }
        return sent;
    }
    // The master volume, for both instances now and for the next patch.
    bool setVolume(float volume);
    float volume() const { return mVolume; }

    // `next` (null: none, silence) plays from now on and the instance that
    // played fades out (see renderPiece()). The new one starts from a whole
    // tick and at the master volume.
    void crossfadeTo(PdInstance* next);
    // The instance that faded out is done with.
    void endCrossfade() { mOld = nullptr; }
    // Forgets both instances (their pool is going away).
    void forget() { mCurrent = mOld = nullptr; }

    // `frames` stereo frames (at most MAX_PIECE_FRAMES) of the instance
    // playing, or silence without one, mixed with the one fading out during
    // a crossfade. True when this piece ended the crossfade: the caller then
    // lets the old instance go (endCrossfade()).
    bool renderPiece(float* output, int frames) noexcept;
    // Switches both instances' DSP off and on, which builds their DSP chains
    // afresh and clears whatever a patch gone wrong keeps in its filters.
    void restartDsp();

    // Any thread: messages libpd could not start since the last call.
    quint32 takeFailedMessages() { return mFailedMessages.exchange(0); }

private:
    PdInstance* mCurrent = nullptr;
    PdInstance* mOld = nullptr;
    float mVolume = 0.8f;
    int mFadeFrame = 0;
    int mFadeFrames = 1764;
    float mFadeBuffer[MAX_PIECE_FRAMES * CHANNELS] = {};
    std::atomic<quint32> mFailedMessages{0};
};
