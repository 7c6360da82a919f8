// Recording through the render entry that the audio callback uses: the test
// thread plays the audio thread, the recorder's writer thread writes the
// files, with the real libpd and patches. The performance log rendered again
// offline by the real arbo-render; a full disk under a recording; logs that
// must be refused.

#include "audioanalysis.h"
#include "fulldisk.h"
#include "model/arbo.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "recording/performancelog.h"
#include "recording/recorder.h"
#include "recording/recordingsettings.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"
#include "sound/scenetable.h"
#include "testsupport.h"
#include "ui/levelmeter.h"
#include "ui/mainwindow.h"
#include "ui/recordpanel.h"
#include "ui/renderlogdialog.h"

#include <QComboBox>
#include <QDeadlineTimer>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <cmath>
#include <memory>

namespace {

using OfflinePlayer::BUFFER_FRAMES;
using OfflinePlayer::SAMPLE_RATE;

// arbo-render with `arguments`: its exit code, and what it said in `errors`.
int render(const QStringList& arguments, QString* errors = nullptr)
{
    QProcess process;
    process.start(TestSupport::binDir() + "/arbo-render", arguments + QStringList{"--quiet"});
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit) {
        return -1;
    }
    if (errors) {
        *errors = QString::fromLocal8Bit(process.readAllStandardError());
    }
    return process.exitCode();
}

// Cents between the steady tone near `nominal` in `left` from `from` on and
// `nominal`; a large number when it does not sound throughout.
double centsOff(const QVector<float>& left, double nominal, long from)
{
    const AudioAnalysis::ToneEstimate tone =
        AudioAnalysis::measureTone(left.constData(), from, long(left.size()), nominal, SAMPLE_RATE);
    return tone.minAmplitude > 0.01 ? AudioAnalysis::cents(tone.frequency, nominal) : 1e9;
}

} // namespace

class TestRecording : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;
    Arbo mLattice;
    RecordingSettings mOptions;
    QTemporaryDir mFolder;
    std::unique_ptr<Recorder> mRecorder;

    void play(const char* path)
    {
        const ArboNoteEvent note{QString::fromLatin1(path)};
        mPlayer.queueEventGui(&note);
    }

private slots:
    void initTestCase()
    {
        mOptions.mFolder = mFolder.path();
        mOptions.mFormat = AudioFileWriter::WavFloat;
        // Before the voice loads: the recorder names the patch it plays.
        mRecorder = std::make_unique<Recorder>(&mPlayer, &mOptions);
        OfflinePlayer::setUp(mPlayer, mLattice, QStringLiteral("Sine.pd"));
    }

    void recordsAChordAndRendersItAgain()
    {
        QSignalSpy finished(mRecorder.get(), &Recorder::finished);
        QVERIFY(mRecorder->start());
        std::vector<float> played = OfflinePlayer::render(mPlayer, 0.25);
        const qint64 chordAt = qint64(played.size());
        for (const char* path : {"/", "/3", "/5"}) {
            play(path);
        }
        const std::vector<float> chord = OfflinePlayer::render(mPlayer, 2.0);
        played.insert(played.end(), chord.begin(), chord.end());
        mRecorder->stop();
        QCOMPARE(finished.count(), 1);
        QVERIFY2(!finished.at(0).at(1).toBool(), qPrintable(finished.at(0).at(0).toString()));
        QCOMPARE(mRecorder->lostFrames(), 0u);

        // Every frame the render entry made, in order, and the chord's exact pitches.
        QString error;
        const AudioAnalysis::Wav wav = AudioAnalysis::readSoundFile(mRecorder->audioPath(), &error);
        QVERIFY2(wav.channels == 2, qPrintable(error));
        const QVector<float> left = wav.channel(0);
        QCOMPARE(std::vector<float>(left.begin(), left.end()), played);
        for (double ratio : {1.0, 1.5, 1.25}) {
            QVERIFY(std::fabs(centsOff(left, 440.0 * ratio, long(chordAt) + SAMPLE_RATE / 2)) <
                    0.01);
        }
        // The log: the three toggles at the chord's first sample, and the end.
        PerformanceLog::Log log;
        QVERIFY2(PerformanceLog::read(mRecorder->logPath(), log, &error), qPrintable(error));
        QCOMPARE(log.header.bufferFrames, BUFFER_FRAMES);
        QCOMPARE(log.header.patch.voice, QStringLiteral("Sine.pd"));
        QCOMPARE(int(log.entries.size()), 3);
        for (const PerformanceLog::Entry& entry : log.entries) {
            QCOMPARE(entry.at, chordAt);
            QCOMPARE(entry.command.type, int(ArboEvent::NoteToggle));
        }
        QCOMPARE(log.end, qint64(wav.frames()));

        // Offline, twice: the same bytes each time, and the live samples
        // after the first buffer, where the live patch had a past.
        const QString once = mFolder.filePath("once.wav");
        const QString twice = mFolder.filePath("twice.wav");
        QCOMPARE(render({mRecorder->logPath(), once}, &error), 0);
        QCOMPARE(render({mRecorder->logPath(), twice}, &error), 0);
        QCOMPARE(TestSupport::readFile(once), TestSupport::readFile(twice));
        const AudioAnalysis::Wav again = AudioAnalysis::readSoundFile(once, &error);
        QCOMPARE(again.frames(), wav.frames());
        QCOMPARE(again.samples.mid(BUFFER_FRAMES * 2), wav.samples.mid(BUFFER_FRAMES * 2));

        // With another voice, at another rate: the same chord, as long.
        const QString organ = mFolder.filePath("organ.flac");
        QCOMPARE(
            render({mRecorder->logPath(), organ, "--patch", "Organ.pd", "--rate", "48000"}, &error),
            0);
        const AudioAnalysis::Wav other = AudioAnalysis::readSoundFile(organ, &error);
        QCOMPARE(other.sampleRate, 48000);
        QCOMPARE(other.frames(), int(std::llround(wav.frames() * 48000.0 / SAMPLE_RATE)));
        QVERIFY(AudioAnalysis::rmsDb(other.channel(0).mid(other.frames() / 2)) > -40.0);
        const ArboEvent stop(ArboEvent::AllNotesOff, 1.0f);
        mPlayer.queueEventGui(&stop);
    }

    // A scene recall is logged as what it did, so the offline render,
    // which has no scenes, plays the same.
    void sceneRecallsRenderAgain()
    {
        auto table = std::make_unique<SceneTable>();
        SceneTable::Scene scene;
        scene.id = 1;
        scene.volume = mPlayer.volume();
        scene.transposition = ArboRatio(3, 2);
        scene.macros[1] = 0.3f;
        std::vector<SceneTable::Note> notes(3);
        notes[0].ratio = ArboRatio(3, 2);
        notes[1].ratio = ArboRatio(15, 8);
        notes[2].ratio = ArboRatio(9, 4);
        notes[2].path = ArboPath(QStringLiteral("/3"));
        notes[2].held = true;
        table->append(scene, notes);
        scene.id = 2;
        scene.transposition = ArboRatio(1, 1);
        scene.volume = mPlayer.volume();
        scene.monophonic = true;
        notes.erase(notes.begin(), notes.begin() + 2);
        notes[0].held = false;
        table->append(scene, notes);
        mPlayer.publishScenes(std::move(table));
        // The tails of the last test's notes are no state a log can hold.
        QTRY_VERIFY((OfflinePlayer::render(mPlayer, 0.1), mPlayer.soundingNoteCount() == 0));
        const float volume = mPlayer.volume();
        QVERIFY(mRecorder->start());
        std::vector<float> played = OfflinePlayer::render(mPlayer, 0.1);
        for (float number : {1.0f, 2.0f}) {
            const ArboEvent recall(ArboEvent::SceneRecall, number);
            mPlayer.queueEventGui(&recall);
            const std::vector<float> more = OfflinePlayer::render(mPlayer, 0.5);
            played.insert(played.end(), more.begin(), more.end());
        }
        mRecorder->stop();
        QCOMPARE(OfflinePlayer::voiceOf(mPlayer, ArboRatio(9, 4)) >= 0, true);
        PerformanceLog::Log log;
        QString error;
        QVERIFY2(PerformanceLog::read(mRecorder->logPath(), log, &error), qPrintable(error));
        int toggles = 0;
        for (const PerformanceLog::Entry& entry : log.entries) {
            QVERIFY(entry.command.type < ArboEvent::SceneRecall ||
                    entry.command.type > ArboEvent::SceneStore);
            toggles += entry.command.type == ArboEvent::RatioToggle ? 1 : 0;
        }
        QCOMPARE(toggles, 4); // two struck, two ended; the held one as its key's start
        // Offline: the same bytes twice, and each scene's exact chord. (Not
        // the live samples: the voices kept the phases of the last test's
        // notes, which no log holds.)
        const QString again = mFolder.filePath("scenes.wav");
        const QString twice = mFolder.filePath("scenes2.wav");
        QCOMPARE(render({mRecorder->logPath(), again}, &error), 0);
        QCOMPARE(render({mRecorder->logPath(), twice}, &error), 0);
        QCOMPARE(TestSupport::readFile(again), TestSupport::readFile(twice));
        const QVector<float> left = AudioAnalysis::readSoundFile(again).channel(0);
        const qint64 first = log.entries.front().at;
        const qint64 second = log.entries.back().at;
        const auto off = [&left](double nominal, qint64 from, qint64 to) {
            const AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
                left.constData(), long(from), long(to), nominal, SAMPLE_RATE);
            return tone.minAmplitude > 0.01 ? std::fabs(AudioAnalysis::cents(tone.frequency, nominal))
                                            : 1e9;
        };
        for (double hz : {660.0, 825.0, 990.0}) {
            QVERIFY2(off(hz, first + SAMPLE_RATE / 10, second) < 0.01, qPrintable(QString::number(hz)));
        }
        QVERIFY(off(990.0, second + SAMPLE_RATE / 4, left.size()) < 0.01);
        QCOMPARE(off(660.0, second + SAMPLE_RATE / 4, left.size()), 1e9);
        for (const ArboEvent& back :
             {ArboEvent(ArboEvent::AllNotesOff, 1.0f), ArboEvent(ArboEvent::Monophonic, 0.0f),
              ArboEvent(ArboEvent::MasterVolume, volume)}) {
            mPlayer.queueEventGui(&back);
        }
        OfflinePlayer::render(mPlayer, 0.2);
    }

    void fullDiskEndsTheRecordingWithAValidFile_data()
    {
        QTest::addColumn<bool>("tmpfs");
        QTest::addColumn<QString>("reason");
        QTest::newRow("full tmpfs") << true << "No space left on device";
        QTest::newRow("file size limit") << false << "File too large";
    }

    void fullDiskEndsTheRecordingWithAValidFile()
    {
        QFETCH(bool, tmpfs);
        QFETCH(QString, reason);
        TmpfsMount disk;
        std::unique_ptr<FileSizeLimit> limit;
        if (tmpfs) {
            if (!TmpfsMount::canMount()) {
                QSKIP("Mounting a tmpfs needs root; the file size limit row fails the same way");
            }
            QVERIFY2(disk.mount(1024 * 1024), qPrintable(disk.error()));
            mOptions.mFolder = disk.path();
        } else {
            mOptions.mFolder = mFolder.filePath("limited");
            limit = std::make_unique<FileSizeLimit>(1024 * 1024);
            QVERIFY(limit->isActive());
        }
        QSignalSpy finished(mRecorder.get(), &Recorder::finished);
        QVERIFY(mRecorder->start());
        play("/3");
        // Faster than real time, until the writer finds no room and the
        // recorder ends the recording.
        for (QDeadlineTimer deadline(60000); mRecorder->isRecording() && !deadline.hasExpired();) {
            OfflinePlayer::runBuffer(mPlayer);
            QCoreApplication::processEvents();
        }
        play("/3");
        limit.reset();
        QVERIFY(!mRecorder->isRecording());
        QCOMPARE(finished.count(), 1);
        const QString message = finished.at(0).at(0).toString();
        QVERIFY2(finished.at(0).at(1).toBool() && message.contains(reason), qPrintable(message));

        QString error;
        const AudioAnalysis::Wav wav = AudioAnalysis::readSoundFile(mRecorder->audioPath(), &error);
        QVERIFY2(wav.frames() > SAMPLE_RATE, qPrintable(error));
        QVERIFY(AudioAnalysis::rmsDb(wav.channel(0).mid(wav.frames() / 2)) > -40.0);
        PerformanceLog::Log log;
        QVERIFY2(PerformanceLog::read(mRecorder->logPath(), log, &error), qPrintable(error));
        mOptions.mFolder = mFolder.path();
    }

    // The window's controls: the Record button with the time recorded and
    // the level, and "Render a log…" with another voice, then cancelled.
    void windowRecordsAndRendersLogs()
    {
        Settings settings;
        InstrumentParts parts = OfflinePlayer::parts(mPlayer, mLattice, settings);
        parts.recorder = mRecorder.get();
        parts.recordingSettings = &mOptions;
        MainWindow window(parts);
        auto* button = window.findChild<QPushButton*>("recordButton");
        auto* status = window.findChild<QLabel*>("recordStatus");
        auto* meter = window.findChild<LevelMeter*>();
        QVERIFY(button && status && meter);
        button->click();
        QVERIFY(mRecorder->isRecording() && button->isChecked());
        QCOMPARE(button->text(), QStringLiteral("Stop"));
        play("/5");
        OfflinePlayer::render(mPlayer, 1.2);
        // Before waiting: with no audio rendered meanwhile the meter falls
        // silent after a while, as it should.
        QVERIFY(meter->rmsDb() > -40.0);
        QTRY_VERIFY(status->text().startsWith("0:01"));
        button->click();
        play("/5");
        QVERIFY(!mRecorder->isRecording() && !button->isChecked());
        QCOMPARE(status->text(), QStringLiteral("Saved"));

        RenderLogDialog* dialog = window.findChild<RecordPanel*>()->renderDialog();
        auto* voice = dialog->findChild<QComboBox*>("renderVoiceBox");
        voice->setCurrentIndex(voice->findText("Organ"));
        dialog->findChild<QLineEdit*>("renderLogEdit")->setText(mRecorder->logPath());
        const QString out = mFolder.filePath("window.wav");
        dialog->findChild<QLineEdit*>("renderOutputEdit")->setText(out);
        QSignalSpy finished(dialog, &RenderLogDialog::renderFinished);
        QVERIFY(dialog->startRender());
        QVERIFY(finished.wait(60000));
        QVERIFY2(finished.at(0).at(0).toBool(), qPrintable(finished.at(0).at(1).toString()));
        QCOMPARE(AudioAnalysis::readSoundFile(out).frames(),
                 int(std::llround(mRecorder->elapsedSeconds() * SAMPLE_RATE)));

        // Hours of the same log: cancelled once under way, it leaves no file.
        QString hours = QString::fromUtf8(TestSupport::readFile(mRecorder->logPath()));
        hours.replace(QRegularExpression("\"end\":\\d+"),
                      "\"end\":" + QString::number(3600 * SAMPLE_RATE));
        const QString hoursLog = mFolder.filePath("hours.jsonl");
        const QString hoursOut = mFolder.filePath("hours.wav");
        QVERIFY(TestSupport::writeFile(hoursLog, hours.toUtf8()));
        dialog->findChild<QLineEdit*>("renderLogEdit")->setText(hoursLog);
        dialog->findChild<QLineEdit*>("renderOutputEdit")->setText(hoursOut);
        QVERIFY(dialog->startRender());
        QTRY_VERIFY(dialog->progressDialog() && dialog->progressDialog()->value() > 0);
        dialog->progressDialog()->findChild<QPushButton*>()->click(); // "Cancel"
        QVERIFY(finished.wait(60000));
        QVERIFY(!finished.at(1).at(0).toBool());
        QVERIFY(!QFileInfo::exists(hoursOut));
    }

    void badLogsAreRefused_data()
    {
        QTest::addColumn<QByteArray>("lines");
        QTest::addColumn<QString>("message");
        PerformanceLog::Header header;
        header.patch.none = false;
        header.patch.voiceText = QStringLiteral("#N canvas 0 50 450 300 12;\n");
        const QByteArray valid = PerformanceLog::headerLine(header);
        QByteArray future = valid;
        future.replace("\"format\":1", "\"format\":2");
        QTest::newRow("future format")
            << future << ":1: written in log format 2 by a newer version of the program";
        QTest::newRow("not a log")
            << QByteArray("RIFF\x24\0\0\0WAVE\n", 13) << ":1: not a performance log";
        QTest::newRow("cut off") << valid + "{\"at\":0,\"event\":0,\"va"
                                 << ":2: damaged line (unterminated string at character 23)";
        QTest::newRow("back in time")
            << valid +
                   "{\"at\":512,\"event\":1,\"value\":0}\n{\"at\":256,\"event\":1,\"value\":0}\n"
            << ":3: \"at\" goes back in time (256 after 512)";
        QTest::newRow("no step 0") << valid + "{\"at\":0,\"event\":0,\"path\":[3,0],\"value\":1}\n"
                                   << ":2: \"path\" step 2 is not a step";
    }

    void badLogsAreRefused()
    {
        QFETCH(QByteArray, lines);
        QFETCH(QString, message);
        const QString log = mFolder.filePath("bad.jsonl");
        const QString out = mFolder.filePath("bad.wav");
        QVERIFY(TestSupport::writeFile(log, lines));
        QString errors;
        QCOMPARE(render({log, out}, &errors), 1);
        QVERIFY2(errors.startsWith("arbo-render: " + log + message), qPrintable(errors));
        QVERIFY(!QFileInfo::exists(out));
    }
};

ARBO_TEST_MAIN(TestRecording)
#include "tst_recording.moc"
