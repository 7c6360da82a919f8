#include "osc/oscinput.h"

#include "model/arboevent.h"
#include "input/inputbinding.h"
#include "input/rfidmap.h"
#include "settings/appcontext.h"
#include "settings/debuglog.h"
#include "settings/throttledwarning.h"
#include "sound/pdplayer.h"

#include <QDebug>
#include <QFile>
#include <QJsonObject>

#include <lo/lo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

// How many packets one turn of the loop takes at most, so that the log
// summaries come on time in a flood too.
constexpr int PACKETS_PER_TURN = 256;
// Text from the network is quoted in the log up to this many characters.
constexpr int MAX_QUOTED = 120;

const char* const TOGGLE_ADDRESS = "/arbo/toggle";
const char* const EVENT_ADDRESS = "/arbo/event";
const char* const TAG_ADDRESS = "/arbo/tag";
const char* const NOTE_ADDRESS = "/arbo/note";

// Network text for the log: cut short, and control characters written as
// \xNN, so that a sender cannot put line breaks or terminal controls into
// the log.
QString quoted(const QString& text)
{
    QString out;
    for (const QChar c : text.left(MAX_QUOTED)) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f) {
            out += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        } else {
            out += c;
        }
    }
    return text.size() > MAX_QUOTED ? out + QStringLiteral("...") : out;
}

// The number an argument holds: a 32- or 64-bit integer, a float or a double,
// and, with `booleans`, true and false as 1 and 0. False for anything else
// and for numbers that are not finite.
bool numberArg(char type, const lo_arg* arg, bool booleans, double* out)
{
    switch (type) {
    case LO_INT32:
        *out = arg->i;
        break;
    case LO_INT64:
        *out = double(arg->h);
        break;
    case LO_FLOAT:
        *out = arg->f;
        break;
    case LO_DOUBLE:
        *out = arg->d;
        break;
    case LO_TRUE: // no data: `arg` is not read
    case LO_FALSE:
        if (!booleans) {
            return false;
        }
        *out = type == LO_TRUE ? 1.0 : 0.0;
        break;
    default:
        return false;
    }
    return std::isfinite(*out);
}

// The text of a string or symbol argument; null for anything else. liblo
// has checked that it ends within the packet.
const char* textArg(char type, const lo_arg* arg)
{
    return type == LO_STRING || type == LO_SYMBOL ? &arg->s : nullptr;
}

// Everything the receiver's thread works with. Lives on run()'s stack.
class Receiver
{
public:
    Receiver(PdPlayer* player, const InputMap::Bindings& bindings)
        : mPlayer(player), mBindings(bindings)
    {
    }

    // The wands' tag map, when the user has one. Without the file nothing is
    // written: its presence is what switches the wand listener on.
    void loadTags()
    {
        if (!QFile::exists(AppContext::configDir() + QLatin1Char('/') + RfidMap::FILE_NAME)) {
            return;
        }
        if (!mTags.init()) {
            qWarning() << "Failed to load the RFID mapping file; OSC tags are not played";
        }
    }

    void handle(const char* address, const char* types, lo_arg** argv, int argc);

    // liblo found a packet it cannot take apart.
    void malformed(const char* message, const char* where)
    {
        mMalformed.warn(QStringLiteral("Discarding a malformed OSC packet (%1%2)")
                            .arg(QString::fromLatin1(message),
                                 where ? QStringLiteral(" at ") + quoted(QString::fromUtf8(where))
                                       : QString()));
    }

    void summariseIfDue()
    {
        mMalformed.summariseIfDue();
        mUnknownAddress.summariseIfDue();
        mUnfit.summariseIfDue();
        mUnknownTag.summariseIfDue();
    }
    void summarise()
    {
        mMalformed.summarise();
        mUnknownAddress.summarise();
        mUnfit.summarise();
        mUnknownTag.summarise();
    }

    // Set while the server is being made: its errors are about the port.
    QString mOpenError;
    bool mOpening = true;

private:
    void play(const ArboEvent* event)
    {
        if (event) {
            mPlayer->queueEventOsc(event);
        }
    }
    void unfit(const char* address, const char* types, const QString& why)
    {
        mUnfit.warn(QStringLiteral("Ignoring OSC message %1 ,%2: %3")
                        .arg(quoted(QString::fromUtf8(address)), quoted(QString::fromUtf8(types)),
                             quoted(why)));
    }
    // The note binding of a path text, by the input map's rules; the unbound
    // binding, with the message logged as unfit, for a text that is no path.
    InputBinding noteAt(const char* address, const char* types, const char* text)
    {
        QString why;
        const InputBinding note =
            InputBinding::fromJson(QJsonObject{{"value", QString::fromUtf8(text)}}, &why);
        if (!note.isBound()) {
            unfit(address, types, why);
        }
        return note;
    }

    PdPlayer* mPlayer;
    const InputMap::Bindings& mBindings;
    RfidMap mTags;
    // A controller's scaled event, as InputBinding::control() writes it.
    ArboEvent mScratch;

    ThrottledWarning mMalformed{
        "%1 more malformed OSC packets were discarded (warnings suppressed)"};
    ThrottledWarning mUnknownAddress{
        "%1 more OSC messages to unknown addresses were ignored (warnings suppressed)"};
    ThrottledWarning mUnfit{
        "%1 more OSC messages with unusable arguments were ignored (warnings suppressed)"};
    ThrottledWarning mUnknownTag{
        "%1 more OSC tags not in the mapping table were ignored (warnings suppressed)"};
};

void Receiver::handle(const char* address, const char* types, lo_arg** argv, int argc)
{
    ARBO_DEBUG().noquote() << "OSC" << quoted(QString::fromUtf8(address)) << types;
    // argv is null when there are no arguments.
    const auto text = [&](int i) { return argc > i ? textArg(types[i], argv[i]) : nullptr; };
    const auto number = [&](int i, bool booleans, double* out) {
        return argc > i && numberArg(types[i], argv[i], booleans, out);
    };

    if (std::strcmp(address, TOGGLE_ADDRESS) == 0) {
        if (argc != 1 || !text(0)) {
            unfit(address, types, QStringLiteral("needs one path text"));
            return;
        }
        const InputBinding note = noteAt(address, types, text(0));
        play(note.press(true)); // a toggle, as a wand does
        return;
    }

    if (std::strcmp(address, EVENT_ADDRESS) == 0) {
        double type = 0.0;
        double value = 0.0;
        if (argc != 2 || !number(0, false, &type) || !number(1, false, &value)) {
            unfit(address, types, QStringLiteral("needs an event number and a value"));
            return;
        }
        // Exactly what an entry of the input map may ask for: the events
        // that need a path or are the program's own are refused there too.
        QString why;
        const InputBinding event =
            InputBinding::fromJson(QJsonObject{{"event", type}, {"value", value}}, &why);
        if (!event.isBound()) {
            unfit(address, types,
                  QStringLiteral("event %1, value %2 %3").arg(type).arg(value).arg(why));
            return;
        }
        play(event.press(mBindings.latch));
        return;
    }

    if (std::strcmp(address, TAG_ADDRESS) == 0) {
        const char* tag = text(0);
        if (argc != 1 || !tag) {
            unfit(address, types, QStringLiteral("needs one tag text"));
            return;
        }
        const QString name = QString::fromUtf8(tag);
        if (const ArboEvent* event = mTags.lookup(name)) {
            play(event);
        } else {
            mUnknownTag.warn(QStringLiteral("OSC tag %1 not found in mapping table. Ignoring.")
                                 .arg(quoted(name)));
        }
        return;
    }

    if (std::strcmp(address, NOTE_ADDRESS) == 0) {
        double on = 0.0;
        if (argc != 2 || !text(0) || !number(1, true, &on)) {
            unfit(address, types, QStringLiteral("needs a path text and a number"));
            return;
        }
        // Held, whatever the map's latch says: that is what this address is for.
        const InputBinding note = noteAt(address, types, text(0));
        play(on != 0.0 ? note.press(false) : note.release(false));
        return;
    }

    const auto binding = mBindings.osc.constFind(QString::fromUtf8(address));
    if (binding == mBindings.osc.constEnd()) {
        mUnknownAddress.warn(QStringLiteral("OSC address %1 is not in the input map. Ignoring.")
                                 .arg(quoted(QString::fromUtf8(address))));
        return;
    }
    if (argc == 0) {
        play(binding->press(mBindings.latch));
        return;
    }
    double position = 0.0;
    if (!number(0, true, &position)) {
        unfit(address, types, QStringLiteral("needs no argument, or a number or boolean first"));
        return;
    }
    // A double beyond the float range does not convert.
    constexpr double LIMIT = std::numeric_limits<float>::max();
    play(binding->control(float(std::clamp(position, -LIMIT, LIMIT)), mBindings.latch, mScratch));
}

// The receiver of the thread that is in liblo: its error handler has no
// context argument.
thread_local Receiver* tReceiver = nullptr;

void onLibloError(int, const char* message, const char* where)
{
    Receiver* receiver = tReceiver;
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
    static_cast<Receiver*>(receiver)->handle(address, types, argv, argc);
    return 0; // handled: no other method is asked
}

} // namespace

OscInput::OscInput(QObject* parent) : QThread(parent) {}

OscInput::~OscInput()
{
    // Destroying a QThread that still runs aborts the process. After a term()
    // that timed out, the stop flag is set and the loop ends within one poll.
    if (isRunning()) {
        mStop.store(true, std::memory_order_relaxed);
        wait();
    }
}

bool OscInput::open(PdPlayer* player, const InputMap::Bindings& bindings)
{
    if (bindings.oscPort == 0 || !player || isRunning() || isFinished()) {
        return false;
    }
    mPlayer = player;
    mBindings = bindings;
    start(QThread::InheritPriority);
    return true;
}

void OscInput::term()
{
    if (!isRunning()) {
        return;
    }
    qWarning("Stopping OSC thread...");
    mStop.store(true, std::memory_order_relaxed);
    if (!wait(STOP_TIMEOUT_MS)) {
        qCritical("OSC thread couldn't be stopped, exiting anyway");
    }
}

void OscInput::run()
{
    qWarning("OSC thread starting...");
    Receiver receiver(mPlayer, mBindings);
    receiver.loadTags();
    tReceiver = &receiver;

    const int port = mBindings.oscPort;
    lo_server server = nullptr;
    if (port >= 1 && port <= 65535) {
        server =
            lo_server_new_with_proto(QByteArray::number(port).constData(), LO_UDP, onLibloError);
    }
    // (liblo also makes this socket the process's default for lo_send();
    // nothing in the program sends OSC.)
    if (!server) {
        const QString text = QStringLiteral("Can't open UDP port %1 for OSC%2. OSC input is off.")
                                 .arg(port)
                                 .arg(receiver.mOpenError.isEmpty()
                                          ? QString()
                                          : QStringLiteral(" (%1)").arg(receiver.mOpenError));
        qWarning().noquote() << text;
        emit fatalError(text);
        tReceiver = nullptr;
        return;
    }
    receiver.mOpening = false;
    // Bundles are carried out as they come, whatever their time tag says:
    // the queue for later ones would be memory and timing that any sender
    // could claim.
    lo_server_enable_queue(server, 0, 1);
    // One method for every address, so that the receiver decides what is
    // known (and addresses are never expanded as patterns).
    lo_server_add_method(server, nullptr, nullptr, onMessage, &receiver);
    // Never blocking on a read: a datagram the system announced but then
    // dropped must not hang the loop.
    const int fd = lo_server_get_socket_fd(server);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    qWarning().noquote() << QStringLiteral("OSC input listening on UDP port %1").arg(port);
    emit listening(port);

    pollfd wake{fd, POLLIN, 0};
    while (!mStop.load(std::memory_order_relaxed)) {
        if (::poll(&wake, 1, POLL_INTERVAL_MS) > 0) {
            if (wake.revents & POLLERR) {
                // A pending socket error (an ICMP answer, say) would wake
                // every poll at once; reading it clears it.
                int error = 0;
                socklen_t size = sizeof(error);
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
            }
            // One packet per call; 0 when there is none left (or it was
            // empty), -1 for one liblo refused (reported through onLibloError).
            for (int i = 0; i < PACKETS_PER_TURN && !mStop.load(std::memory_order_relaxed) &&
                            lo_server_recv_noblock(server, 0) != 0;
                 ++i) {
            }
        }
        receiver.summariseIfDue();
    }
    receiver.summarise();
    lo_server_free(server);
    tReceiver = nullptr;
    qWarning("OSC thread exits run");
}
