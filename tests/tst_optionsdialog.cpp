// The options dialog with real widgets, the real player (driven offline: the
// test thread drains its commands, as the audio callback would) and the real
// audio output on a private JACK dummy server, with one more device of the
// tests' own that can be made to fail.

#include "jackfixture.h"
#include "offlineplayer.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/paaudiooutput.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/optionsdialog.h"

#include <QComboBox>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTabWidget>
#include <QTemporaryDir>

#include <cmath>
#include <memory>

class TestOptionsDialog : public QObject
{
    Q_OBJECT

    Settings mSettings;
    PdPlayer mPlayer;
    JackFixture mJack;
    // ALSA takes its configuration path apart at blanks: none in this one.
    QTemporaryDir mAlsaDir{QDir::tempPath() + QStringLiteral("/arbo-alsa-XXXXXX")};

    // What the dialog acts on: no lattice, this test's player and options,
    // and the output of a test that has one.
    InstrumentParts parts(AudioOutput* output = nullptr)
    {
        return {nullptr, &mPlayer, &mSettings, output};
    }
    // What the audio thread would do next: carry out the queued commands.
    void drainPlayer() { OfflinePlayer::runBuffer(mPlayer); }

private slots:
    void initTestCase()
    {
        QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
        QVERIFY(mPlayer.init());
    }

    void init()
    {
        mSettings.mCalibrationFrequency = 440;
        mSettings.mBaseNote = QStringLiteral("A 4");
        mSettings.mBaseFrequency = 440.0f;
    }

    // The choice runs "A 0" to "A 8" by semitone, each black key with its
    // sharp and then its flat name at one frequency; A4 is 440 Hz.
    void noteChoiceHasEveryPianoKeyWithBothSpellings()
    {
        const QStringList& names = OptionsDialog::noteNames();
        const QList<float>& hz = OptionsDialog::noteFrequencies();
        QCOMPARE(names.size(), 137);
        QCOMPARE(hz.size(), names.size());
        QCOMPARE(names.mid(0, 6), (QStringList{"A 0", "A# 0", "Bb 0", "B 0", "C 1", "C# 1"}));
        QCOMPARE(names.mid(names.size() - 4), (QStringList{"G 8", "G# 8", "Ab 8", "A 8"}));
        QCOMPARE(names.mid(names.indexOf("E 4"), 4), (QStringList{"E 4", "F 4", "F# 4", "Gb 4"}));
        QCOMPARE(hz.at(names.indexOf("A 0")), 27.5f);
        QCOMPARE(hz.at(names.indexOf("A 4")), 440.0f);
        // Sharp and flat of one key sound alike; otherwise every name is a
        // semitone above the one before.
        int pitches = 1;
        for (int i = 1; i < names.size(); ++i) {
            const double cents = 1200.0 * std::log2(double(hz.at(i)) / double(hz.at(i - 1)));
            const bool sameKey = names.at(i).at(1) == 'b';
            QVERIFY2(std::abs(cents - (sameKey ? 0.0 : 100.0)) < 0.001, qPrintable(names.at(i)));
            pitches += sameKey ? 0 : 1;
        }
        QCOMPARE(pitches, 97);
        QVERIFY(std::abs(OptionsDialog::baseFrequencyFor(440, "C 4") - 261.63f) < 0.005f);
        // An unknown note counts as the first.
        QCOMPARE(OptionsDialog::baseFrequencyFor(440, "H 4"), 27.5f);
    }

    // The 1/1 note and the calibration set the base frequency, in the
    // options and, through the command buffer, in the player. Building or
    // rebuilding the pages sends nothing.
    void noteAndCalibrationSetTheBaseFrequency()
    {
        OptionsDialog dialog(parts());
        QSignalSpy changed(&mPlayer, &PdPlayer::baseFrequencyChanged);
        dialog.updateAll();
        drainPlayer();
        QCOMPARE(changed.count(), 0);
        QComboBox* note = dialog.findChild<QComboBox*>(QStringLiteral("oneOneNoteBox"));
        QSpinBox* calibration = dialog.findChild<QSpinBox*>(QStringLiteral("calibrationFreqEdit"));
        QCOMPARE(note->currentText(), QStringLiteral("A 4"));
        QCOMPARE(calibration->value(), 440);

        note->setCurrentIndex(note->findText("A# 2"));
        drainPlayer();
        const float sharp = mPlayer.baseFrequency();
        note->setCurrentIndex(note->findText("Bb 2"));
        drainPlayer();
        QCOMPARE(changed.count(), 2);
        QCOMPARE(mPlayer.baseFrequency(), sharp);
        QVERIFY(std::abs(sharp - 116.5409f) < 0.001f);
        QCOMPARE(mSettings.mBaseNote, QStringLiteral("Bb 2"));
        QCOMPARE(mSettings.mBaseFrequency, sharp);

        // Calibration 432 with "A 4": exactly 432 Hz reaches the player.
        note->setCurrentIndex(note->findText("A 4"));
        calibration->setValue(432);
        drainPlayer();
        QCOMPARE(mPlayer.baseFrequency(), 432.0f);
        QCOMPARE(changed.last().at(0).toFloat(), 432.0f);
        QCOMPARE(mSettings.mCalibrationFrequency, 432);
        QCOMPARE(mSettings.mBaseFrequency, 432.0f);

        // A frequency given directly goes to the player only.
        dialog.onOneOneFreqEditValueChanged(300.5);
        drainPlayer();
        QCOMPARE(mPlayer.baseFrequency(), 300.5f);
        QCOMPARE(mSettings.mBaseFrequency, 432.0f);

        // The calibration stays within 349 and 499 Hz, and the options follow it.
        calibration->setValue(350);
        dialog.show();
        calibration->setFocus();
        for (int i = 0; i < 3; ++i) {
            QTest::keyClick(calibration, Qt::Key_Down);
        }
        QCOMPARE(calibration->value(), 349);
        QCOMPARE(mSettings.mCalibrationFrequency, 349);
        calibration->setValue(1000);
        QCOMPARE(mSettings.mCalibrationFrequency, 499);
    }

    // The update tab: the interval is stored; "Search for updates now ..."
    // without a feed says so and records the time of the check. The pages.
    void updateTabStoresIntervalAndCheckTime()
    {
        qputenv("ARBO_UPDATE_FEED_URL", "");
        mSettings.mUpdateCheckInterval = 2;
        mSettings.mTSysLastUpdateCheck.clear();
        OptionsDialog dialog(parts());
        auto* interval = dialog.findChild<QComboBox*>(QStringLiteral("updateIntervalBox"));
        QVERIFY(interval);
        QCOMPARE(interval->currentIndex(), 2);
        // Without a MIDI output there is no MIDI tab; the About page has the
        // version filled in.
        QCOMPARE(dialog.findChild<QTabWidget*>(QStringLiteral("tabWidget"))->count(), 3);
        const QString about = dialog.findChild<QLabel*>(QStringLiteral("aboutLabel"))->text();
        QVERIFY(!about.contains("<version>") && about.contains("Version 1.5.0"));
        dialog.show();
        dialog.selectTab(1);
        interval->setFocus();
        QTest::keyClick(interval, Qt::Key_Down); // activates the next entry
        QCOMPARE(mSettings.mUpdateCheckInterval, 3);

        auto* button = dialog.findChild<QPushButton*>(QStringLiteral("updateCheckButton"));
        QVERIFY(button);
        const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
        button->click();
        // The update checker's boxes are not modal: look among the windows.
        QMessageBox* box = TestSupport::visibleMessageBox();
        QVERIFY(box);
        QVERIFY2(box->text().contains("no update feed"), qPrintable(box->text()));
        box->close();
        const QDateTime recorded =
            QDateTime::fromString(mSettings.mTSysLastUpdateCheck, Qt::TextDate);
        QVERIFY2(recorded.isValid() && recorded >= before,
                 qPrintable(mSettings.mTSysLastUpdateCheck));
        qunsetenv("ARBO_UPDATE_FEED_URL");
    }

    // The options button: a toggle whose new dialog comes back where the old
    // one was closed; the Close button hands the position over too.
    void toggleComesBackWhereItWasClosed()
    {
        QWidget window;
        window.show();
        QPointer<OptionsDialog> dialog;
        QPoint position;
        OptionsDialog::toggle(dialog, parts(), &window, position);
        QVERIFY(dialog && dialog->isVisible());
        QPointer<OptionsDialog> first = dialog;
        dialog->move(140, 90);
        const QPoint placed = dialog->pos();
        OptionsDialog::toggle(dialog, parts(), &window, position);
        QVERIFY(!first->isVisible());
        QCOMPARE(position, placed);

        OptionsDialog::toggle(dialog, parts(), &window, position);
        QVERIFY(first.isNull()); // a fresh dialog each time
        QVERIFY(dialog && dialog->isVisible());
        QCOMPARE(dialog->pos(), placed);

        dialog->move(200, 120);
        const QPoint moved = dialog->pos();
        QSignalSpy stored(dialog.data(), &OptionsDialog::positionStored);
        dialog->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Close)->click();
        QVERIFY(!dialog->isVisible());
        QCOMPARE(stored.count(), 1);
        QCOMPARE(position, moved);
        OptionsDialog::toggle(dialog, parts(), &window, position);
        QCOMPARE(dialog->pos(), moved);
        delete dialog.data();
    }

    // A device that fails to open: the message names it, and the device that
    // played before plays again and is shown in the combo box. The failing
    // device is an ALSA device of the test's own: a null device while
    // PortAudio lists it, then gone, as an interface unplugged (ALSA reads
    // its changed configuration again at the next open).
    void failingDeviceGivesWayToThePlayingOne()
    {
        QVERIFY2(mJack.start(44100, 256), qPrintable(mJack.error()));
        mJack.applyToThisProcess();
        const QString config = mAlsaDir.filePath("asound.conf");
        // (PortAudio 19.6 wants one device that cannot open, see JackFixture.)
        const QByteArray none = "pcm.arbo_test_none {\n    type hw\n    card 99\n}\n";
        QVERIFY(
            TestSupport::writeFile(config, none + "pcm.arbo_test_device {\n    type null\n}\n"));
        qputenv("ALSA_CONFIG_PATH", QFile::encodeName(config));

        PaAudioOutput output;
        QVERIFY(output.init(256, -1, &mPlayer));
        const QStringList devices = output.devices();
        const int jack = devices.indexOf("JACK Audio Connection Kit: system");
        const int broken = devices.indexOf("ALSA: arbo_test_device");
        QVERIFY2(jack >= 0 && broken >= 0, qPrintable(devices.join(", ")));
        // ALSA's device comes first and is the default: play on JACK's.
        QVERIFY(output.selectDevice(jack));
        QCOMPARE(output.selectedDevice(), jack);

        OptionsDialog dialog(parts(&output));
        dialog.show();
        auto* box = dialog.findChild<QComboBox*>(QStringLiteral("audioDeviceBox"));
        QCOMPARE(box->count(), devices.size());
        QCOMPARE(box->currentIndex(), jack);

        QVERIFY(TestSupport::writeFile(
            config, none + "pcm.arbo_test_device {\n    type hw\n    card 98\n}\n"));
        QFile file(config); // a new modification time, whatever the clock's resolution
        QVERIFY(file.open(QIODevice::ReadWrite) &&
                file.setFileTime(QDateTime::currentDateTime().addSecs(10),
                                 QFileDevice::FileModificationTime));
        file.close();
        TestSupport::MessageBoxAnswerer answerer;
        box->setCurrentIndex(broken);
        emit box->activated(broken); // as a choice of the user's
        QCOMPARE(answerer.answeredBoxes(),
                 QStringList{QStringLiteral("Merrow Tuning Arbo | Failed to open audio device "
                                            "ALSA: arbo_test_device.")});
        QCOMPARE(box->currentIndex(), jack);
        QCOMPARE(output.selectedDevice(), jack);
        QVERIFY(output.isStreamRunning());

        output.term();
        mJack.stop();
    }
};

ARBO_TEST_MAIN(TestOptionsDialog)

#include "tst_optionsdialog.moc"
