#pragma once

#include "app/unixsignalwatcher.h"
#include "input/inputmap.h"
#include "input/udplistener.h"
#include "midi/midiinput.h"
#include "midi/midioutput.h"
#include "midi/midisettings.h"
#include "model/arbo.h"
#include "osc/oscinput.h"
#include "settings/settings.h"
#include "sound/paaudiooutput.h"
#include "sound/pdplayer.h"

#include <QApplication>
#include <QFile>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>

#include <memory>

class QLockFile;

// The application object. It owns, by value, every long-lived object of the
// program and runs the start-up (init) and shutdown (term) sequences.
//
// The members are public: the user interface reaches them directly through
// TuningArboApplication::instance(). Code below the user interface reaches
// the same objects through AppContext, which the constructor fills in.
class MainWindow;

class TuningArboApplication : public QApplication
{
    Q_OBJECT
public:
    TuningArboApplication(int& argc, char** argv);
    ~TuningArboApplication() override;

    // The running application (the global QApplication instance).
    static TuningArboApplication* instance();

    // The start-up sequence. On false the program shows why (already done
    // here, in a message box) and ends with exit code 1.
    bool init();
    // The shutdown sequence, after the event loop has returned.
    void term();
    // Whether SIGINT or SIGTERM asked the program to end. Such a request
    // ends every event loop that runs (a message box's too) and every one
    // started after it at once, until the main loop starts: main() asks
    // this after init() instead of entering the loop.
    bool quitRequested() const { return mQuitBySignal; }

    void syncFromSettings();
    void syncToSettings();

    bool initPatchFolder();
    bool loadStyleSheet();
    // Starts the keyboard, the MIDI input and the OSC receiver on the input
    // map's bindings. Part of init().
    void startInputs();

    // The last word of main(), once the application object is gone and
    // everything is saved: returns `exitCode`, or, while a PortAudio call
    // that never came back (the sound server died or starved) still runs
    // inside the audio libraries, whose exit handlers would crash or hang
    // under it, ends the process at once with that code.
    static int leave(int exitCode);

    // Opens the log file in append mode, installs the message handler and
    // writes the start-up banner. Without it, messages go to Qt's default
    // output. Returns whether the file opened.
    bool openLogFile(const QString& path);

    // The one message handler of the process; installed once the log file is
    // open. Safe to call from any thread.
    static void loggingMessageHandler(QtMsgType type, const QMessageLogContext& context,
                                      const QString& message);

    MainWindow* mMainWindow = nullptr;
    Arbo mArbo;
    UdpListener mUdpListener;
    InputMap mInputMap;
    PdPlayer mPlayer;
    PaAudioOutput mAudioOutput;
    Settings mSettings;
    // MIDI out, after the player: it closes (and lets go of the player's
    // note tap) before the player goes.
    MidiSettings mMidiSettings;
    MidiOutput mMidiOutput;
    // After the player, whose OSC ring it writes: it stops before the player goes.
    OscInput mOscInput;
    // MIDI in, after the player: its thread writes into the player's ring,
    // so it stops before the player goes.
    MidiInput mMidiInput;
    // Lower-cased command-line words, each without one leading "-"; they
    // choose which source files' messages reach the diagnostics dialog.
    QSet<QString> mFlags;
    QFile mLogFile;
    QMutex mLogMutex;

signals:
    void diagnosticMessage(const QString& message);

public slots:
    // The wand listener cannot work: says so and goes on with the mouse only.
    void onUdpFatalError(QString error);

private:
    // One instance per configuration folder: a second one would reinstall the
    // voice under the first and, at exit, overwrite the other's options and
    // lattice. Takes the lock file in the configuration folder (the lock of a
    // crashed run is taken over). False only when another running instance
    // holds it; a folder where no lock can be made is reported by
    // reportUnwritableFolders() instead.
    bool lockConfigFolder(const QString& configDir);
    // A read-only configuration tree otherwise shows only as a failing voice
    // patch, which blames the patch. Tells the user once which folder cannot
    // be written. Returns whether all could be.
    bool reportUnwritableFolders(const QStringList& folders);
    // With neither the default voice nor "Sine.pd" loaded, tries every voice
    // of the resource folder in name order, and says once why the instrument
    // is silent when none loads.
    void loadAnyVoice();
    // After the shutdown saves: a save that failed kept the previous file; the
    // user hears once that the changes of this session are not kept.
    void reportFailedSaves();
    // Shows the critical start-up message box and logs the same text.
    void fatalStartupMessage(const QString& text);
    void writeToLog(const QByteArray& bytes);
    void installLogHandler();
    void removeLogHandler();

    UnixSignalWatcher mSignalWatcher;
    bool mLogHandlerInstalled = false;
    std::unique_ptr<QLockFile> mInstanceLock;
    // A termination signal ends the program with nobody at the window: then
    // nothing may wait for a click.
    bool mQuitBySignal = false;
    // Set once the user was told that a folder cannot be written, so the
    // failures that follow from it are not reported again.
    bool mUnwritableReported = false;
};
