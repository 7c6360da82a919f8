// How long an OSC message takes through the program: from the sendto() of the
// datagram to 127.0.0.1 to the audio callback that carries the note out (the
// player's noteToggled carries the start of that buffer).
//
// The real pieces: the OSC input thread (liblo) with its input map, the
// player's OSC ring, PaAudioOutput on a private JACK server (dummy driver,
// 44100 Hz, 64 and 256 frames) playing Sine.pd. "/arbo/toggle /3" toggles the note,
// ARBO_BENCH_NOTES times (400 by default), at random moments so that the
// messages fall on every phase of the buffer period. Most of the latency is
// the wait for the next callback, up to one period: goal p99 at most one
// period plus 1 ms. The server runs with real-time scheduling where that is
// allowed (ARBO_BENCH_REALTIME=0: never), as a stage machine would; the
// realtime counter says which. xruns counts the buffers the device missed
// meanwhile (on a busy machine with JACK not running in real time they, not
// the program, set the tail); output_latency_ms is what PortAudio reports for
// the stream, which the player hears on top.

#include "model/arbonoteevent.h"
#include "jackplayback.h"
#include "latencyreport.h"
#include "osc/oscinput.h"
#include "runbenchmarks.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QThread>
#include <QUdpSocket>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <vector>

namespace {

using LatencyReport::Stamps;

constexpr int SR = 44100;
// "/arbo/toggle" ",s" "/3", each zero-padded to four bytes.
const QByteArray TOGGLE("/arbo/toggle\0\0\0\0,s\0\0/3\0\0", 24);

PdPlayer* sPlayer = nullptr;

void oscToCallback(benchmark::State& state)
{
    const int FRAMES = int(state.range(0));
    const QByteArray notesText = qgetenv("ARBO_BENCH_NOTES");
    const int notes = notesText.isEmpty() ? 400 : notesText.toInt();
    JackPlayback playback;
    if (!playback.start(sPlayer, TestSupport::binDir() + QStringLiteral("/patches/Sine.pd"), SR,
                        FRAMES, qgetenv("ARBO_BENCH_REALTIME") != "0")) {
        state.SkipWithError(qPrintable(playback.error()));
        return;
    }
    PaAudioOutput& output = playback.output();

    for (auto _ : state) {
        Stamps sent(notes);
        Stamps carriedOut(notes);

        InputMap::Bindings bindings;
        {
            QUdpSocket probe;
            probe.bind(QHostAddress::LocalHost, 0, QUdpSocket::DontShareAddress);
            bindings.oscPort = probe.localPort();
        }
        OscInput input;
        std::atomic<bool> listening{false};
        QObject::connect(
            &input, &OscInput::listening, &input, [&listening](int) { listening = true; },
            Qt::DirectConnection);
        const QMetaObject::Connection stamping =
            LatencyReport::stampCarriedOut(sPlayer, carriedOut);
        input.open(sPlayer, bindings);
        while (!listening && !input.isFinished()) {
            QThread::msleep(1);
        }

        output.callbackStats().requestReset();
        QUdpSocket sender;
        const int lost = LatencyReport::sendAtRandomMoments(sPlayer, notes, sent, carriedOut, [&] {
            sender.writeDatagram(TOGGLE, QHostAddress::LocalHost, quint16(bindings.oscPort));
        });
        input.term();
        QObject::disconnect(stamping);
        // The toggles alternate on and off; leave the note off.
        const int count = carriedOut.done();
        if (count % 2 == 1) {
            const ArboNoteEvent off(QStringLiteral("/3"));
            sPlayer->queueEventGui(&off);
        }

        std::vector<double> total;
        for (int i = 0; i < count && lost == 0; ++i) {
            total.push_back(
                std::chrono::duration<double, std::milli>(carriedOut.at(i) - sent.at(i)).count());
        }
        if (total.empty()) {
            state.SkipWithError("no note was carried out");
            break;
        }
        LatencyReport::report(state, total, lost, 1000.0 * FRAMES / SR);
        state.counters["output_latency_ms"] = output.streamOutputLatency() * 1e3;
        state.counters["xruns"] = double(output.callbackStats().snapshot().underflows);
        state.counters["realtime"] = playback.realtime() ? 1 : 0;
    }
    QThread::msleep(500);
}

} // namespace

int main(int argc, char** argv)
{
    return LatencyReport::run(argc, argv, "osc_to_callback", sPlayer, oscToCallback, [] { return true; });
}
