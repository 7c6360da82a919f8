#include "midi/mtsencoder.h"

#include "midi/midituning.h"

#include <algorithm>
#include <array>
#include <cmath>

MtsEncoder::MtsEncoder(int program) : mProgram(std::clamp(program, 0, 127)) {}

void MtsEncoder::setup(Messages& out) const
{
    out.push_back(controlChange(0, 101, 0));
    out.push_back(controlChange(0, 100, 3));
    out.push_back(controlChange(0, 6, mProgram));
    out.push_back(controlChange(0, 101, 127));
    out.push_back(controlChange(0, 100, 127));
}

MidiEncoder::Message MtsEncoder::retune(int program, int key, const std::uint8_t word[3])
{
    return {
        0xf0,    0x7f,    DEVICE_ALL, 0x08, 0x02, std::uint8_t(program), 0x01, std::uint8_t(key),
        word[0], word[1], word[2],    0xf7};
}

bool MtsEncoder::place(int /*voice*/, double frequency, Sounding& placed, Messages& out)
{
    std::uint8_t word[3];
    if (!MidiTuning::tuningWord(frequency, word)) {
        return false;
    }
    std::array<bool, 128> busy{};
    int oldestVoice = -1;
    for (int v = 0; v < VOICE_COUNT; ++v) {
        const Sounding& s = voices()[v];
        if (s.channel < 0) {
            continue;
        }
        busy[s.key] = true;
        if (oldestVoice < 0 || s.order < voices()[oldestVoice].order) {
            oldestVoice = v;
        }
    }
    const int nearest = std::clamp(int(std::lround(MidiTuning::keyNumber(frequency))), 0, 127);
    int key = -1;
    for (int distance = 0; distance < 128 && key < 0; ++distance) {
        if (nearest - distance >= 0 && !busy[nearest - distance]) {
            key = nearest - distance;
        } else if (nearest + distance < 128 && !busy[nearest + distance]) {
            key = nearest + distance;
        }
    }
    if (key < 0) {
        key = voices()[oldestVoice].key;
        noteOff(oldestVoice, out);
    }
    out.push_back(retune(mProgram, key, word));
    placed.channel = 0;
    placed.key = key;
    return true;
}
