#pragma once

class Arbo;
class AudioOutput;
class MidiOutput;
class MidiSettings;
class PdPlayer;
class Recorder;
class RecordingSettings;
class SceneBook;
class Settings;

// What the windows act on: the application's long-lived objects, handed down
// by the application that owns them. A window keeps the pointers and owns
// none of the objects, all of which outlive it.
//
// The lattice, the player and the options are always there. The others are
// null where a window is made without them (a test of the lattice drawing):
// the options dialog then offers no device choice or no MIDI tab, and the
// window no recording controls.
struct InstrumentParts
{
    Arbo* lattice = nullptr;
    PdPlayer* player = nullptr;
    Settings* options = nullptr;
    AudioOutput* audioOutput = nullptr;
    MidiOutput* midiOutput = nullptr;
    MidiSettings* midiSettings = nullptr;
    // The cue lists; without them the window has no scenes panel.
    SceneBook* scenes = nullptr;
    Recorder* recorder = nullptr;
    RecordingSettings* recordingSettings = nullptr;
};
