// The instrument's Pd patches, run by the real libpd the way the program runs
// them: every voice's tuning, envelopes, voice bookkeeping and macros, and the
// shell's loudness compensation, master volume and bus limiter.

#include "audioanalysis.h"
#include "pdpatchrig.h"
#include "testsupport.h"

#include <QFileInfo>

#include <algorithm>
#include <cmath>

namespace Rig = PdPatchRig;
using AudioAnalysis::peak;
using AudioAnalysis::rms;
using Signal = QVector<float>;

namespace {

constexpr int SR = 44100;
constexpr int MS = SR / 1000;
// The bus limiter's ceiling, -0.3 dBFS, with room for float rounding: the
// output stays below it, so the hard clip~ behind the limiter never acts.
constexpr double CEILING = 0.9661;

struct Macro
{
    QString name;
    float value; // the default
};

long framesFor(double seconds, int sampleRate = SR)
{
    return (std::lround(seconds * sampleRate) + 63) / 64 * 64; // whole Pd ticks
}

Signal render(double seconds, Signal* appendTo = nullptr)
{
    Signal out;
    Rig::render(framesFor(seconds), &out);
    return appendTo ? (*appendTo += out) : out;
}

// The largest second difference in [from, to). A click, a jump or a kink, is
// of the order of the signal's amplitude, far above what a smooth waveform
// bends in one sample.
double kink(const Signal& x, int from, int to)
{
    double k = 0.0;
    for (int i = std::max(2, from); i < to; ++i) {
        k = std::max(k, double(std::abs(x[i] - 2 * x[i - 1] + x[i - 2])));
    }
    return k;
}

// Renders until `voice` reports "voice-stop" or 6 s pass, then `tailSeconds`
// more. Returns the frame of the report, -1 if none came.
long renderUntilStopped(int voice, Signal* out = nullptr, double tailSeconds = 0.05)
{
    const long limit = Rig::captured().frames + framesFor(6.0);
    long stop = -1;
    while (stop < 0 && Rig::captured().frames < limit) {
        Rig::render(64 * 16, out);
        for (const Rig::VoiceStop& report : Rig::captured().stops) {
            stop = (stop < 0 && report.voice == voice) ? report.frame : stop;
        }
    }
    Rig::render(framesFor(tailSeconds), out);
    return stop;
}

// Strikes voices `first` to `last` together at `frequency(voice)`, holds
// them for 0.5 s, releases them and renders until the last has stopped.
// Returns the left channel; `right` gets the right one while they are held.
template <typename F> Signal strike(int first, int last, F frequency, Signal* right = nullptr)
{
    for (int v = first; v <= last; ++v) {
        Rig::noteOn(v, frequency(v));
    }
    Signal left;
    Rig::render(framesFor(0.5), &left, right);
    for (int v = first; v <= last; ++v) {
        Rig::gate(v, false);
    }
    renderUntilStopped(last, &left, 0.1);
    return left;
}

// The level a struck note has settled to: the peak of its last 0.1 s held.
double held(const Signal& x)
{
    return peak(x.mid(int(framesFor(0.4)), int(framesFor(0.1))));
}

} // namespace

class TestPatches : public QObject
{
    Q_OBJECT

    // Opens the engine with `voicePath` as the voice, like the program, asks
    // for the macros and sets each to its default. Returns the macros; none
    // on failure or unless exactly one answer came (voice 1 alone answers,
    // at once, although there are 128 voices).
    static QVector<Macro> openVoice(const QString& voicePath, int sampleRate = SR)
    {
        // The program's runtime patch folder lives in the configuration folder.
        const QString runtime = TestSupport::configDir() + QStringLiteral("/patch");
        QVector<Macro> macros;
        if (!Rig::setSampleRate(sampleRate) || !Rig::prepareRuntimeFolder(runtime, voicePath) ||
            !Rig::open(runtime)) {
            return macros;
        }
        Rig::queryMacros();
        const Rig::Captured& said = Rig::captured(); // and nothing printed, no failed object
        const bool ok = said.macroTexts.size() == 1 && said.printed.empty();
        const QString text = ok ? QString::fromStdString(said.macroTexts[0]) : QString();
        for (const QString& item : text.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
            // "name(default)"; a missing default reads as 0
            macros.append({item.section('(', 0, 0), item.section('(', 1).remove(')').toFloat()});
            Rig::sendMacro(macros.size(), macros.back().value);
        }
        return macros;
    }

    static void addVoiceRows()
    {
        QTest::addColumn<QString>("patch");
        for (const QString& path : Rig::voicePatches()) {
            QTest::newRow(qPrintable(QFileInfo(path).completeBaseName())) << path;
        }
    }

private slots:
    void initTestCase()
    {
        Rig::setDenormalsOff();
        QVERIFY(Rig::init());
        QVERIFY(Rig::voicePatches().size() >= 4);
    }

    // Exact tuning is the point of the instrument: every voice sounds its
    // frequency to within 0.1 cent, low, middle and high, at the usual and at
    // another sample rate.
    void pitchIsExact_data() { addVoiceRows(); }
    void pitchIsExact()
    {
        QFETCH(QString, patch);
        for (int sampleRate : {SR, 48000}) {
            for (double frequency : {55.0, 660.0, 4186.009}) {
                QVERIFY(!openVoice(patch, sampleRate).isEmpty());
                Rig::noteOn(42, float(frequency));
                Signal out;
                Rig::render(framesFor(1.2, sampleRate), &out);
                const AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
                    out.constData(), framesFor(0.2, sampleRate), out.size(), frequency, sampleRate);
                const double error = AudioAnalysis::cents(tone.frequency, frequency);
                QVERIFY2(std::abs(error) < 0.1,
                         qPrintable(QString::asprintf("%g Hz at %d Hz: %+.6f cents", frequency,
                                                      sampleRate, error)));
                // It really is the sounding component, not leakage of something
                // else (compared with the end, as a plucked string dies away).
                QVERIFY(tone.minAmplitude > 0.1 * peak(out.mid(out.size() - 50 * MS)));
            }
        }
    }

    // No click when a note starts, is stolen (gate off and a new note in the
    // same tick), changes master volume or ends: nothing bends more sharply
    // than the sounding waveforms themselves. Once the release has died
    // away, and not before, the voice reports "voice-stop", once (the stolen
    // note reports nothing).
    void envelopesAreClickFreeAndReported_data() { addVoiceRows(); }
    void envelopesAreClickFreeAndReported()
    {
        QFETCH(QString, patch);
        QVERIFY(!openVoice(patch).isEmpty());
        Rig::noteOn(5, 660.0f);
        Signal out = render(0.4);
        const double attack = kink(out, 0, 10 * MS), afterAttack = kink(out, 10 * MS, 40 * MS);
        const double sustain = kink(out, out.size() - 30 * MS, out.size());
        int at = out.size();
        Rig::gate(5, false);
        Rig::noteOn(5, 440.0f);
        render(0.4, &out);
        // The old note fades out and the new one starts within ~15 ms; the
        // new note's own first moments are the yardstick for the start.
        const double stealing = kink(out, at, at + 15 * MS);
        const double stolen = std::max(sustain, kink(out, at + 20 * MS, at + 50 * MS));
        const double loud = kink(out, out.size() - 30 * MS, out.size());
        at = out.size();
        Rig::sendMasterVolume(0.2f); // from 0.8
        render(0.2, &out);
        const double gliding = kink(out, at, out.size());
        const double quiet = kink(out, out.size() - 30 * MS, out.size());
        at = out.size();
        Rig::gate(5, false);
        const long stop = renderUntilStopped(5, &out, 0.2);
        QCOMPARE(int(Rig::captured().stops.size()), 1);
        QVERIFY(stop - SR / 20 > at && peak(out.mid(int(stop) - SR / 20, SR / 20)) > 0.0);
        QCOMPARE(peak(out.mid(int(stop))), 0.0);
        const double releasing = kink(out, at, out.size());
        const double worst =
            std::max({attack / afterAttack, stealing / stolen, gliding / loud, releasing / quiet});
        QVERIFY2(worst < 1.5, qPrintable(QString::asprintf(
                                  "attack %g/%g, steal %g/%g, volume %g/%g, release %g/%g", attack,
                                  afterAttack, stealing, stolen, gliding, loud, releasing, quiet)));
    }

    // A gate off for a voice that is not sounding (the program turns off
    // notes that never reached the patch) is answered too, or the voice would
    // stay taken for ever; a second gate off while releasing (all notes off)
    // gives no second report; a voice stolen while releasing reports nothing
    // until its new note is released.
    void voiceStopKeepsTheBooks_data() { addVoiceRows(); }
    void voiceStopKeepsTheBooks()
    {
        QFETCH(QString, patch);
        QVERIFY(!openVoice(patch).isEmpty());
        Rig::gate(100, false);
        Rig::noteOn(3, 330.0f);
        Rig::noteOn(11, 440.0f);
        render(0.1);
        Rig::gate(3, false);
        Rig::gate(11, false);
        render(0.02);
        Rig::gate(3, false);
        Rig::noteOn(11, 550.0f);
        QVERIFY(renderUntilStopped(3, nullptr, 3.0) >= 0);
        QCOMPARE(int(Rig::captured().stops.size()), 2);
        QCOMPARE(Rig::captured().stops[0].voice, 100);
        Rig::gate(11, false);
        QVERIFY(renderUntilStopped(11) >= 0);
        QCOMPARE(int(Rig::captured().stops.size()), 3);

        // Struck and released at once (a fast wand), and released while its
        // steal fade runs: each still reports, once.
        Rig::noteOn(20, 440.0f);
        Rig::gate(20, false);
        QVERIFY(renderUntilStopped(20) >= 0);
        Rig::noteOn(21, 440.0f);
        render(0.1);
        Rig::noteOn(21, 550.0f);
        Rig::render(64, nullptr);
        Rig::gate(21, false);
        QVERIFY(renderUntilStopped(21) >= 0);
        QCOMPARE(int(Rig::captured().stops.size()), 5);
    }

    // Each voice names 1 to 8 macros with defaults from 0 to 1. Macros go to
    // the whole patch (voice 0) and reach every voice: each one audibly
    // changes a note played on the last voice.
    void macrosReachEveryVoice_data() { addVoiceRows(); }
    void macrosReachEveryVoice()
    {
        QFETCH(QString, patch);
        const QVector<Macro> macros = openVoice(patch);
        QVERIFY(macros.size() >= 1 && macros.size() <= 8);
        const auto play = [] { return strike(128, 128, [](int) { return 330.0f; }); };
        const Signal reference = play();
        for (int i = 0; i < macros.size(); ++i) {
            QVERIFY2(!macros[i].name.isEmpty() && macros[i].value >= 0 && macros[i].value <= 1,
                     qPrintable(macros[i].name));
            Rig::sendMacro(i + 1, macros[i].value < 0.5f ? 1.0f : 0.0f);
            Signal changed = play();
            Rig::sendMacro(i + 1, macros[i].value);
            // Over the note and its release (or as much as both have).
            changed.resize(std::min(changed.size(), reference.size()));
            const double level = rms(reference.mid(0, changed.size()));
            std::transform(changed.begin(), changed.end(), reference.begin(), changed.begin(),
                           std::minus<float>());
            QVERIFY2(rms(changed) > 0.05 * level, qPrintable(macros[i].name));
        }
    }

    // 128 voices struck together on one pitch, a coherent sum, never pass the
    // ceiling, whatever the master volume; the limiter lets go again after
    // them. 128 voices spread over the whole range the program sends, both
    // ends included, give finite output. The voice and the shell print
    // nothing all the while (nothing failed to be created or connected).
    void fullPolyphonyNeverClips_data() { addVoiceRows(); }
    void fullPolyphonyNeverClips()
    {
        QFETCH(QString, patch);
        QVERIFY(!openVoice(patch).isEmpty());
        const auto unison = [](int) { return 220.0f; };
        const double alone = held(strike(1, 1, unison)); // at the default master volume 0.8
        for (float master : {0.8f, 4.0f}) {
            Rig::sendMasterVolume(master);
            Signal right;
            const double chord = std::max(peak(strike(1, 128, unison, &right)), peak(right));
            QVERIFY2(chord <= CEILING && chord > 0.5,
                     qPrintable(QStringLiteral("%1 at master %2").arg(chord).arg(master)));
        }
        Rig::sendMasterVolume(0.8f);
        render(2.0); // the limiter lets go within its release
        const double after = held(strike(1, 1, unison));
        QVERIFY2(std::abs(after / alone - 1.0) < 0.01, qPrintable(QString::number(after / alone)));
        const double spread =
            peak(strike(1, 128, [](int v) { return 20.01f * std::pow(999.4f, (v - 1) / 127.0f); }));
        QVERIFY(std::isfinite(spread) && spread <= CEILING);
        QVERIFY(Rig::captured().printed.empty()); // each line is logged as a warning
    }

    // Lower and higher notes are lifted a little against the middle.
    void loudnessIsCompensated()
    {
        QVERIFY(!openVoice(Rig::voicePatch(QStringLiteral("Sine.pd"))).isEmpty());
        Rig::sendMasterVolume(0.5f); // well below the bus limiter's threshold
        auto level = [](float f) { return held(strike(1, 1, [f](int) { return f; })); };
        const double at1k = level(1000.0f);
        auto db = [&](float frequency) { return 20.0 * std::log10(level(frequency) / at1k); };
        const double at40 = db(40.0f), at100 = db(100.0f), at3k = db(3000.0f), at16k = db(16000.0f);
        QVERIFY2(at100 > 3.0 && at100 < 9.0 && at40 >= at100 && at40 <= 9.01 && at3k < 0.0 &&
                     at3k > -2.0 && at16k > 0.0 && at16k < 4.0,
                 qPrintable(QString::asprintf("%+.2f, %+.2f, %+.2f, %+.2f dB at 40, 100, 3k, 16k Hz",
                                              at40, at100, at3k, at16k)));
    }
};

ARBO_TEST_MAIN(TestPatches)
#include "tst_patches.moc"
