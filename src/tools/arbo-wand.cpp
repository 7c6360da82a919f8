// arbo-wand: plays the part of a wand. Sends the datagram a wand sends when it
// reads an RFID tag, so that the instrument can be rehearsed, scripted and
// tested without the hardware. See "Playing with wands" in the README.

#include "input/wanddatagram.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QHostAddress>
#include <QHostInfo>
#include <QUdpSocket>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

const int DEFAULT_PORT = 8888;
const int DEFAULT_WAND = 1;
const double DEFAULT_RATE = 10.0;
const double MAX_RATE = 1000000.0;

void fail(const QString& text)
{
    std::fprintf(stderr, "arbo-wand: %s\n", qPrintable(text));
}

// The tag as it travels: one byte per character, 1 to 10 of them.
bool tagBytes(const QString& text, QByteArray& bytes)
{
    if (text.isEmpty() || text.size() > WandDatagram::MAX_TAG_LENGTH) {
        fail(QStringLiteral("a tag has 1 to %1 characters: \"%2\"")
                 .arg(WandDatagram::MAX_TAG_LENGTH)
                 .arg(text));
        return false;
    }
    for (const QChar c : text) {
        if (c.unicode() == 0 || c.unicode() > 0xff) {
            fail(QStringLiteral("a tag is made of single-byte characters: \"%1\"").arg(text));
            return false;
        }
    }
    bytes = text.toLatin1();
    return true;
}

QHostAddress resolve(const QString& host)
{
    QHostAddress address;
    if (address.setAddress(host)) {
        return address;
    }
    const QHostInfo info = QHostInfo::fromName(host);
    return info.addresses().isEmpty() ? QHostAddress() : info.addresses().first();
}

class Sender
{
public:
    Sender(const QHostAddress& host, quint16 port, double rate)
        : mHost(host), mPort(port), mPeriod(std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(1.0 / rate)))
    {
    }

    // Sends one datagram, no sooner than one period after the previous one.
    // Deadlines are absolute, so a late wake-up is made up by the next one
    // and the average rate holds even at thousands per second.
    void send(const QByteArray& datagram)
    {
        const Clock::time_point now = Clock::now();
        if (mSent + mFailed == 0) {
            mStart = now;
            mNext = now;
        } else if (now < mNext) {
            std::this_thread::sleep_until(mNext);
        }
        mNext += mPeriod;
        if (mSocket.writeDatagram(datagram, mHost, mPort) == datagram.size()) {
            ++mSent;
        } else {
            if (mFailed == 0) {
                fail(QStringLiteral("sending failed: %1").arg(mSocket.errorString()));
            }
            ++mFailed;
        }
    }

    // Sends as soon as the line arrives (interactive use), but still paced.
    void sendNow(const QByteArray& datagram)
    {
        const Clock::time_point now = Clock::now();
        if (mNext < now) {
            mNext = now;
        }
        send(datagram);
    }

    void report(bool quiet) const
    {
        if (quiet && mFailed == 0) {
            return;
        }
        const double seconds = mSent + mFailed == 0
                                   ? 0.0
                                   : std::chrono::duration<double>(Clock::now() - mStart).count();
        std::fprintf(stderr, "arbo-wand: sent %llu datagrams to %s port %u in %.3f s",
                     static_cast<unsigned long long>(mSent), qPrintable(mHost.toString()),
                     unsigned(mPort), seconds);
        if (mFailed != 0) {
            std::fprintf(stderr, ", %llu failed", static_cast<unsigned long long>(mFailed));
        }
        std::fprintf(stderr, "\n");
    }

    bool ok() const { return mFailed == 0; }

private:
    QUdpSocket mSocket;
    QHostAddress mHost;
    quint16 mPort;
    Clock::duration mPeriod;
    Clock::time_point mStart;
    Clock::time_point mNext;
    unsigned long long mSent = 0;
    unsigned long long mFailed = 0;
};

// What the command line asks for.
struct Request
{
    QString hostName;
    int port = DEFAULT_PORT;
    int wand = DEFAULT_WAND;
    long long repeat = 1;
    double rate = DEFAULT_RATE;
    bool quiet = false;
    QStringList tags;
};

// Tells `parser` the description, the options and the arguments, for the
// help text and for parsing.
void describe(QCommandLineParser& parser)
{
    parser.setApplicationDescription(QStringLiteral(
        "Plays the part of a wand: sends the UDP datagram a wand sends when it reads an\n"
        "RFID tag, to the instrument at HOST and PORT.\n"
        "\n"
        "The tags are sent in the order given, one datagram each, at RATE datagrams per\n"
        "second; --repeat sends the whole list again. A tag is 1 to 10 characters, as\n"
        "written in \"rfid_map.json\" (case does not matter). With the tag \"-\", tags\n"
        "are read from standard input, one per line, and each is sent as soon as its\n"
        "line arrives (empty lines and lines starting with # are skipped).\n"
        "\n"
        "Examples:\n"
        "  arbo-wand 04a1b2c3d4                  toggle the note of that tag\n"
        "  arbo-wand --rate 2 t1 t2 t3           three cues, half a second apart\n"
        "  arbo-wand --repeat 0 --rate 4 t1      strike t1 four times a second until Ctrl+C\n"
        "  arbo-wand --host 192.168.1.20 -       type tags for an instrument on the network"));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption hostOption(
        QStringLiteral("host"), QStringLiteral("Where the instrument runs (default 127.0.0.1)."),
        QStringLiteral("host"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption portOption(
        {QStringLiteral("p"), QStringLiteral("port")},
        QStringLiteral("The instrument's UDP port, its option \"udpPort\" (default %1).")
            .arg(DEFAULT_PORT),
        QStringLiteral("port"), QString::number(DEFAULT_PORT));
    const QCommandLineOption wandOption(
        {QStringLiteral("w"), QStringLiteral("wand")},
        QStringLiteral("The wand's number, 0 to 255 (default %1); only logged by the instrument.")
            .arg(DEFAULT_WAND),
        QStringLiteral("number"), QString::number(DEFAULT_WAND));
    const QCommandLineOption repeatOption(
        {QStringLiteral("n"), QStringLiteral("repeat")},
        QStringLiteral("Send the list of tags N times (default 1); 0 repeats until interrupted."),
        QStringLiteral("N"), QStringLiteral("1"));
    const QCommandLineOption rateOption(
        {QStringLiteral("r"), QStringLiteral("rate")},
        QStringLiteral("Datagrams per second (default %1).").arg(DEFAULT_RATE),
        QStringLiteral("Hz"), QString::number(DEFAULT_RATE));
    const QCommandLineOption quietOption({QStringLiteral("q"), QStringLiteral("quiet")},
                                         QStringLiteral("Print nothing unless sending fails."));
    parser.addOptions({hostOption, portOption, wandOption, repeatOption, rateOption, quietOption});
    parser.addPositionalArgument(QStringLiteral("tag"),
                                 QStringLiteral("RFID tags to send, or - for standard input."),
                                 QStringLiteral("tag..."));
}

// Takes the processed command line into `request`. False, after saying why,
// when a value is out of its range or no tag is given.
bool readRequest(const QCommandLineParser& parser, Request& request)
{
    bool ok = false;
    request.port = parser.value(QStringLiteral("port")).toInt(&ok);
    if (!ok || request.port < 1 || request.port > 65535) {
        fail(QStringLiteral("the port is a number from 1 to 65535"));
        return false;
    }
    request.wand = parser.value(QStringLiteral("wand")).toInt(&ok);
    if (!ok || request.wand < 0 || request.wand > 255) {
        fail(QStringLiteral("the wand number is a number from 0 to 255"));
        return false;
    }
    request.repeat = parser.value(QStringLiteral("repeat")).toLongLong(&ok);
    if (!ok || request.repeat < 0) {
        fail(QStringLiteral("--repeat takes a whole number, 0 or more"));
        return false;
    }
    request.rate = parser.value(QStringLiteral("rate")).toDouble(&ok);
    if (!ok || !(request.rate > 0.0) || request.rate > MAX_RATE) {
        fail(QStringLiteral("--rate takes a number of datagrams per second, above 0 and at most %1")
                 .arg(MAX_RATE, 0, 'f', 0));
        return false;
    }
    request.quiet = parser.isSet(QStringLiteral("quiet"));
    request.hostName = parser.value(QStringLiteral("host"));
    request.tags = parser.positionalArguments();
    if (request.tags.isEmpty()) {
        fail(QStringLiteral("no tag given (see --help)"));
        return false;
    }
    return true;
}

// The datagrams of `tags`, in order. False, after saying why, at the first tag
// that cannot travel.
bool makeDatagrams(const QStringList& tags, int wand, QList<QByteArray>& datagrams)
{
    for (const QString& tag : tags) {
        QByteArray bytes;
        if (!tagBytes(tag, bytes)) {
            return false;
        }
        datagrams.append(WandDatagram(std::uint8_t(wand), bytes).toBytes());
    }
    return true;
}

// Sends the tags read from standard input, each as soon as its line arrives,
// until the input ends. A tag that cannot travel is said and skipped.
void sendFromStdin(Sender& sender, int wand)
{
    std::string line;
    while (std::getline(std::cin, line)) {
        const QString tag = QString::fromLocal8Bit(line.c_str()).trimmed();
        if (tag.isEmpty() || tag.startsWith(QLatin1Char('#'))) {
            continue;
        }
        QByteArray bytes;
        if (tagBytes(tag, bytes)) {
            sender.sendNow(WandDatagram(std::uint8_t(wand), bytes).toBytes());
        }
    }
}

// Sends the whole list `repeat` times; 0 repeats until interrupted.
void sendRepeatedly(Sender& sender, const QList<QByteArray>& datagrams, long long repeat)
{
    for (long long round = 0; repeat == 0 || round < repeat; ++round) {
        for (const QByteArray& datagram : datagrams) {
            sender.send(datagram);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("arbo-wand"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ARBO_VERSION));

    QCommandLineParser parser;
    describe(parser);
    parser.process(app);
    Request request;
    if (!readRequest(parser, request)) {
        return 2;
    }
    const bool fromStdin = request.tags == QStringList{QStringLiteral("-")};
    QList<QByteArray> datagrams;
    if (!fromStdin && !makeDatagrams(request.tags, request.wand, datagrams)) {
        return 2;
    }
    const QHostAddress host = resolve(request.hostName);
    if (host.isNull()) {
        fail(QStringLiteral("cannot find the host \"%1\"").arg(request.hostName));
        return 2;
    }

    Sender sender(host, quint16(request.port), request.rate);
    if (fromStdin) {
        sendFromStdin(sender, request.wand);
    } else {
        sendRepeatedly(sender, datagrams, request.repeat);
    }
    sender.report(request.quiet);
    return sender.ok() ? 0 : 1;
}
