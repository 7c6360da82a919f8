#pragma once

#include <portaudio.h>

#include <memory>

class PortAudioLibrary;

// One PortAudio output stream: stereo 32-bit float, interleaved, at 44100 Hz
// or at the device's own rate when it refuses 44100, with the latency halfway
// between the device's low and high defaults. Each step logs what goes wrong.
// Stopping and closing are bounded in time (BoundedCall): a stream whose
// host does not let go is left behind with its library (see
// PortAudioLibrary).
//
// GUI thread. The stream's callbacks are its owner's (PaAudioOutput): they
// run on PortAudio's audio thread, which reads sampleRate() while the stream
// runs; it changes only while no stream runs.
class PaOutputStream
{
public:
    static constexpr int CHANNELS = 2;
    static constexpr double SAMPLE_RATE = 44100.0;

    // The format on `device`, and the sample rate it takes. False, logged,
    // when the device takes neither 44100 Hz nor the format.
    bool chooseFormat(const PortAudioLibrary& library, PaDeviceIndex device);
    double chosenSampleRate() const { return mChosenRate; }
    double suggestedLatency() const { return mParameters.suggestedLatency; }

    // Opens a stream in the chosen format with `framesPerBuffer` frames per
    // buffer, whose callbacks are given `context`. False, logged, when
    // PortAudio refuses it.
    bool open(const PortAudioLibrary& library, unsigned long framesPerBuffer,
              PaStreamCallback* callback, PaStreamFinishedCallback* finished, void* context);
    // False, logged, when it does not start; it stays open until closed.
    bool start(const PortAudioLibrary& library);
    bool isOpen() const { return mStream != nullptr; }
    // Whether PortAudio reports it active.
    bool isActive(const PortAudioLibrary& library) const;
    // Of the stream opened last: its sample rate and the output latency
    // PortAudio reports for it (seconds). 0 before any stream.
    double sampleRate() const { return mSampleRate; }
    double outputLatency() const { return mOutputLatency; }

    // Stops and closes the stream, within `timeoutMs` each; one that does
    // not let go is left behind with `library`. The stream is forgotten in
    // any case. False only for an unanticipated host error while closing.
    bool stopAndClose(const std::shared_ptr<PortAudioLibrary>& library, int timeoutMs);
    // The same without a word (the log handler may be gone).
    void stopAndCloseQuietly(const std::shared_ptr<PortAudioLibrary>& library, int timeoutMs);
    // Forgets the stream: nothing may be called in a library left behind.
    void forget() { mStream = nullptr; }

private:
    static void logError(const PortAudioLibrary& library, const char* call, PaError error);

    PaStream* mStream = nullptr;
    PaStreamParameters mParameters{};
    double mChosenRate = SAMPLE_RATE;
    double mSampleRate = 0.0;
    double mOutputLatency = 0.0;
};
