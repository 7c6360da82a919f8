// The input map and the computer keyboard: the map's file with its default
// and its errors, and keys on the real main window (offscreen) reaching the
// real player and voice patches, rendered on the test thread.

#include "input/inputmap.h"
#include "model/arbo.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/diagnosticsdialog.h"
#include "ui/keyboardinput.h"
#include "ui/mainwindow.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>

#include <cmath>
#include <memory>

class TestKeyboard : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    ArboRatio mTransposition{1, 1};
    std::unique_ptr<MainWindow> mWindow;
    KeyboardInput* mKeyboard = nullptr;

    void makeWindow(bool latch)
    {
        mWindow = std::make_unique<MainWindow>(OfflinePlayer::parts(mPlayer, mArbo, mSettings));
        mWindow->show();
        QVERIFY(QTest::qWaitForWindowExposed(mWindow.get()));
        InputMap map;
        map.initWithDefaults();
        InputMap::Bindings bindings = map.bindings();
        bindings.latch = latch;
        mKeyboard = new KeyboardInput(&mPlayer, mWindow.get(), mWindow.get());
        mKeyboard->setBindings(bindings);
    }
    // A key pressed (or released) on the window or on `to`, then one buffer
    // and the player's answers (queued to the lattice).
    void press(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier, bool repeat = false,
               QWidget* to = nullptr, QEvent::Type type = QEvent::KeyPress)
    {
        QKeyEvent event(type, key, modifiers, QString(), repeat);
        QApplication::sendEvent(to ? to : mWindow.get(), &event);
        renderAndDeliver();
    }
    void release(Qt::Key key) { press(key, Qt::NoModifier, false, nullptr, QEvent::KeyRelease); }
    void renderAndDeliver()
    {
        OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS);
        QCoreApplication::processEvents();
    }
    bool sounds(const char* path) const
    {
        return mArbo.playingRatios().contains(
            ArboRatio::pathRatio(ArboPath(QString::fromLatin1(path))) * mTransposition);
    }

private slots:
    void initTestCase()
    {
        OfflinePlayer::setUp(mPlayer, mArbo);
        mSettings.mDefaultPatch = QStringLiteral("Sine.pd");
        connect(&mPlayer, &PdPlayer::transposed, this,
                [this](ArboRatio transposition) { mTransposition = transposition; });
    }

    void cleanup()
    {
        mWindow.reset();
        for (const ArboEvent& event :
             {ArboEvent(ArboEvent::AllNotesOff, 1.0f), ArboEvent(ArboEvent::Transpose, 0.0f)}) {
            mPlayer.queueEventGui(&event);
        }
        OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS);
        // Released voices leave the note map once the patch reports them silent.
        QTRY_VERIFY((OfflinePlayer::render(mPlayer, 0.05), mPlayer.soundingNoteCount() == 0));
    }

    // The first run writes the default map; reading it back gives the same map.
    // The defaults are playable: every key and MIDI note names a ball of the
    // default lattice or a sound that close to it, and the MIDI keyboard is a
    // just version of the equal-tempered one, rising key by key. A hand-written
    // map with mistakes keeps everything that can be used and names the rest.
    void mapDefaultsAndErrors()
    {
        const QString file = TestSupport::configDir() + "/" + InputMap::FILE_NAME;
        QFile::remove(file);
        InputMap first;
        QVERIFY(first.init());
        QVERIFY(QFile::exists(file));
        InputMap second;
        QVERIFY(second.init());
        const auto json = [](const InputMap& map) {
            QJsonObject object;
            map.write(object);
            return object;
        };
        QCOMPARE(json(second), json(first));

        const InputMap::Bindings& defaults = second.bindings();
        for (auto it = defaults.keys.constBegin(); it != defaults.keys.constEnd(); ++it) {
            if (it->isNote()) {
                QVERIFY2(mArbo.ballFromRatio(ArboRatio::pathRatio(it->path())),
                         qPrintable(it.key()));
            }
        }
        QVERIFY(!defaults.keys.contains("9"));
        QCOMPARE(defaults.midiNotes[69].path(), ArboPath(QStringLiteral("/")));
        double previous = -1e9;
        for (int note = 45; note <= 92; ++note) {
            const ArboRatio ratio = ArboRatio::pathRatio(defaults.midiNotes[note].path());
            const double cents =
                1200.0 * std::log2(double(ratio.numerator()) / ratio.denominator());
            QVERIFY2(std::fabs(cents - 100.0 * (note - 69)) < 20.0,
                     qPrintable(QString::number(note)));
            QVERIFY(cents > previous);
            previous = cents;
        }
        QVERIFY(!defaults.midiNotes[44].isBound() && !defaults.midiNotes[93].isBound());
        QCOMPARE(defaults.oscPort, 0);

        const QByteArray faulty = R"({
        "latch": true, "oscPort": 70000,
        "keys": { "F": { "value": "/3" }, "Ctrl+G": { "value": "/" }, "H": { "value": "/4" },
                  "J": { "event": 19 }, "K": { "event": 6, "min": 0.2, "max": "x" },
                  "L": "/3", "M": { "event": 6, "min": 0, "max": 5 }, "N": { "value": "3/5" },
                  "P": { "event": 6, "value": true }, "Q": { "event": 6, "value": 9 },
                  "Space": { "event": 1 } },
        "midiNotes": { "60": { "value": "/5" }, "128": { "value": "/" }, "x": {} },
        "midiControllers": { "1": { "event": 11, "min": 0.5, "max": 0.7 } },
        "osc": { "/cue": { "value": "/7" }, "nocue": { "value": "/7" } }
    })";
        QVERIFY(TestSupport::writeFile(file, faulty));
        QTest::ignoreMessage(QtWarningMsg,
                             "\"oscPort\" in input_map.json is no port number; OSC is off.");
        // Section, entry, what is wrong with it.
        const QList<std::tuple<QString, QString, QString>> mistakes = {
            {"keys", "Ctrl+G", "names nothing that can be played"},
            {"keys", "H", "has the invalid path /4"},
            {"keys", "J", "asks for event 19, which is the program's own"},
            {"keys", "K", "has a \"min\" or \"max\" that is not a number"},
            {"keys", "L", "is not an object with \"event\" and \"value\""},
            {"keys", "M", "asks for event 6 up to the value 5, which is no volume from 0 to 4"},
            {"keys", "N", "has the invalid path 3/5"},
            {"keys", "P", "has a \"value\" that is neither a number nor a path"},
            {"keys", "Q", "asks for event 6 with the value 9, which is no volume from 0 to 4"},
            {"midiNotes", "128", "names nothing that can be played"},
            {"midiNotes", "x", "has no known \"event\" number"},
            {"osc", "nocue", "names nothing that can be played"}};
        for (const auto& [section, entry, wrong] : mistakes) {
            const QString warning = "%1 entry \"%2\" in input_map.json %3. Ignoring.";
            QTest::ignoreMessage(QtWarningMsg, qPrintable(warning.arg(section, entry, wrong)));
        }
        InputMap faultyMap;
        QVERIFY(faultyMap.init());
        const InputMap::Bindings& read = faultyMap.bindings();
        QVERIFY(read.latch);
        QCOMPARE(read.oscPort, 0);
        QCOMPARE(read.keys.size(), 2);
        QCOMPARE(read.keys.value("F").path(), ArboPath(QStringLiteral("/3")));
        QCOMPARE(int(read.keys.value("Space").type()), int(ArboEvent::AllNotesOff));
        QCOMPARE(read.midiNotes[60].path(), ArboPath(QStringLiteral("/5")));
        QVERIFY(!read.midiNotes[69].isBound());
        ArboEvent scratch;
        QCOMPARE(read.midiControllers[1].control(0.5f, false, scratch)->value(), 0.6f);
        QCOMPARE(read.midiControllers[1].control(NAN, false, scratch)->value(), 0.5f);
        QVERIFY(read.osc.value("/cue").isNote());
        QFile::remove(file);
    }

    // A note key sounds while held and only then; a note that sounded before the
    // press (a wand's, a click's) is not the key's to end. Digits transpose, the
    // space bar stops all, and the keys stay out of text fields, chords with
    // Ctrl and the window's 9; Ctrl+9 shows the diagnostics and hides them again.
    void keysPlayWhileHeld()
    {
        makeWindow(false);
        press(Qt::Key_F);
        QVERIFY(sounds("/"));
        press(Qt::Key_T); // the major third above, held with it
        QVERIFY(sounds("/") && sounds("/5"));
        release(Qt::Key_F);
        QVERIFY(!sounds("/") && sounds("/5"));
        release(Qt::Key_T);
        QVERIFY(mArbo.playingRatios().isEmpty());
        QCOMPARE(mKeyboard->heldKeyCount(), 0);

        // Held across a transposition: the release ends the note the press began.
        press(Qt::Key_G);
        press(Qt::Key_2);
        release(Qt::Key_2);
        QCOMPARE(mTransposition, ArboRatio(3, 2));
        release(Qt::Key_G);
        QVERIFY(mArbo.playingRatios().isEmpty());

        // Already sounding (a wand toggled it): press and release leave it.
        const ArboNoteEvent wand(ArboPath(QStringLiteral("/")));
        mPlayer.queueEventSerial(&wand);
        renderAndDeliver();
        QVERIFY(sounds("/"));
        press(Qt::Key_F);
        release(Qt::Key_F);
        QVERIFY(sounds("/"));
        press(Qt::Key_Space);
        release(Qt::Key_Space);
        QVERIFY(mArbo.playingRatios().isEmpty());

        // Not for the keys: typing in a text field, Ctrl chords, the 9.
        auto* field = new QLineEdit(mWindow.get());
        field->show();
        field->setFocus();
        press(Qt::Key_F, Qt::NoModifier, false, field);
        press(Qt::Key_G, Qt::ControlModifier);
        press(Qt::Key_9);
        QVERIFY(mArbo.playingRatios().isEmpty());
        QCOMPARE(mKeyboard->heldKeyCount(), 0);
        for (bool shown : {true, false}) {
            press(Qt::Key_9, Qt::ControlModifier);
            QCOMPARE(mWindow->diagnosticsDialog()->isVisible(), shown);
            press(Qt::Key_9);
            QCOMPARE(mWindow->diagnosticsDialog()->isVisible(), shown);
        }
    }

    // With latch on, a press toggles as a wand does and the release is nothing;
    // key repeat never strikes again. A key held while the window loses focus is
    // let go, since its release goes to another window.
    void latchRepeatAndFocusLoss()
    {
        makeWindow(true);
        press(Qt::Key_F);
        release(Qt::Key_F);
        QVERIFY(sounds("/"));
        press(Qt::Key_F);
        press(Qt::Key_F, Qt::NoModifier, true);
        press(Qt::Key_F, Qt::NoModifier, true);
        QVERIFY(!sounds("/"));
        release(Qt::Key_F);
        QVERIFY(!sounds("/"));

        mWindow.reset();
        cleanup();
        makeWindow(false);
        press(Qt::Key_D);
        press(Qt::Key_D, Qt::NoModifier, true);
        QVERIFY(sounds("/-3"));
        QEvent deactivate(QEvent::WindowDeactivate);
        QApplication::sendEvent(mWindow.get(), &deactivate);
        renderAndDeliver();
        QVERIFY(!sounds("/-3"));
        QCOMPARE(mKeyboard->heldKeyCount(), 0);
    }
};

ARBO_TEST_MAIN(TestKeyboard)

#include "tst_keyboard.moc"
