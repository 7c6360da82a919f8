#pragma once

#include <QString>

#include <jack/types.h>

#include <atomic>

// A JACK client without ports that learns when its server goes away (killed,
// crashed, restarted).
//
// Once the server has gone, no client of it may be touched again, not even
// closed: libjack frees the old server's clients when the next client opens
// (PortAudio's attempts to reopen the device open one every second), and
// closing one of them then crashes or tears down the new server's state. So
// whoever holds RtMidi objects on JACK asks gone() before destroying them, and
// abandons them instead when it says so: a few hundred bytes per lost server,
// against a crash at the next shutdown that loses the session's saves.
//
// Threads: the GUI thread opens and destroys it; gone() is for any thread.
class JackServerWatch
{
public:
    JackServerWatch() = default;
    // Closes the client, unless its server has gone (see above).
    ~JackServerWatch();
    JackServerWatch(const JackServerWatch&) = delete;
    JackServerWatch& operator=(const JackServerWatch&) = delete;

    // Opens the client `name` on the running server (never starts one).
    // False when there is none, with the reason in `error`.
    bool open(const QString& name, QString& error);

    // The client, for other JACK calls while the server runs; null before open().
    jack_client_t* client() const { return mClient; }
    bool gone() const { return mGone.load(std::memory_order_acquire); }

private:
    jack_client_t* mClient = nullptr;
    // Set on libjack's notification thread; nothing else happens there.
    std::atomic<bool> mGone{false};
};
