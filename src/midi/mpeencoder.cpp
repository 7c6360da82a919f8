#include "midi/mpeencoder.h"

#include "midi/midituning.h"

#include <algorithm>

MpeEncoder::MpeEncoder(int bendRange, int memberChannels)
    : mBendRange(std::clamp(bendRange, 1, 96)),
      mMemberChannels(std::clamp(memberChannels, 1, MAX_MEMBER_CHANNELS))
{
}

void MpeEncoder::setup(Messages& out) const
{
    appendRpn(out, 0, 6, mMemberChannels);
    for (int channel = 1; channel <= mMemberChannels; ++channel) {
        appendRpn(out, channel, 0, mBendRange, 0);
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
    for (const Sounding& s : voices()) {
        if (s.channel >= 0) {
            busy[s.channel] = true;
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
        const int oldest = oldestVoice();
        channel = voices()[oldest].channel;
        noteOff(oldest, out);
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
