// Throughput of the command ring from one producer thread to one consumer
// thread, and the cost of one drain of a full ring on the audio thread.

#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "sound/pdmessagebuffer.h"

#include <QString>
#include <QtGlobal>

#include "runbenchmarks.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace {

using Chunk = PdMessageBuffer::Chunk;

void cpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#else
    std::this_thread::yield();
#endif
}

// Stands in for the audio thread: drains whenever there is something and
// backs off for `idleSpins` pauses when the ring was empty (0: spins flat out).
class Consumer
{
public:
    Consumer(PdMessageBuffer& buffer, int idleSpins)
        : mBuffer(buffer), mIdleSpins(idleSpins), mThread([this] { run(); })
    {
    }
    ~Consumer()
    {
        mStop.store(true, std::memory_order_relaxed);
        mThread.join();
    }

    long consumed() const { return mConsumed.load(std::memory_order_acquire); }

private:
    void run()
    {
        long count = 0;
        std::int64_t sum = 0;
        Chunk chunk;
        while (!mStop.load(std::memory_order_relaxed)) {
            if (!mBuffer.peek(chunk)) {
                for (int i = 0; i < mIdleSpins; ++i) {
                    cpuRelax();
                }
                if (++mIdleRounds % 1024 == 0) {
                    std::this_thread::yield(); // in case the producer waits for a core
                }
                continue;
            }
            mBuffer.pop();
            sum += chunk.type; // touch every command, as carrying out would
            ++count;
            mConsumed.store(count, std::memory_order_release);
        }
        benchmark::DoNotOptimize(sum);
    }

    PdMessageBuffer& mBuffer;
    const int mIdleSpins;
    unsigned mIdleRounds = 0;
    std::atomic<bool> mStop{false};
    std::atomic<long> mConsumed{0};
    std::thread mThread;
};

// Writes one command, waiting for room instead of losing it: the benchmark
// measures what the ring can carry, not how fast it drops.
template <typename Write> void writeWaiting(PdMessageBuffer& buffer, Write write)
{
    while (!write()) {
        while (buffer.freeChunks() < 64) {
            cpuRelax();
        }
    }
}

constexpr int BATCH = 4096;

// 16-byte chunks written directly (writeChunk), one producer, one consumer.
void BM_RingChunks(benchmark::State& state)
{
    PdMessageBuffer buffer;
    if (!buffer.init()) {
        state.SkipWithError("no ring");
        return;
    }
    Consumer consumer(buffer, static_cast<int>(state.range(0)));
    Chunk chunk;
    chunk.path = ArboPath(QStringLiteral("/3/-5/7"));
    long produced = 0;
    for (auto _ : state) {
        for (int i = 0; i < BATCH; ++i) {
            chunk.type = i;
            writeWaiting(buffer, [&] { return buffer.writeChunk(&chunk); });
        }
        produced += BATCH;
    }
    while (consumer.consumed() < produced) {
        cpuRelax();
    }
    state.SetItemsProcessed(produced);
}
BENCHMARK(BM_RingChunks)->Arg(0)->Arg(64)->ArgName("idleSpins")->UseRealTime();

// The whole producer path as the GUI uses it: a note event flattened by
// queueEvent (checked downcast, path copy) and written.
void BM_RingNoteEvents(benchmark::State& state)
{
    PdMessageBuffer buffer;
    if (!buffer.init()) {
        state.SkipWithError("no ring");
        return;
    }
    Consumer consumer(buffer, 64);
    const ArboNoteEvent note(QStringLiteral("/3/-5/7"));
    long produced = 0;
    for (auto _ : state) {
        for (int i = 0; i < BATCH; ++i) {
            writeWaiting(buffer, [&] { return buffer.queueEvent(&note); });
        }
        produced += BATCH;
    }
    while (consumer.consumed() < produced) {
        cpuRelax();
    }
    state.SetItemsProcessed(produced);
}
BENCHMARK(BM_RingNoteEvents)->UseRealTime();

// One drain of a full ring (1024 commands, all the ring holds) on one thread:
// read one command at a time, as the player does. Only the drain is timed;
// refilling is not.
void BM_DrainFullRing(benchmark::State& state)
{
    PdMessageBuffer buffer;
    if (!buffer.init()) {
        state.SkipWithError("no ring");
        return;
    }
    Chunk chunk;
    chunk.path = ArboPath(QStringLiteral("/3/-5/7"));
    std::int64_t sum = 0;
    for (auto _ : state) {
        for (int i = 0; buffer.freeChunks() > 0; ++i) {
            chunk.type = i;
            buffer.writeChunk(&chunk);
        }
        const auto start = std::chrono::steady_clock::now();
        std::size_t drained = 0;
        for (Chunk read; buffer.peek(read); ++drained) {
            buffer.pop();
            sum += read.type;
        }
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        if (drained != PdMessageBuffer::CAPACITY) {
            state.SkipWithError("the ring did not hold 1024 commands");
            break;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * PdMessageBuffer::CAPACITY);
}
BENCHMARK(BM_DrainFullRing)->UseManualTime()->Unit(benchmark::kMicrosecond);

void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

int main(int argc, char** argv)
{
    // The producers above run into a full ring on purpose; its warning is not
    // part of what is measured.
    qInstallMessageHandler(quiet);
    const int result = runRegisteredBenchmarks(argc, argv);
    return result;
}
