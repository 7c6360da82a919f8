// The inputs from outside the program, for real, into the real player with
// the shell patches and the Sine voice, run offline by this thread. The tag
// map as users write it by hand, read from real files in the isolated
// configuration folder: nothing a file holds may crash the reader, and the
// program never writes it. The wand input: the listener thread with its tag
// map, real UDP sockets on the loopback interface, the wand simulator
// (arbo-wand) as a separate process, and the player's command ring behind the
// listener: every datagram size and random bytes through the parser, and
// through the port what anyone on the network could send, odd tags, wrong
// sizes and a flood. OSC input: the receiver thread (liblo) on a port of
// 127.0.0.1, fed by UDP datagrams.
//
// A probe whose effect is visible follows the datagrams under test: the
// inputs handle them in order, so once the probe is carried out, everything
// before it has been. term() waits for the end of the listener's current poll
// (up to a second), so each test runs all its cases through one listener.

#include "input/inputbinding.h"
#include "input/inputmap.h"
#include "input/rfidmap.h"
#include "input/udplistener.h"
#include "input/wanddatagram.h"
#include "model/arbo.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "osc/oscinput.h"
#include "sound/pdmessagebuffer.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMutex>
#include <QProcess>
#include <QSet>
#include <QSignalSpy>
#include <QUdpSocket>


#include <algorithm>
#include <cmath>
#include <random>

namespace {

using TestSupport::logged;
using TestSupport::loggedCount;
using TestSupport::loggedLines;
using TestSupport::oscBundle;

// The events the listener emitted, on its own thread.
QMutex sMutex;
QStringList sEvents;

// The tag map the wand and OSC tests run with. "probe" answers after the
// datagrams under test.
const QByteArray RFID_MAP = R"({
    "04A1B2C3D4": {"event": 0, "value": "/3"},
    "ab":         {"event": 0, "value": "/5"},
    "tr3up":      {"event": 2, "value": 3},
    "vstep":      {"event": 3, "value": 0.0001220703125},
    "probe":      {"event": 8, "value": 1},
    "base432":    {"event": 9, "value": 432},
    "cue2":       {"event": 0, "value": "/3"}
})";
const QByteArray INPUT_MAP = R"({
    "osc": { "/fader/1": {"event": 4, "min": 0, "max": 2},
             "/pad/1":   {"value": "/7"},
             "/quiet":   {"event": 4, "value": 0.125} } })";

} // namespace

class TestInputs : public QObject
{
    Q_OBJECT

private:
    PdPlayer mPlayer;
    Arbo mArbo;
    QUdpSocket mSender;
    quint16 mPort = 0;
    int mProbes = 0;
    QStringList mToggles; // "3/2 on", as the player reported them
    QElapsedTimer mSince; // since the test began

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
    bool wandProbe(int expected) { return sendTag("probe") && waitForEvents(expected); }
    // A note's path, or "type value" for any other event; empty for none.
    static QString describe(const ArboEvent* event)
    {
        const auto* note = dynamic_cast<const ArboNoteEvent*>(event);
        return !event ? QString()
               : note ? note->path().toString()
                      : QStringLiteral("%1 %2").arg(int(event->type())).arg(event->value());
    }

    // Starts `input` on a free port with the test's input map.
    bool start(OscInput& input)
    {
        mPort = TestSupport::freeUdpPort();
        InputMap map;
        map.read(QJsonDocument::fromJson(INPUT_MAP).object());
        InputMap::Bindings bindings = map.bindings();
        bindings.oscPort = mPort;
        QSignalSpy listening(&input, &OscInput::listening);
        // The thread may say so before wait() begins.
        return input.open(&mPlayer, bindings) && (!listening.isEmpty() || listening.wait(10000));
    }
    void render() { OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS); }

    // Sends a master volume of its own until the player has it (in a flood,
    // a copy may find the socket's queue full).
    bool oscProbe()
    {
        const float volume = 0.25f + float(++mProbes) / 4096.0f;
        const QByteArray message = OSC("/arbo/event", "if", ArboEvent::MasterVolume, volume);
        QElapsedTimer timer;
        timer.start();
        for (qint64 sent = -1000; timer.elapsed() < 20000; QThread::msleep(1)) {
            if (timer.elapsed() - sent >= 50) {
                send(message);
                sent = timer.elapsed();
            }
            render();
            if (mPlayer.volume() == volume) {
                return true;
            }
        }
        return false;
    }

    // The seqId of the voice holding the note a NoteStart of `path` began; 0
    // when there is none.
    std::int32_t heldVoice(const char* path) const
    {
        for (int i = 0; i < PdPlayer::VOICE_COUNT; ++i) {
            const PdPlayer::NoteOn& voice = mPlayer.voices()[i];
            if (voice.seqId != 0 && voice.held && !voice.released &&
                voice.heldPath == ArboPath(QString::fromLatin1(path))) {
                return voice.seqId;
            }
        }
        return 0;
    }

private slots:
    void initTestCase()
    {
        // Passed on: the tag map tests ignore the warnings they expect.
        TestSupport::captureLog(true);
        OfflinePlayer::setUp(mPlayer, mArbo, "Sine.pd");
        QVERIFY(!QTest::currentTestFailed());
        connect(&mPlayer, &PdPlayer::noteToggled, this, [this](const ArboRatio& ratio, bool on) {
            mToggles << ratio.toString() + (on ? " on" : " off");
        });
    }

    void init()
    {
        // As in a performance: debug lines are not even formatted.
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
        QVERIFY(TestSupport::writeFile(mapPath(), RFID_MAP));
        const ArboEvent stop(ArboEvent::AllNotesOff, 1.0f);
        mPlayer.queueEventGui(&stop);
        OfflinePlayer::render(mPlayer, 1.0);
        TestSupport::clearLog();
        mSince.start();
        mToggles.clear();
        QMutexLocker lock(&sMutex);
        sEvents.clear();
    }

    // One file with a member for each rule, under the keys "T00", "T01"...
    // (looked up in lower case): each member is read on its own, and a broken
    // one is skipped with a warning without disturbing the others.
    void entryRules()
    {
        const QString NOT_OBJECT =
            "is not mapped to an object with \"event\" and \"value\". Ignoring.";
        const QString NO_PATH =
            "asks for event %1, which needs a path (a \"value\" such as \"/3/-5\"). Ignoring.";
        const QString UNKNOWN = "asks for event %1, which is no command this program knows. "
                                "Ignoring.";
        const QString RANGE = "asks for event %1 with the value %2, which is no %3. Ignoring.";
        const QString BASE = "base frequency from 20 Hz to 20 kHz";
        const QVector<QPair<QByteArray, QString>> CASES = {
            // Not an object: skipped rather than read as a toggle of the root.
            {"7", NOT_OBJECT},
            {R"("/3")", NOT_OBJECT},
            {"null", NOT_OBJECT},
            // A text beginning with "/" makes a note toggle whatever "event" says.
            {R"({"event": 0, "value": "/3/-5"})", "/3/-5"},
            {R"({"event": 5, "value": "/2"})", "/2"},
            {R"({"value": "/"})", "/"},
            {R"({"value": "/3/3/3/3/3/3/3/3"})", "/3/3/3/3/3/3"}, // steps beyond six dropped
            {R"({"event": 0, "value": "/3/9"})", "was assigned invalid path /3/9. Ignoring."},
            {R"({"event": 2, "value": "/x"})", "was assigned invalid path /x. Ignoring."},
            {R"({"event": 2, "value": "/37"})", "was assigned invalid path /37. Ignoring."},
            // Plain events: anything but a number counts as 0.
            {R"({"event": 2, "value": -3})", "2 -3"},
            {R"({"event": 4, "value": " /3"})", "4 0"},
            {R"({"value": 0.25})", NO_PATH.arg(0)},
            {R"({"event": 1})", "1 0"},
            {R"({"event": "5", "value": true})", NO_PATH.arg(0)},
            // A note needs a path: without one it would sound the root.
            {R"({"event": 0})", NO_PATH.arg(0)},
            {R"({"event": 0, "value": ""})", NO_PATH.arg(0)},
            {R"({"event": 0, "value": 5})", NO_PATH.arg(0)},
            {R"({"event": 21, "value": 1})", NO_PATH.arg(21)},
            // Values that would silence or deafen the instrument.
            {R"({"event": 9, "value": 0})", RANGE.arg(9).arg(0).arg(BASE)},
            {R"({"event": 9, "value": 1e30})", RANGE.arg(9).arg("1e+30", BASE)},
            {R"({"event": 9, "value": 432})", "9 432"},
            {R"({"event": 6, "value": 1e300})", RANGE.arg(6).arg("3.40282e+38", "volume from 0 to 4")},
            {R"({"event": 12, "value": -0.5})", RANGE.arg(12).arg(-0.5).arg("macro value from 0 to 1")},
            {R"({"event": 3, "value": [0.5]})", "3 0"},
            {R"({"event": 11, "value": 0.75, "more": {"a": [true]}})", "11 0.75"},
            {R"({"event": 2.7, "value": 1})", "2 1"}, // truncated toward zero
            // Codes this program does not know, or keeps for itself.
            {R"({"event": -1.7, "value": 1})", UNKNOWN.arg(-1)},
            {R"({"event": 99, "value": 1})", UNKNOWN.arg(99)},
            {R"({"event": 19})", "asks for event 19, which is the program's own. Ignoring."},
            // Numbers beyond int and float saturate instead of overflowing.
            {R"({"event": 2147483648})", UNKNOWN.arg(2147483647)},
            {R"({"event": -1e300})", UNKNOWN.arg(-2147483647 - 1)},
            {R"({"event": 2, "value": 1e300})", "2 3.40282e+38"},
            {R"({"event": 2, "value": -1e300})", "2 -3.40282e+38"},
        };
        // The same tag in another case: the later member (as the object
        // orders its keys, upper case first) replaces the earlier one.
        QStringList members = {R"("DUP": {"event": 3, "value": 0.1})",
                               R"("dup": {"event": 4, "value": 0.2})"};
        int kept = 1;
        for (int i = 0; i < CASES.size(); ++i) {
            const QString key = QStringLiteral("T%1").arg(i, 2, 10, QChar('0'));
            members << QStringLiteral("\"%1\": %2").arg(key, QString::fromUtf8(CASES[i].first));
            if (CASES[i].second.endsWith("Ignoring.")) {
                QTest::ignoreMessage(QtWarningMsg,
                                     qPrintable("RFID " + key.toLower() + ' ' + CASES[i].second));
            } else {
                ++kept;
            }
        }
        const QByteArray file = "{" + members.join(",\n").toUtf8() + "}";
        QVERIFY(TestSupport::writeFile(mapPath(), file));
        RfidMap map;
        QVERIFY(map.init());
        QCOMPARE(map.size(), kept);
        for (int i = 0; i < CASES.size(); ++i) {
            const QString expected = CASES[i].second.endsWith("Ignoring.") ? "" : CASES[i].second;
            const QString member = QString::fromUtf8(CASES[i].first) + " -> "; // says which failed
            const QString key = QStringLiteral("t%1").arg(i, 2, 10, QChar('0'));
            QCOMPARE(member + describe(map.lookup(key)), member + expected);
        }
        QCOMPARE(describe(map.lookup("Dup")), QStringLiteral("4 0.2"));
        map.term();
        QCOMPARE(TestSupport::readFile(mapPath()), file);
    }

    // A file that is not a JSON document leaves the map empty and init()
    // false; a document that is no object reads as an empty map. The file
    // stays as it is.
    void unreadableFiles()
    {
        const auto check = [this](const char* name, const QByteArray& content, bool initResult) {
            QVERIFY(TestSupport::writeFile(mapPath(), content));
            if (!initResult) {
                QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("^Couldn't parse file "));
            }
            RfidMap map;
            QVERIFY2(map.init() == initResult && map.size() == 0, name);
            map.term();
            QVERIFY2(TestSupport::readFile(mapPath()) == content, name);
        };
        const auto data = [](const char* name) {
            return TestSupport::readFile(TestSupport::dataDir() + "/rfid/" + name);
        };
        check("not JSON", data("not_json.json"), false);
        check("empty", data("empty.json"), false);
        check("truncated", data("truncated.json"), false);
        check("binary", data("binary.json"), false);
        check("number beyond double", data("number_overflow.json"), false);
        check("nesting beyond the parser", "{\"a\": " + QByteArray(200000, '['), false);
        check("top-level array", data("top_level_array.json"), true);
    }

    // Every command number from every kind of source: a tag of the map (the
    // wands and OSC's tag message read it) and an entry of the input map
    // (keys, MIDI, OSC addresses and OSC's event message read it). Both take
    // the commands a player may send bare, and never a note without its
    // path, the program's own patch commands or a number nobody knows.
    void everyCodeFromEverySource()
    {
        QSet<int> expected;
        for (int code = ArboEvent::AllNotesOff; code <= ArboEvent::Macro8; ++code) {
            expected.insert(code);
        }
        expected += {ArboEvent::SceneRecall, ArboEvent::SceneStep, ArboEvent::SceneStore};
        expected.insert(ArboEvent::Record);
        QStringList members;
        QSet<int> byInputMap;
        for (int code = -1; code <= ArboEvent::LAST_TYPE + 1; ++code) {
            const double value = code == ArboEvent::BaseFrequency ? 440.0
                                 : code == ArboEvent::SceneRecall  ? 2.0
                                                                   : 0.5;
            members << QString::asprintf(R"("c%d": {"event": %d, "value": %g})", code, code, value);
            QString why;
            if (InputBinding::fromJson(QJsonObject{{"event", code}, {"value", value}}, &why).isBound()) {
                byInputMap.insert(code);
            }
        }
        QVERIFY(TestSupport::writeFile(mapPath(), "{" + members.join(",").toUtf8() + "}"));
        QLoggingCategory::setFilterRules(QStringLiteral("default.warning=false"));
        RfidMap map;
        QVERIFY(map.init());
        QLoggingCategory::setFilterRules(QString());
        QSet<int> byTags;
        for (int code = -1; code <= ArboEvent::LAST_TYPE + 1; ++code) {
            if (map.lookup(QStringLiteral("c%1").arg(code))) {
                byTags.insert(code);
            }
        }
        QCOMPARE(byTags, expected);
        QCOMPARE(byInputMap, expected);
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
        QVERIFY(wandProbe(3));
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

    // The listener gives up, saying why (the application shows it to the
    // user: see tst_endtoend), and ends its thread: on a port another
    // instance holds, on port 0 (a random port), beyond 16 bits (it would
    // wrap), on a negative one, and with a tag map that is no JSON.
    void cannotWork()
    {
        const auto check = [](int port, const QString& error) {
            UdpListener listener;
            listener.listen(port);
            QVERIFY(listener.wait(10000));
            QVERIFY2(logged("CRITICAL: " + error), qPrintable(error));
        };
        const QString PORT = QStringLiteral("Can't open UDP socket on port %1. UDP thread shutting down.");
        QUdpSocket instance; // bound as the listener binds
        QVERIFY(instance.bind(QHostAddress::Any, TestSupport::freeUdpPort()));
        for (int port : {int(instance.localPort()), 0, 65536 + 8888, -1}) {
            check(port, PORT.arg(port));
        }
        QVERIFY(TestSupport::writeFile(mapPath(), "not JSON {"));
        check(TestSupport::freeUdpPort(),
              QStringLiteral("Failed to load RFID mapping file, UDP thread shutting down."));
    }

    // The player fed by a wand as the application connects them. First the
    // flood: 20,000 datagrams a second for ten seconds from the wand simulator
    // (one mapped tag among nine unknown ones) while a stand-in for the audio
    // callback drains the player's serial ring every 6 ms: the note struck
    // first sounds undisturbed, the log stays small and the listener answers.
    // (A full ring drops what does not fit without waiting: tst_commandring.)
    // Then a sender faster than the listener (slowed down by a receiver that
    // takes its time) must not keep it from stopping: the stop flag is looked
    // at between datagrams too.
    void underLoad()
    {
        // The step of "vstep": a power of two, so that every sum of steps is
        // exact and twenty thousand of them stay within the volume's range.
        constexpr float VSTEP = 1.0f / 8192.0f;
        // Long enough for the budget to carry a full ring out.
        const double FULL_RING_SECONDS = OfflinePlayer::BUFFER_SECONDS *
            (PdMessageBuffer::CAPACITY / PdPlayer::commandBudget(OfflinePlayer::BUFFER_FRAMES) + 2);
        UdpListener listener;
        connect(&listener, &UdpListener::eventReceived, &mPlayer, &PdPlayer::queueEventSerial,
                Qt::DirectConnection);
        QVERIFY(start(listener));
        QVERIFY(sendTag("04a1b2c3d4"));
        QVERIFY(waitForEvents(1));
        OfflinePlayer::runBuffer(mPlayer);
        QCOMPARE(mToggles, QStringList{"3/2 on"});
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
        QVERIFY(wandProbe(locked(sEvents).size() + 1));
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

        QCOMPARE(mToggles, QStringList{"3/2 on"});

        connect(
            &listener, &UdpListener::eventReceived, this, [] { QThread::usleep(100); },
            Qt::DirectConnection);
        tool.start(toolPath(), {"--port", QString::number(mPort), "--rate", "1000000", "--repeat",
                                "0", "-q", "vstep"});
        QVERIFY(waitForEvents(locked(sEvents).size() + 1000)); // the listener is behind
        listener.term();
        QVERIFY(listener.isFinished());
    } // the tool, started here, ends with its QProcess

    // Every address with the argument types it takes; then what does not
    // fit, each logged (the first of a kind as it stands, the rest counted)
    // and without effect.
    void messages()
    {
        OscInput input;
        QVERIFY(start(input));
        QSignalSpy recordRequests(&mPlayer, &PdPlayer::recordRequested);
        send(OSC("/arbo/record", "i", 1));
        send(OSC("/arbo/toggle", "s", "/3/-5"));
        send(oscBundle({OSC("/arbo/event", "if", ArboEvent::VoiceVolume, 0.75)}));
        send(OSC("/arbo/tag", "s", "BASE432"));
        send(OSC("/arbo/tag", "S", "cue2"));
        send(OSC("/arbo/note", "si", "/5", 1));
        QVERIFY(oscProbe());
        QCOMPARE(mToggles, (QStringList{"6/5 on", "3/2 on", "5/4 on"}));
        QCOMPARE(mPlayer.voiceVolume(), 0.75f);
        QCOMPARE(mPlayer.baseFrequency(), 432.0f);
        QVERIFY(heldVoice("/5"));
        QCOMPARE(recordRequests.takeFirst().value(0).toInt(), int(CommandDispatcher::RecordStart));

        send(OSC("/arbo/record", ""));
        send(OSC("/arbo/note", "sd", "/5", 0.0));
        send(OSC("/arbo/event", "dh", double(ArboEvent::BaseFrequency), int64_t(440)));
        send(OSC("/fader/1", "f", 0.25));
        send(OSC("/pad/1", "T"));
        QVERIFY(oscProbe());
        QVERIFY(!heldVoice("/5"));
        QCOMPARE(mPlayer.baseFrequency(), 440.0f);
        QCOMPARE(mPlayer.voiceVolume(), 0.5f);
        QVERIFY(heldVoice("/7"));
        QCOMPARE(recordRequests.takeFirst().value(0).toInt(), int(CommandDispatcher::RecordToggle));
        send(OSC("/pad/1", "i", 0));
        send(OSC("/quiet", ""));
        QVERIFY(oscProbe());
        QVERIFY(!heldVoice("/7"));
        QCOMPARE(mPlayer.voiceVolume(), 0.125f);

        const QList<QByteArray> unfit = {
            OSC("/arbo/toggle", "i", 3),       OSC("/arbo/toggle", "s", "/4"),
            OSC("/arbo/toggle", "ss", "/3", "/5"), OSC("/arbo/event", "sf", "6", 1.0),
            OSC("/arbo/event", "i", 6),        OSC("/arbo/event", "if", 6, double(NAN)),
            OSC("/arbo/event", "ff", 2.5, 1.0), OSC("/arbo/event", "iT", 6),
            OSC("/arbo/tag", "i", 1),          OSC("/arbo/note", "s", "/5"),
            OSC("/arbo/note", "si", "5\n", 1), OSC("/fader/1", "s", "loud"),
            OSC("/arbo/record", "s", "on")};
        for (const int refused : {0, 19, 20, 21, 22, ArboEvent::LAST_TYPE + 1, -1}) {
            send(OSC("/arbo/event", "if", refused, 1.0));
        }
        for (const QByteArray& packet : unfit) {
            send(packet);
        }
        for (const char* address : {"/nowhere", "/*", "/fader/1/", "/arbo"}) {
            send(OSC(address, "f", 1.0));
        }
        send(OSC("/arbo/tag", "s", "unknown\x1b[2J"));
        const QStringList toggles = mToggles;
        QVERIFY(oscProbe());
        input.term();
        QVERIFY(input.isFinished());
        QCOMPARE(mToggles, toggles);
        QCOMPARE(mPlayer.voiceVolume(), 0.125f);
        QCOMPARE(loggedCount("Ignoring OSC message ",
                             "with unusable arguments were ignored (warnings suppressed)"),
                 7LL + unfit.size());
        QCOMPARE(loggedCount("OSC address ", "to unknown addresses were ignored (warnings suppressed)"),
                 4LL);
        const QStringList lines = loggedLines();
        QVERIFY2(lines.contains("Ignoring OSC message /arbo/event ,if: event 0, value 1 asks for "
                                "event 0, which needs a path (a \"value\" such as \"/3/-5\")"),
                 qPrintable(lines.join('\n')));
        QVERIFY(lines.contains("OSC address /nowhere is not in the input map. Ignoring."));
        QVERIFY(lines.contains("OSC tag unknown\\x1b[2J not found in mapping table. Ignoring."));
    }

    // No thread and no port without "oscPort"; a port that is taken ends the
    // thread with a warning, and nothing else.
    void cannotOpen()
    {
        OscInput off;
        QVERIFY(!off.open(&mPlayer, InputMap::Bindings()));
        QVERIFY(!off.isRunning() && !off.isFinished());

        QUdpSocket taken;
        QVERIFY(taken.bind(QHostAddress::Any, 0, QUdpSocket::DontShareAddress));
        InputMap::Bindings bindings;
        bindings.oscPort = taken.localPort();
        OscInput input;
        QSignalSpy failed(&input, &OscInput::fatalError);
        QVERIFY(input.open(&mPlayer, bindings));
        QVERIFY(!failed.isEmpty() || failed.wait(10000)); // from the OSC thread
        const QString text = failed.at(0).at(0).toString();
        QCOMPARE(text, QStringLiteral("Can't open UDP port %1 for OSC (cannot find free port). "
                                      "OSC input is off.")
                           .arg(taken.localPort()));
        QVERIFY(input.wait(10000));
        QVERIFY(TestSupport::logged(text));
    }

    // Random bytes, prefixes of well-formed packets, type tags that promise
    // other arguments than the packet carries, and hostile bundles, while a
    // held note sounds. The seed is fixed so that a failure replays.
    void hostilePackets()
    {
        OscInput input;
        QVERIFY(start(input));
        send(OSC("/arbo/note", "si", "/11", 1));
        QVERIFY(oscProbe());
        const std::int32_t held = heldVoice("/11");
        QVERIFY(held != 0);

        const QByteArray message = OSC("/fader/1", "f", 0.5);
        const QList<QByteArray> wellFormed = {
            OSC("/arbo/toggle", "s", "/3/-5"),
            OSC("/arbo/event", "if", 3, 0.0),
            OSC("/arbo/tag", "s", "x"),
            message,
            oscBundle({message}),
            oscBundle({oscBundle({message})}),
        };
        std::mt19937 random(20240611);
        const char TYPES[] = "ifsbhtdScrmTFNI[]x";
        for (int round = 0; round < 400; ++round) {
            for (const QByteArray& packet : wellFormed) {
                send(packet.left(int(random() % quint32(packet.size()))));
                QByteArray retyped = packet;
                for (int i = packet.indexOf(',') + 1; i > 0 && packet[i] != '\0'; ++i) {
                    retyped[i] = TYPES[random() % (sizeof TYPES - 1)];
                }
                send(retyped);
            }
            QByteArray noise(int(random() % 600), '\0');
            std::generate(noise.begin(), noise.end(), [&random] { return char(random()); });
            send(noise);
            send("/x" + noise);
            send(oscBundle({message}).left(16) + noise); // element sizes from the noise
            send(oscBundle({message}).insert(16, QByteArray::fromHex("7ffffff0")));
            if (round % 10 == 9) { // before the socket's queue is full
                QVERIFY(oscProbe());
            }
        }
        QCOMPARE(heldVoice("/11"), held);
        input.term();
        // The throttles allow a line and a summary a second for each of the
        // three kinds of warning.
        QVERIFY2(loggedLines().size() <= 8 + 6 * int(mSince.elapsed() / 1000 + 1),
                 qPrintable(loggedLines().join('\n')));
    }
};

ARBO_TEST_MAIN(TestInputs)
#include "tst_inputs.moc"
