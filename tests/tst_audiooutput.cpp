// The audio output on PortAudio, heard for real: a private JACK server on the
// dummy driver stands in for the sound card, the real libpd runs the patches,
// jack_capture records what comes out and the recording is analysed.
//
// Tests that need to see single buffers drive the stream callback directly
// with their own buffers while no stream runs (as the audio thread would, one
// buffer at a time); everything else runs on a real stream.

#include "audioanalysis.h"
#include "jackfixture.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "settings/paths.h"
#include "sound/denormals.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <z_libpd.h>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

// A Pd patch of the tests' own, for what the instrument's patches do not show
// directly: on the left, the number of samples computed since DSP went on (1,
// 2, 3, ...); on the right 1e-20 squared, 1e-40, a denormal. It listens on
// "query-macros" only so that the player's query after opening has a
// receiver.
const char* const TEST_PATCH = "#N canvas 0 50 450 300 12;\n#X obj 20 20 sig~ 1;\n"
                               "#X obj 20 50 rpole~ 1;\n#X obj 20 80 dac~;\n"
                               "#X obj 150 20 r query-macros;\n#X obj 150 50 sig~ 1e-20;\n"
                               "#X obj 150 80 *~ 1e-20;\n#X connect 0 0 1 0;\n"
                               "#X connect 1 0 2 0;\n#X connect 4 0 5 0;\n#X connect 5 0 2 1;\n";

} // namespace

class TestAudioOutput : public QObject
{
    Q_OBJECT

    JackFixture mJack;
    JackFixture mSecondJack; // for the test of another server, at 48 kHz
    PdPlayer mPlayer;
    QTemporaryDir mPatchDir;
    std::unique_ptr<PaAudioOutput> mOutput; // a fresh one for each test

    // The output without a device, so that the test renders itself, as the
    // audio thread would, with TEST_PATCH loaded.
    bool openForCallback()
    {
        const QString path = mPatchDir.filePath(QStringLiteral("test.pd"));
        mOutput->setPlayer(&mPlayer);
        return !mOutput->isStreamRunning() && TestSupport::writeFile(path, TEST_PATCH) &&
               mPlayer.loadPatch(QFileInfo(path));
    }

    // Runs one buffer, filled with `fill`, through the render entry point of
    // the stream callback.
    QVector<float> renderBuffer(int frames, float fill = 0.5f)
    {
        QVector<float> buffer(frames * 2, fill);
        mOutput->render(buffer.data(), frames);
        mPlayer.deliverResults(); // as the GUI thread's timer would
        return buffer;
    }

    // Whether `jack` hears `note` at `expected` Hz on each channel while it
    // sounds (a toggle: on, then off).
    bool hears(JackFixture& jack, const ArboNoteEvent& note, double expected)
    {
        QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);
        mPlayer.queueEventGui(&note);
        const bool heard =
            toggled.wait(10000) && jack.hears(expected, 0) && jack.hears(expected, 1);
        mPlayer.queueEventGui(&note);
        return heard;
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

    // The output is registered for the player's mute-around-unload.
    void init() { mOutput = std::make_unique<PaAudioOutput>(); }

    // Every test ends with PortAudio ended, even when a check failed
    // half-way, and the server of the test case in force again.
    void cleanup()
    {
        mPlayer.unloadPatch();
        mOutput->term();
        mSecondJack.stop(); // only after PortAudio, its client, has ended
        mJack.applyToThisProcess();
    }

    // The histogram reads percentiles within 1/32 above the truth, the worst
    // exactly; a reset asked for while the writer runs waits for its next
    // record.
    void callbackStatsReadPercentilesAndOverruns()
    {
        for (std::int64_t value = 1; value < (std::int64_t(1) << 40); value = value * 5 / 4 + 1) {
            const std::int64_t upper =
                CallbackStats::bucketUpperNs(CallbackStats::bucketIndex(value));
            QVERIFY(upper >= value && double(upper - value) <= double(value) / 32.0);
        }
        CallbackStats stats;
        for (int i = 0; i < 1000; ++i) { // 980 × 100 us, 15 × 1 ms, 5 × 7 ms (overruns)
            stats.record(i < 980 ? 100000 : i < 995 ? 1000000 : 7000000, 5804988, i == 999);
        }
        const CallbackStats::Snapshot s = stats.snapshot();
        QVERIFY(s.callbacks == 1000 && s.overruns == 5 && s.underflows == 1);
        QVERIFY(s.percentileNs(0.98) >= 100000 && s.percentileNs(0.98) <= 103125);
        QVERIFY(s.percentileNs(0.99) >= 1000000 && s.percentileNs(0.99) <= 1031250);
        QCOMPARE(s.percentileNs(1.0), std::int64_t(7000000));
        stats.requestReset();
        QCOMPARE(stats.snapshot().callbacks, std::uint64_t(1000));
        stats.record(50000, 5804988, false);
        QVERIFY(stats.snapshot().callbacks == 1 && stats.snapshot().maxNs == 50000);
    }

    // Whatever index is asked for, the one device there is opens: ALSA is
    // hidden, JACK's "system" is the default.
    void selectsTheListedDeviceOrFallsBackToTheDefault_data()
    {
        QTest::addColumn<int>("requested");
        QTest::newRow("the default (-1)") << -1;
        QTest::newRow("the listed device") << 0;
        QTest::newRow("beyond the list (a device unplugged)") << 1;
        QTest::newRow("a negative index other than -1") << -7;
    }
    void selectsTheListedDeviceOrFallsBackToTheDefault()
    {
        QFETCH(int, requested);
        QSignalSpy selected(mOutput.get(), &AudioOutput::selectedDeviceChanged);
        QVERIFY(mOutput->init(256, requested, &mPlayer));
        QCOMPARE(mOutput->devices(), QStringList{"JACK Audio Connection Kit: system"});
        QVERIFY(selected.count() == 1 && mOutput->selectedDevice() == 0);
        // The stream runs: its callback is called.
        QTRY_VERIFY_WITH_TIMEOUT(mOutput->callbackStats().snapshot().callbacks > 10, 10000);
        // Closing keeps the selection; selecting again reopens.
        QVERIFY(mOutput->closeDevice() && !mOutput->isStreamRunning());
        QVERIFY(mOutput->selectDevice(requested) && mOutput->isStreamRunning());
        QCOMPARE(mOutput->selectedDevice(), 0);
    }

    // PortAudio pointed at a JACK server nobody serves, with ALSA hidden: the
    // requested device and the default both fail, and nothing is selected.
    void initFailsWithoutAnyDevice()
    {
        JackFixture::applyNoDeviceToThisProcess();
        QSignalSpy selected(mOutput.get(), &AudioOutput::selectedDeviceChanged);
        QVERIFY(!mOutput->init(128, 3, &mPlayer));
        QVERIFY(mOutput->devices().isEmpty() && !mOutput->isStreamRunning());
        QVERIFY(mOutput->selectedDevice() == -1 && selected.count() == 0);
    }

    // Pd computes whole ticks of 64 frames; a buffer of any size takes what
    // it needs and the rest of the last tick waits for the next buffer. The
    // test patch counts samples, so every frame of every buffer must carry
    // the next count: no gap, no repeat, at sizes that are no multiple of 64.
    void anyBufferSizePlaysWithoutGaps_data()
    {
        QTest::addColumn<int>("frames");
        for (int frames : {256, 100, 1000, 48, 65, 1, 7, 8192}) {
            QTest::addRow("%d frames", frames) << frames;
        }
    }
    void anyBufferSizePlaysWithoutGaps()
    {
        QFETCH(int, frames);
        QVERIFY(openForCallback());
        // The count goes on from where the patch's warm-up left it.
        float expected = renderBuffer(1)[0] + 1.0f;
        for (int round = 0; round * frames < 3 * std::max(frames, 200); ++round) {
            const QVector<float> buffer = renderBuffer(frames, 7.0f);
            for (int i = 0; i < frames; ++i, expected += 1.0f) {
                QCOMPARE(buffer[2 * i], expected);
            }
        }
    }

    // Buffer sizes typed into the options file by hand that cannot work
    // fall back to 256 frames with a warning, and the device still opens.
    void unusableBufferSizesFallBackTo256()
    {
        for (int frames : {-5, 0, 100000}) {
            QTest::ignoreMessage(
                QtWarningMsg,
                QRegularExpression(QStringLiteral("^Frames per buffer %1 cannot").arg(frames)));
            QVERIFY(mOutput->init(frames, -1, &mPlayer));
            QCOMPARE(mOutput->framesPerBuffer(), 256);
            mOutput->term();
        }
    }

    // Muted buffers are silent while the patch goes on computing.
    void muteSilencesOutputWhileThePatchRuns()
    {
        QVERIFY(openForCallback());
        const float before = renderBuffer(256)[2 * 255]; // the last frame's count
        QVERIFY(before > 0.0f);
        mOutput->mute();
        QCOMPARE(AudioAnalysis::peak(renderBuffer(256)), 0.0);
        QCOMPARE(AudioAnalysis::peak(renderBuffer(256)), 0.0);
        mOutput->unmute();
        QCOMPARE(renderBuffer(256)[2 * 255], before + 3.0f * 256.0f);
    }

    // A patch that computes a sample that is not a number (here a square
    // root of -1, once told to): that buffer is silence, the GUI thread says
    // so once, and the sound comes back as soon as the patch computes numbers
    // again.
    void notANumberNeverReachesTheDevice()
    {
        const QString path = mPatchDir.filePath(QStringLiteral("nan.pd"));
        QVERIFY(TestSupport::writeFile(path, "#N canvas 0 50 450 300 12;\n"
                                             "#X obj 20 20 r make-nan;\n#X obj 20 50 sig~;\n"
                                             "#X obj 20 80 expr~ sqrt(-$v1) + 0.25;\n"
                                             "#X obj 20 110 dac~;\n#X connect 0 0 1 0;\n"
                                             "#X connect 1 0 2 0;\n#X connect 2 0 3 0;\n"
                                             "#X connect 2 0 3 1;\n"));
        mOutput->setPlayer(&mPlayer);
        QVERIFY(mPlayer.loadPatch(QFileInfo(path)));
        QCOMPARE(renderBuffer(256)[10], 0.25f);
        libpd_float("make-nan", 1.0f);
        QCOMPARE(AudioAnalysis::peak(renderBuffer(256, 7.0f)), 0.0);
        QCOMPARE(mPlayer.silencedBuffers(), quint32(1));
        QTest::ignoreMessage(QtWarningMsg,
                             "Silenced 1 audio buffer(s) in which the patch computed a sample "
                             "that is not a finite number; its sound was reset");
        mPlayer.reportRefusedCommands();
        libpd_float("make-nan", 0.0f);
        renderBuffer(256);
        QCOMPARE(renderBuffer(256)[10], 0.25f);
        mPlayer.unloadPatch();
    }

    // Pd left to itself computes the denormal; through the callback the same
    // patch computes zeros, as the callback switches its thread to
    // flush-to-zero.
    void callbackFlushesDenormalsToZero()
    {
        QVERIFY(openForCallback());
        Denormals::Scope off(false);
        std::vector<float> buffer(2 * 64, 1.0f);
        libpd_process_float(1, nullptr, buffer.data());
        QCOMPARE(std::fpclassify(buffer[1]), FP_SUBNORMAL);
        QCOMPARE(std::fpclassify(renderBuffer(256, 1.0f)[1]), FP_ZERO); // QCOMPARE would be fuzzy
        QVERIFY(Denormals::isFlushingToZero());
    }

    // On a running stream a note is heard on both channels at its pitch, and
    // fades to silence. (Patch changes under a live chord are tst_pdplayer's
    // and tst_playerthreads'.)
    void aNoteIsHeardOnBothChannelsAndFades()
    {
        QVERIFY(mOutput->init(256, -1, &mPlayer));
        QVERIFY(PatchLoader::loadVoice(&mPlayer, TestSupport::binDir() + "/patches/Sine.pd"));
        // 3/2 above the 440 Hz base: 660 Hz, on both channels.
        QVERIFY2(hears(mJack, ArboNoteEvent("/3"), 660.0), qPrintable(mJack.error()));
        QVERIFY2(mJack.hearsSilence(), qPrintable(mJack.error()));
    }

    // A device that refuses 44100 Hz is opened at its own rate, and Pd
    // computes at that rate: the pitch is right at 48 kHz too.
    void deviceRefusing44100IsOpenedAtItsOwnRate()
    {
        QVERIFY2(mSecondJack.start(48000, 256), qPrintable(mSecondJack.error()));
        mSecondJack.applyToThisProcess();
        QVERIFY(mOutput->init(256, -1, &mPlayer));
        QCOMPARE(mOutput->streamSampleRate(), 48000.0);
        const QString sine = TestSupport::binDir() + QStringLiteral("/patches/Sine.pd");
        QVERIFY(PatchLoader::loadVoice(&mPlayer, sine));
        // Played at 44.1 kHz it would sound 8.8 % (146 cents) sharp.
        QVERIFY2(hears(mSecondJack, ArboNoteEvent(), mPlayer.baseFrequency()),
                 qPrintable(mSecondJack.error()));
    }
};

ARBO_TEST_MAIN(TestAudioOutput)

#include "tst_audiooutput.moc"
