#pragma once

#include "midi/midiencoder.h"

// The MIDI Tuning Standard's real-time single-note tuning change: every note
// plays on channel 1, and before its note-on the key it will use is retuned
// to the note's exact frequency, so one channel carries up to 128 notes.
//
// A note takes the key nearest its pitch when that key is silent, otherwise
// the nearest silent key (the lower one on a tie), so that a retune never
// changes a key that still sounds and a synthesizer that ignores tuning
// messages still plays close to the pitch. With all 128 keys sounding, the
// oldest note is ended and its key taken.
class MtsEncoder : public MidiEncoder
{
public:
    static constexpr std::uint8_t DEVICE_ALL = 0x7f;

    // `program`: the tuning program (0..127) that the retunes change.
    explicit MtsEncoder(int program = 0);

    // Selects the tuning program on channel 1 (RPN 3, then the null RPN).
    void setup(Messages& out) const override;

    // The single-note tuning change message that sets `key` to `word`.
    static Message retune(int program, int key, const std::uint8_t word[3]);

protected:
    bool place(int voice, double frequency, Sounding& placed, Messages& out) override;
    std::vector<int> channels() const override { return {0}; }

private:
    int mProgram;
};
