// The wand input for real: the listener thread with its RFID map read from a
// file in the isolated configuration folder, real UDP sockets on the loopback
// interface, the wand simulator (arbo-wand) as a separate process, and the
// real player's command ring behind the listener. Besides the happy path:
// every datagram size and random bytes through the parser, and through the
// port what anyone on the network could send, odd tags, wrong sizes and a
// flood.
//
// term() waits for the end of the listener's current poll (up to a second),
// so each test runs all its cases through one listener.

#include "input/udplistener.h"
#include "input/wanddatagram.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/pdmessagebuffer.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QMutex>
#include <QProcess>
#include <QUdpSocket>

#include <random>

namespace {

using TestSupport::logged;
using TestSupport::loggedCount;
using TestSupport::loggedLines;

// The events the listener emitted, on its own thread.
QMutex sMutex;
QStringList sEvents;

// The tag map every test runs with. "probe" answers after the datagrams under
// test: the listener handles datagrams in order, so once the probe's event is
// in, everything sent before it has been dealt with.
const QByteArray RFID_MAP = R"({
    "04A1B2C3D4": {"event": 0, "value": "/3"},
    "ab":         {"event": 0, "value": "/5"},
    "tr3up":      {"event": 2, "value": 3},
    "vstep":      {"event": 3, "value": 0.0001220703125},
    "probe":      {"event": 8, "value": 1}
})";

} // namespace

class TestUdpListener : public QObject
{
    Q_OBJECT

private:
    PdPlayer mPlayer;
    QUdpSocket mSender;
    quint16 mPort = 0;

    static QString mapPath() { return TestSupport::configDir() + QStringLiteral("/rfid_map.json"); }
    static QString toolPath() { return TestSupport::binDir() + QStringLiteral("/arbo-wand"); }

    template <typename T> static T locked(const T& shared)
    {
        QMutexLocker lock(&sMutex);
        return shared;
    }
    static bool waitForEvents(int count)
    {
        return QTest::qWaitFor([count] { return locked(sEvents).size() >= count; }, 10000);
    }

    // Starts `listener` on a fresh port, recording its events: a note's path
    // or the type of any other. (The values are the map's, read by its tests.)
    bool start(UdpListener& listener)
    {
        connect(
            &listener, &UdpListener::eventReceived, this,
            [](const ArboEvent* event) {
                const auto* note = dynamic_cast<const ArboNoteEvent*>(event);
                QMutexLocker lock(&sMutex);
                sEvents << (note ? note->path().toString() : QString::number(int(event->type())));
            },
            Qt::DirectConnection);
        mPort = TestSupport::freeUdpPort();
        listener.listen(mPort);
        return QTest::qWaitFor(
            [this] { return logged(QStringLiteral("UDP socket opened on port %1").arg(mPort)); },
            10000);
    }

    bool send(const QByteArray& datagram)
    {
        return mSender.writeDatagram(datagram, QHostAddress::LocalHost, mPort) == datagram.size();
    }
    bool sendTag(const QByteArray& tag) { return send(WandDatagram(1, tag).toBytes()); }
    // Sends the probe and waits for its event, the `expected`-th in all.
    bool probe(int expected) { return sendTag("probe") && waitForEvents(expected); }

private slots:
    void initTestCase()
    {
        TestSupport::captureLog();
        // As in a performance: debug lines are not even formatted.
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
        QVERIFY(mPlayer.init());
    }

    void init()
    {
        QVERIFY(TestSupport::writeFile(mapPath(), RFID_MAP));
        TestSupport::clearLog();
        QMutexLocker lock(&sMutex);
        sEvents.clear();
    }

    // Every size a datagram can have over IPv4, then random bytes against the
    // layout as written here, to catch a read outside the datagram or a tag
    // that runs past its zero. The seed is fixed so that a failure replays.
    void datagramParsing()
    {
        const QByteArray filled(65507, 'x');
        for (int size = 0; size <= 65507; ++size) {
            WandDatagram datagram(42, "untouched"); // a wrong size leaves it so
            QCOMPARE(WandDatagram::parse(filled.constData(), size, datagram), size == 72);
            QCOMPARE(datagram.tag(), QByteArray(size == 72 ? "xxxxxxxxxx" : "untouched"));
        }

        std::mt19937 random(20240531);
        std::uniform_int_distribution<int> byte(-15, 255); // zeros now and then, to end tags
        for (int round = 0; round < 200000; ++round) {
            QByteArray bytes(72, '\0');
            for (char& c : bytes) {
                c = char(std::max(0, byte(random)));
            }
            QByteArray tag;
            for (int i = 0; i < 10 && bytes.at(27 + 4 * i) != '\0'; ++i) {
                tag += bytes.at(27 + 4 * i);
            }
            WandDatagram datagram;
            QVERIFY(WandDatagram::parse(bytes.constData(), 72, datagram));
            QCOMPARE(int(datagram.wand()), int(quint8(bytes.at(23))));
            QCOMPARE(datagram.tag(), tag);
            for (const QChar c : datagram.tagForLog()) {
                QVERIFY(c.unicode() >= 0x20 && c.unicode() < 0x7f);
            }
        }

        // Anything but printable ASCII is escaped, so that a tag cannot put a
        // line break or terminal controls into the log.
        QCOMPARE(WandDatagram(9, "\xc3\xa9\x7f\n\x01\\ ~").tagForLog(),
                 QStringLiteral("\\xC3\\xA9\\x7F\\x0A\\x01\\ ~"));
    }

    // Mapped tags, in any case and over IPv4 or IPv6, give their events in
    // order. Everything else, unknown tags and wrong sizes (carrying a mapped
    // tag, so that taking one would show), is dropped, each datagram accounted
    // for in the log: the first of a kind as it stands, the rest in a summary.
    void datagramsOverTheSocket()
    {
        UdpListener listener;
        QVERIFY(start(listener));
        for (const char* tag : {"a\n[00:00]", "04a1B2c3d4", "tr3up", "abc", ""}) {
            QVERIFY(sendTag(tag));
        }
        const QByteArray tagged = WandDatagram(1, "ab").toBytes().leftJustified(65507, '\0');
        for (int size : {0, 1, 23, 71, 73, 1472, 65507}) {
            QVERIFY(send(tagged.left(size)));
        }
        QVERIFY(probe(3));
        QCOMPARE(locked(sEvents), (QStringList{"/3", "2", "8"}));
        QUdpSocket sender6;
        if (sender6.bind(QHostAddress(QHostAddress::LocalHostIPv6))) {
            const QByteArray datagram = WandDatagram(1, "ab").toBytes();
            QCOMPARE(sender6.writeDatagram(datagram, QHostAddress::LocalHostIPv6, mPort),
                     qint64(72));
            QVERIFY(waitForEvents(4));
        }
        listener.term();
        QCOMPARE(loggedCount("RFID ", "were ignored (warnings suppressed)"), 3LL);
        QCOMPARE(loggedCount("Discarding UDP packet ", "were discarded (warnings suppressed)"),
                 7LL);
        QVERIFY(logged("RFID a\\x0A[00:00] not found in mapping table. Ignoring."));
        QVERIFY(logged("Discarding UDP packet due to wrong size 0"));
    }

    void cannotWork_data()
    {
        QTest::addColumn<int>("port"); // -2: one held by another instance
        QTest::addColumn<QString>("error");
        const QString PORT =
            QStringLiteral("Can't open UDP socket on port %1. UDP thread shutting down.");
        QTest::newRow("taken by another instance") << -2 << PORT;
        // Port 0 would open a random port; beyond 16 bits it would wrap.
        QTest::newRow("port 0") << 0 << PORT;
        QTest::newRow("beyond 16 bits") << 65536 + 8888 << PORT;
        QTest::newRow("negative") << -1 << PORT;
        QTest::newRow("map not JSON")
            << int(TestSupport::freeUdpPort())
            << QStringLiteral("Failed to load RFID mapping file, UDP thread shutting down.");
    }

    // The listener gives up, saying why (the application shows it to the
    // user: see the wand end-to-end test), and ends its thread.
    void cannotWork()
    {
        QFETCH(int, port);
        QFETCH(QString, error);
        QUdpSocket instance; // bound as the listener binds
        if (port == -2) {
            QVERIFY(instance.bind(QHostAddress::Any, TestSupport::freeUdpPort()));
            port = instance.localPort();
        }
        if (error.startsWith("Failed")) {
            QVERIFY(TestSupport::writeFile(mapPath(), "not JSON {"));
        }
        UdpListener listener;
        listener.listen(port);
        QVERIFY(listener.wait(10000));
        QVERIFY(logged("CRITICAL: " + error.replace("%1", QString::number(port))));
    }

    // The player fed by a wand as the application connects them. First the
    // flood: 20,000 datagrams a second for ten seconds from the wand simulator
    // (one mapped tag among nine unknown ones) while a stand-in for the audio
    // callback drains the player's serial ring every 6 ms. Then the same ring
    // with nothing draining it: wand events fill its 1024 places, and the
    // listener must not wait for room but go on while the ring drops what does
    // not fit. Throughout, the note struck first sounds undisturbed, the log
    // stays small and the listener answers. Last, a sender faster than the
    // listener (slowed down by a receiver that takes its time) must not keep
    // it from stopping: the stop flag is looked at between datagrams too.
    void underLoad()
    {
        // The step of "vstep": a power of two, so that every sum of steps is
        // exact and twenty thousand of them stay within the volume's range.
        constexpr float VSTEP = 1.0f / 8192.0f;
        // Long enough for the budget to carry a full ring out.
        const double FULL_RING_SECONDS =
            (PdMessageBuffer::CAPACITY / PdPlayer::commandBudget(OfflinePlayer::BUFFER_FRAMES) +
             2) *
            OfflinePlayer::BUFFER_SECONDS;
        UdpListener listener;
        connect(&listener, &UdpListener::eventReceived, &mPlayer, &PdPlayer::queueEventSerial,
                Qt::DirectConnection);
        int toggles = 0; // notes struck or released
        connect(&mPlayer, &PdPlayer::noteToggled, &listener, [&toggles] { ++toggles; });
        QVERIFY(start(listener));
        QVERIFY(sendTag("04a1b2c3d4"));
        QVERIFY(waitForEvents(1));
        OfflinePlayer::runBuffer(mPlayer);
        QCOMPARE(toggles, 1);
        const float volume = mPlayer.voiceVolume();

        // The stand-in runs on this thread: libpd keeps its instance per
        // thread, and this is the one that started it. (A GUI thread that
        // hung would stop the QTRY loop below and fail the test.)
        QTimer audio;
        audio.setTimerType(Qt::PreciseTimer);
        connect(&audio, &QTimer::timeout, this, [this] { OfflinePlayer::runBuffer(mPlayer); });
        audio.start(6);
        QProcess tool;
        tool.start(toolPath(), {"--port", QString::number(mPort), "--rate", "20000", "--repeat",
                                "20000", "vstep", "unknown1", "unknown2", "unknown3", "unknown4",
                                "unknown5", "unknown6", "unknown7", "unknown8", "unknown9"});
        QTRY_VERIFY_WITH_TIMEOUT(tool.state() == QProcess::NotRunning, 120000);
        QCOMPARE(tool.exitCode(), 0);
        QVERIFY(probe(locked(sEvents).size() + 1));
        audio.stop();
        OfflinePlayer::render(mPlayer, FULL_RING_SECONDS); // what the budget left

        const int steps = locked(sEvents).count("3");
        const bool overflowed = logged("Command buffer full");
        QVERIFY2(steps > 0, tool.readAllStandardError().constData());
        if (!overflowed) { // everything the listener passed on was carried out
            QCOMPARE(mPlayer.voiceVolume(), volume + float(steps) * VSTEP);
        }
        // The throttles: about a line a second per kind, not thousands.
        QVERIFY2(loggedLines().size() < 100, qPrintable(loggedLines().join('\n')));

        const float before = mPlayer.voiceVolume();
        const int events = locked(sEvents).size();
        for (int i = 1; i <= 1500; ++i) {
            QVERIFY(sendTag("vstep"));
            QVERIFY(i % 16 != 0 || waitForEvents(events + i)); // the receive buffer again
        }
        QVERIFY(probe(events + 1501));
        QVERIFY(logged("Command buffer full"));
        OfflinePlayer::render(mPlayer, FULL_RING_SECONDS);
        QCOMPARE(mPlayer.voiceVolume(),
                 before + float(PdMessageBuffer::CAPACITY) * VSTEP); // the first 1024 went in
        QCOMPARE(toggles, 1);

        connect(
            &listener, &UdpListener::eventReceived, this, [] { QThread::usleep(100); },
            Qt::DirectConnection);
        tool.start(toolPath(), {"--port", QString::number(mPort), "--rate", "1000000", "--repeat",
                                "0", "-q", "vstep"});
        QVERIFY(waitForEvents(locked(sEvents).size() + 1000)); // the listener is behind
        listener.term();
        QVERIFY(listener.isFinished());
    } // the tool, started here, ends with its QProcess
};

ARBO_TEST_MAIN(TestUdpListener)
#include "tst_udplistener.moc"
