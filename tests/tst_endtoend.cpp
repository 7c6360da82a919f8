// What a private JACK server on the dummy driver hears, its output recorded
// with jack_capture and analysed. The audio output of this process on
// PortAudio, with the real libpd running the patches; tests that need to see
// single buffers drive the stream callback directly with their own buffers
// while no stream runs (as the audio thread would, one buffer at a time). And
// the real program end to end, its pitch measured: played by the wand
// simulator arbo-wand over UDP and a JACK MIDI keyboard of this test, and
// under OSC input meant to hurt it, as an attacker on the local network would
// send it. A wand port that is already taken is checked in a child process of
// this test that runs the application with its message boxes answered, so
// that the box's text can be read.

#include "app/tuningarboapplication.h"
#include "audioanalysis.h"
#include "jackfixture.h"
#include "jackmidisender.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "sound/denormals.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QUdpSocket>

#include <z_libpd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <thread>

namespace {

// A Pd patch of the tests' own, for what the instrument's patches do not show
// directly: on the left, the number of samples computed since DSP went on (1,
// 2, 3, ...); on the right 1e-20 squared, 1e-40, a denormal. It listens on
// "query-macros" only so that the player's query after opening has a
// receiver.
const char* const TEST_PATCH = "#N canvas 0 50 450 300 12;\n#X obj 20 20 sig~ 1;\n"
                               "#X obj 20 50 rpole~ 1;\n#X obj 20 80 dac~;\n"
                               "#X obj 150 20 r query-macros;\n#X obj 150 50 sig~ 1e-20;\n"
                               "#X obj 150 80 *~ 1e-20;\n#X connect 0 0 1 0;\n"
                               "#X connect 1 0 2 0;\n#X connect 4 0 5 0;\n#X connect 5 0 2 1;\n";


const char* const CHILD_FLAG = "--wand-child";

const QByteArray NOTE_TAG = "04A1B2C3D4";      // the note at /3: 3/2 above the 1/1
const QByteArray TRANSPOSE_TAG = "04a1b2c3d5"; // up by the prime 5 (5/4)
const QByteArray BASE_432_TAG = "04a1b2c3d6";  // the 1/1 at 432 Hz
// "zero" would silence everything: it is skipped at load.
const QByteArray RFID_MAP = R"({
    "04a1b2c3d4": {"event": 0, "value": "/3"},
    "04a1b2c3d5": {"event": 2, "value": 5},
    "04a1b2c3d6": {"event": 9, "value": 432},
    "zero":       {"event": 9, "value": 0}
})";

// The child: start-up as main() does it, every message box answered and its
// text printed. Once the listener has given up and its box is answered, a
// note is queued as a click on a ball queues it, to show that the mouse
// still plays; then the program shuts down. (Should the note never come, the
// test stops the child after its time-out.)
int runChild(int argc, char** argv)
{
    std::vector<char*> args = TestSupport::childArguments(argc, argv);
    int count = int(args.size());
    TuningArboApplication app(count, args.data());
    TestSupport::MessageBoxAnswerer answerer;
    if (!app.init()) {
        return 1;
    }
    for (QDeadlineTimer wait(20000); answerer.answered() == 0 && !wait.hasExpired();) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    QObject::connect(
        &app.mPlayer, &PdPlayer::noteToggled, &app,
        [](const ArboRatio& ratio, bool on) {
            TestSupport::printLine(
                QStringLiteral("NOTE %1 %2").arg(ratio.toString(), on ? "ON" : "OFF"));
            QCoreApplication::quit();
        },
        Qt::QueuedConnection);
    const ArboNoteEvent click(QStringLiteral("/3"));
    app.mPlayer.queueEventGui(&click);
    const int code = app.exec();
    app.term();
    return code;
}

// The configuration files of a program with wands on `udp`, `map` as the
// tag map, and OSC on `osc` and the keyboard "arbo-keys" playing the 1/1 with
// key 69 (neither when `map` is empty or `osc` 0).
QMap<QString, QByteArray> files(const QByteArray& map, quint16 udp, quint16 osc)
{
    QMap<QString, QByteArray> files{{"options.json", "{\"udpPort\": " + QByteArray::number(udp) + "}"}};
    if (osc != 0) {
        files.insert("input_map.json", "{\"oscPort\": " + QByteArray::number(osc) +
                                           R"(, "midiPorts": ["arbo-keys"],)" +
                                           R"( "midiNotes": {"69": {"value": "/"}}})");
    }
    if (!map.isEmpty()) {
        files.insert("rfid_map.json", map);
    }
    return files;
}

// The real program with a configuration folder of its own: wands on
// `udpPort` with `map` as the tag map, OSC on `oscPort`.
struct Program : ProgramOnJack
{
    Program(const JackFixture& jack, const QByteArray& map = RFID_MAP,
            quint16 udp = TestSupport::freeUdpPort(), quint16 osc = TestSupport::freeUdpPort())
        : ProgramOnJack(jack, files(map, udp, osc)), udpPort(udp), oscPort(osc)
    {
    }
    // Waits until it listens to the wands and OSC, has its patch open and is
    // connected to the server.
    bool startPlayable(const JackFixture& jack)
    {
        return start({QStringLiteral("UDP socket opened on port %1").arg(udpPort),
                      "OSC input listening", "Opening PD patch"}) &&
               jack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0"));
    }
    // Runs arbo-wand, sending `tags`; its exit code.
    int wand(const QStringList& tags) const
    {
        return QProcess::execute(TestSupport::binDir() + QStringLiteral("/arbo-wand"),
                                 QStringList{"--quiet", "--port", QString::number(udpPort)} + tags);
    }
    void sendOsc(const QByteArray& datagram)
    {
        QUdpSocket().writeDatagram(datagram, QHostAddress::LocalHost, oscPort);
    }

    quint16 udpPort;
    quint16 oscPort;
};

} // namespace

class TestEndToEnd : public QObject
{
    Q_OBJECT

    JackFixture mJack;
    JackFixture mSecondJack; // for the test of another server, at 48 kHz
    PdPlayer mPlayer;
    QTemporaryDir mPatchDir;
    std::unique_ptr<PaAudioOutput> mOutput; // a fresh one for each test

    // The output without a device, so that the test renders itself, as the
    // audio thread would, with TEST_PATCH loaded.
    bool openForCallback()
    {
        const QString path = mPatchDir.filePath(QStringLiteral("test.pd"));
        mOutput->setPlayer(&mPlayer);
        return !mOutput->isStreamRunning() && TestSupport::writeFile(path, TEST_PATCH) &&
               mPlayer.loadPatch(QFileInfo(path));
    }

    // Runs one buffer, filled with `fill`, through the render entry point of
    // the stream callback.
    QVector<float> renderBuffer(int frames, float fill = 0.5f)
    {
        QVector<float> buffer(frames * 2, fill);
        mOutput->render(buffer.data(), frames);
        mPlayer.deliverResults(); // as the GUI thread's timer would
        return buffer;
    }

    // Whether `jack` hears `note` at `expected` Hz on each channel while it
    // sounds (a toggle: on, then off).
    bool hears(JackFixture& jack, const ArboNoteEvent& note, double expected)
    {
        QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);
        mPlayer.queueEventGui(&note);
        const bool heard =
            toggled.wait(10000) && jack.hears(expected, 0) && jack.hears(expected, 1);
        mPlayer.queueEventGui(&note);
        return heard;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
        QVERIFY2(mJack.start(44100, 256), qPrintable(mJack.error()));
        mJack.applyToThisProcess(); // for PortAudio and the keyboard
        QVERIFY(mPlayer.init());
        QVERIFY(PatchLoader::installShellPatches());
    }

    // The output is registered for the player's mute-around-unload.
    void init() { mOutput = std::make_unique<PaAudioOutput>(); }

    // Every test ends with PortAudio ended, even when a check failed
    // half-way, and the server of the test case in force again.
    void cleanup()
    {
        mPlayer.unloadPatch();
        mOutput->term();
        mSecondJack.stop(); // only after PortAudio, its client, has ended
        mJack.applyToThisProcess();
    }

    // The histogram reads percentiles within 1/32 above the truth, the worst
    // exactly; a reset asked for while the writer runs waits for its next
    // record.
    void callbackStatsReadPercentilesAndOverruns()
    {
        for (std::int64_t value = 1; value < (std::int64_t(1) << 40); value = value * 5 / 4 + 1) {
            const std::int64_t upper =
                CallbackStats::bucketUpperNs(CallbackStats::bucketIndex(value));
            QVERIFY(upper >= value && double(upper - value) <= double(value) / 32.0);
        }
        CallbackStats stats;
        for (int i = 0; i < 1000; ++i) { // 980 × 100 us, 15 × 1 ms, 5 × 7 ms (overruns)
            stats.record(i < 980 ? 100000 : i < 995 ? 1000000 : 7000000, 5804988, i == 999);
        }
        const CallbackStats::Snapshot s = stats.snapshot();
        QVERIFY(s.callbacks == 1000 && s.overruns == 5 && s.underflows == 1);
        QVERIFY(s.percentileNs(0.98) >= 100000 && s.percentileNs(0.98) <= 103125);
        QVERIFY(s.percentileNs(0.99) >= 1000000 && s.percentileNs(0.99) <= 1031250);
        QCOMPARE(s.percentileNs(1.0), std::int64_t(7000000));
        stats.requestReset();
        QCOMPARE(stats.snapshot().callbacks, std::uint64_t(1000));
        stats.record(50000, 5804988, false);
        QVERIFY(stats.snapshot().callbacks == 1 && stats.snapshot().maxNs == 50000);
    }

    // Whatever index is asked for (the default -1, the listed device, one
    // beyond the list as when a device was unplugged, a negative one other
    // than -1), the one device there is opens: ALSA is hidden, JACK's
    // "system" is the default.
    void selectsTheListedDeviceOrFallsBackToTheDefault()
    {
        for (int requested : {-1, 0, 1, -7}) {
            mOutput->term();
            mOutput = std::make_unique<PaAudioOutput>();
            QSignalSpy selected(mOutput.get(), &AudioOutput::selectedDeviceChanged);
            QVERIFY2(mOutput->init(256, requested, &mPlayer), qPrintable(QString::number(requested)));
            QCOMPARE(mOutput->devices(), QStringList{"JACK Audio Connection Kit: system"});
            QVERIFY(selected.count() == 1 && mOutput->selectedDevice() == 0);
            // The stream runs: its callback is called.
            QTRY_VERIFY_WITH_TIMEOUT(mOutput->callbackStats().snapshot().callbacks > 10, 10000);
            // Closing keeps the selection; selecting again reopens.
            QVERIFY(mOutput->closeDevice() && !mOutput->isStreamRunning());
            QVERIFY(mOutput->selectDevice(requested) && mOutput->isStreamRunning());
            QCOMPARE(mOutput->selectedDevice(), 0);
        }
    }

    // PortAudio pointed at a JACK server nobody serves, with ALSA hidden: the
    // requested device and the default both fail, and nothing is selected.
    void initFailsWithoutAnyDevice()
    {
        JackFixture::applyNoDeviceToThisProcess();
        QSignalSpy selected(mOutput.get(), &AudioOutput::selectedDeviceChanged);
        QVERIFY(!mOutput->init(128, 3, &mPlayer));
        QVERIFY(mOutput->devices().isEmpty() && !mOutput->isStreamRunning());
        QVERIFY(mOutput->selectedDevice() == -1 && selected.count() == 0);
    }

    // Pd computes whole ticks of 64 frames; a buffer of any size takes what
    // it needs and the rest of the last tick waits for the next buffer. The
    // test patch counts samples, so every frame of every buffer must carry
    // the next count: no gap, no repeat, at sizes that are no multiple of 64.
    void anyBufferSizePlaysWithoutGaps()
    {
        QVERIFY(openForCallback());
        // The count goes on from where the patch's warm-up left it.
        float expected = renderBuffer(1)[0] + 1.0f;
        for (int frames : {256, 100, 1000, 48, 65, 1, 7, 8192}) {
            for (int round = 0; round * frames < 3 * std::max(frames, 200); ++round) {
                const QVector<float> buffer = renderBuffer(frames, 7.0f);
                for (int i = 0; i < frames; ++i, expected += 1.0f) {
                    QVERIFY2(buffer[2 * i] == expected, qPrintable(QString::number(frames)));
                }
            }
        }
    }

    // Buffer sizes typed into the options file by hand that cannot work
    // fall back to 256 frames with a warning, and the device still opens.
    void unusableBufferSizesFallBackTo256()
    {
        for (int frames : {-5, 0, 100000}) {
            QTest::ignoreMessage(
                QtWarningMsg,
                QRegularExpression(QStringLiteral("^Frames per buffer %1 cannot").arg(frames)));
            QVERIFY(mOutput->init(frames, -1, &mPlayer));
            QCOMPARE(mOutput->framesPerBuffer(), 256);
            mOutput->term();
        }
    }

    // Muted buffers are silent while the patch goes on computing.
    void muteSilencesOutputWhileThePatchRuns()
    {
        QVERIFY(openForCallback());
        const float before = renderBuffer(256)[2 * 255]; // the last frame's count
        QVERIFY(before > 0.0f);
        mOutput->mute();
        QCOMPARE(AudioAnalysis::peak(renderBuffer(256)), 0.0);
        QCOMPARE(AudioAnalysis::peak(renderBuffer(256)), 0.0);
        mOutput->unmute();
        QCOMPARE(renderBuffer(256)[2 * 255], before + 3.0f * 256.0f);
    }

    // A patch that computes a sample that is not a number (here a square
    // root of -1, once told to): that buffer is silence, the GUI thread says
    // so once, and the sound comes back as soon as the patch computes numbers
    // again.
    void notANumberNeverReachesTheDevice()
    {
        const QString path = mPatchDir.filePath(QStringLiteral("nan.pd"));
        QVERIFY(TestSupport::writeFile(path, "#N canvas 0 50 450 300 12;\n"
                                             "#X obj 20 20 r make-nan;\n#X obj 20 50 sig~;\n"
                                             "#X obj 20 80 expr~ sqrt(-$v1) + 0.25;\n"
                                             "#X obj 20 110 dac~;\n#X connect 0 0 1 0;\n"
                                             "#X connect 1 0 2 0;\n#X connect 2 0 3 0;\n"
                                             "#X connect 2 0 3 1;\n"));
        mOutput->setPlayer(&mPlayer);
        QVERIFY(mPlayer.loadPatch(QFileInfo(path)));
        QCOMPARE(renderBuffer(256)[10], 0.25f);
        libpd_float("make-nan", 1.0f);
        QCOMPARE(AudioAnalysis::peak(renderBuffer(256, 7.0f)), 0.0);
        QCOMPARE(mPlayer.silencedBuffers(), quint32(1));
        QTest::ignoreMessage(QtWarningMsg,
                             "Silenced 1 audio buffer(s) in which the patch computed a sample "
                             "that is not a finite number; its sound was reset");
        mPlayer.reportRefusedCommands();
        libpd_float("make-nan", 0.0f);
        renderBuffer(256);
        QCOMPARE(renderBuffer(256)[10], 0.25f);
        mPlayer.unloadPatch();
    }

    // Pd left to itself computes the denormal; through the callback the same
    // patch computes zeros, as the callback switches its thread to
    // flush-to-zero.
    void callbackFlushesDenormalsToZero()
    {
        QVERIFY(openForCallback());
        Denormals::Scope off(false);
        std::vector<float> buffer(2 * 64, 1.0f);
        libpd_process_float(1, nullptr, buffer.data());
        QCOMPARE(std::fpclassify(buffer[1]), FP_SUBNORMAL);
        QCOMPARE(std::fpclassify(renderBuffer(256, 1.0f)[1]), FP_ZERO); // QCOMPARE would be fuzzy
        QVERIFY(Denormals::isFlushingToZero());
    }

    // A device that refuses 44100 Hz is opened at its own rate, and Pd
    // computes at that rate: a note is heard on both channels at its pitch at
    // 48 kHz too (played at 44.1 kHz it would sound 146 cents sharp), and
    // fades to silence. (Patch changes under a live chord are tst_pdplayer's
    // and tst_playerthreads'.)
    void deviceRefusing44100IsOpenedAtItsOwnRate()
    {
        QVERIFY2(mSecondJack.start(48000, 256), qPrintable(mSecondJack.error()));
        mSecondJack.applyToThisProcess();
        QVERIFY(mOutput->init(256, -1, &mPlayer));
        QCOMPARE(mOutput->streamSampleRate(), 48000.0);
        QVERIFY(PatchLoader::loadVoice(&mPlayer, TestSupport::binDir() + "/patches/Sine.pd"));
        QVERIFY2(hears(mSecondJack, ArboNoteEvent("/3"), 660.0), qPrintable(mSecondJack.error()));
        QVERIFY2(mSecondJack.hearsSilence(), qPrintable(mSecondJack.error()));
    }

    // A tag toggles its note on and off; a transposition and a base
    // frequency tag move the next note: the pitches of the lattice. The port
    // of "midiPorts" is connected at start-up: its key 69 sounds the 1/1
    // until its note-off. The audio server goes away while a note sounds (a
    // sound server restarted, an interface pulled): the program says so,
    // opens the new server of the same name by itself, connects the keyboard
    // again, and plays again. Lost a second time, it still shuts down at
    // once on SIGTERM and keeps the 1/1 that a wand set, and the lattice; it
    // never writes the user's tag map.
    void wandsAndKeysPlayAndTheProgramSurvivesALostAudioServer()
    {
        JackMidiSender keys;
        QVERIFY(keys.open(QStringLiteral("arbo-keys")));
        Program program(mJack);
        QVERIFY(program.startPlayable(mJack));
        const auto log = [&program] { return program.log(); };
        const QString connected = QStringLiteral("MIDI input: connected \"arbo-keys:out\"");
        // A note-on (off) the server dropped is sent again (see sendUntil()).
        const auto playKey = [&](double frequency) {
            QTRY_VERIFY2_WITH_TIMEOUT(keys.connections() == 1, qPrintable(log()), 30000);
            QVERIFY2(keys.sendUntil({0x90, 69, 100}, [&] { return mJack.hears(frequency, 0, 0); }),
                     qPrintable(mJack.error()));
            QVERIFY2(keys.sendUntil({0x80, 69, 64}, [&] { return mJack.hearsSilence(0); }),
                     qPrintable(mJack.error()));
        };
        playKey(440.0);
        QVERIFY2(program.wand({NOTE_TAG}) == 0 && mJack.hears(660.0), qPrintable(mJack.error()));
        QVERIFY2(program.wand({NOTE_TAG}) == 0 && mJack.hearsSilence(), qPrintable(mJack.error()));
        QCOMPARE(program.wand({TRANSPOSE_TAG, BASE_432_TAG, NOTE_TAG}), 0); // 432 × 5/4 × 3/2
        QVERIFY2(mJack.hears(810.0), qPrintable(mJack.error()));
        QVERIFY2(!log().contains("CRITICAL"), qPrintable(log()));

        mJack.killServer();
        keys.abandon();
        QTRY_VERIFY2_WITH_TIMEOUT(log().contains("Audio device lost") &&
                                      log().contains("input is off until it is back") &&
                                      log().contains("output is off until it is back"),
                                  qPrintable(log()), 15000);
        QVERIFY2(mJack.restartServer(), qPrintable(mJack.error()));
        QVERIFY(keys.open(QStringLiteral("arbo-keys")));
        QTRY_VERIFY2_WITH_TIMEOUT(log().contains("Audio device opened again") &&
                                      log().count(connected) == 2 &&
                                      log().contains("MIDI output is back"),
                                  qPrintable(log()), 30000);
        QVERIFY(mJack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0")));
        // The note that sounded was let go with the device; the tag strikes
        // it anew.
        QCOMPARE(program.wand({NOTE_TAG}), 0);
        QVERIFY2(mJack.hears(810.0), qPrintable(mJack.error()));
        QVERIFY2(program.wand({NOTE_TAG}) == 0 && mJack.hearsSilence(), qPrintable(mJack.error()));
        playKey(540.0); // the 1/1, 432 × 5/4

        QVERIFY(QFile::remove(program.config("arbo_v15.json")));
        mJack.killServer();
        keys.abandon();
        QVERIFY(program.terminate(5000) >= 0);
        QCOMPARE(program.options().value(QStringLiteral("baseFrequency")).toDouble(), 432.0);
        QVERIFY(QJsonDocument::fromJson(TestSupport::readFile(program.config("arbo_v15.json")))
                    .isObject());
        QCOMPARE(TestSupport::readFile(program.config("rfid_map.json")), RFID_MAP);
        QVERIFY2(mJack.restartServer(), qPrintable(mJack.error())); // for the tests after this one
    }

    // Without a tag map there is no listener: no port open to the network,
    // nothing said about it, and no map written.
    void withoutTagMapNoListener()
    {
        Program program(mJack, QByteArray(), TestSupport::freeUdpPort(), 0);
        QVERIFY(program.start({"PaStream started"}));
        QVERIFY(program.terminate() >= 0);
        // A listener that had started would have said so, at the latest when
        // it was stopped on the way out.
        QVERIFY2(!program.log().contains("UDP") && !program.log().contains("CRITICAL"),
                 qPrintable(program.log()));
        QVERIFY(!QFile::exists(program.config("rfid_map.json")));
    }

    // With the port taken the listener gives up with its message; the
    // program goes on and the mouse still plays.
    void wandPortTakenLeavesTheMouse()
    {
        QUdpSocket holder;
        QVERIFY(holder.bind(QHostAddress::Any, 0, QUdpSocket::DontShareAddress));
        Program program(mJack, RFID_MAP, holder.localPort());
        QProcess child;
        child.setProcessEnvironment(program.environment);
        child.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(CHILD_FLAG)});
        QVERIFY(child.waitForFinished(60000));
        QVERIFY(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0);
        const QString output = QString::fromUtf8(child.readAllStandardOutput());
        const QString error = QStringLiteral("Can't open UDP socket on port %1. UDP thread "
                                             "shutting down.")
                                  .arg(holder.localPort());
        QCOMPARE(TestSupport::messageBoxesIn(output),
                 QStringList{QStringLiteral("Failed to connect to the arbo, only screen-based "
                                            "interaction will be possible.\n\nError: ") +
                             error});
        QVERIFY2(output.contains(QLatin1String("NOTE 3/2 ON")), qPrintable(output));
        QVERIFY(program.log().contains(error));
    }

    // Bursts of patch steps and insane values over OSC, each in one datagram
    // (separate datagrams would be dropped by the kernel here and there on a
    // busy machine, and the patch they add up to would be anyone's guess).
    // Each burst ends in at most two patch changes, on the patch the steps
    // add up to; no value out of range reaches the options; the log stays
    // short; and a SIGTERM in the middle of a patch change ends the program
    // within two seconds, saving as always.
    void burstsOfPatchStepsAndInsaneValues()
    {
        Program program(mJack);
        QVERIFY2(program.startPlayable(mJack), qPrintable(program.log().right(3000)));
        const auto loads = [&] { return program.log().split('\n').filter("Loading voice patch"); };
        const int loadsBefore = loads().size();
        const int linesBefore = program.log().count('\n');

        // 201 steps from Sine, the third of four voices: one round and one
        // more, so the burst ends on Vocal. Between them, values that must
        // not be taken, and a tag that would silence everything.
        QList<QByteArray> burst;
        for (int i = 0; i < 201; ++i) {
            burst << OSC("/arbo/event", "if", 8, 1.0);
            if (i % 50 == 0) {
                burst << OSC("/arbo/event", "if", 9, 0.0) << OSC("/arbo/event", "if", 9, 1e30)
                      << OSC("/arbo/event", "if", 9, std::nan(""))
                      << OSC("/arbo/event", "if", 6, 1e30) << OSC("/arbo/event", "if", 12, -3.0)
                      << OSC("/arbo/tag", "s", "zero");
            }
        }
        program.sendOsc(TestSupport::oscBundle(burst));
        QTRY_VERIFY2_WITH_TIMEOUT(loads().size() > loadsBefore &&
                                      loads().last().contains("/patches/Vocal.pd"),
                                  qPrintable(program.log().right(3000)), 30000);
        QVERIFY2(loads().size() - loadsBefore <= 2, qPrintable(loads().join('\n')));

        // The next burst, 401 steps, and the signal as soon as its change
        // has begun.
        const int loadsBeforeSecond = loads().size();
        const QByteArray step = OSC("/arbo/event", "if", 8, 1.0);
        program.sendOsc(TestSupport::oscBundle(QVector<QByteArray>(401, step).toList()));
        QTRY_VERIFY2_WITH_TIMEOUT(loads().size() > loadsBeforeSecond,
                                  qPrintable(program.log().right(3000)), 30000);
        const qint64 took = program.terminate();
        QVERIFY2(took >= 0 && took < 2000, qPrintable(QString("%1 ms").arg(took)));
        QVERIFY2(loads().size() - loadsBeforeSecond <= 2, qPrintable(loads().join('\n')));

        const QString grown = program.log().section('\n', linesBefore);
        QVERIFY2(grown.count('\n') < 100, qPrintable(grown));
        QVERIFY2(grown.contains("which is no base frequency"), qPrintable(grown));
        QCOMPARE(program.options().value("baseFrequency").toDouble(), 440.0);
        QVERIFY(program.options().value("masterVolume").toDouble() <= 1.0);
    }

    // Three seconds of the fastest stream loopback carries, from a thread of
    // its own: the commands that make the window work (transpositions, base
    // frequencies, prime switches, macros) among unknown addresses, bad
    // arguments and malformed packets. The window keeps up and the receiver
    // stops promptly while the stream goes on: a SIGTERM is honoured within
    // two seconds. The log stays short.
    void oscFlood()
    {
        Program program(mJack);
        QVERIFY2(program.startPlayable(mJack), qPrintable(program.log().right(3000)));
        const int linesBefore = program.log().count('\n');
        const QList<QByteArray> stream = {
            OSC("/arbo/event", "if", 2, 3.0),   OSC("/arbo/event", "if", 2, -3.0),
            OSC("/arbo/event", "if", 9, 432.0), OSC("/arbo/event", "if", 9, 440.0),
            OSC("/arbo/event", "if", 10, 7.0),  OSC("/arbo/event", "if", 11, 0.25),
            OSC("/nowhere", ""),                OSC("/arbo/event", "s", "x"),
            OSC("/arbo/tag", "s", "nope"),      QByteArray("garbage")};
        std::atomic<bool> stop{false};
        long long sent = 0;
        std::thread sender([&] {
            QUdpSocket socket;
            for (long long n = 0; !stop.load(std::memory_order_relaxed); ++n) {
                sent += socket.writeDatagram(stream[int(n % stream.size())],
                                             QHostAddress::LocalHost, program.oscPort) > 0;
            }
        });
        QTest::qWait(3000);
        const qint64 took = program.terminate();
        stop = true;
        sender.join();
        QVERIFY2(took >= 0 && took < 2000, qPrintable(QString("%1 ms").arg(took)));
        QVERIFY2(sent > 10000, qPrintable(QString::number(sent)));
        const QString grown = program.log().section('\n', linesBefore);
        QVERIFY2(grown.count('\n') < 100, qPrintable(grown));
        const double base = program.options().value("baseFrequency").toDouble();
        QVERIFY2(base == 432.0 || base == 440.0, qPrintable(QString::number(base)));
    }
};

int main(int argc, char** argv)
{
    if (argc >= 2 && std::strcmp(argv[1], CHILD_FLAG) == 0) {
        return runChild(argc, argv);
    }
    TestSupport::isolateHome();
    QApplication app(argc, argv);
    TestEndToEnd test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_endtoend.moc"
