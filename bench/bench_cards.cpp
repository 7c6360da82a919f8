// The note cards' costs against one 60 Hz frame (16.7 ms), with real widgets
// on the offscreen platform, the program's style sheet applied and the music
// symbols the build drew, in a 1400x900 lattice layer (grapes):
// - update_cards/32: CardStackWidget::updateCards() with 32 sounding notes
//   and nothing changed since the last one; frame_share is the share of one
//   frame.
// - update_cards_and_paint/32: the same followed by a synchronous repaint of
//   the whole layer (lattice, cards, connector lines): the frame the user
//   sees.
// - base_frequency/32, transpose/32 and respell/32: the full update the main
//   window asks for after a change of base frequency (440 Hz to 432 Hz and
//   back), of transposition (a fifth up and back, the notes reported by the
//   lattice as the player would, so that they move to other balls) and of
//   notation (Helmholtz-Ellis and back): two changes per iteration, each
//   followed by updateCards().
// - note_on_off: one note's card made and thrown away again, as a click on a
//   ball and a second click do (the ball's signals, no player).
// - note_on_off/32: the same while 32 other notes sound, so that the pile has
//   to make room for the new card; and note_on_off_and_paint/32 followed, after
//   each of the two, by the repaint the window has queued (what was marked
//   dirty, lattice included).
// - paint/32: a synchronous repaint of the whole layer with 32 cards. The
//   paint events of the cards (their parts included) and of the connector
//   overlay are timed and their heap allocations counted (malloc, calloc and
//   realloc are interposed in this program), per frame: card_paints and
//   connector_paints (paint events), card_allocs and connector_allocs,
//   card_paint_ms and connector_paint_ms. Qt allocates a few times for every
//   widget it paints, whatever the widget does (QPainter's private data, its
//   state, a pen and a brush); a probe widget that only opens a painter
//   measures that (qt_allocs_per_paint), and card_own_allocs and
//   connector_own_allocs are what is left: the allocations of the cards' and
//   connectors' own paint code, which must be 0.

#include "display/arboballwidget.h"
#include "display/arbolayer.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "display/cardconnectoroverlay.h"
#include "display/cardstackwidget.h"
#include "display/cardwidget.h"
#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboratio.h"
#include "runbenchmarks.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "testsupport.h"

#include <QApplication>
#include <QFile>
#include <QLoggingCategory>
#include <QPainter>
#include <QtTest>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <string>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
}

namespace {

// Where the allocations of this thread are counted, when anywhere: the
// counter of the paint event under way.
thread_local long* sAllocations = nullptr;

} // namespace

extern "C" {
void* malloc(size_t size)
{
    if (sAllocations) {
        ++*sAllocations;
    }
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size)
{
    if (sAllocations) {
        ++*sAllocations;
    }
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size)
{
    if (sAllocations) {
        ++*sAllocations;
    }
    return __libc_realloc(pointer, size);
}
}

namespace {

using Clock = std::chrono::steady_clock;

constexpr double FRAME_MS = 1000.0 / 60.0;
constexpr int SOUNDING = 32;

ArboLayer* sLayer = nullptr;
Arbo* sLattice = nullptr;
Settings* sSettings = nullptr;
QList<ArboBall*> sNodes;
// A note beside the 32, for a card that comes and goes among theirs.
ArboBall* sExtraNode = nullptr;

// What the paint events of one kind of widget cost, summed.
struct PaintCost
{
    long events = 0;
    long allocations = 0;
    double ms = 0.0;
};
PaintCost sCardPaint;
PaintCost sConnectorPaint;
PaintCost sProbePaint;

// Its paint only opens a painter: what Qt allocates for any widget it paints.
class PainterProbe : public QWidget
{
protected:
    void paintEvent(QPaintEvent*) override { QPainter painter(this); }
};
PainterProbe* sProbe = nullptr;

// Times and counts the paint events of the cards (and everything on them)
// and of the connector overlay.
class CardBenchApp : public BenchmarkApp<QApplication>
{
public:
    using BenchmarkApp<QApplication>::BenchmarkApp;

    bool notify(QObject* receiver, QEvent* event) override
    {
        PaintCost* cost = event->type() == QEvent::Paint ? costOf(receiver) : nullptr;
        if (!cost) {
            return QApplication::notify(receiver, event);
        }
        const Clock::time_point start = Clock::now();
        ++cost->events;
        sAllocations = &cost->allocations;
        const bool handled = QApplication::notify(receiver, event);
        sAllocations = nullptr;
        cost->ms += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        return handled;
    }

private:
    static PaintCost* costOf(QObject* receiver)
    {
        if (dynamic_cast<PainterProbe*>(receiver)) {
            return &sProbePaint;
        }
        if (qobject_cast<CardConnectorOverlay*>(receiver)) {
            return &sConnectorPaint;
        }
        for (QObject* o = receiver; o; o = o->parent()) {
            if (qobject_cast<CardWidget*>(o)) {
                return &sCardPaint;
            }
        }
        return nullptr;
    }
};

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

enum class Change
{
    BaseFrequency,
    Transposition,
    Notation
};

void updateAfterChange(benchmark::State& state, Change change)
{
    // Sounding as the player reports notes, so that the lattice knows them
    // across a transposition.
    for (ArboBall* node : qAsConst(sNodes)) {
        sLattice->onNoteToggled(node->ratio(), true);
    }
    if (sLayer->cardStack()->cards().size() != SOUNDING) {
        state.SkipWithError("the sounding notes have no cards");
        return;
    }
    const auto apply = [change](bool there) {
        switch (change) {
        case Change::BaseFrequency:
            sLattice->onBaseFrequencyChanged(there ? 432.0f : 440.0f);
            break;
        case Change::Transposition:
            sLattice->onTransposed(there ? ArboRatio(3, 2) : ArboRatio(1, 1), there ? 3 : 0);
            break;
        case Change::Notation:
            sSettings->mNotation =
                there ? Settings::Notation::HelmholtzEllis : Settings::Notation::Conventional;
            break;
        }
        sLayer->view()->updateCardStack();
    };
    double totalMs = 0.0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        apply(true);
        apply(false);
        totalMs += elapsedMs(start);
        state.PauseTiming();
        QCoreApplication::processEvents();
        state.ResumeTiming();
    }
    for (ArboBall* node : qAsConst(sNodes)) {
        sLattice->onNoteToggled(node->ratio(), false);
    }
    state.counters["frame_share_%"] = totalMs / double(state.iterations()) / FRAME_MS * 100.0;
}

// The repaint the window has queued, drawn now.
void paintPending()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::UpdateRequest);
}

void noteOnOff(benchmark::State& state, ArboBall* node, bool among32, bool paint)
{
    setSounding(among32);
    if (among32 && sLayer->cardStack()->cards().size() != SOUNDING) {
        state.SkipWithError("the sounding notes have no cards");
        return;
    }
    paintPending();
    double totalMs = 0.0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        node->setPlaying(true);
        if (paint) {
            paintPending();
        }
        node->setPlaying(false);
        if (paint) {
            paintPending();
        }
        totalMs += elapsedMs(start);
        state.PauseTiming();
        QCoreApplication::processEvents();
        state.ResumeTiming();
    }
    setSounding(false);
    state.counters["frame_share_%"] = totalMs / double(state.iterations()) / FRAME_MS * 100.0;
}

void paint(benchmark::State& state)
{
    setSounding(true);
    if (sLayer->cardStack()->cards().size() != SOUNDING) {
        state.SkipWithError("the sounding notes have no cards");
        return;
    }
    // The first frame fills whatever the widgets cache; the frames after it
    // are the ones measured.
    sLayer->repaint();
    sProbe->repaint();
    sCardPaint = {};
    sConnectorPaint = {};
    sProbePaint = {};
    for (auto _ : state) {
        sLayer->repaint();
        state.PauseTiming();
        sProbe->repaint();
        state.ResumeTiming();
    }
    setSounding(false);
    const double frames = double(state.iterations());
    const double qtAllocs = double(sProbePaint.allocations) / double(sProbePaint.events);
    const auto report = [&](const char* name, const PaintCost& cost) {
        const std::string prefix(name);
        state.counters[prefix + "_paints"] = double(cost.events) / frames;
        state.counters[prefix + "_allocs"] = double(cost.allocations) / frames;
        state.counters[prefix + "_own_allocs"] =
            (double(cost.allocations) - double(cost.events) * qtAllocs) / frames;
        state.counters[prefix + "_paint_ms"] = cost.ms / frames;
    };
    report("card", sCardPaint);
    report("connector", sConnectorPaint);
    state.counters["qt_allocs_per_paint"] = qtAllocs;
}

} // namespace

int main(int argc, char** argv)
{
    CardBenchApp app(argc, argv);
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
    PainterProbe probe;
    probe.resize(16, 16);
    probe.show();
    if (!QTest::qWaitForWindowExposed(&probe)) {
        std::fprintf(stderr, "the probe was not shown\n");
        return 1;
    }
    sProbe = &probe;
    sLattice = &lattice;
    sSettings = &settings;
    // The first 32 balls built: leaves of several trunk nodes and trunk notes;
    // the extra note is the root, whose card goes among theirs.
    for (const ArboBallWidget* ball : layer.view()->arboWidget()->balls()) {
        if (sNodes.size() < SOUNDING && ball->node() != lattice.root()) {
            sNodes.append(const_cast<ArboBall*>(ball->node()));
        }
    }
    sExtraNode = lattice.root();
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
    benchmark::RegisterBenchmark("base_frequency/32", updateAfterChange, Change::BaseFrequency)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("transpose/32", updateAfterChange, Change::Transposition)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("respell/32", updateAfterChange, Change::Notation)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("note_on_off", noteOnOff, sNodes.first(), false, false)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("note_on_off/32", noteOnOff, sExtraNode, true, false)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("note_on_off_and_paint/32", noteOnOff, sExtraNode, true, true)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("paint/32", paint)->Unit(benchmark::kMillisecond);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
