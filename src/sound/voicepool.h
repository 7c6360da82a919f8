#pragma once

#include "model/arbopath.h"
#include "model/arboratio.h"
#include "sound/staticarray.h"

#include <atomic>
#include <cstdint>

class MidiNoteRing;
class PatchMixer;
class PlayerResultQueue;
struct _pdinstance;

// The player's 128 voices and its note table: which voice each note sounds
// on, from its note-on until the patch reports it silent ("voice-stop"). A
// note-on takes a free voice, or steals the one struck longest ago; in
// monophonic mode it ends the note before. The patch is told each start and
// end (see PatchMixer), the MIDI tap too, and the GUI thread hears of each
// through the results.
//
// Threads: the audio thread, or the one thread that stands in for it while
// none runs; it never blocks, locks, allocates or logs here. What is marked
// "any thread" is atomic.
class VoicePool
{
public:
    // One voice of the pool.
    struct NoteOn
    {
        ArboRatio ratio;         // the sounding ratio, transposition included
        std::int32_t voice = -1; // the voice's own index, 0..127
        std::int32_t seqId = 0;  // note-on sequence number; 0 means free
        bool released = false;   // gate off sent, waiting for "voice-stop"
        bool held = false;       // begun by a NoteStart of heldPath
        ArboPath heldPath;
        // In the note table: the voice that `ratio` is found on, from its
        // note-on until it stops (or the ratio is struck again elsewhere).
        bool inMap = false;
        // What the patch was told at the note-on (for a new patch to start
        // the note the same way), and whether it was told at all.
        float frequency = 0.0f;
        float volume = 0.0f;
        bool started = false;
        // Releasing in a patch that is being replaced: only that patch
        // reports it stopped, and it is freed when that patch goes.
        bool oldOnly = false;
    };

    static constexpr int VOICE_COUNT = 128;

    VoicePool(PatchMixer& patches, PlayerResultQueue& results);

    // The note commands, by the sounding ratio. A toggle ends the note when
    // it sounds and strikes it otherwise (also while it is still releasing:
    // on a new voice). A start strikes it unless it sounds already, and
    // remembers `path`; the end of that path ends it, whatever the
    // transposition has become meanwhile.
    void toggle(const ArboRatio& ratio);
    void start(const ArboRatio& ratio, const ArboPath& path);
    void end(const ArboPath& path);
    // Every note in the table ends (a second gate-off for those releasing).
    void allNotesOff();
    // A voice-stop from the instance `from`, for `voice` (0-based, checked).
    void onVoiceStopReported(const _pdinstance* from, int voice);

    // What the next note-on sounds like; sounding voices keep theirs.
    void setBaseFrequency(float frequency) { mBaseFrequency = frequency; }
    float baseFrequency() const { return mBaseFrequency; }
    void setVoiceVolume(float volume) { mVoiceVolume = volume; }
    float voiceVolume() const { return mVoiceVolume; }
    // Voices already sounding are left to ring.
    void setMonophonic(bool monophonic)
    {
        mMonophonic = monophonic;
        mMonoVoice = -1;
    }
    bool monophonic() const { return mMonophonic; }
    // Numerator / denominator × the base frequency.
    float frequencyOf(const ArboRatio& ratio) const
    {
        return float(ratio.numerator()) / float(ratio.denominator()) * mBaseFrequency;
    }

    // A patch change. At its crossfade the voices in their release (all of
    // them when the patch closes) are left to the old patch: only it reports
    // them stopped. When that patch is gone, they are freed, and without a
    // patch the monophonic voice is forgotten.
    void leaveToOldPatch(bool all);
    void freeOldPatchVoices();
    void forgetMonoVoice() { mMonoVoice = -1; }

    const StaticArray<NoteOn, VOICE_COUNT>& voices() const { return mVoices; }
    std::int32_t sequence() const { return mSequence; }
    int monoVoice() const { return mMonoVoice; }
    // The voices as a recording found them (see PlayerState): each note
    // that sounded sounds again on its voice, told to the patch as at its
    // note-on; the voices in their release are left free. Only while no
    // audio thread runs: the offline render, before its first buffer.
    void restore(const NoteOn (&voices)[VOICE_COUNT], std::int32_t sequence, int monoVoice);
    // Any thread: notes in the table (sounding or releasing), published after
    // every change.
    int soundingNoteCount() const { return mSoundingNotes.load(std::memory_order_relaxed); }

    // Any thread: the MIDI output's tap (see PdPlayer::setNoteTap()) and
    // whether note-ons reach the patch.
    void setNoteTap(MidiNoteRing* tap) { mNoteTap.store(tap, std::memory_order_release); }
    void setBuiltInSound(bool on) { mBuiltInSound.store(on, std::memory_order_relaxed); }
    bool builtInSound() const { return mBuiltInSound.load(std::memory_order_relaxed); }

private:
    // The voice the note table holds `ratio` on, or null.
    NoteOn* findNote(const ArboRatio& ratio);
    // Returns the voice taken.
    int noteOn(const ArboRatio& ratio);
    // The note-on's steps: a free voice, or the oldest one stolen; the
    // monophonic note before ended; the voice entered into the table; the
    // patch and the MIDI tap told.
    int takeVoice(bool& stolen);
    void endMonophonicNote(int chosen);
    NoteOn& enter(int voice, const ArboRatio& ratio, float frequency);
    void sound(NoteOn& record);
    void noteOff(const ArboRatio& ratio);
    void onVoiceStopped(int voice);
    void updateSoundingCount();
    // Hands a note to the MIDI tap, if one is set. Never blocks.
    void tapNote(int type, int voice, double frequency = 0.0);

    PatchMixer& mPatches;
    PlayerResultQueue& mResults;
    StaticArray<NoteOn, VOICE_COUNT> mVoices;
    std::int32_t mSequence = 0;
    float mVoiceVolume = 1.0f;
    float mBaseFrequency = 440.0f;
    bool mMonophonic = false;
    int mMonoVoice = -1;
    std::atomic<MidiNoteRing*> mNoteTap{nullptr};
    std::atomic<bool> mBuiltInSound{true};
    std::atomic<int> mSoundingNotes{0};
};
