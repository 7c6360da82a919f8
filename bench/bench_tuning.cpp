// Tuning files: exporting the whole default lattice to all four formats
// (goal: 20 ms), and importing a 1,000-degree scale, read from its file and
// placed on the lattice (goal: 50 ms).

#include "model/arbo.h"
#include "runbenchmarks.h"
#include "settings/settings.h"
#include "tuning/scalascale.h"
#include "tuning/scaleplacement.h"
#include "tuning/tuningexport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <cmath>
#include <cstdio>

namespace {

void benchExportAllFormats(benchmark::State& state)
{
    Arbo lattice;
    lattice.initWithDefaults();
    Settings options;
    TuningExport::Reference reference;
    QString error;
    TuningExport::referenceOf(options, lattice, reference, error);
    qint64 bytes = 0;
    int degrees = 0;
    for (auto _ : state) {
        const TuningExport tuning(TuningExport::nodePaths(lattice, false), reference);
        bytes = 0;
        for (const auto format :
             {TuningExport::Format::Scala, TuningExport::Format::KeyboardMapping,
              TuningExport::Format::AnaMark, TuningExport::Format::MidiTuningDump}) {
            bytes += tuning.toBytes(format, QStringLiteral("lattice")).size();
        }
        degrees = tuning.degreePaths().size();
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["degrees"] = degrees;
    state.counters["bytes"] = double(bytes);
}

// A scale of 1,000 degrees (n/1000 for n from 1001 up, with one line in four
// in cents), as a published scale writes them: indented, some with labels.
QByteArray thousandDegrees()
{
    QByteArray text = "! thousand.scl\n!\nOne thousand degrees\n 1000\n!\n";
    for (int i = 1; i < 1000; ++i) {
        const double ratio = (1000.0 + i) / 1000.0;
        text += i % 4 == 0 ? QByteArray::number(1200.0 * std::log2(ratio), 'f', 3) + " cents\n"
                           : " " + QByteArray::number(1000 + i) + "/1000 ! degree\n";
    }
    return text + " 2/1\n";
}

void benchImportThousandDegrees(benchmark::State& state)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("thousand.scl"));
    TestSupport::writeFile(path, thousandDegrees());
    Arbo lattice;
    lattice.initWithDefaults();
    int placed = 0;
    for (auto _ : state) {
        ScalaScale scale;
        QString error;
        ScalaScale::load(path, scale, error);
        ScalePlacement placement;
        placement.preferNodesOf(lattice);
        placed = 0;
        for (const ScalePlacement::Place& place : placement.placeScale(scale)) {
            placed += place.placed ? 1 : 0;
        }
        benchmark::DoNotOptimize(placed);
    }
    state.counters["placed"] = placed;
}

} // namespace

BENCHMARK(benchExportAllFormats)->Unit(benchmark::kMillisecond);
BENCHMARK(benchImportThousandDegrees)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv)
{
    BenchmarkApp<QCoreApplication> app(argc, argv);
    // The table that cents lines are matched against is built on first use,
    // once per process: that one-off cost is measured here, not in the loops.
    QElapsedTimer firstUse;
    firstUse.start();
    ScalePlacement().placeCents(100.0);
    std::printf("First cents line (builds the table of lattice pitch classes): %.1f ms\n",
                double(firstUse.nsecsElapsed()) / 1e6);
    return runRegisteredBenchmarks(argc, argv);
}
