#pragma once

#include "input/inputmap.h"

#include <QString>
#include <QThread>

#include <atomic>

class PdPlayer;

// The thread that receives Open Sound Control messages (through liblo) on the
// UDP port "oscPort" of the input map, so that show controllers, phones and
// other programs can play the lattice without wands.
//
// It understands, besides every address of the map's "osc" table:
//
//   /arbo/toggle ,s  "/3/-5"   the note at the path on or off, as a wand does
//   /arbo/event  ,NN 6 0.5     an event of the wands' vocabulary: type and
//                              value, each an int, float or double; the types
//                              that need a path or are the program's own are
//                              refused, as in the map
//   /arbo/tag    ,s  "04a1b2"  the event of a tag of "rfid_map.json", so a
//                              show controller can replay the wands' cues
//   /arbo/note   ,sN "/5" 1    a held note: a non-zero number (or true)
//                              starts it, zero (or false) ends it
//
// A mapped address without arguments is a press of its binding; with a
// number or boolean first it is a controller at that position (0 to 1), so a
// button sending 1 and 0 holds a note and a fader sends its value.
//
// Addresses match as written: OSC address patterns ("/*") are not expanded,
// so that nobody on the network can press every mapped control at once.
//
// The port is open to the whole network: anything else that arrives
// (malformed packets, unknown addresses, tags or arguments) is logged,
// throttled (the first of a kind as it stands, then a count a second), and
// dropped. No packet can stop or stall the loop.
//
// Threads: the object lives on the GUI thread, which calls open() and term().
// run() and everything it makes (the liblo server, the tag map) live on the
// receiver's own thread, the only one that writes the player's OSC command
// ring (PdPlayer::queueEventOsc).
class OscInput : public QThread
{
    Q_OBJECT
public:
    // How long one wait for a packet lasts, and so how late a stop request
    // (or a due log summary) may be noticed.
    static constexpr int POLL_INTERVAL_MS = 100;
    // How long term() waits for the thread to end.
    static constexpr int STOP_TIMEOUT_MS = 2000;

    explicit OscInput(QObject* parent = nullptr);
    // Stops the thread if it still runs (waiting as long as it takes: a
    // stopped loop ends within one poll).
    ~OscInput() override;

    // GUI thread, once. Copies the bindings and, when their "oscPort" is not
    // 0, starts the thread, which sends what it receives into `player` (which
    // must outlive the thread). Returns whether it started; port 0 means OSC
    // is off: no thread, no open port.
    bool open(PdPlayer* player, const InputMap::Bindings& bindings);

    // GUI thread. Asks the thread to stop and waits for it at most
    // STOP_TIMEOUT_MS. Does nothing when it is not running. A stopped input
    // is not opened again; make a new one.
    void term();

signals:
    // Emitted on the receiver's thread once the port is open. Connect queued.
    void listening(int port);
    // Emitted on the receiver's thread when it cannot work (the port cannot
    // be opened); the thread then ends and the rest of the program goes on.
    // The text says why. Connect queued.
    void fatalError(QString error);

protected:
    void run() override;

private:
    PdPlayer* mPlayer = nullptr;
    // Written by open() before the thread starts; only the thread reads it
    // afterwards (QThread::start orders the two).
    InputMap::Bindings mBindings;
    // Written by the GUI thread, polled by the loop. Nothing else is
    // published through it, so relaxed order is enough.
    std::atomic<bool> mStop{false};
};
