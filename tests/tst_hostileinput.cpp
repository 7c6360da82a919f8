// The real program under input meant to hurt it, as an attacker on the local
// network or a careless map file would send it: OSC from a socket on
// 127.0.0.1, a tag map with unusable entries, on a private JACK server.

#include "jackfixture.h"
#include "testsupport.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QUdpSocket>

#include <lo/lo.h>

#include <atomic>
#include <cmath>
#include <thread>

namespace {

// Note tags that would sound the root, and base frequencies that would
// silence everything: each is skipped at load with a line naming it.
const QByteArray RFID_MAP = R"({
    "bare":   {"event": 0},
    "empty":  {"event": 0, "value": ""},
    "number": {"event": 0, "value": 5},
    "zero":   {"event": 9, "value": 0},
    "huge":   {"event": 9, "value": 1e30},
    "fifth":  {"event": 0, "value": "/3"}
})";

quint16 freePort()
{
    QUdpSocket socket;
    socket.bind(QHostAddress::LocalHost, 0, QUdpSocket::DontShareAddress);
    return socket.localPort();
}

// The real program in a configuration folder of its own, with OSC on a free
// port and the tag map above. The QProcess stops it, if it still runs, when
// the test ends.
struct Program
{
    QTemporaryDir home;
    QString config = home.path() + "/Merrow Tuning Arbo/";
    quint16 oscPort = freePort();
    QProcess process;
    lo_address osc = nullptr;

    ~Program()
    {
        if (osc) {
            lo_address_free(osc);
        }
    }
    QString log() const { return QString::fromUtf8(TestSupport::readFile(config + "log.txt")); }
    // Starts it and waits until it plays and listens to OSC.
    bool start(const JackFixture& jack)
    {
        if (!TestSupport::writeFile(config + "input_map.json",
                                    QString("{ \"oscPort\": %1 }").arg(oscPort).toUtf8()) ||
            !TestSupport::writeFile(config + "options.json",
                                    QString("{ \"udpPort\": %1 }").arg(freePort()).toUtf8()) ||
            !TestSupport::writeFile(config + "rfid_map.json", RFID_MAP)) {
            return false;
        }
        QProcessEnvironment env = jack.environment();
        env.insert("XDG_DATA_HOME", home.path());
        env.insert("QT_QPA_PLATFORM", "offscreen");
        process.setProcessEnvironment(env);
        process.start(TestSupport::mainBinary(), QStringList());
        osc = lo_address_new("127.0.0.1", QByteArray::number(oscPort).constData());
        QDeadlineTimer deadline(30000);
        while (!log().contains("OSC input listening") || !log().contains("Opening PD patch")) {
            if (deadline.hasExpired() || process.state() == QProcess::NotRunning) {
                return false;
            }
            QTest::qWait(20);
        }
        return true;
    }
    // SIGTERM; how long the program took to end, -1 when it did not end
    // cleanly.
    qint64 terminate()
    {
        QElapsedTimer timer;
        timer.start();
        process.terminate();
        if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit ||
            process.exitCode() != 0) {
            return -1;
        }
        return timer.elapsed();
    }
    QJsonObject options() const
    {
        return QJsonDocument::fromJson(TestSupport::readFile(config + "options.json")).object();
    }
};

} // namespace

class TestHostileInput : public QObject
{
    Q_OBJECT

private:
    JackFixture mJack;

private slots:
    void initTestCase()
    {
        QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
        QVERIFY2(mJack.start(), qPrintable(mJack.error()));
    }

    // Bursts of patch steps and insane values over OSC. Each burst ends in
    // at most two patch changes, on the patch the steps add up to; no value
    // out of range reaches the options; the log stays short; and a SIGTERM
    // in the middle of a patch change ends the program within two seconds,
    // saving as always.
    void burstsOfPatchStepsAndInsaneValues()
    {
        Program program;
        QVERIFY2(program.start(mJack), qPrintable(program.log().right(3000)));
        const auto loads = [&] { return program.log().split('\n').filter("Loading voice patch"); };
        const int loadsBefore = loads().size();
        const int linesBefore = program.log().count('\n');

        // 201 steps from Sine, the third of four voices: one round and one
        // more, so the burst ends on Vocal. Between them, values that must
        // not be taken. All in one datagram (an OSC bundle), which arrives
        // whole or not at all: separate datagrams would be dropped by the
        // kernel here and there on a busy machine, and the patch they add up
        // to would be anyone's guess.
        lo_bundle burst = lo_bundle_new(LO_TT_IMMEDIATE);
        const auto add = [&](const char* address, const char* types, auto... values) {
            lo_message message = lo_message_new();
            for (const double value : {double(values)...}) {
                if (*types++ == 'i') {
                    lo_message_add_int32(message, int(value));
                } else {
                    lo_message_add_float(message, float(value));
                }
            }
            lo_bundle_add_message(burst, address, message);
        };
        for (int i = 0; i < 201; ++i) {
            add("/arbo/event", "if", 8, 1.0);
            if (i % 50 == 0) {
                add("/arbo/event", "if", 9, 0.0);
                add("/arbo/event", "if", 9, 1e30);
                add("/arbo/event", "if", 9, std::nan(""));
                add("/arbo/event", "if", 6, 1e30);
                add("/arbo/event", "if", 12, -3.0);
            }
        }
        lo_send_bundle(program.osc, burst);
        lo_bundle_free_recursive(burst);
        lo_send(program.osc, "/arbo/tag", "s", "zero");
        QTRY_VERIFY2_WITH_TIMEOUT(loads().size() > loadsBefore &&
                                      loads().last().contains("/patches/Vocal.pd"),
                                  qPrintable(program.log().right(3000)), 30000);
        QVERIFY2(loads().size() - loadsBefore <= 2, qPrintable(loads().join('\n')));

        // The next burst, 401 steps, and the signal as soon as its change
        // has begun.
        const int loadsBeforeSecond = loads().size();
        burst = lo_bundle_new(LO_TT_IMMEDIATE);
        for (int i = 0; i < 401; ++i) {
            add("/arbo/event", "if", 8, 1.0);
        }
        lo_send_bundle(program.osc, burst);
        lo_bundle_free_recursive(burst);
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

    // Three seconds of the fastest stream of the commands that make the
    // window work (transpositions, base frequencies, prime switches, macros)
    // from a thread of its own. The window keeps up, so a SIGTERM right
    // after is honoured within two seconds, and the log stays short.
    void floodOfStateChanges()
    {
        Program program;
        QVERIFY2(program.start(mJack), qPrintable(program.log().right(3000)));
        const int linesBefore = program.log().count('\n');
        std::atomic<long> sent{0};
        std::thread sender([&] {
            lo_address osc =
                lo_address_new("127.0.0.1", QByteArray::number(program.oscPort).constData());
            QElapsedTimer timer;
            timer.start();
            for (long n = 0; timer.elapsed() < 3000; ++n) {
                const int up = n % 2 ? 1 : -1;
                switch (n % 8) {
                case 0:
                case 1:
                case 2:
                case 3:
                    lo_send(osc, "/arbo/event", "if", 2, 3.0f * float(up));
                    break;
                case 4:
                case 5:
                    lo_send(osc, "/arbo/event", "if", 9, up > 0 ? 432.0f : 440.0f);
                    break;
                case 6:
                    lo_send(osc, "/arbo/event", "if", 10, 7.0f);
                    break;
                default:
                    lo_send(osc, "/arbo/event", "if", 11, 0.25f);
                }
                sent.store(n + 1, std::memory_order_relaxed);
            }
            lo_address_free(osc);
        });
        sender.join();
        const qint64 took = program.terminate();
        QVERIFY2(took >= 0 && took < 2000, qPrintable(QString("%1 ms").arg(took)));
        QVERIFY2(sent.load() > 10000, qPrintable(QString::number(sent.load())));
        const QString grown = program.log().section('\n', linesBefore);
        QVERIFY2(grown.count('\n') < 100, qPrintable(grown));
        const double base = program.options().value("baseFrequency").toDouble();
        QVERIFY2(base == 432.0 || base == 440.0, qPrintable(QString::number(base)));
    }
};

ARBO_TEST_MAIN(TestHostileInput)
#include "tst_hostileinput.moc"
