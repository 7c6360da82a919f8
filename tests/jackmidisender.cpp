#include "jackmidisender.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTest>

#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <chrono>

namespace {

constexpr std::size_t MAX_EVENT_BYTES = 64;

} // namespace

bool JackMidiSender::open(const QString& name)
{
    close();
    mQueue = jack_ringbuffer_create(1 << 16);
    mReceived = jack_ringbuffer_create(1 << 16);
    mClient = jack_client_open(name.toUtf8().constData(), JackNoStartServer, nullptr);
    mPort = mClient
                ? jack_port_register(mClient, "out", JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0)
                : nullptr;
    mInput = mClient ? jack_port_register(mClient, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0)
                     : nullptr;
    if (!mQueue || !mReceived || !mPort || !mInput ||
        jack_set_process_callback(mClient, &process, this) != 0 || jack_activate(mClient) != 0) {
        close();
        return false;
    }
    return true;
}

void JackMidiSender::close()
{
    if (mClient) {
        jack_client_close(mClient); // the process callback has run for the last time
    }
    for (jack_ringbuffer_t* ring : {mQueue, mReceived}) {
        if (ring) {
            jack_ringbuffer_free(ring);
        }
    }
    abandon();
}

void JackMidiSender::abandon()
{
    mClient = nullptr;
    mPort = nullptr;
    mInput = nullptr;
    mQueue = nullptr;
    mReceived = nullptr;
    mFlooding.store(false);
}

QString JackMidiSender::portName() const
{
    return mPort ? QString::fromUtf8(jack_port_name(mPort)) : QString();
}

QString JackMidiSender::inputPortName() const
{
    return mInput ? QString::fromUtf8(jack_port_name(mInput)) : QString();
}

bool JackMidiSender::connectFrom(const QString& client)
{
    const QByteArray pattern = "^" + QRegularExpression::escape(client).toUtf8();
    const char** ports =
        jack_get_ports(mClient, pattern.constData(), JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput);
    const int result =
        ports && ports[0] ? jack_connect(mClient, ports[0], jack_port_name(mInput)) : -1;
    jack_free(ports);
    // The new graph runs from a later cycle on; two of this client's cycles
    // after the connection shows up, it carries MIDI.
    const int cycles = mCycles.load();
    return result == 0 && QTest::qWaitFor(
                              [this, cycles] {
                                  return jack_port_connected(mInput) > 0 &&
                                         mCycles.load() >= cycles + 2;
                              },
                              5000);
}

int JackMidiSender::poll()
{
    std::uint8_t size = 0;
    while (jack_ringbuffer_peek(mReceived, reinterpret_cast<char*>(&size), 1) == 1 &&
           jack_ringbuffer_read_space(mReceived) >= 1u + size) {
        jack_ringbuffer_read_advance(mReceived, 1);
        Bytes message(size);
        jack_ringbuffer_read(mReceived, reinterpret_cast<char*>(message.data()), size);
        mMessages.push_back(message);
    }
    return int(mMessages.size());
}

int JackMidiSender::connections() const
{
    return mPort ? jack_port_connected(mPort) : 0;
}

bool JackMidiSender::send(const Bytes& bytes)
{
    if (!mQueue || bytes.empty() || bytes.size() > MAX_EVENT_BYTES ||
        jack_ringbuffer_write_space(mQueue) < 1 + bytes.size()) {
        return false;
    }
    // One write: the ring publishes it whole.
    char record[1 + MAX_EVENT_BYTES];
    record[0] = char(bytes.size());
    std::copy(bytes.begin(), bytes.end(), record + 1);
    jack_ringbuffer_write(mQueue, record, 1 + bytes.size());
    return true;
}

bool JackMidiSender::sendUntil(const Bytes& bytes, const std::function<bool()>& done)
{
    QElapsedTimer timer;
    timer.start();
    do {
        send(bytes);
        if (QTest::qWaitFor(done, 1000)) {
            return true;
        }
    } while (timer.elapsed() < 20000);
    return false;
}

void JackMidiSender::flood(const std::vector<Bytes>& pattern)
{
    if (mPattern.empty()) {
        mPattern = pattern;
    }
    mFlooding.store(!mPattern.empty(), std::memory_order_release);
}

int JackMidiSender::process(jack_nframes_t frames, void* self)
{
    auto* sender = static_cast<JackMidiSender*>(self);
    void* buffer = jack_port_get_buffer(sender->mPort, frames);
    jack_midi_clear_buffer(buffer);
    std::uint8_t size = 0;
    std::uint8_t bytes[MAX_EVENT_BYTES];
    while (jack_ringbuffer_peek(sender->mQueue, reinterpret_cast<char*>(&size), 1) == 1 &&
           jack_ringbuffer_read_space(sender->mQueue) >= 1u + size) {
        jack_ringbuffer_read_advance(sender->mQueue, 1);
        jack_ringbuffer_read(sender->mQueue, reinterpret_cast<char*>(bytes), size);
        if (jack_midi_event_write(buffer, 0, bytes, size) == 0) {
            sender->mLastSentNs.store(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count(),
                                      std::memory_order_relaxed);
            sender->mSentWritten.fetch_add(1, std::memory_order_release);
        }
    }
    if (sender->mFlooding.load(std::memory_order_acquire)) {
        const std::vector<Bytes>& pattern = sender->mPattern;
        while (jack_midi_event_write(buffer, 0, pattern[sender->mNext].data(),
                                     pattern[sender->mNext].size()) == 0) {
            sender->mNext = (sender->mNext + 1) % pattern.size();
        }
    }

    void* input = jack_port_get_buffer(sender->mInput, frames);
    for (std::uint32_t i = 0, count = jack_midi_get_event_count(input); i < count; ++i) {
        jack_midi_event_t event;
        if (jack_midi_event_get(&event, input, i) == 0 && event.size <= MAX_EVENT_BYTES &&
            jack_ringbuffer_write_space(sender->mReceived) >= 1 + event.size) {
            const auto eventSize = std::uint8_t(event.size);
            jack_ringbuffer_write(sender->mReceived, reinterpret_cast<const char*>(&eventSize), 1);
            jack_ringbuffer_write(sender->mReceived, reinterpret_cast<const char*>(event.buffer),
                                  event.size);
        }
    }
    sender->mCycles.fetch_add(1);
    return 0;
}
