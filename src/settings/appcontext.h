#pragma once

#include <QString>

class Settings;
class Arbo;
class PdPlayer;
class AudioOutput;
class MidiSettings;
class MidiOutput;

// The long-lived objects of the running program, and its two folders.
//
// The application object owns the objects and registers them here when it is
// constructed. Code below the user interface (model, settings, notation,
// sound, input) reaches them through these accessors instead of casting the
// QApplication instance, so that it stays free of widgets and can be tested
// headless; a test registers its own instances.
//
// Registration happens on the GUI thread before any other thread starts; the
// accessors are then read-only and may be called from any thread.
namespace AppContext {

// The application's name; it also names the per-user configuration folder.
extern const char* const APP_NAME;

// The registered options, or, when none are registered (a test that does not
// need them), a process-wide instance holding the defaults.
Settings* settings();
void setSettings(Settings* settings);

// The one lattice; null when none is registered.
Arbo* lattice();
void setLattice(Arbo* lattice);

PdPlayer* player();
void setPlayer(PdPlayer* player);

AudioOutput* audioOutput();
void setAudioOutput(AudioOutput* output);

// The MIDI output and its settings; null when none are registered.
MidiOutput* midiOutput();
MidiSettings* midiSettings();
void setMidi(MidiOutput* output, MidiSettings* settings);

// The per-user writable data folder (log, options, lattice, tag map, runtime
// patches). Needs the application name to be set.
QString configDir();

// The read-only folder beside the executable: style sheets, SVG symbols and
// the "patches" tree. Nothing is ever written there.
QString resourceDir();

// The runtime patch folder inside the configuration folder, where the shell
// patches and the chosen voice ("arbo_voice.pd") are copied for libpd.
QString patchDir();

} // namespace AppContext
