#pragma once

#include <portaudio.h>

#include <functional>

// A PortAudio call that may never return, made on a thread of its own and
// waited for only so long. Some host APIs never come back from stopping or
// closing a stream whose server went away, nor from ending PortAudio (see
// PortAudioLibrary); the audio output makes those calls through here, so
// that neither a shutdown nor a device change can hang.
//
// Any thread. A call that did not come back in time is left to finish
// whenever it can: its thread shares nothing with the caller but a small
// state that it keeps alive itself.
class BoundedCall
{
public:
    // Runs `call` on a thread of its own and waits at most `timeoutMs` for
    // it. True, with its result in `result`, when it came back in time.
    static bool run(int timeoutMs, const std::function<PaError()>& call, PaError* result);

    // Calls left behind that are still running on their threads. While any
    // is, the process must not run the libraries' exit handlers, which pull
    // the ground from under them.
    static int unfinished();
};
