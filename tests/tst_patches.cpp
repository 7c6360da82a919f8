// The instrument's Pd patches, run by the real libpd: tuning, envelopes,
// voice bookkeeping, master volume, bus limiting, macros, and loading.

#include "audioanalysis.h"
#include "pdpatchrig.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <z_libpd.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <complex>
#include <string>
#include <vector>

namespace Rig = PdPatchRig;

namespace {

constexpr int SR = 44100;
constexpr int BLOCK = 64;
// The bus limiter's ceiling, -0.3 dBFS, with room for float rounding: the
// output stays below it, so the hard clip~ behind the limiter never acts.
constexpr float CEILING = 0.9661f;

using Signal = std::vector<float>;

long framesFor(double seconds, int sampleRate = SR)
{
    const long frames = long(std::lround(seconds * sampleRate));
    return (frames + BLOCK - 1) / BLOCK * BLOCK;
}

using AudioAnalysis::cents;

std::complex<double> demodulate(const Signal& x, long start, long length, double frequency,
                                int sampleRate)
{
    return AudioAnalysis::demodulate(x.data(), start, length, frequency, sampleRate);
}

AudioAnalysis::ToneEstimate measureFrequency(const Signal& x, long start, long end, double nominal,
                                             int sampleRate)
{
    return AudioAnalysis::measureTone(x.data(), start, end, nominal, sampleRate);
}

float peak(const Signal& x, long from = 0, long to = -1)
{
    if (to < 0) {
        to = long(x.size());
    }
    float p = 0.0f;
    for (long i = from; i < to; ++i) {
        p = std::max(p, std::abs(x[size_t(i)]));
    }
    return p;
}

double rms(const Signal& x, long from, long to)
{
    double sum = 0.0;
    for (long i = from; i < to; ++i) {
        sum += double(x[size_t(i)]) * x[size_t(i)];
    }
    return std::sqrt(sum / double(std::max(1L, to - from)));
}

// Largest first and second differences: a click is a jump of the order of the
// signal's amplitude, far above what a smooth waveform moves in one sample.
struct Roughness
{
    double d1 = 0.0;
    double d2 = 0.0;
};

Roughness roughness(const Signal& x, long from, long to)
{
    Roughness r;
    for (long i = std::max(2L, from); i < to; ++i) {
        const double a = x[size_t(i)], b = x[size_t(i - 1)], c = x[size_t(i - 2)];
        r.d1 = std::max(r.d1, std::abs(a - b));
        r.d2 = std::max(r.d2, std::abs(a - 2 * b + c));
    }
    return r;
}

struct MacroInfo
{
    QStringList names;
    QList<float> defaults; // -1 where the text gives none
};

MacroInfo parseMacroText(const QString& text)
{
    MacroInfo info;
    for (QString name : text.split(QLatin1Char(':'))) {
        const int open = name.indexOf(QLatin1Char('('));
        const int close = name.indexOf(QLatin1Char(')'));
        if (open < 0 || close <= open) {
            info.defaults << -1.0f;
        } else {
            info.defaults << name.mid(open + 1, close - open - 1).toFloat();
            name = name.left(open);
        }
        info.names << name;
    }
    return info;
}

} // namespace

class TestPatches : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir mTemp;
    QString mRuntime;

    // Opens the engine with `voicePath` as the voice, like the program.
    bool openVoice(const QString& voicePath, int sampleRate = SR)
    {
        Rig::close();
        if (Rig::sampleRate() != sampleRate && !Rig::setSampleRate(sampleRate)) {
            return false;
        }
        return Rig::prepareRuntimeFolder(mRuntime, voicePath) && Rig::open(mRuntime);
    }

    // The macro text the open patch answers with (empty if none).
    QString queryMacroText()
    {
        Rig::clearCaptured();
        Rig::queryMacros();
        if (Rig::voiceInfos().size() != 1 || Rig::voiceInfos()[0].size() < 2) {
            return QString();
        }
        return QString::fromStdString(Rig::voiceInfos()[0][1]);
    }

    // Sets every macro of the open patch to its default.
    MacroInfo applyDefaults()
    {
        const MacroInfo info = parseMacroText(queryMacroText());
        for (int i = 0; i < info.defaults.size(); ++i) {
            if (info.defaults[i] >= 0.0f) {
                Rig::sendMacro(i + 1, info.defaults[i]);
            }
        }
        return info;
    }

    static void addVoiceRows()
    {
        QTest::addColumn<QString>("patch");
        for (const QString& path : Rig::voicePatches()) {
            QTest::newRow(qPrintable(QFileInfo(path).completeBaseName())) << path;
        }
    }

    // Renders until `voice` reports voice-stop or `maxSeconds` pass, then
    // `tailSeconds` more. Returns the frame of the report, -1 if none came.
    static long renderUntilStopped(int voice, double maxSeconds, Signal* out,
                                   double tailSeconds = 0.05)
    {
        const long limit = Rig::framesRendered() + framesFor(maxSeconds);
        auto stopFrame = [voice]() -> long {
            for (const Rig::VoiceStop& stop : Rig::voiceStops()) {
                if (stop.voice == voice) {
                    return stop.frame;
                }
            }
            return -1;
        };
        while (stopFrame() < 0 && Rig::framesRendered() < limit) {
            Rig::render(BLOCK * 16, out);
        }
        Rig::render(framesFor(tailSeconds), out);
        return stopFrame();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(mTemp.isValid());
        // The program's runtime patch folder lives in the configuration folder.
        mRuntime = TestSupport::configDir() + QStringLiteral("/patch");
        Rig::setDenormalsOff();
        QVERIFY(Rig::init());
        QVERIFY(Rig::setSampleRate(SR));
        const QStringList voices = Rig::voicePatches();
        QVERIFY2(voices.size() >= 4, qPrintable(voices.join(QLatin1Char(' '))));
        QVERIFY(voices.contains(Rig::voiceDir() + QStringLiteral("/Sine.pd")));
    }

    void cleanupTestCase() { Rig::close(); }

    // Every shipped patch opens without a single line printed: nothing that
    // cannot be created, no bad connection, no stray print while playing.
    void everyPatchOpensQuietly()
    {
        QStringList problems;
        auto check = [&](const QString& what) {
            for (const std::string& line : Rig::printed()) {
                problems << what + QStringLiteral(": ") + QString::fromStdString(line);
            }
            Rig::clearCaptured();
        };
        for (const QString& voice : Rig::voicePatches()) {
            Rig::clearCaptured();
            void* handle = Rig::openFile(voice);
            if (!handle) {
                problems << voice + QStringLiteral(": null handle");
            }
            Rig::closeFile(handle);
            check(voice);

            QVERIFY(openVoice(voice));
            Rig::queryMacros();
            // The range the program sends, both ends included.
            const float frequencies[] = {20.01f, 55.0f, 110.0f, 440.0f, 3520.0f, 19999.0f};
            for (int v = 1; v <= 6; ++v) {
                Rig::noteOn(v, frequencies[v - 1]);
            }
            Signal out;
            Rig::render(framesFor(0.3), &out);
            for (int v = 1; v <= 6; ++v) {
                Rig::gate(v, false);
            }
            Rig::render(framesFor(0.1), &out);
            if (!std::all_of(out.begin(), out.end(), [](float x) { return std::isfinite(x); })) {
                problems << voice + QStringLiteral(": output not finite");
            }
            check(QFileInfo(voice).fileName() + QStringLiteral(" in arbo_main.pd"));
            Rig::close();
        }
        // The shell patches on their own, from a runtime folder.
        QVERIFY(Rig::prepareRuntimeFolder(mRuntime, Rig::voiceDir() + QStringLiteral("/Sine.pd")));
        for (const QString& name : QDir(Rig::shellDir()).entryList({QStringLiteral("*.pd")})) {
            Rig::clearCaptured();
            void* handle = Rig::openFile(mRuntime + QLatin1Char('/') + name);
            if (!handle) {
                problems << name + QStringLiteral(": null handle");
            }
            Rig::closeFile(handle);
            check(name);
        }
        QVERIFY2(problems.isEmpty(), qPrintable(problems.join(QLatin1Char('\n'))));
    }

    void unopenablePatchGivesNullHandle()
    {
        QVERIFY(Rig::openFile(mTemp.path() + QStringLiteral("/missing.pd")) == nullptr);
        QVERIFY(Rig::openFile(mTemp.path() + QStringLiteral("/no/such/folder/arbo_main.pd")) ==
                nullptr);
        // A file that holds no patch at all.
        const QString text = mTemp.path() + QStringLiteral("/not-a-patch.pd");
        QVERIFY(TestSupport::writeFile(text, "This is not a Pd patch.\n"));
        QVERIFY(Rig::openFile(text) == nullptr);
        const QString empty = mTemp.path() + QStringLiteral("/empty.pd");
        QVERIFY(TestSupport::writeFile(empty, QByteArray()));
        QVERIFY(Rig::openFile(empty) == nullptr);
        // A runtime folder without the shell patches: the program's open fails.
        QVERIFY(!Rig::open(mTemp.path() + QStringLiteral("/empty")));
        Rig::clearCaptured();
    }

    void queryMacrosAnswersOnce_data() { addVoiceRows(); }
    void queryMacrosAnswersOnce()
    {
        QFETCH(QString, patch);
        QVERIFY(openVoice(patch));
        QVERIFY(Rig::voiceInfos().empty()); // nothing unasked
        Rig::queryMacros();
        // Synchronously, exactly once although there are 128 voices.
        QCOMPARE(int(Rig::voiceInfos().size()), 1);
        const std::vector<std::string> reply = Rig::voiceInfos()[0];
        QVERIFY(reply.size() >= 2);
        const QString text = QString::fromStdString(reply[1]);
        QVERIFY2(!text.isEmpty() && !text[0].isDigit(), qPrintable(text)); // a symbol
        const MacroInfo info = parseMacroText(text);
        QVERIFY2(info.names.size() >= 1 && info.names.size() <= 8, qPrintable(text));
        for (int i = 0; i < info.names.size(); ++i) {
            QVERIFY2(!info.names[i].isEmpty(), qPrintable(text));
            QVERIFY2(info.defaults[i] >= 0.0f && info.defaults[i] <= 1.0f, qPrintable(text));
        }
        // A second query answers again (each load asks once).
        Rig::queryMacros();
        QCOMPARE(int(Rig::voiceInfos().size()), 2);
    }

    // Exact tuning is the point of the instrument: every voice sounds its
    // frequency to within 0.1 cent, at the usual and at another sample rate.
    void pitchIsExact_data()
    {
        QTest::addColumn<QString>("patch");
        QTest::addColumn<int>("sampleRate");
        QTest::addColumn<double>("frequency");
        for (const QString& path : Rig::voicePatches()) {
            const QByteArray name = QFileInfo(path).completeBaseName().toUtf8();
            QTest::newRow(name + " 660 Hz") << path << SR << 660.0;
        }
        const QString sine = Rig::voiceDir() + QStringLiteral("/Sine.pd");
        QTest::newRow("Sine 55 Hz") << sine << SR << 55.0;
        QTest::newRow("Sine 4186.009 Hz") << sine << SR << 4186.009;
        QTest::newRow("Sine 660 Hz at 48 kHz") << sine << 48000 << 660.0;
        QTest::newRow("Pluck 660 Hz at 48 kHz")
            << Rig::voiceDir() + QStringLiteral("/Pluck.pd") << 48000 << 660.0;
    }
    void pitchIsExact()
    {
        QFETCH(QString, patch);
        QFETCH(int, sampleRate);
        QFETCH(double, frequency);
        QVERIFY(openVoice(patch, sampleRate));
        const MacroInfo info = applyDefaults();
        // A plucked string must still ring after a few seconds.
        const int decay = info.names.indexOf(QStringLiteral("decay"));
        if (decay >= 0) {
            Rig::sendMacro(decay + 1, 1.0f);
        }
        Rig::noteOn(42, float(frequency));
        Signal out;
        Rig::render(framesFor(2.6, sampleRate), &out);
        const long start = framesFor(0.3, sampleRate);
        const AudioAnalysis::ToneEstimate est =
            measureFrequency(out, start, long(out.size()), frequency, sampleRate);
        const double error = cents(est.frequency, frequency);
        qInfo("%s: %.9f Hz, %.6f cents", QTest::currentDataTag(), est.frequency, error);
        QVERIFY2(std::abs(error) < 0.1, qPrintable(QString::number(error, 'f', 6)));
        // It really is the sounding component, not leakage of something else.
        QVERIFY2(est.minAmplitude > 0.1 * peak(out, start),
                 qPrintable(QString::number(est.minAmplitude)));
        Rig::setSampleRate(SR);
    }

    // The reference sine is pure: its table lookup leaves no harmonic above
    // -100 dB.
    void sineIsPure()
    {
        QVERIFY(openVoice(Rig::voiceDir() + QStringLiteral("/Sine.pd")));
        Rig::noteOn(1, 660.0f);
        Signal out;
        Rig::render(framesFor(1.0), &out);
        const long start = framesFor(0.3);
        const long length = long(out.size()) - start;
        const double fundamental = std::abs(demodulate(out, start, length, 660.0, SR));
        for (int k = 2; k <= 5; ++k) {
            const double harmonic = std::abs(demodulate(out, start, length, 660.0 * k, SR));
            const double db = 20.0 * std::log10(harmonic / fundamental + 1e-30);
            QVERIFY2(db < -100.0,
                     qPrintable(QStringLiteral("harmonic %1 at %2 dB").arg(k).arg(db)));
        }
    }

    // No click when a note starts, ends or is stolen: no sample-to-sample
    // jump or kink beyond what the sounding waveform itself makes.
    void envelopesAreClickFree_data() { addVoiceRows(); }
    void envelopesAreClickFree()
    {
        QFETCH(QString, patch);
        QVERIFY(openVoice(patch));
        applyDefaults();
        const long ms = SR / 1000;
        Signal out;
        Rig::noteOn(5, 660.0f);
        Rig::render(framesFor(0.4), &out);
        // The sound fades in from nothing.
        const auto first = std::find_if(out.begin(), out.end(), [](float x) { return x != 0.0f; });
        QVERIFY(first != out.end() && std::abs(*first) < 0.05f * peak(out));
        const Roughness attack = roughness(out, 0, 10 * ms);
        const Roughness afterAttack = roughness(out, 10 * ms, 40 * ms);
        const Roughness sustain = roughness(out, long(out.size()) - 30 * ms, long(out.size()));

        // Stolen voice: gate off and the new note in the same tick.
        const long steal = long(out.size());
        Rig::gate(5, false);
        Rig::noteOn(5, 440.0f);
        Rig::render(framesFor(0.4), &out);
        // The old note fades out and the new one starts within ~15 ms; the
        // new note's own first moments are the yardstick for the start.
        const Roughness stealing = roughness(out, steal, steal + 15 * ms);
        const Roughness newNote = roughness(out, steal + 20 * ms, steal + 50 * ms);
        const Roughness stolen = roughness(out, long(out.size()) - 30 * ms, long(out.size()));

        const long release = long(out.size());
        Rig::gate(5, false);
        const long stop = renderUntilStopped(5, 6.0, &out);
        QVERIFY(stop > 0);
        const Roughness releasing = roughness(out, release, long(out.size()));

        auto within = [](const Roughness& r, const Roughness& ref, const char* what) {
            const QString msg = QStringLiteral("%1: d1 %2 vs %3, d2 %4 vs %5")
                                    .arg(what)
                                    .arg(r.d1)
                                    .arg(ref.d1)
                                    .arg(r.d2)
                                    .arg(ref.d2);
            return std::make_pair(r.d1 <= 1.5 * ref.d1 + 1e-4 && r.d2 <= 1.5 * ref.d2 + 1e-4, msg);
        };
        auto maxOf = [](const Roughness& a, const Roughness& b) {
            return Roughness{std::max(a.d1, b.d1), std::max(a.d2, b.d2)};
        };
        auto [okAttack, msgAttack] = within(attack, afterAttack, "attack");
        QVERIFY2(okAttack, qPrintable(msgAttack));
        auto [okSteal, msgSteal] = within(stealing, maxOf(sustain, newNote), "steal");
        QVERIFY2(okSteal, qPrintable(msgSteal));
        auto [okRelease, msgRelease] = within(releasing, stolen, "release");
        QVERIFY2(okRelease, qPrintable(msgRelease));
    }

    // "voice-stop" comes once per released voice, with its 1-based number,
    // only after the release has died away, and never for a stolen note.
    void voiceStopReportsReleasedVoices_data() { addVoiceRows(); }
    void voiceStopReportsReleasedVoices()
    {
        QFETCH(QString, patch);
        QVERIFY(openVoice(patch));
        applyDefaults();
        Signal out;
        Rig::noteOn(77, 440.0f);
        Rig::render(framesFor(0.3), &out);
        QVERIFY(Rig::voiceStops().empty());
        QVERIFY(peak(out) > 0.01f);

        const long release = Rig::framesRendered();
        Rig::gate(77, false);
        const long stop = renderUntilStopped(77, 6.0, &out, 0.2);
        QVERIFY(stop > release);
        QCOMPARE(int(Rig::voiceStops().size()), 1);
        QCOMPARE(Rig::voiceStops()[0].voice, 77);
        long lastSound = -1;
        for (long i = 0; i < long(out.size()); ++i) {
            if (out[size_t(i)] != 0.0f) {
                lastSound = i;
            }
        }
        // Sound until shortly before the report, exact silence after it.
        QVERIFY2(lastSound > release && lastSound < stop,
                 qPrintable(QStringLiteral("last sound %1, stop %2").arg(lastSound).arg(stop)));
        QVERIFY2(
            stop - lastSound < SR / 20,
            qPrintable(QStringLiteral("report %1 ms late").arg((stop - lastSound) * 1000 / SR)));

        // A gate off for a voice that is not sounding (the program turns off
        // notes that were out of range and never reached the patch) is
        // answered as well, or that voice would stay taken for ever.
        Rig::clearCaptured();
        Rig::gate(100, false);
        QVERIFY(renderUntilStopped(100, 0.2, nullptr) >= 0);
        QCOMPARE(int(Rig::voiceStops().size()), 1);

        // A second gate off during the release (all notes off) still gives
        // exactly one report.
        Rig::clearCaptured();
        Rig::noteOn(3, 330.0f);
        Rig::render(framesFor(0.1), nullptr);
        Rig::gate(3, false);
        Rig::render(framesFor(0.05), nullptr);
        Rig::gate(3, false);
        QVERIFY(renderUntilStopped(3, 6.0, nullptr, 0.3) >= 0);
        QCOMPARE(int(Rig::voiceStops().size()), 1);

        // Several voices: only the released ones report, each once.
        Rig::clearCaptured();
        for (int v : {1, 2, 128}) {
            Rig::noteOn(v, 200.0f * v / 2 + 100.0f);
        }
        Rig::render(framesFor(0.1), nullptr);
        Rig::gate(2, false);
        QVERIFY(renderUntilStopped(2, 6.0, nullptr, 0.3) >= 0);
        QCOMPARE(int(Rig::voiceStops().size()), 1);
        Rig::gate(1, false);
        Rig::gate(128, false);
        QVERIFY(renderUntilStopped(128, 6.0, nullptr, 0.3) >= 0);
        std::vector<int> voices;
        for (const Rig::VoiceStop& s : Rig::voiceStops()) {
            voices.push_back(s.voice);
        }
        std::sort(voices.begin(), voices.end());
        QCOMPARE(voices, (std::vector<int>{1, 2, 128}));

        // A stolen voice (gate off and a new note in the same tick) keeps
        // sounding the new note and reports nothing until it is released.
        Rig::clearCaptured();
        Rig::noteOn(9, 440.0f);
        Rig::render(framesFor(0.1), nullptr);
        Rig::gate(9, false);
        Rig::noteOn(9, 660.0f);
        Signal stolen;
        Rig::render(framesFor(5.0), &stolen);
        QVERIFY(Rig::voiceStops().empty());
        const long from = framesFor(0.1), length = framesFor(0.2);
        const double newPitch = std::abs(demodulate(stolen, from, length, 660.0, SR));
        const double oldPitch = std::abs(demodulate(stolen, from, length, 440.0, SR));
        QVERIFY2(newPitch > 0.01 && newPitch > 100.0 * oldPitch,
                 qPrintable(QStringLiteral("%1 %2").arg(newPitch).arg(oldPitch)));
        Rig::gate(9, false);
        QVERIFY(renderUntilStopped(9, 6.0, nullptr) >= 0);
        QCOMPARE(int(Rig::voiceStops().size()), 1);

        // A voice stolen while it releases gets no gate off first: the new
        // note cancels the pending report.
        Rig::clearCaptured();
        Rig::noteOn(11, 440.0f);
        Rig::render(framesFor(0.1), nullptr);
        Rig::gate(11, false);
        Rig::render(framesFor(0.02), nullptr);
        Rig::noteOn(11, 550.0f);
        Rig::render(framesFor(5.0), nullptr);
        QVERIFY(Rig::voiceStops().empty());
        Rig::gate(11, false);
        QVERIFY(renderUntilStopped(11, 6.0, nullptr) >= 0);
        QCOMPARE(int(Rig::voiceStops().size()), 1);
        QVERIFY(Rig::printed().empty());
    }

    void masterVolumeGlides()
    {
        QVERIFY(openVoice(Rig::voiceDir() + QStringLiteral("/Sine.pd")));
        applyDefaults();
        Rig::sendMasterVolume(0.8f);
        Rig::noteOn(1, 660.0f);
        Signal out;
        Rig::render(framesFor(0.3), &out);
        const long change = long(out.size());
        const double before = rms(out, change - SR / 10, change);
        const Roughness steady = roughness(out, change - SR / 10, change);
        Rig::sendMasterVolume(0.2f);
        Rig::render(framesFor(0.3), &out);
        const double after = rms(out, long(out.size()) - SR / 10, long(out.size()));
        QVERIFY2(std::abs(after / before - 0.25) < 0.01,
                 qPrintable(QString::number(after / before)));
        // A glide, not a step: the level per 1 ms slice moves in small steps
        // and takes at least 10 ms from the old level to the new one.
        const long slice = SR / 1000;
        std::vector<double> levels;
        for (long at = change - 20 * slice; at + 3 * slice <= change + 100 * slice; at += slice) {
            levels.push_back(peak(out, at, at + 3 * slice)); // a 660 Hz period fits in 3 ms
        }
        int gliding = 0;
        double largestStep = 0.0;
        for (size_t i = 1; i < levels.size(); ++i) {
            largestStep = std::max(largestStep, levels[i - 1] - levels[i]);
            const double lvl = levels[i];
            if (lvl < 0.95 * levels[0] && lvl > 1.05 * levels.back()) {
                ++gliding;
            }
        }
        QVERIFY2(gliding >= 10, qPrintable(QString::number(gliding)));
        QVERIFY2(largestStep < 0.2 * (levels[0] - levels.back()),
                 qPrintable(QString::number(largestStep)));
        const Roughness gliding2 = roughness(out, change, change + 100 * slice);
        QVERIFY(gliding2.d1 <= 1.01 * steady.d1 && gliding2.d2 <= 1.01 * steady.d2 + 1e-5);
        // A master volume above 1 is allowed and simply louder.
        Rig::sendMasterVolume(1.2f);
        Rig::render(framesFor(0.3), &out);
        const double loud = rms(out, long(out.size()) - SR / 10, long(out.size()));
        QVERIFY2(std::abs(loud / before - 1.5) < 0.015, qPrintable(QString::number(loud / before)));
    }

    // Lower and higher notes are lifted a little against the middle.
    void loudnessIsCompensated()
    {
        QVERIFY(openVoice(Rig::voiceDir() + QStringLiteral("/Sine.pd")));
        applyDefaults();
        Rig::sendMasterVolume(0.5f); // well below the bus compressor's threshold
        auto level = [](float frequency) {
            Rig::noteOn(1, frequency);
            Signal out;
            Rig::render(framesFor(0.3), &out);
            Rig::gate(1, false);
            renderUntilStopped(1, 6.0, nullptr);
            return rms(out, long(out.size()) - SR / 10, long(out.size()));
        };
        const double at1k = level(1000.0f);
        const double at100 = level(100.0f);
        const double at3k = level(3000.0f);
        const double at40 = level(40.0f);
        const double at16k = level(16000.0f);
        auto db = [at1k](double v) { return 20.0 * std::log10(v / at1k); };
        qInfo("loudness: 40 Hz %+.2f dB, 100 Hz %+.2f dB, 3 kHz %+.2f dB, 16 kHz %+.2f dB",
              db(at40), db(at100), db(at3k), db(at16k));
        QVERIFY(db(at100) > 3.0 && db(at100) < 9.0);
        QVERIFY(db(at40) >= db(at100) && db(at40) <= 9.01);
        QVERIFY(db(at3k) < 0.0 && db(at3k) > -2.0);
        QVERIFY(db(at16k) > 0.0 && db(at16k) < 4.0);
    }

    // The bus compressor on its own: untouched below the threshold, the
    // static curve above it, never past the ceiling even on a sudden jump of
    // 40 dB, and back to unity gain after the release.
    void busCompressor()
    {
        QVERIFY(Rig::prepareRuntimeFolder(mRuntime, Rig::voiceDir() + QStringLiteral("/Sine.pd")));
        const QString probe = mRuntime + QStringLiteral("/compressor_probe.pd");
        QVERIFY(TestSupport::writeFile(probe, "#N canvas 0 50 450 300 12;\n"
                                              "#X obj 10 10 osc~ 100;\n"
                                              "#X obj 10 40 *~ 0.1;\n"
                                              "#X obj 100 10 r amp;\n"
                                              "#X obj 10 70 tb_compressor~;\n"
                                              "#X obj 10 100 dac~ 1 2;\n"
                                              "#X connect 0 0 1 0;\n#X connect 2 0 1 1;\n"
                                              "#X connect 1 0 3 0;\n#X connect 1 0 3 1;\n"
                                              "#X connect 3 0 4 0;\n#X connect 3 1 4 1;\n"));
        Rig::close();
        Rig::clearCaptured();
        void* handle = Rig::openFile(probe);
        QVERIFY(handle);
        Rig::setDsp(true);
        auto amplitude = [](float a) {
            libpd_start_message(1);
            libpd_add_float(a);
            libpd_finish_list("amp");
        };
        Signal quiet, loud, jump, back;
        Rig::render(framesFor(0.5), &quiet);
        const float quietPeak = peak(quiet, framesFor(0.3), framesFor(0.5));
        QVERIFY2(std::abs(quietPeak - 0.1f) < 0.001f, qPrintable(QString::number(quietPeak)));

        amplitude(1.0f); // 0 dBFS: 8 dB over the threshold, ratio 3 leaves 8/3 dB
        Rig::render(framesFor(1.0), &loud);
        const double loudDb = 20.0 * std::log10(peak(loud, framesFor(0.7), framesFor(1.0)));
        QVERIFY2(std::abs(loudDb - (-8.0 + 8.0 / 3.0)) < 0.5, qPrintable(QString::number(loudDb)));

        amplitude(0.01f);
        Rig::render(framesFor(1.0), nullptr);
        amplitude(1000.0f); // +40 dB within one block
        Rig::render(framesFor(0.5), &jump);
        QVERIFY2(peak(jump) <= CEILING, qPrintable(QString::number(peak(jump))));

        amplitude(0.1f);
        Rig::render(framesFor(2.0), &back);
        const float backPeak = peak(back, framesFor(1.8), framesFor(2.0));
        QVERIFY2(std::abs(backPeak - 0.1f) < 0.001f, qPrintable(QString::number(backPeak)));
        QVERIFY(Rig::printed().empty());
        Rig::setDsp(false);
        Rig::closeFile(handle);
    }

    // 128 voices at once never leave the ceiling, whatever the master
    // volume, while one voice alone is clearly heard.
    void fullPolyphonyNeverClips_data() { addVoiceRows(); }
    void fullPolyphonyNeverClips()
    {
        QFETCH(QString, patch);
        QVERIFY(openVoice(patch));
        applyDefaults();
        Signal one;
        Rig::sendMasterVolume(0.8f);
        Rig::noteOn(1, 440.0f);
        Rig::render(framesFor(0.3), &one);
        QVERIFY2(peak(one) > 0.1f, qPrintable(QString::number(peak(one))));
        Rig::gate(1, false);
        renderUntilStopped(1, 6.0, nullptr);

        // All voices on one pitch start together: their sum is coherent.
        for (float master : {0.8f, 4.0f}) {
            Rig::sendMasterVolume(master);
            for (int v = 1; v <= 128; ++v) {
                Rig::noteOn(v, 220.0f);
            }
            Signal left, right;
            Rig::render(framesFor(0.5), &left, &right);
            QVERIFY2(
                peak(left) <= CEILING && peak(right) <= CEILING,
                qPrintable(QStringLiteral("peak %1 at master %2").arg(peak(left)).arg(master)));
            QVERIFY(peak(left) > 0.5f);
            for (int v = 1; v <= 128; ++v) {
                Rig::gate(v, false);
            }
            renderUntilStopped(128, 6.0, nullptr, 0.1);
            Rig::clearCaptured();
        }
        // A spread chord of just intervals over six octaves, notes arriving
        // one block apart.
        Rig::sendMasterVolume(1.0f);
        Signal chord;
        const double ratios[] = {1.0,     9.0 / 8, 5.0 / 4, 4.0 / 3,
                                 3.0 / 2, 5.0 / 3, 7.0 / 4, 15.0 / 8};
        for (int v = 1; v <= 128; ++v) {
            const double f = 55.0 * ratios[v % 8] * double(1 << ((v / 8) % 6));
            Rig::noteOn(v, float(f));
            Rig::render(BLOCK, &chord);
        }
        Rig::render(framesFor(0.5), &chord);
        QVERIFY2(peak(chord) <= CEILING, qPrintable(QString::number(peak(chord))));
        QVERIFY(Rig::printed().empty());
    }

    // Macros go to the whole patch (voice 0) and reach every voice: each one
    // audibly changes a note played on the last voice.
    void macrosReachEveryVoice_data() { addVoiceRows(); }
    void macrosReachEveryVoice()
    {
        QFETCH(QString, patch);
        QVERIFY(openVoice(patch));
        const MacroInfo info = applyDefaults();
        auto play = [](Signal* out) {
            Rig::clearCaptured();
            const long start = Rig::framesRendered();
            Rig::noteOn(128, 330.0f);
            Rig::render(framesFor(0.5), out);
            Rig::gate(128, false);
            const long stop = renderUntilStopped(128, 6.0, out, 0.0);
            return stop < 0 ? -1 : stop - start; // the length of the note
        };
        Signal reference;
        const long referenceStop = play(&reference);
        QVERIFY(referenceStop > 0);
        for (int i = 0; i < info.names.size(); ++i) {
            const float other = info.defaults[i] < 0.5f ? 1.0f : 0.0f;
            Rig::sendMacro(i + 1, other);
            Signal changed;
            const long changedStop = play(&changed);
            Rig::sendMacro(i + 1, info.defaults[i]);
            QVERIFY(changedStop > 0);
            bool differs = std::abs(changedStop - referenceStop) > SR / 100;
            if (!differs) {
                const long n = long(std::min(changed.size(), reference.size()));
                Signal diff(static_cast<size_t>(n));
                for (long k = 0; k < n; ++k) {
                    diff[size_t(k)] = changed[size_t(k)] - reference[size_t(k)];
                }
                differs = rms(diff, 0, n) > 0.05 * rms(reference, 0, n);
            }
            QVERIFY2(differs, qPrintable(info.names[i]));
        }
        // With the defaults back the note sounds as before.
        Signal again;
        QVERIFY(play(&again) == referenceStop);
    }

    // Pd reads the numbers in patch files with the C library, which follows
    // LC_NUMERIC: under a decimal-comma locale "0.25" would read as 0. The
    // program (and libpd_init) force LC_NUMERIC to "C"; with the rest of the
    // locale German the patches load with the right numbers.
    void decimalCommaLocale()
    {
        // Whatever happens below, the rest of the process gets its locale back.
        struct LocaleRestorer
        {
            QByteArray previous = std::setlocale(LC_ALL, nullptr);
            ~LocaleRestorer()
            {
                std::setlocale(LC_ALL, previous.constData());
                std::setlocale(LC_NUMERIC, "C");
                qunsetenv("LOCPATH");
            }
        } restorer;
        QByteArray german;
        for (const char* name :
             {"de_DE.UTF-8", "de_DE.utf8", "de_DE", "fr_FR.UTF-8", "fr_FR.utf8"}) {
            if (std::setlocale(LC_ALL, name)) {
                german = name;
                break;
            }
        }
        QTemporaryDir localeDir;
        if (german.isEmpty()) {
            // Not installed here: build one into a temporary folder, if the
            // machine has the locale sources.
            QProcess localedef;
            localedef.start(QStringLiteral("localedef"),
                            {QStringLiteral("-i"), QStringLiteral("de_DE"), QStringLiteral("-f"),
                             QStringLiteral("UTF-8"),
                             localeDir.path() + QStringLiteral("/de_DE.UTF-8")});
            if (localedef.waitForFinished(30000) && localedef.exitCode() == 0) {
                qputenv("LOCPATH", QFile::encodeName(localeDir.path()));
                if (std::setlocale(LC_ALL, "de_DE.UTF-8")) {
                    german = "de_DE.UTF-8";
                }
            }
        }
        if (german.isEmpty()) {
            QSKIP("No decimal-comma locale is installed and localedef could not build one");
        }
        QCOMPARE(std::localeconv()->decimal_point[0], ',');

        // What goes wrong without the fix: a float in a patch file loses its
        // fraction.
        const QString probe = mTemp.path() + QStringLiteral("/probe.pd");
        QVERIFY(TestSupport::writeFile(
            probe,
            "#N canvas 0 50 450 300 12;\n#X obj 10 10 loadbang;\n#X msg 10 40 0.25 7;\n"
            "#X obj 10 70 s output-voice-info;\n#X connect 0 0 1 0;\n#X connect 1 0 2 0;\n"));
        Rig::clearCaptured();
        void* handle = Rig::openFile(probe);
        QVERIFY(handle);
        Rig::closeFile(handle);
        QCOMPARE(int(Rig::voiceInfos().size()), 1);
        QCOMPARE(Rig::voiceInfos()[0][0], std::string("0"));

        // With LC_NUMERIC "C" and everything else German: right numbers.
        std::setlocale(LC_NUMERIC, "C");
        Rig::clearCaptured();
        handle = Rig::openFile(probe);
        Rig::closeFile(handle);
        QCOMPARE(int(Rig::voiceInfos().size()), 1);
        QCOMPARE(Rig::voiceInfos()[0][0], std::string("0.25"));
        QVERIFY(openVoice(Rig::voiceDir() + QStringLiteral("/Sine.pd")));
        const MacroInfo info = applyDefaults();
        QCOMPARE(info.defaults.value(0), 0.1f);
        Rig::noteOn(1, 660.0f);
        Signal out;
        Rig::render(framesFor(1.3), &out);
        const AudioAnalysis::ToneEstimate est =
            measureFrequency(out, framesFor(0.3), long(out.size()), 660.0, SR);
        QVERIFY(std::abs(cents(est.frequency, 660.0)) < 0.1);
        Rig::close();
    }
};

ARBO_TEST_MAIN(TestPatches)
#include "tst_patches.moc"
