#include "midi/mpeencoder.h"

#include "midi/midituning.h"

#include <algorithm>

MpeEncoder::MpeEncoder(int bendRange, int memberChannels)
    : mBendRange(std::clamp(bendRange, 1, 96)),
      mMemberChannels(std::clamp(memberChannels, 1, MAX_MEMBER_CHANNELS))
{
}

void MpeEncoder::appendRpn(Messages& out, int channel, int rpn, int msb, int lsb, bool withLsb)
{
    out.push_back(controlChange(channel, 101, 0));
    out.push_back(controlChange(channel, 100, rpn));
    out.push_back(controlChange(channel, 6, msb));
    if (withLsb) {
        out.push_back(controlChange(channel, 38, lsb));
    }
    out.push_back(controlChange(channel, 101, 127));
    out.push_back(controlChange(channel, 100, 127));
}

void MpeEncoder::setup(Messages& out) const
{
    appendRpn(out, 0, 6, mMemberChannels, 0, false);
    for (int channel = 1; channel <= mMemberChannels; ++channel) {
        appendRpn(out, channel, 0, mBendRange, 0, true);
    }
}

bool MpeEncoder::place(int /*voice*/, double frequency, Sounding& placed, Messages& out)
{
    int key = 0;
    int bend = 0;
    if (!MidiTuning::keyAndBend(frequency, mBendRange, key, bend)) {
        return false;
    }
    std::array<bool, 16> busy{};
    int oldestVoice = -1;
    for (int v = 0; v < VOICE_COUNT; ++v) {
        const Sounding& s = voices()[v];
        if (s.channel < 0) {
            continue;
        }
        busy[s.channel] = true;
        if (oldestVoice < 0 || s.order < voices()[oldestVoice].order) {
            oldestVoice = v;
        }
    }
    int channel = -1;
    for (int c = 1; c <= mMemberChannels; ++c) {
        if (!busy[c] && (channel < 0 || mChannelStarted[c] < mChannelStarted[channel])) {
            channel = c;
        }
    }
    if (channel < 0) {
        // Every member channel sounds: the oldest note gives its channel up.
        channel = voices()[oldestVoice].channel;
        noteOff(oldestVoice, out);
    }
    mChannelStarted[channel] = nextOrder();
    out.push_back(
        {std::uint8_t(0xe0 | channel), std::uint8_t(bend & 0x7f), std::uint8_t(bend >> 7)});
    placed.channel = channel;
    placed.key = key;
    return true;
}

std::vector<int> MpeEncoder::channels() const
{
    std::vector<int> result;
    for (int c = 0; c <= mMemberChannels; ++c) {
        result.push_back(c);
    }
    return result;
}
