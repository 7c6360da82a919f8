#include "sound/voicepool.h"

#include "settings/settings.h"
#include "sound/midinotering.h"
#include "sound/patchmixer.h"
#include "sound/playerresultqueue.h"

VoicePool::VoicePool(PatchMixer& patches, PlayerResultQueue& results)
    : mPatches(patches), mResults(results)
{
    for (int i = 0; i < VOICE_COUNT; ++i) {
        mVoices[i] = NoteOn();
    }
}

void VoicePool::toggle(const ArboRatio& ratio)
{
    const NoteOn* found = findNote(ratio);
    if (found && !found->released) {
        noteOff(ratio);
    } else {
        // Absent, or still releasing: struck again on a new voice.
        noteOn(ratio);
    }
}

void VoicePool::start(const ArboRatio& ratio, const ArboPath& path)
{
    const NoteOn* found = findNote(ratio);
    if (found && !found->released) {
        return; // already sounding: the key does not own it
    }
    const int voice = noteOn(ratio);
    mVoices[voice].held = true;
    mVoices[voice].heldPath = path;
}

void VoicePool::end(const ArboPath& path)
{
    // By the path, not the ratio: a transposition between press and release
    // must still end the note the press began.
    for (int i = 0; i < VOICE_COUNT; ++i) {
        NoteOn& record = mVoices[i];
        if (record.seqId != 0 && record.held && !record.released && record.heldPath == path) {
            noteOff(record.ratio);
            return;
        }
    }
}

int VoicePool::noteOn(const ArboRatio& ratio)
{
    ++mSequence;
    const float frequency = frequencyOf(ratio);
    bool stolen = false;
    const int chosen = takeVoice(stolen);
    endMonophonicNote(chosen);
    NoteOn& record = enter(chosen, ratio, frequency);
    sound(record);
    mResults.report(PlayerResult::NoteOn, chosen, frequency, stolen, &ratio, record.seqId);
    return chosen;
}

int VoicePool::takeVoice(bool& stolen)
{
    for (int i = 0; i < VOICE_COUNT; ++i) {
        if (mVoices[i].seqId == 0) {
            return i;
        }
    }
    // Steal the voice struck longest ago, released or not.
    int chosen = 0;
    for (int i = 1; i < VOICE_COUNT; ++i) {
        if (mVoices[i].seqId < mVoices[chosen].seqId) {
            chosen = i;
        }
    }
    NoteOn& victim = mVoices[chosen];
    if (!victim.released) {
        noteOff(victim.ratio);
    }
    onVoiceStopped(chosen);
    stolen = true;
    return chosen;
}

void VoicePool::endMonophonicNote(int chosen)
{
    if (!mMonophonic) {
        return;
    }
    if (mMonoVoice != -1) {
        const NoteOn& previous = mVoices[mMonoVoice];
        if (previous.seqId != 0 && !previous.released) {
            noteOff(previous.ratio);
        }
    }
    mMonoVoice = chosen;
}

VoicePool::NoteOn& VoicePool::enter(int voice, const ArboRatio& ratio, float frequency)
{
    // The note table: an entry for the same ratio still releasing on another
    // voice is replaced by this one.
    if (NoteOn* earlier = findNote(ratio)) {
        earlier->inMap = false;
    }
    NoteOn& record = mVoices[voice];
    record.ratio = ratio;
    record.voice = voice;
    record.seqId = mSequence;
    record.released = false;
    record.held = false;
    record.inMap = true;
    record.oldOnly = false;
    record.frequency = frequency;
    record.volume = mVoiceVolume;
    record.started = false;
    updateSoundingCount();
    return record;
}

void VoicePool::sound(NoteOn& record)
{
    // Notes are played only strictly inside the audible range; outside it
    // the voice is taken and reported sounding, but the patch is told nothing.
    if (!(record.frequency > Settings::FREQUENCY_MIN &&
          record.frequency < Settings::FREQUENCY_MAX)) {
        return;
    }
    if (mBuiltInSound.load(std::memory_order_relaxed)) {
        record.started = true;
        mPatches.sendVoiceMessage(PatchMixer::Frequency, record.frequency, record.voice);
        mPatches.sendVoiceMessage(PatchMixer::Volume, record.volume, record.voice);
        mPatches.sendVoiceMessage(PatchMixer::Gate, 1.0f, record.voice);
    }
    // MIDI gets the same note, its pitch recomputed in double precision
    // from the exact ratio: the MIDI encoding rounds it only once.
    const ArboRatio& ratio = record.ratio;
    tapNote(MidiNoteRing::NoteOn, record.voice,
            double(ratio.numerator()) / double(ratio.denominator()) * double(mBaseFrequency));
}

void VoicePool::noteOff(const ArboRatio& ratio)
{
    NoteOn* record = findNote(ratio);
    if (!record) {
        return;
    }
    // No check of `released`: stop-all sends a second gate-off to voices
    // already releasing, and reports them off again, by design.
    record->released = true;
    mPatches.sendVoiceMessage(PatchMixer::Gate, 0.0f, record->voice);
    // A voice that MIDI never started (out of range) or already ended is
    // ignored on the MIDI side, so repeats cost nothing there.
    tapNote(MidiNoteRing::NoteOff, record->voice);
    mResults.report(PlayerResult::NoteOff, record->voice, 0.0f, false, &ratio);
}

void VoicePool::allNotesOff()
{
    for (NoteOn& voice : mVoices) {
        if (voice.inMap) {
            noteOff(voice.ratio);
        }
    }
    tapNote(MidiNoteRing::AllNotesOff, -1);
}

VoicePool::NoteOn* VoicePool::findNote(const ArboRatio& ratio)
{
    // A scan of 128 records: no allocation, and faster than hashing a ratio.
    for (NoteOn& voice : mVoices) {
        if (voice.inMap && voice.ratio == ratio) {
            return &voice;
        }
    }
    return nullptr;
}

void VoicePool::updateSoundingCount()
{
    int count = 0;
    for (const NoteOn& voice : mVoices) {
        count += voice.inMap ? 1 : 0;
    }
    mSoundingNotes.store(count, std::memory_order_relaxed);
}

void VoicePool::tapNote(int type, int voice, double frequency)
{
    // A copy into a lock-free ring and a semaphore post: no lock, no
    // allocation, no MIDI I/O on this thread. A full ring drops the note,
    // counted by the ring and reported by the MIDI output.
    if (MidiNoteRing* tap = mNoteTap.load(std::memory_order_acquire)) {
        tap->push(static_cast<MidiNoteRing::Type>(type), voice, frequency);
    }
}

void VoicePool::onVoiceStopReported(const _pdinstance* from, int voice)
{
    // During a crossfade a voice belongs to one of the two patches: the
    // old one reports the notes that were releasing when it was replaced,
    // the new one all others.
    if (mPatches.isFadingOut(from) != mVoices[voice].oldOnly) {
        return;
    }
    onVoiceStopped(voice);
}

void VoicePool::onVoiceStopped(int voice)
{
    if (voice < 0 || voice >= VOICE_COUNT) {
        return;
    }
    NoteOn& record = mVoices[voice];
    // A voice struck again meanwhile, or a repeated report, is not ours to free.
    if (!record.released) {
        return;
    }
    // The ratio may since sound on another voice; that entry stays.
    if (record.inMap) {
        record.inMap = false;
        updateSoundingCount();
    }
    // Only for the diagnostics: dropped when the queue is full.
    mResults.report(PlayerResult::VoiceStopped, voice, 0.0f, false, &record.ratio);
    record.released = false;
    record.held = false;
    record.seqId = 0;
}

void VoicePool::leaveToOldPatch(bool all)
{
    for (NoteOn& voice : mVoices) {
        if (voice.seqId != 0 && (all || voice.released)) {
            voice.oldOnly = true;
        }
    }
}

void VoicePool::freeOldPatchVoices()
{
    // The released voices were waiting for "voice-stop" from the patch that
    // is gone; no patch will report them, so they are free now.
    for (NoteOn& voice : mVoices) {
        if (voice.oldOnly) {
            voice = NoteOn();
            voice.voice = int(&voice - &mVoices[0]);
        }
    }
    updateSoundingCount();
}

void VoicePool::restore(const NoteOn (&voices)[VOICE_COUNT], std::int32_t sequence,
                        int monoVoice)
{
    for (int i = 0; i < VOICE_COUNT; ++i) {
        NoteOn& record = mVoices[i];
        record = NoteOn();
        record.voice = i;
        const NoteOn& recorded = voices[i];
        if (recorded.seqId == 0 || recorded.released) {
            continue; // a release cannot be picked up half-way: it ends here
        }
        record = recorded;
        record.voice = i;
        record.inMap = true;
        record.oldOnly = false;
        if (record.started) {
            mPatches.sendVoiceMessage(PatchMixer::Frequency, record.frequency, i);
            mPatches.sendVoiceMessage(PatchMixer::Volume, record.volume, i);
            mPatches.sendVoiceMessage(PatchMixer::Gate, 1.0f, i);
        }
    }
    mSequence = sequence;
    const bool monoSounds = monoVoice >= 0 && monoVoice < VOICE_COUNT && mVoices[monoVoice].inMap;
    mMonoVoice = monoSounds ? monoVoice : -1;
    updateSoundingCount();
}
