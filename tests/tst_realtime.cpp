// The audio thread's promise, checked: while 128 voices play and every kind
// of command and patch changes arrive, the program's own code on the audio
// thread makes no heap allocation, frees nothing, locks no mutex and emits
// no Qt signal. The allocator and pthread_mutex_lock are interposed in this
// test binary, and Qt's signal spy hook watches emissions; each counts only
// while RealTimeZone says the calling thread is in the program's own audio
// code (libpd's own calls are left out: it may lock its instance and some
// Pd objects allocate).

#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "sound/scenetable.h"
#include "sound/realtimezone.h"
#include "sound/recordtap.h"
#include "testsupport.h"

#include <QElapsedTimer>

#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <pthread.h>
#include <thread>
#include <vector>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void __libc_free(void* pointer);
}

namespace {

std::atomic<long> sAllocations{0};
std::atomic<long> sFrees{0};
std::atomic<long> sLocks{0};
std::atomic<long> sSignals{0};

void countIf(std::atomic<long>& counter)
{
    if (RealTimeZone::inOwnAudioCode()) {
        counter.fetch_add(1, std::memory_order_relaxed);
    }
}

using MutexLock = int (*)(pthread_mutex_t*);
MutexLock sRealLock = nullptr;

} // namespace

// Qt's hook for signal spies (QtCore exports it; the declaration is Qt's
// private one).
struct QSignalSpyCallbackSet
{
    using BeginCallback = void (*)(QObject*, int, void**);
    using EndCallback = void (*)(QObject*, int);
    BeginCallback signalBegin;
    BeginCallback slotBegin;
    EndCallback signalEnd;
    EndCallback slotEnd;
};
void qt_register_signal_spy_callbacks(QSignalSpyCallbackSet* callbacks);

extern "C" {
void* malloc(size_t size)
{
    countIf(sAllocations);
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size)
{
    countIf(sAllocations);
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size)
{
    countIf(sAllocations);
    return __libc_realloc(pointer, size);
}
void free(void* pointer)
{
    if (pointer) {
        countIf(sFrees);
    }
    __libc_free(pointer);
}
int pthread_mutex_lock(pthread_mutex_t* mutex)
{
    countIf(sLocks);
    if (!sRealLock) {
        // dlsym's own locking does not go through this symbol.
        sRealLock = reinterpret_cast<MutexLock>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    }
    return sRealLock(mutex);
}
}

class TestRealTime : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;

    void queue(const ArboEvent& event) { mPlayer.queueEventGui(&event); }

    // `count` paths of distinct pitches: 3, 5, 7 and 11 steps, six at most.
    static QList<ArboPath> chordPaths(int count)
    {
        QList<ArboPath> paths;
        for (int a = 0; a <= 6; ++a) {
            for (int b = 0; a + b <= 6; ++b) {
                for (int c = 0; a + b + c <= 6; ++c) {
                    for (int d = a + b + c == 0 ? 1 : 0; a + b + c + d <= 6 && paths.size() < count;
                         ++d) {
                        const QString path = QStringLiteral("/3").repeated(a) +
                                             QStringLiteral("/5").repeated(b) +
                                             QStringLiteral("/7").repeated(c) +
                                             QStringLiteral("/11").repeated(d);
                        paths << ArboPath(path);
                    }
                }
            }
        }
        return paths;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(mPlayer.init());
        QCOMPARE(mPlayer.initAudio(2, OfflinePlayer::SAMPLE_RATE), 0);
        QVERIFY(PatchLoader::installShellPatches());
        QVERIFY(PatchLoader::loadVoice(&mPlayer, TestSupport::binDir() + "/patches/Sine.pd"));
    }

    void ownCodeOnTheAudioThreadNeverAllocatesLocksOrEmits()
    {
        static QSignalSpyCallbackSet spy = {
            [](QObject*, int, void**) { countIf(sSignals); }, nullptr, nullptr, nullptr};
        qt_register_signal_spy_callbacks(&spy);

        // Recording all along: samples, commands and patch changes into the
        // tap's rings, which nobody drains, so that they also fill up and
        // count what they lose.
        RecordTap tap(true);
        mPlayer.setRecordTap(&tap);
        // A thread of its own plays the audio thread, at 64 frames.
        mPlayer.setAudioThreadRunning(true);
        std::atomic<bool> stop{false};
        std::atomic<long> buffers{0};
        std::thread audio([&] {
            std::vector<float> out(2 * 64);
            while (!stop.load()) {
                mPlayer.render(out.data(), 64);
                buffers.fetch_add(1);
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        });
        const auto waitFor = [&](auto condition) {
            QElapsedTimer timer;
            timer.start();
            while (!condition() && timer.elapsed() < 20000) {
                mPlayer.deliverResults();
                QThread::msleep(2);
            }
            mPlayer.deliverResults();
            return condition();
        };

        // Two scenes for the scene commands: a big one and a transposed one.
        auto scenes = std::make_unique<SceneTable>();
        std::vector<SceneTable::Note> notes;
        for (const ArboPath& path : chordPaths(100)) {
            SceneTable::Note note;
            note.ratio = ArboRatio::pathRatio(path);
            notes.push_back(note);
        }
        SceneTable::Scene scene;
        scene.id = 1;
        scenes->append(scene, notes);
        scene.id = 2;
        scene.transposition = ArboRatio(15, 8);
        scene.macros[0] = 0.3f;
        notes.resize(20);
        scenes->append(scene, notes);
        mPlayer.publishScenes(std::move(scenes));

        // 128 voices, then more (voices are stolen), held notes, and every
        // other command, twice over with a patch change between.
        const QStringList voices = {"Organ.pd", "Sine.pd"};
        for (const QString& voice : voices) {
            for (const ArboPath& path : chordPaths(140)) {
                queue(ArboNoteEvent(path));
            }
            QVERIFY(waitFor([&] { return mPlayer.soundingNoteCount() >= 100; }));
            const ArboPath held(QStringLiteral("/17"));
            queue(ArboNoteEvent(held, ArboEvent::NoteStart));
            for (const ArboEvent& event :
                 {ArboEvent(ArboEvent::Transpose, 3), ArboEvent(ArboEvent::Transpose, -3),
                  ArboEvent(ArboEvent::VoiceVolumeStep, 0.1f), ArboEvent(ArboEvent::VoiceVolume, 0.9f),
                  ArboEvent(ArboEvent::MasterVolumeStep, -0.1f),
                  ArboEvent(ArboEvent::MasterVolume, 0.8f), ArboEvent(ArboEvent::Monophonic, 1),
                  ArboEvent(ArboEvent::Monophonic, 0), ArboEvent(ArboEvent::BaseFrequency, 432),
                  ArboEvent(ArboEvent::BaseFrequency, 440), ArboEvent(ArboEvent::PrimeToggle, 7),
                  ArboEvent(ArboEvent::PrimeToggle, 7), ArboEvent(ArboEvent::Macro1, 0.4f),
                  ArboEvent(ArboEvent::Macro2, 0.6f), ArboEvent(ArboEvent::PatchStep, 1),
                  ArboEvent(ArboEvent::SceneStore, 1), ArboEvent(ArboEvent::SceneRecall, 1),
                  ArboEvent(ArboEvent::SceneStep, 1), ArboEvent(ArboEvent::SceneStep, -1),
                  ArboEvent(ArboEvent::Record, -1),
                  ArboEvent(ArboEvent::BaseFrequency, 0.0f)}) { // refused
                queue(event);
            }
            queue(ArboNoteEvent(held, ArboEvent::NoteEnd));
            // A full ring: what does not fit is dropped on the writer's side.
            for (int i = 0; i < 1100; ++i) {
                queue(ArboEvent(ArboEvent::Macro3, 0.5f));
            }
            // The patch changes under the chord.
            QVERIFY(PatchLoader::loadVoice(&mPlayer, TestSupport::binDir() + "/patches/" + voice));
            queue(ArboEvent(ArboEvent::AllNotesOff, 1));
            QVERIFY(waitFor([&] { return mPlayer.soundingNoteCount() == 0; }));
        }
        stop = true;
        audio.join();
        mPlayer.setAudioThreadRunning(false);
        mPlayer.setRecordTap(nullptr);
        qt_register_signal_spy_callbacks(nullptr);
        QCOMPARE(tap.phase(), RecordTap::Recording);
        QCOMPARE(tap.position(), 64 * buffers.load());

        QVERIFY2(buffers.load() > 100, qPrintable(QString::number(buffers.load())));
        QCOMPARE(sAllocations.load(), 0L);
        QCOMPARE(sFrees.load(), 0L);
        QCOMPARE(sLocks.load(), 0L);
        QCOMPARE(sSignals.load(), 0L);
    }
};

ARBO_TEST_MAIN(TestRealTime)
#include "tst_realtime.moc"
