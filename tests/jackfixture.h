#pragma once

#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>
#include <QVector>

#include <functional>
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

    JackFixture() = default;
    ~JackFixture() { stop(); }
    JackFixture(const JackFixture&) = delete;
    JackFixture& operator=(const JackFixture&) = delete;

    // Empty when jackd, jack_lsp and jack_capture can be found on the PATH;
    // otherwise what is missing and the Debian packages that bring it, for
    // the test to fail with (a test that cannot listen must not pass).
    static QString missingTools();

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
    // The server goes away under its clients, as a crashed or restarted
    // sound server does (SIGKILL to exactly its process)...
    void killServer();
    // ...and a new one comes up under the same name. False on failure.
    bool restartServer(int timeoutMs = 30000);

    QString error() const { return mError; }
    // A folder for captures and logs that lives as long as the fixture.
    QString workDir() const { return mDir ? mDir->path() : QString(); }

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
    // Its variables, set in this process.
    static void applyNoDeviceToThisProcess();

    // Waits until a port whose name contains `pattern` exists (jack_lsp).
    bool waitForPort(const QString& pattern, int timeoutMs = 15000) const;

    // Records `seconds` of both of PortAudio's output ports with jack_capture
    // into a stereo 32-bit float WAV file at `wavPath` and waits until the
    // file is written. The ports must exist already. False on a failed
    // recording, with the reason in error().
    bool capture(const QString& wavPath, double seconds);
    // Records `seconds` into "<name>.wav" in workDir() again and again until
    // `done` holds for channel `channel` of the recording, for at most
    // `timeoutMs`: a live note takes a moment to start or fade, and a busy
    // machine may spoil one recording. Returns that channel of the last
    // recording; empty when recording failed (error() says why).
    QVector<float> recordUntil(const QString& name, double seconds,
                               const std::function<bool(const QVector<float>&)>& done,
                               int channel = 0, int timeoutMs = 20000);
    // Whether recordings of a second come to hold a tone near `frequency`
    // (AudioAnalysis::soundsNear) on `channel`; whether recordings of half
    // a second come to be silent; within `timeoutMs` (0: one recording).
    // Otherwise error() tells what was heard.
    bool hears(double frequency, int channel = 0, int timeoutMs = 20000);
    bool hearsSilence(int timeoutMs = 20000);

    // What the process started with `logName` wrote so far (the server's
    // is "jackd.log").
    QString log(const QString& logName) const;

private:
    // A process that ends when this test process does, even when the test
    // crashes or is killed on a time-out: then no destructor runs, and a
    // server left behind would run on for good.
    class ChildProcess : public QProcess
    {
    protected:
        void setupChildProcess() override;
    };

    // Starts `program` with this server's environment, its output into
    // `logName` in workDir() (a pipe nobody reads would fill up and stall it).
    bool startTool(ChildProcess& process, const QString& program, const QStringList& args,
                   const QString& logName);
    static void stopProcess(QProcess& process);
    // Removes what a server of this fixture's name left in /dev/shm.
    void removeServerFiles() const;

    std::unique_ptr<QTemporaryDir> mDir;
    ChildProcess mServer;
    ChildProcess mCapture;
    QString mServerName;
    QStringList mServerArguments;
    QString mError;
    int mSampleRate = 0;
};

// The real program on a fixture's server, in a configuration folder of its
// own holding `files` (file name -> contents). The QProcess stops it, if it
// still runs, when the object goes.
struct ProgramOnJack
{
    ProgramOnJack(const JackFixture& jack, const QMap<QString, QByteArray>& files);
    QString config(const QString& name) const;
    QString log() const;
    // Starts it and waits, up to 30 s, until its log holds each of `lines`.
    bool start(const QStringList& lines = QStringList());
    // SIGTERM: how long it took to end, -1 when it did not end cleanly
    // (exit code 0) within `timeoutMs`.
    qint64 terminate(int timeoutMs = 30000);
    QJsonObject options() const;

    QTemporaryDir home;
    QProcessEnvironment environment;
    QProcess process;
    bool configured = true;
};
