#pragma once

#include "midi/midiencoder.h"

#include <array>

// MIDI Polyphonic Expression, lower zone: channel 1 is the manager channel and
// channels 2..1+memberChannels carry one note each, at the nearest key with a
// pitch bend for the exact deviation.
//
// A new note takes the free member channel on which a note started longest
// ago (so a release still ringing elsewhere is left alone); with every member
// channel busy it takes over the channel of the oldest note, ending that note
// first.
class MpeEncoder : public MidiEncoder
{
public:
    static constexpr int MAX_MEMBER_CHANNELS = 15;

    // `bendRange` in semitones (1..96), `memberChannels` 1..15; out-of-range
    // values are clamped.
    MpeEncoder(int bendRange, int memberChannels);

    // The zone (MPE configuration message, RPN 6 on the manager channel) and
    // the bend range (RPN 0) on every member channel, each RPN closed with
    // the null RPN so that later data entry changes nothing.
    void setup(Messages& out) const override;

    int bendRange() const { return mBendRange; }
    int memberChannels() const { return mMemberChannels; }

protected:
    bool place(int voice, double frequency, Sounding& placed, Messages& out) override;
    std::vector<int> channels() const override;

private:
    int mBendRange;
    int mMemberChannels;
    // When a note last started on each channel (0: never).
    std::array<std::uint64_t, 16> mChannelStarted{};
};
