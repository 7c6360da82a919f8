// The wands end to end: the real program on a private JACK server (dummy
// driver), played by the wand simulator arbo-wand over UDP, its output
// recorded with jack_capture and its pitch measured. A port that is already
// taken is checked in a child process of this test that runs the application
// with its message boxes answered, so that the box's text can be read.

#include "app/tuningarboapplication.h"
#include "audioanalysis.h"
#include "input/arbonoteevent.h"
#include "jackfixture.h"
#include "testsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>
#include <QUdpSocket>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

const char* const CHILD_FLAG = "--wand-child";

const QByteArray NOTE_TAG = "04A1B2C3D4";      // the note at /3: 3/2 above 440 Hz
const QByteArray TRANSPOSE_TAG = "04a1b2c3d5"; // up by the prime 5 (5/4)
const QByteArray RFID_MAP = R"({
    "04a1b2c3d4": {"event": 0, "value": "/3"},
    "04a1b2c3d5": {"event": 2, "value": 5}
})";

// The child: start-up as main() does it, every message box answered and its
// text printed. Once the listener has given up and its box is answered, a
// note is queued as a click on a ball queues it, to show that the mouse
// still plays; then the program shuts down.
int runChild(int argc, char** argv)
{
    std::vector<char*> args = TestSupport::childArguments(argc, argv);
    int count = int(args.size());
    TuningArboApplication app(count, args.data());
    TestSupport::MessageBoxAnswerer answerer;
    if (!app.init()) {
        return 1;
    }
    QElapsedTimer waited;
    waited.start();
    while (answerer.answered() == 0 && waited.elapsed() < 20000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    TestSupport::printLine(
        QStringLiteral("LISTENER FINISHED: %1").arg(app.mUdpListener.isFinished()));

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
    QTimer::singleShot(20000, &app, &QCoreApplication::quit);
    const int code = app.exec();
    app.term();
    return code;
}

quint16 freePort()
{
    QUdpSocket socket;
    socket.bind(QHostAddress::Any, 0, QUdpSocket::DontShareAddress);
    return socket.localPort();
}

// The real program with a configuration folder of its own.
class Instrument
{
public:
    explicit Instrument(const JackFixture& jack) : mJack(jack)
    {
        mConfig = mHome.path() + QStringLiteral("/Merrow Tuning Arbo");
    }
    ~Instrument()
    {
        if (mProcess.state() != QProcess::NotRunning) {
            mProcess.kill();
            mProcess.waitForFinished();
        }
    }

    QString config() const { return mConfig; }
    QString log() const
    {
        return QString::fromUtf8(TestSupport::readFile(mConfig + QStringLiteral("/log.txt")));
    }

    bool writeConfig(const QString& name, const QByteArray& content) const
    {
        return TestSupport::writeFile(mConfig + QLatin1Char('/') + name, content);
    }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = mJack.environment();
        env.insert(QStringLiteral("XDG_DATA_HOME"), mHome.path());
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        return env;
    }

    bool start()
    {
        mProcess.setProcessEnvironment(environment());
        mProcess.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        mProcess.start(TestSupport::mainBinary(), QStringList());
        return mProcess.waitForStarted();
    }

    // Waits until the log holds `text`; false when the program ended or time
    // ran out first.
    bool waitForLog(const QString& text, int timeoutMs = 30000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!log().contains(text)) {
            if (mProcess.state() == QProcess::NotRunning || timer.elapsed() > timeoutMs) {
                return false;
            }
            QTest::qWait(20);
        }
        return true;
    }

    bool isRunning() const { return mProcess.state() == QProcess::Running; }

    // SIGTERM, a clean shutdown; the exit code, or -1 when it did not end.
    int stop()
    {
        mProcess.terminate();
        if (!mProcess.waitForFinished(30000) || mProcess.exitStatus() != QProcess::NormalExit) {
            return -1;
        }
        return mProcess.exitCode();
    }

private:
    const JackFixture& mJack;
    QTemporaryDir mHome;
    QString mConfig;
    QProcess mProcess;
};

} // namespace

class TestWandEndToEnd : public QObject
{
    Q_OBJECT

private:
    JackFixture mJack;

    // Runs arbo-wand with `args`; its exit code.
    static int wand(const QStringList& args)
    {
        QProcess tool;
        tool.setProcessChannelMode(QProcess::ForwardedChannels);
        tool.start(TestSupport::binDir() + QStringLiteral("/arbo-wand"),
                   QStringList{QStringLiteral("--quiet")} + args);
        if (!tool.waitForFinished(30000) || tool.exitStatus() != QProcess::NormalExit) {
            return -1;
        }
        return tool.exitCode();
    }

    // Records the program's output for `seconds`; the left channel.
    QVector<float> record(const QString& name, double seconds)
    {
        const QString path = mJack.workDir() + QLatin1Char('/') + name + QStringLiteral(".wav");
        if (!mJack.capture(path, seconds)) {
            qWarning().noquote() << mJack.error();
            return {};
        }
        const AudioAnalysis::Wav wav = AudioAnalysis::readWav(path);
        return wav.isValid() ? wav.channel(0) : QVector<float>();
    }

private slots:
    void initTestCase()
    {
        if (!JackFixture::toolsAvailable()) {
            QSKIP("jackd, jack_lsp or jack_capture is not installed (scripts/install-deps.sh)");
        }
        QVERIFY2(mJack.start(44100, 256), qPrintable(mJack.error()));
    }

    void cleanupTestCase() { mJack.stop(); }

    // A tag toggles its note on and off; a transposition tag moves the next
    // note. The pitches are those of the lattice over 440 Hz.
    void wandPlaysTheInstrument()
    {
        const quint16 port = freePort();
        Instrument instrument(mJack);
        QVERIFY(instrument.writeConfig("options.json",
                                       QStringLiteral("{ \"udpPort\": %1 }").arg(port).toUtf8()));
        QVERIFY(instrument.writeConfig("rfid_map.json", RFID_MAP));
        QVERIFY(instrument.start());
        QVERIFY2(instrument.waitForLog(QStringLiteral("UDP socket opened on port %1").arg(port)),
                 qPrintable(instrument.log()));
        QVERIFY2(instrument.waitForLog(QStringLiteral("Opening PD patch")),
                 qPrintable(instrument.log()));
        QVERIFY(mJack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0")));
        const QStringList to = {QStringLiteral("--port"), QString::number(port)};

        QCOMPARE(wand(to + QStringList{NOTE_TAG}), 0);
        QTest::qWait(300);
        const QVector<float> on = record(QStringLiteral("on"), 1.0);
        QVERIFY(!on.isEmpty());
        QVERIFY2(AudioAnalysis::rmsDb(on) > -40.0,
                 qPrintable(QString::number(AudioAnalysis::rmsDb(on))));
        QVERIFY2(std::abs(AudioAnalysis::dominantFrequency(on, 44100) - 660.0) < 0.5,
                 qPrintable(QString::number(AudioAnalysis::dominantFrequency(on, 44100))));

        QCOMPARE(wand(to + QStringList{NOTE_TAG}), 0);
        QTest::qWait(1500); // past the release
        const QVector<float> off = record(QStringLiteral("off"), 0.5);
        QVERIFY(!off.isEmpty());
        QVERIFY2(AudioAnalysis::rmsDb(off) < -80.0,
                 qPrintable(QString::number(AudioAnalysis::rmsDb(off))));

        // Transposed up by 5/4: /3 sounds at 440 * 5/4 * 3/2.
        QCOMPARE(wand(to + QStringList{TRANSPOSE_TAG, NOTE_TAG}), 0);
        QTest::qWait(300);
        const QVector<float> moved = record(QStringLiteral("transposed"), 1.0);
        QVERIFY(!moved.isEmpty());
        QVERIFY2(std::abs(AudioAnalysis::dominantFrequency(moved, 44100) - 825.0) < 0.5,
                 qPrintable(QString::number(AudioAnalysis::dominantFrequency(moved, 44100))));

        QCOMPARE(wand(to + QStringList{QStringLiteral("unknown01")}), 0);
        QVERIFY(instrument.waitForLog(
            QStringLiteral("RFID unknown01 not found in mapping table. Ignoring.")));

        QCOMPARE(instrument.stop(), 0);
        const QString log = instrument.log();
        QVERIFY(log.contains(QStringLiteral("Stopping UDP thread...")));
        QVERIFY(log.contains(QStringLiteral("UDP thread exits run")));
        QVERIFY2(!log.contains(QStringLiteral("CRITICAL")), qPrintable(log));
        // The tag map is the user's: the program never writes it.
        QCOMPARE(TestSupport::readFile(instrument.config() + QStringLiteral("/rfid_map.json")),
                 RFID_MAP);
    }

    // Without a tag map there is no listener and nothing is said about it.
    void withoutTagMapNoListener()
    {
        const quint16 port = freePort();
        Instrument instrument(mJack);
        QVERIFY(instrument.writeConfig("options.json",
                                       QStringLiteral("{ \"udpPort\": %1 }").arg(port).toUtf8()));
        QVERIFY(instrument.start());
        QVERIFY2(instrument.waitForLog(QStringLiteral("PaStream started")),
                 qPrintable(instrument.log()));
        QCOMPARE(wand({QStringLiteral("--port"), QString::number(port), NOTE_TAG}), 0);
        QTest::qWait(500);
        QVERIFY(instrument.isRunning());
        QCOMPARE(instrument.stop(), 0);
        const QString log = instrument.log();
        QVERIFY2(!log.contains(QStringLiteral("UDP")), qPrintable(log));
        QVERIFY(!log.contains(QStringLiteral("CRITICAL")));
        QVERIFY(!QFile::exists(instrument.config() + QStringLiteral("/rfid_map.json")));
        // The port was never opened: it can be bound exclusively now.
        QUdpSocket socket;
        QVERIFY(socket.bind(QHostAddress::Any, port, QUdpSocket::DontShareAddress));
    }

    // With the port taken the listener gives up with its message; the
    // program goes on and the mouse still plays.
    void portTakenLeavesTheMouse()
    {
        QUdpSocket holder;
        QVERIFY(holder.bind(QHostAddress::Any, 0, QUdpSocket::DontShareAddress));
        const quint16 port = holder.localPort();
        Instrument instrument(mJack);
        QVERIFY(instrument.writeConfig("options.json",
                                       QStringLiteral("{ \"udpPort\": %1 }").arg(port).toUtf8()));
        QVERIFY(instrument.writeConfig("rfid_map.json", RFID_MAP));

        QProcess child;
        child.setProcessEnvironment(instrument.environment());
        child.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(CHILD_FLAG)});
        QVERIFY(child.waitForFinished(60000));
        QCOMPARE(child.exitStatus(), QProcess::NormalExit);
        const QString output = QString::fromUtf8(child.readAllStandardOutput());
        const QString error =
            QStringLiteral("Can't open UDP socket on port %1. UDP thread shutting down.").arg(port);
        QCOMPARE(TestSupport::messageBoxesIn(output),
                 QStringList{QStringLiteral("Failed to connect to the arbo, only screen-based "
                                            "interaction will be possible.\n\nError: ") +
                             error});
        QVERIFY2(output.contains(QLatin1String("LISTENER FINISHED: 1")), qPrintable(output));
        QVERIFY2(output.contains(QLatin1String("NOTE 3/2 ON")), qPrintable(output));
        QCOMPARE(child.exitCode(), 0);
        QVERIFY(instrument.log().contains(QStringLiteral("CRITICAL:\n")));
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
