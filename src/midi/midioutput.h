#pragma once

#include "sound/midinotering.h"
#include "midi/rtmidierrorsink.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

class JackServerWatch;
class MidiEncoder;
class MidiSettings;
class PdPlayer;
class RtMidiOut;

// Plays the player's notes on a MIDI port, in exact tuning, through RtMidi.
//
// The player writes each note it starts or ends into ring() on the audio
// thread; a MIDI thread of this class's own drains the ring, encodes each
// note with the chosen method (MPE or MTS, see MpeEncoder and MtsEncoder) and
// hands the bytes to RtMidi. The audio thread thus never does MIDI I/O and
// never waits for it.
//
// The port is either a virtual port named "Merrow Tuning Arbo" that other
// programs connect to, or a connection to an existing port chosen by name.
// The MIDI system is JACK when a JACK server runs (the audio then runs on it
// too), the ALSA sequencer otherwise. A missing MIDI system leaves the output
// off with a warning; the program goes on without it. A JACK server that goes
// away while the output is open (killed, restarted) is said once; the output
// opens again by itself, with the same settings, when the server is back.
//
// Threads: everything public belongs to the GUI thread, except ring(),
// notesSent() and lastLatencyNs(), which any thread may call.
class MidiOutput : public QObject
{
    Q_OBJECT
public:
    static const char* const PORT_NAME;
    enum class Api
    {
        Auto, // JACK when a server runs, else ALSA
        Jack,
        Alsa,
    };
    // How often the GUI thread looks whether the chosen port still exists.
    static constexpr int PORT_CHECK_INTERVAL_MS = 1000;

    // The MIDI thread's SCHED_FIFO priority, when it may have one.
    static constexpr int MIDI_THREAD_PRIORITY = 40;

    explicit MidiOutput(QObject* parent = nullptr);
    ~MidiOutput() override;

    // The player whose notes are played: its note tap is pointed at ring()
    // while the output is open, and its built-in sound follows the setting.
    void attach(PdPlayer* player);

    // Closes any open port and opens the output as `settings` say. Returns
    // whether MIDI now goes out; when the settings say off, false with the
    // status "MIDI output is off". On failure the reason is logged as a
    // warning and kept in status().
    bool open(const MidiSettings& settings, Api api = Api::Auto);
    // Ends the sounding notes, stops the MIDI thread, closes the port.
    void close();

    bool isOpen() const { return mThread.joinable(); }
    // One line for the options: what the output is doing, or why not.
    QString status() const { return mStatus; }
    // The existing MIDI input ports that the output could connect to.
    QStringList portNames(Api api = Api::Auto);

    MidiNoteRing* ring() { return &mRing; }
    // Any thread: notes started on the port since construction, and the time
    // from the player's push to the hand-over to RtMidi of the latest one.
    std::uint64_t notesSent() const { return mNotesSent.load(std::memory_order_acquire); }
    std::int64_t lastLatencyNs() const { return mLastLatencyNs.load(std::memory_order_relaxed); }
    // Any thread: whether the MIDI thread got real-time scheduling.
    bool isRealtime() const { return mRealtime.load(); }

signals:
    void statusChanged(QString status);

private slots:
    void onCheckPort();

private:
    // GUI thread, at close: lets JACK carry out what was sent last.
    void waitForLastWords();
    static constexpr int LAST_WORDS_TIMEOUT_MS = 250;

    // Opens on `out` the virtual port, or, when `port` names one, the
    // connection to that port; `where` says which, for the status. On failure
    // the output stays off, with a warning.
    // `quiet`: a failure is only returned, not logged (the retries after a
    // lost server repeat every second).
    bool openPort(RtMidiOut& out, const QString& port, Api used, QString& where,
                  bool quiet = false);
    // Takes `out` over with the encoder the settings choose, and starts the
    // MIDI thread and the port check.
    void start(std::unique_ptr<RtMidiOut> out, const MidiSettings& settings, Api used);
    // GUI thread: lets go of the port on a JACK server that has gone and
    // starts looking for its return.
    void loseServer();
    // GUI thread: one quiet attempt to open the output again on JACK.
    void reopenAfterServerLoss();
    void setStatus(const QString& status);
    // Logs `text` as a warning and shows it as the status.
    void warn(const QString& text);
    void run();
    void send(const std::vector<std::vector<std::uint8_t>>& messages);

    MidiNoteRing mRing;
    PdPlayer* mPlayer = nullptr;
    std::unique_ptr<RtMidiOut> mOut;
    std::unique_ptr<MidiEncoder> mEncoder; // MIDI thread while it runs
    std::thread mThread;
    std::atomic<bool> mStop{false};
    std::atomic<std::uint64_t> mNotesSent{0};
    std::atomic<std::int64_t> mLastLatencyNs{0};
    std::atomic<bool> mRealtime{false};
    RtMidiErrorSink mErrors;                 // of mOut
    std::unique_ptr<JackServerWatch> mWatch; // of mOut's server, on JACK
    Api mApi = Api::Auto;
    QString mPort;
    QString mStatus;
    bool mPortLost = false;
    bool mServerLost = false;
    std::unique_ptr<MidiSettings> mOpened; // the settings of the last open(), to open again
    QTimer mPortCheck;
};
