#include "midi/midiinputtables.h"
#include "model/arbonoteevent.h"
#include "sound/pdmessagebuffer.h"
#include "testsupport.h"

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

// The lock-free command ring between a producing thread and the audio thread,
// and the MIDI input's bindings replaced under its input thread. This source
// is also built with ThreadSanitizer (tst_commandring.cmake).

using Chunk = PdMessageBuffer::Chunk;

namespace {

// What the ring logs. Written by one thread at a time: the test's own, then
// the stress test's producer.
QStringList sLog;

const QString FULL = QStringLiteral("Command buffer full");

bool sameBytes(const Chunk& a, const Chunk& b)
{
    return std::memcmp(&a, &b, sizeof(Chunk)) == 0;
}

// 121 distinct paths, so that a chunk put together from two commands shows.
std::vector<ArboPath> distinctPaths()
{
    static const int STEPS[] = {2, -3, 5, -7, 11, -13, 17, -19, 23, -29, 31};
    std::vector<ArboPath> paths;
    for (int i = 0; i < 121; ++i) {
        paths.emplace_back(QStringLiteral("/%1/%2").arg(STEPS[i % 11]).arg(STEPS[i / 11]));
    }
    return paths;
}

// Everything the ring holds now, oldest first, as the player reads it.
std::vector<Chunk> drainAll(PdMessageBuffer& buffer)
{
    std::vector<Chunk> chunks;
    Chunk chunk;
    while (buffer.peek(chunk)) {
        buffer.pop();
        chunks.push_back(chunk);
    }
    return chunks;
}

} // namespace

class TestCommandRing : public QObject
{
    Q_OBJECT

private slots:
    // With nobody draining, the ring takes 1024 commands; the rest are lost
    // with one warning (not one per command), and the kept ones come out
    // whole and in order once the audio thread drains, each a copy of its
    // event (the events are gone by then). The number lost is reported with
    // the first write an interval after the warning.
    void fullRingDropsAndWarnsOnce()
    {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) {
            sLog << text; // from here on, for the whole run
        });
        PdMessageBuffer buffer;
        const ArboNoteEvent root;
        QVERIFY(!buffer.queueEvent(&root)); // no ring yet
        QVERIFY(buffer.init());
        const std::vector<ArboPath> paths = distinctPaths();
        for (int i = 0; i < PdMessageBuffer::CAPACITY; ++i) {
            const ArboNoteEvent note(paths[i % 121]);
            QVERIFY(buffer.queueEvent(&note));
        }
        QCOMPARE(buffer.freeChunks(), 0);
        for (int i = 0; i < 5000; ++i) {
            QVERIFY(!buffer.queueEvent(&root));
        }
        QVERIFY(!buffer.queueEvent(nullptr));
        QCOMPARE(sLog, QStringList{FULL});

        const std::vector<Chunk> chunks = drainAll(buffer);
        QCOMPARE(chunks.size(), std::size_t(PdMessageBuffer::CAPACITY));
        for (int i = 0; i < PdMessageBuffer::CAPACITY; ++i) {
            QVERIFY(sameBytes(chunks[i], Chunk{ArboEvent::NoteToggle, paths[i % 121], 1.0f}));
        }
        QVERIFY(buffer.queueEvent(&root));
        QCOMPARE(sLog.size(), 1);
        QTest::qWait(int(PdMessageBuffer::FULL_WARNING_INTERVAL.count()) + 50);
        QVERIFY(buffer.queueEvent(&root));
        QCOMPARE(sLog, (QStringList{FULL, QStringLiteral("4999 more commands were dropped "
                                                         "because the command buffer was "
                                                         "full")}));
    }

    // A real producer thread against a real consumer thread. The consumer
    // stalls now and then until the producer has run into a full ring, so both
    // the steady flow and the full ring are exercised many times (and the
    // ring's positions cross its end again and again). Every command that was
    // not dropped must arrive whole and in order, and a drop may only happen
    // when the ring was full.
    void producerConsumerStress()
    {
        constexpr long TOTAL = 1000000;
        const std::vector<ArboPath> paths = distinctPaths();
        const auto command = [&paths](int seq) {
            return Chunk{seq, paths[seq % 121], float(seq % 4096) * 0.25f};
        };
        PdMessageBuffer buffer;
        QVERIFY(buffer.init());
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
                    dropsWithRoom += roomBefore > 0 ? 1 : 0;
                    ++drops;
                }
            }
            producerDone = true;
        });

        // The consumer, playing the audio thread.
        long arrived = 0;
        long bad = 0; // out of order or not as written
        int last = -1;
        for (long drain = 1;; ++drain) {
            const bool finished = producerDone;
            const std::vector<Chunk> chunks = drainAll(buffer);
            for (const Chunk& chunk : chunks) {
                bad += chunk.type <= last || !sameBytes(chunk, command(chunk.type)) ? 1 : 0;
                last = chunk.type;
            }
            arrived += long(chunks.size());
            if (finished && chunks.empty()) {
                break; // everything written before "done" has been read
            }
            if (drain % 256 == 0) { // stall until the producer meets a full ring
                for (const long seen = drops; drops == seen && !producerDone;) {
                    std::this_thread::yield();
                }
            } else if (chunks.empty()) {
                std::this_thread::yield();
            }
        }
        producer.join();
        QCOMPARE(bad, 0L);
        QCOMPARE(arrived + drops, TOTAL); // neither lost nor doubled
        QCOMPARE(dropsWithRoom, 0L);
        QVERIFY2(drops > 0, "the ring never ran full: the test did not exercise drops");
    }

    // The MIDI input's bindings, replaced by this thread (as an imported
    // scale does) while another reads them as the MIDI input thread does,
    // each table binding every note to a path of its own: every read finds
    // one whole table, and a note held through a table that was replaced is
    // released with that table's path.
    void midiTablesReplacedUnderTheReader()
    {
        const ArboPath paths[3] = {ArboPath(QStringLiteral("/3")), ArboPath(QStringLiteral("/5")),
                                   ArboPath(QStringLiteral("/7"))};
        InputMap::Bindings bindings[3];
        for (int i = 0; i < 3; ++i) {
            bindings[i].midiNotes.fill(InputBinding(paths[i]));
        }
        MidiInputTables tables;
        tables.set(bindings[0], [](const ArboEvent*) {});
        std::atomic<bool> done{false};
        std::atomic<long> reads{0};
        long torn = 0;
        std::thread reader([&] {
            for (int note = 0; !done; note = (note + 37) % 128) {
                const MidiInputTables::Table& table = tables.enter();
                for (const InputBinding& binding : table.notes) {
                    torn += binding.path() == table.notes[size_t(note)].path() ? 0 : 1;
                }
                if (note % 3 != 0) {
                    tables.pressed(note);
                } else {
                    tables.released(note);
                }
                tables.leave();
                ++reads;
            }
        });
        // Replaced as fast as this thread can, until the reader has read
        // often meanwhile, whatever else the machine does.
        while (reads == 0) {
            std::this_thread::yield();
        }
        const long start = reads;
        long releases = 0;
        long wrong = 0;
        int round = 0;
        const auto replace = [&] {
            ++round;
            const ArboPath& old = paths[(round - 1) % 3];
            tables.set(bindings[round % 3], [&](const ArboEvent* release) {
                ++releases;
                wrong += static_cast<const ArboNoteEvent*>(release)->path() == old ? 0 : 1;
            });
        };
        while (round < 2000 || reads < start + 2000) {
            replace();
        }
        replace(); // the notes held through the last table too
        done = true;
        reader.join();
        QCOMPARE(torn, 0L);
        QCOMPARE(wrong, 0L);
        QVERIFY(releases > 0);
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
        std::thread writer([&shared] { shared = 1; });
        const int seen = *static_cast<volatile int*>(&shared);
        writer.join();
        QVERIFY(seen >= 0);
    }
};

ARBO_TEST_MAIN(TestCommandRing)
#include "tst_commandring.moc"
