#pragma once

#include "app/applog.h"
#include "app/configfolder.h"
#include "app/unixsignalwatcher.h"
#include "input/inputmap.h"
#include "input/udplistener.h"
#include "midi/midiinput.h"
#include "midi/midioutput.h"
#include "midi/midisettings.h"
#include "model/arbo.h"
#include "osc/oscinput.h"
#include "recording/recorder.h"
#include "recording/recordingsettings.h"
#include "scenes/scenebook.h"
#include "settings/settings.h"
#include "sound/paaudiooutput.h"
#include "sound/pdplayer.h"

#include <QApplication>
#include <QString>
#include <QStringList>

#include <memory>

// The application object. It owns, by value, every long-lived object of the
// program and runs the start-up (init) and shutdown (term) sequences.
//
// It hands each object the others it works with (constructors, init() and
// attach() calls, InstrumentParts for the windows); nothing looks them up.
// The members are public for the tests that start the whole program.
class KeyboardInput;
class MainWindow;

class TuningArboApplication : public QApplication
{
    Q_OBJECT
public:
    TuningArboApplication(int& argc, char** argv);
    ~TuningArboApplication() override;

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

    // The last word of main(), once the application object is gone and
    // everything is saved: returns `exitCode`, or, while a PortAudio call
    // that never came back (the sound server died or starved) still runs
    // inside the audio libraries, whose exit handlers would crash or hang
    // under it, ends the process at once with that code.
    static int leave(int exitCode);

    MainWindow* mMainWindow = nullptr;
    Arbo mArbo;
    UdpListener mUdpListener;
    InputMap mInputMap;
    PdPlayer mPlayer;
    PaAudioOutput mAudioOutput;
    Settings mSettings;
    // The performer's cue lists ("scenes.json").
    SceneBook mScenes;
    // MIDI out, after the player: it closes (and lets go of the player's
    // note tap) before the player goes.
    MidiSettings mMidiSettings;
    MidiOutput mMidiOutput;
    // After the player, which it feeds from: a recording is finished before
    // the player goes. Made before the first patch loads, so that it knows
    // what plays.
    RecordingSettings mRecordingSettings;
    Recorder mRecorder{&mPlayer, &mRecordingSettings};
    // After the player, whose OSC ring it writes: it stops before the player goes.
    OscInput mOscInput;
    // MIDI in, after the player: its thread writes into the player's ring,
    // so it stops before the player goes.
    MidiInput mMidiInput;
    // The log file and the diagnostics feed; the command-line words are its
    // mFlags.
    AppLog mLog;

signals:
    // The log's diagnostics feed (AppLog::diagnosticMessage), passed on.
    void diagnosticMessage(const QString& message);

public slots:
    // The wand listener cannot work: says so and goes on with the mouse only.
    void onUdpFatalError(QString error);

private:
    // With neither the default voice nor "Sine.pd" loaded, tries every voice
    // of the resource folder in name order, and says once why the instrument
    // is silent when none loads.
    void loadAnyVoice();
    // After the shutdown saves: a save that failed kept the previous file; the
    // user hears once that the changes of this session are not kept.
    void reportFailedSaves();
    // Shows the critical start-up message box and logs the same text.
    void fatalStartupMessage(const QString& text);
    // The options to the window and the player, and back at shutdown.
    void syncFromSettings();
    void syncToSettings();
    // The steps of init(), in order; each false one has told the user why.
    bool prepareConfigFolder();
    void readOptions();
    bool startSound();
    void startMidiOutput();
    void readInputMap();
    bool loadLattice();
    // Not fatal: a damaged or too new file is kept aside and the window says
    // so once it is up.
    void readScenes();
    void showMainWindow();
    void startWandListener();
    // Starts the keyboard, the MIDI input and the OSC receiver on the input
    // map's bindings.
    void startInputs();
    // The input map's bindings with the recording options' MIDI controller.
    InputMap::Bindings inputBindings() const;

    UnixSignalWatcher mSignalWatcher;
    KeyboardInput* mKeyboard = nullptr; // the window's
    ConfigFolder mConfigFolder;
    // A termination signal ends the program with nobody at the window: then
    // nothing may wait for a click.
    bool mQuitBySignal = false;
};
