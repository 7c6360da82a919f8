#include "input/arboevent.h"
#include "input/arbonoteevent.h"
#include "sound/pdmessagebuffer.h"
#include "sound/staticarray.h"
#include "testsupport.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

// The lock-free command ring between a producing thread and the audio thread.
// This source is also built with ThreadSanitizer (tst_commandring.cmake).

using Chunk = PdMessageBuffer::Chunk;

namespace {

// Collects the warnings logged while it lives (from any thread) instead of
// printing them; other messages go on to the previous handler.
class MessageCatcher
{
public:
    MessageCatcher()
    {
        sMessages.clear();
        sPrevious = qInstallMessageHandler(&MessageCatcher::handle);
    }
    ~MessageCatcher() { qInstallMessageHandler(sPrevious); }

    int count(const QString& text) const
    {
        std::lock_guard<std::mutex> lock(sMutex);
        return int(std::count(sMessages.cbegin(), sMessages.cend(), text));
    }
    QStringList all() const
    {
        std::lock_guard<std::mutex> lock(sMutex);
        return sMessages;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        if (type != QtWarningMsg) {
            sPrevious(type, context, text);
            return;
        }
        std::lock_guard<std::mutex> lock(sMutex);
        sMessages.append(text);
    }

    static std::mutex sMutex;
    static QStringList sMessages;
    static QtMessageHandler sPrevious;
};

std::mutex MessageCatcher::sMutex;
QStringList MessageCatcher::sMessages;
QtMessageHandler MessageCatcher::sPrevious = nullptr;

const QString FULL = QStringLiteral("Command buffer full");

Chunk makeChunk(int type, const ArboPath& path, float value)
{
    Chunk chunk;
    chunk.type = type;
    chunk.path = path;
    chunk.value = value;
    return chunk;
}

bool sameBytes(const Chunk& a, const Chunk& b)
{
    return std::memcmp(&a, &b, sizeof(Chunk)) == 0;
}

// Distinct paths, so that a chunk put together from two commands shows.
std::vector<ArboPath> distinctPaths(int count)
{
    static const int STEPS[] = {2, -3, 5, -7, 11, -13, 17, -19, 23, -29, 31};
    std::vector<ArboPath> paths;
    for (int i = 0; i < count; ++i) {
        QString text;
        for (int n = i + 1; n > 0; n /= 11) {
            text += QStringLiteral("/%1").arg(STEPS[n % 11]);
        }
        paths.emplace_back(text);
    }
    return paths;
}

} // namespace

class TestCommandRing : public QObject
{
    Q_OBJECT

private slots:
    void staticArray()
    {
        StaticArray<int, 4> array;
        QCOMPARE(array.size(), std::size_t(0));
        QCOMPARE(array.capacity(), std::size_t(4));
        // Indexing at the count appends, as the voice pool is filled.
        array[0] = 10;
        array[1] = 11;
        QCOMPARE(array.size(), std::size_t(2));
        array[1] = 21; // inside the count: no growth
        QCOMPARE(array.size(), std::size_t(2));
        QVERIFY(array.append(12));
        QVERIFY(array.push_back(13));
        QVERIFY(array.isFull());
        QVERIFY(!array.append(14)); // full: refused, nothing overwritten
        QCOMPARE(std::vector<int>(array.begin(), array.end()), (std::vector<int>{10, 21, 12, 13}));
        array.clear();
        QVERIFY(array.isEmpty());
        QCOMPARE(array.begin(), array.end());

        const StaticArray<bool, 32> flags(32, true);
        QCOMPARE(flags.size(), std::size_t(32));
        QVERIFY(std::all_of(flags.begin(), flags.end(), [](bool flag) { return flag; }));
        static_assert(sizeof(StaticArray<int, 4>) >= 4 * sizeof(int), "elements are inline");
    }

    void queueEventFlattens()
    {
        PdMessageBuffer buffer;
        const ArboEvent early(ArboEvent::AllNotesOff, 0.0f);
        QVERIFY(!buffer.queueEvent(&early)); // no ring yet
        QCOMPARE(buffer.freeChunks(), 0);
        QVERIFY(buffer.init());
        QVERIFY(buffer.init()); // again: keeps its ring
        QCOMPARE(buffer.freeChunks(), 1023);

        const ArboPath path(QStringLiteral("/3/-5/7"));
        auto* note = new ArboNoteEvent(path);
        const ArboEvent volume(ArboEvent::MasterVolume, 0.625f);
        const ArboEvent unknown(static_cast<ArboEvent::Type>(99), -2.5f);
        const ArboNoteEvent root;
        QVERIFY(buffer.queueEvent(note));
        delete note; // the command was copied
        QVERIFY(buffer.queueEvent(&volume));
        QVERIFY(buffer.queueEvent(&unknown));
        QVERIFY(buffer.queueEvent(&root));
        QVERIFY(!buffer.queueEvent(nullptr));

        PdMessageBuffer::ChunkList list;
        buffer.processEvents(list);
        QCOMPARE(list.size(), std::size_t(4));
        QVERIFY(sameBytes(*list[0], makeChunk(ArboEvent::NoteToggle, path, 1.0f)));
        QVERIFY(sameBytes(*list[1], makeChunk(ArboEvent::MasterVolume, ArboPath(), 0.625f)));
        QVERIFY(sameBytes(*list[2], makeChunk(99, ArboPath(), -2.5f))); // the player ignores it
        QVERIFY(sameBytes(*list[3], makeChunk(ArboEvent::NoteToggle, ArboPath(), 1.0f)));

        list.clear();
        buffer.processEvents(list);
        QVERIFY(list.isEmpty());
    }

    // With nobody draining, the ring takes 1023 commands; the rest are lost
    // with one warning (not one per command), and the kept ones come out
    // whole and in order once the audio thread drains.
    void fullRingDropsAndWarnsOnce()
    {
        MessageCatcher messages;
        PdMessageBuffer buffer;
        QVERIFY(buffer.init());
        const std::vector<ArboPath> paths = distinctPaths(1023);
        for (int i = 0; i < 1023; ++i) {
            const Chunk chunk = makeChunk(i, paths[i], i * 0.5f);
            QVERIFY(buffer.writeChunk(&chunk));
        }
        QCOMPARE(buffer.freeChunks(), 0);
        for (int i = 0; i < 5000; ++i) {
            const Chunk chunk = makeChunk(-7, ArboPath(), 0.0f);
            QVERIFY(!buffer.writeChunk(&chunk));
        }
        QCOMPARE(messages.all(), QStringList{FULL});

        PdMessageBuffer::ChunkList list;
        buffer.processEvents(list);
        QCOMPARE(list.size(), std::size_t(1023));
        for (int i = 0; i < 1023; ++i) {
            QVERIFY(sameBytes(*list[i], makeChunk(i, paths[i], i * 0.5f)));
        }
        QCOMPARE(buffer.freeChunks(), 1023);

        // Writing works again; the 4999 silent drops are reported once the
        // interval since the warning has passed, not at once.
        const Chunk chunk = makeChunk(1, ArboPath(), 0.0f);
        QVERIFY(buffer.writeChunk(&chunk));
        QCOMPARE(messages.all().size(), 1);
        QTest::qWait(int(PdMessageBuffer::FULL_WARNING_INTERVAL.count()) + 50);
        QVERIFY(buffer.writeChunk(&chunk));
        QCOMPARE(messages.all(),
                 (QStringList{FULL, QStringLiteral("4999 more commands were dropped because the "
                                                   "command buffer was full")}));
        QVERIFY(buffer.writeChunk(&chunk));
        QCOMPARE(messages.all().size(), 2);
    }

    // Draining takes only as many chunks as the list has room for and leaves
    // the rest in order for the next drain; two buffers can be drained into
    // one list without the second overwriting the first in the shared scratch.
    void drainRespectsListRoom()
    {
        PdMessageBuffer serial;
        PdMessageBuffer gui;
        QVERIFY(serial.init());
        QVERIFY(gui.init());
        for (int i = 0; i < 100; ++i) {
            const Chunk a = makeChunk(i, ArboPath(), 1.0f);
            const Chunk b = makeChunk(1000 + i, ArboPath(), 2.0f);
            QVERIFY(serial.writeChunk(&a));
            QVERIFY(gui.writeChunk(&b));
        }

        PdMessageBuffer::ChunkList list;
        serial.processEvents(list);
        gui.processEvents(list);
        QCOMPARE(list.size(), std::size_t(200));
        for (int i = 0; i < 100; ++i) {
            QCOMPARE(list[i]->type, i);
            QCOMPARE(list[100 + i]->type, 1000 + i);
        }

        list.clear();
        const Chunk filler;
        while (list.size() < 1000) {
            list.append(&filler);
        }
        for (int i = 0; i < 100; ++i) {
            const Chunk a = makeChunk(i, ArboPath(), 1.0f);
            QVERIFY(serial.writeChunk(&a));
        }
        serial.processEvents(list);
        QVERIFY(list.isFull());
        QCOMPARE(list[1000]->type, 0);
        QCOMPARE(list[1023]->type, 23);
        QCOMPARE(serial.freeChunks(), 1023 - 76);
        list.clear();
        serial.processEvents(list);
        QCOMPARE(list.size(), std::size_t(76));
        QCOMPARE(list[0]->type, 24);
        QCOMPARE(list[75]->type, 99);
    }

    // Many rounds of different sizes move the ring's positions across its end.
    void wrapsAround()
    {
        PdMessageBuffer buffer;
        QVERIFY(buffer.init());
        const std::vector<ArboPath> paths = distinctPaths(97);
        PdMessageBuffer::ChunkList list;
        int next = 0;
        int expected = 0;
        for (int round = 0; round < 200; ++round) {
            const int count = (round * 389) % 1024; // 0 to 1023
            for (int i = 0; i < count; ++i, ++next) {
                const Chunk chunk = makeChunk(next, paths[next % 97], float(next));
                QVERIFY(buffer.writeChunk(&chunk));
            }
            buffer.processEvents(list);
            QCOMPARE(int(list.size()), count);
            for (const Chunk* chunk : list) {
                QVERIFY(
                    sameBytes(*chunk, makeChunk(expected, paths[expected % 97], float(expected))));
                ++expected;
            }
            list.clear();
        }
        QCOMPARE(expected, next);
    }

    // A real producer thread against a real consumer thread. The consumer
    // stalls now and then until the producer has run into a full ring, so both
    // the steady flow and the full ring are exercised many times. Every
    // command that was not dropped must arrive whole and in order, and a drop
    // may only happen when the ring was full.
    void producerConsumerStress()
    {
        constexpr int TOTAL = 1000000;
        constexpr int PATHS = 251;
        const std::vector<ArboPath> paths = distinctPaths(PATHS);
        const auto command = [&paths](int seq) {
            return makeChunk(seq, paths[seq % PATHS], float(seq % 4096) * 0.25f);
        };

        MessageCatcher messages;
        PdMessageBuffer buffer;
        QVERIFY(buffer.init());
        std::vector<unsigned char> dropped(TOTAL, 0);  // producer's record
        std::vector<unsigned char> received(TOTAL, 0); // consumer's record
        std::atomic<bool> producerDone{false};
        std::atomic<long> drops{0};
        long dropsWithRoom = 0;

        std::thread producer([&] {
            for (int seq = 0; seq < TOTAL; ++seq) {
                const Chunk chunk = command(seq);
                // Free space only grows until this thread writes, so a drop
                // with room measured beforehand would be a false "full".
                const int roomBefore = buffer.freeChunks();
                if (!buffer.writeChunk(&chunk)) {
                    dropped[seq] = 1;
                    if (roomBefore > 0) {
                        ++dropsWithRoom;
                    }
                    drops.fetch_add(1, std::memory_order_relaxed);
                }
            }
            producerDone.store(true, std::memory_order_release);
        });

        // The consumer, playing the audio thread.
        PdMessageBuffer::ChunkList list;
        long outOfOrder = 0;
        long corrupt = 0;
        long stalls = 0;
        int last = -1;
        for (long drain = 1;; ++drain) {
            const bool finished = producerDone.load(std::memory_order_acquire);
            buffer.processEvents(list);
            for (const Chunk* chunk : list) {
                const int seq = chunk->type;
                if (seq <= last || seq >= TOTAL) {
                    ++outOfOrder;
                    continue;
                }
                last = seq;
                if (!sameBytes(*chunk, command(seq))) {
                    ++corrupt;
                }
                received[seq] = 1;
            }
            const bool empty = list.isEmpty();
            list.clear();
            if (finished && empty) {
                break; // everything written before "done" has been read
            }
            if (empty) {
                std::this_thread::yield();
            }
            if (drain % 256 == 0) {
                ++stalls;
                const long seen = drops.load(std::memory_order_relaxed);
                while (drops.load(std::memory_order_relaxed) == seen &&
                       !producerDone.load(std::memory_order_relaxed)) {
                    std::this_thread::yield();
                }
            }
        }
        producer.join();

        long arrived = 0;
        long lost = 0;
        long neither = 0;
        long both = 0;
        for (int seq = 0; seq < TOTAL; ++seq) {
            arrived += received[seq];
            lost += dropped[seq];
            neither += !received[seq] && !dropped[seq];
            both += received[seq] && dropped[seq];
        }
        qInfo("%ld commands arrived, %ld dropped on a full ring, %ld stalls", arrived, lost,
              stalls);
        QCOMPARE(outOfOrder, 0L);
        QCOMPARE(corrupt, 0L);
        QCOMPARE(neither, 0L);
        QCOMPARE(both, 0L);
        QCOMPARE(dropsWithRoom, 0L);
        QCOMPARE(lost, drops.load());
        QVERIFY2(lost > 0, "the ring never ran full: the test did not exercise drops");
        QVERIFY(arrived >= 1023); // the first drop needs a full ring before it
        QVERIFY(messages.count(FULL) >= 1);
    }

    // Only for the ThreadSanitizer build's canary test: a deliberate data
    // race, which the sanitizer must report (and so fail the run). It shows
    // that the sanitizer build would catch a race in the tests above.
    void raceCanary()
    {
        if (qEnvironmentVariableIsEmpty("ARBO_TSAN_CANARY")) {
            QSKIP("runs only as the sanitizer's canary");
        }
        int shared = 0;
        std::thread writer([&shared] {
            for (int i = 0; i < 1000; ++i) {
                shared = shared + 1;
            }
        });
        int seen = 0;
        for (int i = 0; i < 1000; ++i) {
            seen += *static_cast<volatile int*>(&shared);
        }
        writer.join();
        QVERIFY(seen >= 0);
    }
};

ARBO_TEST_MAIN(TestCommandRing)
#include "tst_commandring.moc"
