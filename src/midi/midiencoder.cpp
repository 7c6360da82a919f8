#include "midi/midiencoder.h"

bool MidiEncoder::noteOn(int voice, double frequency, Messages& out)
{
    if (voice < 0 || voice >= VOICE_COUNT) {
        return false;
    }
    noteOff(voice, out);
    Sounding placed;
    if (!place(voice, frequency, placed, out)) {
        return false;
    }
    placed.order = ++mOrder;
    mVoices[voice] = placed;
    out.push_back({std::uint8_t(0x90 | placed.channel), std::uint8_t(placed.key), VELOCITY});
    return true;
}

void MidiEncoder::noteOff(int voice, Messages& out)
{
    if (voice < 0 || voice >= VOICE_COUNT || mVoices[voice].channel < 0) {
        return;
    }
    Sounding& sounding = mVoices[voice];
    out.push_back(
        {std::uint8_t(0x80 | sounding.channel), std::uint8_t(sounding.key), RELEASE_VELOCITY});
    sounding = Sounding();
}

void MidiEncoder::allNotesOff(Messages& out)
{
    for (int voice = 0; voice < VOICE_COUNT; ++voice) {
        noteOff(voice, out);
    }
    for (const int channel : channels()) {
        out.push_back(controlChange(channel, 123, 0));
    }
}

int MidiEncoder::soundingCount() const
{
    int count = 0;
    for (const Sounding& sounding : mVoices) {
        count += sounding.channel >= 0 ? 1 : 0;
    }
    return count;
}

MidiEncoder::Message MidiEncoder::controlChange(int channel, int controller, int value)
{
    return {std::uint8_t(0xb0 | channel), std::uint8_t(controller), std::uint8_t(value)};
}

int MidiEncoder::oldestVoice() const
{
    int oldest = -1;
    for (int v = 0; v < VOICE_COUNT; ++v) {
        if (mVoices[v].channel >= 0 && (oldest < 0 || mVoices[v].order < mVoices[oldest].order)) {
            oldest = v;
        }
    }
    return oldest;
}

void MidiEncoder::appendRpn(Messages& out, int channel, int rpn, int msb, int lsb)
{
    out.push_back(controlChange(channel, 101, 0));
    out.push_back(controlChange(channel, 100, rpn));
    out.push_back(controlChange(channel, 6, msb));
    if (lsb >= 0) {
        out.push_back(controlChange(channel, 38, lsb));
    }
    out.push_back(controlChange(channel, 101, 127));
    out.push_back(controlChange(channel, 100, 127));
}
