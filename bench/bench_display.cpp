// The lattice display's costs against one 60 Hz frame (16.7 ms), with real
// widgets on the offscreen platform:
// - scene_build: building the whole scene (ArboView::buildScene) of the default
//   lattice and of a generated lattice with ten times its trunk (190 trunk
//   nodes, each with its 18 leaves); frame_share is the share of one frame.
// - repaint_all_playing: one full synchronous repaint of a 1200x800 view
//   with every ball playing (glows, outlines), both drawings; allocs_per_frame
//   counts the GUI thread's heap allocations during it, pictures_kB is the
//   size of the ball parts' shared picture cache afterwards.
// - repaint_one_ball: the ball at /3 starts or stops playing, until the view
//   has repainted what that changed (from the node's signal through the
//   scene's dirty-item pass to the end of the viewport's paint event);
//   painted_% is the share of the viewport that paint covered.
// - click_to_player/offline: a mouse press on a ball's point of the viewport
//   until the player's processEvents, called right after, has carried the
//   toggle out: the program's own share of a click's latency.
// - click_to_callback, key_to_callback: the same press, or the press of a
//   note key of the default input map, with the real PortAudio stream on a
//   private JACK server (dummy driver, 44100 Hz, 64 and 256 frames) playing
//   Sine.pd, until the start of the audio callback that carries the note-on
//   out (the player tells it with noteToggled). Most of it is the wait for
//   the next callback: goal p99 at most one buffer period plus 1 ms.

#include "display/arboballpart.h"
#include "display/arboballwidget.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "input/inputmap.h"
#include "model/arbonoteevent.h"
#include "jackplayback.h"
#include "latencyreport.h"
#include "model/arbo.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "ui/keyboardinput.h"
#include "runbenchmarks.h"
#include "testsupport.h"

#include <QApplication>
#include <QDir>
#include <QLoggingCategory>
#include <QPaintEvent>
#include <QThread>
#include <QtTest>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
}

namespace {

// Heap allocations made by a thread while its tCountAllocations is set. The
// allocator is interposed below, so the count covers Qt's containers (which
// call malloc) as well as operator new (which does too).
thread_local bool tCountAllocations = false;
long sAllocations = 0;

} // namespace

extern "C" {
void* malloc(size_t size)
{
    if (tCountAllocations) {
        ++sAllocations;
    }
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size)
{
    if (tCountAllocations) {
        ++sAllocations;
    }
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size)
{
    if (tCountAllocations) {
        ++sAllocations;
    }
    return __libc_realloc(pointer, size);
}
}

namespace {

using Clock = std::chrono::steady_clock;

constexpr double FRAME_MS = 1000.0 / 60.0;
constexpr int SR = 44100;
constexpr int LARGE_TRUNK = 190;

PdPlayer* sPlayer = nullptr;
Arbo* sDefaultLattice = nullptr;
const Settings* sOptions = nullptr;
Arbo* sLargeLattice = nullptr;

// Grows the default tree breadth first, each trunk node taking the steps of
// 2 and 3 that do not lead straight back, until the trunk has `trunk` nodes.
// Paths stop at six steps, the most a path holds.
void growTrunk(Arbo& lattice, int trunk)
{
    QList<ArboBall*> queue{lattice.root()};
    int count = 0;
    QList<ArboBall*> all;
    while (!queue.isEmpty()) {
        ArboBall* node = queue.takeFirst();
        all.append(node);
        ++count;
        const QList<int> steps = node->path().toList();
        const int last = steps.isEmpty() ? 0 : steps.constLast();
        for (int step : {-3, -2, 2, 3}) {
            if (step == -last || steps.size() >= 6) {
                continue;
            }
            if (!node->childAtPrime(step)) {
                if (count + queue.size() >= trunk) {
                    continue;
                }
                const QString path = (steps.isEmpty() ? QString() : node->path().toString()) +
                                     QStringLiteral("/%1").arg(step);
                auto* child = new ArboBall(ArboPath(path), lattice.lookupColor(step), node);
                node->addChild(step, child);
                lattice.addLeaves(child);
            }
            queue.append(node->childAtPrime(step));
        }
        if (count >= trunk) {
            break;
        }
    }
    lattice.buildBallMap();
}

int trunkSize(const Arbo& lattice)
{
    int trunk = 0;
    const QList<ArboBall*> nodes = lattice.root()->findChildren<ArboBall*>() << lattice.root();
    for (const ArboBall* node : nodes) {
        bool high = false;
        for (int step : node->path().toList()) {
            high = high || std::abs(step) >= ArboBall::HIGH_PRIME_STEP;
        }
        trunk += high ? 0 : 1;
    }
    return trunk;
}

void sceneBuild(benchmark::State& state, Arbo* lattice, ArboLeavesWidget::View style)
{
    ArboView view;
    view.resize(1200, 800);
    view.init(style, lattice, nullptr, sPlayer, *sOptions);
    double totalMs = 0.0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        view.buildScene(style);
        // The scene polishes new items from the event loop, before the next
        // frame; without it they pile up across iterations.
        QCoreApplication::processEvents();
        totalMs += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }
    state.counters["frame_share_%"] = totalMs / double(state.iterations()) / FRAME_MS * 100.0;
    state.counters["balls"] = double(view.arboWidget()->balls().size());
    state.counters["trunk"] = double(trunkSize(*lattice));
}

ArboBallWidget* ballAt(const ArboView& view, const QString& path)
{
    for (ArboBallWidget* ball : view.arboWidget()->balls()) {
        if (ball->node()->path() == ArboPath(path)) {
            return ball;
        }
    }
    return nullptr;
}

void setAllPlaying(Arbo* lattice, bool playing)
{
    const QList<ArboBall*> nodes = lattice->root()->findChildren<ArboBall*>() << lattice->root();
    for (ArboBall* node : nodes) {
        node->setPlaying(playing);
    }
}

// The lattice in a window of a usual size, shown and exposed.
bool showView(ArboView& view, Arbo* lattice, ArboLeavesWidget::View style, benchmark::State& state)
{
    view.resize(1200, 800);
    view.init(style, lattice, nullptr, sPlayer, *sOptions);
    view.show();
    if (!QTest::qWaitForWindowExposed(&view)) {
        state.SkipWithError("the view was not shown");
        return false;
    }
    return true;
}

void repaintAllPlaying(benchmark::State& state, Arbo* lattice, ArboLeavesWidget::View style)
{
    ArboView view;
    if (!showView(view, lattice, style, state)) {
        return;
    }
    setAllPlaying(lattice, true);
    view.viewport()->repaint(); // fills the glow caches once, as a first frame would
    double totalMs = 0.0;
    const long allocationsBefore = sAllocations;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        tCountAllocations = true;
        view.viewport()->repaint();
        tCountAllocations = false;
        totalMs += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }
    setAllPlaying(lattice, false);
    state.counters["frame_share_%"] = totalMs / double(state.iterations()) / FRAME_MS * 100.0;
    state.counters["pictures_kB"] = ArboBallPart::cachedKilobytes();
    state.counters["allocs_per_frame"] =
        double(sAllocations - allocationsBefore) / double(state.iterations());
}

// Counts the paint events of a widget and the pixels they cover.
class PaintWatch : public QObject
{
public:
    int paints = 0;
    qint64 pixels = 0;

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::Paint) {
            ++paints;
            for (const QRect& rect : static_cast<QPaintEvent*>(event)->region()) {
                pixels += qint64(rect.width()) * rect.height();
            }
        }
        return false;
    }
};

void repaintOneBall(benchmark::State& state, Arbo* lattice, ArboLeavesWidget::View style)
{
    ArboView view;
    if (!showView(view, lattice, style, state)) {
        return;
    }
    PaintWatch watch;
    view.viewport()->installEventFilter(&watch);
    ArboBall* node = const_cast<ArboBall*>(ballAt(view, "/3")->node());
    // Toggles the note and runs the event loop until the viewport has
    // painted; false if it never does.
    const auto toggleAndPaint = [&] {
        const int before = watch.paints;
        node->setPlaying(!node->isPlaying());
        for (int i = 0; i < 10000 && watch.paints == before; ++i) {
            QCoreApplication::processEvents();
        }
        return watch.paints > before;
    };
    view.viewport()->repaint();
    toggleAndPaint(); // the first frame of each state fills its caches
    toggleAndPaint();
    watch.pixels = 0;
    double totalMs = 0.0;
    const long allocationsBefore = sAllocations;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        tCountAllocations = true;
        const bool painted = toggleAndPaint();
        tCountAllocations = false;
        totalMs += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        if (!painted) {
            state.SkipWithError("the view did not repaint");
            break;
        }
    }
    node->setPlaying(false);
    const double frames = double(state.iterations());
    state.counters["frame_share_%"] = totalMs / frames / FRAME_MS * 100.0;
    state.counters["allocs_per_frame"] = double(sAllocations - allocationsBefore) / frames;
    const double viewportPixels = double(view.viewport()->width()) * view.viewport()->height();
    state.counters["painted_%"] = double(watch.pixels) / frames / viewportPixels * 100.0;
}

void clickToPlayerOffline(benchmark::State& state)
{
    ArboView view;
    view.resize(1200, 800);
    view.init(ArboLeavesWidget::Grapes, sDefaultLattice, nullptr, sPlayer, *sOptions);
    view.show();
    if (!QTest::qWaitForWindowExposed(&view) ||
        !PatchLoader::loadVoice(sPlayer, TestSupport::binDir() + "/patches/Sine.pd")) {
        state.SkipWithError("no view or no voice");
        return;
    }
    const QPoint point = view.mapFromScene(ballAt(view, "/3")->scenePos());
    std::atomic<int> toggles{0};
    const QMetaObject::Connection counting = QObject::connect(
        sPlayer, &PdPlayer::noteToggled, sPlayer, [&toggles] { ++toggles; }, Qt::DirectConnection);
    std::vector<double> times;
    for (auto _ : state) {
        const int before = toggles;
        const Clock::time_point start = Clock::now();
        QTest::mousePress(view.viewport(), Qt::LeftButton, Qt::NoModifier, point);
        sPlayer->processEvents();
        sPlayer->deliverResults();
        const Clock::time_point end = Clock::now();
        QTest::mouseRelease(view.viewport(), Qt::LeftButton, Qt::NoModifier, point);
        if (toggles != before + 1) {
            state.SkipWithError("the click did not reach the player");
            break;
        }
        times.push_back(std::chrono::duration<double, std::micro>(end - start).count());
        state.SetIterationTime(1e-6 * times.back());
    }
    QObject::disconnect(counting);
    if (!times.empty()) {
        state.counters["p50_us"] = LatencyReport::percentile(times, 0.5);
        state.counters["p99_us"] = LatencyReport::percentile(times, 0.99);
    }
    const ArboEvent stopAll(ArboEvent::AllNotesOff, 1.0f);
    sPlayer->queueEventGui(&stopAll);
    sPlayer->processEvents();
    sPlayer->deliverResults();
}

// Does `strike` (which starts the note at /3) and `lift` (which ends it)
// ARBO_BENCH_NOTES times (400 by default) after random pauses of 2 to 12 ms,
// so that they fall on every phase of the buffer period, with the real
// PortAudio stream on a private JACK server (state.range(0) frames) playing
// Sine.pd: from each strike to the start of the buffer that carried its
// note-on out. The player's results are taken here, on the GUI thread.
template <typename Strike, typename Lift>
void actionToCallback(benchmark::State& state, Strike strike, Lift lift)
{
    const int frames = int(state.range(0));
    const QByteArray notesText = qgetenv("ARBO_BENCH_NOTES");
    const int notes = notesText.isEmpty() ? 400 : notesText.toInt();
    JackPlayback playback;
    if (!playback.start(sPlayer, TestSupport::binDir() + "/patches/Sine.pd", SR, frames)) {
        state.SkipWithError(qPrintable(playback.error()));
        return;
    }
    PaAudioOutput& output = playback.output();
    // Waits, taking the player's results, until `done` or a second has passed.
    const auto waitFor = [](const auto& done) {
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(1);
        while (!done() && Clock::now() < deadline) {
            QThread::usleep(100);
            sPlayer->deliverResults();
        }
        return done();
    };

    for (auto _ : state) {
        std::vector<Clock::time_point> started;
        int ons = 0;
        int offs = 0;
        const QMetaObject::Connection stamping = QObject::connect(
            sPlayer, &PdPlayer::noteToggled, sPlayer,
            [&](const ArboRatio&, bool on) {
                if (on) {
                    started.push_back(sPlayer->resultBufferStart());
                    ++ons;
                } else {
                    ++offs;
                }
            },
            Qt::DirectConnection);
        output.callbackStats().requestReset();
        std::mt19937 random(1);
        std::uniform_int_distribution<int> pauseUs(2000, 12000);
        std::vector<double> total;
        int lost = 0;
        for (int i = 0; i < notes; ++i) {
            QThread::usleep(static_cast<unsigned long>(pauseUs(random)));
            const int onsBefore = ons;
            const Clock::time_point struck = Clock::now();
            strike();
            if (waitFor([&] { return ons > onsBefore; })) {
                total.push_back(std::chrono::duration<double, std::milli>(started.back() - struck)
                                    .count());
            } else {
                ++lost; // never carried out: counted, not timed
            }
            const int offsBefore = offs;
            lift();
            waitFor([&] { return offs > offsBefore; });
        }
        QObject::disconnect(stamping);
        if (total.empty()) {
            state.SkipWithError("no note was carried out");
            break;
        }
        LatencyReport::report(state, total, lost, 1000.0 * frames / SR);
        state.counters["xruns"] = double(output.callbackStats().snapshot().underflows);
    }
    const ArboEvent stopAll(ArboEvent::AllNotesOff, 1.0f);
    sPlayer->queueEventGui(&stopAll);
    QThread::msleep(500);
}

// A click on the ball at /3 toggles it on, the next one off.
void clickToCallback(benchmark::State& state)
{
    ArboView view;
    view.resize(1200, 800);
    view.init(ArboLeavesWidget::Grapes, sDefaultLattice, nullptr, sPlayer, *sOptions);
    view.show();
    if (!QTest::qWaitForWindowExposed(&view)) {
        state.SkipWithError("the view was not shown");
        return;
    }
    const QPoint point = view.mapFromScene(ballAt(view, "/3")->scenePos());
    const auto click = [&] {
        QTest::mousePress(view.viewport(), Qt::LeftButton, Qt::NoModifier, point);
        QTest::mouseRelease(view.viewport(), Qt::LeftButton, Qt::NoModifier, point);
    };
    actionToCallback(state, click, click);
}

// The default map's G key sounds /3 while it is held.
void keyToCallback(benchmark::State& state)
{
    QWidget window;
    window.resize(400, 300);
    window.show();
    if (!QTest::qWaitForWindowExposed(&window)) {
        state.SkipWithError("the window was not shown");
        return;
    }
    InputMap map;
    map.initWithDefaults();
    KeyboardInput keyboard(sPlayer, &window);
    keyboard.setBindings(map.bindings());
    const auto key = [&window](QEvent::Type type) {
        QKeyEvent event(type, Qt::Key_G, Qt::NoModifier, QStringLiteral("g"));
        QApplication::sendEvent(&window, &event);
    };
    actionToCallback(
        state, [&] { key(QEvent::KeyPress); }, [&] { key(QEvent::KeyRelease); });
}

} // namespace

int main(int argc, char** argv)
{
    BenchmarkApp<QApplication> app(argc, argv);

    Settings settings;
    sOptions = &settings;
    PdPlayer player;
    sPlayer = &player;
    QDir().mkpath(Paths::configDir());
    Arbo defaultLattice;
    Arbo largeLattice;
    if (!player.init() || player.initAudio(2, SR) != 0 || !PatchLoader::installShellPatches() ||
        !defaultLattice.init(&player)) {
        std::fprintf(stderr, "libpd, the patches or the lattice did not start\n");
        return 1;
    }
    largeLattice.initWithDefaults();
    growTrunk(largeLattice, LARGE_TRUNK);
    sDefaultLattice = &defaultLattice;
    sLargeLattice = &largeLattice;

    for (auto style : {ArboLeavesWidget::Circles, ArboLeavesWidget::Grapes}) {
        const char* name = style == ArboLeavesWidget::Circles ? "flowers" : "grapes";
        benchmark::RegisterBenchmark((std::string("scene_build/default/") + name).c_str(),
                                     sceneBuild, sDefaultLattice, style)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("scene_build/large/") + name).c_str(), sceneBuild,
                                     sLargeLattice, style)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("repaint_all_playing/default/") + name).c_str(),
                                     repaintAllPlaying, sDefaultLattice, style)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("repaint_one_ball/default/") + name).c_str(),
                                     repaintOneBall, sDefaultLattice, style)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("click_to_player/offline", clickToPlayerOffline)
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime()
        ->Iterations(400);
    for (const auto& [name, function] :
         {std::pair<const char*, void (*)(benchmark::State&)>{"click_to_callback", clickToCallback},
          {"key_to_callback", keyToCallback}}) {
        atBufferSizes(benchmark::RegisterBenchmark(name, function))
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime()
            ->Iterations(1);
    }

    const int result = runRegisteredBenchmarks(argc, argv);
    return result;
}
