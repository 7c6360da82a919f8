#include "app/unixsignalwatcher.h"

#include <QDebug>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// [0] is written by the handler, [1] read by the notifier. One pair per
// process, as signal dispositions are per process.
int sPipe[2] = {-1, -1};

void onSignal(int signal)
{
    const int savedErrno = errno;
    // The first Ctrl+C asks for an orderly shutdown, which saves the user's
    // work; should that ever hang, a second one ends the program at once.
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
    const unsigned char byte = static_cast<unsigned char>(signal);
    // Non-blocking: if the pipe is somehow full, a quit is already pending.
    [[maybe_unused]] const ssize_t written = ::write(sPipe[0], &byte, 1);
    errno = savedErrno;
}

} // namespace

UnixSignalWatcher::UnixSignalWatcher(QObject* parent) : QObject(parent) {}

UnixSignalWatcher::~UnixSignalWatcher()
{
    if (mNotifier) {
        struct sigaction action = {};
        action.sa_handler = SIG_DFL;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGINT, &action, nullptr);
        ::sigaction(SIGTERM, &action, nullptr);
        delete mNotifier;
        ::close(sPipe[0]);
        ::close(sPipe[1]);
        sPipe[0] = sPipe[1] = -1;
    }
}

bool UnixSignalWatcher::watch()
{
    if (mNotifier) {
        return true;
    }
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sPipe) != 0) {
        qWarning() << "Could not create the signal socket pair; Ctrl+C will not save.";
        return false;
    }
    mNotifier = new QSocketNotifier(sPipe[1], QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &UnixSignalWatcher::onReadable);

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    const bool ok =
        ::sigaction(SIGINT, &action, nullptr) == 0 && ::sigaction(SIGTERM, &action, nullptr) == 0;
    if (!ok) {
        qWarning() << "Could not install the SIGINT/SIGTERM handlers.";
    }
    return ok;
}

void UnixSignalWatcher::onReadable()
{
    unsigned char byte = 0;
    while (::read(sPipe[1], &byte, 1) == 1) {
        qWarning() << "Received signal" << int(byte) << "- shutting down";
        emit terminationRequested(int(byte));
    }
}
