#pragma once

#include <QString>

#include <jack/ringbuffer.h>
#include <jack/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

// A JACK client with one MIDI output port "out" that plays the program's MIDI
// input as a keyboard would: each send() goes out as one JACK MIDI event, any
// bytes, in the next period. A flood fills every period's buffer with a
// pattern of events until the port takes no more: the highest rate JACK MIDI
// carries. Its MIDI input port "in" keeps every message the program's MIDI
// output sends it.
//
// Threads: the methods belong to one thread; the counters are for any. The
// process callback neither locks nor allocates.
class JackMidiSender
{
public:
    using Bytes = std::vector<std::uint8_t>;

    JackMidiSender() = default;
    ~JackMidiSender() { close(); }
    JackMidiSender(const JackMidiSender&) = delete;
    JackMidiSender& operator=(const JackMidiSender&) = delete;

    // Opens and activates the client `name` on the environment's server.
    bool open(const QString& name);
    void close();
    // Lets go of a client whose server has gone, without touching it:
    // libjack may have freed it already.
    void abandon();
    QString portName() const;      // "<client>:out"
    QString inputPortName() const; // "<client>:in"
    // How many ports "out" feeds in the graph JACK runs now: a new
    // connection takes effect a period or more after it is made, and an
    // event sent before goes nowhere.
    int connections() const;

    // One event of up to 64 bytes. False when the queue is full.
    bool send(const Bytes& bytes);
    // Sends `bytes` again and again until `done`, for at most 20 s: a JACK
    // server without real-time scheduling drops the MIDI of a client that
    // misses its period, which a busy machine makes happen. Only for
    // messages that may arrive twice (a note-on of a sounding note, a
    // note-off of a silent one, a controller's value).
    bool sendUntil(const Bytes& bytes, const std::function<bool()>& done);
    // Once per sender: floods with `pattern`'s events, in turn, until
    // stopFlood().
    void flood(const std::vector<Bytes>& pattern);
    void stopFlood() { mFlooding.store(false, std::memory_order_release); }

    // Connects "in" to the output port of the client whose name starts with
    // `client`, and waits until the connection carries MIDI.
    bool connectFrom(const QString& client);
    // Moves what has arrived at "in" into messages(); how many there are.
    int poll();
    std::vector<Bytes>& messages() { return mMessages; }

    // send() events written into the port, and the steady-clock time (ns)
    // at which the latest of them was.
    std::uint64_t sentWritten() const { return mSentWritten.load(std::memory_order_acquire); }
    std::int64_t lastSentNs() const { return mLastSentNs.load(std::memory_order_acquire); }

private:
    static int process(jack_nframes_t frames, void* self);

    jack_client_t* mClient = nullptr;
    jack_port_t* mPort = nullptr;
    jack_port_t* mInput = nullptr;
    jack_ringbuffer_t* mQueue = nullptr;
    jack_ringbuffer_t* mReceived = nullptr; // each message: its size (1 byte), its bytes
    std::vector<Bytes> mMessages;
    std::atomic<int> mCycles{0};
    std::vector<Bytes> mPattern; // fixed once a flood has begun
    std::atomic<bool> mFlooding{false};
    std::size_t mNext = 0; // process thread: the pattern's next event
    std::atomic<std::uint64_t> mSentWritten{0};
    std::atomic<std::int64_t> mLastSentNs{0};
};
