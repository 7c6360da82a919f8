// The Pd player through the real libpd and the real patches. The test thread
// plays the audio thread: it drains the command buffers and runs libpd in
// 256-frame buffers, as the audio callback does, and listens to the result.

#include "audioanalysis.h"
#include "input/arboevent.h"
#include "input/arbonoteevent.h"
#include "model/arbo.h"
#include "settings/appcontext.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QProcess>
#include <QSet>
#include <QSignalSpy>

#include <z_libpd.h>

#include <clocale>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

constexpr int SAMPLE_RATE = 44100;
constexpr int BUFFER_FRAMES = 256;

using NoteSignal = QPair<QString, bool>;

QString voicePatch(const QString& name)
{
    return TestSupport::binDir() + "/patches/" + name;
}

// Distinct playable ratios: single steps, then pairs of steps.
QList<ArboPath> distinctPaths(int count)
{
    const int primes[] = {2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31};
    QList<ArboPath> paths;
    QSet<QString> ratios;
    auto add = [&](const ArboPath& path) {
        const QString ratio = ArboRatio::pathRatio(path).toString();
        if (!ratios.contains(ratio) && paths.size() < count) {
            ratios.insert(ratio);
            paths.append(path);
        }
    };
    for (int p : primes) {
        for (int sign : {1, -1}) {
            for (int q : primes) {
                for (int sign2 : {1, -1}) {
                    ArboPath path(static_cast<signed char>(sign * p));
                    path.addLeaf(static_cast<signed char>(sign2 * q));
                    add(path);
                }
            }
        }
    }
    return paths;
}

} // namespace

class TestPdPlayer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void fifthSoundsExactlyAndVoiceStopFreesTheVoice();
    void the129thNoteStealsTheOldestVoice();
    void disabledPrimesBlockTheirNotes();
    void transpositionMovesTheNextNote();
    void volumesAndMacrosReachThePatch();
    void badPatchLeavesNothingOpen();
    void numbersParseUnderADecimalCommaLocale();

private:
    void queue(const ArboEvent& event) { mPlayer.queueEventGui(&event); }
    void toggle(const QString& path) { queue(ArboNoteEvent(path)); }
    // Runs the "audio thread" for `seconds`; returns the left channel.
    std::vector<float> render(double seconds);
    // Renders until every voice is free (or `seconds` pass); returns the time.
    double renderUntilAllFree(double seconds);
    int voiceOf(const QString& ratio) const;
    void stopAll();

    PdPlayer mPlayer;
};

std::vector<float> TestPdPlayer::render(double seconds)
{
    const int buffers = int(std::ceil(seconds * SAMPLE_RATE / BUFFER_FRAMES));
    std::vector<float> left;
    left.reserve(size_t(buffers) * BUFFER_FRAMES);
    std::vector<float> stereo(BUFFER_FRAMES * 2);
    for (int b = 0; b < buffers; ++b) {
        mPlayer.processEvents();
        if (mPlayer.isPatchOpen()) {
            libpd_process_float(BUFFER_FRAMES / 64, nullptr, stereo.data());
        } else {
            std::fill(stereo.begin(), stereo.end(), 0.0f);
        }
        for (int i = 0; i < BUFFER_FRAMES; ++i) {
            left.push_back(stereo[size_t(2 * i)]);
        }
    }
    return left;
}

double TestPdPlayer::renderUntilAllFree(double seconds)
{
    double elapsed = 0.0;
    const double step = double(BUFFER_FRAMES) / SAMPLE_RATE;
    while (elapsed < seconds) {
        render(step);
        elapsed += step;
        bool busy = false;
        for (const PdPlayer::NoteOn& voice : mPlayer.voices()) {
            busy = busy || voice.seqId != 0;
        }
        if (!busy) {
            break;
        }
    }
    return elapsed;
}

int TestPdPlayer::voiceOf(const QString& ratio) const
{
    for (const PdPlayer::NoteOn& voice : mPlayer.voices()) {
        if (voice.seqId != 0 && !voice.released && voice.ratio.toString() == ratio) {
            return voice.voice;
        }
    }
    return -1;
}

void TestPdPlayer::stopAll()
{
    queue(ArboEvent(ArboEvent::AllNotesOff, 1.0f));
    renderUntilAllFree(6.0);
}

void TestPdPlayer::initTestCase()
{
    QVERIFY(mPlayer.init());
    QCOMPARE(mPlayer.initAudio(2, SAMPLE_RATE), 0);
    QVERIFY(PatchLoader::installShellPatches());

    QSignalSpy names(&mPlayer, &PdPlayer::macroNamesReceived);
    QSignalSpy defaults(&mPlayer, &PdPlayer::macroDefaultsReceived);
    QSignalSpy loaded(&mPlayer, &PdPlayer::patchLoaded);
    QVERIFY(PatchLoader::loadVoice(&mPlayer, voicePatch("Sine.pd")));
    QVERIFY(mPlayer.isPatchOpen());
    QCOMPARE(loaded.size(), 1);
    QCOMPARE(loaded.at(0).at(0).toString(), PatchLoader::mainPatchFile());
    // The voice answers the query with its macros and their defaults.
    QCOMPARE(names.size(), 1);
    const QStringList macroNames = names.at(0).at(0).toStringList();
    const QList<float> macroDefaults = defaults.at(0).at(0).value<QList<float>>();
    QCOMPARE(macroNames.size(), macroDefaults.size());
    QVERIFY(!macroNames.isEmpty());
    for (const QString& name : macroNames) {
        QVERIFY2(!name.contains('(') && !name.isEmpty(), qPrintable(name));
    }
    QVERIFY(macroDefaults.at(0) >= 0.0f);
}

void TestPdPlayer::init()
{
    if (!mPlayer.isPatchOpen()) {
        QVERIFY(PatchLoader::loadVoice(&mPlayer, voicePatch("Sine.pd")));
    }
    queue(ArboEvent(ArboEvent::BaseFrequency, 440.0f));
    queue(ArboEvent(ArboEvent::Transpose, 0.0f));
    queue(ArboEvent(ArboEvent::MasterVolume, 0.8f));
    queue(ArboEvent(ArboEvent::VoiceVolume, 1.0f));
    queue(ArboEvent(ArboEvent::Macro1, 0.1f));
    queue(ArboEvent(ArboEvent::Macro2, 0.3f));
    stopAll();
    QCOMPARE(mPlayer.soundingNoteCount(), 0);
}

void TestPdPlayer::fifthSoundsExactlyAndVoiceStopFreesTheVoice()
{
    QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);
    toggle("/3");
    const std::vector<float> out = render(3.0);
    QCOMPARE(toggled.size(), 1);
    QCOMPARE(toggled.at(0).at(0).value<ArboRatio>(), ArboRatio(3, 2));
    QCOMPARE(toggled.at(0).at(1).toBool(), true);

    // 660 Hz to within a tenth of a cent, measured over 2.5 s of sound.
    const AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
        out.data(), SAMPLE_RATE / 2, long(out.size()), 660.0, SAMPLE_RATE);
    QVERIFY2(tone.minAmplitude > 0.01, qPrintable(QString::number(tone.minAmplitude)));
    QVERIFY2(std::abs(AudioAnalysis::cents(tone.frequency, 660.0)) < 0.1,
             qPrintable(QString::number(tone.frequency, 'f', 6)));

    // Off, and struck again before the release is over: the releasing voice
    // stays taken and the note sounds again on a new voice.
    toggle("/3");
    toggle("/3");
    render(0.01);
    QCOMPARE(toggled.size(), 3);
    QCOMPARE(toggled.at(1).at(1).toBool(), false);
    QVERIFY(mPlayer.voices()[0].released);
    QCOMPARE(voiceOf("3/2"), 1);

    // The old voice's "voice-stop" frees it and leaves the note on voice 1.
    render(1.0);
    QCOMPARE(mPlayer.voices()[0].seqId, 0);
    QCOMPARE(mPlayer.soundingNoteCount(), 1);
    QCOMPARE(voiceOf("3/2"), 1);

    // Off for good: freed after its 370 ms release, then silence.
    toggle("/3");
    const double freed = renderUntilAllFree(3.0);
    QVERIFY2(freed < 1.0, qPrintable(QString::number(freed)));
    QCOMPARE(mPlayer.soundingNoteCount(), 0);
    const std::vector<float> after = render(0.2);
    QCOMPARE(*std::max_element(after.begin(), after.end()), 0.0f);
}

void TestPdPlayer::the129thNoteStealsTheOldestVoice()
{
    const QList<ArboPath> paths = distinctPaths(130);
    QCOMPARE(paths.size(), 130);
    for (int i = 0; i < PdPlayer::VOICE_COUNT; ++i) {
        queue(ArboNoteEvent(paths.at(i)));
    }
    render(0.05);
    QCOMPARE(mPlayer.soundingNoteCount(), PdPlayer::VOICE_COUNT);

    // All voices held: the first note struck is turned off, then replaced.
    QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);
    queue(ArboNoteEvent(paths.at(128)));
    render(0.05);
    const ArboRatio first = ArboRatio::pathRatio(paths.at(0));
    const ArboRatio newest = ArboRatio::pathRatio(paths.at(128));
    QCOMPARE(toggled.size(), 2);
    QCOMPARE(toggled.at(0).at(0).value<ArboRatio>(), first);
    QCOMPARE(toggled.at(0).at(1).toBool(), false);
    QCOMPARE(toggled.at(1).at(0).value<ArboRatio>(), newest);
    QCOMPARE(toggled.at(1).at(1).toBool(), true);
    QCOMPARE(voiceOf(newest.toString()), 0);

    // A released voice is stolen as it is, without a second note-off.
    queue(ArboNoteEvent(paths.at(1))); // off: voice 1 releases (long release)
    queue(ArboEvent(ArboEvent::Macro2, 1.0f));
    toggled.clear();
    queue(ArboNoteEvent(paths.at(129)));
    render(0.01);
    QCOMPARE(toggled.size(), 2);
    QCOMPARE(toggled.at(0).at(1).toBool(), false); // paths[1] off, as asked
    QCOMPARE(toggled.at(1).at(0).value<ArboRatio>(), ArboRatio::pathRatio(paths.at(129)));
    QCOMPARE(voiceOf(ArboRatio::pathRatio(paths.at(129)).toString()), 1);
    QCOMPARE(mPlayer.soundingNoteCount(), PdPlayer::VOICE_COUNT);
}

void TestPdPlayer::disabledPrimesBlockTheirNotes()
{
    QSignalSpy prime(&mPlayer, &PdPlayer::primeEnabledToggled);
    QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);
    queue(ArboEvent(ArboEvent::PrimeToggle, 5.7f));  // truncated to 5
    toggle("/3/5");                                  // last step 5: blocked
    toggle("/5/3");                                  // last step 3: plays
    toggle("/");                                     // the root consults flag 0
    queue(ArboEvent(ArboEvent::PrimeToggle, 40.0f)); // no such flag: ignored
    render(0.02);
    QCOMPARE(prime.size(), 1);
    QCOMPARE(prime.at(0).at(0).toInt(), 5);
    QCOMPARE(prime.at(0).at(1).toBool(), false);
    QCOMPARE(toggled.size(), 2);

    queue(ArboEvent(ArboEvent::PrimeToggle, 5.0f));
    toggle("/3/5");
    render(0.02);
    QCOMPARE(prime.size(), 2);
    QCOMPARE(prime.at(1).at(1).toBool(), true);
    QCOMPARE(toggled.size(), 3);
    QCOMPARE(toggled.at(2).at(0).value<ArboRatio>(), ArboRatio(15, 8));
}

void TestPdPlayer::transpositionMovesTheNextNote()
{
    QSignalSpy transposed(&mPlayer, &PdPlayer::transposed);
    queue(ArboEvent(ArboEvent::Transpose, 2.5f)); // rounds up to 3
    toggle("/");
    std::vector<float> out = render(2.5);
    QCOMPARE(transposed.size(), 1);
    QCOMPARE(transposed.at(0).at(0).value<ArboRatio>(), ArboRatio(3, 2));
    QCOMPARE(transposed.at(0).at(1).toInt(), 3);
    AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
        out.data(), SAMPLE_RATE / 2, long(out.size()), 660.0, SAMPLE_RATE);
    QVERIFY(std::abs(AudioAnalysis::cents(tone.frequency, 660.0)) < 0.1);

    // The sounding note keeps its pitch; the next one moves.
    queue(ArboEvent(ArboEvent::Transpose, -2.5f));         // rounds up to -2
    queue(ArboEvent(ArboEvent::Transpose, 4.0f));          // no prime: refused
    queue(ArboEvent(ArboEvent::Transpose, 1e9f));          // far outside: refused
    queue(ArboEvent(ArboEvent::Transpose, std::nanf(""))); // refused
    render(0.01);
    QCOMPARE(transposed.size(), 2);
    QCOMPARE(transposed.at(1).at(0).value<ArboRatio>(), ArboRatio(3, 4));
    QCOMPARE(transposed.at(1).at(1).toInt(), -2);
    stopAll();
    toggle("/3"); // 3/4 × 3/2 of 440 Hz
    out = render(2.5);
    tone = AudioAnalysis::measureTone(out.data(), SAMPLE_RATE / 2, long(out.size()), 495.0,
                                      SAMPLE_RATE);
    QVERIFY(std::abs(AudioAnalysis::cents(tone.frequency, 495.0)) < 0.1);

    // Steps that no longer fit 64 bits are refused: the transposition stays
    // exactly the product of the steps that were reported.
    for (int i = 0; i < 40; ++i) {
        queue(ArboEvent(ArboEvent::Transpose, 31.0f));
    }
    render(0.01);
    const qsizetype accepted = transposed.size() - 2;
    QVERIFY(accepted > 5 && accepted < 40);
    QCOMPARE(mPlayer.transposition().toDouble(), 0.75 * std::pow(31.0 / 16.0, double(accepted)));
    // Values below a half reset.
    queue(ArboEvent(ArboEvent::Transpose, 0.4f));
    render(0.01);
    QCOMPARE(mPlayer.transposition(), ArboRatio(1, 1));
}

void TestPdPlayer::volumesAndMacrosReachThePatch()
{
    // The master volume glides; a steady tone is measured once it has settled.
    auto levelOfFifth = [&] {
        const std::vector<float> out = render(0.5);
        return AudioAnalysis::rms(QVector<float>(out.begin() + SAMPLE_RATE / 4, out.end()));
    };
    QSignalSpy volume(&mPlayer, &PdPlayer::volumeChanged);
    toggle("/3");
    queue(ArboEvent(ArboEvent::MasterVolume, 0.8f));
    const double loud = levelOfFifth();
    queue(ArboEvent(ArboEvent::MasterVolumeStep, -0.4f));
    const double soft = levelOfFifth();
    QCOMPARE(volume.size(), 2);
    QCOMPARE(volume.at(1).at(0).toFloat(), 0.4f);
    QVERIFY2(std::abs(soft / loud - 0.5) < 0.02, qPrintable(QString::number(soft / loud)));

    // The voice volume applies from the next note on.
    QSignalSpy voiceVolume(&mPlayer, &PdPlayer::voiceVolumeChanged);
    queue(ArboEvent(ArboEvent::VoiceVolume, 0.5f));
    queue(ArboEvent(ArboEvent::VoiceVolumeStep, -0.25f));
    const double unchanged = levelOfFifth();
    QCOMPARE(voiceVolume.size(), 2);
    QCOMPARE(voiceVolume.at(1).at(0).toFloat(), 0.25f);
    QVERIFY(std::abs(unchanged / soft - 1.0) < 0.02);
    stopAll();
    toggle("/3");
    const double quieter = levelOfFifth();
    QVERIFY2(std::abs(quieter / soft - 0.25) < 0.02, qPrintable(QString::number(quieter / soft)));

    // Macro 2 of the sine is its release time: short or long, the voice
    // reports silence after it and no sooner.
    QSignalSpy macro(&mPlayer, &PdPlayer::macroValueChanged);
    queue(ArboEvent(ArboEvent::Macro2, 0.0f));
    render(0.05);
    QCOMPARE(macro.size(), 1);
    QCOMPARE(macro.at(0).at(0).toInt(), 2);
    toggle("/3");
    const double shortRelease = renderUntilAllFree(6.0);
    queue(ArboEvent(ArboEvent::Macro2, 1.0f));
    toggle("/3");
    render(0.1);
    toggle("/3");
    const double longRelease = renderUntilAllFree(6.0);
    QVERIFY2(shortRelease < 0.1, qPrintable(QString::number(shortRelease)));
    QVERIFY2(longRelease > 3.9 && longRelease < 4.5, qPrintable(QString::number(longRelease)));
}

void TestPdPlayer::badPatchLeavesNothingOpen()
{
    QSignalSpy loaded(&mPlayer, &PdPlayer::patchLoaded);
    QSignalSpy names(&mPlayer, &PdPlayer::macroNamesReceived);
    toggle("/3");
    render(0.1);
    QVERIFY(!mPlayer.loadPatch(QFileInfo(TestSupport::home() + "/no/such/arbo_main.pd")));
    QVERIFY(!mPlayer.isPatchOpen());
    QCOMPARE(loaded.size(), 0);
    // Closing reported the old macros gone and turned every note off; with
    // no patch left to report them stopped, every voice is free again.
    QCOMPARE(names.size(), 1);
    QVERIFY(names.at(0).at(0).toStringList().isEmpty());
    QCOMPARE(mPlayer.soundingNoteCount(), 0);
    for (const PdPlayer::NoteOn& voice : mPlayer.voices()) {
        QCOMPARE(voice.seqId, 0);
    }

    // Commands are still carried out without a patch; notes wait for none.
    QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);
    toggle("/3");
    queue(ArboEvent(ArboEvent::BaseFrequency, 432.0f));
    render(0.01);
    QCOMPARE(toggled.size(), 1);
    QCOMPARE(mPlayer.baseFrequency(), 432.0f);
    toggle("/3");
    render(0.01);
    QCOMPARE(toggled.size(), 2);
}

void TestPdPlayer::numbersParseUnderADecimalCommaLocale()
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("LC_ALL", "de_DE.UTF-8");
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), {"--comma-locale-child"});
    QVERIFY(child.waitForFinished(120000));
    const QString output = QString::fromUtf8(child.readAllStandardOutput()).trimmed();
    if (child.exitCode() == 77) {
        QSKIP(qPrintable("de_DE.UTF-8 is not available: " + output));
    }
    QVERIFY2(child.exitCode() == 0, qPrintable(output + child.readAllStandardError()));
}

// The player under a German locale: the program's own start-up order, the
// patch's macro defaults and the pitch must come out as under "C".
int commaLocaleChild(int argc, char** argv)
{
    TestSupport::isolateHome();
    QApplication app(argc, argv); // takes the locale from the environment
    app.setApplicationName(QStringLiteral("Merrow Tuning Arbo"));
    if (std::strcmp(std::localeconv()->decimal_point, ",") != 0) {
        std::printf("the environment's locale has no decimal comma here\n");
        return 77;
    }
    PdPlayer player;
    QList<float> defaults;
    QObject::connect(&player, &PdPlayer::macroDefaultsReceived,
                     [&](const QList<float>& d) { defaults = d; });
    if (!player.init() || player.initAudio(2, SAMPLE_RATE) != 0 ||
        !PatchLoader::installShellPatches() ||
        !PatchLoader::loadVoice(&player, voicePatch("Sine.pd"))) {
        std::printf("the patch did not load\n");
        return 1;
    }
    // Sine's defaults are 0.1 and 0.3: read as 0 under a comma they would vanish.
    if (defaults.size() < 2 || std::abs(defaults.at(1) - 0.3f) > 1e-6f) {
        std::printf("macro defaults misread\n");
        return 1;
    }
    const ArboNoteEvent fifth(QStringLiteral("/3"));
    player.queueEventGui(&fifth);
    std::vector<float> left;
    std::vector<float> stereo(BUFFER_FRAMES * 2);
    for (int b = 0; b < 3 * SAMPLE_RATE / BUFFER_FRAMES; ++b) {
        player.processEvents();
        libpd_process_float(BUFFER_FRAMES / 64, nullptr, stereo.data());
        for (int i = 0; i < BUFFER_FRAMES; ++i) {
            left.push_back(stereo[size_t(2 * i)]);
        }
    }
    const AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
        left.data(), SAMPLE_RATE / 2, long(left.size()), 660.0, SAMPLE_RATE);
    const double error = AudioAnalysis::cents(tone.frequency, 660.0);
    if (tone.minAmplitude < 0.01 || std::abs(error) >= 0.1) {
        std::printf("fifth at %.6f Hz, amplitude %.4f\n", tone.frequency, tone.minAmplitude);
        return 1;
    }
    return 0;
}

int main(int argc, char** argv)
{
    if (argc >= 2 && std::strcmp(argv[1], "--comma-locale-child") == 0) {
        return commaLocaleChild(argc, argv);
    }
    TestSupport::isolateHome();
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Merrow Tuning Arbo"));
    TestPdPlayer test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_pdplayer.moc"
