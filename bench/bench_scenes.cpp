// Scenes: how long a recall takes through the program, and how long a big
// book takes to load.
//
// scene_recall_*: from the moment a recall is asked for to the start of the
// audio callback that carries out the last of its changes (the player's
// sceneRecalled carries the start of that buffer). Two scenes of 12 notes
// with no note in common alternate, so every recall ends 12 notes and starts
// 12, with the same patch (Sine.pd) on PaAudioOutput over a private JACK
// server (dummy driver, 44100 Hz, 64 and 256 frames). "key": the window's
// command, as a scene key queues it on the GUI ring; "midi": a Program
// Change written by a JACK MIDI client of this benchmark into the MIDI
// input's port. ARBO_BENCH_NOTES recalls each (200 by default), at random
// moments. Goal: p99 at most one period plus 1 ms.
//
// scene_book_load: "scenes.json" with 1,000 scenes of 12 notes read into a
// book and its player table built (goal: at most 50 ms); scene_panel_fill
// and scene_panel_scroll: the panel's list filled with them, and a page of
// it scrolled and painted (offscreen), the work a performer's scrolling
// costs the GUI thread.

#include "input/inputmap.h"
#include "jackmidisender.h"
#include "jackplayback.h"
#include "latencyreport.h"
#include "midi/midiinput.h"
#include "model/arboevent.h"
#include "runbenchmarks.h"
#include "scenes/scenebook.h"
#include "settings/paths.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/scenecontroller.h"
#include "ui/scenepanel.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QListWidget>
#include <QScrollBar>
#include <QThread>
#include <QVBoxLayout>

#include <functional>
#include <random>

#include <benchmark/benchmark.h>

#include <cstdio>

namespace {

using LatencyReport::Stamps;

constexpr int SR = 44100;
PdPlayer* sPlayer = nullptr;

// Scene `index` of two: 12 notes of the 5-limit, the second an octave above
// the first, so the two share none.
SceneTable::Scene sceneSound(int index, std::vector<SceneTable::Note>& notes)
{
    static const unsigned long long ratios[12][2] = {{1, 1},   {16, 15}, {9, 8},  {6, 5},
                                                     {5, 4},   {4, 3},   {45, 32}, {3, 2},
                                                     {8, 5},   {5, 3},   {9, 5},  {15, 8}};
    notes.clear();
    for (const auto& ratio : ratios) {
        SceneTable::Note note;
        note.ratio = ArboRatio(ratio[0] * (index + 1), ratio[1]);
        notes.push_back(note);
    }
    SceneTable::Scene scene;
    scene.id = quint32(index + 1);
    scene.volume = 0.5f;
    scene.voiceVolume = 0.2f;
    return scene;
}

// `prepareAndSend` sets `send` (asks for scene 0 or 1, returning when it
// asked) and, where the moment the request really left is known only later
// (a JACK MIDI client writes in its next period), `sentAt`.
using SendFunction = std::function<LatencyReport::Clock::time_point(int)>;
using SentAtFunction = std::function<LatencyReport::Clock::time_point()>;
template <typename Prepare> void recallToCallback(benchmark::State& state, Prepare prepareAndSend)
{
    const int FRAMES = int(state.range(0));
    const QByteArray notesText = qgetenv("ARBO_BENCH_NOTES");
    const int recalls = notesText.isEmpty() ? 200 : notesText.toInt();
    JackPlayback playback;
    if (!playback.start(sPlayer, TestSupport::binDir() + QStringLiteral("/patches/Sine.pd"), SR,
                        FRAMES, true)) {
        state.SkipWithError(qPrintable(playback.error()));
        return;
    }
    auto table = std::make_unique<SceneTable>();
    std::vector<SceneTable::Note> notes;
    for (int i = 0; i < 2; ++i) {
        const SceneTable::Scene scene = sceneSound(i, notes);
        table->append(scene, notes);
    }
    sPlayer->publishScenes(std::move(table));
    SendFunction send;
    SentAtFunction sentAt;
    QString error;
    if (!prepareAndSend(send, sentAt, error)) {
        state.SkipWithError(qPrintable(error));
        return;
    }
    for (auto _ : state) {
        Stamps carriedOut(recalls);
        const QMetaObject::Connection stamping = QObject::connect(
            sPlayer, &PdPlayer::sceneRecalled, sPlayer,
            [&carriedOut](int, quint32) { carriedOut.stamp(sPlayer->resultBufferStart()); },
            Qt::DirectConnection);
        playback.output().callbackStats().requestReset();
        std::mt19937 random(1);
        std::uniform_int_distribution<int> pauseUs(2000, 12000);
        std::vector<double> total;
        int lost = 0;
        for (int i = 0; i < recalls; ++i) {
            QThread::usleep(static_cast<unsigned long>(pauseUs(random)));
            const LatencyReport::Clock::time_point asked = send(i % 2);
            const auto deadline = LatencyReport::Clock::now() + std::chrono::seconds(1);
            while (carriedOut.done() <= i - lost && LatencyReport::Clock::now() < deadline) {
                QThread::usleep(100);
                sPlayer->deliverResults();
            }
            if (carriedOut.done() <= i - lost) {
                ++lost; // counted, not timed
                continue;
            }
            const auto at = sentAt ? sentAt() : asked;
            total.push_back(
                std::chrono::duration<double, std::milli>(carriedOut.at(i - lost) - at).count());
        }
        QObject::disconnect(stamping);
        if (total.empty()) {
            state.SkipWithError("no recall was carried out");
            break;
        }
        LatencyReport::report(state, total, lost, 1000.0 * FRAMES / SR);
        state.counters["xruns"] =
            double(playback.output().callbackStats().snapshot().underflows);
        state.counters["realtime"] = playback.realtime() ? 1 : 0;
    }
    const ArboEvent off(ArboEvent::AllNotesOff, 0.0f);
    sPlayer->queueEventGui(&off);
    QThread::msleep(300);
}

void keyToCallback(benchmark::State& state)
{
    recallToCallback(state, [](SendFunction& send, SentAtFunction&, QString&) {
        send = [](int index) {
            const auto now = LatencyReport::Clock::now();
            const ArboEvent recall(ArboEvent::SceneRecall, float(index + 1));
            sPlayer->queueEventGui(&recall);
            return now;
        };
        return true;
    });
}

void midiToCallback(benchmark::State& state)
{
    JackMidiSender keyboard;
    MidiInput input;
    recallToCallback(state, [&](SendFunction& send, SentAtFunction& sentAt, QString& error) {
        if (!keyboard.open(QStringLiteral("arbo-bench-pedal"))) {
            error = QStringLiteral("the benchmark's JACK MIDI client did not open");
            return false;
        }
        InputMap::Bindings bindings;
        bindings.midiPorts = QStringList{QStringLiteral("arbo-bench-pedal")};
        input.attach(sPlayer);
        if (!input.open(bindings, MidiInput::Api::Jack) || input.connectedPorts().isEmpty()) {
            error = input.status();
            return false;
        }
        send = [&keyboard](int index) {
            keyboard.send({0xC0, std::uint8_t(index)});
            return LatencyReport::Clock::now();
        };
        // When the pedal's client wrote it into its port, as the MIDI note
        // benchmark measures from.
        sentAt = [&keyboard] {
            return LatencyReport::Clock::time_point(std::chrono::nanoseconds(keyboard.lastSentNs()));
        };
        return true;
    });
    input.close();
    keyboard.close();
}

QByteArray bigBook()
{
    QJsonArray scenes;
    for (int i = 0; i < 1000; ++i) {
        QJsonArray notes;
        for (int n = 0; n < 12; ++n) {
            notes.append(QJsonObject{{"ratio", QStringLiteral("%1/%2").arg(16 + n).arg(16)},
                                     {"path", "/3/5"},
                                     {"held", false}});
        }
        scenes.append(QJsonObject{{"name", QStringLiteral("Scene %1").arg(i + 1)},
                                  {"patch", "Sine.pd"},
                                  {"notes", notes},
                                  {"transposition", "9/8"},
                                  {"macros", QJsonArray{0.5, 0.25, QJsonValue()}}});
    }
    const QJsonObject book{{"format", 1}, {"lists", QJsonArray{QJsonObject{{"name", "Big"}, {"scenes", scenes}}}}};
    return QJsonDocument(book).toJson();
}

void bookLoad(benchmark::State& state)
{
    for (auto _ : state) {
        SceneBook book;
        const bool loaded = book.init();
        benchmark::DoNotOptimize(book.table());
        if (!loaded || book.active().scenes.size() != 1000) {
            state.SkipWithError("the book did not load");
        }
        book.setSaveOnTerm(false);
    }
}

// The panel of a window over the big book (no lattice: nothing is stored).
struct PanelRig
{
    SceneBook book;
    QWidget window;
    SceneController* scenes = nullptr;
    ScenePanel* panel = nullptr;
    PanelRig()
    {
        book.init();
        book.setSaveOnTerm(false);
        scenes = new SceneController(sPlayer, nullptr, nullptr, &book, nullptr, &window);
        panel = new ScenePanel(&book, scenes, &window);
        (new QVBoxLayout(&window))->addWidget(panel);
        window.resize(400, 900);
        window.show();
    }
};

void panelFill(benchmark::State& state)
{
    PanelRig rig;
    for (auto _ : state) {
        // Every change of the book fills the list anew (and hands the player
        // a new table).
        emit rig.book.changed();
    }
}

void panelScroll(benchmark::State& state)
{
    PanelRig rig;
    QListWidget* list = rig.panel->findChild<QListWidget*>(QStringLiteral("sceneList"));
    QScrollBar* bar = list->verticalScrollBar();
    if (bar->maximum() == 0 || !list->viewport()->isVisible()) {
        state.SkipWithError("the list does not scroll");
        return;
    }
    for (auto _ : state) {
        bar->setValue(bar->value() + bar->pageStep() > bar->maximum() ? 0
                                                                     : bar->value() + bar->pageStep());
        benchmark::DoNotOptimize(list->viewport()->grab());
    }
}

} // namespace

int main(int argc, char** argv)
{
    BenchmarkApp<QApplication> app(argc, argv);
    PdPlayer player;
    sPlayer = &player;
    if (!player.init() || !PatchLoader::installShellPatches() ||
        !TestSupport::writeFile(Paths::configDir() + QStringLiteral("/scenes.json"), bigBook())) {
        std::fprintf(stderr, "libpd, the patches or the scenes file did not start\n");
        return 1;
    }
    benchmark::RegisterBenchmark("scene_book_load", bookLoad)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("scene_panel_fill", panelFill)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("scene_panel_scroll", panelScroll)->Unit(benchmark::kMillisecond);
    atBufferSizes(benchmark::RegisterBenchmark("scene_recall_key_to_callback", keyToCallback))
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);
    atBufferSizes(benchmark::RegisterBenchmark("scene_recall_midi_to_callback", midiToCallback))
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);
    return runRegisteredBenchmarks(argc, argv);
}
