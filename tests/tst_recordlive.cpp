// Recording live, on a private JACK server (the dummy driver as the sound
// card): the audio output's own callback plays, the recorder keeps what goes
// to the device and logs the commands, and arbo-render, run on that log,
// gives the same samples apart from the first buffer. And the real program,
// recording when a SIGTERM ends it, leaves a valid sound file and a finished
// log.

#include "audioanalysis.h"
#include "jackfixture.h"
#include "model/arbonoteevent.h"
#include "recording/performancelog.h"
#include "recording/recorder.h"
#include "recording/recordingsettings.h"
#include "sound/paaudiooutput.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QDir>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QUdpSocket>

#include <cmath>

namespace {

constexpr int PERIOD = 256;

} // namespace

class TestRecordLive : public QObject
{
    Q_OBJECT

    JackFixture mJack;
    QTemporaryDir mFolder;

private slots:
    void initTestCase()
    {
        QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
        QVERIFY2(mJack.start(44100, PERIOD), qPrintable(mJack.error()));
        mJack.applyToThisProcess();
    }

    void liveRecordingMatchesItsOfflineRender()
    {
        PdPlayer player;
        RecordingSettings options;
        options.mFolder = mFolder.path();
        options.mFormat = AudioFileWriter::WavFloat;
        Recorder recorder(&player, &options);
        PaAudioOutput output;
        QVERIFY(player.init());
        QVERIFY(PatchLoader::installShellPatches());
        QVERIFY(output.init(PERIOD, -1, &player));
        QVERIFY(PatchLoader::loadVoice(&player, TestSupport::binDir() + "/patches/Sine.pd"));
        // The patch plays a while before the recording begins: the log
        // starts with it in its header.
        QSignalSpy levels(&player, &PdPlayer::levelMeasured);
        QTRY_VERIFY(levels.count() >= 10);

        QVERIFY(recorder.start());
        QTRY_VERIFY(recorder.elapsedSeconds() > 0.2);
        for (const char* path : {"/", "/3", "/5"}) {
            const ArboNoteEvent note{QString::fromLatin1(path)};
            player.queueEventGui(&note);
        }
        QTRY_VERIFY_WITH_TIMEOUT(recorder.elapsedSeconds() > 1.5, 30000);
        recorder.stop();
        output.term();
        QCOMPARE(recorder.lostFrames(), 0u);

        QString error;
        const AudioAnalysis::Wav live = AudioAnalysis::readSoundFile(recorder.audioPath(), &error);
        QVERIFY2(live.frames() > 44100, qPrintable(error));
        const QVector<float> left = live.channel(0);
        for (double ratio : {1.0, 1.5, 1.25}) {
            const AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
                left.constData(), left.size() - 22050, left.size(), 440.0 * ratio, 44100.0);
            QVERIFY(tone.minAmplitude > 0.01);
            QVERIFY(std::fabs(AudioAnalysis::cents(tone.frequency, 440.0 * ratio)) < 0.01);
        }
        const QString offline = mFolder.filePath("offline.wav");
        QCOMPARE(QProcess::execute(TestSupport::binDir() + "/arbo-render",
                                   {recorder.logPath(), offline, "--quiet"}),
                 0);
        const AudioAnalysis::Wav again = AudioAnalysis::readSoundFile(offline, &error);
        QCOMPARE(again.frames(), live.frames());
        QCOMPARE(again.samples.mid(PERIOD * 2), live.samples.mid(PERIOD * 2));
        PerformanceLog::Log log;
        QVERIFY(PerformanceLog::read(recorder.logPath(), log, &error));
        QCOMPARE(log.header.patch.voice, QStringLiteral("Sine.pd"));
    }

    void sigtermWhileRecordingLeavesValidFiles()
    {
        const quint16 osc = TestSupport::freeUdpPort();
        const QString folder = mFolder.filePath("program");
        ProgramOnJack program(mJack,
                              {{"input_map.json", "{\"oscPort\": " + QByteArray::number(osc) + "}"},
                               {"recording.json", "{\"format\": \"wav24\", \"folder\": \"" +
                                                      QFile::encodeName(folder) + "\"}"}});
        QVERIFY(program.start({"OSC input listening", "Opening PD patch"}));
        QVERIFY(mJack.waitForPort(JackFixture::PORTAUDIO_CLIENT + ":out_0"));
        QUdpSocket socket;
        socket.writeDatagram(OSC("/arbo/note", "sT", "/3"), QHostAddress::LocalHost, osc);
        socket.writeDatagram(OSC("/arbo/record", "i", 1), QHostAddress::LocalHost, osc);
        // Until the sound file holds a second of sound (24-bit stereo).
        const auto wav = [&] {
            const QFileInfoList files = QDir(folder).entryInfoList({"*.wav"}, QDir::Files);
            return files.size() == 1 && files.first().size() > 44100 * 6 ? files.first().filePath()
                                                                         : QString();
        };
        QTRY_VERIFY_WITH_TIMEOUT(!wav().isEmpty(), 30000);
        const QString audio = wav();
        QVERIFY2(program.terminate() >= 0, qPrintable(program.log()));

        QString error;
        const AudioAnalysis::Wav recorded = AudioAnalysis::readSoundFile(audio, &error);
        QVERIFY2(recorded.frames() >= 44100, qPrintable(error));
        QVERIFY2(
            AudioAnalysis::soundsNear(recorded.channel(0).mid(recorded.frames() - 22050), 660.0),
            qPrintable(AudioAnalysis::heardNear(recorded.channel(0), 660.0)));
        PerformanceLog::Log log;
        QVERIFY2(PerformanceLog::read(audio.chopped(4) + ".jsonl", log, &error), qPrintable(error));
        QCOMPARE(log.end, qint64(recorded.frames()));
        QVERIFY(program.log().contains("Recorded "));
    }
};

ARBO_TEST_MAIN(TestRecordLive)
#include "tst_recordlive.moc"
