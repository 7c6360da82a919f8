#pragma once

#include <array>
#include <cstdint>
#include <vector>

// Turns the player's notes (voice, exact frequency) into MIDI messages for one
// tuning method. Pure: it keeps only its own bookkeeping of which voice sounds
// where and does no I/O, so the exact bytes can be tested without a port.
//
// Voices are the player's, 0..VOICE_COUNT-1. A note-off for a voice that is
// not sounding here (out of reach, already ended, or ended twice by "stop
// all") produces nothing; a note-on for a voice still sounding here ends the
// old note first.
//
// Not thread-safe: one thread (the MIDI thread) owns an encoder.
class MidiEncoder
{
public:
    using Message = std::vector<std::uint8_t>;
    using Messages = std::vector<Message>;

    static constexpr int VOICE_COUNT = 128;
    static constexpr std::uint8_t VELOCITY = 100;
    static constexpr std::uint8_t RELEASE_VELOCITY = 64;

    virtual ~MidiEncoder() = default;

    // The messages that prepare the receiver, sent once when a port opens.
    virtual void setup(Messages& out) const = 0;
    // Starts `voice` at `frequency` Hz. False, with nothing appended (except
    // the end of the voice's previous note), when the method cannot reach it.
    bool noteOn(int voice, double frequency, Messages& out);
    // Ends `voice`'s note, when one sounds.
    void noteOff(int voice, Messages& out);
    // Ends every sounding note, then sends "all notes off" (controller 123)
    // on every channel this method uses.
    void allNotesOff(Messages& out);

    // How many notes sound here now.
    int soundingCount() const;

protected:
    struct Sounding
    {
        int channel = -1; // 0..15; -1: silent
        int key = -1;
        std::uint64_t order = 0; // when it started; larger is newer
    };

    // Chooses channel and key for a note and appends the messages before its
    // note-on (bend, retuning); may end other voices through noteOff() to make
    // room. False when the frequency is out of reach.
    virtual bool place(int voice, double frequency, Sounding& placed, Messages& out) = 0;
    // The channels that "all notes off" goes to.
    virtual std::vector<int> channels() const = 0;

    const std::array<Sounding, VOICE_COUNT>& voices() const { return mVoices; }
    std::uint64_t nextOrder() const { return mOrder + 1; }

    // The sounding voice that started longest ago; -1 when none sounds.
    int oldestVoice() const;

    static Message controlChange(int channel, int controller, int value);
    // Sets registered parameter `rpn` on `channel` to `msb` (and `lsb`, when
    // not negative), then selects the null RPN so that stray data entry
    // changes nothing.
    static void appendRpn(Messages& out, int channel, int rpn, int msb, int lsb = -1);

private:
    std::array<Sounding, VOICE_COUNT> mVoices{};
    std::uint64_t mOrder = 0;
};
