#include "midi/mtsencoder.h"

#include "midi/midituning.h"

#include <algorithm>
#include <array>
#include <cmath>

MtsEncoder::MtsEncoder(int program) : mProgram(std::clamp(program, 0, 127)) {}

void MtsEncoder::setup(Messages& out) const
{
    appendRpn(out, 0, 3, mProgram);
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
    for (const Sounding& s : voices()) {
        if (s.channel >= 0) {
            busy[s.key] = true;
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
        const int oldest = oldestVoice();
        key = voices()[oldest].key;
        noteOff(oldest, out);
    }
    out.push_back(retune(mProgram, key, word));
    placed.channel = 0;
    placed.key = key;
    return true;
}
