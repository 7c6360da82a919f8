// The main window and its transpose strip with real widgets (offscreen), the
// real lattice, and the real player and voice patches. The test thread plays
// the audio thread (see offlineplayer.h), so every control is followed
// through the engine and back: a click queues a command, the rendering
// carries it out, and the engine's answer comes back to the window.

#include "audioanalysis.h"
#include "display/arboballwidget.h"
#include "display/layoutconstants.h"
#include "display/primetogglebutton.h"
#include "display/transposebutton.h"
#include "display/transposewidget.h"
#include "model/arbo.h"
#include "model/arboconstants.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/macrosliders.h"
#include "ui/mainwindow.h"
#include "ui/optionsdialog.h"
#include "ui/patchchooser.h"
#include "ui/tweakdialog.h"

#include <QComboBox>
#include <QFrame>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QSpinBox>

#include <memory>

using OfflinePlayer::BUFFER_SECONDS;
using OfflinePlayer::SAMPLE_RATE;

class TestMainWindow : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    std::unique_ptr<MainWindow> mWindow;

    // A window as start-up makes it, shown.
    void makeWindow()
    {
        mWindow = std::make_unique<MainWindow>(OfflinePlayer::parts(mPlayer, mArbo, mSettings));
        mWindow->resize(1200, 820);
        mWindow->show();
        QVERIFY(QTest::qWaitForWindowExposed(mWindow.get()));
    }
    void render(double seconds = BUFFER_SECONDS) { OfflinePlayer::render(mPlayer, seconds); }
    void clickAndRender(QAbstractButton* button)
    {
        QVERIFY(button);
        QTest::mouseClick(button, Qt::LeftButton);
        render();
    }
    // A command from elsewhere (a wand), carried out.
    void send(const ArboEvent& event)
    {
        mPlayer.queueEventGui(&event);
        render();
    }
    void send(ArboEvent::Type type, float value) { send(ArboEvent(type, value)); }
    void play(const char* path) { send(ArboNoteEvent{ArboPath(QString::fromLatin1(path))}); }
    template <typename T> T* child(const QString& name) const
    {
        return mWindow ? mWindow->findChild<T*>(name) : nullptr;
    }
    // The strip's buttons, in the window or in `parent`.
    TransposeButton* transposeButton(int step, QWidget* parent = nullptr) const
    {
        const auto all = (parent ? parent : mWindow.get())->findChildren<TransposeButton*>();
        const auto it =
            std::find_if(all.begin(), all.end(), [=](auto* b) { return b->step() == step; });
        return it == all.end() ? nullptr : *it;
    }
    PrimeToggleButton* primeButton(int prime, QWidget* parent = nullptr) const
    {
        // Not the reset button, which is a "1" too.
        const auto all = (parent ? parent : mWindow.get())
                             ->findChildren<PrimeToggleButton*>(QRegularExpression("^$"));
        const auto it =
            std::find_if(all.begin(), all.end(), [=](auto* b) { return b->prime() == prime; });
        return it == all.end() ? nullptr : *it;
    }
    // The count beside a step's button in the vertical strip: right beside
    // it, on its own side (left of a step down).
    QLabel* countLabel(int step) const
    {
        const QRect button = transposeButton(step)->geometry();
        const QPoint beside(step < 0 ? button.left() - 2 : button.right() + 2, button.center().y());
        return qobject_cast<QLabel*>(transposeButton(step)->parentWidget()->childAt(beside));
    }
    // The strip's counts that are not empty ("3:+2"), whether "=" is
    // enabled, and the window's two readouts.
    QString stripShows() const
    {
        QStringList shown;
        for (auto* button : mWindow->findChildren<TransposeButton*>()) {
            const QString count = countLabel(button->step())->text();
            if (!count.isEmpty()) {
                shown << QString("%1:%2").arg(button->step()).arg(count);
            }
        }
        shown << (child<PrimeToggleButton>("resetButton")->isEnabled() ? "=" : "no =");
        return (shown << child<QLabel>("infoLabel1")->text() << child<QLabel>("infoLabel2")->text())
            .join(" | ");
    }
    // Makes every patch fail to open, by removing the shell's main patch.
    void breakShellPatches() { QVERIFY(QFile::remove(PatchLoader::mainPatchFile())); }

private slots:
    void initTestCase()
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

    void init()
    {
        mSettings.mDefaultPatch = QStringLiteral("Sine.pd");
        mSettings.mCirclesView = false;
    }

    void cleanup()
    {
        mWindow.reset();
        LayoutConstants::resetToDefaults();
        QVERIFY(PatchLoader::installShellPatches());
        send(ArboEvent::AllNotesOff, 1.0f);
        send(ArboEvent::Transpose, 0.0f);
        send(ArboEvent::BaseFrequency, 440.0f);
        send(ArboEvent::Monophonic, 0.0f);
        for (int prime = 0; prime < PdPlayer::PRIME_FLAG_COUNT; ++prime) {
            if (!mPlayer.primeEnabled(prime)) {
                send(ArboEvent::PrimeToggle, float(prime));
            }
        }
        QTRY_VERIFY(mArbo.playingRatios().isEmpty() && mArbo.transposeSteps().isEmpty() &&
                    mArbo.baseFrequency() == 440.0f);
    }

    // The sliders follow the patch and the player; one moved by the player
    // reaches the engine, one that follows the engine sends nothing back.
    void slidersFollowThePatchAndThePlayer()
    {
        // Each slider as "name value"; a disabled name in brackets, a
        // disabled slider's value "off".
        const auto shown = [&] {
            QStringList sliders;
            for (int n = 1; n <= 8; ++n) {
                const QLabel* label = child<QLabel>(QString("macroLabel%1").arg(n));
                const QSlider* slider = child<QSlider>(QString("macroSlider%1").arg(n));
                sliders << (label->isEnabled() ? label->text() : "(" + label->text() + ")") + " " +
                               (slider->isEnabled() ? QString::number(slider->value()) : "off");
            }
            return sliders.join(", ");
        };
        const QString unused = ", (Unused) off";
        QSignalSpy macros(&mPlayer, &PdPlayer::macroValueChanged);
        makeWindow();
        // Sine names two macros and gives their defaults; the window labels the
        // sliders, and the defaults travel through the engine back to them.
        QTRY_COMPARE((render(), shown()), "Attack 10, Release 30" + unused.repeated(6));

        // A slider moved by the player: the engine gets the macro normalised.
        macros.clear();
        child<QSlider>("macroSlider2")->setValue(55);
        render();
        QCOMPARE(macros, (QList<QVariantList>{{2, 0.55f}}));

        // A macro set from elsewhere (a wand) moves its slider, and nothing goes
        // back to the engine.
        send(ArboEvent::Macro1, 0.7f);
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
        QTRY_COMPARE((render(), shown()),
                     "Vowel 0, Vibrato 0, Attack 70, Release 55" + unused.repeated(4));
        QVERIFY(!macros.isEmpty());

        // Names as the patch spells them, first letter up, the rest down.
        mWindow->macros()->onMacroNamesReceived({QStringLiteral("cUTOFF"), QString()});
        QCOMPARE(shown(), "Cutoff 0,  0" + unused.repeated(6));

        // The volume likewise.
        auto* volume = child<QSlider>("volumeSlider");
        QSignalSpy volumes(&mPlayer, &PdPlayer::volumeChanged);
        volume->setValue(40);
        render();
        QCOMPARE(volumes.size(), 1);
        QCOMPARE(mPlayer.volume(), 0.4f);
        send(ArboEvent::MasterVolume, 0.9f);
        QTRY_COMPARE(volume->value(), 90);
        render();
        QCOMPARE(volumes.size(), 2);
        QCOMPARE(mPlayer.volume(), 0.9f);
    }

    // Mono/poly and "Stop all", from the window and from a wand.
    void monoPolyAndStopAll()
    {
        makeWindow();
        auto* mono = child<QPushButton>("monoButton");
        auto* poly = child<QPushButton>("polyButton");
        QVERIFY(poly->isChecked() && !mono->isChecked());
        // Mono and poly clicked, then each from a wand.
        for (int round = 0; round < 4; ++round) {
            const bool monophonic = round % 2 == 0;
            if (round < 2) {
                clickAndRender(monophonic ? mono : poly);
            } else {
                send(ArboEvent::Monophonic, monophonic ? 1.0f : 0.0f);
            }
            QCOMPARE(mPlayer.monophonic(), monophonic);
            QTRY_VERIFY(mono->isChecked() == monophonic && poly->isChecked() != monophonic);
        }

        // Two notes, then "Stop all"; one note, "Stop all" again: the event
        // is made once and queued again.
        for (const QStringList& notes : {QStringList{"/3", "/-2"}, QStringList{"/3"}}) {
            for (const QString& note : notes) {
                play(qPrintable(note));
            }
            QTRY_COMPARE(mArbo.playingRatios().size(), notes.size());
            clickAndRender(child<QPushButton>("stopAllButton"));
            QTRY_VERIFY(mArbo.playingRatios().isEmpty());
        }
    }

    // Every start shows relative readouts. The strip stands upright in the
    // left frame, twelve rows and the reset; its counts and the readouts
    // follow the transposition.
    void transposeStripCountsAndReadout()
    {
        mSettings.mAbsRelView = 2;
        makeWindow();
        QCOMPARE(mSettings.mAbsRelView, 0);
        auto* strip = child<TransposeWidget>("transposeWidget");
        QCOMPARE(strip->parentWidget(), child<QFrame>("leftFrame"));
        QVERIFY(transposeButton(-3)->geometry().center().y() <
                transposeButton(-5)->geometry().center().y());
        QVERIFY(transposeButton(-3)->geometry().right() < primeButton(3)->geometry().left());
        QVERIFY(primeButton(3)->geometry().right() < transposeButton(3)->geometry().left());
        QVERIFY(strip->resetButton()->geometry().top() > primeButton(31)->geometry().bottom());
        const QString node = " | Frequency of central node: %1 Hz        1/1 Frequency: 440.000 Hz";
        const QString untransposed = "no = | Shifted prime steps: / | Frequency of central node [= "
                                     "1/1 Frequency]: 440.000 Hz";
        QCOMPARE(stripShows(), untransposed);

        // Two steps up along 3: 440 × 9/4.
        clickAndRender(transposeButton(3));
        QTRY_COMPARE(stripShows(), "3:+1 | = | Shifted prime steps: /3" + node.arg("660.000"));
        clickAndRender(transposeButton(3));
        QTRY_COMPARE(stripShows(), "3:+2 | = | Shifted prime steps: /3/3" + node.arg("990.000"));

        // The +3 triangle is painted in the colour of 3 now, the -3 one not.
        const auto paintedIn = [](QWidget* widget, const QColor& colour) {
            const QImage image = widget->grab().toImage().convertToFormat(QImage::Format_RGB32);
            const auto* pixels = reinterpret_cast<const QRgb*>(image.constBits());
            return std::count(pixels, pixels + image.width() * image.height(), colour.rgb()) > 0;
        };
        QVERIFY(paintedIn(transposeButton(3), mArbo.lookupColor(3)));
        QVERIFY(!paintedIn(transposeButton(-3), mArbo.lookupColor(3)));

        // One step down along 5: 990 × 4/5; a step back along 3 cancels one.
        clickAndRender(transposeButton(-5));
        QTRY_COMPARE(stripShows(),
                     "3:+2 | -5:-1 | = | Shifted prime steps: /3/3/-5" + node.arg("792.000"));
        clickAndRender(transposeButton(-3));
        QTRY_COMPARE(stripShows(),
                     "3:+1 | -5:-1 | = | Shifted prime steps: /3/-5" + node.arg("528.000"));
        // Reset: every count empty, the readout back to the 1/1, "=" disabled.
        clickAndRender(child<PrimeToggleButton>("resetButton"));
        QTRY_COMPARE(stripShows(), untransposed);

        // A long transposition is elided in the middle to the label's width.
        auto* steps = child<QLabel>("infoLabel1");
        steps->setMaximumWidth(300);
        QTRY_VERIFY(steps->width() <= 300);
        for (int i = 0; i < 12; ++i) {
            send(ArboEvent::Transpose, i % 2 ? -7.0f : 5.0f);
        }
        const QRegularExpression elided(
            QString("^Shifted prime steps: /5/-7.*%1.*/5/-7$").arg(QChar(0x2026)));
        QTRY_VERIFY2(elided.match(steps->text()).hasMatch(), qPrintable(steps->text()));
    }

    // With the 1/1 at 25 Hz, an octave or a fifth down would leave the
    // audible range: those buttons vanish, a step down by 5/4 (to 20 Hz)
    // stays. A strip made then has asked nothing yet, so its buttons show,
    // but a click still asks the lattice and queues nothing.
    void refusedTranspositionVanishes()
    {
        makeWindow();
        TransposeButton* downTwo = transposeButton(-2);
        QVERIFY(downTwo->isEnabled());
        const QImage shown = downTwo->grab().toImage();
        send(ArboEvent::BaseFrequency, 25.0f);
        QTRY_VERIFY(!downTwo->isEnabled());
        QVERIFY(!transposeButton(-3)->isEnabled());
        QVERIFY(transposeButton(-5)->isEnabled() && transposeButton(2)->isEnabled());
        QCOMPARE(child<QLabel>("infoLabel2")->text(),
                 QStringLiteral("Frequency of central node [= 1/1 Frequency]: 25.000 Hz"));

        // Vanished: it paints nothing of its own, only what lies behind it.
        const QImage gone = downTwo->grab().toImage();
        QImage flat(gone.size(), gone.format());
        flat.fill(gone.pixel(0, 0));
        QVERIFY(gone != shown);
        QCOMPARE(gone, flat);
        // And a click on it changes nothing.
        QSignalSpy transposed(&mPlayer, &PdPlayer::transposed);
        downTwo->onTransposeClicked();
        render();

        // The horizontal strip: one column per prime, left to right; in a
        // column, from the top: the count of the down step, the up button,
        // the prime, the down button, the count of the up step.
        TransposeWidget strip;
        strip.init(Qt::Horizontal, mArbo, &mPlayer);
        strip.show();
        QVERIFY(QTest::qWaitForWindowExposed(&strip));
        TransposeButton* up = transposeButton(2, &strip);
        TransposeButton* down = transposeButton(-2, &strip);
        PrimeToggleButton* two = primeButton(2, &strip);
        QVERIFY(down->isEnabled());
        clickAndRender(down);
        QCOMPARE(transposed.size(), 0);
        QCOMPARE(mPlayer.transposition(), ArboRatio(1, 1));
        QVERIFY(two->geometry().right() < primeButton(3, &strip)->geometry().left());
        QVERIFY(up->geometry().bottom() < two->geometry().top());
        QVERIFY(two->geometry().bottom() < down->geometry().top());
        QVERIFY(qAbs(up->geometry().center().x() - two->geometry().center().x()) <= 1);

        // Back at 440 Hz the window's button returns.
        send(ArboEvent::BaseFrequency, 440.0f);
        QTRY_VERIFY(downTwo->isEnabled());
    }

    // 1, 2 and 3 carry the lattice: shown, not switchable. On screen: a
    // prime's colour when on, three times darker when off, grey while
    // pressed; 1, 2 and 3 keep their colour although they are disabled; 19's
    // own colour is too light for its text and is drawn a little darker.
    // Switched off, a prime's leaves disappear and its notes are blocked.
    void primeButtonsHideTheirLeavesAndBlockTheirNotes()
    {
        makeWindow();
        for (int prime : ArboConstants::PRIMES) {
            QCOMPARE(primeButton(prime)->text(), QString::number(prime));
            QCOMPARE(primeButton(prime)->isEnabled(), prime > 3);
            QCOMPARE(primeButton(prime)->isCheckable(), prime > 3);
            QVERIFY(prime <= 3 || primeButton(prime)->isChecked());
        }
        const auto shown = [](QWidget* button) {
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

        const auto ball = [this](const char* path) {
            return TestSupport::ballAt(mWindow->arboView(), QString::fromLatin1(path));
        };
        QVERIFY(ball("/7") && ball("/3/-7") && ball("/5"));
        // The 7/4 above the root sounds: 770 Hz.
        play("/7");
        QTRY_VERIFY(ball("/7")->node()->isPlaying());

        // 7 off: every leaf of 7 disappears, the others stay.
        clickAndRender(seven);
        QVERIFY(!seven->isChecked() && !mPlayer.primeEnabled(7));
        QTRY_VERIFY(!ball("/7")->isVisible() && !ball("/3/-7")->isVisible());
        QVERIFY(ball("/5")->isVisible() && ball("/3")->isVisible());

        // The engine leaves a sounding note of 7 ringing (switching a prime off
        // only stops new toggles of it): a toggle now is refused, the tone goes
        // on; and no new 7 can start.
        for (const char* path : {"/7", "/-7"}) {
            const ArboNoteEvent note{ArboPath(QString::fromLatin1(path))};
            mPlayer.queueEventGui(&note);
        }
        std::vector<float> out = OfflinePlayer::render(mPlayer, 1.0);
        AudioAnalysis::ToneEstimate tone = AudioAnalysis::measureTone(
            out.data(), SAMPLE_RATE / 2, long(out.size()), 770.0, SAMPLE_RATE);
        QVERIFY(tone.minAmplitude > 0.01);
        QCOMPARE(mPlayer.soundingNoteCount(), 1);

        // 7 on again: the leaves return and the note can be stopped.
        clickAndRender(seven);
        QVERIFY(seven->isChecked());
        QTRY_VERIFY(ball("/7")->isVisible() && ball("/3/-7")->isVisible());
        play("/7");
        QTRY_VERIFY(!ball("/7")->node()->isPlaying());
        out = OfflinePlayer::render(mPlayer, 2.0);
        QVERIFY(AudioAnalysis::rmsDb(QVector<float>(out.end() - SAMPLE_RATE / 2, out.end())) < -80);
    }

    void patchMenuEdgeCases()
    {
        TestSupport::MessageBoxAnswerer answerer;
        QComboBox* menu = nullptr;
        // The menu's entries, the current one starred, and the messages so far.
        const auto menuShows = [&] {
            QStringList entries;
            for (int i = 0; i < menu->count(); ++i) {
                entries << (i == menu->currentIndex() ? "*" : "") + menu->itemText(i);
            }
            return entries.join('|') + QString(", %1 messages").arg(answerer.answered());
        };
        const auto choose = [&](const QString& name) {
            menu->setCurrentIndex(menu->findText(name));
            emit menu->activated(menu->currentIndex());
        };

        // An empty default patch falls back to Sine, saying so. The menu holds
        // every voice patch of the resource folder, by name, without ".pd".
        mSettings.mDefaultPatch.clear();
        QTest::ignoreMessage(QtWarningMsg, "No default patch name found, use Sine.");
        makeWindow();
        menu = child<QComboBox>("patchMenu");
        QCOMPARE(menuShows(), QString("Organ|Pluck|*Sine|Vocal, 0 messages"));
        QCOMPARE(menu->itemData(2).toString(), TestSupport::binDir() + "/patches/Sine.pd");
        mWindow.reset();

        // A first load that fails: "None loaded" is shown, with the message.
        mPlayer.unloadPatch(); // as at a first start
        mSettings.mDefaultPatch = QStringLiteral("Organ.pd");
        breakShellPatches();
        makeWindow();
        menu = child<QComboBox>("patchMenu");
        QCOMPARE(menuShows(), QString("Organ|Pluck|Sine|Vocal|*None loaded, 1 messages"));
        QCOMPARE(answerer.texts().last(),
                 "Failed to load patch " + TestSupport::binDir() + "/patches/Organ.pd.");
        QVERIFY(menu->currentData().toString().isEmpty());
        QVERIFY(!mPlayer.isPatchOpen());

        // Another failure before any success: "None loaded" stays, once.
        choose("Vocal");
        QCOMPARE(menuShows(), QString("Organ|Pluck|Sine|*Vocal|None loaded, 2 messages"));

        // Stepping onto "None loaded" tries its empty path, which fails.
        QVERIFY(PatchLoader::installShellPatches());
        QTest::mouseClick(child<QPushButton>("patchIncButton"), Qt::LeftButton);
        QCOMPARE(menuShows(), QString("Organ|Pluck|Sine|Vocal|*None loaded, 3 messages"));
        QCOMPARE(answerer.texts().last(), QStringLiteral("Failed to load patch ."));

        // A later success removes "None loaded".
        QTest::mouseClick(child<QPushButton>("patchIncButton"), Qt::LeftButton);
        QCOMPARE(menuShows(), QString("*Organ|Pluck|Sine|Vocal, 3 messages"));
        QVERIFY(mPlayer.isPatchOpen());

        // A failure after a success shows the last good patch again, which
        // plays on.
        breakShellPatches();
        choose("Pluck");
        QCOMPARE(menuShows(), QString("*Organ|Pluck|Sine|Vocal, 4 messages"));
        QVERIFY(mPlayer.isPatchOpen());
        QVERIFY(PatchLoader::installShellPatches());

        // The steps wrap around, and so do the wands' requests.
        QTest::mouseClick(child<QPushButton>("patchDecButton"), Qt::LeftButton);
        QCOMPARE(menu->currentText(), QStringLiteral("Vocal"));
        send(ArboEvent::PatchStep, 1.0f);
        QTRY_COMPARE(menu->currentText(), QStringLiteral("Organ"));

        // A patch from elsewhere joins the menu under its name, once.
        const QString own = TestSupport::home() + QStringLiteral("/My Voice.pd");
        QVERIFY(QFile::copy(TestSupport::binDir() + QStringLiteral("/patches/Sine.pd"), own));
        mWindow->patches()->load(own);
        mWindow->patches()->addToMenu(own);
        QCOMPARE(menuShows(), QString("Organ|Pluck|Sine|Vocal|*My Voice, 4 messages"));
        QCOMPARE(menu->currentData().toString(), own);
    }

    // A tweak takes effect in the drawing only when "Update" is pressed
    // (the diagnostics' Ctrl+9 is the keyboard test's). The options button
    // opens and closes the options.
    void dialogsFromTheWindow()
    {
        makeWindow();
        // The distance of the shown drawing's +3 ball from the root.
        const auto fifth = [this] {
            const ArboBallWidget* ball = TestSupport::ballAt(mWindow->arboView(), "/3");
            return qRound(QLineF(QPointF(0, 0), ball->scenePos()).length());
        };
        QCOMPARE(fifth(), 66);
        TweakDialog* tweaks = mWindow->tweakDialog();
        QSpinBox* strut3 = tweaks->findChild<QSpinBox*>(QStringLiteral("STRUT_3_LENGTH"));
        QVERIFY(strut3);
        strut3->setValue(100);
        QCOMPARE(fifth(), 66); // not yet drawn
        QTest::mouseClick(tweaks->updateButton(), Qt::LeftButton);
        QCOMPARE(fifth(), 100);

        QAbstractButton* options = child<QAbstractButton>(QStringLiteral("optionsButton"));
        QTest::mouseClick(options, Qt::LeftButton);
        QTRY_VERIFY(mWindow->optionsDialog() && mWindow->optionsDialog()->isVisible());
        QTest::mouseClick(options, Qt::LeftButton);
        QTRY_VERIFY(!mWindow->optionsDialog() || !mWindow->optionsDialog()->isVisible());
    }
};

ARBO_TEST_MAIN(TestMainWindow)

#include "tst_mainwindow.moc"
