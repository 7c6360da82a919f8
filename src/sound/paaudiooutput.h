#pragma once

#include "sound/audiooutput.h"
#include "sound/callbackstats.h"
#include "sound/devicerecovery.h"
#include "sound/padevicelist.h"
#include "sound/paoutputstream.h"

#include <QString>

#include <portaudio.h>

#include <atomic>
#include <cstdint>
#include <memory>

class PortAudioLibrary;

// The audio output on PortAudio: stereo 32-bit float at 44100 Hz (or the
// device's own rate when it refuses 44100), run by the stream callback, which
// has the player carry out its queued commands and then computes the sound
// with libpd.
//
// Threads: everything but the callback and render() runs on the GUI thread.
// The callback runs on PortAudio's audio thread; it never blocks, locks,
// allocates or logs (the exceptions are named at the top of
// onStreamCallback). The GUI thread and the callback share only atomics: the
// stream token and render owner, the finished flag and the
// timing statistics; the player pointer, the stream and the sample rate
// change only while no stream runs.
//
// Its parts: the device list (PaDeviceList), the stream on the device chosen
// (PaOutputStream) and the recovery of a device lost under a running stream
// (DeviceRecovery). Stopping and closing a stream, and ending PortAudio, are
// bounded in time (BoundedCall): a host API that never returns from them is
// left behind for good (see PortAudioLibrary), so that neither a shutdown
// nor a device change can hang.
class PaAudioOutput : public AudioOutput
{
    Q_OBJECT
public:
    static constexpr int CHANNELS = PaOutputStream::CHANNELS;
    static constexpr double SAMPLE_RATE = PaOutputStream::SAMPLE_RATE;
    // Pd computes in blocks of this many frames.
    static constexpr int PD_BLOCK_FRAMES = 64;
    // Frames per buffer outside the options' range (Settings::FRAMES_MIN to
    // FRAMES_MAX) cannot be used; the output then asks for
    // DEFAULT_FRAMES_PER_BUFFER.
    static constexpr int DEFAULT_FRAMES_PER_BUFFER = 256;
    // How long stopping or closing a stream, or ending PortAudio, may take
    // before the library is left behind.
    static constexpr int STOP_TIMEOUT_MS = 1500;
    // A running stream whose callback has not come for this long is lost.
    static constexpr int STALL_TIMEOUT_MS = 2000;
    // How often the watchdog looks, and how often a lost device is retried.
    static constexpr int WATCHDOG_INTERVAL_MS = 250;
    static constexpr int REOPEN_INTERVAL_MS = 1000;

    explicit PaAudioOutput(QObject* parent = nullptr);
    // Closes the stream and ends PortAudio if term() was not called (as after
    // a failed start-up), without logging.
    ~PaAudioOutput() override;

    // Stores the buffer size and the player, starts PortAudio, builds the
    // device list and opens `deviceIndex`, falling back to the default
    // device. False when PortAudio does not start or no device opens.
    bool init(int framesPerBuffer, int deviceIndex, PdPlayer* player) override;
    // Closes the device and ends PortAudio, each within STOP_TIMEOUT_MS.
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
    // Stops and closes the stream, if there is one, within STOP_TIMEOUT_MS.
    // False only when the host reported an unanticipated error while closing.
    bool closeDevice();
    // GUI thread; the callback sees the change at its next buffer.
    void mute() override;
    void unmute() override;

    // Whether the stream is open, not lost and PortAudio reports it active,
    // so that the player never waits for a callback that cannot come.
    bool isStreamRunning() override;
    // Whether the device was lost and is being retried.
    bool isDeviceLost() const { return mRecovery.isLost(); }

    // The device list entry for a host API and device name.
    static QString deviceEntry(const QString& hostApiName, const QString& deviceName);

    // Any thread: PortAudio calls left behind because they did not return in
    // time (a dead or starved sound server), still running on their threads.
    // While any is, the process must not run the libraries' exit handlers,
    // which pull the ground from under them: main() ends it with _Exit.
    static int unfinishedCalls();

    // Of the stream that was opened last: its sample rate and the output
    // latency PortAudio reports for it (seconds). 0 before any stream.
    double streamSampleRate() const { return mStream.sampleRate(); }
    double streamOutputLatency() const { return mStream.outputLatency(); }

    // Timing of the callbacks since the stream was opened (or since a reset
    // was requested): durations, overruns of the buffer period, xruns.
    const CallbackStats& callbackStats() const { return mStats; }
    CallbackStats& callbackStats() { return mStats; }

    // The stream's audio: the player's render(), the one place where sound
    // is made. Audio thread; or any thread while no stream runs.
    void render(float* output, int frames) noexcept;

    // The stream callback; `userData` is the stream's context.
    static int portAudioCallback(const void* input, void* output, unsigned long frames,
                                 const PaStreamCallbackTimeInfo* timeInfo,
                                 PaStreamCallbackFlags statusFlags, void* userData);

public slots:
    // GUI thread: looks at the running stream (the watchdog's timer calls it).
    void checkStream();
    // GUI thread: one attempt to open the lost device again (the retry
    // timer calls it). True when the device runs again.
    bool retryLostDevice();

private:
    // The recovery works on the stream and the library as the output does.
    friend class DeviceRecovery;
    struct StreamContext;

    int onStreamCallback(std::uint32_t token, float* output, unsigned long frames,
                         PaStreamCallbackFlags statusFlags) noexcept;
    static void onStreamFinished(void* userData);
    // Opens a stream in the chosen format whose callbacks have a new context.
    bool openStream();
    // Makes sure no callback of an old stream is inside render() and none
    // will enter it again.
    void retireCallbacks();
    // Logs the closed stream's callback timing (see CallbackStats), once no
    // callback runs any more.
    void logStreamStats() const;
    // Ends PortAudio within STOP_TIMEOUT_MS, leaving the library behind if
    // it does not come back.
    void terminateLibrary();
    // Starts PortAudio again, in a fresh copy of the library when the one in
    // use was left behind. False when it does not start; when the copy
    // cannot be made, with the reason in `copyError`.
    bool startLibraryAfresh(QString* copyError);
    // Logs "<call> returned err: <n> <text>" at critical level.
    void logPaError(const char* call, PaError error) const;

    std::shared_ptr<PortAudioLibrary> mLibrary;
    PaOutputStream mStream;
    // The context handed to the running stream's callback. A stream left
    // behind keeps its context for good, as its callback may still come.
    StreamContext* mContext = nullptr;
    bool mInitialised = false;
    // devices() is const but rebuilds the list, as the list and the map must
    // always agree.
    mutable PaDeviceList mDeviceList;
    CallbackStats mStats;

    // The token of the stream whose callbacks may render; a callback with
    // another token writes silence and asks PortAudio to stop it.
    std::atomic<std::uint32_t> mStreamToken{1};
    // Whose callback is inside render() (its token), 0 when nobody's. Taken
    // with one compare-and-swap that never waits: a callback that finds it
    // taken writes silence. It keeps an old stream's late callback from ever
    // running the player beside a new stream's callback or the GUI thread.
    std::atomic<std::uint32_t> mRenderOwner{0};
    // Callbacks of the running stream, for the watchdog.
    std::atomic<std::uint64_t> mCallbackCount{0};
    // Set by PortAudio's stream-finished report.
    std::atomic<bool> mStreamFinished{false};

    // GUI thread: the watchdog and the retries.
    DeviceRecovery mRecovery{*this};
};
