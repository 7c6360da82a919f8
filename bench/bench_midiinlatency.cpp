// How long a MIDI note takes through the program: from the JACK process
// callback in which a keyboard (a JACK MIDI client of this benchmark) writes
// the note-on, to the audio callback that starts the note (the player's
// noteToggled carries the start of that buffer).
//
// The real pieces: the MIDI input's virtual port on a private JACK server
// (dummy driver, 44100 Hz, 64 and 256 frames), connected to the keyboard by its
// "midiPorts" entry; RtMidi's JACK thread with the parser and the map; the
// player's MIDI ring; PaAudioOutput on the same server playing Sine.pd. Note
// 69 is struck and released ARBO_BENCH_NOTES times (400 by default), after
// random pauses. The server runs in real time where the system allows it
// (realtime = 1), as on stage; without it, a busy machine, not the program,
// sets the tail.
//
// JACK runs the input's client and the audio client side by side in each
// period, so a note reaches the player in the period it was written (about
// 0.1 ms) or, when the audio client drained the ring first, in the next
// (about one period): goal p99 at most one period plus 1 ms. xruns counts
// the buffers the device missed meanwhile; output_latency_ms is what
// PortAudio reports for the stream, which the player hears on top.

#include "input/inputmap.h"
#include "jackmidisender.h"
#include "jackplayback.h"
#include "latencyreport.h"
#include "midi/midiinput.h"
#include "runbenchmarks.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QThread>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int SR = 44100;

PdPlayer* sPlayer = nullptr;

// Waits (taking the player's results) until `done` or a second has passed.
template <typename Done> bool waitFor(Done done)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(1);
    while (!done()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        QThread::usleep(100);
        sPlayer->deliverResults();
    }
    return true;
}

void midiToCallback(benchmark::State& state)
{
    const int FRAMES = int(state.range(0));
    const QByteArray notesText = qgetenv("ARBO_BENCH_NOTES");
    const int notes = notesText.isEmpty() ? 400 : notesText.toInt();
    JackPlayback playback;
    if (!playback.start(sPlayer, TestSupport::binDir() + QStringLiteral("/patches/Sine.pd"), SR,
                        FRAMES, true)) {
        state.SkipWithError(qPrintable(playback.error()));
        return;
    }
    PaAudioOutput& output = playback.output();
    JackMidiSender keyboard;
    if (!keyboard.open(QStringLiteral("arbo-bench-keys"))) {
        state.SkipWithError("the benchmark's JACK MIDI client did not open");
        return;
    }
    InputMap map;
    map.initWithDefaults();
    InputMap::Bindings bindings = map.bindings();
    bindings.midiPorts = QStringList{QStringLiteral("arbo-bench-keys")};
    MidiInput input;
    input.attach(sPlayer);
    if (!input.open(bindings, MidiInput::Api::Jack) || input.connectedPorts().isEmpty()) {
        state.SkipWithError(qPrintable(input.status()));
        return;
    }

    for (auto _ : state) {
        // The start of the buffer that carried each note-on out.
        std::vector<Clock::time_point> started(std::size_t(notes) + 1);
        std::atomic<int> ons{0};
        std::atomic<int> offs{0};
        const QMetaObject::Connection tap = QObject::connect(
            sPlayer, &PdPlayer::noteToggled, &input,
            [&](const ArboRatio&, bool on) {
                if (!on) {
                    offs.fetch_add(1, std::memory_order_release);
                    return;
                }
                const int i = ons.load(std::memory_order_relaxed);
                if (i < notes) {
                    started[std::size_t(i)] = sPlayer->resultBufferStart();
                }
                ons.store(i + 1, std::memory_order_release);
            },
            Qt::DirectConnection);

        output.callbackStats().requestReset();
        std::mt19937 random(1);
        std::uniform_int_distribution<int> pauseUs(2000, 12000);
        std::vector<double> total;
        int lost = 0;
        for (int i = 0; i < notes; ++i) {
            QThread::usleep(static_cast<unsigned long>(pauseUs(random)));
            const std::uint64_t sentBefore = keyboard.sentWritten();
            const int onsBefore = ons.load();
            keyboard.send({0x90, 69, 100});
            if (!waitFor([&] { return ons.load(std::memory_order_acquire) > onsBefore; }) ||
                keyboard.sentWritten() <= sentBefore) {
                ++lost; // never carried out: counted, not timed
            } else {
                const Clock::time_point sent{std::chrono::nanoseconds(keyboard.lastSentNs())};
                total.push_back(std::chrono::duration<double, std::milli>(
                                    started[std::size_t(onsBefore)] - sent)
                                    .count());
            }
            const int offsBefore = offs.load();
            keyboard.send({0x80, 69, 0});
            waitFor([&] { return offs.load(std::memory_order_acquire) > offsBefore; });
        }
        QObject::disconnect(tap);
        if (total.empty()) {
            state.SkipWithError("no note was carried out");
            break;
        }
        LatencyReport::report(state, total, lost, 1000.0 * FRAMES / SR);
        state.counters["output_latency_ms"] = output.streamOutputLatency() * 1e3;
        state.counters["realtime"] = playback.realtime() ? 1 : 0;
        state.counters["xruns"] = double(output.callbackStats().snapshot().underflows);
    }
    input.close();
    keyboard.close();
    QThread::msleep(500);
}

} // namespace

int main(int argc, char** argv)
{
    return LatencyReport::run(argc, argv, "midi_to_callback", sPlayer, midiToCallback, [] { return true; });
}
