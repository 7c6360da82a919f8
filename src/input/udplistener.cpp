#include "input/udplistener.h"

#include "input/rfidmap.h"
#include "input/wanddatagram.h"
#include "settings/appcontext.h"
#include "settings/debuglog.h"
#include "settings/settings.h"
#include "settings/throttledwarning.h"

#include <QDebug>
#include <QHostAddress>
#include <QUdpSocket>


UdpListener::UdpListener(QObject* parent) : QThread(parent) {}

UdpListener::~UdpListener()
{
    // Destroying a QThread that still runs aborts the process. After a
    // term() that timed out, the stop flag is set and the loop notices it
    // within one poll, so this wait ends.
    if (isRunning()) {
        mStop.store(true, std::memory_order_relaxed);
        wait();
    }
}

void UdpListener::term()
{
    if (!isRunning()) {
        return;
    }
    qWarning("Stopping UDP thread...");
    mStop.store(true, std::memory_order_relaxed);
    if (!wait(STOP_TIMEOUT_MS)) {
        qCritical("UDP thread couldn't be stopped, exiting anyway");
    }
}

void UdpListener::run()
{
    qWarning("UDP thread starting...");

    RfidMap map;
    if (!map.init()) {
        const QString text =
            QStringLiteral("Failed to load RFID mapping file, UDP thread shutting down.");
        qCritical().noquote() << text;
        emit fatalError(text);
        return;
    }

    // Read once as the thread starts. The GUI thread is still in start-up
    // then, so the options dialog cannot be changing it.
    const int port = AppContext::settings()->mUdpPort;
    QUdpSocket socket;
    // Port 0 would bind a random port that no wand knows, and a number beyond
    // 16 bits would wrap to some other port: both are a failure to open the
    // configured one. QHostAddress::Any is the dual-stack address (IPv4 and
    // IPv6); the bind mode is the platform's default.
    if (port < 1 || port > 65535 || !socket.bind(QHostAddress::Any, quint16(port))) {
        const QString text =
            QStringLiteral("Can't open UDP socket on port %1. UDP thread shutting down.").arg(port);
        qCritical().noquote() << text;
        emit fatalError(text);
        return;
    }
    qWarning() << "UDP socket opened on port" << port;

    // The port is open to anyone on the network. A stream of bad datagrams
    // would otherwise write one warning line each to the log file; the
    // throttles keep the first of each kind verbatim and count the rest.
    ThrottledWarning wrongSize(
        "%1 more UDP packets of wrong size were discarded (warnings suppressed)");
    ThrottledWarning unknownTag("%1 more UDP packets with RFIDs not in the mapping table were "
                                "ignored (warnings suppressed)");

    char buffer[WandDatagram::SIZE];
    while (!mStop.load(std::memory_order_relaxed)) {
        if (!socket.waitForReadyRead(POLL_INTERVAL_MS) &&
            socket.state() != QAbstractSocket::BoundState) {
            // Qt closes the socket when the system reports an error while
            // waiting; without this the loop would spin on a dead socket.
            const QString text =
                QStringLiteral("UDP socket on port %1 failed: %2. UDP thread shutting down.")
                    .arg(port)
                    .arg(socket.errorString());
            qCritical().noquote() << text;
            emit fatalError(text);
            break;
        }
        // The stop flag is checked between datagrams too, so that a sender
        // faster than this loop cannot keep term() waiting.
        while (!mStop.load(std::memory_order_relaxed) && socket.hasPendingDatagrams()) {
            const qint64 size = socket.pendingDatagramSize();
            if (size != WandDatagram::SIZE) {
                wrongSize.warn(QStringLiteral("Discarding UDP packet due to wrong size %1").arg(size));
                if (socket.readDatagram(nullptr, 0) < 0) {
                    break; // nothing readable after all; wait again
                }
                continue;
            }

            QHostAddress sender;
            if (socket.readDatagram(buffer, WandDatagram::SIZE, &sender) != WandDatagram::SIZE) {
                break;
            }
            // The local port, not the sender's: the line says where it came in.
            ARBO_DEBUG().noquote() << QStringLiteral("Received a UDP packet from %1 on port %2")
                                          .arg(sender.toString())
                                          .arg(socket.localPort());

            WandDatagram datagram;
            WandDatagram::parse(buffer, WandDatagram::SIZE, datagram);
            ARBO_DEBUG().noquote()
                << "Wand ID:" << int(datagram.wand()) << ", RFID:" << datagram.tagForLog();

            if (const ArboEvent* event = map.lookup(datagram.tagText())) {
                emit eventReceived(event);
            } else {
                unknownTag.warn(QStringLiteral("RFID %1 not found in mapping table. Ignoring.")
                                    .arg(datagram.tagForLog()));
            }
        }
        wrongSize.summariseIfDue();
        unknownTag.summariseIfDue();
    }
    wrongSize.summarise();
    unknownTag.summarise();

    qWarning("UDP thread exits run");
}
