#pragma once

#include <QString>
#include <QThread>

#include <atomic>

// A thread that receives datagrams on one UDP port until it is asked to stop:
// the life cycle and the receive loop that the wand listener and the OSC
// input share. The port is open to the whole network, so the loop never
// blocks on a read and no datagram can stop or stall it.
//
// run() opens the port (openPort(); a failure has already been reported
// through fatalError() and ends the thread), then polls the socket
// (socketDescriptor()) for at most the poll interval at a time and hands
// every readable moment to receivePending(), which reads what is there,
// checking stopRequested() between datagrams so that a fast sender cannot
// keep term() waiting. After each poll summariseIfDue() may log a
// throttled summary; when the thread ends, closePort() releases the port.
//
// Threads: the object lives on the GUI thread, which starts it and calls
// term(). The virtual functions run on the receiving thread.
class UdpReceiveThread : public QThread
{
    Q_OBJECT
public:
    // How long term() waits for the thread to end.
    static constexpr int STOP_TIMEOUT_MS = 2000;

    // Stops the thread if it still runs (waiting as long as it takes: a
    // stopped loop ends within one poll interval).
    ~UdpReceiveThread() override;

    // GUI thread. Asks the thread to stop and waits for it at most
    // STOP_TIMEOUT_MS. Does nothing when it is not running. A stopped
    // receiver is not started again; make a new one.
    void term();

signals:
    // Emitted on the receiving thread when it cannot work (the port cannot be
    // opened or the socket failed); the thread then ends and the rest of the
    // program goes on. The text says why. Connect it queued.
    void fatalError(QString error);

protected:
    // `name` names the thread in the log ("UDP", "OSC"); `pollIntervalMs` is
    // how late a stop request or a due summary may be noticed.
    UdpReceiveThread(const char* name, int pollIntervalMs, QObject* parent);

    bool stopRequested() const { return mStop.load(std::memory_order_relaxed); }
    // Stops the thread and waits as long as it takes. Every subclass calls it
    // first in its destructor: the loop uses the subclass's members, which
    // are gone by the time this class's destructor runs.
    void stopAndWait();

    // Opens the port; on failure reports it (log and fatalError) and returns
    // false.
    virtual bool openPort() = 0;
    // The open socket, for the poll.
    virtual int socketDescriptor() const = 0;
    // Reads and handles what the socket holds now.
    virtual void receivePending() = 0;
    virtual void summariseIfDue() {}
    // Logs the last summaries and releases the port. Called only after a
    // successful openPort().
    virtual void closePort() = 0;

private:
    void run() final;

    const char* mName;
    int mPollIntervalMs;
    // Written by the GUI thread, polled by the loop. Nothing else is
    // published through it, so relaxed order is enough.
    std::atomic<bool> mStop{false};
};
