// How long a wand's note takes through the program: from the sendto() of the
// datagram to the audio callback that carries the note out (the player's
// noteToggled carries the start of that buffer).
//
// The real pieces: the UDP listener thread with its tag map, the player's
// serial ring, PaAudioOutput on a private JACK server (dummy driver, 44100 Hz,
// 64 and 256 frames) playing Sine.pd. One tag toggles the note at /3, ARBO_BENCH_NOTES
// times (400 by default), at random moments so that the datagrams fall on
// every phase of the buffer period. Most of the latency is the wait for the
// next callback, up to one period: goal p99 at most one period plus 1 ms.
// udp_*: the share up to the listener's emission (the socket and the
// listener's wake-up); ring_*: from there to the callback, which is the wait
// for the next buffer plus whatever delays the audio thread (xruns counts the
// buffers the device missed meanwhile; on a busy machine with JACK not
// running in real time they, not the program, set the tail). output_latency_ms is what PortAudio
// reports for the stream, which the player hears on top.

#include "model/arbonoteevent.h"
#include "input/udplistener.h"
#include "input/wanddatagram.h"
#include "jackplayback.h"
#include "latencyreport.h"
#include "runbenchmarks.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QThread>
#include <QUdpSocket>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <vector>

namespace {

using LatencyReport::Stamps;

constexpr int SR = 44100;
const QByteArray TAG = "04a1b2c3d4";

PdPlayer* sPlayer = nullptr;
// The listener's port: a free one, found once.
int sUdpPort = 0;
std::atomic<bool> sListening{false};
QtMessageHandler sDefaultHandler = nullptr;

void watchMessages(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (text.startsWith(QLatin1String("UDP socket opened on port"))) {
        sListening = true;
    }
    sDefaultHandler(type, context, text);
}

void wandToCallback(benchmark::State& state)
{
    const int FRAMES = int(state.range(0));
    const QByteArray notesText = qgetenv("ARBO_BENCH_NOTES");
    const int notes = notesText.isEmpty() ? 400 : notesText.toInt();
    JackPlayback playback;
    if (!playback.start(sPlayer, TestSupport::binDir() + QStringLiteral("/patches/Sine.pd"), SR,
                        FRAMES)) {
        state.SkipWithError(qPrintable(playback.error()));
        return;
    }
    PaAudioOutput& output = playback.output();

    for (auto _ : state) {
        Stamps sent(notes);
        Stamps emitted(notes);
        Stamps carriedOut(notes);

        {
            QUdpSocket probe;
            probe.bind(QHostAddress::Any, 0, QUdpSocket::DontShareAddress);
            sUdpPort = probe.localPort();
        }
        UdpListener listener;
        // Connected first, so called first: the moment the listener hands the
        // event over, just before the player copies it into the ring.
        QObject::connect(
            &listener, &UdpListener::eventReceived, &listener,
            [&emitted](const ArboEvent*) { emitted.stamp(); }, Qt::DirectConnection);
        QObject::connect(&listener, &UdpListener::eventReceived, sPlayer,
                         &PdPlayer::queueEventSerial, Qt::DirectConnection);
        const QMetaObject::Connection stamping =
            LatencyReport::stampCarriedOut(sPlayer, carriedOut);
        sListening = false;
        listener.listen(sUdpPort);
        while (!sListening && !listener.isFinished()) {
            QThread::msleep(1);
        }

        output.callbackStats().requestReset();
        QUdpSocket sender;
        const QByteArray datagram = WandDatagram(1, TAG).toBytes();
        const quint16 port = quint16(sUdpPort);
        const int lost = LatencyReport::sendAtRandomMoments(sPlayer, notes, sent, carriedOut, [&] {
            sender.writeDatagram(datagram, QHostAddress::LocalHost, port);
        });
        listener.term();
        QObject::disconnect(stamping);
        // The toggles alternate on and off; leave the note off.
        const int count = std::min(carriedOut.done(), emitted.done());
        if (count % 2 == 1) {
            const ArboNoteEvent off(QStringLiteral("/3"));
            sPlayer->queueEventGui(&off);
        }

        std::vector<double> total;
        std::vector<double> udp;
        std::vector<double> ring;
        for (int i = 0; i < count && lost == 0; ++i) {
            total.push_back(
                std::chrono::duration<double, std::milli>(carriedOut.at(i) - sent.at(i)).count());
            udp.push_back(
                std::chrono::duration<double, std::milli>(emitted.at(i) - sent.at(i)).count());
            ring.push_back(
                std::chrono::duration<double, std::milli>(carriedOut.at(i) - emitted.at(i))
                    .count());
        }
        if (total.empty()) {
            state.SkipWithError("no note was carried out");
            break;
        }
        LatencyReport::report(state, total, lost, 1000.0 * FRAMES / SR);
        state.counters["udp_p50_ms"] = LatencyReport::percentile(udp, 0.5);
        state.counters["udp_p99_ms"] = LatencyReport::percentile(udp, 0.99);
        state.counters["udp_max_ms"] = LatencyReport::percentile(udp, 1.0);
        state.counters["ring_p99_ms"] = LatencyReport::percentile(ring, 0.99);
        state.counters["ring_max_ms"] = LatencyReport::percentile(ring, 1.0);
        state.counters["output_latency_ms"] = output.streamOutputLatency() * 1e3;
        state.counters["xruns"] = double(output.callbackStats().snapshot().underflows);
    }
    QThread::msleep(500);
}

} // namespace

int main(int argc, char** argv)
{
    sDefaultHandler = qInstallMessageHandler(watchMessages);
    return LatencyReport::run(argc, argv, "wand_to_callback", sPlayer, wandToCallback, [] {
        const QByteArray map = "{ \"" + TAG + "\": { \"event\": 0, \"value\": \"/3\" } }";
        return TestSupport::writeFile(Paths::configDir() + QStringLiteral("/rfid_map.json"),
                                      map);
    });
}
