#include "input/udplistener.h"

#include "input/rfidmap.h"
#include "input/wanddatagram.h"
#include "settings/debuglog.h"

#include <QDebug>
#include <QHostAddress>
#include <QUdpSocket>

UdpListener::UdpListener(QObject* parent) : UdpReceiveThread("UDP", POLL_INTERVAL_MS, parent) {}

UdpListener::~UdpListener()
{
    stopAndWait();
}

void UdpListener::listen(int port)
{
    mPort = port;
    start(QThread::InheritPriority);
}

bool UdpListener::openPort()
{
    mMap = std::make_unique<RfidMap>();
    if (!mMap->init()) {
        const QString text =
            QStringLiteral("Failed to load RFID mapping file, UDP thread shutting down.");
        qCritical().noquote() << text;
        emit fatalError(text);
        mMap.reset();
        return false;
    }
    mSocket = std::make_unique<QUdpSocket>();
    // Port 0 would bind a random port that no wand knows, and a number beyond
    // 16 bits would wrap to some other port: both are a failure to open the
    // configured one. QHostAddress::Any is the dual-stack address (IPv4 and
    // IPv6); the bind mode is the platform's default.
    if (mPort < 1 || mPort > 65535 || !mSocket->bind(QHostAddress::Any, quint16(mPort))) {
        const QString text =
            QStringLiteral("Can't open UDP socket on port %1. UDP thread shutting down.")
                .arg(mPort);
        qCritical().noquote() << text;
        emit fatalError(text);
        mSocket.reset();
        mMap.reset();
        return false;
    }
    qWarning() << "UDP socket opened on port" << mPort;
    return true;
}

int UdpListener::socketDescriptor() const
{
    return int(mSocket->socketDescriptor());
}

void UdpListener::receivePending()
{
    char buffer[WandDatagram::SIZE];
    while (!stopRequested() && mSocket->hasPendingDatagrams()) {
        const qint64 size = mSocket->pendingDatagramSize();
        if (size != WandDatagram::SIZE) {
            mWrongSize.warn(QStringLiteral("Discarding UDP packet due to wrong size %1").arg(size));
            if (mSocket->readDatagram(nullptr, 0) < 0) {
                return; // nothing readable after all; wait again
            }
            continue;
        }
        QHostAddress sender;
        if (mSocket->readDatagram(buffer, WandDatagram::SIZE, &sender) != WandDatagram::SIZE) {
            return;
        }
        // The local port, not the sender's: the line says where it came in.
        ARBO_DEBUG().noquote() << QStringLiteral("Received a UDP packet from %1 on port %2")
                                      .arg(sender.toString())
                                      .arg(mSocket->localPort());
        handle(buffer);
    }
}

void UdpListener::handle(const char* bytes)
{
    WandDatagram datagram;
    WandDatagram::parse(bytes, WandDatagram::SIZE, datagram);
    ARBO_DEBUG().noquote() << "Wand ID:" << int(datagram.wand())
                           << ", RFID:" << datagram.tagForLog();
    if (const ArboEvent* event = mMap->lookup(datagram.tagText())) {
        emit eventReceived(event);
    } else {
        mUnknownTag.warn(QStringLiteral("RFID %1 not found in mapping table. Ignoring.")
                             .arg(datagram.tagForLog()));
    }
}

void UdpListener::summariseIfDue()
{
    mWrongSize.summariseIfDue();
    mUnknownTag.summariseIfDue();
}

void UdpListener::closePort()
{
    mWrongSize.summarise();
    mUnknownTag.summarise();
    mSocket.reset();
    mMap.reset();
}
