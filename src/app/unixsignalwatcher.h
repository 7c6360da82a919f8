#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGINT and SIGTERM into a Qt signal on the GUI thread.
//
// A musician who presses Ctrl+C in the terminal, or a session manager that
// sends SIGTERM, must not lose the lattice or the options: the signal has to
// end the event loop so that the normal shutdown runs and saves. Nothing but a
// write() to a socket pair happens in the signal handler itself (the only
// async-signal-safe way out); a socket notifier reads it in the event loop.
class UnixSignalWatcher : public QObject
{
    Q_OBJECT
public:
    explicit UnixSignalWatcher(QObject* parent = nullptr);
    ~UnixSignalWatcher() override;

    // Installs the handlers for SIGINT and SIGTERM. Returns false when the
    // socket pair or a handler could not be set up (the program then keeps
    // the default behaviour of those signals).
    bool watch();

signals:
    void terminationRequested(int signal);

private slots:
    void onReadable();

private:
    QSocketNotifier* mNotifier = nullptr;
};
