#include "midi/midituning.h"

#include <cmath>

double MidiTuning::keyNumber(double frequency)
{
    return A4_KEY + 12.0 * std::log2(frequency / A4_FREQUENCY);
}

bool MidiTuning::keyAndBend(double frequency, int bendRange, int& key, int& bend)
{
    if (!(frequency > 0.0) || bendRange <= 0) {
        return false;
    }
    const double exact = keyNumber(frequency);
    // Nearest key; beyond the keyboard's ends the end key bends further.
    const double nearest = std::floor(exact + 0.5);
    const int chosen = nearest < 0.0 ? 0 : nearest > 127.0 ? 127 : int(nearest);
    const long steps = std::lround((exact - chosen) * BEND_CENTRE / bendRange);
    if (steps < -BEND_CENTRE || steps > BEND_MAX - BEND_CENTRE) {
        return false;
    }
    key = chosen;
    bend = int(BEND_CENTRE + steps);
    return true;
}

bool MidiTuning::tuningWord(double frequency, std::uint8_t word[3])
{
    if (!(frequency > 0.0)) {
        return false;
    }
    const double total = std::round(keyNumber(frequency) * MTS_FRACTION_STEPS);
    if (total < 0.0 || total >= 128.0 * MTS_FRACTION_STEPS) {
        return false;
    }
    const long value = long(total);
    const int semitone = int(value / MTS_FRACTION_STEPS);
    const int fraction = int(value % MTS_FRACTION_STEPS);
    if (semitone == 127 && fraction == MTS_FRACTION_STEPS - 1) {
        return false; // 7F 7F 7F means "no change"
    }
    word[0] = std::uint8_t(semitone);
    word[1] = std::uint8_t(fraction >> 7);
    word[2] = std::uint8_t(fraction & 0x7f);
    return true;
}

double MidiTuning::bendFrequency(int key, int bend, int bendRange)
{
    const double semitones = key + double(bend - BEND_CENTRE) * bendRange / BEND_CENTRE;
    return A4_FREQUENCY * std::exp2((semitones - A4_KEY) / 12.0);
}

double MidiTuning::wordFrequency(const std::uint8_t word[3])
{
    const double semitones = word[0] + double((int(word[1]) << 7) | word[2]) / MTS_FRACTION_STEPS;
    return A4_FREQUENCY * std::exp2((semitones - A4_KEY) / 12.0);
}
