#pragma once

#include <QString>
#include <QThread>

#include <atomic>

class ArboEvent;

// The thread that receives the wands' datagrams.
//
// run() loads its own RFID map ("rfid_map.json"), binds a UDP socket on the
// port of the option "udpPort" (any address, IPv4 and IPv6) and then, until
// term() is called, takes each 72-byte datagram apart (see WandDatagram),
// looks its tag up and emits eventReceived with the mapped event. Anything
// else that arrives is logged and dropped: the port is open to the whole
// network, so no datagram can stop or stall the loop.
//
// Threads: the object itself lives on the GUI thread, which constructs it,
// starts it and calls term(). run() and everything it creates (socket, map,
// events) live on the listener's own thread.
class UdpListener : public QThread
{
    Q_OBJECT
public:
    // How long one wait for a datagram lasts, and so how late a stop request
    // may be noticed.
    static constexpr int POLL_INTERVAL_MS = 1000;
    // How long term() waits for the thread to end: two polls.
    static constexpr int STOP_TIMEOUT_MS = 2000;

    explicit UdpListener(QObject* parent = nullptr);
    // Stops the thread if it still runs (waiting as long as it takes; see the
    // source for why that is bounded).
    ~UdpListener() override;

    // GUI thread. Asks the thread to stop and waits for it at most
    // STOP_TIMEOUT_MS. Does nothing when the thread is not running. Once
    // stopped, a listener is not started again; make a new one.
    void term();

signals:
    // Emitted on the listener's thread, once per datagram whose tag is in the
    // map. Connect it with Qt::DirectConnection to a receiver that copies what
    // it needs at once (PdPlayer::queueEventSerial): the event belongs to the
    // listener's map and must not be kept or freed.
    void eventReceived(const ArboEvent* event);
    // Emitted on the listener's thread when it cannot work (the map does not
    // load, the port cannot be bound); the thread then ends. The text says
    // why. Connect it queued.
    void fatalError(QString error);

protected:
    void run() override;

private:
    // Written by the GUI thread, polled by the listener's loop. Nothing else
    // is published through it, so relaxed order is enough.
    std::atomic<bool> mStop{false};
};
