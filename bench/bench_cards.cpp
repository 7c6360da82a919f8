// The note cards' costs against one 60 Hz frame (16.7 ms), with real widgets
// on the offscreen platform, the program's style sheet applied and the music
// symbols the build drew, in a 1400x900 lattice layer (grapes):
// - update_cards/32: CardStackWidget::updateCards() with 32 sounding notes,
//   every card thrown away and made anew (what a transposition, a new base
//   frequency or a readout change costs); frame_share is the share of one
//   frame.
// - update_cards_and_paint/32: the same followed by a synchronous repaint of
//   the whole layer (lattice, cards, connector lines): the frame the user
//   sees.
// - note_on_off: one note's card made and thrown away again, as a click on a
//   ball and a second click do (the ball's signals, no player).

#include "display/arboballwidget.h"
#include "display/arbolayer.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "model/arbo.h"
#include "model/arboball.h"
#include "display/cardstackwidget.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "runbenchmarks.h"
#include "testsupport.h"

#include <QApplication>
#include <QFile>
#include <QLoggingCategory>
#include <QtTest>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>

namespace {

using Clock = std::chrono::steady_clock;

constexpr double FRAME_MS = 1000.0 / 60.0;
constexpr int SOUNDING = 32;

ArboLayer* sLayer = nullptr;
QList<ArboBall*> sNodes;

double elapsedMs(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void setSounding(bool playing)
{
    for (ArboBall* node : qAsConst(sNodes)) {
        node->setPlaying(playing);
    }
}

void updateCards(benchmark::State& state, bool paint)
{
    setSounding(true);
    if (sLayer->cardStack()->cards().size() != SOUNDING) {
        state.SkipWithError("the sounding notes have no cards");
        return;
    }
    double totalMs = 0.0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        sLayer->view()->updateCardStack();
        if (paint) {
            sLayer->repaint();
        }
        totalMs += elapsedMs(start);
        // Deleted widgets leave posted events behind; not part of the
        // rebuild, but they must not pile up.
        state.PauseTiming();
        QCoreApplication::processEvents();
        state.ResumeTiming();
    }
    setSounding(false);
    state.counters["cards"] = double(SOUNDING);
    state.counters["frame_share_%"] = totalMs / double(state.iterations()) / FRAME_MS * 100.0;
}

void noteOnOff(benchmark::State& state)
{
    ArboBall* node = sNodes.first();
    double totalMs = 0.0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        node->setPlaying(true);
        node->setPlaying(false);
        totalMs += elapsedMs(start);
        state.PauseTiming();
        QCoreApplication::processEvents();
        state.ResumeTiming();
    }
    state.counters["frame_share_%"] = totalMs / double(state.iterations()) / FRAME_MS * 100.0;
}

} // namespace

int main(int argc, char** argv)
{
    BenchmarkApp<QApplication> app(argc, argv);
    QFile sheet(Paths::resourceDir() + QStringLiteral("/style.qss"));
    if (!sheet.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "style.qss is missing beside the benchmark; build first\n");
        return 1;
    }
    app.setStyleSheet(QString::fromUtf8(sheet.readAll()));

    Settings settings;
    Arbo lattice;
    lattice.initWithDefaults();

    ArboLayer layer;
    layer.init(ArboLeavesWidget::Grapes, &lattice, nullptr, settings);
    layer.resize(1400, 900);
    layer.show();
    if (!QTest::qWaitForWindowExposed(&layer)) {
        std::fprintf(stderr, "the layer was not shown\n");
        return 1;
    }
    sLayer = &layer;
    // The first 32 balls built: leaves of several trunk nodes and trunk notes.
    for (const ArboBallWidget* ball : layer.view()->arboWidget()->balls()) {
        if (sNodes.size() < SOUNDING) {
            sNodes.append(const_cast<ArboBall*>(ball->node()));
        }
    }
    for (int s = 0; s < CardStackWidget::SYMBOL_COUNT; ++s) {
        if (layer.cardStack()->svg(CardStackWidget::Symbol(s)).isEmpty()) {
            std::fprintf(stderr, "the music symbols are missing beside the benchmark\n");
            return 1;
        }
    }

    benchmark::RegisterBenchmark("update_cards/32", updateCards, false)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("update_cards_and_paint/32", updateCards, true)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("note_on_off", noteOnOff)->Unit(benchmark::kMicrosecond);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
