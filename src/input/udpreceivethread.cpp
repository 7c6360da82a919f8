#include "input/udpreceivethread.h"

#include <QDebug>

#include <poll.h>
#include <sys/socket.h>

UdpReceiveThread::UdpReceiveThread(const char* name, int pollIntervalMs, QObject* parent)
    : QThread(parent), mName(name), mPollIntervalMs(pollIntervalMs)
{
}

UdpReceiveThread::~UdpReceiveThread()
{
    stopAndWait();
}

void UdpReceiveThread::stopAndWait()
{
    // Destroying a QThread that still runs aborts the process. After a
    // term() that timed out, the stop flag is set and the loop notices it
    // within one poll, so this wait ends.
    if (isRunning()) {
        mStop.store(true, std::memory_order_relaxed);
        wait();
    }
}

void UdpReceiveThread::term()
{
    if (!isRunning()) {
        return;
    }
    qWarning("Stopping %s thread...", mName);
    mStop.store(true, std::memory_order_relaxed);
    if (!wait(STOP_TIMEOUT_MS)) {
        qCritical("%s thread couldn't be stopped, exiting anyway", mName);
    }
}

void UdpReceiveThread::run()
{
    qWarning("%s thread starting...", mName);
    if (!openPort()) {
        return;
    }
    pollfd wake{socketDescriptor(), POLLIN, 0};
    while (!stopRequested()) {
        const int ready = ::poll(&wake, 1, mPollIntervalMs);
        if (ready > 0 && (wake.revents & POLLERR)) {
            // A pending socket error (an ICMP answer, say) would wake every
            // poll at once; reading it clears it.
            int error = 0;
            socklen_t size = sizeof(error);
            ::getsockopt(wake.fd, SOL_SOCKET, SO_ERROR, &error, &size);
        }
        if (ready > 0 && (wake.revents & POLLNVAL)) {
            const QString text = QStringLiteral("%1 socket failed. %1 thread shutting down.")
                                     .arg(QLatin1String(mName));
            qCritical().noquote() << text;
            emit fatalError(text);
            break;
        }
        if (ready > 0 && (wake.revents & POLLIN)) {
            receivePending();
        }
        summariseIfDue();
    }
    closePort();
    qWarning("%s thread exits run", mName);
}
