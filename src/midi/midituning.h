#pragma once

#include <cstdint>

// The arithmetic that turns an exact frequency into MIDI tuning data. Pure
// functions: no state, any thread.
//
// MIDI keys follow equal temperament with key 69 at 440 Hz. A frequency is
// first turned into a fractional key number in double precision and rounded
// exactly once, to the resolution of the message that carries it.
class MidiTuning
{
public:
    static constexpr double A4_FREQUENCY = 440.0;
    static constexpr int A4_KEY = 69;
    static constexpr int BEND_CENTRE = 8192;
    static constexpr int BEND_MAX = 16383;
    // The steps of a semitone in the tuning standard's 14-bit fraction.
    static constexpr int MTS_FRACTION_STEPS = 16384;

    // The fractional key number of `frequency` (Hz, > 0).
    static double keyNumber(double frequency);

    // The nearest key and the 14-bit pitch bend (centre 8192, one step =
    // bendRange / 8192 semitones) that sound `frequency` with a bend range of
    // ±`bendRange` semitones. False when no key 0..127 reaches it.
    static bool keyAndBend(double frequency, int bendRange, int& key, int& bend);

    // The three data bytes of the tuning standard's frequency word for
    // `frequency`: the semitone (key) below it and the 14-bit fraction above
    // that key, MSB first. False outside what the word can say (below key 0,
    // at or above key 128, or the reserved 7F 7F 7F).
    static bool tuningWord(double frequency, std::uint8_t word[3]);

    // The frequency that a key and bend, or a tuning word, stand for: the
    // inverse, for reporting accuracy.
    static double bendFrequency(int key, int bend, int bendRange);
    static double wordFrequency(const std::uint8_t word[3]);
};
