#pragma once

#include <QString>

#include <jack/ringbuffer.h>
#include <jack/types.h>

#include <atomic>
#include <cstdint>
#include <vector>

// A JACK client with one MIDI output port "out", that plays the program's
// MIDI input as a keyboard or another program would: whatever bytes it is
// given go out as JACK MIDI events, one event per send(), at the start of the
// next period. In flood mode it also fills every period's buffer with a
// pattern of events, as many as the port takes: the highest rate JACK MIDI
// carries.
//
// Threads: the methods belong to one thread (the test's or the benchmark's);
// the counters may be read from any thread. The process callback runs on
// JACK's thread and neither locks nor allocates.
class JackMidiSender
{
public:
    using Bytes = std::vector<std::uint8_t>;

    JackMidiSender() = default;
    ~JackMidiSender() { close(); }
    JackMidiSender(const JackMidiSender&) = delete;
    JackMidiSender& operator=(const JackMidiSender&) = delete;

    // Opens the client `name` on the server the environment names (see
    // JackFixture) and activates it. False on failure.
    bool open(const QString& name);
    void close();
    // Lets go of the client of a server that has gone, without touching it:
    // libjack may already have freed it.
    void abandon();
    // "<client>:out".
    QString portName() const;
    // Connects "out" to `input`.
    bool connectTo(const QString& input);
    // How many ports "out" feeds in the graph that JACK runs now. A
    // connection made a moment ago takes effect a period or more later, on a
    // busy machine later still; an event sent before that goes nowhere.
    int connections() const;

    // One event with these bytes (up to 64) in the next period. False when
    // the queue to the process callback is full.
    bool send(const Bytes& bytes);

    // Starts filling every period with `pattern`'s events, in turn, until
    // the port's buffer is full; stopFlood() ends it.
    void flood(const std::vector<Bytes>& pattern);
    void stopFlood();

    // Events written into the port since open(), and the steady-clock time in
    // nanoseconds at which the latest send() event was written.
    std::uint64_t eventsWritten() const { return mWritten.load(std::memory_order_acquire); }
    std::uint64_t sentWritten() const { return mSentWritten.load(std::memory_order_acquire); }
    std::int64_t lastSentNs() const { return mLastSentNs.load(std::memory_order_acquire); }

private:
    static int process(jack_nframes_t frames, void* self);

    jack_client_t* mClient = nullptr;
    jack_port_t* mPort = nullptr;
    jack_ringbuffer_t* mQueue = nullptr;
    std::vector<Bytes> mPattern; // set while no flood runs
    std::atomic<bool> mFlooding{false};
    std::size_t mNext = 0; // process thread: the pattern's next event
    std::atomic<std::uint64_t> mPeriods{0};
    std::atomic<std::uint64_t> mWritten{0};
    std::atomic<std::uint64_t> mSentWritten{0};
    std::atomic<std::int64_t> mLastSentNs{0};
};
