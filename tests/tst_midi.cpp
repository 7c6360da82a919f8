// MIDI in and out. In: the parser against the standard's rules; random
// bytes through the parser into the real player; the live path (a JACK MIDI
// client of this test -> a private JACK server -> RtMidi -> the player on its
// audio callback), with the ports of "midiPorts" coming and going (the whole
// program playing from a keyboard is tst_endtoend's). Out: the
// encoders' exact bytes against tunings computed here from the ratios, and
// the real path (player -> ring -> MIDI thread -> RtMidi -> a private JACK
// server -> a JACK MIDI client of this test).

#include "input/inputmap.h"
#include "jackfixture.h"
#include "jackmidisender.h"
#include "jackplayback.h"
#include "midi/midiinparser.h"
#include "midi/midiinput.h"
#include "midi/midioutput.h"
#include "midi/midisettings.h"
#include "midi/midituning.h"
#include "midi/mpeencoder.h"
#include "midi/mtsencoder.h"
#include "model/arbo.h"
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
#include <QSignalSpy>
#include <QSpinBox>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

using Bytes = JackMidiSender::Bytes;
using Messages = std::vector<Bytes>;

namespace {

InputMap::Bindings defaultBindings()
{
    InputMap map;
    map.initWithDefaults();
    return map.bindings();
}

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

class TestMidi : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;
    Arbo mArbo;
    // What the player's signals reported, on this thread: notes ("1/1 on"),
    // volumes, voice volumes.
    QStringList mNotes;
    QList<float> mVolumes;
    QList<float> mVoiceVolumes;

    // Takes in what the player has reported so far, then forgets it.
    void forgetReports()
    {
        QCoreApplication::sendPostedEvents();
        mNotes.clear();
        mVolumes.clear();
        mVoiceVolumes.clear();
    }

private slots:
    void initTestCase()
    {
        // As in a performance: no note-by-note debug lines.
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
        TestSupport::captureLog(true);
        OfflinePlayer::setUp(mPlayer, mArbo, "Sine.pd");
        QVERIFY(!QTest::currentTestFailed());
        // Queued: the player emits on the audio thread.
        const auto note = [this](const ArboRatio& ratio, bool on) {
            mNotes << ratio.toString() + (on ? " on" : " off");
        };
        const auto queued = Qt::QueuedConnection;
        connect(&mPlayer, &PdPlayer::noteToggled, this, note, queued);
        connect(&mPlayer, &PdPlayer::volumeChanged, this, [this](float v) { mVolumes << v; }, queued);
        connect(&mPlayer, &PdPlayer::voiceVolumeChanged, this, [this](float v) { mVoiceVolumes << v; },
                queued);
    }
    // The parser against the standard's rules: the messages that come out of
    // a stream of bytes, and how many were malformed.
    void parser()
    {
        static const char* const names[] = {"off", "on", "poly", "cc", "program", "pressure", "bend"};
        const auto row = [](const char* name, const char* bytes, const char* messages, int malformed) {
            MidiInParser parser;
            MidiInParser::Message m;
            QStringList got;
            for (const char byte : QByteArray::fromHex(QByteArray(bytes).replace(' ', ""))) {
                if (parser.feed(std::uint8_t(byte), m)) {
                    got << QString::asprintf("%s %d %d %d", names[(m.type >> 4) - 8], m.channel,
                                             m.data1, m.data2);
                }
            }
            const int bad = int(parser.takeMalformed());
            QCOMPARE(QStringLiteral("%1: %2, %3 malformed").arg(name, got.join('|')).arg(bad),
                     QStringLiteral("%1: %2, %3 malformed").arg(name, messages).arg(malformed));
            QCOMPARE(parser.takeMalformed(), 0u);
        };
        row("note on, off", "904564 804540", "on 0 69 100|off 0 69 64", 0);
        row("running status, velocity 0 is off",
            "9345644764 4500 4700", "on 3 69 100|on 3 71 100|off 3 69 0|off 3 71 0", 0);
        row("real-time inside messages",
            "90f845fe64 fab0 07f9 7f ff 4500", "on 0 69 100|cc 0 7 127|cc 0 69 0", 0);
        row("all channel voice messages", "af4001 c205 d340 e40040 8f0000",
            "poly 15 64 1|program 2 5 0|pressure 3 64 0|bend 4 0 64|off 15 0 0", 0);
        row("SysEx skipped, running status cancelled",
            "904564 f07e0045 90 f7 4564 b0077f", "on 0 69 100|cc 0 7 127", 2);
        row("SysEx ended by a status byte", "f0010203 904564", "on 0 69 100", 0);
        row("system common with data bytes",
            "f145 b00740 f20102 0741 f305 f6 45 f4 f5 45", "cc 0 7 64", 4);
        row("stray end of SysEx cancels running status", "904564 f7 4564", "on 0 69 100", 2);
        row("data without status", "4564 904564", "on 0 69 100", 2);
        row("status abandons a partial message", "9045 b10740 c1", "cc 1 7 64", 1);
        row("real-time between status and data", "f1 f8 10 90 f8 45 64", "on 0 69 100", 0);
    }

    // Without any MIDI system the input stays off and says why. Its own path
    // still takes bytes into the real player: a running status across
    // events, then random bytes in random chunks with a note that a click
    // holds: nothing crashes, the note sounds on, and the malformed input is
    // reported.
    void noSystemAndFuzz()
    {
        JackFixture::applyNoDeviceToThisProcess();
        MidiInput input;
        input.attach(&mPlayer);
        TestSupport::clearLog();
        QVERIFY(!input.open(defaultBindings()));
        QVERIFY2(input.status().startsWith(QLatin1String("No MIDI system")),
                 qPrintable(input.status()));
        QVERIFY(TestSupport::loggedLines().join('\n').contains(QLatin1String("MIDI input is off")));

        // Running status across events (RtMidi hands them over one by one),
        // on channel 16, note-offs as note-ons of velocity 0, a clock byte.
        const QString key71 = ArboRatio::pathRatio(defaultBindings().midiNotes[71].path()).toString();
        forgetReports();
        for (const Bytes& event : {Bytes{0x9f, 69}, Bytes{100, 71, 0xf8, 100}, Bytes{69, 0, 71, 0}}) {
            input.feed(event.data(), event.size());
            OfflinePlayer::runBuffer(mPlayer);
        }
        QCoreApplication::sendPostedEvents();
        QCOMPARE(mNotes, (QStringList{"1/1 on", key71 + " on", "1/1 off", key71 + " off"}));

        const ArboNoteEvent click(QStringLiteral("/"));
        mPlayer.queueEventGui(&click);
        OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS);
        auto heldVoice = [this] { return OfflinePlayer::voiceOf(mPlayer, ArboRatio(1, 1)); };
        const int held = heldVoice();
        QVERIFY(held >= 0);
        const std::int32_t heldSeq = mPlayer.voices()[held].seqId;

        // About one note-on in 340 random bytes lands on a bound key. A buffer
        // every 25 bytes keeps the notes that random offs leave releasing well
        // inside the 128 voices (with a longer release a random macro chose),
        // so no voice is stolen.
        std::mt19937 random(20240611);
        std::uniform_int_distribution<int> byte(0, 255);
        std::uniform_int_distribution<int> chunk(1, 49);
        std::uint8_t bytes[64];
        for (int round = 0; round < 4000; ++round) {
            const int size = chunk(random);
            for (int i = 0; i < size; ++i) {
                bytes[i] = std::uint8_t(byte(random));
            }
            input.feed(bytes, std::size_t(size));
            OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS);
        }
        QVERIFY(input.messagesReceived() > 1000 && input.eventsQueued() > 100);
        QCOMPARE(heldVoice(), held);
        QCOMPARE(mPlayer.voices()[held].seqId, heldSeq);
        TestSupport::clearLog();
        input.checkInput();
        const QString report = TestSupport::loggedLines().join('\n');
        QVERIFY2(report.contains(QLatin1String("malformed")) && report.count('\n') <= 1,
                 qPrintable(report));

        const ArboEvent stop(ArboEvent::AllNotesOff, 0.0f);
        mPlayer.queueEventGui(&stop);
        OfflinePlayer::render(mPlayer, 1.0);
        forgetReports();
    }

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

        auto queue = [this](const ArboEvent& event) {
            mPlayer.queueEventGui(&event);
            OfflinePlayer::runBuffer(mPlayer); // this thread plays the audio thread
        };
        auto toggle = [&](const char* path) { queue(ArboNoteEvent(QString::fromLatin1(path))); };
        queue(ArboEvent(ArboEvent::BaseFrequency, BASE));

        MidiOutput output;
        output.attach(&mPlayer);
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
        QVERIFY(mPlayer.builtInSound());
        toggle("/7");
        queue(ArboEvent(ArboEvent::AllNotesOff, 0.0f));

        // On again, without the built-in sound, connected to a chosen port:
        // nothing from the time it was off comes, the first bytes are the
        // set-up. The port goes away while playing: the output says so and the
        // program goes on. (MTS is the encoder's test.)
        settings.mEnabled = true;
        settings.mBuiltInSound = false;
        settings.mPort = capture.inputPortName();
        QVERIFY(output.portNames(MidiOutput::Api::Jack).contains(settings.mPort));
        capture.messages().clear();
        QVERIFY2(output.open(settings, MidiOutput::Api::Jack), qPrintable(output.status()));
        QVERIFY(!mPlayer.builtInSound());
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
        QCOMPARE(capture.messages().front(), mpeSetup(15, 2).front());
        capture.close();
        QTRY_VERIFY_WITH_TIMEOUT(output.status().contains(QLatin1String("has gone")), 10000);
        const std::uint64_t sent = output.notesSent();
        toggle("/3");
        QTRY_COMPARE_WITH_TIMEOUT(output.notesSent(), sent + 1, 10000);

        output.close();
        QVERIFY(mPlayer.builtInSound());
    }

    // The file is made at the first start; hostile values in it are clamped,
    // an unknown method keeps the one in force.
    void settingsFile()
    {
        QVERIFY(QDir().mkpath(TestSupport::configDir()));
        MidiSettings settings;
        QVERIFY(settings.init());
        QVERIFY(QFileInfo::exists(TestSupport::configDir() + QStringLiteral("/midi.json")));
        QVERIFY(TestSupport::writeFile(
            settings.path(), R"({"bendRange": 1000, "memberChannels": -3, "method": "X"})"));
        QVERIFY(settings.load());
        QCOMPARE(settings.mBendRange, 96);
        QCOMPARE(settings.mMemberChannels, 1);
        QCOMPARE(settings.mMethod, MidiSettings::METHOD_MPE);
    }

    // The live path on JACK, with the player on its audio callback.
    void jackPlaysThePlayer()
    {
        JackPlayback playback;
        QVERIFY2(playback.start(&mPlayer, TestSupport::binDir() + "/patches/Sine.pd", 44100, 256),
                 qPrintable(playback.error()));
        JackMidiSender keys;
        QVERIFY(keys.open(QStringLiteral("arbo-keys")));

        // The input connects the keyboard by a part of its name, in any case.
        InputMap::Bindings bindings = defaultBindings();
        bindings.midiPorts = QStringList{QStringLiteral("ARBO-KEYS"), QStringLiteral("nowhere")};
        TestSupport::clearLog();
        bindings.midiVelocity = true;
        MidiInput input;
        input.attach(&mPlayer);
        QVERIFY2(input.open(bindings, MidiInput::Api::Jack), qPrintable(input.status()));
        QCOMPARE(input.connectedPorts(), QStringList{keys.portName()});
        QVERIFY2(input.status().contains(QLatin1String("(JACK), connected to arbo-keys:out")),
                 qPrintable(input.status()));
        QVERIFY(input.portName().startsWith(QLatin1String("Merrow Tuning Arbo")));
        QTRY_COMPARE_WITH_TIMEOUT(keys.connections(), 1, 10000);

        // Note 69 is the 1/1, while held; its velocity sets the voice volume
        // first.
        forgetReports();
        QVERIFY(keys.sendUntil({0x90, 69, 127}, [&] { return !mNotes.isEmpty(); }));
        QVERIFY(!mVoiceVolumes.isEmpty() && mVoiceVolumes.count(1.0f) == mVoiceVolumes.size());
        QVERIFY(keys.sendUntil({0x80, 69, 64}, [&] { return mNotes.size() >= 2; }));
        QCOMPARE(mNotes, (QStringList{"1/1 on", "1/1 off"}));

        // Controller 7 is the master volume.
        forgetReports();
        QVERIFY(keys.sendUntil({0xb5, 7, 64}, [&] { return !mVolumes.isEmpty(); }));
        QCOMPARE(mVolumes.back(), 64.0f / 127.0f);

        // The keyboard goes and comes back: it is let go of and connected
        // again. A text that no port matches is said once, and again only
        // after a port had matched it.
        const QString port = keys.portName();
        keys.close();
        QTRY_VERIFY_WITH_TIMEOUT(input.connectedPorts().isEmpty(), 10000);
        QVERIFY(keys.open(QStringLiteral("arbo-keys")));
        QTRY_COMPARE_WITH_TIMEOUT(input.connectedPorts(), QStringList{port}, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(keys.connections(), 1, 10000);
        const QStringList log = TestSupport::loggedLines();
        auto count = [&log](const QString& text) { return log.filter(text).size(); };
        QCOMPARE(count(QStringLiteral("connected \"%1\" (for \"ARBO-KEYS\")").arg(port)), 2);
        QCOMPARE(count(QStringLiteral("\"%1\" has gone").arg(port)), 1);
        QCOMPARE(count(QStringLiteral("no port matches \"ARBO-KEYS\"")), 1);
        QCOMPARE(count(QStringLiteral("no port matches \"nowhere\"")), 1);

        // A flood at the highest rate JACK MIDI carries, for ten seconds, with
        // the 1/1 held: its key again and again, a key and a pitch bend that
        // play nothing, clock bytes. The 1/1 sounds on, the log gets a line a
        // second at most of each kind, and the input answers at once after.
        QVERIFY(keys.sendUntil({0x90, 69, 100}, [&] { return mNotes.contains("1/1 on"); }));
        const std::uint64_t before = input.messagesReceived();
        TestSupport::clearLog();
        forgetReports();
        keys.flood({{0x90, 69, 100}, {0x91, 10, 100}, {0xe0, 0, 64}, {0xf8}, {0x81, 10, 0}});
        QElapsedTimer flood;
        flood.start();
        while (flood.elapsed() < 10000) {
            QTest::qWait(250);
            QVERIFY(mPlayer.soundingNoteCount() >= 1);
        }
        keys.stopFlood();
        const std::uint64_t received = input.messagesReceived() - before;
        const QStringList floodLog = TestSupport::loggedLines();
        QVERIFY(received > 100000);
        QVERIFY2(floodLog.size() <= 40, qPrintable(floodLog.join('\n')));
        QVERIFY2(!mNotes.contains(QLatin1String("1/1 off")), qPrintable(mNotes.join(',')));
        forgetReports();
        QVERIFY(keys.sendUntil({0x80, 69, 0}, [&] { return !mNotes.isEmpty(); }));
        QCOMPARE(mNotes, QStringList{"1/1 off"});

        input.close();
        QCOMPARE(input.status(), QStringLiteral("MIDI input is off"));
    }
};

ARBO_TEST_MAIN(TestMidi)
#include "tst_midi.moc"
