#pragma once

#include "sound/audiooutput.h"
#include "sound/callbackstats.h"

#include <QHash>
#include <QString>

#include <portaudio.h>

#include <atomic>

// The audio output on PortAudio: stereo 32-bit float at 44100 Hz (or the
// device's own rate when it refuses 44100), run by the stream callback, which
// has the player carry out its queued commands and then computes the sound
// with libpd in whole 64-frame Pd blocks.
//
// Threads: everything but portAudioCallback() runs on the GUI thread. The
// callback runs on PortAudio's audio thread; it never blocks, locks, allocates
// or logs (the player's signals, emitted from inside processEvents, are the
// design's one exception, see PdPlayer). The GUI thread and the callback
// share only the muted flag and the timing statistics; the player pointer,
// the stream and the sample rate change only while no stream runs.
class PaAudioOutput : public AudioOutput
{
    Q_OBJECT
public:
    static constexpr int CHANNELS = 2;
    static constexpr double SAMPLE_RATE = 44100.0;
    // Pd computes in blocks of this many frames.
    static constexpr int PD_BLOCK_FRAMES = 64;

    explicit PaAudioOutput(QObject* parent = nullptr);
    // Closes the stream and ends PortAudio if term() was not called (as after
    // a failed start-up), without logging.
    ~PaAudioOutput() override;

    // Stores the buffer size and the player, starts PortAudio, builds the
    // device list and opens `deviceIndex`, falling back to the default
    // device. False when PortAudio does not start or no device opens.
    bool init(int framesPerBuffer, int deviceIndex, PdPlayer* player) override;
    // Closes the device and ends PortAudio.
    void term() override;
    // "host: device" for each device with output channels, in PortAudio's
    // order ("DS" stands for a Windows DirectSound host). Rebuilds the map
    // from list index to PortAudio index.
    QStringList devices() const override;
    // The device table, at debug level.
    void logDevices() const override;
    // Opens and starts a stream on the device at `deviceIndex` in devices();
    // -1, or an index that is not in the list, means the system's default
    // output device. Closes the running stream first.
    bool selectDevice(int deviceIndex) override;
    // Stops and closes the stream, if there is one. False only when the host
    // reported an unanticipated error while closing.
    bool closeDevice();
    // GUI thread; the callback sees the change at its next buffer.
    void mute() override;
    void unmute() override;
    bool isMuted() const { return mMuted.load(std::memory_order_relaxed); }

    // Whether the stream is open and PortAudio reports it active. False also
    // when the host stopped it (a JACK server that went away), so that the
    // player never waits for a callback that cannot come.
    bool isStreamRunning() const override;

    // The device list entry for a host API and device name.
    static QString deviceEntry(const QString& hostApiName, const QString& deviceName);

    // Of the stream that was opened last: its sample rate and the output
    // latency PortAudio reports for it (seconds). 0 before any stream.
    double streamSampleRate() const { return mSampleRate; }
    double streamOutputLatency() const { return mOutputLatency; }

    // Timing of the callbacks since the stream was opened (or since a reset
    // was requested): durations, overruns of the buffer period, xruns.
    const CallbackStats& callbackStats() const { return mStats; }
    CallbackStats& callbackStats() { return mStats; }

    // The stream callback; `userData` is the PaAudioOutput. Public so that a
    // test or benchmark can drive it with its own buffers while no stream runs.
    static int portAudioCallback(const void* input, void* output, unsigned long frames,
                                 const PaStreamCallbackTimeInfo* timeInfo,
                                 PaStreamCallbackFlags statusFlags, void* userData);

private:
    // The callback's work, on the audio thread.
    int render(float* output, unsigned long frames, PaStreamCallbackFlags statusFlags) noexcept;
    // Logs "<call> returned err: <n> <text>" at critical level.
    static void logPaError(const char* call, PaError error);

    PaStream* mStream = nullptr;
    bool mInitialised = false;
    // devices() is const but rebuilds the map, as the list and the map must
    // always agree.
    mutable QHash<int, int> mDeviceMap;
    // A plain flag in spirit: written by the GUI thread, read by the callback;
    // relaxed, because a change only has to arrive within a buffer or so.
    std::atomic<bool> mMuted{false};
    double mSampleRate = 0.0;
    double mOutputLatency = 0.0;
    CallbackStats mStats;
};
