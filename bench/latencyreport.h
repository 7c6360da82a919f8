#pragma once

#include "runbenchmarks.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

// The summary that the latency benchmarks share: how long an input took to
// reach the audio callback, against the goal of one buffer period plus 1 ms.
namespace LatencyReport {

using Clock = std::chrono::steady_clock;

// Times written by other threads into slots reserved beforehand: no
// allocation or lock where they are taken.
class Stamps
{
public:
    explicit Stamps(int capacity) : mTimes(std::size_t(capacity)) {}
    void stamp(Clock::time_point at = Clock::now())
    {
        const int i = mCount.fetch_add(1, std::memory_order_relaxed);
        if (i < int(mTimes.size())) {
            mTimes[std::size_t(i)] = at;
            mDone.store(i + 1, std::memory_order_release);
        }
    }
    int done() const { return mDone.load(std::memory_order_acquire); }
    Clock::time_point at(int i) const { return mTimes[std::size_t(i)]; }

private:
    std::vector<Clock::time_point> mTimes;
    std::atomic<int> mCount{0};
    std::atomic<int> mDone{0};
};

// Stamps `carriedOut` with the start of the buffer that carried each note
// toggle of `player` out, while the connection lives. The player reports
// on the GUI thread (this one), which must call deliverResults().
inline QMetaObject::Connection stampCarriedOut(PdPlayer* player, Stamps& carriedOut)
{
    return QObject::connect(
        player, &PdPlayer::noteToggled, player,
        [player, &carriedOut](const ArboRatio&, bool) {
            carriedOut.stamp(player->resultBufferStart());
        },
        Qt::DirectConnection);
}

// Sends `notes` inputs through `send()`, at random moments 2 to 12 ms apart
// so that they fall on every phase of the buffer period, stamping each in
// `sent` just before, and waits up to a second for `carriedOut` to stamp it
// (taking the player's results meanwhile). Returns how many never arrived
// (counted, not timed).
template <typename Send>
int sendAtRandomMoments(PdPlayer* player, int notes, Stamps& sent, const Stamps& carriedOut,
                        Send send)
{
    std::mt19937 random(1);
    std::uniform_int_distribution<int> pauseUs(2000, 12000);
    int lost = 0;
    for (int i = 0; i < notes; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(pauseUs(random)));
        sent.stamp();
        send();
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(1);
        while (carriedOut.done() <= i - lost && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            player->deliverResults();
        }
        if (carriedOut.done() <= i - lost) {
            ++lost;
        }
    }
    return lost;
}

// The value below which the share `p` (0 to 1) of `values` lies.
inline double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    const std::size_t i = std::min(values.size() - 1, std::size_t(p * double(values.size())));
    return values[i];
}

// Sets the iteration time to the median and the counters notes, lost,
// p50_ms, p99_ms, max_ms, goal_ms and period_ms. `totalMs` must not be empty.
inline void report(benchmark::State& state, const std::vector<double>& totalMs, int lost,
                   double periodMs)
{
    state.SetIterationTime(1e-3 * percentile(totalMs, 0.5));
    state.counters["notes"] = double(totalMs.size());
    state.counters["lost"] = lost;
    state.counters["p50_ms"] = percentile(totalMs, 0.5);
    state.counters["p99_ms"] = percentile(totalMs, 0.99);
    state.counters["max_ms"] = percentile(totalMs, 1.0);
    state.counters["goal_ms"] = periodMs + 1.0;
    state.counters["period_ms"] = periodMs;
}

// The main() of a latency benchmark: the settings and the player registered
// as the program registers them, the shell patches installed, `prepare`
// (which may add what the input needs, and says whether it could), then one
// manual-time run of `function` under `name` for each buffer size (64 and
// 256 frames, the argument). `player` is where the benchmark finds the
// player.
template <typename Function, typename Prepare>
int run(int argc, char** argv, const char* name, PdPlayer*& player, Function function,
        Prepare prepare)
{
    BenchmarkApp<QCoreApplication> app(argc, argv);
    PdPlayer ownPlayer;
    player = &ownPlayer;
    if (!ownPlayer.init() || !PatchLoader::installShellPatches() || !prepare()) {
        std::fprintf(stderr, "libpd, the patches or the input did not start\n");
        return 1;
    }
    atBufferSizes(benchmark::RegisterBenchmark(name, function))
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);
    const int result = runRegisteredBenchmarks(argc, argv);
    return result;
}

} // namespace LatencyReport
