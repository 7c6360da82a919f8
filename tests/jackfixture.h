#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// A private JACK server on the dummy driver, for hearing the program's output
// on a machine without a sound card, and jack_capture to record it.
//
// Each fixture starts its own `jackd --no-realtime -n <name> -d dummy` under a
// name unique to this process, so tests never meet another test's server.
// Clients find it through JACK_DEFAULT_SERVER: environment() gives the
// variables for a child process (the real binary), applyToThisProcess() sets
// them here, before PortAudio is initialised in this process. The same
// variables hide every ALSA device (through an ALSA configuration that
// defines none), so PortAudio's only device, and its default, is the JACK
// server's "system", whether or not the machine has a sound card. PortAudio
// keeps its JACK client for as long as it is initialised: terminate it before
// the server stops.
//
// The fixture stops exactly the processes it started, by their process ids
// (QProcess), never by name; the destructor stops whatever still runs.
//
// GUI thread (the test's main thread) only.
class JackFixture
{
public:
    // The client name PortAudio registers with JACK; its output ports are
    // "PortAudio:out_0" and "PortAudio:out_1".
    static const QString PORTAUDIO_CLIENT;

    JackFixture();
    ~JackFixture();
    JackFixture(const JackFixture&) = delete;
    JackFixture& operator=(const JackFixture&) = delete;

    // Whether jackd and jack_capture can be found on the PATH.
    static bool toolsAvailable();

    // Starts the server and waits (up to `timeoutMs`) until its playback
    // ports exist. On failure returns false with the reason in error().
    // Tests run the server without real-time scheduling, which needs no
    // privileges; a measurement of timing may ask for it (`realtime`: the
    // server's and its clients' process threads then run SCHED_FIFO), which
    // fails where the user may not use real-time priorities.
    bool start(int sampleRate = 44100, int periodFrames = 256, int timeoutMs = 30000,
               bool realtime = false);
    // Stops jack_capture (if running) and the server, by their process ids.
    void stop();
    bool isRunning() const;

    QString serverName() const { return mServerName; }
    int sampleRate() const { return mSampleRate; }
    int periodFrames() const { return mPeriodFrames; }
    QString error() const { return mError; }
    // A folder for captures and logs that lives as long as the fixture.
    QString workDir() const;

    // `base` plus the variables that point JACK clients at this server and
    // hide the ALSA devices.
    QProcessEnvironment
    environment(QProcessEnvironment base = QProcessEnvironment::systemEnvironment()) const;
    // The same variables, set in this process. Call before Pa_Initialize.
    void applyToThisProcess() const;

    // An environment in which PortAudio finds no device at all: no ALSA
    // device and a JACK server name that nobody serves (and no server is
    // started on demand). Needs no running fixture.
    static QProcessEnvironment
    noDeviceEnvironment(QProcessEnvironment base = QProcessEnvironment::systemEnvironment());
    // The ALSA configuration that defines no device.
    static QString emptyAlsaConfig();

    // The ports of the server (jack_lsp), or those matching `pattern` as a
    // substring. Empty when the server does not answer.
    QStringList ports(const QString& pattern = QString()) const;
    // Waits until a port whose name contains `pattern` exists.
    bool waitForPort(const QString& pattern, int timeoutMs = 15000) const;

    // Starts jack_capture, recording `seconds` from `ports` (names or
    // patterns that jack_capture accepts, e.g. "PortAudio:out_*", which
    // stands for both channels) into a `channels`-channel 32-bit float WAV
    // file at `wavPath`. The ports must exist already.
    bool startCapture(const QString& wavPath, double seconds,
                      const QStringList& ports = {PORTAUDIO_CLIENT + QStringLiteral(":out_*")},
                      int channels = 2);
    // Waits until jack_capture has finished writing (it stops by itself after
    // its time). False on a time-out or a failed recording; see error().
    bool waitForCapture(int timeoutMs = 30000);
    // Records `seconds` and waits for the file: startCapture + waitForCapture.
    bool capture(const QString& wavPath, double seconds,
                 const QStringList& ports = {PORTAUDIO_CLIENT + QStringLiteral(":out_*")},
                 int channels = 2);

    // What the server and the capture wrote to their output, for failure
    // messages.
    QString serverLog() const;
    QString captureLog() const;

private:
    // A process that ends when this test process does, even when the test
    // crashes or is killed on a time-out: then no destructor runs, and a
    // server left behind would run on for good.
    class ChildProcess : public QProcess
    {
    protected:
        void setupChildProcess() override;
    };

    bool runJackTool(const QString& tool, const QStringList& args, QByteArray* output,
                     int timeoutMs = 5000) const;
    static void stopProcess(QProcess& process);

    std::unique_ptr<QTemporaryDir> mDir;
    ChildProcess mServer;
    ChildProcess mCapture;
    QString mServerName;
    QString mError;
    QString mCaptureFile;
    int mSampleRate = 0;
    int mPeriodFrames = 0;
};
