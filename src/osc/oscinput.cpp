#include "osc/oscinput.h"

#include "osc/oscreceiver.h"
#include "settings/debuglog.h"

#include <QDebug>

#include <lo/lo.h>

#include <fcntl.h>

namespace {

// How many packets one turn of the loop takes at most, so that the log
// summaries come on time in a flood too.
constexpr int PACKETS_PER_TURN = 256;

// The receiver of the thread that is in liblo: its error handler has no
// context argument.
thread_local OscReceiver* tReceiver = nullptr;

void onLibloError(int, const char* message, const char* where)
{
    OscReceiver* receiver = tReceiver;
    if (!receiver) {
        return;
    }
    if (receiver->mOpening) {
        receiver->mOpenError = QString::fromLatin1(message);
    } else {
        receiver->malformed(message, where);
    }
}

int onMessage(const char* address, const char* types, lo_arg** argv, int argc, lo_message,
              void* receiver)
{
    static_cast<OscReceiver*>(receiver)->handle(address, types, argv, argc);
    return 0; // handled: no other method is asked
}

} // namespace

OscInput::OscInput(QObject* parent) : UdpReceiveThread("OSC", POLL_INTERVAL_MS, parent) {}

OscInput::~OscInput()
{
    stopAndWait();
}

bool OscInput::open(PdPlayer* player, const InputMap::Bindings& bindings)
{
    if (bindings.oscPort == 0 || !player || isRunning() || isFinished()) {
        return false;
    }
    mPlayer = player;
    mPort = bindings.oscPort;
    setBindings(bindings);
    start(QThread::InheritPriority);
    return true;
}

void OscInput::setBindings(const InputMap::Bindings& bindings)
{
    std::atomic_store(&mBindings, std::make_shared<const InputMap::Bindings>(bindings));
}

std::shared_ptr<const InputMap::Bindings> OscInput::bindings() const
{
    return std::atomic_load(&mBindings);
}

bool OscInput::openPort()
{
    mReceiver = std::make_unique<OscReceiver>(*this);
    mReceiver->loadTags();
    tReceiver = mReceiver.get();
    if (mPort >= 1 && mPort <= 65535) {
        mServer =
            lo_server_new_with_proto(QByteArray::number(mPort).constData(), LO_UDP, onLibloError);
    }
    // (liblo also makes this socket the process's default for lo_send();
    // nothing in the program sends OSC.)
    if (!mServer) {
        const QString text = QStringLiteral("Can't open UDP port %1 for OSC%2. OSC input is off.")
                                 .arg(mPort)
                                 .arg(mReceiver->mOpenError.isEmpty()
                                          ? QString()
                                          : QStringLiteral(" (%1)").arg(mReceiver->mOpenError));
        qWarning().noquote() << text;
        emit fatalError(text);
        tReceiver = nullptr;
        mReceiver.reset();
        return false;
    }
    mReceiver->mOpening = false;
    // Bundles are carried out as they come, whatever their time tag says:
    // the queue for later ones would be memory and timing that any sender
    // could claim.
    lo_server_enable_queue(mServer, 0, 1);
    // One method for every address, so that the receiver decides what is
    // known (and addresses are never expanded as patterns).
    lo_server_add_method(mServer, nullptr, nullptr, onMessage, mReceiver.get());
    // Never blocking on a read: a datagram the system announced but then
    // dropped must not hang the loop.
    const int fd = lo_server_get_socket_fd(mServer);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    qWarning().noquote() << QStringLiteral("OSC input listening on UDP port %1").arg(mPort);
    emit listening(mPort);
    return true;
}

int OscInput::socketDescriptor() const
{
    return lo_server_get_socket_fd(mServer);
}

void OscInput::receivePending()
{
    // One packet per call; 0 when there is none left (or it was empty), -1
    // for one liblo refused (reported through onLibloError).
    for (int i = 0;
         i < PACKETS_PER_TURN && !stopRequested() && lo_server_recv_noblock(mServer, 0) != 0; ++i) {
    }
}

void OscInput::summariseIfDue()
{
    mReceiver->summariseIfDue();
}

void OscInput::closePort()
{
    mReceiver->summarise();
    lo_server_free(mServer);
    mServer = nullptr;
    tReceiver = nullptr;
    mReceiver.reset();
}
