#include "jackmidisender.h"

#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

constexpr std::size_t QUEUE_BYTES = 1 << 16;
constexpr std::size_t MAX_EVENT_BYTES = 64;

std::int64_t nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

bool JackMidiSender::open(const QString& name)
{
    close();
    mQueue = jack_ringbuffer_create(QUEUE_BYTES);
    mClient = jack_client_open(name.toUtf8().constData(), JackNoStartServer, nullptr);
    if (!mQueue || !mClient) {
        close();
        return false;
    }
    mPort = jack_port_register(mClient, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0);
    jack_set_process_callback(mClient, &JackMidiSender::process, this);
    if (!mPort || jack_activate(mClient) != 0) {
        close();
        return false;
    }
    return true;
}

void JackMidiSender::close()
{
    if (mClient) {
        jack_client_close(mClient); // the process callback has run for the last time
        mClient = nullptr;
        mPort = nullptr;
    }
    if (mQueue) {
        jack_ringbuffer_free(mQueue);
        mQueue = nullptr;
    }
    mFlooding.store(false);
}

void JackMidiSender::abandon()
{
    // The queue is left too: the dead client's thread may not have stopped.
    mClient = nullptr;
    mPort = nullptr;
    mQueue = nullptr;
    mFlooding.store(false);
}

QString JackMidiSender::portName() const
{
    return mPort ? QString::fromUtf8(jack_port_name(mPort)) : QString();
}

bool JackMidiSender::connectTo(const QString& input)
{
    return mClient && jack_connect(mClient, jack_port_name(mPort), input.toUtf8().constData()) == 0;
}

int JackMidiSender::connections() const
{
    return mPort ? jack_port_connected(mPort) : 0;
}

bool JackMidiSender::send(const Bytes& bytes)
{
    const std::uint8_t size = std::uint8_t(bytes.size());
    if (!mQueue || bytes.empty() || bytes.size() > MAX_EVENT_BYTES ||
        jack_ringbuffer_write_space(mQueue) < 1 + bytes.size()) {
        return false;
    }
    // One write: the ring publishes it whole, so the callback never sees
    // half an event.
    char record[1 + MAX_EVENT_BYTES];
    record[0] = char(size);
    std::copy(bytes.begin(), bytes.end(), record + 1);
    jack_ringbuffer_write(mQueue, record, 1 + bytes.size());
    return true;
}

void JackMidiSender::flood(const std::vector<Bytes>& pattern)
{
    stopFlood();
    mPattern = pattern;
    mFlooding.store(!mPattern.empty(), std::memory_order_release);
}

void JackMidiSender::stopFlood()
{
    mFlooding.store(false, std::memory_order_release);
    // The callback may be in a flooded period still: once two more have
    // begun, none reads the pattern any more, and it may change.
    if (mClient) {
        const std::uint64_t periods = mPeriods.load();
        for (int i = 0; i < 2000 && mPeriods.load() < periods + 2; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

int JackMidiSender::process(jack_nframes_t frames, void* self)
{
    auto* sender = static_cast<JackMidiSender*>(self);
    void* buffer = jack_port_get_buffer(sender->mPort, frames);
    jack_midi_clear_buffer(buffer);
    std::uint64_t written = 0;
    std::uint8_t size = 0;
    while (jack_ringbuffer_peek(sender->mQueue, reinterpret_cast<char*>(&size), 1) == 1 &&
           jack_ringbuffer_read_space(sender->mQueue) >= 1u + size) {
        std::uint8_t bytes[MAX_EVENT_BYTES];
        jack_ringbuffer_read_advance(sender->mQueue, 1);
        jack_ringbuffer_read(sender->mQueue, reinterpret_cast<char*>(bytes), size);
        if (jack_midi_event_write(buffer, 0, bytes, size) == 0) {
            ++written;
            sender->mLastSentNs.store(nowNs(), std::memory_order_relaxed);
            sender->mSentWritten.fetch_add(1, std::memory_order_release);
        }
    }
    if (sender->mFlooding.load(std::memory_order_acquire)) {
        const std::vector<Bytes>& pattern = sender->mPattern;
        for (;;) {
            const Bytes& event = pattern[sender->mNext];
            if (jack_midi_event_write(buffer, 0, event.data(), event.size()) != 0) {
                break; // the buffer is full
            }
            ++written;
            sender->mNext = (sender->mNext + 1) % pattern.size();
        }
    }
    sender->mWritten.fetch_add(written, std::memory_order_release);
    sender->mPeriods.fetch_add(1, std::memory_order_release);
    return 0;
}
