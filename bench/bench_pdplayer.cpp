// The player's share of an audio buffer: draining a full command ring and
// carrying the commands out, with the real patch open. A 256-frame buffer
// lasts 5.8 ms at 44.1 kHz; the drain should cost well under 1 % of that.

#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "sound/patchloader.h"
#include "sound/pdmessagebuffer.h"
#include "sound/pdplayer.h"
#include "runbenchmarks.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <benchmark/benchmark.h>

#include <pmmintrin.h>
#include <xmmintrin.h>

#include <chrono>
#include <memory>

namespace {

constexpr int SAMPLE_RATE = 44100;
constexpr int FULL_RING = PdMessageBuffer::CAPACITY;
constexpr double BUFFER_SECONDS = 256.0 / SAMPLE_RATE;

PdPlayer* player()
{
    static std::unique_ptr<PdPlayer> sPlayer;
    if (!sPlayer) {
        sPlayer = std::make_unique<PdPlayer>();
        sPlayer->init();
        sPlayer->initAudio(2, SAMPLE_RATE);
        PatchLoader::installShellPatches();
        PatchLoader::loadVoice(sPlayer.get(), TestSupport::binDir() + "/patches/Sine.pd");
    }
    return sPlayer.get();
}

// The measured drains as a share of one buffer's duration, in percent.
void reportShare(benchmark::State& state, std::chrono::nanoseconds spent)
{
    const double perDrain =
        std::chrono::duration<double>(spent).count() / double(state.iterations());
    state.counters["buffer_share_pct"] = 100.0 * perDrain / BUFFER_SECONDS;
}

// Commands that stay inside the player (volume bookkeeping and its signal).
void BM_DrainFullRingOfVolumeCommands(benchmark::State& state)
{
    PdPlayer* p = player();
    const ArboEvent event(ArboEvent::VoiceVolume, 0.5f);
    std::chrono::nanoseconds spent{0};
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < FULL_RING; ++i) {
            p->queueEventGui(&event);
        }
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        p->processEvents();
        p->deliverResults();
        spent += std::chrono::steady_clock::now() - start;
    }
    state.SetItemsProcessed(state.iterations() * FULL_RING);
    reportShare(state, spent);
}
BENCHMARK(BM_DrainFullRingOfVolumeCommands)->Unit(benchmark::kMicrosecond);

// Note toggles: voice choice, stealing, the note map and three messages into
// libpd per note-on. The toggles alternate over 64 notes, so each buffer
// strikes and releases them.
void BM_DrainFullRingOfNoteToggles(benchmark::State& state)
{
    PdPlayer* p = player();
    std::vector<ArboNoteEvent> notes;
    const int primes[] = {3, -3, 5, -5, 7, -7, 11, -11};
    for (int a : primes) {
        for (int b : primes) {
            ArboPath path(static_cast<signed char>(a));
            path.addLeaf(static_cast<signed char>(b));
            notes.emplace_back(path);
        }
    }
    std::chrono::nanoseconds spent{0};
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < FULL_RING; ++i) {
            p->queueEventGui(&notes[size_t(i) % notes.size()]);
        }
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        p->processEvents();
        p->deliverResults();
        spent += std::chrono::steady_clock::now() - start;
    }
    state.SetItemsProcessed(state.iterations() * FULL_RING);
    reportShare(state, spent);
}
BENCHMARK(BM_DrainFullRingOfNoteToggles)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    BenchmarkApp<QCoreApplication> app(argc, argv);
    _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
    _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
