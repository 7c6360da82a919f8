#pragma once

#include "model/arboevent.h"
#include "input/inputmap.h"
#include "midi/midiinparser.h"
#include "midi/midiinputtables.h"
#include "midi/midioutput.h"
#include "midi/rtmidierrorsink.h"

#include <QElapsedTimer>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

class MidiPortConnector;
class PdPlayer;
class RtMidiIn;

// Plays the lattice from MIDI keyboards and controllers, through RtMidi.
//
// The input is one virtual port named "Merrow Tuning Arbo", on JACK when a
// JACK server runs, else on the ALSA sequencer. Other programs connect to it;
// the ports named in the input map's "midiPorts" (any port whose name or
// alias contains one of the texts, in any case) are connected to it by the
// input itself, as jack_connect or aconnect would, at open and whenever such
// a port appears later. So however many sources play, one thread (RtMidi's:
// JACK's process thread, or RtMidi's ALSA thread) delivers all the bytes, and
// it alone writes the player's MIDI command ring.
//
// That thread runs every message through a MidiInParser (on all channels),
// looks the note or controller up in its own copy of the map and queues the
// binding's event: note-on presses, note-off releases, a control change moves
// the control to value / 127. With "midiVelocity" a note-on first sets the
// voice volume to velocity / 127. Everything else is ignored. It never
// blocks, locks, allocates or logs: what was malformed or ignored is counted
// and the GUI thread reports it once a second at most (ignored messages, the
// everyday aftertouch and keys beyond the map, once a minute); the player
// reports what its full ring dropped.
//
// A missing MIDI system leaves the input off with a warning; the program goes
// on without it. A JACK server that goes away while the input is open (killed,
// restarted) is said once; the input opens again by itself when the server is
// back, as the audio output does.
//
// Threads: everything public belongs to the GUI thread, except the counters
// and feed(), whose contracts say otherwise.
class MidiInput : public QObject
{
    Q_OBJECT
public:
    using Api = MidiOutput::Api;
    static constexpr int REPORT_INTERVAL_MS = 1000;
    static constexpr int IGNORED_REPORT_INTERVAL_MS = 60000;

    explicit MidiInput(QObject* parent = nullptr);
    ~MidiInput() override;

    // The player that the events go to. Before open().
    void attach(PdPlayer* player);

    // Closes any open port, takes a copy of `bindings` and opens the input.
    // Returns whether MIDI now comes in; on failure the reason is logged as
    // a warning and kept in status(). The copy is kept either way, for feed().
    bool open(const InputMap::Bindings& bindings, Api api = Api::Auto);
    // The notes' and controllers' bindings from now on, while the port stays
    // open (its connections and "midiPorts" stay as open() made them). A
    // note held down through the old bindings ends at once, through the GUI
    // thread's command ring (the input thread's is its own); only a press
    // that a flood of MIDI still holds back in that ring could come after
    // its release, and sound on until "Stop all". GUI thread.
    void setBindings(const InputMap::Bindings& bindings);
    // Disconnects and closes the port; once it returns, nothing is queued
    // into the player any more.
    void close();

    bool isOpen() const { return mIn != nullptr; }
    // One line for the user: what the input is doing, or why not.
    QString status() const { return mStatus; }
    // The full name of the input port, e.g. "Merrow Tuning Arbo:Merrow Tuning
    // Arbo"; empty when closed or not found.
    QString portName() const { return mOwnPort; }
    // The ports that the input has connected to itself, from "midiPorts".
    QStringList connectedPorts() const;

    // Takes bytes as if they had come in on the port: the input thread's own
    // path. Only the ring's one producer may call it: RtMidi's thread while
    // the input is open; while it is closed, any one thread at a time (the
    // tests feed it directly). Never blocks, locks, allocates or logs.
    void feed(const std::uint8_t* bytes, std::size_t size);

    // Any thread: channel voice messages received since open(), and the
    // events queued into the player for them.
    std::uint64_t messagesReceived() const { return mReceived.load(std::memory_order_acquire); }
    std::uint64_t eventsQueued() const { return mQueued.load(std::memory_order_acquire); }

    // GUI thread: logs what was malformed or ignored since the last call,
    // connects "midiPorts" ports that have appeared, and reports RtMidi's
    // errors. A timer calls it every REPORT_INTERVAL_MS while the input is
    // open.
    void checkInput();

    // Scenes from MIDI, on every channel: a Program Change n recalls scene
    // n + 1 of the active cue list (when `programChange`), and the
    // controllers `next` and `previous` (0..127; -1: none) step through it.
    // A foot switch holds its controller at 127 and may send the value again
    // while held: a step is taken only when it goes from below 64 to 64 or
    // above. These controllers act for the scenes alone. Any thread.
    void setSceneTriggers(int next, int previous, bool programChange);

signals:
    void statusChanged(QString status);

private:
    // Opens RtMidi's port and the connections on the system mApi chooses;
    // `again`: on JACK, after the server had gone, saying nothing on failure.
    bool start(bool again);
    // RtMidi's virtual port, with the callback set; `jack` tells the system.
    // Null on failure, with a warning unless `again`.
    std::unique_ptr<RtMidiIn> openPort(bool again, bool& jack);
    // The client that connects the "midiPorts" ports to our own and finds
    // that port's name.
    void openConnector(bool jack);
    // Lets go of what belonged to a JACK server that has gone, without
    // touching it.
    void abandonLostSystem();
    static void onRtMidiMessage(double stamp, std::vector<unsigned char>* message, void* self);
    void dispatch(const MidiInParser::Message& message, const MidiInputTables::Table& table);
    void queue(const ArboEvent* event);
    void ignore(const MidiInParser::Message& message);
    void connectWantedPorts();
    // Lets go of the connected and refused ports that are no longer
    // `present`, so that they are tried again when they come back.
    void forgetGonePorts(const QStringList& present);
    // Says once for each text of "midiPorts" that no port matches yet.
    void reportUnmatchedTexts(const QSet<QString>& matchedTexts);
    void reportCounts();
    void updateStatus();
    void setStatus(const QString& status);
    // Logs `text` as a warning and shows it as the status.
    void warn(const QString& text);

    // The input thread's own (see feed()).
    PdPlayer* mPlayer = nullptr;
    // The bindings, copied from the map at open() and by setBindings().
    MidiInputTables mTables;
    MidiInParser mParser;
    ArboEvent mScratch;
    // Whether each channel's next and previous switch is down.
    bool mSceneSwitchDown[16][2] = {};

    // The scene triggers (setSceneTriggers()).
    std::atomic<int> mSceneNext{-1};
    std::atomic<int> mScenePrevious{-1};
    std::atomic<bool> mSceneProgramChange{true};

    // Counted on the input thread, reported and cleared by the GUI thread.
    std::atomic<std::uint64_t> mReceived{0};
    std::atomic<std::uint64_t> mQueued{0};
    std::atomic<std::uint32_t> mMalformed{0};
    std::atomic<std::uint32_t> mIgnored{0};
    std::atomic<std::uint32_t> mLastIgnored{0}; // status | data1 << 8 of the latest

    // GUI thread.
    std::unique_ptr<RtMidiIn> mIn;
    RtMidiErrorSink mErrors; // of mIn
    std::unique_ptr<MidiPortConnector> mConnector;
    Api mApi = Api::Auto;
    QString mSystem; // "JACK" or "ALSA"
    QString mOwnPort;
    QStringList mWanted;
    QStringList mConnected;
    QSet<QString> mFailed; // tried and refused while they are there
    QSet<QString> mWaitingReported;
    bool mSystemLost = false;
    std::uint64_t mIgnoredPending = 0;
    QElapsedTimer mIgnoredLogged;
    QString mStatus;
    QTimer mTimer;
};
