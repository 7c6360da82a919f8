// The wand input for real: the listener thread with its RFID map read from a
// file in the isolated configuration folder, real UDP sockets on the loopback
// interface, the wand simulator (arbo-wand) as a separate process, and the
// real player's command ring behind the listener. Besides the happy path, the
// port gets what anyone on the network could send: every datagram size,
// random bytes, odd tags and a flood.

#include "input/arboevent.h"
#include "input/arbonoteevent.h"
#include "input/udplistener.h"
#include "input/wanddatagram.h"
#include "settings/appcontext.h"
#include "settings/logthrottle.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QMutex>
#include <QProcess>
#include <QRegularExpression>
#include <QTimer>
#include <QUdpSocket>
#include <QWaitCondition>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Every message of the process, from every thread.

struct Message
{
    QtMsgType type;
    QString text;
    QString file;
};

QMutex sMessagesMutex;
QList<Message> sMessages;
QtMessageHandler sTestLogHandler = nullptr;

// Keeps every message for the checks; the tests' own reports (qInfo) go on to
// the test log.
void captureMessage(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtInfoMsg && sTestLogHandler) {
        sTestLogHandler(type, context, text);
        return;
    }
    QMutexLocker lock(&sMessagesMutex);
    sMessages.append({type, text, QString::fromUtf8(context.file ? context.file : "")});
}

QList<Message> messages()
{
    QMutexLocker lock(&sMessagesMutex);
    return sMessages;
}

void clearMessages()
{
    QMutexLocker lock(&sMessagesMutex);
    sMessages.clear();
}

bool hasMessage(QtMsgType type, const QString& text)
{
    const QList<Message> all = messages();
    return std::any_of(all.begin(), all.end(),
                       [&](const Message& m) { return m.type == type && m.text == text; });
}

// The listener's own warnings (not those of the map or the player).
QList<Message> listenerWarnings()
{
    QList<Message> result;
    for (const Message& m : messages()) {
        if (m.type == QtWarningMsg && m.file.endsWith(QLatin1String("udplistener.cpp"))) {
            result.append(m);
        }
    }
    return result;
}

// How many datagrams the listener reported with a warning of the given
// beginning, the throttled ones included: each verbatim line counts one,
// each summary line its number.
long long accountedFor(const QString& verbatimStart, const QString& summaryEnd)
{
    long long total = 0;
    static const QRegularExpression SUMMARY(QStringLiteral("^(\\d+) more (.*)$"));
    for (const Message& m : listenerWarnings()) {
        if (m.text.startsWith(verbatimStart)) {
            ++total;
        } else {
            const QRegularExpressionMatch match = SUMMARY.match(m.text);
            if (match.hasMatch() && match.captured(2).endsWith(summaryEnd)) {
                total += match.captured(1).toLongLong();
            }
        }
    }
    return total;
}

long long wrongSizeCount()
{
    return accountedFor(QStringLiteral("Discarding UDP packet due to wrong size "),
                        QStringLiteral("of wrong size were discarded (warnings suppressed)"));
}

long long unknownTagCount()
{
    return accountedFor(
        QStringLiteral("RFID "),
        QStringLiteral("not in the mapping table were ignored (warnings suppressed)"));
}

// ---------------------------------------------------------------------------

// What a receiver of eventReceived saw, copied during the emission as the
// player does.
struct Received
{
    int type = -1;
    float value = 0.0f;
    QString path; // empty unless a note event
    bool onListenerThread = false;
};

class EventRecorder : public QObject
{
    Q_OBJECT
public:
    explicit EventRecorder(const QThread* listener) : mListener(listener) {}

    int count() const
    {
        QMutexLocker lock(&mMutex);
        return mEvents.size();
    }

    QVector<Received> events() const
    {
        QMutexLocker lock(&mMutex);
        return mEvents;
    }

    // Waits until at least `total` events have arrived.
    bool waitFor(int total, int timeoutMs = 5000)
    {
        QDeadlineTimer deadline(timeoutMs);
        QMutexLocker lock(&mMutex);
        while (mEvents.size() < total) {
            if (!mArrived.wait(&mMutex, deadline)) {
                return mEvents.size() >= total;
            }
        }
        return true;
    }

public slots:
    void record(const ArboEvent* event)
    {
        Received received;
        received.type = event->type();
        received.value = event->value();
        if (const auto* note = dynamic_cast<const ArboNoteEvent*>(event)) {
            received.path = note->path().toString();
        }
        received.onListenerThread = QThread::currentThread() == mListener;
        QMutexLocker lock(&mMutex);
        mEvents.append(received);
        mArrived.wakeAll();
    }

private:
    const QThread* mListener;
    mutable QMutex mMutex;
    QWaitCondition mArrived;
    QVector<Received> mEvents;
};

// The tag map every test runs with. "probe" answers after the datagrams under
// test: the listener handles datagrams in order, so once the probe's event is
// in, everything sent before it has been dealt with.
const QByteArray RFID_MAP = R"({
    "04A1B2C3D4": {"event": 0, "value": "/3"},
    "ab":         {"event": 0, "value": "/5"},
    "tr3up":      {"event": 2, "value": 3},
    "vstep":      {"event": 3, "value": 1},
    "vset":       {"event": 4, "value": 1},
    "probe":      {"event": 8, "value": 1}
})";
const int PROBE_TYPE = ArboEvent::PatchStep;

// A datagram built here byte by byte, independently of WandDatagram: the wand
// at 23, tag byte i at 27 + 4i, a zero after a tag shorter than ten, every
// other byte `fill`.
QByteArray rawDatagram(int wand, const QByteArray& tag, char fill = '\0', int size = 72)
{
    QByteArray bytes(size, fill);
    if (size > 23) {
        bytes[23] = char(wand);
    }
    for (int i = 0; i < 10; ++i) {
        const int at = 27 + 4 * i;
        if (at >= size) {
            break;
        }
        if (i < tag.size()) {
            bytes[at] = tag.at(i);
        } else {
            bytes[at] = '\0';
            break;
        }
    }
    return bytes;
}

quint16 freePort()
{
    QUdpSocket socket;
    socket.bind(QHostAddress::Any, 0, QUdpSocket::DontShareAddress);
    return socket.localPort();
}

QString toolPath()
{
    return TestSupport::binDir() + QStringLiteral("/arbo-wand");
}

} // namespace

class TestUdpListener : public QObject
{
    Q_OBJECT

private:
    Settings mSettings;
    PdPlayer mPlayer;
    QUdpSocket mSender;
    quint16 mPort = 0;

    static QString mapPath() { return TestSupport::configDir() + QStringLiteral("/rfid_map.json"); }

    // Starts `listener` on a fresh port and waits until its socket is open.
    bool start(UdpListener& listener, EventRecorder* recorder = nullptr)
    {
        mPort = freePort();
        mSettings.mUdpPort = mPort;
        if (recorder) {
            connect(&listener, &UdpListener::eventReceived, recorder, &EventRecorder::record,
                    Qt::DirectConnection);
        }
        listener.start();
        const QString opened = QStringLiteral("UDP socket opened on port %1").arg(mPort);
        QElapsedTimer timer;
        timer.start();
        while (!hasMessage(QtWarningMsg, opened)) {
            if (listener.isFinished() || timer.elapsed() > 10000) {
                return false;
            }
            QThread::msleep(1);
        }
        return true;
    }

    bool send(const QByteArray& datagram, const QHostAddress& host = QHostAddress::LocalHost)
    {
        return mSender.writeDatagram(datagram, host, mPort) == datagram.size();
    }

    bool sendTag(const QByteArray& tag, int wand = 1)
    {
        return send(WandDatagram(std::uint8_t(wand), tag).toBytes());
    }

    // Sends the probe and waits for its event, the `expected`-th in all.
    bool probe(EventRecorder& recorder, int expected)
    {
        return sendTag("probe") && recorder.waitFor(expected);
    }

    // Drains the player's command rings on this thread (no audio stream runs
    // in these tests; the drain thread of the flood test stands in for one).
    void drain() { mPlayer.processEvents(); }

    // Voices that sound: struck and not released.
    int soundingVoices() const
    {
        int count = 0;
        for (const PdPlayer::NoteOn& voice : mPlayer.voices()) {
            count += voice.seqId != 0 && !voice.released ? 1 : 0;
        }
        return count;
    }

private slots:
    void initTestCase()
    {
        AppContext::setSettings(&mSettings);
        AppContext::setPlayer(&mPlayer);
        QVERIFY(TestSupport::writeFile(mapPath(), RFID_MAP));
        sTestLogHandler = qInstallMessageHandler(captureMessage);
        // As in a performance: debug lines are not even formatted unless a
        // test asks for them.
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
        QVERIFY(mPlayer.init());
        mSender.bind(QHostAddress(QHostAddress::AnyIPv4), 0);
    }

    void cleanupTestCase()
    {
        qInstallMessageHandler(sTestLogHandler);
        AppContext::setPlayer(nullptr);
        AppContext::setSettings(nullptr);
    }

    void init()
    {
        QVERIFY(TestSupport::writeFile(mapPath(), RFID_MAP));
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
        clearMessages();
    }

    // -----------------------------------------------------------------------
    // The datagram format on its own.

    void datagramLayout_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("parses");
        QTest::addColumn<int>("wand");
        QTest::addColumn<QByteArray>("tag");
        QTest::addColumn<QString>("logged");

        QTest::newRow("ten characters, taken whole") << rawDatagram(7, "04A1B2C3D4") << true << 7
                                                     << QByteArray("04A1B2C3D4") << "04A1B2C3D4";
        QTest::newRow("short tag ends at its zero")
            << rawDatagram(1, "04a1", char(0x55)) << true << 1 << QByteArray("04a1") << "04a1";
        QTest::newRow("bytes after the zero ignored") << [] {
            QByteArray d = rawDatagram(1, "ab");
            d[27 + 4 * 3] = 'z'; // beyond the terminator at 2
            d[27 + 4 * 9] = 'z';
            return d;
        }() << true << 1 << QByteArray("ab") << "ab";
        QTest::newRow("empty tag")
            << rawDatagram(3, "", char(0x41)) << true << 3 << QByteArray() << "";
        QTest::newRow("neighbours of every field ignored")
            << rawDatagram(255, "0123456789", char(0xff)) << true << 255 << QByteArray("0123456789")
            << "0123456789";
        QTest::newRow("wand 0") << rawDatagram(0, "x") << true << 0 << QByteArray("x") << "x";
        QTest::newRow("non-ASCII and controls")
            << rawDatagram(9, "\xc3\xa9\x7f\n\x01\\ ~") << true << 9
            << QByteArray("\xc3\xa9\x7f\n\x01\\ ~") << "\\xC3\\xA9\\x7F\\x0A\\x01\\ ~";
        QTest::newRow("empty") << QByteArray() << false << 0 << QByteArray() << "";
        QTest::newRow("71 bytes") << rawDatagram(7, "ab", '\0', 71) << false << 0 << QByteArray()
                                  << "";
        QTest::newRow("73 bytes") << rawDatagram(7, "ab", '\0', 73) << false << 0 << QByteArray()
                                  << "";
    }

    void datagramLayout()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, parses);
        QFETCH(int, wand);
        QFETCH(QByteArray, tag);
        QFETCH(QString, logged);

        WandDatagram datagram(42, "untouched");
        QCOMPARE(WandDatagram::parse(bytes.constData(), bytes.size(), datagram), parses);
        if (!parses) {
            QCOMPARE(int(datagram.wand()), 42);
            QCOMPARE(datagram.tag(), QByteArray("untouched"));
            return;
        }
        QCOMPARE(int(datagram.wand()), wand);
        QCOMPARE(datagram.tag(), tag);
        QCOMPARE(datagram.tagText(), QString::fromLatin1(tag));
        QCOMPARE(datagram.tagForLog(), logged);

        // Building gives back the same fields, every other byte zero.
        const QByteArray built = WandDatagram(std::uint8_t(wand), tag).toBytes();
        QCOMPARE(built, rawDatagram(wand, tag));
    }

    void buildingCutsTags()
    {
        // A tag cannot be longer than ten, nor hold a zero byte.
        QCOMPARE(WandDatagram(1, "0123456789ABC").tag(), QByteArray("0123456789"));
        QCOMPARE(WandDatagram(1, QByteArray("ab\0cd", 5)).tag(), QByteArray("ab"));
        QCOMPARE(WandDatagram(1, QByteArray()).toBytes(), rawDatagram(1, ""));
    }

    // Random input against what the layout says, to catch a read outside the
    // datagram or a tag that runs past its zero (also run under the
    // sanitizers). The seed is fixed so that a failure can be replayed.
    void parserFuzz()
    {
        std::mt19937 random(20240531);
        std::uniform_int_distribution<int> byte(0, 255);
        std::uniform_int_distribution<int> pick(0, 99);
        std::uniform_int_distribution<int> anySize(0, 65507);
        QByteArray bytes;
        for (int round = 0; round < 200000; ++round) {
            const int kind = pick(random);
            const int size = kind < 70 ? 72 : kind < 95 ? 60 + pick(random) % 25 : anySize(random);
            bytes.resize(size);
            // Mostly bytes that look like text, with zeros now and then. (The
            // content of a large datagram does not matter: its size alone
            // rejects it, so only its first bytes are refilled.)
            for (int i = 0; i < std::min(size, 128); ++i) {
                const int b = byte(random);
                bytes[i] = char(b < 16 ? 0 : b);
            }
            WandDatagram datagram;
            const bool parsed = WandDatagram::parse(bytes.constData(), size, datagram);
            QCOMPARE(parsed, size == 72);
            if (!parsed) {
                continue;
            }
            QByteArray expected;
            for (int i = 0; i < 10 && bytes.at(27 + 4 * i) != '\0'; ++i) {
                expected += bytes.at(27 + 4 * i);
            }
            QCOMPARE(int(datagram.wand()), int(quint8(bytes.at(23))));
            QCOMPARE(datagram.tag(), expected);
            QCOMPARE(datagram.tagText().size(), expected.size());
            for (const QChar c : datagram.tagForLog()) {
                QVERIFY(c.unicode() >= 0x20 && c.unicode() < 0x7f);
            }
            WandDatagram again;
            const QByteArray rebuilt = datagram.toBytes();
            QVERIFY(WandDatagram::parse(rebuilt.constData(), rebuilt.size(), again));
            QCOMPARE(again.tag(), datagram.tag());
            QCOMPARE(again.wand(), datagram.wand());
        }
    }

    void logThrottle()
    {
        using namespace std::chrono;
        LogThrottle throttle(milliseconds(1000));
        const auto t0 = LogThrottle::Clock::time_point() + hours(1);
        QVERIFY(throttle.admit(t0)); // the first is logged
        QVERIFY(!throttle.admit(t0 + milliseconds(1)));
        QVERIFY(!throttle.admit(t0 + milliseconds(999)));
        QVERIFY(!throttle.summaryDue(t0 + milliseconds(999)));
        QVERIFY(throttle.summaryDue(t0 + milliseconds(1000)));
        QVERIFY(throttle.admit(t0 + milliseconds(1000)));
        QCOMPARE(throttle.takeSuppressed(t0 + milliseconds(1000)), 2ul);
        QCOMPARE(throttle.takeSuppressed(t0 + milliseconds(1000)), 0ul);
        // A summary restarts the interval like any logged line.
        QVERIFY(!throttle.admit(t0 + milliseconds(1500)));
        QCOMPARE(throttle.takeSuppressed(t0 + milliseconds(2100)), 1ul);
        QVERIFY(!throttle.admit(t0 + milliseconds(2200)));
        QVERIFY(!throttle.summaryDue(t0 + milliseconds(3099)));
        QVERIFY(throttle.admit(t0 + milliseconds(3100)));
    }

    // -----------------------------------------------------------------------
    // The listener thread.

    void lifecycleAndDiagnostics()
    {
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
        UdpListener listener;
        listener.term(); // not running: nothing happens
        QVERIFY(messages().isEmpty());

        EventRecorder recorder(&listener);
        QVERIFY(start(listener, &recorder));
        QVERIFY(sendTag("ab", 7));
        QVERIFY(recorder.waitFor(1));
        listener.term();
        QVERIFY(listener.isFinished());

        QStringList lines;
        for (const Message& m : messages()) {
            if (m.file.endsWith(QLatin1String("udplistener.cpp"))) {
                lines << m.text;
            }
        }
        const QStringList expected = {
            QStringLiteral("UDP thread starting..."),
            QStringLiteral("UDP socket opened on port %1").arg(mPort),
            // The listening port, not the sender's.
            QStringLiteral("Received a UDP packet from ::ffff:127.0.0.1 on port %1").arg(mPort),
            QStringLiteral("Wand ID: 7 , RFID: ab"),
            QStringLiteral("Stopping UDP thread..."),
            QStringLiteral("UDP thread exits run"),
        };
        QCOMPARE(lines, expected);
        // The map was read on the listener's thread, the event came on it.
        QVERIFY(hasMessage(QtDebugMsg, QStringLiteral("RFID ab mapped to: event 0, value /5")));
        QVERIFY(recorder.events().at(0).onListenerThread);
    }

    // One datagram per row, on a listener of its own, then the probe.
    void tags_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<int>("type"); // -1: no event
        QTest::addColumn<float>("value");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("warning");

        QTest::newRow("note, as mapped")
            << rawDatagram(1, "04A1B2C3D4") << 0 << 1.0f << "/3" << QString();
        QTest::newRow("case does not matter")
            << rawDatagram(2, "04a1B2c3d4") << 0 << 1.0f << "/3" << QString();
        QTest::newRow("short tag") << rawDatagram(3, "ab") << 0 << 1.0f << "/5" << QString();
        QTest::newRow("short tag, garbage after its zero") << [] {
            QByteArray d = rawDatagram(3, "AB", char(0x7a));
            for (int i = 3; i < 10; ++i) {
                d[27 + 4 * i] = 'q';
            }
            return d;
        }() << 0 << 1.0f << "/5" << QString();
        QTest::newRow("transpose")
            << rawDatagram(4, "tr3up") << 2 << 3.0f << QString() << QString();
        QTest::newRow("unknown") << rawDatagram(5, "nothere") << -1 << 0.0f << QString()
                                 << "RFID nothere not found in mapping table. Ignoring.";
        QTest::newRow("known tag plus one character")
            << rawDatagram(5, "abc") << -1 << 0.0f << QString()
            << "RFID abc not found in mapping table. Ignoring.";
        QTest::newRow("empty tag") << rawDatagram(5, "") << -1 << 0.0f << QString()
                                   << "RFID  not found in mapping table. Ignoring.";
        QTest::newRow("non-ASCII") << rawDatagram(6, "\xc3\xa9t\xff") << -1 << 0.0f << QString()
                                   << "RFID \\xC3\\xA9t\\xFF not found in mapping table. Ignoring.";
        QTest::newRow("line break cannot forge a log line")
            << rawDatagram(6, "a\n[00:00]") << -1 << 0.0f << QString()
            << "RFID a\\x0A[00:00] not found in mapping table. Ignoring.";
        QTest::newRow("zero first, known tag behind it") << [] {
            QByteArray d = rawDatagram(1, "");
            d[27 + 4] = 'a';
            d[27 + 8] = 'b';
            return d;
        }() << -1 << 0.0f << QString() << "RFID  not found in mapping table. Ignoring.";
    }

    void tags()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(int, type);
        QFETCH(float, value);
        QFETCH(QString, path);
        QFETCH(QString, warning);

        UdpListener listener;
        EventRecorder recorder(&listener);
        QVERIFY(start(listener, &recorder));
        QVERIFY(send(datagram));
        const int expected = type >= 0 ? 2 : 1;
        QVERIFY(probe(recorder, expected));
        listener.term();

        const QVector<Received> events = recorder.events();
        QCOMPARE(events.size(), expected);
        QCOMPARE(events.last().type, PROBE_TYPE);
        if (type >= 0) {
            QCOMPARE(events.first().type, type);
            QCOMPARE(events.first().value, value);
            QCOMPARE(events.first().path, path);
            QVERIFY(events.first().onListenerThread);
        }
        const QList<Message> warnings = listenerWarnings();
        const bool warned = std::any_of(warnings.begin(), warnings.end(),
                                        [](const Message& m) { return m.text.startsWith("RFID"); });
        QCOMPARE(warned, !warning.isEmpty());
        if (!warning.isEmpty()) {
            QVERIFY2(hasMessage(QtWarningMsg, warning), qPrintable(warning));
        }
    }

    void ipv4AndIpv6()
    {
        UdpListener listener;
        EventRecorder recorder(&listener);
        QVERIFY(start(listener, &recorder));
        QVERIFY(sendTag("ab"));
        QVERIFY(recorder.waitFor(1));

        QUdpSocket sender6;
        if (!sender6.bind(QHostAddress(QHostAddress::LocalHostIPv6), 0)) {
            QSKIP("no IPv6 loopback on this machine");
        }
        const QByteArray datagram = WandDatagram(2, "tr3up").toBytes();
        QCOMPARE(sender6.writeDatagram(datagram, QHostAddress::LocalHostIPv6, mPort),
                 qint64(datagram.size()));
        QVERIFY(recorder.waitFor(2));
        QCOMPARE(recorder.events().at(1).type, int(ArboEvent::Transpose));
    }

    // The first wrong size a listener meets is logged as it stands; the
    // datagram holds a known tag, so taking it anyway would show as an event.
    void wrongSizes_data()
    {
        QTest::addColumn<int>("size");
        for (int size : {0, 1, 23, 71, 73, 144, 1472, 65507}) {
            QTest::addRow("%d bytes", size) << size;
        }
    }

    void wrongSizes()
    {
        QFETCH(int, size);
        UdpListener listener;
        EventRecorder recorder(&listener);
        QVERIFY(start(listener, &recorder));
        QVERIFY(send(rawDatagram(1, "ab", '\0', size)));
        QVERIFY(probe(recorder, 1));
        listener.term();
        QCOMPARE(recorder.count(), 1);
        QCOMPARE(listenerWarnings().at(2).text,
                 QStringLiteral("Discarding UDP packet due to wrong size %1").arg(size));
    }

    // Every size a datagram can have over IPv4, each one accounted for: logged
    // or counted in a summary, none taken as a wand's.
    void everyDatagramSize()
    {
        UdpListener listener;
        EventRecorder recorder(&listener);
        QVERIFY(start(listener, &recorder));
        QByteArray datagram = rawDatagram(1, "ab", '\0', 65507);
        int probes = 0;
        int sent = 0;
        for (int size = 0; size <= 65507; ++size) {
            if (size == 72) {
                continue;
            }
            QVERIFY(send(QByteArray::fromRawData(datagram.constData(), size)));
            ++sent;
            // The probe keeps the socket's receive buffer from overflowing:
            // none of these may be lost for the count below to hold.
            if (size > 2048 || sent % 16 == 0) {
                QVERIFY2(probe(recorder, ++probes), qPrintable(QString::number(size)));
            }
        }
        QVERIFY(probe(recorder, ++probes));
        listener.term();
        QCOMPARE(recorder.count(), probes);
        QCOMPARE(wrongSizeCount(), sent);
        // Throttled: the log did not get a line per datagram.
        QVERIFY(listenerWarnings().size() < 200);
    }

    // Random bytes of the right size, and random sizes, over the socket.
    void randomDatagrams()
    {
        UdpListener listener;
        EventRecorder recorder(&listener);
        QVERIFY(start(listener, &recorder));
        std::mt19937 random(7);
        std::uniform_int_distribution<int> byte(0, 255);
        std::uniform_int_distribution<int> size(0, 300);
        int probes = 0;
        int rightSize = 0;
        int wrongSize = 0;
        for (int i = 0; i < 20000; ++i) {
            const int n = i % 2 == 0 ? 72 : size(random);
            QByteArray bytes(n, '\0');
            for (char& c : bytes) {
                c = char(byte(random));
            }
            QVERIFY(send(bytes));
            ++(n == 72 ? rightSize : wrongSize);
            if (i % 32 == 31) {
                QVERIFY(probe(recorder, ++probes));
            }
        }
        QVERIFY(probe(recorder, ++probes));
        listener.term();
        QCOMPARE(recorder.count(), probes); // no random tag is in the map
        QCOMPARE(wrongSizeCount(), wrongSize);
        QCOMPARE(unknownTagCount(), rightSize);
        for (const Message& m : listenerWarnings()) {
            for (const QChar c : m.text) {
                QVERIFY2(c.unicode() >= 0x20 && c.unicode() < 0x7f, qPrintable(m.text));
            }
        }
    }

    // -----------------------------------------------------------------------
    // Failures.

    void portUnavailable_data()
    {
        QTest::addColumn<QString>("blocker"); // what holds the port; empty: nothing
        QTest::addColumn<int>("port");        // used when nothing holds one
        // The same bind as the listener's: a second instance of the instrument.
        QTest::newRow("taken by another instance") << "default" << 0;
        QTest::newRow("taken, dual stack, exclusive") << "dual" << 0;
        QTest::newRow("taken, IPv4 only, exclusive") << "ipv4" << 0;
        QTest::newRow("port 0") << QString() << 0;
        QTest::newRow("beyond 16 bits") << QString() << 65536 + 8888;
        QTest::newRow("negative") << QString() << -1;
    }

    void portUnavailable()
    {
        QFETCH(QString, blocker);
        QFETCH(int, port);
        QUdpSocket holder;
        if (blocker == "default") {
            QVERIFY(holder.bind(QHostAddress::Any, freePort()));
        } else if (!blocker.isEmpty()) {
            QVERIFY(holder.bind(blocker == "ipv4" ? QHostAddress::AnyIPv4 : QHostAddress::Any, 0,
                                QUdpSocket::DontShareAddress));
        }
        if (!blocker.isEmpty()) {
            port = holder.localPort();
        }
        mSettings.mUdpPort = port;

        UdpListener listener;
        QStringList errors;
        connect(
            &listener, &UdpListener::fatalError, this,
            [&errors](const QString& error) { errors << error; }, Qt::QueuedConnection);
        listener.start();
        QVERIFY(listener.wait(10000));
        QTRY_COMPARE(errors.size(), 1);
        const QString text =
            QStringLiteral("Can't open UDP socket on port %1. UDP thread shutting down.").arg(port);
        QCOMPARE(errors.first(), text);
        QVERIFY(hasMessage(QtCriticalMsg, text));
        listener.term(); // finished already: nothing to do
        QVERIFY(!hasMessage(QtWarningMsg, QStringLiteral("Stopping UDP thread...")));
    }

    void unreadableMap()
    {
        QVERIFY(TestSupport::writeFile(
            mapPath(), TestSupport::readFile(TestSupport::dataDir() + "/rfid/not_json.json")));
        mSettings.mUdpPort = freePort();
        UdpListener listener;
        QStringList errors;
        connect(
            &listener, &UdpListener::fatalError, this,
            [&errors](const QString& error) { errors << error; }, Qt::QueuedConnection);
        listener.start();
        QVERIFY(listener.wait(10000));
        QTRY_COMPARE(errors.size(), 1);
        const QString text =
            QStringLiteral("Failed to load RFID mapping file, UDP thread shutting down.");
        QCOMPARE(errors.first(), text);
        QVERIFY(hasMessage(QtCriticalMsg, text));
    }

    // -----------------------------------------------------------------------
    // Load.

    // The player's serial ring holds 1023 commands. With nothing draining it
    // (no audio stream), a stream of wand events fills it; the listener must
    // not wait for room but go on, the ring dropping what does not fit.
    void fullCommandRing()
    {
        const ArboEvent reset(ArboEvent::VoiceVolume, 1.0f);
        mPlayer.queueEventSerial(&reset);
        drain();
        QCOMPARE(mPlayer.voiceVolume(), 1.0f);

        UdpListener listener;
        EventRecorder recorder(&listener);
        connect(&listener, &UdpListener::eventReceived, &mPlayer, &PdPlayer::queueEventSerial,
                Qt::DirectConnection);
        QVERIFY(start(listener, &recorder));

        QVERIFY(sendTag("04a1b2c3d4")); // a note sounding before the stream
        QVERIFY(recorder.waitFor(1));
        drain();
        QCOMPARE(soundingVoices(), 1);

        const int steps = 1500;
        for (int i = 0; i < steps; ++i) {
            QVERIFY(sendTag("vstep"));
            if (i % 16 == 15) {
                QVERIFY(recorder.waitFor(2 + i));
            }
        }
        QVERIFY(probe(recorder, 2 + steps)); // the listener still answers
        QVERIFY(hasMessage(QtWarningMsg, QStringLiteral("Command buffer full")));

        drain();
        // The first 1023 went in (the probe did not), the rest were dropped.
        QCOMPARE(mPlayer.voiceVolume(), 1.0f + 1023.0f);
        QCOMPARE(soundingVoices(), 1);
        listener.term();

        const ArboNoteEvent off(QStringLiteral("/3"));
        mPlayer.queueEventSerial(&off);
        drain();
    }

    // 20,000 datagrams a second for ten seconds from the wand simulator (one
    // known tag among nine unknown ones), with random junk from a second
    // sender on top, while a stand-in for the audio callback drains the ring
    // every 6 ms. A note struck before must sound throughout, the GUI
    // thread must keep running, the listener must answer afterwards, and the
    // log must stay small.
    void flood()
    {
        const ArboEvent reset(ArboEvent::VoiceVolume, 1.0f);
        mPlayer.queueEventSerial(&reset);
        drain();

        UdpListener listener;
        EventRecorder recorder(&listener);
        connect(&listener, &UdpListener::eventReceived, &mPlayer, &PdPlayer::queueEventSerial,
                Qt::DirectConnection);
        std::atomic<int> notesOn{0};
        std::atomic<int> notesOff{0};
        QObject connections; // ends the connection below whichever way the test ends
        connect(
            &mPlayer, &PdPlayer::noteToggled, &connections,
            [&](const ArboRatio&, bool on) { ++(on ? notesOn : notesOff); }, Qt::DirectConnection);
        QVERIFY(start(listener, &recorder));

        // The stand-in for the audio callback runs on this thread: libpd keeps
        // its instance per thread, and this is the one that started it.
        QTimer audio;
        audio.setTimerType(Qt::PreciseTimer);
        connect(&audio, &QTimer::timeout, this, [this] { drain(); });
        audio.start(6);

        QVERIFY(sendTag("04a1b2c3d4"));
        QVERIFY(recorder.waitFor(1));
        QTRY_COMPARE(notesOn.load(), 1);

        const int rate = 20000;
        const int rounds = 20000; // ten tags a round: 10 s
        QStringList args = {"--port",   QString::number(mPort),  "--rate", QString::number(rate),
                            "--repeat", QString::number(rounds), "--wand", "9",
                            "vstep"};
        for (int i = 1; i < 10; ++i) {
            args << QStringLiteral("unknown%1").arg(i);
        }
        QProcess tool;
        tool.start(toolPath(), args);
        QVERIFY2(tool.waitForStarted(), qPrintable(tool.errorString()));

        std::atomic<bool> stopJunk{false};
        std::atomic<int> junkSent{0};
        const quint16 port = mPort;
        std::thread junk([&] {
            QUdpSocket socket;
            std::mt19937 random(99);
            std::uniform_int_distribution<int> byte(0, 255);
            std::uniform_int_distribution<int> size(0, 1500);
            while (!stopJunk.load()) {
                const int n = junkSent % 2 == 0 ? 72 : size(random);
                QByteArray bytes(n, '\0');
                for (char& c : bytes) {
                    c = char(byte(random));
                }
                socket.writeDatagram(bytes, QHostAddress::LocalHost, port);
                ++junkSent;
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        });

        // The GUI thread's pulse while the flood runs.
        QElapsedTimer sinceTick;
        sinceTick.start();
        qint64 longestGap = 0;
        QTimer pulse;
        connect(&pulse, &QTimer::timeout, this,
                [&] { longestGap = std::max(longestGap, sinceTick.restart()); });
        pulse.start(10);
        QEventLoop loop;
        connect(&tool, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &loop,
                &QEventLoop::quit);
        QTimer::singleShot(120000, &loop, &QEventLoop::quit);
        QElapsedTimer floodTime;
        floodTime.start();
        loop.exec();
        pulse.stop();
        stopJunk = true;
        junk.join();
        QCOMPARE(tool.state(), QProcess::NotRunning);
        QCOMPARE(tool.exitCode(), 0);

        // Still answering, and the note still sounds.
        const int before = recorder.count();
        QVERIFY(probe(recorder, before + 1));
        audio.stop();
        drain();
        listener.term();

        int steps = 0;
        for (const Received& r : recorder.events()) {
            steps += r.type == ArboEvent::VoiceVolumeStep ? 1 : 0;
        }
        const bool ringOverflowed = hasMessage(QtWarningMsg, QStringLiteral("Command buffer full"));
        qInfo("flood: %d datagrams from the tool in %lld ms (%s), %d junk datagrams; "
              "%d of %d known-tag events reached the ring (%.2f%% lost before the listener); "
              "longest GUI gap %lld ms; %d listener warning lines; ring overflowed: %s",
              rounds * 10, floodTime.elapsed(),
              qPrintable(QString::fromLocal8Bit(tool.readAllStandardError()).trimmed()),
              junkSent.load(), steps, rounds, 100.0 * (rounds - steps) / rounds, longestGap,
              int(listenerWarnings().size()), ringOverflowed ? "yes" : "no");

        QVERIFY(steps > 0);
        if (!ringOverflowed) {
            // Everything the listener passed on was carried out, in full.
            QCOMPARE(mPlayer.voiceVolume(), 1.0f + float(steps));
        }
        QCOMPARE(notesOn.load(), 1);
        QCOMPARE(notesOff.load(), 0);
        QCOMPARE(soundingVoices(), 1);
        // A liveness bound, not a speed goal: the GUI thread was never stuck.
        QVERIFY2(longestGap < 2000, qPrintable(QString::number(longestGap)));
        // The throttles: about two lines a second per kind, not thousands.
        QVERIFY2(listenerWarnings().size() < 200,
                 qPrintable(QString::number(listenerWarnings().size())));

        const ArboNoteEvent off(QStringLiteral("/3"));
        mPlayer.queueEventSerial(&off);
        drain();
    }

    // A sender faster than the listener must not keep it from stopping: the
    // stop flag is looked at between datagrams too.
    void stopsUnderFlood()
    {
        UdpListener listener;
        QVERIFY(start(listener));
        QProcess tool;
        tool.start(toolPath(), {"--port", QString::number(mPort), "--rate", "1000000", "--repeat",
                                "0", "-q", "unknown"});
        QVERIFY(tool.waitForStarted());
        QTest::qWait(500);
        listener.term();
        QVERIFY(listener.isFinished());
        QVERIFY(!hasMessage(QtCriticalMsg,
                            QStringLiteral("UDP thread couldn't be stopped, exiting anyway")));
        tool.kill();
        tool.waitForFinished();
        QVERIFY(unknownTagCount() > 0);
    }
};

ARBO_TEST_MAIN(TestUdpListener)
#include "tst_udplistener.moc"
