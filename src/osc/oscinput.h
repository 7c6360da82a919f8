#pragma once

#include "input/inputmap.h"
#include "input/udpreceivethread.h"

#include <QString>

#include <memory>

class OscReceiver;
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
//   /arbo/scene/recall ,N 3        scene 3 of the active cue list (from 1)
//   /arbo/scene/next, /arbo/scene/previous   a step through the cue list
//   /arbo/scene/store ,s "Intro"   the sound as it is, as a new scene at the
//                              end of the list (the name may be left out)
//   /arbo/record ,N  1         recording: a non-zero number (or true)
//                              starts it, zero (or false) stops it; without
//                              an argument it toggles
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
// Threads: see UdpReceiveThread; the GUI thread calls open(), setBindings()
// and term(). The liblo server and the tag map are made, used and freed on
// the receiver's own thread, the only one that writes the player's OSC
// command ring (PdPlayer::queueEventOsc). The bindings it reads are an
// immutable snapshot that setBindings() replaces atomically.
class OscInput : public UdpReceiveThread
{
    Q_OBJECT
public:
    // How long one wait for a packet lasts, and so how late a stop request
    // (or a due log summary) may be noticed.
    static constexpr int POLL_INTERVAL_MS = 100;

    explicit OscInput(QObject* parent = nullptr);
    ~OscInput() override;

    // GUI thread, once. Takes the bindings and, when their "oscPort" is not
    // 0, starts the thread, which sends what it receives into `player` (which
    // must outlive the thread). Returns whether it started; port 0 means OSC
    // is off: no thread, no open port. A stopped input is not opened again;
    // make a new one.
    bool open(PdPlayer* player, const InputMap::Bindings& bindings);

    // GUI thread. The bindings every message from now on is read against
    // (the port stays the one open() opened).
    void setBindings(const InputMap::Bindings& bindings);
    // Any thread: the bindings in force now.
    std::shared_ptr<const InputMap::Bindings> bindings() const;
    PdPlayer* player() const { return mPlayer; }

signals:
    // Emitted on the receiver's thread once the port is open. Connect queued.
    void listening(int port);

private:
    bool openPort() override;
    int socketDescriptor() const override;
    void receivePending() override;
    void summariseIfDue() override;
    void closePort() override;

    // Written by open() before the thread starts (QThread::start orders them).
    PdPlayer* mPlayer = nullptr;
    int mPort = 0;
    // Replaced whole by setBindings(), read by the receiving thread: only
    // through std::atomic_load/atomic_store.
    std::shared_ptr<const InputMap::Bindings> mBindings;
    // The receiving thread's own.
    std::unique_ptr<OscReceiver> mReceiver;
    void* mServer = nullptr; // liblo's lo_server, an opaque pointer
};
