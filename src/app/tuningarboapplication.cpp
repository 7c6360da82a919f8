#include "app/tuningarboapplication.h"

#include "model/arboevent.h"
#include "settings/appcontext.h"
#include "sound/patchloader.h"
#include "ui/diagnosticsdialog.h"
#include "ui/keyboardinput.h"
#include "ui/mainwindow.h"
#include "ui/stylesheetloader.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QLockFile>
#include <QLoggingCategory>
#include <QMessageBox>
#include <QMetaType>
#include <QScreen>
#include <QStatusBar>
#include <QStyleFactory>
#include <QTemporaryFile>
#include <QTextCodec>
#include <QTime>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

// The application whose handler is installed. Read by the handler on any
// thread; written only while no other thread logs (start-up and shutdown).
std::atomic<TuningArboApplication*> sLoggingApp{nullptr};

} // namespace

TuningArboApplication::TuningArboApplication(int& argc, char** argv) : QApplication(argc, argv)
{
    setApplicationName(QString::fromLatin1(AppContext::APP_NAME));
    // The updater compares the published version with this one.
    setApplicationVersion(QStringLiteral(ARBO_VERSION));

    const QStringList arguments = QCoreApplication::arguments();
    for (int i = 1; i < arguments.size(); ++i) {
        // Exactly one leading dash goes: "--all" stays "-all" and matches nothing.
        QString word = QString::fromLocal8Bit(argv[i]);
        if (word.startsWith(QLatin1Char('-'))) {
            word.remove(0, 1);
        }
        mFlags.insert(word.toLower());
    }

    AppContext::setLattice(&mArbo);
    AppContext::setPlayer(&mPlayer);
    AppContext::setAudioOutput(&mAudioOutput);
    AppContext::setSettings(&mSettings);
    AppContext::setMidi(&mMidiOutput, &mMidiSettings);

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
    removeLogHandler();
    AppContext::setSettings(nullptr);
    AppContext::setMidi(nullptr, nullptr);
    AppContext::setAudioOutput(nullptr);
    AppContext::setPlayer(nullptr);
    AppContext::setLattice(nullptr);
}

TuningArboApplication* TuningArboApplication::instance()
{
    return static_cast<TuningArboApplication*>(QCoreApplication::instance());
}

bool TuningArboApplication::init()
{
    // 1. Types that travel through queued signals.
    qRegisterMetaType<ArboPath>("ArboPath");
    qRegisterMetaType<ArboRatio>("ArboRatio");
    qRegisterMetaType<QList<float>>("QList<float>");

    // 2.
    setStyle(QStyleFactory::create(QStringLiteral("Fusion")));

    // 3. Config folder.
    const QString configDir = AppContext::configDir();
    const bool configDirMade = QDir().mkpath(configDir);
    qDebug() << "Config dir:" << configDir;
    qDebug() << "Resource dir:" << AppContext::resourceDir();

    // 4. The text has no %1 on purpose; the logged line keeps the literal %s.
    if (!configDirMade) {
        qCritical() << QStringLiteral("Could not create config directory %s.").arg(configDir);
        QMessageBox::critical(
            nullptr, applicationName(),
            tr("Creation of config directory failed.\n\nThe program will now shut down."),
            QMessageBox::Ok);
        return false;
    }

    // Before anything is written: a second instance leaves the folder alone.
    if (!lockConfigFolder(configDir)) {
        return false;
    }

    // 5. Log file, growing across runs.
    openLogFile(configDir + QStringLiteral("/log.txt"));
    reportUnwritableFolders({configDir, AppContext::patchDir()});

    // 6.
    if (!loadStyleSheet()) {
        fatalStartupMessage(QStringLiteral(
            "Initialisation of style sheet failed.\n\nThe program will now shut down."));
        return false;
    }

    // 7. Not fatal: the options keep the values they hold.
    if (!mSettings.init()) {
        const QString text =
            QStringLiteral("Failed to read saved options. All options will be reset to defaults.");
        qCritical().noquote() << text;
        QMessageBox::critical(nullptr, applicationName(), text, QMessageBox::Ok);
    }
    // Values that would silence the instrument or lose the window go back to
    // their defaults before anything uses them.
    QList<QRect> screens;
    for (const QScreen* screen : QGuiApplication::screens()) {
        screens << screen->availableGeometry();
    }
    mSettings.replaceUnusableValues(screens);

    // 8.
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedKingdom));

    // 9.
    if (!mPlayer.init()) {
        fatalStartupMessage(QStringLiteral("PD initialisation failed. This means no audio playback "
                                           "will be possible.\n\nThe program will now shut down."));
        return false;
    }

    // 10. The device the options name, else the system's default. The device
    // table goes to the log either way, so a failure shows what there was.
    if (!mAudioOutput.init(mSettings.mFramesPerBuffer, mSettings.mAudioDevice, &mPlayer)) {
        fatalStartupMessage(QStringLiteral("Initialisation of audio device failed. This means no "
                                           "audio playback will be possible.\n\nThe program "
                                           "will now shut down."));
        mAudioOutput.logDevices();
        return false;
    }
    mAudioOutput.logDevices();

    // 10a. MIDI out, beside the built-in sound. Not fatal: without a MIDI
    // system the output stays off, with a warning and its status line.
    if (!mMidiSettings.init()) {
        qWarning() << "Failed to read the MIDI options; using the defaults";
    }
    mMidiOutput.attach(&mPlayer);
    mMidiOutput.open(mMidiSettings);
    connect(&mMidiSettings, &MidiSettings::changed, &mMidiOutput,
            [this] { mMidiOutput.open(mMidiSettings); });

    // 10b. Keys, MIDI controllers and OSC: one map for all three, written
    // with a playable default on first run (before the voice opens, which
    // is the last thing start-up writes). A map that does not load leaves
    // the defaults in place; the wands and the mouse work either way.
    if (!mInputMap.init()) {
        qWarning() << "Failed to read the input map; playing with the default one";
        mInputMap.setDamagedFileAside();
        mInputMap.initWithDefaults();
    }

    // 11.
    if (!initPatchFolder()) {
        fatalStartupMessage(
            QStringLiteral("Initialisation of patch directory failed. This means no "
                           "audio playback will be possible.\n\nThe program will "
                           "now shut down."));
        return false;
    }

    // 12. The lattice, loaded from its file or made from the defaults; it
    // follows the player's signals from now on.
    if (!mArbo.init(&mPlayer)) {
        // A lattice file that does not parse would stop every start from now
        // on; kept aside, it is there for repair and the next start builds
        // the default lattice.
        mArbo.setDamagedFileAside();
        fatalStartupMessage(
            QStringLiteral("Arbo initialisation failed.\n\nThe program will now shut down."));
        return false;
    }

    // 13. The window loads the default voice as it is made.
    mMainWindow = new MainWindow(&mArbo);
    // Queued even for the GUI thread: see DiagnosticsDialog.
    connect(this, &TuningArboApplication::diagnosticMessage, mMainWindow->diagnosticsDialog(),
            &DiagnosticsDialog::onMessage, Qt::QueuedConnection);
    mMainWindow->show();
    if (!mPlayer.isPatchOpen()) {
        loadAnyVoice();
    }
    // A lost audio device is retried by the output itself; the performer
    // sees what is going on in the window's status line.
    connect(&mAudioOutput, &AudioOutput::deviceLost, mMainWindow,
            [this](const QString& text) { mMainWindow->statusBar()->showMessage(text); });
    connect(&mAudioOutput, &AudioOutput::deviceRestored, mMainWindow,
            [this](const QString& text) { mMainWindow->statusBar()->showMessage(text, 10000); });

    // 14.
    syncFromSettings();

    // 15. The wands, only when the user has written a tag map; without one
    // the instrument is played with the mouse and nothing is said about it.
    // A folder or device of the map's name is no map: set aside here, once,
    // before the wand and OSC threads would both try to read it.
    const QString tagMap = configDir + QStringLiteral("/rfid_map.json");
    SerializableRoot::setAsideIfUnreadable(tagMap);
    if (QFileInfo::exists(tagMap)) {
        // Direct: the player copies each event into its serial ring on the
        // listener's thread, the ring's one writer; the event stays the map's.
        connect(&mUdpListener, &UdpListener::eventReceived, &mPlayer, &PdPlayer::queueEventSerial,
                Qt::DirectConnection);
        connect(&mUdpListener, &UdpListener::fatalError, this,
                &TuningArboApplication::onUdpFatalError, Qt::QueuedConnection);
        mUdpListener.start(QThread::InheritPriority);
    }

    // 16. Keys, MIDI in and OSC, on the map read in step 10b.
    startInputs();

    return true;
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
    auto* keyboard = new KeyboardInput(&mPlayer, mMainWindow, mMainWindow);
    keyboard->setObjectName(QStringLiteral("keyboardInput"));
    keyboard->setBindings(mInputMap.bindings());

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
    mMidiInput.open(mInputMap.bindings());
}

void TuningArboApplication::term()
{
    syncToSettings();
    mUdpListener.term();
    mOscInput.term();
    mMidiInput.close();
    mArbo.term();
    mPlayer.term();
    mAudioOutput.term();
    mMidiOutput.close();
    mMidiSettings.term();
    mSettings.term();
    reportFailedSaves();
    removeLogHandler();
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

bool TuningArboApplication::lockConfigFolder(const QString& configDir)
{
    mInstanceLock = std::make_unique<QLockFile>(configDir + QStringLiteral("/arbo.lock"));
    // Never stale by age: a lock is stale only when its process is gone (a
    // crashed or killed run), which QLockFile finds out by itself.
    mInstanceLock->setStaleLockTime(0);
    if (mInstanceLock->tryLock(0)) {
        return true;
    }
    if (mInstanceLock->error() != QLockFile::LockFailedError) {
        // No lock can be made here (a read-only folder): nothing can be
        // overwritten either, and the folder check says what is wrong.
        mInstanceLock.reset();
        return true;
    }
    qint64 pid = 0;
    QString host;
    QString program;
    mInstanceLock->getLockInfo(&pid, &host, &program);
    mInstanceLock.reset();
    // No log file yet, on purpose: this goes to standard error, and the
    // running instance's files stay untouched.
    const QString text = tr("%1 is already running (process %2).\n\nThis copy will now shut down.")
                             .arg(applicationName())
                             .arg(pid);
    qCritical().noquote() << text;
    QMessageBox::critical(nullptr, applicationName(), text, QMessageBox::Ok);
    return false;
}

bool TuningArboApplication::reportUnwritableFolders(const QStringList& folders)
{
    QStringList problems;
    for (const QString& folder : folders) {
        if (!QFileInfo(folder).isDir()) {
            continue; // made later; a failure there has its own message
        }
        QTemporaryFile probe(folder + QStringLiteral("/.write-check-XXXXXX"));
        if (!probe.open()) {
            problems << QStringLiteral("%1 (%2)").arg(folder, probe.errorString());
        }
    }
    if (problems.isEmpty()) {
        return true;
    }
    const QString text =
        tr("This folder cannot be written:\n%1\n\nNo options or lattice changes can be saved, and "
           "voice patches cannot be loaded, until it can.")
            .arg(problems.join(QLatin1Char('\n')));
    qCritical().noquote() << text;
    QMessageBox::critical(nullptr, applicationName(), text, QMessageBox::Ok);
    mUnwritableReported = true;
    return false;
}

void TuningArboApplication::loadAnyVoice()
{
    const QString folder = AppContext::resourceDir() + QStringLiteral("/patches");
    const QFileInfoList voices = QDir(folder).entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo& voice : voices) {
        // Tried quietly first, so that a broken file costs a log line rather
        // than a message box; the window then loads the one that works and
        // shows it in its menu.
        if (PatchLoader::loadVoice(&mPlayer, voice.absoluteFilePath())) {
            qWarning().noquote() << QStringLiteral("Playing voice patch %1 instead of the default.")
                                        .arg(voice.absoluteFilePath());
            mMainWindow->loadPatch(voice.absoluteFilePath());
            return;
        }
    }
    if (mUnwritableReported) {
        return; // the folder message already said why no voice loads
    }
    const QString text = tr("No voice patch could be loaded from %1, so the instrument is silent."
                            "\n\nReinstalling the program restores its voice patches.")
                             .arg(folder);
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
    if (failures.isEmpty() || mUnwritableReported) {
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

bool TuningArboApplication::loadStyleSheet()
{
    return StyleSheetLoader::load();
}

bool TuningArboApplication::initPatchFolder()
{
    return PatchLoader::installShellPatches();
}

bool TuningArboApplication::openLogFile(const QString& path)
{
    mLogFile.setFileName(path);
    // Unbuffered: every message goes out in one write() of its own (see writeToLog).
    if (!mLogFile.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
        qCritical().noquote() << QStringLiteral("Couldn't open log file %1 for writing.").arg(path);
        return false;
    }
    installLogHandler();
    const QString banner =
        QStringLiteral("\n%1\nStarting app at %2\n")
            .arg(QString(78, QLatin1Char('-')),
                 QDateTime::currentDateTime().toString(QStringLiteral("dd/MM/yy hh:mm:ss.z")));
    writeToLog(banner.toUtf8());
    return true;
}

void TuningArboApplication::installLogHandler()
{
    // Without diagnostics words nobody receives debug messages (the file never
    // gets them), so switch them off at the source: they are then not even
    // formatted, which keeps them off the audio thread's budget.
    if (mFlags.isEmpty()) {
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    }
    sLoggingApp.store(this);
    qInstallMessageHandler(loggingMessageHandler);
    mLogHandlerInstalled = true;
}

void TuningArboApplication::removeLogHandler()
{
    if (mLogHandlerInstalled) {
        qInstallMessageHandler(nullptr);
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
        sLoggingApp.store(nullptr);
        mLogHandlerInstalled = false;
    }
}

void TuningArboApplication::writeToLog(const QByteArray& bytes)
{
    // One write() per message on the append-mode descriptor: the kernel keeps
    // each message whole even when several threads log at once, which the
    // buffered QFile API would not guarantee without a lock.
    const int fd = mLogFile.handle();
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t written =
            ::write(fd, bytes.constData(), size_t(bytes.size()));
    }
}

void TuningArboApplication::loggingMessageHandler(QtMsgType type, const QMessageLogContext& context,
                                                  const QString& message)
{
    TuningArboApplication* app = sLoggingApp.load();
    if (!app) {
        return;
    }
    const QString stamp = QTime::currentTime().toString(QStringLiteral("[hh:mm:ss.zzz] "));

    if (!app->mFlags.isEmpty()) {
        const QString file = QString::fromUtf8(context.file ? context.file : "");
        int separator = file.lastIndexOf(QLatin1Char('/'));
        if (separator < 0) {
            separator = file.lastIndexOf(QLatin1Char('\\'));
        }
        // A message without a source file is dropped altogether once any word
        // was given on the command line, log file included. Deliberate: the
        // words ask for a diagnostic session, not for the everyday log.
        if (separator < 0) {
            return;
        }
        QString baseName = file.mid(separator + 1);
        const int dot = baseName.lastIndexOf(QLatin1Char('.'));
        if (dot >= 0) {
            baseName.truncate(dot);
        }
        if (app->mFlags.contains(QStringLiteral("all")) ||
            app->mFlags.contains(baseName.toLower())) {
            emit app->diagnosticMessage(QStringLiteral("%1 %2\n").arg(stamp, message));
        }
    }

    if (type == QtDebugMsg) {
        return; // debug output is for the diagnostics dialog only
    }

    // The lock is taken and released before the write, not around it; the
    // write below is a single system call and needs no lock to stay whole.
    app->mLogMutex.lock();
    app->mLogMutex.unlock();

    QByteArray block;
    if (type == QtCriticalMsg) {
        block += "\nCRITICAL:\n";
    } else if (type == QtFatalMsg) {
        block += "\nFATAL:\n";
    }
    block += stamp.toUtf8();
    block += message.toUtf8();
    block += '\n';
    if (type == QtCriticalMsg || type == QtFatalMsg) {
        block += '\n';
    }
    app->writeToLog(block);
}
