// The lattice work done on every transposition click: rebuilding the ball map
// and asking canTransposeTo() for each transpose button. Both must stay far
// below one frame (16 ms), for the default lattice and for one ten times
// larger.

#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboconstants.h"
#include "model/arboratio.h"

#include <QCoreApplication>
#include <QSet>

#include <benchmark/benchmark.h>

#include <deque>

namespace {

int countNodes(const ArboBall* node)
{
    int count = 1;
    for (const ArboBall* child : node->children()) {
        count += countNodes(child);
    }
    return count;
}

// The ratios of the 22 one-step transpositions, one per transpose button.
QList<ArboRatio> allSteps()
{
    QList<ArboRatio> steps;
    for (int i = 1; i < 12; ++i) {
        for (int step : {ArboConstants::PRIMES[i], -ArboConstants::PRIMES[i]}) {
            steps.append(ArboRatio::pathRatio(ArboPath(static_cast<signed char>(step))));
        }
    }
    return steps;
}

// The default lattice (19 trunk nodes with 18 leaves each, 361 nodes).
void buildDefault(Arbo& arbo)
{
    arbo.initWithDefaults();
}

// A lattice of 3610 nodes, ten times the default, every node sounding its
// own ratio: grown breadth first from the root over all 22 prime steps, paths
// of up to six steps, skipping any ratio already present.
void buildLarge(Arbo& arbo)
{
    arbo.initWithDefaults(); // colours
    arbo.read(QJsonObject());
    const int wanted = 10 * 361;
    int count = 1;
    QSet<ArboRatio> ratios{ArboRatio(1, 1)};
    std::deque<ArboBall*> queue{arbo.root()};
    while (!queue.empty() && count < wanted) {
        ArboBall* node = queue.front();
        queue.pop_front();
        for (int i = 1; i < 12 && count < wanted; ++i) {
            for (int step : {ArboConstants::PRIMES[i], -ArboConstants::PRIMES[i]}) {
                ArboPath path = node->path();
                path.addLeaf(static_cast<signed char>(step));
                const ArboRatio ratio = ArboRatio::pathRatio(path);
                if (count >= wanted || path.length() > 6 || ratios.contains(ratio)) {
                    continue;
                }
                ratios.insert(ratio);
                auto* child = new ArboBall(path, arbo.lookupColor(step), node);
                node->addChild(step, child);
                queue.push_back(child);
                ++count;
            }
        }
    }
    arbo.buildBallMap();
}

void benchBuildBallMap(benchmark::State& state, void (*build)(Arbo&))
{
    Arbo arbo;
    build(arbo);
    // A transposed lattice with a few sounding notes, as after a click.
    arbo.onTransposed(ArboRatio(3, 2), 3);
    for (const ArboRatio& ratio : {ArboRatio(3, 2), ArboRatio(9, 4), ArboRatio(15, 8)}) {
        arbo.onNoteToggled(ratio, true);
    }
    for (auto _ : state) {
        arbo.buildBallMap();
        benchmark::DoNotOptimize(arbo.ballMap().size());
    }
    state.counters["nodes"] = countNodes(arbo.root());
    state.counters["keys"] = arbo.ballMap().size();
}

// The transpose strip asks for every button (22 steps) after each change.
void benchCanTransposeToAll(benchmark::State& state, void (*build)(Arbo&))
{
    Arbo arbo;
    build(arbo);
    arbo.onTransposed(ArboRatio(3, 2), 3);
    const QList<ArboRatio> steps = allSteps();
    int allowed = 0;
    for (auto _ : state) {
        allowed = 0;
        for (const ArboRatio& step : steps) {
            allowed += arbo.canTransposeTo(step) ? 1 : 0;
        }
        benchmark::DoNotOptimize(allowed);
    }
    state.counters["keys"] = arbo.ballMap().size();
    state.counters["allowed"] = allowed;
}

// The fallback of canTransposeTo() when the largest parts of the keys do not
// clear a step at once (a transposition near the edge of 64 bits): every key
// is tested on its own. Measured for all 22 steps over all keys, with no key
// failing, which is the slowest outcome.
void benchKeyScan(benchmark::State& state, void (*build)(Arbo&))
{
    Arbo arbo;
    build(arbo);
    arbo.onTransposed(ArboRatio(3, 2), 3);
    const QList<ArboRatio> steps = allSteps();
    for (auto _ : state) {
        int allowed = 0;
        for (const ArboRatio& step : steps) {
            bool all = true;
            for (auto it = arbo.ballMap().constBegin(); it != arbo.ballMap().constEnd(); ++it) {
                if (!it.key().canMultiplyWith(step)) {
                    all = false;
                    break;
                }
            }
            allowed += all ? 1 : 0;
        }
        benchmark::DoNotOptimize(allowed);
    }
}

// One whole click: the lattice follows the engine's transposition and the
// strip refreshes every button.
void benchTranspositionClick(benchmark::State& state, void (*build)(Arbo&))
{
    Arbo arbo;
    build(arbo);
    const QList<ArboRatio> steps = allSteps();
    bool up = true;
    for (auto _ : state) {
        arbo.onTransposed(up ? ArboRatio(3, 2) : ArboRatio(1, 1), up ? 3 : -3);
        up = !up;
        int allowed = 0;
        for (const ArboRatio& step : steps) {
            allowed += arbo.canTransposeTo(step) ? 1 : 0;
        }
        benchmark::DoNotOptimize(allowed);
    }
}

} // namespace

BENCHMARK_CAPTURE(benchBuildBallMap, default_lattice, &buildDefault)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(benchBuildBallMap, ten_times_larger, &buildLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(benchCanTransposeToAll, default_lattice, &buildDefault)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(benchCanTransposeToAll, ten_times_larger, &buildLarge)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(benchKeyScan, default_lattice, &buildDefault)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(benchKeyScan, ten_times_larger, &buildLarge)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(benchTranspositionClick, default_lattice, &buildDefault)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(benchTranspositionClick, ten_times_larger, &buildLarge)
    ->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv)
{
    // The lattice logs through Qt; debug lines would only slow the loops.
    qputenv("QT_LOGGING_RULES", "*.debug=false");
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
