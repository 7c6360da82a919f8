// The audio callback's cost.
//
// steady/release: what one 256-frame buffer costs the real engine (PdPlayer
// with the shipped patches, 128 voices, through its render entry, which
// switches flush-to-zero and denormals-are-zero on) while the notes are held
// and while they are released: a release must cost no more than the held
// notes. denormal_stress does the same for a patch that keeps its signal in
// the denormal range, as a fading tail does when nothing in Pd flushes it.
//
// jack_dummy: the real PaAudioOutput on a private JACK server (dummy driver,
// 44100 Hz, 64 and 256 frames) with 128 voices sounding, for
// ARBO_BENCH_SECONDS seconds (60 by default): the callback's median, 99th
// percentile and worst duration against the buffer period, the overruns of
// that period and the xruns PortAudio reported. Goals: no xrun, p99 at most
// 40 % of the period at 64 frames and 5 % at 256. The server runs with real-time scheduling where
// that is allowed (ARBO_BENCH_REALTIME=0: never), as a stage machine would.
// ARBO_BENCH_VOICE names the voice patch (default Sine.pd).

#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "chordpaths.h"
#include "jackplayback.h"
#include "model/arboratio.h"
#include "settings/paths.h"
#include "sound/pdmessagebuffer.h"
#include "sound/denormals.h"
#include "input/inputmap.h"
#include "midi/midiinput.h"
#include "midi/midioutput.h"
#include "midi/midisettings.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "runbenchmarks.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QSet>
#include <QThread>

#include <benchmark/benchmark.h>
#include <z_libpd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>
#include <ctime>
#include <vector>

namespace {

constexpr int SR = 44100;
constexpr int FRAMES = 256;
constexpr int TICKS = FRAMES / 64;

PdPlayer* sPlayer = nullptr;

// A tone faded far below hearing (1e-39, a denormal) running through a row
// of filters, as the quiet end of a release runs through a voice's filters
// and the bus stages: every sample of every filter is then denormal, which
// Pd's own block-end checks cannot prevent while the input keeps coming.
const char* const DENORMAL_PATCH = "#N canvas 0 50 450 300 12;\n"
                                   "#X obj 20 20 osc~ 440;\n"
                                   "#X obj 20 50 *~ 1e-39;\n"
                                   "#X obj 20 80 lop~ 5000;\n"
                                   "#X obj 20 110 hip~ 20;\n"
                                   "#X obj 20 140 lop~ 3000;\n"
                                   "#X obj 20 170 hip~ 10;\n"
                                   "#X obj 20 200 bp~ 1000 10;\n"
                                   "#X obj 20 230 rpole~ 0.9;\n"
                                   "#X obj 20 260 dac~;\n"
                                   "#X obj 150 20 r query-macros;\n"
                                   "#X connect 0 0 1 0;\n"
                                   "#X connect 1 0 2 0;\n"
                                   "#X connect 2 0 3 0;\n"
                                   "#X connect 3 0 4 0;\n"
                                   "#X connect 4 0 5 0;\n"
                                   "#X connect 5 0 6 0;\n"
                                   "#X connect 6 0 7 0;\n"
                                   "#X connect 7 0 8 0;\n"
                                   "#X connect 7 0 8 1;\n";

void queueChord(PdPlayer& player, const std::vector<ArboPath>& paths)
{
    for (const ArboPath& path : paths) {
        const ArboNoteEvent event(path);
        player.queueEventGui(&event);
    }
}

// One buffer through the render entry the callback uses.
void renderBuffer(PdPlayer& player, float* out)
{
    player.render(out, FRAMES);
    player.deliverResults();
}

// CPU time of the calling thread: what a buffer costs, without the time the
// thread waited for a core on a busy machine.
double threadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// Renders `buffers` buffers and returns the thread's CPU seconds per buffer.
double timeBuffers(PdPlayer& player, int buffers)
{
    static float out[2 * FRAMES];
    const double start = threadSeconds();
    for (int i = 0; i < buffers; ++i) {
        renderBuffer(player, out);
        benchmark::DoNotOptimize(out);
    }
    return (threadSeconds() - start) / buffers;
}

void renderSeconds(PdPlayer& player, double seconds)
{
    static float out[2 * FRAMES];
    const int buffers = int(seconds * SR / FRAMES);
    for (int i = 0; i < buffers; ++i) {
        renderBuffer(player, out);
    }
}

QString voicePath(const char* fallback = "Sine.pd")
{
    const QByteArray voice = qgetenv("ARBO_BENCH_VOICE");
    return TestSupport::binDir() + QStringLiteral("/patches/") +
           QString::fromLocal8Bit(voice.isEmpty() ? QByteArray(fallback) : voice);
}

// The share of one core a buffer takes, in per cent of the buffer's duration.
double loadPercent(double secondsPerBuffer)
{
    return 100.0 * secondsPerBuffer / (double(FRAMES) / SR);
}

// The render entry point the callback uses, 128 held notes, at a buffer size
// that is (256) or is not (100, 1000) made of whole Pd ticks: what carrying
// the rest of a tick over to the next buffer costs. Load in per cent of the
// buffer's own duration.
void renderAnySize(benchmark::State& state, const QString& voice)
{
    const int frames = int(state.range(0));
    if (!PatchLoader::loadVoice(sPlayer, voice)) {
        state.SkipWithError("could not load the voice");
        return;
    }
    PaAudioOutput output; // no device: the benchmark is the audio thread
    output.setPlayer(sPlayer);
    std::vector<float> out(std::size_t(2 * frames));
    queueChord(*sPlayer, chordPaths());
    for (int i = 0; i < SR / 2 / frames; ++i) {
        output.render(out.data(), frames); // past the attacks
    }
    double total = 0.0;
    for (auto _ : state) {
        const double start = threadSeconds();
        output.render(out.data(), frames);
        benchmark::DoNotOptimize(out.data());
        const double elapsed = threadSeconds() - start;
        state.SetIterationTime(elapsed);
        total += elapsed;
    }
    state.counters["load_%"] =
        100.0 * total / double(state.iterations()) / (double(frames) / SR);
    sPlayer->unloadPatch();
}

// 128 held notes: one buffer per iteration.
void steady(benchmark::State& state, const QString& voice)
{
    if (!PatchLoader::loadVoice(sPlayer, voice)) {
        state.SkipWithError("could not load the voice");
        return;
    }
    const std::vector<ArboPath> paths = chordPaths();
    queueChord(*sPlayer, paths);
    renderSeconds(*sPlayer, 0.5); // past the attacks
    double total = 0.0;
    for (auto _ : state) {
        const double perBuffer = timeBuffers(*sPlayer, 16);
        state.SetIterationTime(perBuffer);
        total += perBuffer;
    }
    state.counters["load_%"] = loadPercent(total / double(state.iterations()));
    state.counters["sounding"] = sPlayer->soundingNoteCount();
    sPlayer->unloadPatch();
}

// 128 notes released at once. Each iteration times the release itself (the
// first 0.5 s after the note-offs, past the default release of 370 ms) per
// buffer; apart from it the buffer that carries the note-offs out
// ("note_offs_us") and the tail after the release, when the voices are off
// and only the bus stages still decay ("tail_us").
void release(benchmark::State& state, const QString& voice)
{
    if (!PatchLoader::loadVoice(sPlayer, voice)) {
        state.SkipWithError("could not load the voice");
        return;
    }
    const std::vector<ArboPath> paths = chordPaths();
    const ArboEvent allOff(ArboEvent::AllNotesOff, 0.0f);
    const int releaseBuffers = int(0.5 * SR / FRAMES);
    const int tailBuffers = int(1.0 * SR / FRAMES);
    double burstTotal = 0.0;
    double releaseTotal = 0.0;
    double tailTotal = 0.0;
    for (auto _ : state) {
        queueChord(*sPlayer, paths);
        renderSeconds(*sPlayer, 0.3);
        sPlayer->queueEventGui(&allOff);
        // The buffer that carries the 128 note-offs out, apart: a burst of
        // messages, not the sound of the release.
        burstTotal += timeBuffers(*sPlayer, 1);
        const double perBuffer = timeBuffers(*sPlayer, releaseBuffers - 1);
        state.SetIterationTime(perBuffer);
        releaseTotal += perBuffer;
        tailTotal += timeBuffers(*sPlayer, tailBuffers);
    }
    const double iterations = double(state.iterations());
    state.counters["load_%"] = loadPercent(releaseTotal / iterations);
    state.counters["note_offs_us"] = burstTotal / iterations * 1e6;
    state.counters["tail_us"] = tailTotal / iterations * 1e6;
    state.counters["sounding_after"] = sPlayer->soundingNoteCount();
    sPlayer->unloadPatch();
}

void denormalStress(benchmark::State& state)
{
    QTemporaryDir dir;
    const QString path = dir.path() + QStringLiteral("/denormal.pd");
    if (!TestSupport::writeFile(path, DENORMAL_PATCH) || !sPlayer->loadPatch(QFileInfo(path))) {
        state.SkipWithError("could not open the patch");
        return;
    }
    double total = 0.0;
    for (auto _ : state) {
        const double perBuffer = timeBuffers(*sPlayer, 16);
        state.SetIterationTime(perBuffer);
        total += perBuffer;
    }
    state.counters["load_%"] = loadPercent(total / double(state.iterations()));
    sPlayer->unloadPatch();
}

// Patch changes under 128 sounding notes: a thread of its own plays the
// audio thread (state.range(0) frames, paced at the buffer period) while this thread
// changes the voice back and forth (Organ, Sine) ten times, each change
// opened here and crossfaded there. Counters: the worst buffer's duration in
// per cent of the period ("worst_%", goal at most 50) and the lowest level of
// any 10 ms of the output against the chord's level before the changes
// ("dip_dB", goal above -20).
void patchChange(benchmark::State& state)
{
    const int frames = int(state.range(0));
    const QString patches = TestSupport::binDir() + QStringLiteral("/patches/");
    if (!PatchLoader::loadVoice(sPlayer, patches + QStringLiteral("Sine.pd"))) {
        state.SkipWithError("could not load the voice");
        return;
    }
    queueChord(*sPlayer, chordPaths());
    renderSeconds(*sPlayer, 0.5);
    std::vector<float> out(2 * frames);
    double chordSquares = 0.0;
    for (int i = 0; i < 20; ++i) {
        sPlayer->render(out.data(), frames);
        sPlayer->deliverResults();
        for (int f = 0; f < frames; ++f) {
            chordSquares += double(out[2 * f]) * out[2 * f];
        }
    }
    const double chordDb = 10.0 * std::log10(chordSquares / (20.0 * frames));
    const double period = double(frames) / SR;
    double worst = 0.0;
    double dipDb = 0.0;
    for (auto _ : state) {
        sPlayer->setAudioThreadRunning(true);
        std::atomic<bool> stop{false};
        std::vector<float> left;
        left.reserve(std::size_t(SR) * 20);
        double worstHere = 0.0;
        std::thread audio([&] {
            std::vector<float> buffer(2 * frames);
            auto next = std::chrono::steady_clock::now();
            while (!stop.load()) {
                const auto start = std::chrono::steady_clock::now();
                sPlayer->render(buffer.data(), frames);
                const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
                worstHere = std::max(worstHere, took.count());
                for (int f = 0; f < frames && left.size() < left.capacity(); ++f) {
                    left.push_back(buffer[2 * f]);
                }
                next += std::chrono::microseconds(int(period * 1e6));
                std::this_thread::sleep_until(next);
            }
        });
        for (int change = 0; change < 10; ++change) {
            PatchLoader::loadVoice(sPlayer, patches + (change % 2 ? "Sine.pd" : "Organ.pd"));
            sPlayer->deliverResults();
            QThread::msleep(150);
            sPlayer->deliverResults();
        }
        stop = true;
        audio.join();
        sPlayer->setAudioThreadRunning(false);
        sPlayer->deliverResults();
        state.SetIterationTime(worstHere);
        worst = std::max(worst, worstHere);
        double lowest = 0.0;
        for (std::size_t at = 0; at + 441 <= left.size(); at += 441) {
            double squares = 0.0;
            for (std::size_t i = at; i < at + 441; ++i) {
                squares += double(left[i]) * left[i];
            }
            lowest = std::min(lowest, 10.0 * std::log10(squares / 441.0 + 1e-30) - chordDb);
        }
        dipDb = std::min(dipDb, lowest);
    }
    state.counters["worst_%"] = 100.0 * worst / period;
    state.counters["dip_dB"] = dipDb;
    sPlayer->unloadPatch();
}

// 1024 note toggles (a full command ring: the chord's 128 notes struck and
// released again and again) queued at once while the chord sounds, then
// buffers of state.range(0) frames rendered until every toggle is carried
// out. Counters: the worst of those buffers in per cent of its period
// ("worst_%", CPU time of this thread; goal at most 50), and how many
// buffers the budget spread the toggles over.
void commandBurst(benchmark::State& state)
{
    const int frames = int(state.range(0));
    if (!PatchLoader::loadVoice(sPlayer, voicePath())) {
        state.SkipWithError("could not load the voice");
        return;
    }
    const std::vector<ArboPath> paths = chordPaths();
    std::vector<float> out(std::size_t(2 * frames));
    double worst = 0.0;
    int buffersNeeded = 0;
    for (auto _ : state) {
        queueChord(*sPlayer, paths);
        for (int i = 0; i < SR / 2 / frames; ++i) {
            sPlayer->render(out.data(), frames);
            sPlayer->deliverResults();
        }
        int toggles = 0;
        const QMetaObject::Connection counting = QObject::connect(
            sPlayer, &PdPlayer::noteToggled, sPlayer, [&toggles] { ++toggles; },
            Qt::DirectConnection);
        for (int i = 0; i < PdMessageBuffer::CAPACITY; ++i) {
            const ArboNoteEvent event(paths[std::size_t(i) % paths.size()]);
            sPlayer->queueEventGui(&event);
        }
        double worstHere = 0.0;
        int buffers = 0;
        while (toggles < PdMessageBuffer::CAPACITY && buffers < 1000) {
            const double start = threadSeconds();
            sPlayer->render(out.data(), frames);
            worstHere = std::max(worstHere, threadSeconds() - start);
            ++buffers;
            sPlayer->deliverResults();
        }
        QObject::disconnect(counting);
        if (toggles < PdMessageBuffer::CAPACITY) {
            state.SkipWithError("not every toggle was carried out");
            break;
        }
        state.SetIterationTime(worstHere);
        worst = std::max(worst, worstHere);
        buffersNeeded = std::max(buffersNeeded, buffers);
        const ArboEvent allOff(ArboEvent::AllNotesOff, 0.0f);
        sPlayer->queueEventGui(&allOff);
        for (int i = 0; i < SR / frames; ++i) {
            sPlayer->render(out.data(), frames);
            sPlayer->deliverResults();
        }
    }
    state.counters["worst_%"] = 100.0 * worst / (double(frames) / SR);
    state.counters["buffers"] = buffersNeeded;
    sPlayer->unloadPatch();
}

// The real callback on a JACK dummy device for a minute, 128 voices.
void jackDummy(benchmark::State& state)
{
    const int frames = int(state.range(0));
    const QByteArray secondsText = qgetenv("ARBO_BENCH_SECONDS");
    const double seconds = secondsText.isEmpty() ? 60.0 : secondsText.toDouble();
    // With real-time scheduling, as on a stage machine, unless that is not
    // allowed here or ARBO_BENCH_REALTIME=0 asks for the plain scheduler.
    JackPlayback playback;
    if (!playback.start(sPlayer, voicePath(), SR, frames, qgetenv("ARBO_BENCH_REALTIME") != "0")) {
        state.SkipWithError(qPrintable(playback.error()));
        return;
    }
    PaAudioOutput& output = playback.output();
    const bool realtime = playback.realtime();
    const std::vector<ArboPath> paths = chordPaths();
    // With ARBO_BENCH_MIDI=1 the program's two JACK MIDI clients run beside
    // the audio client, as when MIDI is played in and out: blamed_clients
    // counts the xruns JACK put on any client (the audio client's included)
    // rather than on its driver's own timing.
    MidiOutput midiOut;
    MidiInput midiIn;
    if (qgetenv("ARBO_BENCH_MIDI") == "1") {
        MidiSettings midiSettings;
        midiOut.attach(sPlayer);
        midiIn.attach(sPlayer);
        InputMap map;
        map.initWithDefaults();
        if (!midiOut.open(midiSettings, MidiOutput::Api::Jack) ||
            !midiIn.open(map.bindings(), MidiInput::Api::Jack)) {
            state.SkipWithError("the MIDI clients did not open");
            return;
        }
    }

    for (auto _ : state) {
        // The chord's 128 note-ons all land in one callback: its cost is
        // reported on its own, apart from the steady state.
        output.callbackStats().requestReset();
        QThread::msleep(100);
        queueChord(*sPlayer, paths);
        QThread::msleep(1000);
        const CallbackStats::Snapshot onset = output.callbackStats().snapshot();

        output.callbackStats().requestReset();
        QThread::msleep(50);
        const auto start = std::chrono::steady_clock::now();
        QThread::msleep(static_cast<unsigned long>(seconds * 1000.0));
        const CallbackStats::Snapshot stats = output.callbackStats().snapshot();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(elapsed.count());

        const double period = double(stats.periodNs);
        state.counters["sounding"] = sPlayer->soundingNoteCount();
        state.counters["callbacks"] = double(stats.callbacks);
        state.counters["median_us"] = double(stats.percentileNs(0.5)) / 1e3;
        state.counters["p99_us"] = double(stats.percentileNs(0.99)) / 1e3;
        state.counters["max_us"] = double(stats.maxNs) / 1e3;
        state.counters["period_us"] = period / 1e3;
        state.counters["p99_%"] = 100.0 * double(stats.percentileNs(0.99)) / period;
        state.counters["max_%"] = 100.0 * double(stats.maxNs) / period;
        state.counters["overruns"] = double(stats.overruns);
        state.counters["xruns"] = double(stats.underflows);
        state.counters["onset_max_us"] = double(onset.maxNs) / 1e3;
        state.counters["latency_ms"] = output.streamOutputLatency() * 1e3;
        state.counters["realtime"] = realtime ? 1 : 0;
        const QString serverLog = playback.serverLog();
        state.counters["blamed_clients"] = serverLog.count(QLatin1String("was not finished"));
        state.counters["midi"] = midiOut.isOpen() ? 1 : 0;
        if (qEnvironmentVariableIsSet("ARBO_BENCH_SERVER_LOG")) {
            std::fprintf(stderr, "%s\n", qPrintable(serverLog));
        }

        const ArboEvent allOff(ArboEvent::AllNotesOff, 0.0f);
        sPlayer->queueEventGui(&allOff);
        QThread::msleep(1500);
    }
}

} // namespace

int main(int argc, char** argv)
{
    BenchmarkApp<QCoreApplication> app(argc, argv);

    PdPlayer player;
    sPlayer = &player;
    if (!player.init() || player.initAudio(2, SR) != 0 || !PatchLoader::installShellPatches()) {
        std::fprintf(stderr, "libpd or the patches did not start\n");
        return 1;
    }

    const QString voice = voicePath();
    const std::string name = QFileInfo(voice).completeBaseName().toStdString();
    benchmark::RegisterBenchmark(("steady/" + name).c_str(), steady, voice)
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime();
    benchmark::RegisterBenchmark(("release/" + name).c_str(), release, voice)
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime()
        ->Iterations(20);
    benchmark::RegisterBenchmark("denormal_stress", denormalStress)
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime();
    benchmark::RegisterBenchmark(("render/" + name).c_str(), renderAnySize, voice)
        ->Arg(256)
        ->Arg(100)
        ->Arg(1000)
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime();
    atBufferSizes(benchmark::RegisterBenchmark("patch_change/128_voices", patchChange))
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);
    atBufferSizes(benchmark::RegisterBenchmark("command_burst/1024", commandBurst))
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime()
        ->Iterations(5);
    atBufferSizes(benchmark::RegisterBenchmark("jack_dummy/128_voices", jackDummy))
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);

    const int result = runRegisteredBenchmarks(argc, argv);
    return result;
}
