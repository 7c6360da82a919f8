// How long a note takes from the player to the MIDI system: from the moment
// the audio thread's side starts carrying out the note-on (processEvents, run
// here on the benchmark's thread as the audio callback runs it) until the MIDI
// thread has handed the note's bytes to RtMidi (its count of notes sent moves).
//
// The real pieces: the player, its note tap ring, the MIDI thread with the MPE
// encoder and RtMidi's JACK output as a virtual port on a private JACK server
// (dummy driver). ARBO_BENCH_NOTES notes (400 by default), each followed by its
// note-off. Goal: p99 under 1 ms. ring_* is the share from the push into the
// ring to the hand-over, as the MIDI thread measures it.

#include "model/arbonoteevent.h"
#include "jackfixture.h"
#include "latencyreport.h"
#include "midi/midioutput.h"
#include "midi/midisettings.h"
#include "settings/paths.h"
#include "sound/pdplayer.h"
#include "runbenchmarks.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

PdPlayer* sPlayer = nullptr;
MidiOutput* sOutput = nullptr;

void toggle(const ArboNoteEvent& note)
{
    sPlayer->queueEventGui(&note);
}

void noteToMidi(benchmark::State& state)
{
    const char* count = std::getenv("ARBO_BENCH_NOTES");
    const int notes = count ? std::max(1, std::atoi(count)) : 400;
    const ArboNoteEvent fifth(QStringLiteral("/3"));
    std::vector<double> totalMs;
    std::vector<double> ringMs;
    int lost = 0;
    for (auto _ : state) {
        for (int i = 0; i < notes; ++i) {
            const std::uint64_t before = sOutput->notesSent();
            toggle(fifth); // on
            const Clock::time_point start = Clock::now();
            sPlayer->processEvents();
            sPlayer->deliverResults();
            const Clock::time_point deadline = start + std::chrono::seconds(1);
            while (sOutput->notesSent() == before && Clock::now() < deadline) {
                std::this_thread::yield();
            }
            if (sOutput->notesSent() == before) {
                ++lost;
            } else {
                totalMs.push_back(
                    std::chrono::duration<double, std::milli>(Clock::now() - start).count());
                ringMs.push_back(1e-6 * double(sOutput->lastLatencyNs()));
            }
            toggle(fifth); // off
            sPlayer->processEvents();
            sPlayer->deliverResults();
            // Apart by a little, as notes are played.
            std::this_thread::sleep_for(std::chrono::microseconds(500 + 37 * (i % 50)));
        }
        if (totalMs.empty()) {
            state.SkipWithError("no note reached RtMidi");
            return;
        }
        LatencyReport::report(state, totalMs, lost, 0.0);
        state.counters.erase("goal_ms");
        state.counters.erase("period_ms");
        state.counters["goal_p99_ms"] = 1.0;
        state.counters["ring_p50_ms"] = LatencyReport::percentile(ringMs, 0.5);
        state.counters["ring_p99_ms"] = LatencyReport::percentile(ringMs, 0.99);
        state.counters["midi_thread_rt"] = sOutput->isRealtime() ? 1 : 0;
    }
}

} // namespace

int main(int argc, char** argv)
{
    BenchmarkApp<QCoreApplication> app(argc, argv);

    JackFixture jack;
    if (!jack.start()) {
        std::fprintf(stderr, "JACK did not start: %s\n", qPrintable(jack.error()));
        return 1;
    }
    jack.applyToThisProcess();

    PdPlayer player;
    sPlayer = &player;
    MidiOutput output;
    sOutput = &output;
    MidiSettings settings;
    output.attach(&player);
    if (!player.init() || !output.open(settings, MidiOutput::Api::Jack)) {
        std::fprintf(stderr, "the player or the MIDI output did not start: %s\n",
                     qPrintable(output.status()));
        return 1;
    }

    benchmark::RegisterBenchmark("note_on_to_rtmidi/mpe", noteToMidi)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    output.close();
    return 0;
}
