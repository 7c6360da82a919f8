// Scenes with the real window (offscreen), the real lattice and the real
// player rendered on the test thread: a stored scene recalls to the same
// sound (exact frequencies, macros, volumes, flags, a held note still held);
// notes two scenes share go on sounding without a new note-on; the keys, MIDI
// Program Change and foot switches, OSC and wand tags each recall the right
// scene; the book keeps unknown keys, round-trips an export, says which
// patch an imported scene misses, and sets aside a file it cannot read.

#include "input/udplistener.h"
#include "input/wanddatagram.h"
#include "midi/midiinput.h"
#include "model/arbo.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "audioanalysis.h"
#include "osc/oscinput.h"
#include "scenes/scenebook.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/mainwindow.h"
#include "ui/scenecontroller.h"
#include "ui/scenepanel.h"
#include "ui/scenetriggersdialog.h"

#include <QJsonDocument>
#include <QKeySequenceEdit>
#include <QSpinBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QUdpSocket>

#include <memory>

class TestScenes : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    SceneBook mBook;
    std::unique_ptr<MainWindow> mWindow;

    ScenePanel* panel() const { return mWindow->scenePanel(); }
    void render()
    {
        OfflinePlayer::render(mPlayer, OfflinePlayer::BUFFER_SECONDS);
        // The lattice takes the results in, then refreshes.
        QCoreApplication::processEvents();
        QCoreApplication::processEvents();
    }
    // Renders until `done`, for what arrives from other threads.
    template <typename Done> bool renderUntil(Done done)
    {
        return QTest::qWaitFor(
            [&] {
                render();
                return done();
            },
            10000);
    }
    void send(ArboEvent::Type type, float value)
    {
        const ArboEvent event(type, value);
        mPlayer.queueEventGui(&event);
    }
    void note(const char* path, ArboEvent::Type type = ArboEvent::NoteToggle)
    {
        const ArboNoteEvent event(ArboPath(QString::fromLatin1(path)), type);
        mPlayer.queueEventGui(&event);
    }
    void click(const char* button)
    {
        QTest::mouseClick(panel()->findChild<QPushButton*>(button), Qt::LeftButton);
        render();
    }
    void store(const QString& name)
    {
        panel()->findChild<QLineEdit*>("sceneNameEdit")->setText(name);
        click("storeSceneButton");
    }
    // The sounding (not released) voices' ratios, in voice order.
    QStringList sounding() const
    {
        QStringList ratios;
        for (const PdPlayer::NoteOn& voice : mPlayer.voices()) {
            if (voice.seqId != 0 && voice.inMap && !voice.released) {
                ratios << voice.ratio.toString();
            }
        }
        std::sort(ratios.begin(), ratios.end());
        return ratios;
    }
    // The number (from 1) of the scene recalled last in the active list.
    int current() const
    {
        const QList<Scene>& scenes = mBook.active().scenes;
        for (int i = 0; i < scenes.size(); ++i) {
            if (scenes[i].sound.id == mWindow->scenes()->currentId()) {
                return i + 1;
            }
        }
        return 0;
    }
    // The sounding notes' note-on numbers by their ratios.
    QMap<QString, int> seqIds() const
    {
        QMap<QString, int> ids;
        for (const PdPlayer::NoteOn& voice : mPlayer.voices()) {
            if (voice.seqId != 0 && voice.inMap && !voice.released) {
                ids.insert(voice.ratio.toString(), voice.seqId);
            }
        }
        return ids;
    }
    static QJsonObject withoutName(Scene scene)
    {
        scene.name.clear();
        return scene.toJson();
    }

private slots:
    void initTestCase()
    {
        OfflinePlayer::setUp(mPlayer, mArbo);
        QVERIFY(!QTest::currentTestFailed());
        mSettings.mDefaultPatch = QStringLiteral("Sine.pd");
        QVERIFY(mBook.init());
        InstrumentParts parts = OfflinePlayer::parts(mPlayer, mArbo, mSettings);
        parts.scenes = &mBook;
        mWindow = std::make_unique<MainWindow>(parts);
        mWindow->show();
        QVERIFY(QTest::qWaitForWindowExposed(mWindow.get()));
        QVERIFY(panel()->isVisible());
    }

    // Everything a scene holds comes back, and the recalled sound stores as
    // the same scene again.
    void storeThenRecallIsExact()
    {
        send(ArboEvent::BaseFrequency, 432.0f);
        send(ArboEvent::Transpose, 3);
        note("/5");
        note("/-7/3");
        note("/3", ArboEvent::NoteStart);
        send(ArboEvent::Macro2, 0.25f);
        send(ArboEvent::MasterVolume, 0.8f);
        send(ArboEvent::VoiceVolume, 0.6f);
        send(ArboEvent::PrimeToggle, 11);
        render();
        const QStringList chord = sounding();
        QCOMPARE(chord.size(), 3);
        store("Opening");
        QCOMPARE(mBook.active().scenes.size(), 1);
        const Scene stored = mBook.active().scenes[0];
        QCOMPARE(stored.name, QStringLiteral("Opening"));
        QCOMPARE(stored.patch, QStringLiteral("Sine.pd"));
        QCOMPARE(stored.sound.transposition.toString(), QStringLiteral("3/2"));
        QVERIFY(!stored.sound.primeEnabled[11]);

        // Everything else changed, then the scene recalled from the list.
        send(ArboEvent::AllNotesOff, 0);
        send(ArboEvent::Transpose, 0);
        send(ArboEvent::BaseFrequency, 440.0f);
        send(ArboEvent::Macro2, 0.9f);
        send(ArboEvent::MasterVolume, 1.0f);
        send(ArboEvent::VoiceVolume, 1.0f);
        send(ArboEvent::PrimeToggle, 11);
        send(ArboEvent::Monophonic, 1);
        note("/7");
        render();
        panel()->selectIndex(0);
        click("recallSceneButton");
        QCOMPARE(sounding(), chord);
        QCOMPARE(current(), 1);
        QCOMPARE(panel()->findChild<QLabel*>("currentSceneLabel")->text(), QStringLiteral("Opening"));
        QCOMPARE(mArbo.transposition().toString(), QStringLiteral("3/2"));
        for (const PdPlayer::NoteOn& voice : mPlayer.voices()) {
            if (voice.seqId != 0 && !voice.released) {
                const double exact = voice.ratio.toDouble() * 432.0;
                QVERIFY2(std::abs(AudioAnalysis::cents(voice.frequency, exact)) < 0.01,
                         qPrintable(voice.ratio.toString()));
            }
        }
        store("Again");
        QCOMPARE(withoutName(mBook.active().scenes[1]), withoutName(stored));

        // The key's note is held again: letting go of its key ends it.
        note("/3", ArboEvent::NoteEnd);
        render();
        QCOMPARE(sounding().size(), 2);
    }

    // A recall ends and starts only what differs.
    void sharedNotesAreNotStruckAgain()
    {
        send(ArboEvent::AllNotesOff, 0);
        note("/3");
        note("/5");
        render();
        store("A");
        send(ArboEvent::AllNotesOff, 0);
        note("/5");
        note("/7");
        render();
        store("B");
        mWindow->scenes()->recall(2); // A
        render();
        const QMap<QString, int> a = seqIds();
        QStringList toggles;
        connect(&mPlayer, &PdPlayer::noteToggled, this, [&toggles](ArboRatio ratio, bool on) {
            toggles << ratio.toString() + (on ? " on" : " off");
        });
        mWindow->scenes()->recall(3); // B
        render();
        disconnect(&mPlayer, &PdPlayer::noteToggled, this, nullptr);
        const QMap<QString, int> b = seqIds();
        QCOMPARE(toggles.size(), 2);
        QVERIFY(toggles[0].endsWith(" off") && toggles[1].endsWith(" on"));
        // The note both share kept its note-on.
        int shared = 0;
        for (auto it = a.begin(); it != a.end(); ++it) {
            if (b.contains(it.key())) {
                QCOMPARE(b[it.key()], it.value());
                ++shared;
            }
        }
        QCOMPARE(shared, 1);
    }

    // Every input recalls by the same command; a held foot switch steps once.
    void everyTriggerRecalls()
    {
        QCOMPARE(mBook.active().scenes.size(), 4);
        QTest::keyClick(mWindow.get(), Qt::Key_2, Qt::AltModifier);
        render();
        QCOMPARE(current(), 2);
        QTest::keyClick(mWindow.get(), Qt::Key_PageDown);
        render();
        QCOMPARE(current(), 3);
        QTest::keyClick(mWindow.get(), Qt::Key_PageUp);
        render();
        QCOMPARE(current(), 2);

        MidiInput midi; // never opened: fed as its input thread feeds it
        midi.attach(&mPlayer);
        midi.setSceneTriggers(85, 86, true);
        const auto feed = [&midi, this](std::initializer_list<std::uint8_t> bytes) {
            const std::vector<std::uint8_t> message(bytes);
            midi.feed(message.data(), message.size());
            render();
        };
        feed({0xC3, 0}); // Program Change 0 on channel 4: scene 1
        QCOMPARE(current(), 1);
        feed({0xB0, 85, 127});
        feed({0xB0, 85, 127}); // still held
        QCOMPARE(current(), 2);
        feed({0xB0, 85, 0});
        feed({0xB0, 85, 127});
        QCOMPARE(current(), 3);
        feed({0xB0, 86, 127});
        QCOMPARE(current(), 2);
        feed({0xC0, 99}); // no scene 100: nothing
        QCOMPARE(current(), 2);

        OscInput osc;
        InputMap::Bindings bindings;
        bindings.oscPort = TestSupport::freeUdpPort();
        QSignalSpy listening(&osc, &OscInput::listening);
        QVERIFY(osc.open(&mPlayer, bindings) && (!listening.isEmpty() || listening.wait(10000)));
        QUdpSocket socket;
        const auto osc_ = [&](const QByteArray& message) {
            socket.writeDatagram(message, QHostAddress::LocalHost, bindings.oscPort);
        };
        osc_(OSC("/arbo/scene/recall", "i", 4));
        QVERIFY(renderUntil([this] { return current() == 4; }));
        osc_(OSC("/arbo/scene/next", ""));
        osc_(OSC("/arbo/scene/previous", ""));
        QVERIFY(renderUntil([this] { return current() == 3; }));
        osc_(OSC("/arbo/scene/store", "s", "From\nthe network"));
        QVERIFY(renderUntil([this] { return mBook.active().scenes.size() == 5; }));
        QCOMPARE(mBook.active().scenes[4].name, QStringLiteral("From the network"));
        osc.term();

        QVERIFY(TestSupport::writeFile(TestSupport::configDir() + "/rfid_map.json",
                                       R"({"cue1": {"event": 23, "value": 1}})"));
        UdpListener wands;
        connect(&wands, &UdpListener::eventReceived, &mPlayer, &PdPlayer::queueEventSerial,
                Qt::DirectConnection);
        const quint16 port = TestSupport::freeUdpPort();
        wands.listen(port);
        QVERIFY(renderUntil([&] {
            socket.writeDatagram(WandDatagram(1, "cue1").toBytes(), QHostAddress::LocalHost, port);
            return current() == 1;
        }));
        wands.term();
        wands.wait();

        // Keys and controllers of the player's choosing, from the dialog.
        SceneTriggersDialog dialog(&mBook, mWindow.get());
        dialog.findChild<QKeySequenceEdit*>("nextKeyEdit")->setKeySequence(QKeySequence("F5"));
        dialog.findChild<QSpinBox*>("nextControllerBox")->setValue(20);
        dialog.accept();
        QCOMPARE(mBook.triggers().nextController, 20);
        QTest::keyClick(mWindow.get(), Qt::Key_PageDown);
        render();
        QCOMPARE(current(), 1);
        QTest::keyClick(mWindow.get(), Qt::Key_F5);
        render();
        QCOMPARE(current(), 2);
    }

    // The list is edited from the keyboard and by dragging, and the book
    // follows at once.
    void editingTheList()
    {
        auto* list = panel()->findChild<QListWidget*>("sceneList");
        const auto names = [this] {
            QStringList all;
            for (const Scene& scene : mBook.active().scenes) {
                all << scene.name;
            }
            return all;
        };
        const QStringList before = names();
        list->setFocus();
        panel()->selectIndex(0);
        QTest::keyClick(list, Qt::Key_Down, Qt::ControlModifier);
        QCOMPARE(names()[1], before[0]);
        QTest::keyClick(list, Qt::Key_D, Qt::ControlModifier);
        QCOMPARE(names().mid(1, 2), QStringList({before[0], before[0]}));
        QTest::keyClick(list, Qt::Key_Delete);
        QTest::keyClick(list, Qt::Key_Delete);
        QCOMPARE(names().size(), before.size() - 1);
        QTest::keyClick(list, Qt::Key_Z, Qt::ControlModifier);
        QCOMPARE(names().size(), before.size());
        // A drop moves the row in the list's model first.
        list->model()->moveRow(QModelIndex(), 1, QModelIndex(), 0);
        QTRY_COMPARE(names(), before);
        QCOMPARE(list->item(0)->text(), "1. " + before[0]);
    }

    // Export and import round-trip; an imported scene whose patch is
    // missing recalls the rest and names it; unknown keys stay in the file.
    void sharingAndFiles()
    {
        const QString file = TestSupport::home() + "/shared.json";
        QString error;
        QVERIFY2(mBook.exportList(0, file, &error), qPrintable(error));
        QJsonObject json = QJsonDocument::fromJson(TestSupport::readFile(file)).object();
        QJsonArray lists = json["lists"].toArray();
        QJsonObject list = lists[0].toObject();
        QJsonArray scenes = list["scenes"].toArray();
        QJsonObject first = scenes[0].toObject();
        first["patch"] = "Gone.pd";
        first["lighting"] = "blue";
        scenes[0] = first;
        list["scenes"] = scenes;
        lists[0] = list;
        json["lists"] = lists;
        json["venue"] = "hall";
        QVERIFY(TestSupport::writeFile(file, QJsonDocument(json).toJson()));

        QStringList warnings;
        QVERIFY2(mBook.importLists(file, &warnings, &error), qPrintable(error));
        QCOMPARE(mBook.activeIndex(), 1);
        QCOMPARE(mBook.active().name, QStringLiteral("Set list 1 (2)"));
        const QList<Scene>& original = mBook.list(0).scenes;
        const QList<Scene>& imported = mBook.active().scenes;
        QCOMPARE(imported.size(), original.size());
        for (int i = 1; i < imported.size(); ++i) {
            QCOMPARE(imported[i].toJson(), original[i].toJson());
        }
        mWindow->scenes()->recall(0);
        render();
        QTRY_VERIFY(panel()->findChild<QLabel*>("sceneStatusLabel")->text().contains(
            "the patch Gone.pd is missing; the rest was recalled"));
        QCOMPARE(sounding().size(), imported[0].notes.size());

        // Saved at once, with what this version does not know.
        const QJsonObject saved =
            QJsonDocument::fromJson(TestSupport::readFile(mBook.path())).object();
        QCOMPARE(saved["lists"].toArray()[1].toObject()["scenes"].toArray()[0].toObject()["lighting"],
                 QJsonValue("blue"));

        // Values no player could have stored are left out with a warning.
        QVERIFY(TestSupport::writeFile(file, R"({"lists": [{"name": "Bad", "scenes": [
            {"name": "x", "notes": [{"ratio": "1/0"}, {"ratio": "-3/2"}, {"ratio": "5/4"}],
             "transposition": "3486784401/1", "masterVolume": 1e30, "baseFrequency": 0,
             "macros": [5, -1, null], "disabledPrimes": [99, 7]}]}]})"));
        warnings.clear();
        QVERIFY(mBook.importLists(file, &warnings, &error));
        QCOMPARE(warnings.size(), 7);
        const Scene& bad = mBook.active().scenes[0];
        QCOMPARE(bad.notes.size(), std::size_t(1));
        QVERIFY(!bad.notes[0].path.isValid() && !bad.toJson()["notes"].toArray()[0].toObject().contains("path"));
        QCOMPARE(bad.sound.transposition.toString(), QStringLiteral("1/1"));
        QCOMPARE(bad.sound.volume, 1.0f);
        QCOMPARE(bad.sound.baseFrequency, 440.0f);
        QCOMPARE(bad.sound.macros[0], -1.0f);
        QVERIFY(!bad.sound.primeEnabled[7] && bad.sound.primeEnabled[31]);

        // A file that does not parse, and one of a newer version, go aside.
        for (const QByteArray& content : {QByteArray("{ \"lists\": ["), QByteArray(R"({"format": 2})")}) {
            QVERIFY(TestSupport::writeFile(mBook.path(), content));
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^The scenes file "));
            SceneBook book;
            QVERIFY(!book.init());
            QVERIFY(book.problem().contains("It was kept as "));
            QCOMPARE(book.listCount(), 1);
            QCOMPARE(book.active().scenes.size(), 0);
        }
        const QStringList aside =
            QDir(TestSupport::configDir()).entryList({"scenes.json.damaged-*"});
        QCOMPARE(aside.size(), 2);
    }
};

ARBO_TEST_MAIN(TestScenes)
#include "tst_scenes.moc"
