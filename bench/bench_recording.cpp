// What recording costs, and how fast a log renders offline.
//
// callback: one 64-frame buffer of the real engine through its render entry
// (PdPlayer with the shipped Sine voice, 128 notes held), in blocks with the
// recorder running (its writer thread writing a 24-bit WAV and the log to
// this machine's disk) and blocks without, interleaved, so that the machine's
// own noise falls on both. Counters: the 99th percentile of a buffer's CPU
// time in per cent of its period, without ("p99_%") and with recording
// ("p99_recording_%"), and the rise ("rise_%"; goal below 1).
//
// writer_lag: a thread plays the audio thread at the pace of the period (64
// frames, 128 notes) for ARBO_BENCH_SECONDS seconds (600 by default) while the
// recorder writes. Counters: the writer's worst lag, the most audio that ever
// waited in the ring at one of its looks ("worst_lag_ms"), and the frames lost
// ("lost_frames", goal 0).
//
// offline_render: a log of 60 seconds of 128 Sine notes (struck at the start;
// half of them released and struck again every 5 seconds) rendered by the
// offline renderer into a WAV file. Counter: how many times faster than real
// time ("speed_x"; goal at least 20), and the level of what it wrote
// ("rms_dB", to show that the chord sounds).

#include "audioanalysis.h"
#include "chordpaths.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "recording/logrenderer.h"
#include "recording/performancelog.h"
#include "recording/recorder.h"
#include "recording/recordingsettings.h"
#include "runbenchmarks.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

namespace {

constexpr int SR = 44100;
constexpr int FRAMES = 64;

double threadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

QString sineVoice()
{
    return TestSupport::binDir() + QStringLiteral("/patches/Sine.pd");
}

// A player as start-up makes one, the Sine voice open and 128 notes sounding
// past their attacks. Null on failure.
std::unique_ptr<PdPlayer> playingChord()
{
    auto player = std::make_unique<PdPlayer>();
    if (!player->init() || player->initAudio(2, SR) != 0 || !PatchLoader::installShellPatches() ||
        !PatchLoader::loadVoice(player.get(), sineVoice())) {
        return nullptr;
    }
    for (const ArboPath& path : chordPaths()) {
        const ArboNoteEvent note(path);
        player->queueEventGui(&note);
    }
    std::vector<float> out(2 * FRAMES);
    for (int i = 0; i < SR / 2 / FRAMES; ++i) {
        player->render(out.data(), FRAMES);
        player->deliverResults();
    }
    return player;
}

// The 99th percentile of `durations`.
double p99(std::vector<double> durations)
{
    std::sort(durations.begin(), durations.end());
    return durations[std::size_t(double(durations.size() - 1) * 0.99)];
}

void callback(benchmark::State& state)
{
    QTemporaryDir folder;
    RecordingSettings options;
    options.mFolder = folder.path();
    std::unique_ptr<PdPlayer> player = playingChord();
    if (!player) {
        state.SkipWithError("could not play the chord");
        return;
    }
    Recorder recorder(player.get(), &options);
    constexpr int BLOCK = 2000;
    std::vector<float> out(2 * FRAMES);
    std::vector<double> plain;
    std::vector<double> recording;
    for (auto _ : state) {
        for (bool record : {false, true}) {
            if (record && !recorder.start()) {
                state.SkipWithError("could not record");
                return;
            }
            std::vector<double>& durations = record ? recording : plain;
            for (int i = 0; i < BLOCK; ++i) {
                const double start = threadSeconds();
                player->render(out.data(), FRAMES);
                durations.push_back(threadSeconds() - start);
                player->deliverResults();
            }
            recorder.stop();
        }
    }
    const double period = double(FRAMES) / SR;
    state.counters["p99_%"] = 100.0 * p99(plain) / period;
    state.counters["p99_recording_%"] = 100.0 * p99(recording) / period;
    state.counters["rise_%"] = 100.0 * (p99(recording) - p99(plain)) / period;
    state.counters["sounding"] = player->soundingNoteCount();
}

void writerLag(benchmark::State& state)
{
    const QByteArray seconds = qgetenv("ARBO_BENCH_SECONDS");
    const double duration = seconds.isEmpty() ? 600.0 : seconds.toDouble();
    QTemporaryDir folder;
    RecordingSettings options;
    options.mFolder = folder.path();
    std::unique_ptr<PdPlayer> player = playingChord();
    if (!player) {
        state.SkipWithError("could not play the chord");
        return;
    }
    Recorder recorder(player.get(), &options);
    for (auto _ : state) {
        player->setAudioThreadRunning(true);
        if (!recorder.start()) {
            state.SkipWithError("could not record");
            return;
        }
        std::atomic<bool> done{false};
        std::thread audio([&] {
            std::vector<float> out(2 * FRAMES);
            const auto period = std::chrono::nanoseconds(std::int64_t(1e9 * FRAMES / SR));
            auto next = std::chrono::steady_clock::now();
            const auto end = next + std::chrono::milliseconds(std::int64_t(duration * 1000));
            while (next < end) {
                player->render(out.data(), FRAMES);
                next += period;
                std::this_thread::sleep_until(next);
            }
            done.store(true);
        });
        // The GUI thread's part meanwhile: the results.
        while (!done.load()) {
            player->deliverResults();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        audio.join();
        player->setAudioThreadRunning(false);
        recorder.stop();
        state.counters["worst_lag_ms"] = 1000.0 * double(recorder.maxLagFrames()) / SR;
        state.counters["lost_frames"] = double(recorder.lostFrames());
        state.counters["seconds"] = recorder.elapsedSeconds();
    }
}

// 60 s of 128 Sine notes, as a log.
PerformanceLog::Log chordLog()
{
    PerformanceLog::Log log;
    log.header.sampleRate = SR;
    log.header.bufferFrames = 256;
    QFile voice(sineVoice());
    voice.open(QIODevice::ReadOnly);
    log.header.patch.none = false;
    log.header.patch.file = QStringLiteral("arbo_main.pd");
    log.header.patch.voice = QStringLiteral("Sine.pd");
    log.header.patch.voiceText = QString::fromUtf8(voice.readAll());
    const std::vector<ArboPath> paths = chordPaths();
    const auto toggle = [&](qint64 at, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            PerformanceLog::Entry entry;
            entry.at = at;
            entry.command.type = ArboEvent::NoteToggle;
            entry.command.path = paths[i];
            entry.command.value = 1.0f;
            log.entries.push_back(entry);
        }
    };
    toggle(0, paths.size());
    for (qint64 at = 5 * SR; at < 60 * SR; at += 5 * SR) {
        toggle(at / 256 * 256, paths.size() / 2);
        toggle((at + SR * 5 / 2) / 256 * 256, paths.size() / 2);
    }
    log.end = 60 * SR;
    return log;
}

void offlineRender(benchmark::State& state)
{
    QTemporaryDir folder;
    const PerformanceLog::Log log = chordLog();
    double speed = 0.0;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        QString error;
        LogRenderer::Options options;
        if (!LogRenderer::render(log, folder.filePath(QStringLiteral("chord.wav")), options,
                                 LogRenderer::Progress(), &error)) {
            state.SkipWithError(qPrintable(error));
            return;
        }
        const double seconds = double(timer.nsecsElapsed()) * 1e-9;
        state.SetIterationTime(seconds);
        speed = 60.0 / seconds;
    }
    state.counters["speed_x"] = speed;
    // The chord was heard: the level of the file's left channel.
    const AudioAnalysis::Wav wav =
        AudioAnalysis::readSoundFile(folder.filePath(QStringLiteral("chord.wav")));
    state.counters["rms_dB"] = AudioAnalysis::rmsDb(wav.channel(0));
}

} // namespace

int main(int argc, char** argv)
{
    BenchmarkApp<QCoreApplication> app(argc, argv);
    // Each makes its player and lets it go: libpd's hooks reach one at a time.
    benchmark::RegisterBenchmark("callback", callback)
        ->Iterations(5)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("writer_lag", writerLag)->Iterations(1)->Unit(benchmark::kSecond);
    benchmark::RegisterBenchmark("offline_render", offlineRender)
        ->Iterations(3)
        ->UseManualTime()
        ->Unit(benchmark::kSecond);
    return runRegisteredBenchmarks(argc, argv);
}
