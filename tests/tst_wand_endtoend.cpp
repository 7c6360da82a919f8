// The wands end to end: the real program on a private JACK server (dummy
// driver), played by the wand simulator arbo-wand over UDP, its output
// recorded with jack_capture and its pitch measured. A port that is already
// taken is checked in a child process of this test that runs the application
// with its message boxes answered, so that the box's text can be read.

#include "app/tuningarboapplication.h"
#include "audioanalysis.h"
#include "jackfixture.h"
#include "model/arbonoteevent.h"
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
// port and, unless `map` is empty, holds that tag map.
struct Instrument : ProgramOnJack
{
    Instrument(const JackFixture& jack, quint16 port, const QByteArray& map)
        : ProgramOnJack(jack, {{"options.json", "{\"udpPort\": " + QByteArray::number(port) + "}"}})
    {
        configured =
            configured && (map.isEmpty() || TestSupport::writeFile(config("rfid_map.json"), map));
    }
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

    // Waits until the started program listens on `port`, has its patch open
    // and is connected to the server.
    bool startPlayable(Instrument& instrument, quint16 port)
    {
        return instrument.start({QStringLiteral("UDP socket opened on port %1").arg(port),
                                 "Opening PD patch"}) &&
               mJack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0"));
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
        QVERIFY(startPlayable(instrument, port));

        QCOMPARE(wand(port, {NOTE_TAG}), 0);
        QVERIFY2(mJack.hears(660.0), qPrintable(mJack.error()));
        QCOMPARE(wand(port, {NOTE_TAG}), 0);
        QVERIFY2(mJack.hearsSilence(), qPrintable(mJack.error()));
        // Transposed up by 5/4: /3 sounds at 440 * 5/4 * 3/2.
        QCOMPARE(wand(port, {TRANSPOSE_TAG, NOTE_TAG}), 0);
        QVERIFY2(mJack.hears(825.0), qPrintable(mJack.error()));

        QVERIFY(instrument.terminate() >= 0);
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
        QVERIFY(startPlayable(instrument, port));
        QCOMPARE(wand(port, {BASE_432_TAG, NOTE_TAG}), 0); // 3/2 above 432 Hz
        QVERIFY2(mJack.hears(648.0), qPrintable(mJack.error()));

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
        QVERIFY2(mJack.hears(648.0), qPrintable(mJack.error()));

        QVERIFY(QFile::remove(instrument.config("arbo_v15.json")));
        mJack.killServer();
        QVERIFY(instrument.terminate(5000) >= 0);
        QCOMPARE(instrument.options().value(QStringLiteral("baseFrequency")).toDouble(), 432.0);
        QVERIFY(QJsonDocument::fromJson(TestSupport::readFile(instrument.config("arbo_v15.json")))
                    .isObject());
        QVERIFY2(mJack.restartServer(), qPrintable(mJack.error())); // for the tests after this one
    }

    // Without a tag map there is no listener: no port open to the network,
    // nothing said about it, and no map written.
    void withoutTagMapNoListener()
    {
        Instrument instrument(mJack, TestSupport::freeUdpPort(), QByteArray());
        QVERIFY(instrument.start({"PaStream started"}));
        QVERIFY(instrument.terminate() >= 0);
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
