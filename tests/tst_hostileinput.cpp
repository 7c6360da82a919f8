// The real program under input meant to hurt it, as an attacker on the local
// network or a careless map file would send it: OSC from a socket on
// 127.0.0.1, a tag that would silence everything, on a private JACK server.

#include "jackfixture.h"
#include "testsupport.h"

#include <QElapsedTimer>
#include <QUdpSocket>

#include <lo/lo.h>

#include <atomic>
#include <cmath>
#include <thread>

namespace {

// The real program with OSC on a free port and a tag that would silence
// everything (skipped at load); started, it plays and listens to OSC.
struct Program : ProgramOnJack
{
    explicit Program(const JackFixture& jack, quint16 port = TestSupport::freeUdpPort())
        : ProgramOnJack(jack,
                        {{"input_map.json", "{\"oscPort\": " + QByteArray::number(port) + "}"},
                         {"options.json",
                          "{\"udpPort\": " + QByteArray::number(TestSupport::freeUdpPort()) + "}"},
                         {"rfid_map.json", R"({"zero": {"event": 9, "value": 0}})"}}),
          oscPort(port), osc(lo_address_new("127.0.0.1", QByteArray::number(port).constData()))
    {
    }
    ~Program() { lo_address_free(osc); }
    bool start() { return ProgramOnJack::start({"OSC input listening", "Opening PD patch"}); }

    quint16 oscPort;
    lo_address osc;
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
        Program program(mJack);
        QVERIFY2(program.start(), qPrintable(program.log().right(3000)));
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

    // Three seconds of the fastest stream loopback carries, from a thread of
    // its own: the commands that make the window work (transpositions, base
    // frequencies, prime switches, macros) among unknown addresses, bad
    // arguments and malformed packets. The window keeps up and the receiver
    // stops promptly while the stream goes on: a SIGTERM is honoured within
    // two seconds. The log stays short.
    void flood()
    {
        Program program(mJack);
        QVERIFY2(program.start(), qPrintable(program.log().right(3000)));
        const int linesBefore = program.log().count('\n');
        const QList<QByteArray> stream = {OSC("/arbo/event", "if", 2, 3.0),
                                          OSC("/arbo/event", "if", 2, -3.0),
                                          OSC("/arbo/event", "if", 9, 432.0),
                                          OSC("/arbo/event", "if", 9, 440.0),
                                          OSC("/arbo/event", "if", 10, 7.0),
                                          OSC("/arbo/event", "if", 11, 0.25),
                                          OSC("/nowhere", ""),
                                          OSC("/arbo/event", "s", "x"),
                                          OSC("/arbo/tag", "s", "nope"),
                                          QByteArray("garbage")};
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

ARBO_TEST_MAIN(TestHostileInput)
#include "tst_hostileinput.moc"
