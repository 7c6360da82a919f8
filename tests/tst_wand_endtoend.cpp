// The wands end to end: the real program on a private JACK server (dummy
// driver), played by the wand simulator arbo-wand over UDP, its output
// recorded with jack_capture and its pitch measured. A port that is already
// taken is checked in a child process of this test that runs the application
// with its message boxes answered, so that the box's text can be read.

#include "app/tuningarboapplication.h"
#include "audioanalysis.h"
#include "model/arbonoteevent.h"
#include "jackfixture.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUdpSocket>

#include <cmath>
#include <cstring>
#include <functional>

namespace {

const char* const CHILD_FLAG = "--wand-child";

const QByteArray NOTE_TAG = "04A1B2C3D4";      // the note at /3: 3/2 above 440 Hz
const QByteArray TRANSPOSE_TAG = "04a1b2c3d5"; // up by the prime 5 (5/4)
const QByteArray BASE_432_TAG = "04a1b2c3d6";  // the 1/1 at 432 Hz
const QByteArray RFID_MAP = R"({
    "04a1b2c3d4": {"event": 0, "value": "/3"},
    "04a1b2c3d5": {"event": 2, "value": 5},
    "04a1b2c3d6": {"event": 9, "value": 432}
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

// The real program with a configuration folder of its own that sets the UDP
// port and, unless `map` is empty, holds that tag map. The QProcess stops the
// program, if it still runs, when the test ends.
struct Instrument
{
    Instrument(const JackFixture& jack, quint16 port, const QByteArray& map)
        : environment(jack.environment())
    {
        environment.insert(QStringLiteral("XDG_DATA_HOME"), home.path());
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        configured =
            TestSupport::writeFile(config(QStringLiteral("options.json")),
                                   QStringLiteral("{ \"udpPort\": %1 }").arg(port).toUtf8()) &&
            (map.isEmpty() || TestSupport::writeFile(config("rfid_map.json"), map));
    }

    QString config(const QString& name) const
    {
        return home.path() + "/Merrow Tuning Arbo/" + name;
    }
    QString log() const { return QString::fromUtf8(TestSupport::readFile(config("log.txt"))); }
    bool start()
    {
        process.start(TestSupport::mainBinary(), QStringList());
        return configured && process.waitForStarted();
    }
    // SIGTERM: whether the program shut down cleanly (exit code 0).
    bool stop()
    {
        process.terminate();
        return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit &&
               process.exitCode() == 0;
    }

    QTemporaryDir home;
    QProcessEnvironment environment;
    QProcess process;
    bool configured = false;
};

} // namespace

class TestWandEndToEnd : public QObject
{
    Q_OBJECT

private:
    JackFixture mJack;

    // Runs arbo-wand, sending `tags` to `port`; its exit code.
    static int wand(quint16 port, const QStringList& tags)
    {
        return QProcess::execute(TestSupport::binDir() + QStringLiteral("/arbo-wand"),
                                 QStringList{"--quiet", "--port", QString::number(port)} + tags);
    }

    // Records the program's output for `seconds`, again and again until the
    // left channel shows what `done` waits for (a note that has started or
    // faded), for at most `timeoutMs`. The last recording, empty when
    // recording failed (mJack.error() says why).
    QVector<float> recordUntil(const QString& name, double seconds,
                               const std::function<bool(const QVector<float>&)>& done,
                               int timeoutMs = 20000)
    {
        const QString path = mJack.workDir() + QLatin1Char('/') + name + QStringLiteral(".wav");
        QElapsedTimer timer;
        timer.start();
        QVector<float> left;
        do {
            if (!mJack.capture(path, seconds)) {
                return QVector<float>();
            }
            left = AudioAnalysis::readWav(path).channel(0);
        } while (!done(left) && timer.elapsed() < timeoutMs);
        return left;
    }

    // Waits until the started program listens on `port`, has its patch open
    // and is connected to the server.
    bool waitUntilPlayable(Instrument& instrument, quint16 port)
    {
        const QString opened = QStringLiteral("UDP socket opened on port %1").arg(port);
        if (!QTest::qWaitFor([&] { return instrument.log().contains(opened) &&
                                          instrument.log().contains("Opening PD patch"); },
                             30000)) {
            qWarning().noquote() << instrument.log();
            return false;
        }
        return mJack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0"));
    }

    // A tone within a few cents of `frequency` sounds. The exact pitch is
    // checked offline; a live capture on a busy machine may drop a period.
    static bool soundsNear(const QVector<float>& left, double frequency)
    {
        const double found = AudioAnalysis::dominantFrequency(left, 44100);
        return AudioAnalysis::rmsDb(left) > -40.0 && found > 0.0 &&
               std::abs(AudioAnalysis::cents(found, frequency)) < 10.0;
    }
    static bool silent(const QVector<float>& left)
    {
        return left.size() > 20000 && AudioAnalysis::rmsDb(left) < -80.0;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
        QVERIFY2(mJack.start(44100, 256), qPrintable(mJack.error()));
    }

    // A tag toggles its note on and off; a transposition tag moves the next
    // note. The pitches are those of the lattice over 440 Hz. The program
    // shuts down cleanly and never writes the user's tag map.
    void wandPlaysTheInstrument()
    {
        const quint16 port = TestSupport::freeUdpPort();
        Instrument instrument(mJack, port, RFID_MAP);
        QVERIFY(instrument.start());
        QVERIFY(waitUntilPlayable(instrument, port));

        QCOMPARE(wand(port, {NOTE_TAG}), 0);
        const QVector<float> on = recordUntil("on", 1.0, [](auto& l) { return soundsNear(l, 660); });
        QVERIFY2(soundsNear(on, 660.0),
                 qPrintable(QString::number(AudioAnalysis::dominantFrequency(on, 44100)) +
                            mJack.error()));

        QCOMPARE(wand(port, {NOTE_TAG}), 0);
        const QVector<float> off = recordUntil("off", 0.5, silent);
        QVERIFY2(silent(off), qPrintable(QString::number(AudioAnalysis::rmsDb(off)) + mJack.error()));

        // Transposed up by 5/4: /3 sounds at 440 * 5/4 * 3/2.
        QCOMPARE(wand(port, {TRANSPOSE_TAG, NOTE_TAG}), 0);
        const QVector<float> moved =
            recordUntil("transposed", 1.0, [](auto& l) { return soundsNear(l, 825); });
        QVERIFY2(soundsNear(moved, 825.0),
                 qPrintable(QString::number(AudioAnalysis::dominantFrequency(moved, 44100)) +
                            mJack.error()));

        QVERIFY(instrument.stop());
        QVERIFY2(!instrument.log().contains("CRITICAL"), qPrintable(instrument.log()));
        QCOMPARE(TestSupport::readFile(instrument.config("rfid_map.json")), RFID_MAP);
    }

    // The audio server goes away while a note sounds (a sound server
    // restarted, an interface pulled): the program says so, opens the new
    // server of the same name by itself, and plays again. Lost a second
    // time, it still shuts down at once on SIGTERM and keeps the 1/1 that a
    // wand set, and the lattice.
    void survivesALostAudioServer()
    {
        const quint16 port = TestSupport::freeUdpPort();
        Instrument instrument(mJack, port, RFID_MAP);
        QVERIFY(instrument.start());
        QVERIFY(waitUntilPlayable(instrument, port));
        QCOMPARE(wand(port, {BASE_432_TAG, NOTE_TAG}), 0); // 3/2 above 432 Hz
        auto fifth = [](const QVector<float>& left) { return soundsNear(left, 648.0); };
        QVERIFY2(fifth(recordUntil("before", 1.0, fifth)), qPrintable(mJack.error()));

        mJack.killServer();
        QTRY_VERIFY2_WITH_TIMEOUT(instrument.log().contains("Audio device lost"),
                                  qPrintable(instrument.log()), 15000);
        QVERIFY2(mJack.restartServer(), qPrintable(mJack.error()));
        QTRY_VERIFY2_WITH_TIMEOUT(instrument.log().contains("Audio device opened again"),
                                  qPrintable(instrument.log()), 30000);
        QVERIFY(mJack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0")));
        // The note that sounded was let go with the device; the tag strikes
        // it anew.
        QCOMPARE(wand(port, {NOTE_TAG}), 0);
        QVERIFY2(fifth(recordUntil("after", 1.0, fifth)), qPrintable(mJack.error()));

        QVERIFY(QFile::remove(instrument.config("arbo_v15.json")));
        mJack.killServer();
        QElapsedTimer shutdown;
        shutdown.start();
        instrument.process.terminate();
        QVERIFY(instrument.process.waitForFinished(5000));
        QVERIFY2(shutdown.elapsed() < 5000, qPrintable(QString::number(shutdown.elapsed())));
        QCOMPARE(instrument.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(instrument.process.exitCode(), 0);
        const QJsonObject options =
            QJsonDocument::fromJson(TestSupport::readFile(instrument.config("options.json")))
                .object();
        QCOMPARE(options.value(QStringLiteral("baseFrequency")).toDouble(), 432.0);
        QVERIFY(QJsonDocument::fromJson(TestSupport::readFile(instrument.config("arbo_v15.json")))
                    .isObject());
        QVERIFY2(mJack.restartServer(), qPrintable(mJack.error())); // for the tests after this one
    }

    // Without a tag map there is no listener: no port open to the network,
    // nothing said about it, and no map written.
    void withoutTagMapNoListener()
    {
        Instrument instrument(mJack, TestSupport::freeUdpPort(), QByteArray());
        QVERIFY(instrument.start());
        QTRY_VERIFY2_WITH_TIMEOUT(instrument.log().contains("PaStream started"),
                                  qPrintable(instrument.log()), 30000);
        QVERIFY(instrument.stop());
        // A listener that had started would have said so, at the latest when
        // it was stopped on the way out.
        QVERIFY2(!instrument.log().contains("UDP") && !instrument.log().contains("CRITICAL"),
                 qPrintable(instrument.log()));
        QVERIFY(!QFile::exists(instrument.config("rfid_map.json")));
    }

    // With the port taken the listener gives up with its message; the
    // program goes on and the mouse still plays.
    void portTakenLeavesTheMouse()
    {
        QUdpSocket holder;
        QVERIFY(holder.bind(QHostAddress::Any, 0, QUdpSocket::DontShareAddress));
        Instrument instrument(mJack, holder.localPort(), RFID_MAP);
        QProcess child;
        child.setProcessEnvironment(instrument.environment);
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
        QVERIFY(instrument.log().contains(error));
    }
};

int main(int argc, char** argv)
{
    if (argc >= 2 && std::strcmp(argv[1], CHILD_FLAG) == 0) {
        return runChild(argc, argv);
    }
    TestSupport::isolateHome();
    QApplication app(argc, argv);
    TestWandEndToEnd test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_wand_endtoend.moc"
