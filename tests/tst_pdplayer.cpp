// The Pd player through the real libpd and the real patches. The test thread
// plays the audio thread: it drains the command buffers and runs libpd in
// 256-frame buffers, as the audio callback does, and listens to the result.

#include "audioanalysis.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "sound/pdmessagebuffer.h"
#include "sound/midinotering.h"
#include "offlineplayer.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>

#include <z_libpd.h>

#include <clocale>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

using OfflinePlayer::BUFFER_SECONDS;
using OfflinePlayer::SAMPLE_RATE;

// Cents between the steady tone near `nominal` (from sample `from` on, half a
// second unless told) and `nominal`;
// a large number when the tone is not there throughout.
double centsOff(const QVector<float>& left, double nominal, long from = SAMPLE_RATE / 2)
{
    const AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
        left.constData(), from, long(left.size()), nominal, SAMPLE_RATE);
    return tone.minAmplitude > 0.01 ? AudioAnalysis::cents(tone.frequency, nominal) : 1e9;
}

// `count` paths of two steps, each a ratio of its own: pairs of signed primes,
// never a prime and its inverse.
QList<ArboPath> distinctPaths(int count)
{
    const int primes[] = {2,  3,  5,  7,  11,  13,  17,  19,  23,  29,  31,
                          -2, -3, -5, -7, -11, -13, -17, -19, -23, -29, -31};
    QList<ArboPath> paths;
    for (int i = 0; i < 22; ++i) {
        for (int j = i + 1; j < 22 && paths.size() < count; ++j) {
            if (primes[i] != -primes[j]) {
                paths << ArboPath(QStringLiteral("/%1/%2").arg(primes[i]).arg(primes[j]));
            }
        }
    }
    return paths;
}

bool loadSine(PdPlayer& player)
{
    return PatchLoader::installShellPatches() &&
           PatchLoader::loadVoice(&player, TestSupport::binDir() + "/patches/Sine.pd");
}

} // namespace

class TestPdPlayer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(mPlayer.init());
        QCOMPARE(mPlayer.initAudio(2, SAMPLE_RATE), 0);
        connect(&mPlayer, &PdPlayer::noteToggled, this, [this](const ArboRatio& ratio, bool on) {
            mToggles << ratio.toString() + (on ? " on" : " off");
        });
        QSignalSpy loaded(&mPlayer, &PdPlayer::patchLoaded);
        QVERIFY(loadSine(mPlayer));
        QCOMPARE(loaded.size(), 1);
        QCOMPARE(loaded.at(0).at(0).toString(), PatchLoader::mainPatchFile());
    }

    void init()
    {
        if (!mPlayer.isPatchOpen()) {
            QVERIFY(loadSine(mPlayer));
        }
        for (const ArboEvent& event :
             {ArboEvent(ArboEvent::BaseFrequency, 440.0f), ArboEvent(ArboEvent::Transpose, 0.0f),
              ArboEvent(ArboEvent::MasterVolume, 0.8f), ArboEvent(ArboEvent::VoiceVolume, 1.0f),
              ArboEvent(ArboEvent::Macro2, 0.3f), ArboEvent(ArboEvent::AllNotesOff, 1.0f)}) {
            queue(event);
        }
        render(BUFFER_SECONDS); // carries the resets out even when nothing sounds
        renderUntilAllFree(6.0);
        QCOMPARE(mPlayer.soundingNoteCount(), 0);
        mToggles.clear();
    }

    void fifthSoundsExactlyAndVoiceStopFreesTheVoice()
    {
        toggle("/3");
        render(0.5);
        // Off, and struck again before the release is over: the releasing voice
        // stays taken and the note sounds again on a new voice.
        toggle("/3");
        toggle("/3");
        render(0.01);
        QCOMPARE(mToggles, (QStringList{"3/2 on", "3/2 off", "3/2 on"}));
        QVERIFY(mPlayer.voices()[0].released);
        QCOMPARE(voiceOf(ArboRatio(3, 2)), 1);
        // The old voice's "voice-stop" frees it and leaves the note on voice 1.
        render(1.0);
        QCOMPARE(mPlayer.voices()[0].seqId, 0);
        QCOMPARE(voiceOf(ArboRatio(3, 2)), 1);

        // Off for good: freed after its 370 ms release, then silence.
        toggle("/3");
        const double freed = renderUntilAllFree(3.0);
        QVERIFY2(freed > 0.3 && freed < 1.0, qPrintable(QString::number(freed)));
        QCOMPARE(AudioAnalysis::peak(render(0.2)), 0.0);
    }

    void the129thNoteStealsTheOldestVoice()
    {
        const QList<ArboPath> paths = distinctPaths(130);
        for (int i = 0; i < PdPlayer::VOICE_COUNT; ++i) {
            queue(ArboNoteEvent(paths.at(i)));
        }
        render(0.05);
        QCOMPARE(mPlayer.soundingNoteCount(), PdPlayer::VOICE_COUNT);

        // All voices held: the first note struck is turned off, then replaced.
        // A released voice is stolen as it is, without a second note-off.
        const auto ratio = [&paths](int i) { return ArboRatio::pathRatio(paths.at(i)); };
        mToggles.clear();
        queue(ArboNoteEvent(paths.at(128)));
        render(0.05);
        QCOMPARE(voiceOf(ratio(128)), 0);
        queue(ArboEvent(ArboEvent::Macro2, 1.0f)); // a 4 s release
        queue(ArboNoteEvent(paths.at(1)));         // off: voice 1 releases
        queue(ArboNoteEvent(paths.at(129)));
        render(0.01);
        QCOMPARE(mToggles, (QStringList{ratio(0).toString() + " off", ratio(128).toString() + " on",
                                        ratio(1).toString() + " off", ratio(129).toString() + " on"}));
        QCOMPARE(voiceOf(ratio(129)), 1);
        QCOMPARE(mPlayer.soundingNoteCount(), PdPlayer::VOICE_COUNT);
    }

    // Notes struck and released faster than a buffer, on all 128 voices and past
    // them (stealing voices in every state), with transpositions between: once
    // everything is let go, every voice is reported silent and freed. A voice
    // that the patch never reports would be lost for the rest of the
    // performance. Seeded, so a failure repeats.
    void everyVoiceComesBackAfterAFlood()
    {
        const QList<ArboPath> paths = distinctPaths(64);
        QRandomGenerator random(1234);
        int busiest = 0;
        for (int buffer = 0; buffer < 2000; ++buffer) {
            const int commands = int(random.bounded(8));
            for (int c = 0; c < commands; ++c) {
                const int pick = int(random.bounded(paths.size() + 4));
                if (pick < paths.size()) {
                    queue(ArboNoteEvent(paths.at(pick)));
                } else if (pick < paths.size() + 3) {
                    queue(ArboEvent(ArboEvent::Transpose, pick == paths.size() ? 0.0f : 5.0f));
                } else {
                    queue(ArboEvent(ArboEvent::Macro2, 0.5f + float(random.bounded(0.5))));
                }
            }
            render(BUFFER_SECONDS);
            const auto& voices = mPlayer.voices();
            busiest = std::max(busiest, int(std::count_if(voices.begin(), voices.end(),
                                                          [](auto& v) { return v.seqId != 0; })));
        }
        QCOMPARE(busiest, PdPlayer::VOICE_COUNT); // voices were stolen
        queue(ArboEvent(ArboEvent::AllNotesOff, 1.0f));
        renderUntilAllFree(8.0);
        QCOMPARE(mPlayer.soundingNoteCount(), 0);
        for (const PdPlayer::NoteOn& voice : mPlayer.voices()) {
            QCOMPARE(voice.seqId, 0);
        }
    }

    void disabledPrimesBlockTheirNotes()
    {
        QSignalSpy prime(&mPlayer, &PdPlayer::primeEnabledToggled);
        queue(ArboEvent(ArboEvent::PrimeToggle, 5.7f));  // truncated to 5
        toggle("/3/5");                                  // last step 5: blocked
        toggle("/5/3");                                  // last step 3: plays
        toggle("/");                                     // the root consults flag 0
        queue(ArboEvent(ArboEvent::PrimeToggle, 40.0f)); // no such flag: ignored
        queue(ArboEvent(ArboEvent::PrimeToggle, 5.0f));
        toggle("/3/5");
        render(0.02);
        QCOMPARE(prime.size(), 2);
        QCOMPARE(prime.at(0), (QList<QVariant>{5, false}));
        QCOMPARE(prime.at(1), (QList<QVariant>{5, true}));
        // Passed now, /3/5 ends the 15/8 that /5/3 began.
        QCOMPARE(mToggles, (QStringList{"15/8 on", "1/1 on", "15/8 off"}));
    }

    void transpositionMovesTheNextNote()
    {
        QSignalSpy transposed(&mPlayer, &PdPlayer::transposed);
        queue(ArboEvent(ArboEvent::Transpose, 2.5f)); // rounds up to 3
        toggle("/");
        QVERIFY(std::abs(centsOff(render(2.5), 660.0)) < 0.1);

        // The sounding note keeps its pitch; the next one moves. No prime, far
        // outside and not a number are refused.
        for (float step : {-2.5f, 4.0f, 1e9f, std::nanf("")}) {
            queue(ArboEvent(ArboEvent::Transpose, step));
        }
        render(0.01);
        QCOMPARE(transposed.size(), 2);
        QCOMPARE(transposed.at(0), (QList<QVariant>{QVariant::fromValue(ArboRatio(3, 2)), 3}));
        QCOMPARE(transposed.at(1), (QList<QVariant>{QVariant::fromValue(ArboRatio(3, 4)), -2}));
        queue(ArboEvent(ArboEvent::AllNotesOff, 1.0f));
        renderUntilAllFree(2.0);
        toggle("/3"); // 3/4 × 3/2 of 440 Hz
        QVERIFY(std::abs(centsOff(render(2.5), 495.0)) < 0.1);

        // Steps that no longer fit 64 bits are refused: the transposition stays
        // exactly the product of the steps that were reported.
        for (int i = 0; i < 40; ++i) {
            queue(ArboEvent(ArboEvent::Transpose, 31.0f));
        }
        render(0.01);
        const qsizetype accepted = transposed.size() - 2;
        QVERIFY(accepted > 5 && accepted < 40);
        QCOMPARE(mPlayer.transposition().toDouble(), 0.75 * std::pow(31.0 / 16.0, double(accepted)));
        // The audio thread only counts what it refused (no prime, too far, not a
        // number, beyond 64 bits; a note beyond them too); the GUI thread
        // reports it, one line per kind, and counts anew.
        toggle("/31/31/31/31");
        render(0.01);
        QCOMPARE(mPlayer.refusedTranspositions(), quint32(3 + 40 - accepted));
        QCOMPARE(mPlayer.refusedNotes(), quint32(1));
        const QString refused = QString::number(3 + 40 - accepted);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Ignored " + refused +
                                                              " transposition\\(s\\) .* \\(last: 31\\)$"));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("^Ignored 1 note\\(s\\) .* \\(last: /31/31/31/31\\)$"));
        mPlayer.reportRefusedCommands();
        QCOMPARE(mPlayer.refusedTranspositions() + mPlayer.refusedNotes(), quint32(0));
        mPlayer.reportRefusedCommands();              // nothing new: nothing said
        queue(ArboEvent(ArboEvent::Transpose, 0.4f)); // below a half: back to 1/1
        render(0.01);
        QCOMPARE(mPlayer.transposition(), ArboRatio(1, 1));
    }

    void volumesReachThePatch()
    {
        // Levels of a steady fifth, measured once the master volume has glided.
        auto level = [&] { return AudioAnalysis::rms(steady(0.5)); };
        QSignalSpy volume(&mPlayer, &PdPlayer::volumeChanged);
        toggle("/3");
        const double loud = level();
        queue(ArboEvent(ArboEvent::MasterVolumeStep, -0.4f));
        const double soft = level();
        QCOMPARE(volume.last().at(0).toFloat(), 0.4f);
        QVERIFY2(std::abs(soft / loud - 0.5) < 0.02, qPrintable(QString::number(soft / loud)));

        // The voice volume applies from the next note on.
        queue(ArboEvent(ArboEvent::VoiceVolume, 0.5f));
        queue(ArboEvent(ArboEvent::VoiceVolumeStep, -0.25f));
        QVERIFY(std::abs(level() / soft - 1.0) < 0.02);
        QCOMPARE(mPlayer.voiceVolume(), 0.25f);
        toggle("/3");
        renderUntilAllFree(2.0);
        toggle("/3");
        QVERIFY2(std::abs(level() / soft - 0.25) < 0.02, "voice volume not applied");
    }

    // Values that would silence or deafen the instrument, however they reached
    // a ring, are refused: nothing changes, nothing is signalled (so nothing is
    // saved), and the GUI thread reports them once, naming the source.
    void insaneValuesAreRefused()
    {
        toggle("/3");
        const double loud = AudioAnalysis::rms(steady(0.5));
        QSignalSpy changes(&mPlayer, &PdPlayer::baseFrequencyChanged);
        QSignalSpy volumes(&mPlayer, &PdPlayer::volumeChanged);
        QSignalSpy macros(&mPlayer, &PdPlayer::macroValueChanged);
        const float nan = std::nanf("");
        for (const ArboEvent& event :
             {ArboEvent(ArboEvent::BaseFrequency, 0.0f), ArboEvent(ArboEvent::BaseFrequency, -440.0f),
              ArboEvent(ArboEvent::BaseFrequency, 1e6f), ArboEvent(ArboEvent::BaseFrequency, 1e30f),
              ArboEvent(ArboEvent::BaseFrequency, nan), ArboEvent(ArboEvent::MasterVolume, 1e30f),
              ArboEvent(ArboEvent::MasterVolume, nan), ArboEvent(ArboEvent::MasterVolumeStep, 3.5f),
              ArboEvent(ArboEvent::VoiceVolume, -1.0f), ArboEvent(ArboEvent::Macro1, 5.0f)}) {
            queue(event);
        }
        const QVector<float> after = steady(0.5);
        QCOMPARE(changes.size() + volumes.size() + macros.size(), 0);
        QCOMPARE(mPlayer.baseFrequency(), 440.0f);
        QCOMPARE(mPlayer.volume(), 0.8f);
        QCOMPARE(mPlayer.refusedValues(), quint32(10));
        // Still the same fifth, as loud as before.
        QVERIFY(std::abs(centsOff(after, 660.0, 0)) < 0.5);
        QVERIFY(std::abs(AudioAnalysis::rms(after) / loud - 1.0) < 0.02);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("^Ignored 10 command\\(s\\) from the window with a "
                                                "value out of range \\(last: event 11 with the value "
                                                "5, which is no macro value from 0 to 1\\)$"));
        mPlayer.reportRefusedCommands();
        QCOMPARE(mPlayer.refusedValues(), quint32(0));
    }

    // A full ring of commands is carried out a budget's worth per buffer, in the
    // order it was queued, and nothing is lost; a command from another source is
    // not kept waiting behind the flood.
    void budgetSpreadsAFloodInOrder()
    {
        constexpr int FLOOD = PdMessageBuffer::CAPACITY; // a full ring
        for (int i = 0; i < FLOOD; ++i) {
            queue(ArboEvent(ArboEvent::MasterVolume, float(i) / FLOOD));
        }
        const ArboNoteEvent fromOsc(QStringLiteral("/11"));
        mPlayer.queueEventOsc(&fromOsc);

        QSignalSpy volumes(&mPlayer, &PdPlayer::volumeChanged);
        constexpr int FRAMES = 64;
        float out[FRAMES * PdPlayer::CHANNELS];
        mPlayer.render(out, FRAMES);
        mPlayer.deliverResults();
        QCOMPARE(mToggles, QStringList{"11/8 on"});
        QCOMPARE(volumes.size(), PdPlayer::commandBudget(FRAMES) - 1);
        for (int buffers = 1; volumes.size() < FLOOD && buffers < 100; ++buffers) {
            mPlayer.render(out, FRAMES);
            mPlayer.deliverResults();
        }
        QCOMPARE(volumes.size(), FLOOD);
        for (int i = 0; i < FLOOD; ++i) {
            QCOMPARE(volumes.at(i).at(0).toFloat(), float(i) / FLOOD);
        }
    }

    // A patch change with an audio thread running (this thread plays it): the
    // chord goes on in the new patch at the same pitches, the level never drops
    // by more than 20 dB, and ten changes in a row end on the last one with no
    // instance left behind. (That a macro of the same name keeps its value is
    // the main window test's.)
    void patchChangeCrossfadesUnderAChord()
    {
        mPlayer.setAudioThreadRunning(true);
        const QString patches = TestSupport::binDir() + "/patches/";
        for (const char* path : {"/3", "/5", "/-3/7", "/2"}) {
            toggle(path);
        }
        const double chord = AudioAnalysis::rmsDb(steady(0.5));

        const int instances = libpd_num_instances();
        QVERIFY(PatchLoader::loadVoice(&mPlayer, patches + "Organ.pd"));
        const QVector<float> during = render(0.3);
        for (int at = 0; at + 441 <= during.size(); at += 441) { // every 10 ms
            const double level = AudioAnalysis::rmsDb(during.mid(at, 441));
            QVERIFY2(level > chord - 20.0,
                     qPrintable(QString("%1 dB at %2 ms, chord %3 dB").arg(level).arg(at / 44).arg(chord)));
        }
        QCOMPARE(mPlayer.soundingNoteCount(), 4);

        // Ten changes in a row, a buffer apart: the last one plays, the chord
        // in it, and the pool is as it was.
        for (int i = 0; i < 10; ++i) {
            QVERIFY(PatchLoader::loadVoice(&mPlayer, patches + (i % 2 ? "Sine.pd" : "Pluck.pd")));
            render(BUFFER_SECONDS);
        }
        QVERIFY(std::abs(centsOff(render(1.0), 660.0)) < 0.1);
        QCOMPARE(libpd_num_instances(), instances);
        QCOMPARE(mPlayer.soundingNoteCount(), 4);
        mPlayer.setAudioThreadRunning(false);
    }

    void badPatchKeepsTheOldOneAndUnloadSilences()
    {
        QSignalSpy loaded(&mPlayer, &PdPlayer::patchLoaded);
        QSignalSpy names(&mPlayer, &PdPlayer::macroNamesReceived);
        toggle("/3");
        render(0.1);
        // A patch that does not open leaves the old one playing, note and all.
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("^Opening PD patch failed: "));
        QVERIFY(!mPlayer.loadPatch(QFileInfo(TestSupport::home() + "/no/such/arbo_main.pd")));
        QVERIFY(mPlayer.isPatchOpen());
        QCOMPARE(loaded.size() + names.size(), 0);
        QVERIFY(std::abs(centsOff(render(0.5), 660.0, 0)) < 0.5);

        // Unloading ends the note, reports the macros gone, and frees every
        // voice: no patch is left to report them stopped.
        mPlayer.unloadPatch();
        QVERIFY(!mPlayer.isPatchOpen());
        QCOMPARE(names.size(), 1);
        QVERIFY(names.at(0).at(0).toStringList().isEmpty());
        QCOMPARE(mPlayer.soundingNoteCount(), 0);

        // Commands are still carried out without a patch, over silence.
        mToggles.clear();
        toggle("/3");
        queue(ArboEvent(ArboEvent::BaseFrequency, 432.0f));
        QCOMPARE(AudioAnalysis::peak(render(0.1)), 0.0);
        QCOMPARE(mToggles, QStringList{"3/2 on"});
        QCOMPARE(mPlayer.baseFrequency(), 432.0f);
        toggle("/3");
        render(0.01);
    }

    void numbersParseUnderADecimalCommaLocale()
    {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("LC_ALL", "de_DE.UTF-8");
        child.setProcessEnvironment(env);
        child.start(QCoreApplication::applicationFilePath(), {"--comma-locale-child"});
        QVERIFY(child.waitForFinished(120000));
        const QString output = QString::fromUtf8(child.readAllStandardOutput()).trimmed();
        QVERIFY2(child.exitCode() != 77,
                 qPrintable("de_DE.UTF-8 is not available (install the Debian package locales and "
                            "generate it; scripts/install-deps.sh does): " +
                            output));
        QVERIFY2(child.exitCode() == 0, qPrintable(output + child.readAllStandardError()));
    }

    void noteTapAndBuiltInSound()
    {
        // The MIDI tap gets each note with its exact pitch, computed in double
        // precision, and "stop all"; with the built-in sound off the patch stays
        // silent while the note still counts as sounding.
        MidiNoteRing tap;
        mPlayer.setNoteTap(&tap);
        mPlayer.setBuiltInSound(false);
        queue(ArboEvent(ArboEvent::BaseFrequency, 261.6256f));
        toggle("/7");
        QCOMPARE(AudioAnalysis::peak(render(0.3)), 0.0);
        QCOMPARE(mPlayer.soundingNoteCount(), 1);
        MidiNoteRing::Note note;
        QVERIFY(tap.pop(note));
        QCOMPARE(note.type, std::int32_t(MidiNoteRing::NoteOn));
        QCOMPARE(note.frequency, 7.0 / 4.0 * double(261.6256f));
        QCOMPARE(note.voice, voiceOf(ArboRatio(7, 4)));

        // Out of range: a voice, no MIDI note.
        toggle("/-2/-2/-2/-2"); // 16 Hz
        render(BUFFER_SECONDS);
        QVERIFY(!tap.pop(note));

        mPlayer.setBuiltInSound(true);
        queue(ArboEvent(ArboEvent::AllNotesOff, 1.0f));
        render(BUFFER_SECONDS);
        QVector<std::int32_t> types;
        while (tap.pop(note)) {
            types << note.type;
        }
        QVERIFY(types.size() >= 3); // two note-offs (in any order), then "stop all"
        QCOMPARE(types.last(), std::int32_t(MidiNoteRing::AllNotesOff));
        mPlayer.setNoteTap(nullptr);
    }


private:
    void queue(const ArboEvent& event) { mPlayer.queueEventGui(&event); }
    void toggle(const QString& path) { queue(ArboNoteEvent(path)); }
    QVector<float> render(double seconds)
    {
        const std::vector<float> left = OfflinePlayer::render(mPlayer, seconds);
        return QVector<float>(left.begin(), left.end());
    }
    // The last quarter of a second of `seconds` rendered.
    QVector<float> steady(double seconds)
    {
        const QVector<float> left = render(seconds);
        return left.mid(left.size() - SAMPLE_RATE / 4);
    }
    // Renders until every voice is free (at most `seconds`); the time it took.
    double renderUntilAllFree(double seconds)
    {
        double elapsed = 0.0;
        for (; elapsed < seconds && mPlayer.soundingNoteCount() > 0; elapsed += BUFFER_SECONDS) {
            render(BUFFER_SECONDS);
        }
        return elapsed;
    }
    int voiceOf(const ArboRatio& ratio) const { return OfflinePlayer::voiceOf(mPlayer, ratio); }

    PdPlayer mPlayer;
    QStringList mToggles; // "3/2 on", "3/2 off", as the player reported them
};


// The player under a German locale, started in the program's own order (the
// application sets the locale from the environment first): the macro
// defaults and the pitch must come out as under "C".
int commaLocaleChild(int argc, char** argv)
{
    TestSupport::isolateHome();
    QApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Merrow Tuning Arbo"));
    if (std::strcmp(std::localeconv()->decimal_point, ",") != 0) {
        std::printf("the environment's locale has no decimal comma here\n");
        return 77;
    }
    PdPlayer player;
    QList<float> defaults;
    QObject::connect(&player, &PdPlayer::macroDefaultsReceived,
                     [&](const QList<float>& d) { defaults = d; });
    if (!player.init() || player.initAudio(2, SAMPLE_RATE) != 0 || !loadSine(player)) {
        std::printf("the patch did not load\n");
        return 1;
    }
    // Read under a comma, the default 0.3 would be 0.
    if (defaults != QList<float>{0.1f, 0.3f}) {
        std::printf("macro defaults misread\n");
        return 1;
    }
    const ArboNoteEvent fifth(QStringLiteral("/3"));
    player.queueEventGui(&fifth);
    const std::vector<float> out = OfflinePlayer::render(player, 3.0);
    const double cents = centsOff(QVector<float>(out.begin(), out.end()), 660.0);
    std::printf("fifth %.6f cents off\n", cents);
    return std::abs(cents) < 0.1 ? 0 : 1;
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
