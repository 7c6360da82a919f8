// MIDI in: the parser against the standard's rules; random bytes through the
// parser into the real player; the live path (a JACK MIDI client of this test
// -> a private JACK server -> RtMidi -> the player on its audio callback); the
// ports of "midiPorts" coming and going; and the whole program playing from a
// keyboard that it connected by itself.

#include "audioanalysis.h"
#include "input/inputmap.h"
#include "jackfixture.h"
#include "jackmidisender.h"
#include "jackplayback.h"
#include "midi/midiinparser.h"
#include "midi/midiinput.h"
#include "model/arbo.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QtTest>

#include <functional>
#include <random>

using Bytes = JackMidiSender::Bytes;

namespace {

InputMap::Bindings defaultBindings()
{
    InputMap map;
    map.initWithDefaults();
    return map.bindings();
}

// Sends `bytes` again and again until `done`, for at most 20 s: a JACK server
// without real-time scheduling drops the MIDI of a client that misses its
// period, which a busy machine makes happen. Only for messages that may
// arrive twice (a note-on of a sounding note, a note-off of a silent one, a
// controller's value).
bool sendUntil(JackMidiSender& keys, const Bytes& bytes, const std::function<bool()>& done)
{
    QElapsedTimer timer;
    timer.start();
    do {
        keys.send(bytes);
        if (QTest::qWaitFor(done, 1000)) {
            return true;
        }
    } while (timer.elapsed() < 20000);
    return false;
}

} // namespace

class TestMidiIn : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;
    Arbo mArbo;
    // What the player's signals reported, on this thread: notes ("1/1 on"),
    // volumes, voice volumes.
    QStringList mNotes;
    QList<float> mVolumes;
    QList<float> mVoiceVolumes;

    // Takes in what the player has reported so far, then forgets it.
    void forgetReports()
    {
        QCoreApplication::sendPostedEvents();
        mNotes.clear();
        mVolumes.clear();
        mVoiceVolumes.clear();
    }

private slots:
    void initTestCase()
    {
        // As in a performance: no note-by-note debug lines.
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
        TestSupport::captureLog(true);
        OfflinePlayer::setUp(mPlayer, mArbo, "Sine.pd");
        QVERIFY(!QTest::currentTestFailed());
        // Queued: the player emits on the audio thread.
        const auto note = [this](const ArboRatio& ratio, bool on) {
            mNotes << ratio.toString() + (on ? " on" : " off");
        };
        const auto queued = Qt::QueuedConnection;
        connect(&mPlayer, &PdPlayer::noteToggled, this, note, queued);
        connect(&mPlayer, &PdPlayer::volumeChanged, this, [this](float v) { mVolumes << v; }, queued);
        connect(&mPlayer, &PdPlayer::voiceVolumeChanged, this, [this](float v) { mVoiceVolumes << v; },
                queued);
    }

    void parser_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("messages");
        QTest::addColumn<int>("malformed");
        const auto row = [](const char* name, const char* bytes, const char* messages, int malformed) {
            QTest::newRow(name) << QByteArray(bytes) << QString(messages) << malformed;
        };
        row("note on, off", "904564 804540", "on 0 69 100|off 0 69 64", 0);
        row("running status, velocity 0 is off",
            "9345644764 4500 4700", "on 3 69 100|on 3 71 100|off 3 69 0|off 3 71 0", 0);
        row("real-time inside messages",
            "90f845fe64 fab0 07f9 7f ff 4500", "on 0 69 100|cc 0 7 127|cc 0 69 0", 0);
        row("all channel voice messages", "af4001 c205 d340 e40040 8f0000",
            "poly 15 64 1|program 2 5 0|pressure 3 64 0|bend 4 0 64|off 15 0 0", 0);
        row("SysEx skipped, running status cancelled",
            "904564 f07e0045 90 f7 4564 b0077f", "on 0 69 100|cc 0 7 127", 2);
        row("SysEx ended by a status byte", "f0010203 904564", "on 0 69 100", 0);
        row("system common with data bytes",
            "f145 b00740 f20102 0741 f305 f6 45 f4 f5 45", "cc 0 7 64", 4);
        row("stray end of SysEx cancels running status", "904564 f7 4564", "on 0 69 100", 2);
        row("data without status", "4564 904564", "on 0 69 100", 2);
        row("status abandons a partial message", "9045 b10740 c1", "cc 1 7 64", 1);
        row("real-time between status and data", "f1 f8 10 90 f8 45 64", "on 0 69 100", 0);
    }

    void parser()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, messages);
        QFETCH(int, malformed);
        static const char* const names[] = {"off",     "on",       "poly", "cc",
                                            "program", "pressure", "bend"};
        MidiInParser parser;
        MidiInParser::Message m;
        QStringList got;
        for (const char byte : QByteArray::fromHex(bytes.replace(' ', ""))) {
            if (parser.feed(std::uint8_t(byte), m)) {
                got << QString::asprintf("%s %d %d %d", names[(m.type >> 4) - 8], m.channel,
                                         m.data1, m.data2);
            }
        }
        QCOMPARE(got.join(QLatin1Char('|')), messages);
        QCOMPARE(int(parser.takeMalformed()), malformed);
        QCOMPARE(parser.takeMalformed(), 0u);
    }

    // Without any MIDI system the input stays off and says why. Its own path
    // still takes bytes into the real player: a running status across
    // events, then random bytes in random chunks with a note that a click
    // holds: nothing crashes, the note sounds on, and the malformed input is
    // reported.
    void noSystemAndFuzz()
    {
        JackFixture::applyNoDeviceToThisProcess();
        MidiInput input;
        input.attach(&mPlayer);
        TestSupport::clearLog();
        QVERIFY(!input.open(defaultBindings()));
        QVERIFY2(input.status().startsWith(QLatin1String("No MIDI system")),
                 qPrintable(input.status()));
        QVERIFY(TestSupport::loggedLines().join('\n').contains(QLatin1String("MIDI input is off")));

        // Running status across events (RtMidi hands them over one by one),
        // on channel 16, note-offs as note-ons of velocity 0, a clock byte.
        const QString key71 = ArboRatio::pathRatio(defaultBindings().midiNotes[71].path()).toString();
        forgetReports();
        for (const Bytes& event : {Bytes{0x9f, 69}, Bytes{100, 71, 0xf8, 100}, Bytes{69, 0, 71, 0}}) {
            input.feed(event.data(), event.size());
            OfflinePlayer::runBuffer(mPlayer);
        }
        QCoreApplication::sendPostedEvents();
        QCOMPARE(mNotes, (QStringList{"1/1 on", key71 + " on", "1/1 off", key71 + " off"}));

        const ArboNoteEvent click(QStringLiteral("/"));
        mPlayer.queueEventGui(&click);
        OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS);
        auto heldVoice = [this] { return OfflinePlayer::voiceOf(mPlayer, ArboRatio(1, 1)); };
        const int held = heldVoice();
        QVERIFY(held >= 0);
        const std::int32_t heldSeq = mPlayer.voices()[held].seqId;

        // About one note-on in 340 random bytes lands on a bound key. A buffer
        // every 25 bytes keeps the notes that random offs leave releasing well
        // inside the 128 voices (with a longer release a random macro chose),
        // so no voice is stolen.
        std::mt19937 random(20240611);
        std::uniform_int_distribution<int> byte(0, 255);
        std::uniform_int_distribution<int> chunk(1, 49);
        std::uint8_t bytes[64];
        for (int round = 0; round < 4000; ++round) {
            const int size = chunk(random);
            for (int i = 0; i < size; ++i) {
                bytes[i] = std::uint8_t(byte(random));
            }
            input.feed(bytes, std::size_t(size));
            OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS);
        }
        QVERIFY(input.messagesReceived() > 1000 && input.eventsQueued() > 100);
        QCOMPARE(heldVoice(), held);
        QCOMPARE(mPlayer.voices()[held].seqId, heldSeq);
        TestSupport::clearLog();
        input.checkInput();
        const QString report = TestSupport::loggedLines().join('\n');
        QVERIFY2(report.contains(QLatin1String("malformed")) && report.count('\n') <= 1,
                 qPrintable(report));

        const ArboEvent stop(ArboEvent::AllNotesOff, 0.0f);
        mPlayer.queueEventGui(&stop);
        OfflinePlayer::render(mPlayer, 1.0);
        forgetReports();
    }

    // The live path on JACK, with the player on its audio callback.
    void jackPlaysThePlayer()
    {
        JackPlayback playback;
        QVERIFY2(playback.start(&mPlayer, TestSupport::binDir() + "/patches/Sine.pd", 44100, 256),
                 qPrintable(playback.error()));
        JackMidiSender keys;
        QVERIFY(keys.open(QStringLiteral("arbo-keys")));

        // The input connects the keyboard by a part of its name, in any case.
        InputMap::Bindings bindings = defaultBindings();
        bindings.midiPorts = QStringList{QStringLiteral("ARBO-KEYS")};
        bindings.midiVelocity = true;
        MidiInput input;
        input.attach(&mPlayer);
        QVERIFY2(input.open(bindings, MidiInput::Api::Jack), qPrintable(input.status()));
        QCOMPARE(input.connectedPorts(), QStringList{keys.portName()});
        QVERIFY2(input.status().contains(QLatin1String("(JACK), connected to arbo-keys:out")),
                 qPrintable(input.status()));
        QVERIFY(input.portName().startsWith(QLatin1String("Merrow Tuning Arbo")));
        QTRY_COMPARE_WITH_TIMEOUT(keys.connections(), 1, 10000);

        // Note 69 is the 1/1, while held; its velocity sets the voice volume
        // first.
        forgetReports();
        QVERIFY(sendUntil(keys, {0x90, 69, 127}, [&] { return !mNotes.isEmpty(); }));
        QVERIFY(!mVoiceVolumes.isEmpty() && mVoiceVolumes.count(1.0f) == mVoiceVolumes.size());
        QVERIFY(sendUntil(keys, {0x80, 69, 64}, [&] { return mNotes.size() >= 2; }));
        QCOMPARE(mNotes, (QStringList{"1/1 on", "1/1 off"}));

        // Controller 7 is the master volume.
        forgetReports();
        QVERIFY(sendUntil(keys, {0xb5, 7, 64}, [&] { return !mVolumes.isEmpty(); }));
        QCOMPARE(mVolumes.back(), 64.0f / 127.0f);

        // A flood at the highest rate JACK MIDI carries, for ten seconds, with
        // the 1/1 held: its key again and again, a key and a pitch bend that
        // play nothing, clock bytes. The 1/1 sounds on, the log gets a line a
        // second at most of each kind, and the input answers at once after.
        QVERIFY(sendUntil(keys, {0x90, 69, 100}, [&] { return mNotes.contains("1/1 on"); }));
        const std::uint64_t before = input.messagesReceived();
        TestSupport::clearLog();
        forgetReports();
        keys.flood({{0x90, 69, 100}, {0x91, 10, 100}, {0xe0, 0, 64}, {0xf8}, {0x81, 10, 0}});
        QElapsedTimer flood;
        flood.start();
        while (flood.elapsed() < 10000) {
            QTest::qWait(250);
            QVERIFY(mPlayer.soundingNoteCount() >= 1);
        }
        keys.stopFlood();
        const std::uint64_t received = input.messagesReceived() - before;
        const QStringList floodLog = TestSupport::loggedLines();
        qInfo() << "flood:" << keys.eventsWritten() << "events written," << received
                << "messages received," << floodLog.size() << "lines logged";
        QVERIFY(received > 100000);
        QVERIFY2(floodLog.size() <= 40, qPrintable(floodLog.join('\n')));
        QVERIFY2(!mNotes.contains(QLatin1String("1/1 off")), qPrintable(mNotes.join(',')));
        forgetReports();
        QVERIFY(sendUntil(keys, {0x80, 69, 0}, [&] { return !mNotes.isEmpty(); }));
        QCOMPARE(mNotes, QStringList{"1/1 off"});

        input.close();
        QCOMPARE(input.status(), QStringLiteral("MIDI input is off"));
    }

    // The ports of "midiPorts" come and go while the input is open: one that
    // goes is let go of and connected again when it is back; a text that no
    // port matches is said once, and again only after a port had matched it.
    void wantedPortsComeAndGo()
    {
        JackFixture jack;
        QVERIFY2(jack.start(), qPrintable(jack.error()));
        jack.applyToThisProcess();
        InputMap::Bindings bindings = defaultBindings();
        bindings.midiPorts = QStringList{QStringLiteral("arbo-pads"), QStringLiteral("nowhere")};
        TestSupport::clearLog();
        MidiInput input;
        QVERIFY2(input.open(bindings, MidiInput::Api::Jack), qPrintable(input.status()));
        QVERIFY(input.connectedPorts().isEmpty());

        JackMidiSender pads;
        QVERIFY(pads.open(QStringLiteral("arbo-pads")));
        const QString port = pads.portName();
        QTRY_COMPARE_WITH_TIMEOUT(input.connectedPorts(), QStringList{port}, 10000);
        QTRY_VERIFY2_WITH_TIMEOUT(input.status().contains(QLatin1String("connected to ") + port),
                                  qPrintable(input.status()), 5000);
        pads.close();
        QTRY_VERIFY_WITH_TIMEOUT(input.connectedPorts().isEmpty(), 10000);
        QVERIFY(pads.open(QStringLiteral("arbo-pads")));
        QCOMPARE(pads.portName(), port);
        QTRY_COMPARE_WITH_TIMEOUT(input.connectedPorts(), QStringList{port}, 10000);
        input.close();

        const QStringList log = TestSupport::loggedLines();
        auto count = [&log](const QString& text) { return log.filter(text).size(); };
        QCOMPARE(count(QStringLiteral("connected \"%1\" (for \"arbo-pads\")").arg(port)), 2);
        QCOMPARE(count(QStringLiteral("\"%1\" has gone").arg(port)), 1);
        QCOMPARE(count(QStringLiteral("no port matches \"arbo-pads\"")), 2);
        QCOMPARE(count(QStringLiteral("no port matches \"nowhere\"")), 1);
    }

    // The whole program: the port of "midiPorts" is connected at start-up,
    // note 69 sounds the 1/1 at 440 Hz until its note-off; after the JACK
    // server went and came back, it plays again; it shuts down cleanly.
    void programPlaysFromMidi()
    {
        JackFixture jack;
        QVERIFY2(jack.start(), qPrintable(jack.error()));
        jack.applyToThisProcess();
        JackMidiSender keys;
        QVERIFY(keys.open(QStringLiteral("arbo-keys")));
        ProgramOnJack program(
            jack, {{InputMap::FILE_NAME,
                    R"({"midiPorts": ["arbo-keys"], "midiNotes": {"69": {"value": "/"}}})"}});
        QVERIFY(program.start());
        const auto log = [&program] { return program.log(); };
        const QString connected = QStringLiteral("MIDI input: connected \"arbo-keys:out\"");
        for (int round = 1; round <= 2; ++round) {
            QTRY_VERIFY2_WITH_TIMEOUT(
                log().count(connected) == round &&
                    jack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0"), 0),
                qPrintable(log()), 30000);
            QTRY_COMPARE_WITH_TIMEOUT(keys.connections(), 1, 10000);
            // A note-on (off) the server dropped is sent again (see sendUntil()).
            QVERIFY2(sendUntil(keys, {0x90, 69, 100}, [&] { return jack.hears(440.0, 0, 0); }),
                     qPrintable(jack.error()));
            QVERIFY2(sendUntil(keys, {0x80, 69, 64}, [&] { return jack.hearsSilence(0); }),
                     qPrintable(jack.error()));
            if (round == 2) {
                break;
            }
            // The server goes and comes back (restarted by hand, say): the
            // input opens again by itself and connects the keyboard again.
            // (The audio output may leave a stream of the lost server behind,
            // a critical line.)
            QVERIFY2(!log().contains(QLatin1String("CRITICAL")), qPrintable(log()));
            jack.killServer();
            keys.abandon();
            QTRY_VERIFY2_WITH_TIMEOUT(
                log().contains(QLatin1String("input is off until it is back")), qPrintable(log()),
                15000);
            QVERIFY2(jack.restartServer(), qPrintable(jack.error()));
            QVERIFY(keys.open(QStringLiteral("arbo-keys")));
        }
        QVERIFY(program.terminate() >= 0);
    }
};

ARBO_TEST_MAIN(TestMidiIn)
#include "tst_midiin.moc"
