// The audio output on PortAudio, heard for real: a private JACK server on the
// dummy driver stands in for the sound card, the real libpd runs the patches,
// jack_capture records what comes out and the recording is analysed.
//
// Tests that need to see single buffers drive the stream callback directly
// with their own buffers while no stream runs (as the audio thread would, one
// buffer at a time); everything else runs on a real stream.

#include "audioanalysis.h"
#include "input/arboevent.h"
#include "input/arbonoteevent.h"
#include "jackfixture.h"
#include "settings/appcontext.h"
#include "sound/denormals.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <z_libpd.h>

#include <cmath>
#include <vector>

namespace {

const QString JACK_DEVICE = QStringLiteral("JACK Audio Connection Kit: system");

// Pd patches of the tests' own, for what the instrument's patches do not
// show directly. Each writes the same signal to both channels, and listens
// on "query-macros" only so that the player's query after opening has a
// receiver.

// The number of samples computed since DSP went on: 1, 2, 3, ...
const char* const COUNTER_PATCH = "#N canvas 0 50 450 300 12;\n"
                                  "#X obj 20 20 sig~ 1;\n"
                                  "#X obj 20 50 rpole~ 1;\n"
                                  "#X obj 20 80 dac~;\n"
                                  "#X obj 150 20 r query-macros;\n"
                                  "#X connect 0 0 1 0;\n"
                                  "#X connect 1 0 2 0;\n"
                                  "#X connect 1 0 2 1;\n";

// 1e-20 squared: 1e-40 is below the smallest normal float, a denormal.
const char* const DENORMAL_PATCH = "#N canvas 0 50 450 300 12;\n"
                                   "#X obj 20 20 sig~ 1e-20;\n"
                                   "#X obj 20 50 *~ 1e-20;\n"
                                   "#X obj 20 80 dac~;\n"
                                   "#X obj 150 20 r query-macros;\n"
                                   "#X connect 0 0 1 0;\n"
                                   "#X connect 1 0 2 0;\n"
                                   "#X connect 1 0 2 1;\n";

// Collects every message logged while it lives, from any thread, and passes
// each on to the handler that was installed before.
class LogCapture
{
public:
    LogCapture()
    {
        sCurrent = this;
        mPrevious = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture()
    {
        qInstallMessageHandler(mPrevious);
        sCurrent = nullptr;
    }
    QString text() const
    {
        QMutexLocker lock(&mMutex);
        return mLines.join(QLatin1Char('\n'));
    }
    bool contains(const QString& part) const { return text().contains(part); }

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        LogCapture* self = sCurrent;
        if (self) {
            QMutexLocker lock(&self->mMutex);
            self->mLines.append(message);
        }
        if (self && self->mPrevious) {
            self->mPrevious(type, context, message);
        }
    }
    static LogCapture* sCurrent;
    QtMessageHandler mPrevious = nullptr;
    mutable QMutex mMutex;
    QStringList mLines;
};
LogCapture* LogCapture::sCurrent = nullptr;

// Registers the output for the player's mute-around-unload and takes it away
// again, and always ends PortAudio, even when a check fails half-way.
class OutputGuard
{
public:
    explicit OutputGuard(PaAudioOutput& output) : mOutput(output)
    {
        AppContext::setAudioOutput(&mOutput);
    }
    ~OutputGuard()
    {
        if (PdPlayer* player = AppContext::player()) {
            player->unloadPatch();
        }
        mOutput.term();
        AppContext::setAudioOutput(nullptr);
    }

private:
    PaAudioOutput& mOutput;
};

// Runs one buffer through the stream callback, as the audio thread would.
std::vector<float> renderBuffer(PaAudioOutput& output, unsigned long frames, float fill = 0.5f)
{
    std::vector<float> buffer(frames * 2, fill);
    PaAudioOutput::portAudioCallback(nullptr, buffer.data(), frames, nullptr, 0, &output);
    return buffer;
}

bool allZero(const std::vector<float>& buffer)
{
    for (float sample : buffer) {
        if (sample != 0.0f) {
            return false;
        }
    }
    return true;
}

} // namespace

class TestAudioOutput : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void cleanup();

    void deviceEntryShortensDirectSound_data();
    void deviceEntryShortensDirectSound();
    void callbackStatsReadPercentilesAndOverruns();
    void selectsTheListedDeviceOrFallsBackToTheDefault_data();
    void selectsTheListedDeviceOrFallsBackToTheDefault();
    void initFailsWithoutAnyDevice();
    void callbackRunsWholePdTicks_data();
    void callbackRunsWholePdTicks();
    void silenceWithoutPatchWhileCommandsAreCarriedOut();
    void muteSilencesOutputWhileThePatchRuns();
    void callbackFlushesDenormalsToZero();
    void noteIsHeardOnTheJackDevice();
    void deviceRefusing44100IsOpenedAtItsOwnRate();
    void realBinaryOpensTheDeviceAndStoresIt();
    void patchesChangeUnderSoundingNotes();

private:
    QString writePatch(const QString& name, const char* text);
    // Opens the output on the fixture's server, then closes the stream again,
    // so that the test drives the callback itself.
    bool openThenCloseStream(PaAudioOutput& output, int framesPerBuffer = 256);

    JackFixture mJack;
    PdPlayer mPlayer;
    QTemporaryDir mPatchDir;
};

void TestAudioOutput::initTestCase()
{
    if (!JackFixture::toolsAvailable()) {
        QSKIP("jackd, jack_lsp or jack_capture is not installed (scripts/install-deps.sh)");
    }
    QVERIFY2(mJack.start(44100, 256), qPrintable(mJack.error()));
    mJack.applyToThisProcess();
    AppContext::setPlayer(&mPlayer);
    QVERIFY(mPlayer.init());
    QVERIFY(mPatchDir.isValid());
}

void TestAudioOutput::cleanupTestCase()
{
    AppContext::setPlayer(nullptr);
    mJack.stop();
}

void TestAudioOutput::cleanup()
{
    // Every test ends with the server of the test case in force again.
    mJack.applyToThisProcess();
}

QString TestAudioOutput::writePatch(const QString& name, const char* text)
{
    const QString path = mPatchDir.path() + QLatin1Char('/') + name;
    return TestSupport::writeFile(path, text) ? path : QString();
}

bool TestAudioOutput::openThenCloseStream(PaAudioOutput& output, int framesPerBuffer)
{
    if (!output.init(framesPerBuffer, -1, &mPlayer)) {
        return false;
    }
    return output.closeDevice() && !output.isStreamRunning();
}

void TestAudioOutput::deviceEntryShortensDirectSound_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("entry");

    QTest::newRow("DirectSound") << "Windows DirectSound"
                                 << "Speakers (Realtek)"
                                 << "DS: Speakers (Realtek)";
    QTest::newRow("any letter case") << "WINDOWS directSOUND"
                                     << "Speakers"
                                     << "DS: Speakers";
    QTest::newRow("other Windows hosts keep their name") << "Windows WASAPI"
                                                         << "Speakers"
                                                         << "Windows WASAPI: Speakers";
    QTest::newRow("JACK") << "JACK Audio Connection Kit"
                          << "system" << JACK_DEVICE;
    QTest::newRow("only the whole name counts") << "Windows DirectSound 2"
                                                << "x"
                                                << "Windows DirectSound 2: x";
}

void TestAudioOutput::deviceEntryShortensDirectSound()
{
    QFETCH(QString, host);
    QFETCH(QString, device);
    QFETCH(QString, entry);
    QCOMPARE(PaAudioOutput::deviceEntry(host, device), entry);
}

void TestAudioOutput::callbackStatsReadPercentilesAndOverruns()
{
    // Every duration falls into a bucket whose upper edge is at most 1/32
    // above it, from nanoseconds to minutes.
    for (std::int64_t value = 0; value < (std::int64_t(1) << 42); value = value * 5 / 4 + 1) {
        const int index = CallbackStats::bucketIndex(value);
        QVERIFY(index >= 0 && index < CallbackStats::BUCKET_COUNT);
        const std::int64_t upper = CallbackStats::bucketUpperNs(index);
        if (value < (std::int64_t(1) << CallbackStats::MAX_OCTAVE)) {
            QVERIFY2(upper >= value && double(upper - value) <= double(value) / 32.0,
                     qPrintable(QStringLiteral("%1 -> %2").arg(value).arg(upper)));
        }
        if (index > 0) {
            QVERIFY(CallbackStats::bucketUpperNs(index - 1) < value || value == 0);
        }
    }

    CallbackStats stats;
    const std::int64_t period = 5804988;
    QCOMPARE(stats.snapshot().percentileNs(0.5), std::int64_t(0));
    for (int i = 0; i < 980; ++i) {
        stats.record(100000, period, false); // 100 us
    }
    for (int i = 0; i < 15; ++i) {
        stats.record(1000000, period, false); // 1 ms
    }
    for (int i = 0; i < 5; ++i) {
        stats.record(7000000, period, i == 0); // 7 ms: past the period
    }
    CallbackStats::Snapshot snapshot = stats.snapshot();
    QCOMPARE(snapshot.callbacks, std::uint64_t(1000));
    QCOMPARE(snapshot.overruns, std::uint64_t(5));
    QCOMPARE(snapshot.underflows, std::uint64_t(1));
    QCOMPARE(snapshot.maxNs, std::int64_t(7000000));
    QCOMPARE(snapshot.periodNs, period);
    QCOMPARE(snapshot.totalNs, std::int64_t(980 * 100000 + 15 * 1000000 + 5 * 7000000));
    const std::int64_t median = snapshot.percentileNs(0.5);
    QVERIFY(median >= 100000 && median <= 100000 + 100000 / 32);
    QCOMPARE(snapshot.percentileNs(0.98), median); // the 980th of 1000
    const std::int64_t p99 = snapshot.percentileNs(0.99);
    QVERIFY(p99 >= 1000000 && p99 <= 1000000 + 1000000 / 32);
    QCOMPARE(snapshot.percentileNs(1.0), std::int64_t(7000000)); // the exact worst

    // A reset asked for while the writer runs takes effect at its next record.
    stats.requestReset();
    QCOMPARE(stats.snapshot().callbacks, std::uint64_t(1000));
    stats.record(50000, period, false);
    snapshot = stats.snapshot();
    QCOMPARE(snapshot.callbacks, std::uint64_t(1));
    QCOMPARE(snapshot.overruns, std::uint64_t(0));
    QCOMPARE(snapshot.maxNs, std::int64_t(50000));
    stats.reset();
    QCOMPARE(stats.snapshot().callbacks, std::uint64_t(0));
}

void TestAudioOutput::selectsTheListedDeviceOrFallsBackToTheDefault_data()
{
    QTest::addColumn<int>("requested");

    QTest::newRow("the default (-1)") << -1;
    QTest::newRow("the listed device") << 0;
    QTest::newRow("just beyond the list") << 1;
    QTest::newRow("far beyond the list (a device unplugged)") << 99;
    QTest::newRow("a negative index other than -1") << -7;
}

void TestAudioOutput::selectsTheListedDeviceOrFallsBackToTheDefault()
{
    QFETCH(int, requested);

    PaAudioOutput output;
    OutputGuard guard(output);
    QSignalSpy selected(&output, &AudioOutput::selectedDeviceChanged);
    LogCapture log;

    QVERIFY(output.init(256, requested, &mPlayer));
    // The one device there is: ALSA is hidden, JACK's "system" is the default.
    QCOMPARE(output.devices(), QStringList{JACK_DEVICE});
    QCOMPARE(output.selectedDevice(), 0);
    QCOMPARE(selected.count(), 1);
    QCOMPARE(selected.first().first().toInt(), 0);
    QVERIFY(output.isStreamRunning());
    QCOMPARE(output.framesPerBuffer(), 256);
    QCOMPARE(output.streamSampleRate(), 44100.0);
    QVERIFY(output.streamOutputLatency() > 0.0);
    QVERIFY(log.contains(QStringLiteral("Selecting device 0 with latency:")));
    QVERIFY(log.contains(QStringLiteral("PaStream opened with output latency")));
    QVERIFY(log.contains(QStringLiteral("PaStream started")));
    QVERIFY(log.contains(QStringLiteral("Initialising libpd with sampleRate 44100")));

    // The stream really runs: PortAudio's ports appear on the server and the
    // callback is called.
    QVERIFY(mJack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0")));
    QTRY_VERIFY_WITH_TIMEOUT(output.callbackStats().snapshot().callbacks > 10, 10000);

    // Closing keeps the selection; selecting again reopens.
    QVERIFY(output.closeDevice());
    QVERIFY(!output.isStreamRunning());
    QCOMPARE(output.selectedDevice(), 0);
    QVERIFY(output.closeDevice()); // nothing to close is fine
    QVERIFY(output.selectDevice(requested));
    QVERIFY(output.isStreamRunning());
    QCOMPARE(output.selectedDevice(), 0);

    output.term();
    QVERIFY(!output.isStreamRunning());
    QVERIFY(log.contains(QStringLiteral("PaAudioOutput::term...")));
    QVERIFY(log.contains(QStringLiteral("Calling Pa_Terminate...")));
}

void TestAudioOutput::initFailsWithoutAnyDevice()
{
    // PortAudio pointed at a JACK server nobody serves, with ALSA hidden.
    const QProcessEnvironment env = JackFixture::noDeviceEnvironment(QProcessEnvironment());
    for (const QString& key : env.keys()) {
        qputenv(key.toLocal8Bit().constData(), env.value(key).toLocal8Bit());
    }

    PaAudioOutput output;
    OutputGuard guard(output);
    QSignalSpy selected(&output, &AudioOutput::selectedDeviceChanged);
    LogCapture log;

    QVERIFY(!output.init(128, 3, &mPlayer));
    QVERIFY(output.devices().isEmpty());
    QVERIFY(!output.isStreamRunning());
    // Both attempts failed before any device was touched: nothing changed.
    QCOMPARE(output.selectedDevice(), -1);
    QCOMPARE(selected.count(), 0);
    QCOMPARE(log.text().count(QStringLiteral(
                 "No default output device returned from Pa_GetDefaultOutputDevice")),
             2);
    // What init stored is kept all the same.
    QCOMPARE(output.framesPerBuffer(), 128);
    QCOMPARE(output.player(), &mPlayer);
}

void TestAudioOutput::callbackRunsWholePdTicks_data()
{
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("ticks");

    QTest::newRow("64 frames: 1 tick") << 64 << 1;
    QTest::newRow("256 frames: 4 ticks") << 256 << 4;
    QTest::newRow("512 frames: 8 ticks") << 512 << 8;
    QTest::newRow("100 frames: 1 tick and a silent rest") << 100 << 1;
    QTest::newRow("300 frames: 4 ticks and a silent rest") << 300 << 4;
    QTest::newRow("32 frames: no tick, all silent") << 32 << 0;
}

void TestAudioOutput::callbackRunsWholePdTicks()
{
    QFETCH(int, frames);
    QFETCH(int, ticks);

    PaAudioOutput output;
    OutputGuard guard(output);
    QVERIFY(openThenCloseStream(output));
    const QString patch = writePatch(QStringLiteral("counter.pd"), COUNTER_PATCH);
    QVERIFY(mPlayer.loadPatch(QFileInfo(patch)));
    QVERIFY(mPlayer.isPatchOpen());

    // The counter patch outputs how many samples Pd has computed. Three
    // buffers in a row: each continues where the last one's ticks ended.
    float computed = 0.0f;
    for (int round = 0; round < 3; ++round) {
        const std::vector<float> buffer = renderBuffer(output, unsigned(frames), 7.0f);
        const int written = ticks * PaAudioOutput::PD_BLOCK_FRAMES;
        for (int frame = 0; frame < written; ++frame) {
            const float expected = computed + float(frame + 1);
            QCOMPARE(buffer[size_t(2 * frame)], expected);
            QCOMPARE(buffer[size_t(2 * frame + 1)], expected);
        }
        for (int i = 2 * written; i < 2 * frames; ++i) {
            QCOMPARE(buffer[size_t(i)], 0.0f); // the rest Pd could not fill
        }
        computed += float(written);
    }
}

void TestAudioOutput::silenceWithoutPatchWhileCommandsAreCarriedOut()
{
    PaAudioOutput output;
    OutputGuard guard(output);
    QVERIFY(openThenCloseStream(output));
    mPlayer.unloadPatch();
    QVERIFY(!mPlayer.isPatchOpen());

    QSignalSpy base(&mPlayer, &PdPlayer::baseFrequencyChanged);
    QSignalSpy notes(&mPlayer, &PdPlayer::noteToggled);

    // One buffer, driven here: a full buffer of zeros, the commands done.
    const ArboEvent frequency(ArboEvent::BaseFrequency, 432.0f);
    const ArboNoteEvent note(QStringLiteral("/3"));
    mPlayer.queueEventGui(&frequency);
    mPlayer.queueEventGui(&note);
    QVERIFY(allZero(renderBuffer(output, 256, 0.25f)));
    QCOMPARE(mPlayer.baseFrequency(), 432.0f);
    QCOMPARE(base.count(), 1);
    QCOMPARE(notes.count(), 1);
    QCOMPARE(notes.first().at(1).toBool(), true);
    // Off again, so the note leaves no trace for later tests.
    mPlayer.queueEventGui(&note);
    QVERIFY(allZero(renderBuffer(output, 256, 0.25f)));
    QCOMPARE(notes.count(), 2);

    // On the running stream: the audio thread carries the command out, and
    // what reaches the server is digital silence.
    QVERIFY(output.selectDevice(-1));
    const ArboEvent back(ArboEvent::BaseFrequency, 440.0f);
    mPlayer.queueEventGui(&back);
    QTRY_COMPARE_WITH_TIMEOUT(base.count(), 2, 10000);
    QCOMPARE(base.last().first().toFloat(), 440.0f);
    const QString wav = mJack.workDir() + QStringLiteral("/silence.wav");
    QVERIFY2(mJack.capture(wav, 1.0), qPrintable(mJack.error()));
    QString error;
    const AudioAnalysis::Wav recording = AudioAnalysis::readWav(wav, &error);
    QVERIFY2(recording.isValid(), qPrintable(error));
    QVERIFY(recording.frames() > 44100 / 2);
    QCOMPARE(AudioAnalysis::peak(recording.samples), 0.0);
}

void TestAudioOutput::muteSilencesOutputWhileThePatchRuns()
{
    PaAudioOutput output;
    OutputGuard guard(output);
    QVERIFY(openThenCloseStream(output));
    const QString patch = writePatch(QStringLiteral("counter.pd"), COUNTER_PATCH);
    QVERIFY(mPlayer.loadPatch(QFileInfo(patch)));

    QVERIFY(!output.isMuted());
    const float before = renderBuffer(output, 256).back();
    QVERIFY(before > 0.0f);

    output.mute();
    QVERIFY(output.isMuted());
    QVERIFY(allZero(renderBuffer(output, 256)));
    QVERIFY(allZero(renderBuffer(output, 256)));

    // The patch went on computing while muted: two buffers were not heard.
    output.unmute();
    QVERIFY(!output.isMuted());
    QCOMPARE(renderBuffer(output, 256).back(), before + 3.0f * 256.0f);
}

void TestAudioOutput::callbackFlushesDenormalsToZero()
{
    PaAudioOutput output;
    OutputGuard guard(output);
    QVERIFY(openThenCloseStream(output));
    const QString patch = writePatch(QStringLiteral("denormal.pd"), DENORMAL_PATCH);
    QVERIFY(mPlayer.loadPatch(QFileInfo(patch)));

    // Pd left to itself computes the denormal.
    {
        Denormals::Scope off(false);
        std::vector<float> buffer(2 * 64, 1.0f);
        libpd_process_float(1, nullptr, buffer.data());
        QVERIFY(buffer[0] != 0.0f);
        QCOMPARE(std::fpclassify(buffer[0]), FP_SUBNORMAL);
    }
    // Through the callback, the same patch computes zeros: the callback has
    // switched its thread to flush-to-zero.
    {
        Denormals::Scope restore(false);
        QVERIFY(!Denormals::isFlushingToZero());
        QVERIFY(allZero(renderBuffer(output, 256, 1.0f)));
        QVERIFY(Denormals::isFlushingToZero());
    }
}

void TestAudioOutput::noteIsHeardOnTheJackDevice()
{
    QVERIFY(PatchLoader::installShellPatches());
    PaAudioOutput output;
    OutputGuard guard(output);
    QVERIFY(output.init(256, -1, &mPlayer));
    QVERIFY(output.isStreamRunning());

    const QString sine = TestSupport::binDir() + QStringLiteral("/patches/Sine.pd");
    QVERIFY(PatchLoader::loadVoice(&mPlayer, sine));
    QVERIFY(mPlayer.isPatchOpen());

    // 3/2 above a 440 Hz base: 660 Hz.
    const ArboEvent base(ArboEvent::BaseFrequency, 440.0f);
    const ArboEvent volume(ArboEvent::MasterVolume, 0.8f);
    const ArboNoteEvent fifth(QStringLiteral("/3"));
    QSignalSpy notes(&mPlayer, &PdPlayer::noteToggled);
    mPlayer.queueEventGui(&base);
    mPlayer.queueEventGui(&volume);
    mPlayer.queueEventGui(&fifth);
    QTRY_COMPARE_WITH_TIMEOUT(notes.count(), 1, 10000);
    QTest::qWait(300); // past the attack

    const QString wav = mJack.workDir() + QStringLiteral("/fifth.wav");
    QVERIFY2(mJack.capture(wav, 2.0), qPrintable(mJack.error()));
    QString error;
    const AudioAnalysis::Wav recording = AudioAnalysis::readWav(wav, &error);
    QVERIFY2(recording.isValid(), qPrintable(error));
    QCOMPARE(recording.sampleRate, 44100);
    QCOMPARE(recording.channels, 2);
    for (int channel = 0; channel < 2; ++channel) {
        const QVector<float> samples = recording.channel(channel);
        const double level = AudioAnalysis::rmsDb(samples);
        QVERIFY2(level > -40.0 && AudioAnalysis::peak(samples) <= 1.0,
                 qPrintable(QStringLiteral("channel %1 at %2 dB").arg(channel).arg(level)));
        const double frequency = AudioAnalysis::dominantFrequency(samples, recording.sampleRate);
        QVERIFY2(std::fabs(frequency - 660.0) < 0.5,
                 qPrintable(QStringLiteral("channel %1 at %2 Hz").arg(channel).arg(frequency)));
    }

    // Off again: the release fades out to silence.
    mPlayer.queueEventGui(&fifth);
    QTRY_COMPARE_WITH_TIMEOUT(notes.count(), 2, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(mPlayer.soundingNoteCount(), 0, 15000);
    const QString after = mJack.workDir() + QStringLiteral("/after.wav");
    QVERIFY2(mJack.capture(after, 1.0), qPrintable(mJack.error()));
    const AudioAnalysis::Wav tail = AudioAnalysis::readWav(after, &error);
    QVERIFY2(tail.isValid(), qPrintable(error));
    QVERIFY2(AudioAnalysis::rmsDb(tail.samples) < -80.0,
             qPrintable(QString::number(AudioAnalysis::rmsDb(tail.samples))));

    const CallbackStats::Snapshot stats = output.callbackStats().snapshot();
    QVERIFY(stats.callbacks > 100);
    QCOMPARE(stats.periodNs, std::int64_t(256 * 1e9 / 44100));
    qInfo("Callbacks: %llu, median %.1f us, p99 %.1f us, worst %.1f us, overruns %llu "
          "(period %.1f us); output latency %.2f ms",
          static_cast<unsigned long long>(stats.callbacks), stats.percentileNs(0.5) / 1e3,
          stats.percentileNs(0.99) / 1e3, stats.maxNs / 1e3,
          static_cast<unsigned long long>(stats.overruns), stats.periodNs / 1e3,
          output.streamOutputLatency() * 1e3);
}

void TestAudioOutput::deviceRefusing44100IsOpenedAtItsOwnRate()
{
    JackFixture jack48;
    QVERIFY2(jack48.start(48000, 256), qPrintable(jack48.error()));
    jack48.applyToThisProcess();
    QVERIFY(PatchLoader::installShellPatches());

    PaAudioOutput output;
    OutputGuard guard(output);
    LogCapture log;
    QVERIFY(output.init(256, -1, &mPlayer));
    QVERIFY(log.contains(QStringLiteral("Got invalid sample rate for 44100")));
    QVERIFY(log.contains(QStringLiteral("Initialising libpd with sampleRate 48000")));
    QCOMPARE(output.streamSampleRate(), 48000.0);

    // Pd computes at the device's rate: the pitch is right at 48 kHz too.
    const QString sine = TestSupport::binDir() + QStringLiteral("/patches/Sine.pd");
    QVERIFY(PatchLoader::loadVoice(&mPlayer, sine));
    const ArboNoteEvent root;
    QSignalSpy notes(&mPlayer, &PdPlayer::noteToggled);
    mPlayer.queueEventGui(&root);
    QTRY_COMPARE_WITH_TIMEOUT(notes.count(), 1, 10000);
    QTest::qWait(300);
    const QString wav = jack48.workDir() + QStringLiteral("/root48.wav");
    QVERIFY2(jack48.capture(wav, 1.5), qPrintable(jack48.error()));
    const AudioAnalysis::Wav recording = AudioAnalysis::readWav(wav);
    QCOMPARE(recording.sampleRate, 48000);
    const double frequency =
        AudioAnalysis::dominantFrequency(recording.channel(0), recording.sampleRate);
    QVERIFY2(std::fabs(frequency - mPlayer.baseFrequency()) < 0.5,
             qPrintable(QString::number(frequency)));

    mPlayer.queueEventGui(&root);
    QTRY_COMPARE_WITH_TIMEOUT(notes.count(), 2, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(mPlayer.soundingNoteCount(), 0, 15000);
    mPlayer.unloadPatch();
    output.term();
    // The other server must not be stopped under a running PortAudio client.
    jack48.stop();
}

void TestAudioOutput::realBinaryOpensTheDeviceAndStoresIt()
{
    QTemporaryDir home;
    const QString config = home.path() + QStringLiteral("/Merrow Tuning Arbo");
    // A device index from another machine: the default device is opened
    // instead, and that is what the options keep.
    QVERIFY(TestSupport::writeFile(config + QStringLiteral("/options.json"),
                                   "{ \"audioDevice\": 5, \"framesPerBuffer\": 128 }"));

    QProcess process;
    QProcessEnvironment env = mJack.environment();
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.path());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(TestSupport::mainBinary(), QStringList());
    QVERIFY(process.waitForStarted());

    const QString logPath = config + QStringLiteral("/log.txt");
    QTRY_VERIFY_WITH_TIMEOUT(TestSupport::readFile(logPath).contains("PaStream started"), 30000);
    const QString log = QString::fromUtf8(TestSupport::readFile(logPath));
    QVERIFY2(log.contains(QStringLiteral("Selecting device 0 with latency:")), qPrintable(log));
    QVERIFY(log.contains(QStringLiteral("frames per buffer: 128")));
    QVERIFY(mJack.waitForPort(JackFixture::PORTAUDIO_CLIENT + QStringLiteral(":out_0")));

    // Its output reaches the server: a valid recording of the stream.
    const QString wav = mJack.workDir() + QStringLiteral("/binary.wav");
    QVERIFY2(mJack.capture(wav, 1.0), qPrintable(mJack.error()));
    QVERIFY(AudioAnalysis::readWav(wav).frames() > 44100 / 2);

    process.terminate(); // SIGTERM: a clean shutdown
    QVERIFY(process.waitForFinished(30000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);

    const QString finalLog = QString::fromUtf8(TestSupport::readFile(logPath));
    QVERIFY(finalLog.contains(QStringLiteral("PaAudioOutput::term...")));
    QVERIFY(finalLog.contains(QStringLiteral("Calling Pa_Terminate...")));
    QVERIFY(!finalLog.contains(QStringLiteral("CRITICAL")));
    const QJsonObject options =
        QJsonDocument::fromJson(TestSupport::readFile(config + QStringLiteral("/options.json")))
            .object();
    QCOMPARE(options.value(QStringLiteral("audioDevice")).toInt(-2), 0);
    QCOMPARE(options.value(QStringLiteral("framesPerBuffer")).toInt(), 128);
}

// Patch changes while the stream runs and notes sound: the GUI thread waits
// for the real audio thread to close and open, again and again, including a
// patch that fails to load, and the engine keeps going.
void TestAudioOutput::patchesChangeUnderSoundingNotes()
{
    QVERIFY(PatchLoader::installShellPatches());
    PaAudioOutput output;
    OutputGuard guard(output);
    QVERIFY(output.init(256, -1, &mPlayer));
    QVERIFY(output.isStreamRunning());

    const QString patches = TestSupport::binDir() + QStringLiteral("/patches/");
    QVERIFY(PatchLoader::loadVoice(&mPlayer, patches + QStringLiteral("Sine.pd")));

    QSignalSpy loaded(&mPlayer, &PdPlayer::patchLoaded);
    QSignalSpy notes(&mPlayer, &PdPlayer::noteToggled);
    const QStringList voices = {"Organ.pd", "Pluck.pd", "Vocal.pd", "missing.pd", "Sine.pd"};
    int expectedLoads = 0;
    bool patchOpen = true;
    for (const QString& voice : voices) {
        // Notes sound while the patch changes under them. (Without a patch,
        // after the failed load, notes would be taken but never heard or
        // reported stopped; none are struck then.)
        if (patchOpen) {
            for (const char* path : {"/3", "/5", "/-3/7"}) {
                const ArboNoteEvent note{QString::fromLatin1(path)};
                mPlayer.queueEventGui(&note);
            }
        }
        const QString file = patches + voice;
        patchOpen = QFile::exists(file);
        QCOMPARE(PatchLoader::loadVoice(&mPlayer, file), patchOpen);
        expectedLoads += patchOpen ? 1 : 0;
        QCOMPARE(loaded.count(), expectedLoads);
        // The notes of the old patch went with it.
        QTRY_COMPARE_WITH_TIMEOUT(mPlayer.soundingNoteCount(), 0, 10000);
    }

    // After all that, a note is heard at its pitch.
    notes.clear();
    const ArboNoteEvent fifth(QStringLiteral("/3"));
    mPlayer.queueEventGui(&fifth);
    QTRY_COMPARE_WITH_TIMEOUT(notes.count(), 1, 10000);
    QTest::qWait(300);
    const QString wav = mJack.workDir() + QStringLiteral("/after-changes.wav");
    QVERIFY2(mJack.capture(wav, 1.0), qPrintable(mJack.error()));
    const AudioAnalysis::Wav recording = AudioAnalysis::readWav(wav);
    QVERIFY(recording.isValid());
    const double frequency = AudioAnalysis::dominantFrequency(recording.channel(0), 44100);
    QVERIFY2(std::fabs(frequency - 660.0) < 0.5, qPrintable(QString::number(frequency)));
    mPlayer.queueEventGui(&fifth);
    QTRY_COMPARE_WITH_TIMEOUT(mPlayer.soundingNoteCount(), 0, 15000);
}

ARBO_TEST_MAIN(TestAudioOutput)

#include "tst_audiooutput.moc"
