// The note ring between the audio thread and the MIDI thread: one writer and
// one reader thread, far more notes than the ring holds. Also built with
// ThreadSanitizer (tst_midiring_tsan).

#include "sound/midinotering.h"
#include "testsupport.h"

#include <QtTest>

#include <thread>

class TestMidiRing : public QObject
{
    Q_OBJECT

private slots:
    void ringKeepsOrder()
    {
        // Every note arrives, once, in order, whole.
        MidiNoteRing ring;
        constexpr int COUNT = 200000;
        std::thread writer([&ring] {
            for (int i = 0; i < COUNT; ++i) {
                while (!ring.push(MidiNoteRing::NoteOn, i % 128, double(i))) {
                    std::this_thread::yield();
                }
            }
        });
        int expected = 0;
        bool inOrder = true;
        MidiNoteRing::Note note;
        while (expected < COUNT) {
            ring.wait(100);
            while (ring.pop(note)) {
                inOrder = inOrder && note.frequency == double(expected) &&
                          note.voice == expected % 128 && note.type == MidiNoteRing::NoteOn;
                ++expected;
            }
        }
        writer.join();
        QVERIFY(inOrder);
        QVERIFY(!ring.pop(note));
    }

    void fullRingDropsAndCounts()
    {
        MidiNoteRing ring;
        for (std::size_t i = 0; i < MidiNoteRing::CAPACITY; ++i) {
            QVERIFY(ring.push(MidiNoteRing::NoteOff, 1));
        }
        QVERIFY(!ring.push(MidiNoteRing::NoteOff, 1));
        QVERIFY(!ring.push(MidiNoteRing::NoteOff, 1));
        QCOMPARE(ring.takeDropped(), 2u);
        QCOMPARE(ring.takeDropped(), 0u);
        ring.clear();
        MidiNoteRing::Note note;
        QVERIFY(!ring.pop(note));
        QVERIFY(ring.push(MidiNoteRing::AllNotesOff, -1));
        QVERIFY(ring.pop(note));
        QCOMPARE(note.type, std::int32_t(MidiNoteRing::AllNotesOff));
    }
};

ARBO_TEST_MAIN(TestMidiRing)
#include "tst_midiring.moc"
