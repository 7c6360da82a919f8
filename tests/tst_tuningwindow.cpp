// The main window's tuning files, with real widgets (offscreen), the real
// lattice and the real player, rendered on the test thread: a 7-limit scale
// imported through the "Tuning" menu marks its balls and plays its degrees in
// exact tuning from MIDI notes (through the real MIDI input, fed as its input
// thread feeds it) and from the computer keys, and a scale's lines that have
// no place are listed with the reason; "Clear scale" gives the map's
// own bindings back; the sounding chord exported through the dialog imports
// back to its ratios; bad files change nothing and say what arbo-tuning says.

#include "display/arboballwidget.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "input/inputmap.h"
#include "midi/midiinput.h"
#include "model/arbo.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "tuning/scalascale.h"
#include "ui/exporttuningdialog.h"
#include "ui/importedscale.h"
#include "ui/importscaledialog.h"
#include "ui/keyboardinput.h"
#include "ui/mainwindow.h"
#include "ui/tuningmenu.h"

#include <QComboBox>
#include <QFileDialog>
#include <QGraphicsEllipseItem>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QRadioButton>
#include <QStatusBar>
#include <QTemporaryDir>

#include <memory>

namespace {

using Rational = ArboConstants::Rational;

// corner7.scl: 35/32 9/8 5/4 21/16 3/2 49/32 25/16 7/4 15/8 2/1. The default
// lattice has no node of 35/32, 49/32 or 25/16 (two steps of 5 and 7).
const QList<Rational> CORNER7_ON_NODES = {Rational(1),      Rational(9, 8), Rational(5, 4),
                                          Rational(21, 16), Rational(3, 2), Rational(7, 4),
                                          Rational(15, 8)};

} // namespace

class TestTuningWindow : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    InputMap::Bindings mOwn;
    std::unique_ptr<MainWindow> mWindow;
    // Never opened: the test feeds it as its input thread would.
    std::unique_ptr<MidiInput> mMidi;
    QTemporaryDir mTemp;

    TuningMenu* tuning() const { return mWindow->tuning(); }
    void render()
    {
        OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS);
        QCoreApplication::processEvents();
    }
    void send(const ArboEvent& event)
    {
        mPlayer.queueEventGui(&event);
        render();
    }
    void midi(int status, int note)
    {
        const std::uint8_t bytes[] = {std::uint8_t(status), std::uint8_t(note), 100};
        mMidi->feed(bytes, sizeof bytes);
        render();
    }
    void key(Qt::Key key, QEvent::Type type = QEvent::KeyPress)
    {
        QKeyEvent event(type, key, Qt::NoModifier);
        QApplication::sendEvent(mWindow.get(), &event);
        render();
    }
    // The exact ratios the engine's voices sound (not released).
    QList<Rational> sounding() const
    {
        QList<Rational> ratios;
        for (int i = 0; i < PdPlayer::VOICE_COUNT; ++i) {
            const PdPlayer::NoteOn& voice = mPlayer.voices()[i];
            if (voice.seqId != 0 && !voice.released) {
                ratios << voice.ratio.ratio();
            }
        }
        return ratios;
    }
    void trigger(const char* action)
    {
        auto* found = tuning()->menu()->findChild<QAction*>(QLatin1String(action));
        QVERIFY(found && found->isEnabled());
        found->trigger();
    }
    // The box shown now ("" when none): its text, and its informative text
    // on the next line. The box is closed.
    QString takeBox()
    {
        QMessageBox* box = TestSupport::visibleMessageBox();
        if (!box) {
            return QString();
        }
        QString text = box->text();
        if (!box->informativeText().isEmpty()) {
            text += '\n' + box->informativeText();
        }
        box->close();
        return text;
    }
    // Through the menu and the dialog, as a user would; the box it shows.
    QString importThroughDialog(const QString& scale, const QString& mapping = QString())
    {
        trigger("importScaleAction");
        ImportScaleDialog* dialog = tuning()->importDialog();
        dialog->findChild<QLineEdit*>("scaleFileEdit")->setText(scale);
        dialog->findChild<QLineEdit*>("mappingFileEdit")->setText(mapping);
        QTest::mouseClick(dialog->findChild<QPushButton*>("importButton"), Qt::LeftButton);
        return takeBox();
    }
    // Through the menu, the dialog and its file dialog.
    void exportThroughDialog(const char* nodes, const QString& format, const QString& file)
    {
        trigger("exportTuningAction");
        ExportTuningDialog* dialog = tuning()->exportDialog();
        dialog->findChild<QRadioButton*>(QLatin1String(nodes))->setChecked(true);
        auto* formats = dialog->findChild<QComboBox*>("formatBox");
        formats->setCurrentIndex(formats->findData(format));
        QTest::mouseClick(dialog->findChild<QPushButton*>("exportButton"), Qt::LeftButton);
        QFileDialog* files = nullptr;
        for (QFileDialog* each : dialog->findChildren<QFileDialog*>("exportFileDialog")) {
            files = each->isVisible() ? each : files;
        }
        QVERIFY(files);
        files->selectFile(file);
        QVERIFY(QMetaObject::invokeMethod(files, "accept"));
    }
    // The pitch classes of the balls with a visible mark, and how many.
    QList<Rational> markedPitchClasses(int& balls) const
    {
        QList<Rational> classes;
        balls = 0;
        for (const ArboBallWidget* ball : mWindow->arboView()->arboWidget()->balls()) {
            if (ball->mark()->isVisible()) {
                ++balls;
                const Rational own = TestSupport::pitchClass(ball->node()->ratio().ratio());
                if (!classes.contains(own)) {
                    classes << own;
                }
            }
        }
        std::sort(classes.begin(), classes.end());
        return classes;
    }
    // What arbo-tuning prints on standard error, failing, for `arguments`.
    QString toolError(const QStringList& arguments)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_DATA_HOME", mTemp.filePath("toolhome"));
        process.setProcessEnvironment(environment);
        process.start(TestSupport::binDir() + "/arbo-tuning", arguments);
        if (!process.waitForFinished(120000) || process.exitCode() != 1) {
            return "arbo-tuning did not fail with 1: " + arguments.join(' ');
        }
        return QString::fromUtf8(process.readAllStandardError()).trimmed();
    }

private slots:
    void initTestCase()
    {
        const QString missing = TestSupport::missingTuningFiles();
        QVERIFY2(missing.isEmpty(), qPrintable(missing));
        QVERIFY(mTemp.isValid());
        OfflinePlayer::setUp(mPlayer, mArbo);
        QVERIFY(!QTest::currentTestFailed());
        mSettings.mDefaultPatch = QStringLiteral("Sine.pd");
        InputMap map;
        map.initWithDefaults();
        mOwn = map.bindings();
        mWindow = std::make_unique<MainWindow>(OfflinePlayer::parts(mPlayer, mArbo, mSettings));
        mWindow->resize(1200, 820);
        mWindow->show();
        QVERIFY(QTest::qWaitForWindowExposed(mWindow.get()));
        QVERIFY(mPlayer.isPatchOpen());
        auto* keys = new KeyboardInput(&mPlayer, mWindow.get(), mWindow.get());
        mMidi = std::make_unique<MidiInput>();
        mMidi->attach(&mPlayer);
        mWindow->attachInputs(mOwn, keys, mMidi.get());
    }

    void cleanup()
    {
        while (!takeBox().isEmpty()) {
        }
        tuning()->importDialog()->hide();
        tuning()->exportDialog()->hide();
        tuning()->scale()->clear();
        send(ArboEvent(ArboEvent::AllNotesOff, 1.0f));
        send(ArboEvent(ArboEvent::Transpose, 0.0f));
        QTRY_VERIFY((render(), mPlayer.soundingNoteCount() == 0));
    }

    void cleanupTestCase()
    {
        mWindow.reset();
        mMidi.reset();
    }

    void sevenLimitScaleIsMarkedAndPlaysExactly()
    {
        const QString report =
            importThroughDialog(TestSupport::tuningDataDir() + "/scl/corner7.scl");
        QVERIFY2(report.startsWith("Placed 10 of 10 degrees of corner7.scl on the lattice; 8 balls "
                                   "are marked."),
                 qPrintable(report));
        QVERIFY(!tuning()->importDialog()->isVisible());
        int balls = 0;
        QCOMPARE(markedPitchClasses(balls), CORNER7_ON_NODES);
        QCOMPARE(balls, 8); // the 1/1 on the root and on /2

        // A marked ball that plays shows it as any ball does, and its ring
        // lies outside the disc and its playing outline.
        const ArboBallWidget* ball = nullptr;
        for (const ArboBallWidget* each : mWindow->arboView()->arboWidget()->balls()) {
            if (each->mark()->isVisible() && each->node()->ratio().ratio() == Rational(21, 16)) {
                ball = each;
            }
        }
        QVERIFY(ball);
        send(ArboNoteEvent(ball->node()->path()));
        QVERIFY(ball->node()->isPlaying() && ball->glow()->isVisible() &&
                ball->mark()->isVisible());
        const double ringInside = ball->mark()->rect().width() / 2 - ball->mark()->pen().widthF();
        QVERIFY(ringInside > ball->disc()->rect().width() / 2 + ball->disc()->pen().widthF() / 2);
        send(ArboNoteEvent(ball->node()->path()));

        // MIDI notes through the linear mapping from the 1/1 Note, A 4 (69):
        // degree 4, a period up, and the last degree a period down.
        const QList<QPair<int, Rational>> notes = {
            {73, Rational(21, 16)}, {83, Rational(21, 8)}, {68, Rational(15, 16)}};
        for (const auto& note : notes) {
            midi(0x90, note.first);
            QCOMPARE(sounding(), QList<Rational>{note.second});
            midi(0x80, note.first);
            QVERIFY(sounding().isEmpty());
        }
        // The keys by degree: F the 1/1, K (four to the right) degree 4, D
        // the degree below the 1/1. Space still stops everything.
        const QList<QPair<Qt::Key, Rational>> keys = {
            {Qt::Key_K, Rational(21, 16)}, {Qt::Key_D, Rational(15, 16)}, {Qt::Key_F, Rational(1)}};
        for (const auto& press : keys) {
            key(press.first);
            QCOMPARE(sounding(), QList<Rational>{press.second});
            key(press.first, QEvent::KeyRelease);
            QVERIFY(sounding().isEmpty());
        }
        key(Qt::Key_F);
        key(Qt::Key_Space);
        QVERIFY(sounding().isEmpty());
        key(Qt::Key_F, QEvent::KeyRelease);

        // Lines the lattice has no place for: the box lists them and why.
        const QString partial = mTemp.filePath("partial.scl");
        QVERIFY(TestSupport::writeFile(partial, "partly\n 3\n 11/8\n 37/32 beyond\n 2/1\n"));
        const QString listed = importThroughDialog(partial);
        QVERIFY2(listed.startsWith("Placed 2 of 3 degrees of partial.scl") &&
                     listed.contains("\n2 (37/32 beyond): needs the prime 37, above 31\n"),
                 qPrintable(listed));
    }

    void clearScaleGivesTheOwnBindingsBack()
    {
        QVERIFY(!importThroughDialog(TestSupport::tuningDataDir() + "/scl/corner7.scl").isEmpty());
        midi(0x90, 73); // held while the scale goes: it ends with it
        QCOMPARE(sounding(), QList<Rational>{Rational(21, 16)});
        trigger("clearScaleAction");
        render();
        QVERIFY(sounding().isEmpty());
        midi(0x80, 73);
        int balls = 0;
        QVERIFY(markedPitchClasses(balls).isEmpty());
        QVERIFY(mWindow->findChild<QLabel*>("scaleLabel")->text().isEmpty());

        midi(0x90, 73);
        QCOMPARE(sounding(),
                 QList<Rational>{ArboRatio::pathRatio(mOwn.midiNotes[73].path()).ratio()});
        midi(0x80, 73);
        key(Qt::Key_K);
        QCOMPARE(sounding(), QList<Rational>{ArboRatio::pathRatio(mOwn.keys["K"].path()).ratio()});
        key(Qt::Key_K, QEvent::KeyRelease);
    }

    void soundingChordExportsAndImportsBack()
    {
        // Transposed by a fifth, with a note off the tree (/7/7 is no node).
        send(ArboEvent(ArboEvent::Transpose, 3.0f));
        for (const char* path : {"/", "/5", "/3", "/7/7"}) {
            send(ArboNoteEvent(ArboPath(QString::fromLatin1(path))));
        }
        QCOMPARE(mArbo.playingRatios().size(), 4);
        const QString file = mTemp.filePath("chord.scl");
        exportThroughDialog("soundingChordButton", "scl", file);
        QVERIFY(!tuning()->exportDialog()->isVisible());
        QVERIFY(mWindow->statusBar()->currentMessage().contains(file));
        ScalaScale chord;
        QString error;
        QVERIFY2(ScalaScale::load(file, chord, error), qPrintable(error));
        QStringList ratios;
        for (const ScalaScale::Pitch& pitch : chord.pitches) {
            ratios << pitch.valueText();
        }
        QCOMPARE(ratios, (QStringList{"5/4", "3/2", "49/32", "2/1"}));

        const QString report = importThroughDialog(file);
        QVERIFY2(report.startsWith("Placed 4 of 4 degrees of chord.scl"), qPrintable(report));
        const QList<Rational> exact = {Rational(5, 4), Rational(3, 2), Rational(49, 32),
                                       Rational(2)};
        const QVector<ScalePlacement::Place>& places = tuning()->scale()->places();
        for (int i = 0; i < places.size(); ++i) {
            QCOMPARE(places.at(i).ratio, exact.at(i));
        }
    }

    void badFilesChangeNothing()
    {
        const QString corner7 = TestSupport::tuningDataDir() + "/scl/corner7.scl";
        QVERIFY(!importThroughDialog(corner7).isEmpty());
        const QString label = mWindow->findChild<QLabel*>("scaleLabel")->text();

        const QString badScale =
            TestSupport::tuningDataDir() + "/scl-tuning-library-tests/bad/badnote.scl";
        const QString badMapping = TestSupport::tuningDataDir() + "/kbm/bad/garbage-key.kbm";
        const QString shown = importThroughDialog(badScale);
        QVERIFY2(shown.startsWith(badScale + ":12: "), qPrintable(shown));
        QCOMPARE(shown, toolError({"import", badScale}));
        QVERIFY(tuning()->importDialog()->isVisible());
        QCOMPARE(importThroughDialog(corner7, badMapping),
                 toolError({"import", corner7, "--kbm", badMapping}));

        QCOMPARE(mWindow->findChild<QLabel*>("scaleLabel")->text(), label);
        int balls = 0;
        QCOMPARE(markedPitchClasses(balls), CORNER7_ON_NODES);
        midi(0x90, 73);
        QCOMPARE(sounding(), QList<Rational>{Rational(21, 16)});
        midi(0x80, 73);

        // An export that cannot be written: no file, arbo-tuning's words.
        const QString nowhere = mTemp.filePath("no folder/lattice.tun");
        exportThroughDialog("everyNodeButton", "tun", nowhere);
        QCOMPARE(takeBox(), toolError({"export", "--format", "tun", "-o", nowhere}));
        QVERIFY(tuning()->exportDialog()->isVisible());
        QVERIFY(!QFileInfo::exists(nowhere));
    }
};

ARBO_TEST_MAIN(TestTuningWindow)
#include "tst_tuningwindow.moc"
