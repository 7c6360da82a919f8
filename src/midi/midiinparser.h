#pragma once

#include <cstddef>
#include <cstdint>

// Turns a MIDI byte stream into channel voice messages, as a MIDI 1.0
// receiver must read it, whatever the chunks it arrives in:
//
// - running status: data bytes after a complete message repeat its status;
// - a note-on with velocity 0 is a note-off (keyboards send them that way,
//   to make the most of running status);
// - real-time bytes (0xF8 to 0xFF) may come anywhere, even between the data
//   bytes of a message: they are dropped without touching the message;
// - SysEx (0xF0 ... 0xF7) is skipped; any status byte other than real-time
//   also ends it;
// - system common messages (0xF1 to 0xF7) are consumed with their data bytes
//   and cancel running status;
// - data bytes with no status to belong to are ignored, and a status byte in
//   the middle of a message abandons the partial one: both are malformed.
//
// Threads: a value with no locks and no allocation; one thread at a time.
class MidiInParser
{
public:
    // The channel voice messages, by their status nibble.
    enum Type : std::uint8_t
    {
        NoteOff = 0x80,
        NoteOn = 0x90,
        PolyPressure = 0xa0,
        ControlChange = 0xb0,
        ProgramChange = 0xc0,
        ChannelPressure = 0xd0,
        PitchBend = 0xe0,
    };

    struct Message
    {
        Type type = NoteOff;
        std::uint8_t channel = 0; // 0..15
        std::uint8_t data1 = 0;   // key, controller, program, pressure or bend LSB
        std::uint8_t data2 = 0;   // velocity, value or bend MSB; 0 for one-byte messages
    };

    // Takes one byte. True when it completes a message, which is then in
    // `out`; otherwise `out` is left alone.
    bool feed(std::uint8_t byte, Message& out);

    // Forgets any partial message, running status and SysEx: the state of a
    // receiver that has just been switched on.
    void reset();

    // Stray data bytes and abandoned partial messages since the last call;
    // resets the count.
    std::uint32_t takeMalformed()
    {
        const std::uint32_t count = mMalformed;
        mMalformed = 0;
        return count;
    }

private:
    // Starts a status byte of anything but real-time: a partial message it
    // cuts short is counted.
    void beginStatus();

    std::uint8_t mStatus = 0;   // running status; 0 for none
    std::uint8_t mNeeded = 0;   // data bytes a message of mStatus has
    std::uint8_t mHave = 0;     // data bytes of the current message so far
    std::uint8_t mData[2] = {}; // ...and their values
    std::uint8_t mSkip = 0;     // data bytes of a system common message still to come
    bool mInSysex = false;
    std::uint32_t mMalformed = 0;
};
