#include "midi/midiinparser.h"

namespace {

constexpr std::uint8_t SYSEX = 0xf0;
constexpr std::uint8_t END_OF_SYSEX = 0xf7;
constexpr std::uint8_t FIRST_REALTIME = 0xf8;

// Data bytes of a system common message: MIDI time code quarter frame and
// song select have one, song position two, the rest (tune request, the
// undefined 0xF4/0xF5, a stray end of SysEx) none.
std::uint8_t systemCommonLength(std::uint8_t status)
{
    switch (status) {
    case 0xf1:
    case 0xf3:
        return 1;
    case 0xf2:
        return 2;
    default:
        return 0;
    }
}

} // namespace

void MidiInParser::reset()
{
    mStatus = 0;
    mNeeded = 0;
    mHave = 0;
    mSkip = 0;
    mInSysex = false;
}

void MidiInParser::beginStatus()
{
    if (mHave != 0 || mSkip != 0) {
        ++mMalformed;
    }
    mHave = 0;
    mSkip = 0;
    mInSysex = false;
}

bool MidiInParser::feed(std::uint8_t byte, Message& out)
{
    if (byte >= FIRST_REALTIME) {
        // Clock, start, stop, active sensing...: a single byte that may
        // interrupt anything, and leaves it as it was.
        return false;
    }
    if (byte >= 0x80) {
        // A terminated SysEx is no partial message; an unterminated one is
        // ended by this status byte, as the standard allows.
        const bool endsSysex = mInSysex;
        mInSysex = false;
        if (!endsSysex) {
            beginStatus();
        }
        if (byte < SYSEX) {
            mStatus = byte;
            const std::uint8_t type = byte & 0xf0;
            mNeeded = (type == ProgramChange || type == ChannelPressure) ? 1 : 2;
            return false;
        }
        // SysEx and system common messages cancel running status.
        mStatus = 0;
        if (byte == SYSEX) {
            mInSysex = true;
        } else if (!(endsSysex && byte == END_OF_SYSEX)) {
            mSkip = systemCommonLength(byte);
        }
        return false;
    }

    // A data byte.
    if (mInSysex) {
        return false;
    }
    if (mSkip != 0) {
        --mSkip;
        return false;
    }
    if (mStatus == 0) {
        ++mMalformed; // nothing it could belong to
        return false;
    }
    mData[mHave++] = byte;
    if (mHave < mNeeded) {
        return false;
    }
    mHave = 0; // running status: the next data byte starts the next message
    out.type = static_cast<Type>(mStatus & 0xf0);
    out.channel = mStatus & 0x0f;
    out.data1 = mData[0];
    out.data2 = mNeeded == 2 ? mData[1] : 0;
    if (out.type == NoteOn && out.data2 == 0) {
        out.type = NoteOff;
    }
    return true;
}
