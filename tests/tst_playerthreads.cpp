// The player and the audio output across their three threads, for real: the
// GUI thread (this one) clicks notes, changes patches and reads the sounding
// count, a wand thread writes its own ring, and PortAudio's callback thread on
// a private JACK server carries everything out. Midway the server dies and a
// new one comes up, so the output's retirement of a lost stream's callbacks
// runs too. This source is also built with ThreadSanitizer
// (tst_playerthreads.cmake), which reports any access to shared state that
// the rings, atomics and mutex do not order.

#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "jackfixture.h"
#include "settings/paths.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <atomic>
#include <thread>

class TestPlayerThreads : public QObject
{
    Q_OBJECT

    JackFixture mJack;
    PdPlayer mPlayer;
    PaAudioOutput mOutput;

    // A wand: toggles notes and steps the volume on its own thread until told
    // to stop. The serial ring's one writer.
    static void wand(PdPlayer* player, std::atomic<bool>* stop)
    {
        for (int i = 0; !stop->load(); ++i) {
            const ArboNoteEvent note(i % 2 ? QStringLiteral("/5") : QStringLiteral("/-3/7"));
            player->queueEventSerial(&note);
            const ArboEvent volume(ArboEvent::MasterVolume, i % 2 ? 0.7f : 0.8f);
            player->queueEventSerial(&volume);
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    }

    // The GUI thread's share: notes, transpositions and readings of the
    // published count, `rounds` times.
    void play(int rounds)
    {
        for (int i = 0; i < rounds; ++i) {
            const ArboNoteEvent note(i % 3 ? QStringLiteral("/3") : QStringLiteral("/2/3"));
            mPlayer.queueEventGui(&note);
            const ArboEvent transpose(ArboEvent::Transpose, i % 4 == 0 ? 0.0f : 5.0f);
            mPlayer.queueEventGui(&transpose);
            QVERIFY(mPlayer.soundingNoteCount() >= 0);
            QTest::qWait(5); // the GUI's event loop runs meanwhile, as in the program
        }
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
        QVERIFY2(mJack.start(44100, 256), qPrintable(mJack.error()));
        mJack.applyToThisProcess();
        QVERIFY(mPlayer.init());
        QVERIFY(PatchLoader::installShellPatches());
    }

    void cleanupTestCase()
    {
        mOutput.term();
    }

    void threeThreadsShareThePlayer()
    {
        QVERIFY(mOutput.init(256, -1, &mPlayer));
        const QString patches = TestSupport::binDir() + QStringLiteral("/patches/");
        QVERIFY(PatchLoader::loadVoice(&mPlayer, patches + "Sine.pd"));
        std::atomic<bool> stop{false};
        std::thread wandThread(wand, &mPlayer, &stop);

        play(100);
        // Patch changes wait for the callback thread while both rings fill.
        QVERIFY(PatchLoader::loadVoice(&mPlayer, patches + "Organ.pd"));
        play(50);

        // The server dies under the stream and a new one comes up.
        mJack.killServer();
        QTRY_VERIFY_WITH_TIMEOUT(mOutput.isDeviceLost(), 15000);
        play(20); // carried out when the device is back
        QVERIFY2(mJack.restartServer(), qPrintable(mJack.error()));
        QTRY_VERIFY_WITH_TIMEOUT(!mOutput.isDeviceLost(), 30000);
        play(50);
        QVERIFY(PatchLoader::loadVoice(&mPlayer, patches + "Sine.pd"));

        stop.store(true);
        wandThread.join();
        const ArboEvent allOff(ArboEvent::AllNotesOff, 1.0f);
        mPlayer.queueEventGui(&allOff);
        // Generous: under ThreadSanitizer on a busy machine the server may
        // stall the client, and the watchdog reopen the stream, before every
        // release has faded out.
        QTRY_COMPARE_WITH_TIMEOUT(mPlayer.soundingNoteCount(), 0, 60000);
        mPlayer.unloadPatch();
    }
};

ARBO_TEST_MAIN(TestPlayerThreads)

#include "tst_playerthreads.moc"
