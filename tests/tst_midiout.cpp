// MIDI out: the encoders' exact bytes against tunings computed here from the
// ratios, and the real path (player -> ring -> MIDI thread -> RtMidi -> a
// private JACK server -> a JACK MIDI client of this test).

#include "jackfixture.h"
#include "jackmidisender.h"
#include "midi/midioutput.h"
#include "midi/midisettings.h"
#include "midi/midituning.h"
#include "midi/mpeencoder.h"
#include "midi/mtsencoder.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "model/arboratio.h"
#include "offlineplayer.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/midioptionswidget.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QSpinBox>

#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

using Bytes = std::vector<std::uint8_t>;
using Messages = std::vector<Bytes>;

namespace {

// The base frequency of the tests: middle C, so that no ratio lands on a key.
constexpr float BASE = 261.6256f;

double frequencyOf(const char* path, float base = BASE)
{
    const ArboRatio ratio = ArboRatio::pathRatio(ArboPath(QString::fromLatin1(path)));
    return double(ratio.numerator()) / double(ratio.denominator()) * double(base);
}

// Cents above A4 = 440 Hz, by the natural logarithm.
double centsAboveA4(double frequency)
{
    return 1200.0 * std::log(frequency / 440.0) / std::log(2.0);
}

// The key and bend that sound `frequency` at ±range semitones, worked out in
// cents here rather than with the program's arithmetic.
Bytes mpeBend(int channel, double frequency, int range, int* key)
{
    const double cents = centsAboveA4(frequency);
    *key = 69 + int(std::floor(cents / 100.0 + 0.5));
    const double rest = cents - 100.0 * (*key - 69);
    const int bend = 8192 + int(std::floor(rest * 8192.0 / (100.0 * range) + 0.5));
    return {std::uint8_t(0xe0 + channel), std::uint8_t(bend % 128), std::uint8_t(bend / 128)};
}

Bytes mtsRetune(int key, double frequency)
{
    const long units = long(std::floor((6900.0 + centsAboveA4(frequency)) * 16384.0 / 100.0 + 0.5));
    const auto byte = [](long value) { return std::uint8_t(value); };
    return {0xf0, 0x7f, 0x7f, 0x08, 0x02, 0x00, 0x01, byte(key), byte(units / 16384),
            byte(units / 128 % 128), byte(units % 128), 0xf7};
}

Bytes cc(int channel, int controller, int value)
{
    return {std::uint8_t(0xb0 + channel), std::uint8_t(controller), std::uint8_t(value)};
}

void rpn(Messages& out, int channel, int number, int msb, int lsb = -1)
{
    out.push_back(cc(channel, 101, 0));
    out.push_back(cc(channel, 100, number));
    out.push_back(cc(channel, 6, msb));
    if (lsb >= 0) {
        out.push_back(cc(channel, 38, lsb));
    }
    out.push_back(cc(channel, 101, 127));
    out.push_back(cc(channel, 100, 127));
}

Messages mpeSetup(int members, int range)
{
    Messages out;
    rpn(out, 0, 6, members);
    for (int c = 1; c <= members; ++c) {
        rpn(out, c, 0, range, 0);
    }
    return out;
}

Messages mtsSetup()
{
    Messages out;
    rpn(out, 0, 3, 0);
    return out;
}

const char* const CHORD[] = {"/", "/5", "/3", "/7"}; // 1/1 5/4 3/2 7/4

// The chord's bytes on a fresh MPE encoder: channels 2..5 in order.
Messages mpeChord(int range)
{
    Messages out;
    for (int i = 0; i < 4; ++i) {
        int key = 0;
        out.push_back(mpeBend(1 + i, frequencyOf(CHORD[i]), range, &key));
        out.push_back({std::uint8_t(0x91 + i), std::uint8_t(key), 100});
    }
    return out;
}

QString dump(const Messages& messages)
{
    QStringList lines;
    for (const Bytes& m : messages) {
        lines << QByteArray(reinterpret_cast<const char*>(m.data()), int(m.size())).toHex(' ');
    }
    return lines.join(QLatin1String(" | "));
}

} // namespace

class TestMidiOut : public QObject
{
    Q_OBJECT

private slots:
    void mpeBytes()
    {
        MpeEncoder encoder(2, 15);
        Messages out;
        encoder.setup(out);
        QCOMPARE(dump(out), dump(mpeSetup(15, 2)));

        // The chord on four member channels, nearest keys, exact bends.
        out.clear();
        for (int voice = 0; voice < 4; ++voice) {
            QVERIFY(encoder.noteOn(voice, frequencyOf(CHORD[voice]), out));
        }
        QCOMPARE(dump(out), dump(mpeChord(2)));

        // Off for 5/4, a repeated off does nothing, then all notes off.
        out.clear();
        encoder.noteOff(1, out);
        encoder.noteOff(1, out);
        int key = 0;
        mpeBend(2, frequencyOf("/5"), 2, &key);
        QCOMPARE(dump(out), dump({{0x82, std::uint8_t(key), 64}}));
        out.clear();
        encoder.allNotesOff(out);
        Messages expected;
        for (int i : {0, 2, 3}) {
            mpeBend(1 + i, frequencyOf(CHORD[i]), 2, &key);
            expected.push_back({std::uint8_t(0x81 + i), std::uint8_t(key), 64});
        }
        for (int c = 0; c <= 15; ++c) {
            expected.push_back(cc(c, 123, 0));
        }
        QCOMPARE(dump(out), dump(expected));
        QCOMPARE(encoder.soundingCount(), 0);

        // Takeover: 16 notes on 15 member channels. The 16th ends the oldest
        // note (voice 0, on the channel used longest ago) and takes its channel.
        MpeEncoder full(48, 15);
        out.clear();
        for (int voice = 0; voice < 15; ++voice) {
            QVERIFY(full.noteOn(voice, 300.0 + 10.0 * voice, out));
        }
        out.clear();
        QVERIFY(full.noteOn(15, frequencyOf("/3"), out));
        int oldKey = 0;
        mpeBend(1, 300.0, 48, &oldKey);
        const Bytes bend = mpeBend(1, frequencyOf("/3"), 48, &key);
        QCOMPARE(dump(out),
                 dump({{0x81, std::uint8_t(oldKey), 64}, bend, {0x91, std::uint8_t(key), 100}}));
        QCOMPARE(full.soundingCount(), 15);

        // A note the keyboard cannot reach, even bent, is not played.
        out.clear();
        QVERIFY(!encoder.noteOn(5, 19000.0, out));
        QVERIFY(out.empty());
    }

    void mtsBytes()
    {
        MtsEncoder encoder;
        Messages out;
        encoder.setup(out);
        QCOMPARE(dump(out), dump(mtsSetup()));

        // 11/8 and 13/8: retune the nearest key, then play it.
        out.clear();
        QVERIFY(encoder.noteOn(0, frequencyOf("/11"), out));
        QVERIFY(encoder.noteOn(1, frequencyOf("/13"), out));
        const int key11 = int(std::floor(centsAboveA4(frequencyOf("/11")) / 100 + 69.5));
        const int key13 = int(std::floor(centsAboveA4(frequencyOf("/13")) / 100 + 69.5));
        QCOMPARE(dump(out), dump({mtsRetune(key11, frequencyOf("/11")),
                                  {0x90, std::uint8_t(key11), 100},
                                  mtsRetune(key13, frequencyOf("/13")),
                                  {0x90, std::uint8_t(key13), 100}}));

        // A second note nearest the sounding key 11/8 uses never retunes it:
        // it goes to the next silent key, the lower one first.
        out.clear();
        const double near11 = frequencyOf("/11") * 1.001;
        QVERIFY(encoder.noteOn(2, near11, out));
        QCOMPARE(dump(out),
                 dump({mtsRetune(key11 - 1, near11), {0x90, std::uint8_t(key11 - 1), 100}}));
        out.clear();
        encoder.allNotesOff(out);
        QCOMPARE(dump(out), dump({{0x80, std::uint8_t(key11), 64},
                                  {0x80, std::uint8_t(key13), 64},
                                  {0x80, std::uint8_t(key11 - 1), 64},
                                  cc(0, 123, 0)}));
    }

    void accuracy()
    {
        // Every frequency the player plays, from 20 Hz up to what each method
        // reaches, sweeping through ratios in small steps. The worst errors
        // in cents: MPE at ±2 and ±48 semitones (half a step of 48 × 100 /
        // 8192 cents), and MTS.
        double worst[3] = {0.0, 0.0, 0.0};
        const auto note = [&worst](int i, double played, double wanted) {
            worst[i] = std::max(worst[i], std::fabs(centsAboveA4(played) - centsAboveA4(wanted)));
        };
        for (double f = 20.5; f < 12000.0; f *= 1.000713) {
            int key = 0, bend = 0;
            std::uint8_t word[3];
            QVERIFY(MidiTuning::keyAndBend(f, 2, key, bend));
            note(0, MidiTuning::bendFrequency(key, bend, 2), f);
            QVERIFY(MidiTuning::keyAndBend(f, 48, key, bend));
            note(1, MidiTuning::bendFrequency(key, bend, 48), f);
            QVERIFY(MidiTuning::tuningWord(f, word));
            note(2, MidiTuning::wordFrequency(word), f);
        }
        QVERIFY2(worst[0] < 0.05 && worst[1] < 0.3 && worst[2] < 0.01,
                 qPrintable(QString::asprintf("%g %g %g", worst[0], worst[1], worst[2])));
    }

    void optionsWidget()
    {
        // No MIDI system at all: a JACK server nobody serves, no ALSA device.
        JackFixture::applyNoDeviceToThisProcess();
        QVERIFY(QDir().mkpath(TestSupport::configDir()));
        MidiSettings settings;
        MidiOutput output;
        QVERIFY(!output.open(settings));
        QVERIFY2(output.status().startsWith(QLatin1String("No MIDI system")),
                 qPrintable(output.status()));
        connect(&settings, &MidiSettings::changed, &output, [&] { output.open(settings); });

        MidiOptionsWidget widget(&settings, &output);
        widget.show();
        auto* status = widget.findChild<QLabel*>(QStringLiteral("midiStatus"));
        auto* method = widget.findChild<QComboBox*>(QStringLiteral("midiMethod"));
        auto* bend = widget.findChild<QSpinBox*>(QStringLiteral("midiBendRange"));
        auto* enabled = widget.findChild<QCheckBox*>(QStringLiteral("midiEnabled"));
        QVERIFY(status && method && bend && enabled);
        QCOMPARE(status->text(), output.status());
        QVERIFY(bend->isEnabled());

        QSignalSpy changed(&settings, &MidiSettings::changed);
        method->setCurrentIndex(method->findData(MidiSettings::METHOD_MTS));
        emit method->activated(method->currentIndex());
        QCOMPARE(changed.count(), 1);
        QCOMPARE(settings.mMethod, MidiSettings::METHOD_MTS);
        QVERIFY(!bend->isEnabled()); // a bend range means nothing to MTS
        QVERIFY(status->text().startsWith(QLatin1String("No MIDI system")));

        enabled->setChecked(false);
        QCOMPARE(changed.count(), 2);
        QVERIFY(!settings.mEnabled);
        QCOMPARE(status->text(), QStringLiteral("MIDI output is off"));
        QVERIFY(!method->isEnabled());
    }

    void jackEndToEnd()
    {
        QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
        JackFixture jack;
        QVERIFY2(jack.start(), qPrintable(jack.error()));
        jack.applyToThisProcess();

        JackMidiSender capture;
        QVERIFY(capture.open(QStringLiteral("midicapture")));

        PdPlayer player;
        QVERIFY(player.init());
        auto queue = [&player](const ArboEvent& event) {
            player.queueEventGui(&event);
            OfflinePlayer::runBuffer(player); // this thread plays the audio thread
        };
        auto toggle = [&](const char* path) { queue(ArboNoteEvent(QString::fromLatin1(path))); };
        queue(ArboEvent(ArboEvent::BaseFrequency, BASE));

        MidiOutput output;
        output.attach(&player);
        MidiSettings settings;
        QVERIFY2(output.open(settings, MidiOutput::Api::Jack), qPrintable(output.status()));
        QVERIFY(output.status().contains(QLatin1String("virtual port")));
        QVERIFY(capture.connectFrom(QLatin1String(MidiOutput::PORT_NAME)));

        // The chord: the zone and bend ranges first, then four notes.
        for (const char* path : CHORD) {
            toggle(path);
        }
        Messages expected = mpeSetup(15, 2);
        const Messages chord = mpeChord(2);
        expected.insert(expected.end(), chord.begin(), chord.end());
        QTRY_VERIFY_WITH_TIMEOUT(capture.poll() >= int(expected.size()), 10000);
        QCOMPARE(dump(capture.messages()), dump(expected));

        // Switched off: the output's last word is all-notes-off on every
        // channel (the offs of "stop all" are the encoder's and the player's
        // to check); then the player's notes go nowhere, and its own sound
        // plays.
        queue(ArboEvent(ArboEvent::AllNotesOff, 0.0f));
        QTRY_VERIFY_WITH_TIMEOUT(capture.poll() >= int(expected.size()) + 20, 10000);
        capture.messages().clear();
        settings.mEnabled = false;
        QVERIFY(!output.open(settings, MidiOutput::Api::Jack));
        expected.clear();
        for (int c = 0; c <= 15; ++c) {
            expected.push_back(cc(c, 123, 0));
        }
        QTRY_VERIFY_WITH_TIMEOUT(capture.poll() >= 16, 10000);
        QCOMPARE(dump(capture.messages()), dump(expected));
        QVERIFY(player.builtInSound());
        toggle("/7");
        queue(ArboEvent(ArboEvent::AllNotesOff, 0.0f));

        // MTS, without the built-in sound: 11/8 and 13/8.
        capture.messages().clear();
        settings.mEnabled = true;
        settings.mMethod = MidiSettings::METHOD_MTS;
        settings.mBuiltInSound = false;
        QVERIFY2(output.open(settings, MidiOutput::Api::Jack), qPrintable(output.status()));
        QVERIFY(!player.builtInSound());
        QVERIFY(capture.connectFrom(QLatin1String(MidiOutput::PORT_NAME)));
        toggle("/11");
        toggle("/13");
        MtsEncoder reference;
        expected = mtsSetup();
        reference.noteOn(0, frequencyOf("/11"), expected);
        reference.noteOn(1, frequencyOf("/13"), expected);
        QTRY_VERIFY_WITH_TIMEOUT(capture.poll() >= int(expected.size()), 10000);
        // Nothing from the time it was off: the first bytes are the set-up.
        QCOMPARE(dump(capture.messages()), dump(expected));
        queue(ArboEvent(ArboEvent::AllNotesOff, 0.0f));

        // Connected to a chosen port that goes away while playing: the output
        // says so and the program goes on.
        settings.mMethod = MidiSettings::METHOD_MPE;
        settings.mBuiltInSound = true;
        settings.mPort = capture.inputPortName();
        QVERIFY(output.portNames(MidiOutput::Api::Jack).contains(settings.mPort));
        QVERIFY2(output.open(settings, MidiOutput::Api::Jack), qPrintable(output.status()));
        capture.messages().clear();
        // A JACK server without real-time scheduling may lose a late
        // client's cycle, and the MIDI in it: the note is played again,
        // at most three times, until it arrives.
        bool arrived = false;
        for (int attempt = 0; attempt < 3 && !arrived; ++attempt) {
            toggle("/");
            arrived = QTest::qWaitFor(
                [&] { return capture.poll() >= int(mpeSetup(15, 2).size()) + 2; }, 5000);
            toggle("/");
        }
        QVERIFY(arrived);
        capture.close();
        QTRY_VERIFY_WITH_TIMEOUT(output.status().contains(QLatin1String("has gone")), 10000);
        const std::uint64_t sent = output.notesSent();
        toggle("/3");
        QTRY_COMPARE_WITH_TIMEOUT(output.notesSent(), sent + 1, 10000);

        output.close();
        QVERIFY(player.builtInSound());
    }

    void settingsFile()
    {
        QVERIFY(QDir().mkpath(TestSupport::configDir()));
        MidiSettings settings;
        QVERIFY(settings.init());
        QVERIFY(QFileInfo::exists(TestSupport::configDir() + QStringLiteral("/midi.json")));
        settings.mMethod = MidiSettings::METHOD_MTS;
        settings.mBendRange = 48;
        settings.mPort = QStringLiteral("synth:in");
        QVERIFY(settings.save());
        MidiSettings again;
        QVERIFY(again.init());
        QVERIFY(again == settings);
        // Hostile values are clamped.
        QVERIFY(TestSupport::writeFile(
            again.path(), R"({"bendRange": 1000, "memberChannels": -3, "method": "X"})"));
        QVERIFY(again.load());
        QCOMPARE(again.mBendRange, 96);
        QCOMPARE(again.mMemberChannels, 1);
        QCOMPARE(again.mMethod, MidiSettings::METHOD_MTS);
    }
};

ARBO_TEST_MAIN(TestMidiOut)
#include "tst_midiout.moc"
