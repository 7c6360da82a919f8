#pragma once

#include "model/arboratio.h"
#include "sound/patchmixer.h"
#include "sound/playercontrols.h"
#include "sound/voicepool.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

// Everything the commands have set that decides what the next buffer
// sounds like: the voices with their notes, the transposition, the prime
// flags, the volumes, the base frequency, the monophonic switch and the
// macros. The recorder takes it at the first sample of a recording, so that
// a performance log begun in the middle of a chord can sound that chord
// again; the offline render puts it back before it replays the log.
//
// A plain value of fixed size: the audio thread fills one in place without
// allocating (PdPlayer::captureState()).
struct PlayerState
{
    // As a player starts: every voice free, every prime on.
    PlayerState()
    {
        for (int i = 0; i < VoicePool::VOICE_COUNT; ++i) {
            voices[i].voice = i;
        }
        std::fill(std::begin(primeEnabled), std::end(primeEnabled), true);
    }

    VoicePool::NoteOn voices[VoicePool::VOICE_COUNT];
    // The note-on sequence counter, and the voice sounding in monophonic
    // mode (-1: none).
    std::int32_t sequence = 0;
    std::int32_t monoVoice = -1;
    ArboRatio transposition{1, 1};
    bool primeEnabled[PlayerControls::PRIME_FLAG_COUNT] = {};
    float volume = 0.8f;
    float voiceVolume = 1.0f;
    float baseFrequency = 440.0f;
    bool monophonic = false;
    // The last value of each macro; negative: never set (the patch's default).
    float macros[PatchMixer::MACRO_COUNT] = {-1, -1, -1, -1, -1, -1, -1, -1};
    // Whether note-ons reach the patch (off while MIDI plays another
    // instrument alone).
    bool builtInSound = true;
    // The hand-over serial of the patch that plays (PdPlayer::patchHandingOver);
    // 0: none was ever handed over.
    std::uint32_t patchSerial = 0;
};
