// The main window and its transpose strip with real widgets (offscreen), the
// real lattice, and the real player and voice patches. The test thread plays
// the audio thread (see offlineplayer.h), so every control is followed
// through the engine and back: a click queues a command, the rendering
// carries it out, and the engine's answer comes back to the window.

#include "audioanalysis.h"
#include "display/arboballwidget.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "display/layoutconstants.h"
#include "display/primetogglebutton.h"
#include "display/transposebutton.h"
#include "display/transposewidget.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "model/arbo.h"
#include "offlineplayer.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/diagnosticsdialog.h"
#include "ui/macrosliders.h"
#include "ui/mainwindow.h"
#include "ui/patchchooser.h"
#include "ui/optionsdialog.h"
#include "ui/tweakdialog.h"

#include <QComboBox>
#include <QDir>
#include <QFrame>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QSpinBox>

#include <cmath>
#include <memory>

using OfflinePlayer::BUFFER_SECONDS;
using OfflinePlayer::SAMPLE_RATE;

class TestMainWindow : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void widgetTreeAndStartState();
    void macroSlidersFollowThePatchAndThePlayer();
    void volumeMonoPolyAndStopAll();
    void transposeStripCountsAndReadout();
    void refusedTranspositionVanishes();
    void horizontalStripAndFirstClick();
    void primeButtons();
    void primeToggleHidesItsLeavesAndBlocksItsNotes();
    void patchMenuEdgeCases();
    void keyboard();
    void tweaksAndOptionsFromTheWindow();

private:
    // A window as start-up makes it, shown.
    void makeWindow();
    void render(double seconds = BUFFER_SECONDS) { OfflinePlayer::render(mPlayer, seconds); }
    void clickAndRender(QAbstractButton* button);
    template <typename T> T* child(const QString& name) const
    {
        return mWindow ? mWindow->findChild<T*>(name) : nullptr;
    }
    // The strip's buttons, in the window or in `parent`.
    TransposeButton* transposeButton(int step, QWidget* parent = nullptr) const;
    PrimeToggleButton* primeButton(int prime, QWidget* parent = nullptr) const;
    QLabel* countLabel(int step) const;
    // The shell patches, removed to make every patch fail to open, and back.
    void breakShellPatches();
    void repairShellPatches();

    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    std::unique_ptr<MainWindow> mWindow;
};

void TestMainWindow::initTestCase()
{
    OfflinePlayer::setUp(mPlayer, mArbo);
    if (QTest::currentTestFailed()) {
        return;
    }
    // The window as the program shows it, with the program's style sheet.
    const QByteArray sheet = TestSupport::readFile(TestSupport::binDir() + "/style.qss");
    QVERIFY(!sheet.isEmpty());
    qApp->setStyleSheet(QString::fromUtf8(sheet));
}

void TestMainWindow::init()
{
    mSettings.mDefaultPatch = QStringLiteral("Sine.pd");
    mSettings.mCirclesView = false;
}

void TestMainWindow::cleanup()
{
    mWindow.reset();
    repairShellPatches();
    const ArboEvent events[] = {
        ArboEvent(ArboEvent::AllNotesOff, 1.0f),
        ArboEvent(ArboEvent::Transpose, 0.0f),
        ArboEvent(ArboEvent::BaseFrequency, 440.0f),
        ArboEvent(ArboEvent::Monophonic, 0.0f),
    };
    for (const ArboEvent& event : events) {
        mPlayer.queueEventGui(&event);
    }
    for (int prime = 0; prime < PdPlayer::PRIME_FLAG_COUNT; ++prime) {
        if (!mPlayer.primeEnabled(prime)) {
            const ArboEvent toggle(ArboEvent::PrimeToggle, float(prime));
            mPlayer.queueEventGui(&toggle);
        }
    }
    render();
    QTRY_VERIFY(mArbo.playingRatios().isEmpty() && mArbo.transposeSteps().isEmpty() &&
                mArbo.baseFrequency() == 440.0f);
}

void TestMainWindow::makeWindow()
{
    mWindow = std::make_unique<MainWindow>(OfflinePlayer::parts(mPlayer, mArbo, mSettings));
    mWindow->resize(1200, 820);
    mWindow->show();
    QVERIFY(QTest::qWaitForWindowExposed(mWindow.get()));
}

void TestMainWindow::clickAndRender(QAbstractButton* button)
{
    QVERIFY(button);
    QTest::mouseClick(button, Qt::LeftButton);
    render();
}

TransposeButton* TestMainWindow::transposeButton(int step, QWidget* parent) const
{
    const auto buttons = (parent ? parent : mWindow.get())->findChildren<TransposeButton*>();
    for (TransposeButton* button : buttons) {
        if (button->step() == step) {
            return button;
        }
    }
    return nullptr;
}

PrimeToggleButton* TestMainWindow::primeButton(int prime, QWidget* parent) const
{
    const auto buttons = (parent ? parent : mWindow.get())->findChildren<PrimeToggleButton*>();
    for (PrimeToggleButton* button : buttons) {
        if (button->prime() == prime && button->objectName() != QLatin1String("resetButton")) {
            return button;
        }
    }
    return nullptr;
}

QLabel* TestMainWindow::countLabel(int step) const
{
    // In a vertical strip the row reads: count of the down step, down
    // button, prime button, up button, count of the up step.
    TransposeButton* button = transposeButton(step);
    const QPoint centre = button->geometry().center();
    QWidget* strip = button->parentWidget();
    const QList<QLabel*> labels = strip->findChildren<QLabel*>();
    QLabel* nearest = nullptr;
    for (QLabel* label : labels) {
        const QRect g = label->geometry();
        if (g.top() > centre.y() || g.bottom() < centre.y()) {
            continue; // another row
        }
        const bool onItsSide = step < 0 ? g.right() < centre.x() : g.left() > centre.x();
        if (onItsSide &&
            (!nearest || std::abs(g.center().x() - centre.x()) <
                             std::abs(nearest->geometry().center().x() - centre.x()))) {
            nearest = label;
        }
    }
    return nearest;
}

void TestMainWindow::breakShellPatches()
{
    QVERIFY(QFile::remove(PatchLoader::mainPatchFile()));
}

void TestMainWindow::repairShellPatches()
{
    QVERIFY(PatchLoader::installShellPatches());
}

void TestMainWindow::widgetTreeAndStartState()
{
    mSettings.mAbsRelView = 2;
    makeWindow();
    // Every start shows relative readouts.
    QCOMPARE(mSettings.mAbsRelView, 0);

    // The preset row is there but hidden.
    for (const char* name :
         {"presetDecButton", "presetIncButton", "presetMenu", "savePresetButton"}) {
        QVERIFY2(!child<QWidget>(name)->isVisible(), name);
    }

    // The strip stands upright in the left frame: twelve rows and the reset.
    auto* strip = child<TransposeWidget>("transposeWidget");
    QCOMPARE(strip->orientation(), Qt::Vertical);
    QCOMPARE(strip->parentWidget(), child<QFrame>("leftFrame"));
    QCOMPARE(strip->findChildren<TransposeButton*>().size(), 22);
    QCOMPARE(strip->findChildren<PrimeToggleButton*>().size(), 13);
    QVERIFY(transposeButton(-3)->geometry().center().y() <
            transposeButton(-5)->geometry().center().y());
    QVERIFY(transposeButton(-3)->geometry().right() < primeButton(3)->geometry().left());
    QVERIFY(primeButton(3)->geometry().right() < transposeButton(3)->geometry().left());
    QVERIFY(strip->resetButton()->geometry().top() > primeButton(31)->geometry().bottom());
}

void TestMainWindow::macroSlidersFollowThePatchAndThePlayer()
{
    QSignalSpy macros(&mPlayer, &PdPlayer::macroValueChanged);
    makeWindow();
    // Sine names two macros and gives their defaults; the window labels the
    // sliders, and the defaults travel through the engine back to them.
    render();
    QTRY_COMPARE(child<QLabel>("macroLabel2")->text(), QStringLiteral("Release"));
    render();
    QTRY_COMPARE(child<QSlider>("macroSlider2")->value(), 30);
    QCOMPARE(child<QLabel>("macroLabel1")->text(), QStringLiteral("Attack"));
    QCOMPARE(child<QSlider>("macroSlider1")->value(), 10);
    for (int n = 3; n <= 8; ++n) {
        QCOMPARE(child<QLabel>(QStringLiteral("macroLabel%1").arg(n))->text(),
                 QStringLiteral("Unused"));
        QVERIFY(!child<QLabel>(QStringLiteral("macroLabel%1").arg(n))->isEnabled());
        QVERIFY(!child<QSlider>(QStringLiteral("macroSlider%1").arg(n))->isEnabled());
    }
    QVERIFY(child<QSlider>("macroSlider2")->isEnabled());

    // A slider moved by the player: the engine gets the macro normalised.
    macros.clear();
    child<QSlider>("macroSlider2")->setValue(55);
    render();
    QCOMPARE(macros.size(), 1);
    QCOMPARE(macros.at(0).at(0).toInt(), 2);
    QCOMPARE(macros.at(0).at(1).toFloat(), 0.55f);

    // A macro set from elsewhere (a wand) moves its slider, and nothing goes
    // back to the engine.
    const ArboEvent wand(ArboEvent::Macro1, 0.7f);
    mPlayer.queueEventGui(&wand);
    render();
    QTRY_COMPARE(child<QSlider>("macroSlider1")->value(), 70);
    render();
    QCOMPARE(macros.size(), 2);

    // Another patch relabels the sliders with its names, case folded. A
    // macro of the same name keeps its value (Sine's Release, 0.55, is
    // Vocal's fourth macro); the others take the new patch's defaults.
    auto* menu = child<QComboBox>("patchMenu");
    macros.clear();
    menu->setCurrentIndex(menu->findText(QStringLiteral("Vocal")));
    emit menu->activated(menu->currentIndex());
    QCOMPARE(menu->currentText(), QStringLiteral("Vocal"));
    render();
    QTRY_COMPARE(child<QLabel>("macroLabel4")->text(), QStringLiteral("Release"));
    QCOMPARE(child<QLabel>("macroLabel1")->text(), QStringLiteral("Vowel"));
    QVERIFY(child<QSlider>("macroSlider4")->isEnabled());
    QVERIFY(!child<QSlider>("macroSlider5")->isEnabled());
    QTRY_COMPARE(child<QSlider>("macroSlider4")->value(), 55);
    QVERIFY(!macros.isEmpty());

    // Names as the patch spells them, first letter up, the rest down.
    mWindow->macros()->onMacroNamesReceived({QStringLiteral("cUTOFF"), QString()});
    QCOMPARE(child<QLabel>("macroLabel1")->text(), QStringLiteral("Cutoff"));
    QCOMPARE(child<QLabel>("macroLabel2")->text(), QString());
    QVERIFY(child<QSlider>("macroSlider2")->isEnabled());
    QCOMPARE(child<QLabel>("macroLabel3")->text(), QStringLiteral("Unused"));
}

void TestMainWindow::volumeMonoPolyAndStopAll()
{
    makeWindow();
    render();
    auto* volume = child<QSlider>("volumeSlider");
    QSignalSpy volumes(&mPlayer, &PdPlayer::volumeChanged);

    volume->setValue(40);
    render();
    QCOMPARE(volumes.size(), 1);
    QCOMPARE(mPlayer.volume(), 0.4f);

    // From a wand: the slider follows, and sends nothing back.
    const ArboEvent wandVolume(ArboEvent::MasterVolume, 0.9f);
    mPlayer.queueEventGui(&wandVolume);
    render();
    QTRY_COMPARE(volume->value(), 90);
    render();
    QCOMPARE(volumes.size(), 2);
    QCOMPARE(mPlayer.volume(), 0.9f);

    auto* mono = child<QPushButton>("monoButton");
    auto* poly = child<QPushButton>("polyButton");
    QVERIFY(poly->isChecked() && !mono->isChecked());
    clickAndRender(mono);
    QVERIFY(mPlayer.monophonic());
    QVERIFY(mono->isChecked() && !poly->isChecked());
    clickAndRender(poly);
    QVERIFY(!mPlayer.monophonic());
    QTRY_VERIFY(poly->isChecked() && !mono->isChecked());
    const ArboEvent wandMono(ArboEvent::Monophonic, 1.0f);
    mPlayer.queueEventGui(&wandMono);
    render();
    QTRY_VERIFY(mono->isChecked() && !poly->isChecked());
    const ArboEvent wandPoly(ArboEvent::Monophonic, 0.0f);
    mPlayer.queueEventGui(&wandPoly);
    render();
    QTRY_VERIFY(poly->isChecked() && !mono->isChecked());

    // Two notes, then "Stop all", pressed twice: the event is made once and
    // queued again.
    for (const char* path : {"/3", "/-2"}) {
        const ArboNoteEvent note{ArboPath(QString::fromLatin1(path))};
        mPlayer.queueEventGui(&note);
    }
    render();
    QTRY_COMPARE(mArbo.playingRatios().size(), 2);
    clickAndRender(child<QPushButton>("stopAllButton"));
    QTRY_VERIFY(mArbo.playingRatios().isEmpty());
    const ArboNoteEvent again{ArboPath(QStringLiteral("/3"))};
    mPlayer.queueEventGui(&again);
    render();
    QTRY_COMPARE(mArbo.playingRatios().size(), 1);
    clickAndRender(child<QPushButton>("stopAllButton"));
    QTRY_VERIFY(mArbo.playingRatios().isEmpty());
}

void TestMainWindow::transposeStripCountsAndReadout()
{
    makeWindow();
    auto* reset = child<PrimeToggleButton>("resetButton");
    auto* steps = child<QLabel>("infoLabel1");
    auto* frequencies = child<QLabel>("infoLabel2");
    QVERIFY(!reset->isEnabled());

    // Two steps up along 3: 440 × 9/4.
    clickAndRender(transposeButton(3));
    QTRY_COMPARE(mArbo.transposeSteps().size(), 1);
    QCOMPARE(countLabel(3)->text(), QStringLiteral("+1"));
    clickAndRender(transposeButton(3));
    QTRY_COMPARE(mArbo.transposeSteps().size(), 2);
    QCOMPARE(countLabel(3)->text(), QStringLiteral("+2"));
    QCOMPARE(countLabel(-3)->text(), QString());
    QCOMPARE(steps->text(), QStringLiteral("Shifted prime steps: /3/3"));
    QCOMPARE(frequencies->text(), QStringLiteral("Frequency of central node: 990.000 Hz        "
                                                 "1/1 Frequency: 440.000 Hz"));
    QVERIFY(reset->isEnabled());
    QCOMPARE(transposeButton(3)->count(), 2);

    // The +3 triangle is painted in the colour of 3 now, the -3 one not.
    const QColor three = mArbo.lookupColor(3);
    auto paintedIn = [](QWidget* widget, const QColor& colour) {
        const QImage image = widget->grab().toImage();
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                if (image.pixelColor(x, y).rgb() == colour.rgb()) {
                    return true;
                }
            }
        }
        return false;
    };
    QVERIFY(paintedIn(transposeButton(3), three));
    QVERIFY(!paintedIn(transposeButton(-3), three));

    // One step down along 5: 990 × 4/5.
    clickAndRender(transposeButton(-5));
    QTRY_COMPARE(mArbo.transposeSteps().size(), 3);
    QCOMPARE(countLabel(-5)->text(), QStringLiteral("-1"));
    QCOMPARE(countLabel(5)->text(), QString());
    QCOMPARE(countLabel(3)->text(), QStringLiteral("+2"));
    QCOMPARE(steps->text(), QStringLiteral("Shifted prime steps: /3/3/-5"));
    QCOMPARE(frequencies->text(), QStringLiteral("Frequency of central node: 792.000 Hz        "
                                                 "1/1 Frequency: 440.000 Hz"));

    // A step back along 3 cancels one; the label follows.
    clickAndRender(transposeButton(-3));
    QTRY_COMPARE(countLabel(3)->text(), QStringLiteral("+1"));
    QCOMPARE(countLabel(-3)->text(), QString());

    // Reset: every count empty, the readout back to the 1/1, "=" disabled.
    QTest::mouseClick(reset, Qt::LeftButton);
    render();
    QTRY_VERIFY(mArbo.transposeSteps().isEmpty());
    for (int step : {3, -3, 5, -5}) {
        QCOMPARE(countLabel(step)->text(), QString());
    }
    QCOMPARE(steps->text(), QStringLiteral("Shifted prime steps: /"));
    QCOMPARE(frequencies->text(),
             QStringLiteral("Frequency of central node [= 1/1 Frequency]: 440.000 Hz"));
    QVERIFY(!reset->isEnabled());

    // A long transposition is elided in the middle to the label's width.
    steps->setMaximumWidth(300);
    QTRY_VERIFY(steps->width() <= 300);
    for (int i = 0; i < 6; ++i) {
        for (int step : {5, -7}) {
            const ArboEvent event(ArboEvent::Transpose, float(step));
            mPlayer.queueEventGui(&event);
        }
    }
    render();
    QTRY_COMPARE(mArbo.transposeSteps().size(), 12);
    QTRY_VERIFY(steps->text().contains(QChar(0x2026)));
    QVERIFY(steps->text().startsWith(QStringLiteral("Shifted prime steps: /5/-7")));
    QVERIFY(steps->text().endsWith(QStringLiteral("/5/-7")));
}

void TestMainWindow::refusedTranspositionVanishes()
{
    makeWindow();
    TransposeButton* downTwo = transposeButton(-2);
    TransposeButton* downThree = transposeButton(-3);
    TransposeButton* downFive = transposeButton(-5);
    QVERIFY(downTwo->isEnabled());
    const QImage shown = downTwo->grab().toImage();

    // With the 1/1 at 25 Hz, an octave or a fifth down would leave the
    // audible range: those buttons go, a step down by 5/4 (to 20 Hz) stays.
    const ArboEvent base(ArboEvent::BaseFrequency, 25.0f);
    mPlayer.queueEventGui(&base);
    render();
    QTRY_VERIFY(!downTwo->isEnabled());
    QVERIFY(!downThree->isEnabled());
    QVERIFY(downFive->isEnabled());
    QVERIFY(transposeButton(2)->isEnabled());
    QCOMPARE(child<QLabel>("infoLabel2")->text(),
             QStringLiteral("Frequency of central node [= 1/1 Frequency]: 25.000 Hz"));

    // Vanished: it paints nothing of its own, only what lies behind it.
    const QImage gone = downTwo->grab().toImage();
    QVERIFY(gone != shown);
    const QRgb first = gone.pixel(0, 0);
    for (int y = 0; y < gone.height(); ++y) {
        for (int x = 0; x < gone.width(); ++x) {
            QCOMPARE(gone.pixel(x, y), first);
        }
    }
    // And a click on it changes nothing.
    downTwo->onTransposeClicked();
    render();
    QCOMPARE(mArbo.transposeSteps().size(), 0);
    QCOMPARE(mPlayer.transposition(), ArboRatio(1, 1));

    // Back at 440 Hz it returns.
    const ArboEvent back(ArboEvent::BaseFrequency, 440.0f);
    mPlayer.queueEventGui(&back);
    render();
    QTRY_VERIFY(downTwo->isEnabled());
}

void TestMainWindow::horizontalStripAndFirstClick()
{
    // A strip made while the 1/1 sits at 25 Hz, where an octave down is
    // refused: before any change its buttons have asked nothing yet, so they
    // show, but a click still asks the lattice and queues nothing.
    const ArboEvent base(ArboEvent::BaseFrequency, 25.0f);
    mPlayer.queueEventGui(&base);
    render();
    QTRY_COMPARE(mArbo.baseFrequency(), 25.0f);

    TransposeWidget strip;
    strip.init(Qt::Horizontal, mArbo, &mPlayer);
    strip.show();
    QVERIFY(QTest::qWaitForWindowExposed(&strip));
    QCOMPARE(strip.orientation(), Qt::Horizontal);
    TransposeButton* up = transposeButton(2, &strip);
    TransposeButton* down = transposeButton(-2, &strip);
    QVERIFY(up && down && down->isEnabled());
    QSignalSpy transposed(&mPlayer, &PdPlayer::transposed);
    QTest::mouseClick(down, Qt::LeftButton);
    render();
    QCOMPARE(transposed.size(), 0);

    // One column per prime, left to right; in a column, from the top: the
    // count of the down step, the up button, the prime, the down button, the
    // count of the up step.
    PrimeToggleButton* two = primeButton(2, &strip);
    PrimeToggleButton* three = primeButton(3, &strip);
    QVERIFY(two && three);
    QVERIFY(two->geometry().right() < three->geometry().left());
    QVERIFY(up->geometry().bottom() < two->geometry().top());
    QVERIFY(two->geometry().bottom() < down->geometry().top());
    QVERIFY(std::abs(up->geometry().center().x() - two->geometry().center().x()) <= 1);
}

void TestMainWindow::primeButtons()
{
    makeWindow();
    // 1, 2 and 3 carry the lattice: shown, not switchable.
    for (int prime : {1, 2, 3}) {
        PrimeToggleButton* button = primeButton(prime);
        QVERIFY(!button->isEnabled());
        QVERIFY(!button->isCheckable());
        QCOMPARE(button->text(), QString::number(prime));
    }
    for (int prime : {5, 7, 11, 13, 17, 19, 23, 29, 31}) {
        PrimeToggleButton* button = primeButton(prime);
        QVERIFY(button->isEnabled() && button->isCheckable() && button->isChecked());
    }

    // On screen: a prime's colour when on, three times darker when off, grey
    // while pressed; 1, 2 and 3 keep their colour although they are disabled;
    // 19's own colour is too light for its text and is drawn a little darker.
    auto shown = [](QWidget* button) {
        const QImage image = button->grab().toImage();
        return image.pixelColor(2, image.height() / 2).rgb();
    };
    PrimeToggleButton* seven = primeButton(7);
    QCOMPARE(shown(seven), mArbo.lookupColor(7).rgb());
    seven->setChecked(false); // not a click: nothing goes to the player
    QCOMPARE(shown(seven), mArbo.lookupColor(7).darker(PRIME_DISABLED_DIM_FACTOR).rgb());
    seven->setChecked(true);
    QTest::mousePress(seven, Qt::LeftButton);
    QCOMPARE(shown(seven), QColor(0xc4, 0xc4, 0xbb).rgb());
    QTest::mouseRelease(seven, Qt::LeftButton, {}, QPoint(-10, -10)); // outside: no click
    QCOMPARE(shown(primeButton(3)), mArbo.lookupColor(3).rgb());
    QCOMPARE(shown(primeButton(19)), mArbo.lookupColor(19).darker(120).rgb());
}

void TestMainWindow::primeToggleHidesItsLeavesAndBlocksItsNotes()
{
    makeWindow();
    auto ball = [this](const char* path) {
        return TestSupport::ballAt(mWindow->arboView(), QString::fromLatin1(path));
    };
    QVERIFY(ball("/7") && ball("/3/-7") && ball("/5"));

    // The 7/4 above the root sounds: 770 Hz.
    const ArboNoteEvent seventh{ArboPath(QStringLiteral("/7"))};
    mPlayer.queueEventGui(&seventh);
    render(0.5);
    QTRY_VERIFY(ball("/7")->node()->isPlaying());

    // 7 off: every leaf of 7 disappears, the others stay.
    PrimeToggleButton* seven = primeButton(7);
    clickAndRender(seven);
    QVERIFY(!seven->isChecked());
    QVERIFY(!mPlayer.primeEnabled(7));
    QTRY_VERIFY(!ball("/7")->isVisible());
    QVERIFY(!ball("/3/-7")->isVisible());
    QVERIFY(ball("/5")->isVisible() && ball("/3")->isVisible());

    // The engine leaves a sounding note of 7 ringing (switching a prime off
    // only stops new toggles of it): a toggle now is refused, the tone goes
    // on; and no new 7 can start.
    mPlayer.queueEventGui(&seventh);
    const ArboNoteEvent other{ArboPath(QStringLiteral("/-7"))};
    mPlayer.queueEventGui(&other);
    std::vector<float> out = OfflinePlayer::render(mPlayer, 1.0);
    AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
        out.data(), SAMPLE_RATE / 2, long(out.size()), 770.0, SAMPLE_RATE);
    QVERIFY(tone.minAmplitude > 0.01);
    QCOMPARE(mPlayer.soundingNoteCount(), 1);

    // 7 on again: the leaves return and the note can be stopped.
    clickAndRender(seven);
    QVERIFY(seven->isChecked());
    QTRY_VERIFY(ball("/7")->isVisible() && ball("/3/-7")->isVisible());
    mPlayer.queueEventGui(&seventh);
    render();
    QTRY_VERIFY(!ball("/7")->node()->isPlaying());
    out = OfflinePlayer::render(mPlayer, 2.0);
    QVERIFY(AudioAnalysis::rmsDb(QVector<float>(out.end() - SAMPLE_RATE / 2, out.end())) < -80);
}

void TestMainWindow::patchMenuEdgeCases()
{
    TestSupport::MessageBoxAnswerer answerer;

    // An empty default patch falls back to Sine, saying so.
    mSettings.mDefaultPatch.clear();
    QTest::ignoreMessage(QtWarningMsg, "No default patch name found, use Sine.");
    makeWindow();
    auto* menu = child<QComboBox>("patchMenu");
    QCOMPARE(menu->currentText(), QStringLiteral("Sine"));
    // Every voice patch of the resource folder, by name, without ".pd".
    QCOMPARE(menu->count(), 4);
    QCOMPARE(menu->itemText(0), QStringLiteral("Organ"));
    QCOMPARE(menu->itemText(3), QStringLiteral("Vocal"));
    QCOMPARE(menu->itemData(2).toString(),
             TestSupport::binDir() + QStringLiteral("/patches/Sine.pd"));
    mWindow.reset();

    // A first load that fails: "None loaded" is shown, with the message.
    mPlayer.unloadPatch(); // as at a first start
    mSettings.mDefaultPatch = QStringLiteral("Organ.pd");
    breakShellPatches();
    makeWindow();
    menu = child<QComboBox>("patchMenu");
    QCOMPARE(answerer.answered(), 1);
    QCOMPARE(answerer.texts().last(),
             QStringLiteral("Failed to load patch %1.")
                 .arg(TestSupport::binDir() + QStringLiteral("/patches/Organ.pd")));
    QCOMPARE(menu->currentText(), QStringLiteral("None loaded"));
    QCOMPARE(menu->count(), 5);
    QVERIFY(menu->currentData().toString().isEmpty());
    QVERIFY(!mPlayer.isPatchOpen());

    // Another failure before any success: "None loaded" stays, once.
    menu->setCurrentIndex(3);
    emit menu->activated(3);
    QCOMPARE(answerer.answered(), 2);
    QCOMPARE(menu->findText(QStringLiteral("None loaded")), 4);
    QCOMPARE(menu->count(), 5);

    // Stepping onto "None loaded" tries its empty path, which fails.
    repairShellPatches();
    QTest::mouseClick(child<QPushButton>("patchIncButton"), Qt::LeftButton);
    QCOMPARE(menu->currentIndex(), 4);
    QCOMPARE(answerer.answered(), 3);
    QCOMPARE(answerer.texts().last(), QStringLiteral("Failed to load patch ."));

    // A later success removes "None loaded".
    QTest::mouseClick(child<QPushButton>("patchIncButton"), Qt::LeftButton);
    QCOMPARE(answerer.answered(), 3);
    QCOMPARE(menu->currentText(), QStringLiteral("Organ"));
    QCOMPARE(menu->count(), 4);
    QVERIFY(mPlayer.isPatchOpen());

    // A failure after a success shows the last good patch again, which
    // plays on.
    breakShellPatches();
    menu->setCurrentIndex(menu->findText(QStringLiteral("Pluck")));
    emit menu->activated(menu->currentIndex());
    QCOMPARE(answerer.answered(), 4);
    QCOMPARE(menu->currentText(), QStringLiteral("Organ"));
    QCOMPARE(menu->count(), 4);
    QVERIFY(mPlayer.isPatchOpen());
    repairShellPatches();

    // The steps wrap around, and so do the wands' requests.
    QTest::mouseClick(child<QPushButton>("patchDecButton"), Qt::LeftButton);
    QCOMPARE(menu->currentText(), QStringLiteral("Vocal"));
    const ArboEvent next(ArboEvent::PatchStep, 1.0f);
    mPlayer.queueEventGui(&next);
    render();
    QTRY_COMPARE(menu->currentText(), QStringLiteral("Organ"));
    QVERIFY(mPlayer.isPatchOpen());
    // A burst of them goes straight to where they add up to: 201 steps from
    // Organ, the first of four, end on Pluck, in one change.
    QSignalSpy loads(&mPlayer, &PdPlayer::patchLoaded);
    for (int i = 0; i < 201; ++i) {
        mPlayer.queueEventGui(&next);
    }
    render(2 * BUFFER_SECONDS); // the budget takes them in two buffers
    QTRY_COMPARE(menu->currentText(), QStringLiteral("Pluck"));
    QCOMPARE(loads.size(), 1);

    // A patch from elsewhere joins the menu under its name, once.
    const QString own = TestSupport::home() + QStringLiteral("/My Voice.pd");
    QVERIFY(QFile::copy(TestSupport::binDir() + QStringLiteral("/patches/Sine.pd"), own));
    mWindow->patches()->load(own);
    QCOMPARE(menu->currentText(), QStringLiteral("My Voice"));
    QCOMPARE(menu->count(), 5);
    mWindow->patches()->addToMenu(own);
    QCOMPARE(menu->count(), 5);
    QCOMPARE(answerer.answered(), 4);
}

void TestMainWindow::keyboard()
{
    makeWindow();
    // Ctrl+9 shows the diagnostics and hides them again; 9 alone does not
    // (that it plays nothing is the keyboard test's).
    QKeyEvent nine(QEvent::KeyPress, Qt::Key_9, Qt::NoModifier, QStringLiteral("9"));
    QKeyEvent ctrlNine(QEvent::KeyPress, Qt::Key_9, Qt::ControlModifier);
    QApplication::sendEvent(mWindow.get(), &ctrlNine);
    QWidget* diagnostics = mWindow->diagnosticsDialog();
    QVERIFY(diagnostics->isVisible());
    QApplication::sendEvent(mWindow.get(), &nine);
    QVERIFY(diagnostics->isVisible());
    QApplication::sendEvent(mWindow.get(), &ctrlNine);
    QVERIFY(!diagnostics->isVisible());
}

// A tweak takes effect in the drawing only when "Update" is pressed; the
// options button opens and closes the options.
void TestMainWindow::tweaksAndOptionsFromTheWindow()
{
    makeWindow();
    // The distance of the shown drawing's +3 ball from the root.
    auto fifth = [this] {
        const ArboBallWidget* ball = TestSupport::ballAt(mWindow->arboView(), "/3");
        return QLineF(QPointF(0, 0), ball->scenePos()).length();
    };
    QCOMPARE(qRound(fifth()), 66);
    TweakDialog* tweaks = mWindow->tweakDialog();
    QSpinBox* strut3 = tweaks->findChild<QSpinBox*>(QStringLiteral("STRUT_3_LENGTH"));
    QVERIFY(strut3);
    strut3->setValue(100);
    QCOMPARE(STRUT_3_LENGTH, 100);
    QCOMPARE(qRound(fifth()), 66); // not yet drawn
    QTest::mouseClick(tweaks->updateButton(), Qt::LeftButton);
    QCOMPARE(qRound(fifth()), 100);
    strut3->setValue(66);
    QTest::mouseClick(tweaks->updateButton(), Qt::LeftButton);
    QCOMPARE(qRound(fifth()), 66);

    QAbstractButton* options = child<QAbstractButton>(QStringLiteral("optionsButton"));
    QTest::mouseClick(options, Qt::LeftButton);
    QTRY_VERIFY(mWindow->optionsDialog() && mWindow->optionsDialog()->isVisible());
    QTest::mouseClick(options, Qt::LeftButton);
    QTRY_VERIFY(!mWindow->optionsDialog() || !mWindow->optionsDialog()->isVisible());
}

ARBO_TEST_MAIN(TestMainWindow)

#include "tst_mainwindow.moc"
