#pragma once

#include <cstdint>
#include <type_traits>

// What the audio thread has done, as the player reports it to the GUI thread:
// a plain record that travels through a fixed queue (SpscQueue), so that the
// audio thread never allocates an event, takes a lock or emits a signal. The
// GUI thread turns each record into the player's signal of the same meaning.
struct PlayerResult
{
    enum Kind : std::int32_t
    {
        NoteOn,        // ratio, voice in `number`, seqId in `extra`, frequency in `value`;
                       // `flag` set when the voice was stolen
        NoteOff,       // ratio, voice in `number`
        VoiceStopped,  // ratio, voice in `number`
        Transposed,    // the whole transposition as ratio, the step in `number`
        Volume,        // `value`
        VoiceVolume,   // `value`
        BaseFrequency, // `value`
        Monophonic,    // `flag`
        PrimeEnabled,  // prime in `number`, new state in `flag`
        MacroValue,    // macro 1..8 in `number`, `value`
        SceneRecalled, // the scene's index in `number`, its id in `extra`
        SceneStored,   // the source in `number`, the ticket in `value`; `flag`
                       // set when a snapshot is waiting (SceneRecaller)
        Level,         // the output since the last one: peak in `value`, RMS in
                       // `value2`; `flag` set when a sample reached full scale
    };

    Kind kind = NoteOn;
    std::int32_t number = 0;
    std::int32_t extra = 0;
    float value = 0.0f;
    float value2 = 0.0f;
    std::uint64_t numerator = 1;
    std::uint64_t denominator = 1;
    bool flag = false;
    // When the buffer that produced it began (the steady clock's
    // nanoseconds): how long an input took to reach the audio thread.
    std::int64_t bufferStartNs = 0;
};

static_assert(std::is_trivially_copyable<PlayerResult>::value, "results are copied as they are");
