// OSC input for real: the receiver thread (liblo) on a port of 127.0.0.1, fed
// by UDP datagrams, into the real player with the shell patches and the Sine
// voice, run offline by this thread. A probe message whose effect is visible
// (a master volume of its own) follows the messages under test: the receiver
// handles packets in order, so once the probe is carried out, everything
// before it has been.

#include "input/inputmap.h"
#include "model/arbo.h"
#include "model/arboevent.h"
#include "offlineplayer.h"
#include "osc/oscinput.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QSignalSpy>
#include <QUdpSocket>

#include <lo/lo.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace {

using TestSupport::loggedCount;
using TestSupport::oscBundle;
using TestSupport::loggedLines;

const QByteArray INPUT_MAP = R"({
    "osc": { "/fader/1": {"event": 4, "min": 0, "max": 2},
             "/pad/1":   {"value": "/7"},
             "/quiet":   {"event": 4, "value": 0.125} } })";
const QByteArray RFID_MAP = R"({
    "04a1b2c3d4": {"event": 9, "value": 432},
    "cue2":       {"event": 0, "value": "/3"} })";

} // namespace

class TestOscIn : public QObject
{
    Q_OBJECT

private:
    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    QUdpSocket mSender;
    quint16 mPort = 0;
    int mProbes = 0;
    QStringList mToggles; // "3/2 on", as the player reported them
    QElapsedTimer mSince; // since the test began

    // Starts `input` on a free port with the test's input map.
    bool start(OscInput& input)
    {
        mPort = TestSupport::freeUdpPort();
        InputMap map;
        map.read(QJsonDocument::fromJson(INPUT_MAP).object());
        InputMap::Bindings bindings = map.bindings();
        bindings.oscPort = mPort;
        QSignalSpy listening(&input, &OscInput::listening);
        return input.open(&mPlayer, bindings) && listening.wait(10000);
    }
    void send(const QByteArray& packet)
    {
        mSender.writeDatagram(packet, QHostAddress::LocalHost, mPort);
    }
    void render() { OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS); }

    // Sends a master volume of its own until the player has it (in a flood,
    // a copy may find the socket's queue full).
    bool probe()
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

    // The throttles allow a line and a summary a second per kind of warning.
    bool logBounded(int kinds) const
    {
        return loggedLines().size() <=
               8 + 2 * kinds * int(mSince.elapsed() / 1000 + 1);
    }

private slots:
    void initTestCase()
    {
        TestSupport::captureLog();
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
        OfflinePlayer::setUp(mPlayer, mArbo, "Sine.pd");
        QVERIFY(!QTest::currentTestFailed());
        QVERIFY(TestSupport::writeFile(TestSupport::configDir() + "/rfid_map.json", RFID_MAP));
        connect(&mPlayer, &PdPlayer::noteToggled, this, [this](const ArboRatio& ratio, bool on) {
            mToggles << ratio.toString() + (on ? " on" : " off");
        });
    }

    void init()
    {
        TestSupport::clearLog();
        mSince.start();
    }

    // Every address with the argument types it takes; then what does not
    // fit, each logged (the first of a kind as it stands, the rest counted)
    // and without effect.
    void messages()
    {
        OscInput input;
        QVERIFY(start(input));
        send(OSC("/arbo/toggle", "s", "/3/-5"));
        send(oscBundle({OSC("/arbo/event", "if", ArboEvent::VoiceVolume, 0.75)}));
        send(OSC("/arbo/tag", "s", "04A1B2C3D4"));
        send(OSC("/arbo/tag", "S", "cue2"));
        send(OSC("/arbo/note", "si", "/5", 1));
        QVERIFY(probe());
        QCOMPARE(mToggles, (QStringList{"6/5 on", "3/2 on", "5/4 on"}));
        QCOMPARE(mPlayer.voiceVolume(), 0.75f);
        QCOMPARE(mPlayer.baseFrequency(), 432.0f);
        QVERIFY(heldVoice("/5"));

        send(OSC("/arbo/note", "sd", "/5", 0.0));
        send(OSC("/arbo/event", "dh", double(ArboEvent::BaseFrequency), int64_t(440)));
        send(OSC("/fader/1", "f", 0.25));
        send(OSC("/pad/1", "T"));
        QVERIFY(probe());
        QVERIFY(!heldVoice("/5"));
        QCOMPARE(mPlayer.baseFrequency(), 440.0f);
        QCOMPARE(mPlayer.voiceVolume(), 0.5f);
        QVERIFY(heldVoice("/7"));
        send(OSC("/pad/1", "i", 0));
        send(OSC("/quiet", ""));
        QVERIFY(probe());
        QVERIFY(!heldVoice("/7"));
        QCOMPARE(mPlayer.voiceVolume(), 0.125f);

        const QList<QByteArray> unfit = {
            OSC("/arbo/toggle", "i", 3),       OSC("/arbo/toggle", "s", "/4"),
            OSC("/arbo/toggle", "ss", "/3", "/5"), OSC("/arbo/event", "sf", "6", 1.0),
            OSC("/arbo/event", "i", 6),        OSC("/arbo/event", "if", 6, double(NAN)),
            OSC("/arbo/event", "ff", 2.5, 1.0), OSC("/arbo/event", "iT", 6),
            OSC("/arbo/tag", "i", 1),          OSC("/arbo/note", "s", "/5"),
            OSC("/arbo/note", "si", "5\n", 1), OSC("/fader/1", "s", "loud")};
        for (const int refused : {0, 19, 20, 21, 22, 23, -1}) {
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
        QVERIFY(probe());
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
        QVERIFY(failed.wait(10000));
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
        QVERIFY(probe());
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
                QVERIFY(probe());
            }
        }
        QCOMPARE(heldVoice("/11"), held);
        input.term();
        QVERIFY2(logBounded(3), qPrintable(loggedLines().join('\n')));
    }
};

ARBO_TEST_MAIN(TestOscIn)
#include "tst_oscin.moc"
