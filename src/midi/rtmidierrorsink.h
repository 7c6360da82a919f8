#pragma once

#include <rtmidi/RtMidi.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

// Where RtMidi's error callback leaves what went wrong, for the GUI thread to
// report: RtMidi otherwise prints to stderr, or throws from whatever thread
// met the error. Also opens RtMidi's ports on one MIDI system, the one place
// where the input and the output decide whether a system is there.
//
// Threads: the callback runs on the thread that met the error (the GUI
// thread, or RtMidi's MIDI thread) and takes a mutex, so it must never be
// reached from a real-time thread; RtMidi reports nothing from JACK's
// process callback. take() is for any thread.
class RtMidiErrorSink
{
public:
    // Takes the error, if any, into `into`, and clears it.
    bool take(std::string& into);
    // Makes this sink `midi`'s error callback. The sink must outlive `midi`.
    void install(RtMidi& midi);

    // An RtMidiIn or RtMidiOut on JACK (`jack`) or the ALSA sequencer,
    // connected to the MIDI system, its errors going to `sink`. Null when
    // the system is not there (a JACK output finds out here whether a server
    // runs), with RtMidi's reason in `error`.
    template <class Port>
    static std::unique_ptr<Port> open(bool jack, const char* clientName, RtMidiErrorSink& sink,
                                      std::string& error)
    {
        const RtMidi::Api api = jack ? RtMidi::UNIX_JACK : RtMidi::LINUX_ALSA;
        std::unique_ptr<Port> port;
        try {
            port = std::make_unique<Port>(api, clientName);
        } catch (const RtMidiError& e) {
            error = e.getMessage();
            return nullptr;
        }
        if (port->getCurrentApi() != api) {
            error = std::string("RtMidi was built without ") + (jack ? "JACK" : "ALSA");
            return nullptr;
        }
        std::string ignored;
        sink.take(ignored);
        sink.install(*port);
        // Counting the ports connects to the MIDI system.
        port->getPortCount();
        if (sink.take(error)) {
            return nullptr;
        }
        return port;
    }

    // JACK when `tryJack` and a server runs, else the ALSA sequencer when
    // `tryAlsa`; `usedJack` says which. Null when neither is there, with both
    // reasons in `error`.
    template <class Port>
    static std::unique_ptr<Port> openFirst(bool tryJack, bool tryAlsa, const char* clientName,
                                           RtMidiErrorSink& sink, std::string& error,
                                           bool& usedJack)
    {
        std::unique_ptr<Port> port;
        error.clear();
        usedJack = tryJack;
        if (tryJack) {
            port = open<Port>(true, clientName, sink, error);
        }
        if (!port && tryAlsa) {
            std::string alsaError;
            port = open<Port>(false, clientName, sink, alsaError);
            usedJack = false;
            error = error.empty() ? alsaError : error + "; " + alsaError;
        }
        return port;
    }

private:
    static void onError(RtMidiError::Type type, const std::string& text, void* sink);

    std::mutex mMutex;
    std::string mText;
    std::atomic<bool> mFailed{false};
};
