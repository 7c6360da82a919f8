// Opening time and render cost of the shipped voice patches in the real engine patch: one
// audio buffer of 256 frames (4 Pd ticks, 44.1 kHz, stereo) with 0, 16 and
// 128 sounding voices. The "load_%" counter is the rendering thread's CPU
// time as a share of the buffer's own duration (5.8 ms), so that other work on
// a busy machine does not count; the goal for "Sine" is 128 voices under 10 %
// of one core.

#include "pdpatchrig.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTemporaryDir>

#include "runbenchmarks.h"

#include <benchmark/benchmark.h>
#include <z_libpd.h>

#include <cstdio>
#include <malloc.h>
#include <ctime>

namespace Rig = PdPatchRig;

namespace {

constexpr int SR = 44100;
constexpr int TICKS = 4;
constexpr int FRAMES = TICKS * 64;

QTemporaryDir* sRuntime = nullptr;

double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

void renderBuffer(benchmark::State& state, const QString& voicePath, int voices)
{
    Rig::setDenormalsOff();
    if (!Rig::prepareRuntimeFolder(sRuntime->path(), voicePath) || !Rig::open(sRuntime->path())) {
        state.SkipWithError("could not open the patch");
        return;
    }
    // A chord of just intervals spread over five octaves, all held.
    const double ratios[] = {1.0, 9.0 / 8, 5.0 / 4, 4.0 / 3, 3.0 / 2, 5.0 / 3, 7.0 / 4, 15.0 / 8};
    for (int v = 1; v <= voices; ++v) {
        Rig::noteOn(v, float(65.0 * ratios[v % 8] * double(1 << ((v / 8) % 5))));
    }
    Rig::render(SR / 5, nullptr); // past the attacks
    static float in[1];
    static float out[2 * FRAMES];
    const double cpuStart = threadCpuSeconds();
    for (auto _ : state) {
        libpd_process_float(TICKS, in, out);
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    const double cpu = threadCpuSeconds() - cpuStart;
    const double bufferSeconds = double(FRAMES) / SR;
    state.counters["load_%"] = 100.0 * cpu / (double(state.iterations()) * bufferSeconds);
    Rig::close();
}

// Opening the engine patch with its 128 voices happens on the audio thread
// while the output is muted: it must stay short. A patch change opens and
// closes it again all night, so "heap_kept_KB" is what each open and close
// leaves allocated for good (the first open, which fills Pd's own tables, is
// not counted): anything above zero grows a long night's memory.
void openPatch(benchmark::State& state, const QString& voicePath)
{
    if (!Rig::prepareRuntimeFolder(sRuntime->path(), voicePath) || !Rig::open(sRuntime->path())) {
        state.SkipWithError("could not prepare or open the patch");
        return;
    }
    Rig::close();
    const size_t heapBefore = mallinfo2().uordblks;
    for (auto _ : state) {
        if (!Rig::open(sRuntime->path())) {
            state.SkipWithError("could not open the patch");
            return;
        }
        Rig::queryMacros();
        Rig::close();
    }
    const double kept = double(mallinfo2().uordblks) - double(heapBefore);
    state.counters["heap_kept_KB"] = kept / 1024.0 / double(state.iterations());
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir runtime;
    sRuntime = &runtime;
    if (!Rig::init() || !Rig::setSampleRate(SR)) {
        std::fprintf(stderr, "libpd did not start\n");
        return 1;
    }
    for (const QString& path : Rig::voicePatches()) {
        const std::string name = QFileInfo(path).completeBaseName().toStdString();
        benchmark::RegisterBenchmark(("open_engine_patch/" + name).c_str(), openPatch, path)
            ->Unit(benchmark::kMillisecond);
        for (int voices : {0, 16, 128}) {
            benchmark::RegisterBenchmark(
                ("render_256_frames/" + name + "/" + std::to_string(voices)).c_str(), renderBuffer,
                path, voices)
                ->Unit(benchmark::kMicrosecond);
        }
    }
    const int result = runRegisteredBenchmarks(argc, argv);
    return result;
}
