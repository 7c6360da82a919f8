#include "app/tuningarboapplication.h"

#include "model/arboevent.h"
#include "settings/paths.h"
#include "sound/patchloader.h"
#include "ui/diagnosticsdialog.h"
#include "ui/instrumentparts.h"
#include "ui/keyboardinput.h"
#include "ui/mainwindow.h"
#include "ui/patchchooser.h"
#include "ui/stylesheetloader.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QIcon>
#include <QLocale>
#include <QMessageBox>
#include <QScreen>
#include <QStatusBar>
#include <QStyleFactory>

#include <cstdio>
#include <cstdlib>

TuningArboApplication::TuningArboApplication(int& argc, char** argv) : QApplication(argc, argv)
{
    setApplicationName(QString::fromLatin1(Paths::APP_NAME));
    // The updater compares the published version with this one.
    setApplicationVersion(QStringLiteral(ARBO_VERSION));
    // The desktop matches the window to the menu entry by this name, and the
    // task bar shows the instrument's own icon, also when run from a build.
    setDesktopFileName(QString::fromLatin1(Paths::DESKTOP_ID));
    setWindowIcon(QIcon(Paths::resourceDir() + QStringLiteral("/icons/%1.svg")
                                                    .arg(QString::fromLatin1(Paths::DESKTOP_ID))));

    const QStringList arguments = QCoreApplication::arguments();
    for (int i = 1; i < arguments.size(); ++i) {
        // Exactly one leading dash goes: "--all" stays "-all" and matches nothing.
        QString word = QString::fromLocal8Bit(argv[i]);
        if (word.startsWith(QLatin1Char('-'))) {
            word.remove(0, 1);
        }
        mLog.mFlags.insert(word.toLower());
    }
    // Direct: passed on in the thread that logged, as the log emits it.
    connect(&mLog, &AppLog::diagnosticMessage, this, &TuningArboApplication::diagnosticMessage,
            Qt::DirectConnection);

    connect(&mSignalWatcher, &UnixSignalWatcher::terminationRequested, this, [this] {
        mQuitBySignal = true;
        QCoreApplication::exit(0);
    });
    mSignalWatcher.watch();
}

TuningArboApplication::~TuningArboApplication()
{
    delete mMainWindow;
    mMainWindow = nullptr;
    // The listener writes into the player's command ring, and the player is
    // destroyed before it (members go in reverse order): after a start-up
    // that stopped half-way, or a term() whose wait ran out, its thread must
    // be gone first.
    mUdpListener.term();
    mUdpListener.wait();
    mLog.remove();
}

bool TuningArboApplication::init()
{
    // Types that travel through queued signals.
    qRegisterMetaType<ArboPath>("ArboPath");
    qRegisterMetaType<ArboRatio>("ArboRatio");
    qRegisterMetaType<QList<float>>("QList<float>");
    setStyle(QStyleFactory::create(QStringLiteral("Fusion")));

    if (!prepareConfigFolder()) {
        return false;
    }
    if (!StyleSheetLoader::load()) {
        fatalStartupMessage(QStringLiteral(
            "Initialisation of style sheet failed.\n\nThe program will now shut down."));
        return false;
    }
    readOptions();
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedKingdom));
    if (!startSound()) {
        return false;
    }
    startMidiOutput();
    readInputMap();
    if (!PatchLoader::installShellPatches()) {
        fatalStartupMessage(
            QStringLiteral("Initialisation of patch directory failed. This means no "
                           "audio playback will be possible.\n\nThe program will "
                           "now shut down."));
        return false;
    }
    if (!loadLattice()) {
        return false;
    }
    readScenes();
    showMainWindow();
    syncFromSettings();
    startWandListener();
    // Keys, MIDI in and OSC, on the map read above.
    startInputs();
    return true;
}

bool TuningArboApplication::prepareConfigFolder()
{
    qDebug() << "Resource dir:" << Paths::resourceDir();
    // Before anything is written: a second instance leaves the folder alone.
    if (!mConfigFolder.make(Paths::configDir()) || !mConfigFolder.lock()) {
        return false;
    }
    // The log file grows across runs.
    mLog.open(Paths::configDir() + QStringLiteral("/log.txt"));
    mConfigFolder.reportUnwritable({Paths::configDir(), Paths::patchDir()});
    return true;
}

void TuningArboApplication::readOptions()
{
    // Not fatal: the options keep the values they hold.
    if (!mSettings.init()) {
        const QString text =
            QStringLiteral("Failed to read saved options. All options will be reset to defaults.");
        qCritical().noquote() << text;
        QMessageBox::critical(nullptr, applicationName(), text, QMessageBox::Ok);
    }
    if (!mRecordingSettings.init()) {
        qWarning() << "Failed to read the recording options; using the defaults";
    }
    // Values that would silence the instrument or lose the window go back to
    // their defaults before anything uses them.
    QList<QRect> screens;
    for (const QScreen* screen : QGuiApplication::screens()) {
        screens << screen->availableGeometry();
    }
    mSettings.replaceUnusableValues(screens);
}

bool TuningArboApplication::startSound()
{
    if (!mPlayer.init()) {
        fatalStartupMessage(QStringLiteral("PD initialisation failed. This means no audio playback "
                                           "will be possible.\n\nThe program will now shut down."));
        return false;
    }
    // The device the options name, else the system's default. The device
    // table goes to the log either way, so a failure shows what there was.
    if (!mAudioOutput.init(mSettings.mFramesPerBuffer, mSettings.mAudioDevice, &mPlayer)) {
        fatalStartupMessage(QStringLiteral("Initialisation of audio device failed. This means no "
                                           "audio playback will be possible.\n\nThe program "
                                           "will now shut down."));
        mAudioOutput.logDevices();
        return false;
    }
    mAudioOutput.logDevices();
    return true;
}

void TuningArboApplication::startMidiOutput()
{
    // Beside the built-in sound. Not fatal: without a MIDI system the output
    // stays off, with a warning and its status line.
    if (!mMidiSettings.init()) {
        qWarning() << "Failed to read the MIDI options; using the defaults";
    }
    mMidiOutput.attach(&mPlayer);
    mMidiOutput.open(mMidiSettings);
    connect(&mMidiSettings, &MidiSettings::changed, &mMidiOutput,
            [this] { mMidiOutput.open(mMidiSettings); });
}

void TuningArboApplication::readInputMap()
{
    // Keys, MIDI controllers and OSC: one map for all three, written with a
    // playable default on first run (before the voice opens, which is the
    // last thing start-up writes). A map that does not load leaves the
    // defaults in place; the wands and the mouse work either way.
    if (!mInputMap.init()) {
        qWarning() << "Failed to read the input map; playing with the default one";
        mInputMap.setDamagedFileAside();
        mInputMap.initWithDefaults();
    }
}

bool TuningArboApplication::loadLattice()
{
    // Loaded from its file or made from the defaults; it follows the
    // player's signals from now on.
    if (mArbo.init(&mPlayer)) {
        return true;
    }
    // A lattice file that does not parse would stop every start from now on;
    // kept aside, it is there for repair and the next start builds the
    // default lattice.
    mArbo.setDamagedFileAside();
    fatalStartupMessage(
        QStringLiteral("Arbo initialisation failed.\n\nThe program will now shut down."));
    return false;
}

void TuningArboApplication::readScenes()
{
    mScenes.init();
}

void TuningArboApplication::showMainWindow()
{
    // The window loads the default voice as it is made.
    InstrumentParts parts;
    parts.lattice = &mArbo;
    parts.player = &mPlayer;
    parts.options = &mSettings;
    parts.audioOutput = &mAudioOutput;
    parts.midiOutput = &mMidiOutput;
    parts.midiSettings = &mMidiSettings;
    parts.scenes = &mScenes;
    parts.recorder = &mRecorder;
    parts.recordingSettings = &mRecordingSettings;
    mMainWindow = new MainWindow(parts);
    // Record commands from the keys, MIDI, OSC and wands; how a recording
    // went shows in the status line (the window's panel says it too).
    connect(&mPlayer, &PdPlayer::recordRequested, &mRecorder, &Recorder::onRecordRequest);
    connect(&mRecorder, &Recorder::finished, mMainWindow, [this](const QString& message) {
        mMainWindow->statusBar()->showMessage(message.section(QLatin1Char('\n'), 0, 0), 20000);
    });
    // Direct from every logging thread, in the order of logging, without a
    // queued event per line (see DiagnosticsDialog).
    mMainWindow->diagnosticsDialog()->listenTo(this, &TuningArboApplication::diagnosticMessage);
    mMainWindow->show();
    if (!mScenes.problem().isEmpty()) {
        mMainWindow->statusBar()->showMessage(mScenes.problem());
    }
    if (!mPlayer.isPatchOpen()) {
        loadAnyVoice();
    }
    // A lost audio device is retried by the output itself; the performer
    // sees what is going on in the window's status line.
    connect(&mAudioOutput, &AudioOutput::deviceLost, mMainWindow,
            [this](const QString& text) { mMainWindow->statusBar()->showMessage(text); });
    connect(&mAudioOutput, &AudioOutput::deviceRestored, mMainWindow,
            [this](const QString& text) { mMainWindow->statusBar()->showMessage(text, 10000); });
}

void TuningArboApplication::startWandListener()
{
    // Only when the user has written a tag map; without one the instrument is
    // played with the mouse and nothing is said about it. A folder or device
    // of the map's name is no map: set aside here, once, before the wand and
    // OSC threads would both try to read it.
    const QString tagMap = Paths::configDir() + QStringLiteral("/rfid_map.json");
    SerializableRoot::setAsideIfUnreadable(tagMap);
    if (!QFileInfo::exists(tagMap)) {
        return;
    }
    // Direct: the player copies each event into its serial ring on the
    // listener's thread, the ring's one writer; the event stays the map's.
    connect(&mUdpListener, &UdpListener::eventReceived, &mPlayer, &PdPlayer::queueEventSerial,
            Qt::DirectConnection);
    connect(&mUdpListener, &UdpListener::fatalError, this, &TuningArboApplication::onUdpFatalError,
            Qt::QueuedConnection);
    mUdpListener.listen(mSettings.mUdpPort);
}

int TuningArboApplication::leave(int exitCode)
{
    if (PaAudioOutput::unfinishedCalls() > 0) {
        std::fflush(nullptr);
        std::_Exit(exitCode);
    }
    return exitCode;
}

void TuningArboApplication::startInputs()
{
    // Owned by the window: the keys play while it has focus.
    mKeyboard = new KeyboardInput(&mPlayer, mMainWindow, mMainWindow);
    mKeyboard->setObjectName(QStringLiteral("keyboardInput"));

    // OSC, when the map names a port. A port that cannot be opened costs only
    // the OSC input: the input logs why, the status line shows it, and no box
    // stops the show.
    connect(
        &mOscInput, &OscInput::fatalError, this,
        [this](const QString& text) {
            if (mMainWindow) {
                mMainWindow->statusBar()->showMessage(text);
            }
        },
        Qt::QueuedConnection);
    mOscInput.open(&mPlayer, mInputMap.bindings());

    // MIDI in: not fatal either; without a MIDI system it stays off with a
    // warning.
    mMidiInput.attach(&mPlayer);
    auto sceneTriggers = [this] {
        const SceneBook::Triggers& triggers = mScenes.triggers();
        mMidiInput.setSceneTriggers(triggers.nextController, triggers.previousController,
                                    triggers.programChange);
    };
    sceneTriggers();
    connect(&mScenes, &SceneBook::changed, &mMidiInput, sceneTriggers);
    mMidiInput.open(inputBindings());
    // The keys and MIDI notes play the map's bindings, or an imported scale's.
    mMainWindow->attachInputs(inputBindings(), mKeyboard, &mMidiInput);
    // A record controller chosen in the options works at once.
    connect(&mRecordingSettings, &RecordingSettings::changed, this,
            [this] { mMainWindow->attachInputs(inputBindings(), mKeyboard, &mMidiInput); });
}

InputMap::Bindings TuningArboApplication::inputBindings() const
{
    InputMap::Bindings bindings = mInputMap.bindings();
    const int controller = mRecordingSettings.mController;
    if (controller >= 0 && controller < int(bindings.midiControllers.size())) {
        // Each press toggles, as a foot switch is pressed once to start and
        // once to stop.
        bindings.midiControllers[std::size_t(controller)] =
            InputBinding(ArboEvent::Record, -1.0f);
    }
    return bindings;
}

void TuningArboApplication::term()
{
    // First: whatever ends the program (the window closed, a SIGTERM), a
    // recording under way is finished properly.
    mRecorder.stop();
    syncToSettings();
    mUdpListener.term();
    mOscInput.term();
    mMidiInput.close();
    mArbo.term();
    mScenes.term();
    mPlayer.term();
    mAudioOutput.term();
    mMidiOutput.close();
    mMidiSettings.term();
    mRecordingSettings.term();
    mSettings.term();
    reportFailedSaves();
    mLog.remove();
}

void TuningArboApplication::onUdpFatalError(QString error)
{
    QMessageBox::critical(nullptr, applicationName(),
                          tr("Failed to connect to the arbo, only screen-based interaction will "
                             "be possible.\n\nError: %1")
                              .arg(error),
                          QMessageBox::Ok);
}

void TuningArboApplication::syncFromSettings()
{
    if (mMainWindow) {
        if (mSettings.mWindowSize != QSize(-1, -1)) {
            mMainWindow->resize(mSettings.mWindowSize);
        }
        if (mSettings.mWindowPos != QPoint(-1, -1)) {
            mMainWindow->move(mSettings.mWindowPos);
        }
        if (mSettings.mWindowMaximized) {
            mMainWindow->showMaximized();
        }
    }

    const ArboEvent events[] = {
        ArboEvent(ArboEvent::BaseFrequency, mSettings.mBaseFrequency),
        ArboEvent(ArboEvent::MasterVolume, mSettings.mMasterVolume),
        ArboEvent(ArboEvent::Monophonic, mSettings.mMonophonic ? 1.0f : 0.0f),
    };
    for (const ArboEvent& event : events) {
        mPlayer.queueEventGui(&event);
    }
    // From now on the options follow the player.
    connect(&mPlayer, &PdPlayer::baseFrequencyChanged, &mSettings,
            &Settings::onBaseFrequencyChanged, Qt::QueuedConnection);
    connect(&mPlayer, &PdPlayer::volumeChanged, &mSettings, &Settings::onMasterVolumeChanged,
            Qt::QueuedConnection);
    connect(&mPlayer, &PdPlayer::monophonicChanged, &mSettings, &Settings::onMonophonicChanged,
            Qt::QueuedConnection);
}

void TuningArboApplication::syncToSettings()
{
    if (mMainWindow) {
        // A maximised window keeps its last normal geometry in the options.
        mSettings.mWindowMaximized = mMainWindow->isMaximized();
        if (!mSettings.mWindowMaximized) {
            mSettings.mWindowSize = mMainWindow->size();
            mSettings.mWindowPos = mMainWindow->pos();
        }
        mSettings.mCirclesView = mMainWindow->isCirclesViewShown();
    }
    // The device actually opened, which after a fallback is not the one the
    // options asked for.
    mSettings.mAudioDevice = mAudioOutput.selectedDevice();
}

void TuningArboApplication::loadAnyVoice()
{
    if (mMainWindow->patches()->loadAny() || mConfigFolder.unwritableReported()) {
        return; // the folder message already said why no voice loads
    }
    const QString text = tr("No voice patch could be loaded from %1, so the instrument is silent."
                            "\n\nReinstalling the program restores its voice patches.")
                             .arg(Paths::resourceDir() + QStringLiteral("/patches"));
    qCritical().noquote() << text;
    QMessageBox::critical(mMainWindow, applicationName(), text, QMessageBox::Ok);
}

void TuningArboApplication::reportFailedSaves()
{
    QStringList failures;
    for (const SerializableRoot* document : {static_cast<const SerializableRoot*>(&mArbo),
                                             static_cast<const SerializableRoot*>(&mSettings)}) {
        if (!document->lastSaveError().isEmpty()) {
            failures << QStringLiteral("%1: %2").arg(document->path(), document->lastSaveError());
        }
    }
    if (failures.isEmpty() || mConfigFolder.unwritableReported()) {
        return;
    }
    const QString text = tr("Your changes could not be saved; the files keep their previous "
                            "content.\n\n%1")
                             .arg(failures.join(QLatin1Char('\n')));
    qCritical().noquote() << text;
    // Ended by a signal, nobody is at the window to click: the log has it.
    if (!mQuitBySignal) {
        QMessageBox::critical(nullptr, applicationName(), text, QMessageBox::Ok);
    }
}

void TuningArboApplication::fatalStartupMessage(const QString& text)
{
    qCritical().noquote() << text;
    QMessageBox::critical(nullptr, applicationName(), text, QMessageBox::Ok);
}
