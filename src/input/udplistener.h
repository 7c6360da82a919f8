#pragma once

#include "input/udpreceivethread.h"
#include "settings/throttledwarning.h"

#include <memory>

class ArboEvent;
class QUdpSocket;
class RfidMap;

// The thread that receives the wands' datagrams.
//
// Once started with listen(), it loads its own RFID map ("rfid_map.json"),
// binds a UDP socket on the given port (any address, IPv4 and IPv6) and then,
// until term() is called, takes each 72-byte datagram apart (see
// WandDatagram), looks its tag up and emits eventReceived with the mapped
// event. Anything else that arrives is logged, throttled, and dropped.
//
// Threads: see UdpReceiveThread. The socket and the map are made, used and
// freed on the listener's own thread.
class UdpListener : public UdpReceiveThread
{
    Q_OBJECT
public:
    // How long one wait for a datagram lasts, and so how late a stop request
    // may be noticed.
    static constexpr int POLL_INTERVAL_MS = 1000;

    explicit UdpListener(QObject* parent = nullptr);
    ~UdpListener() override;

    // GUI thread, once. Starts the thread on `port` (the option "udpPort" as
    // it is now: the thread keeps its own copy).
    void listen(int port);

signals:
    // Emitted on the listener's thread, once per datagram whose tag is in the
    // map. Connect it with Qt::DirectConnection to a receiver that copies what
    // it needs at once (PdPlayer::queueEventSerial): the event belongs to the
    // listener's map and must not be kept or freed.
    void eventReceived(const ArboEvent* event);

private:
    bool openPort() override;
    int socketDescriptor() const override;
    void receivePending() override;
    void summariseIfDue() override;
    void closePort() override;
    void handle(const char* datagram);

    int mPort = 0;
    std::unique_ptr<RfidMap> mMap;
    std::unique_ptr<QUdpSocket> mSocket;
    // The port is open to anyone on the network. A stream of bad datagrams
    // would otherwise write one warning line each to the log file; the
    // throttles keep the first of each kind verbatim and count the rest.
    ThrottledWarning mWrongSize{
        "%1 more UDP packets of wrong size were discarded (warnings suppressed)"};
    ThrottledWarning mUnknownTag{"%1 more UDP packets with RFIDs not in the mapping table were "
                                 "ignored (warnings suppressed)"};
};
