#pragma once

// One command for the sound engine: what to do (the type) and with which
// number (the value). Mouse controls, wands and the player all speak this
// vocabulary; a note toggle is an ArboNoteEvent, which adds the path.
//
// A plain value; events are copied into the player's command buffers, so
// whoever creates one keeps and frees it.
class ArboEvent
{
public:
    // The numbers are stored in users' "rfid_map.json" files: never renumber,
    // never reuse, only add at the end. The underlying type is fixed so that a
    // number outside this list (read from such a file) is still a legal value
    // of the type; the player ignores it.
    enum Type : int
    {
        NoteToggle = 0,       // value 1.0; the path is in the ArboNoteEvent
        AllNotesOff = 1,      // value ignored
        Transpose = 2,        // signed prime step, rounded; 0 resets
        VoiceVolumeStep = 3,  // amount to add to the voice volume
        VoiceVolume = 4,      // new voice volume
        MasterVolumeStep = 5, // amount to add to the master volume
        MasterVolume = 6,     // new master volume
        Monophonic = 7,       // above 0.5 means on
        PatchStep = 8,        // above 0 means next patch, otherwise previous
        BaseFrequency = 9,    // frequency in Hz
        PrimeToggle = 10,     // the prime, truncated to an integer
        Macro1 = 11,          // Macro1 to Macro8: the macro's new value
        Macro2 = 12,
        Macro3 = 13,
        Macro4 = 14,
        Macro5 = 15,
        Macro6 = 16,
        Macro7 = 17,
        Macro8 = 18,
        OpenPatch = 19,  // value ignored
        ClosePatch = 20, // value ignored
        // Held notes, for keys, MIDI notes and OSC buttons: NoteStart sounds
        // the path's note unless it already sounds; NoteEnd ends the note
        // that a NoteStart of the same path began, and nothing else, so that
        // letting go of a key never silences a note a wand or a click began.
        // The path is in the ArboNoteEvent; the value is ignored.
        NoteStart = 21,
        NoteEnd = 22,
        // Scenes of the active cue list, for foot switches, show controllers
        // and tags: SceneRecall recalls scene `value` (counted from 1),
        // SceneStep the next one (value above 0) or the previous one, and
        // SceneStore keeps the sound as it is as a new scene at the end of
        // the list.
        SceneRecall = 23,
        SceneStep = 24,
        SceneStore = 25,
        // Recording: 0.5 or more starts it, 0 up to 0.5 stops it, below 0
        // toggles it. The engine only passes the request on to the GUI
        // thread, where the recorder acts on it; so a key, a MIDI controller,
        // OSC or a wand tag of the map can start and stop a recording.
        Record = 26,
        // The engine's own, never from outside: the note of an exact ratio
        // on or off, as a scene recall strikes and ends notes, written into
        // a recording's log so that the offline render does the same (the
        // ratio travels packed in the command, see SceneRecaller).
        RatioToggle = 27,
    };
    // Highest type the player carries out; anything outside 0 to this is
    // ignored by the consumer.
    static constexpr int LAST_TYPE = RatioToggle;

    // Whether a command of `type` needs a lattice path (an ArboNoteEvent).
    // Without one it would sound the root, which nobody asked for.
    static bool needsPath(int type);

    // Why a map entry, a tag or a message from outside may not ask for a
    // bare command of `type`, or null when it may. The one rule every source
    // follows: a number this program does not know, a note command without
    // its path (it would sound the root), and the program's own commands
    // (OpenPatch, ClosePatch: the window's, never a player's) are refused.
    // Notes are asked for by path; the sources make the toggles, starts and
    // ends themselves.
    static const char* bareRefusal(int type);

    // Why `value` is not a sane value for a command of `type`, or null when
    // it is one. A value from the network or a hand-written map can be
    // anything; a base frequency of 0 or 1e30 silences every note, a volume
    // of 1e30 deafens, and whatever the player takes is saved with the
    // options. So every source refuses these where it reads them, and the
    // player refuses them once more for whatever reached a ring anyway:
    //   BaseFrequency        20 Hz to 20 kHz
    //   MasterVolume,
    //   VoiceVolume          0 to the options' largest volume (4)
    //   the volume steps     no larger than that range
    //   Macro1 to Macro8     0 to 1 (the sliders' range)
    //   SceneRecall          a whole number from 1 to SCENE_NUMBER_MAX
    //   every other type     a finite number (the value may be ignored)
    // Any thread; never allocates.
    static const char* refusal(int type, float value);
    static constexpr int SCENE_NUMBER_MAX = 100000;

    // Type NoteToggle with value 0 (zero-initialised, as for any value type).
    ArboEvent() = default;
    ArboEvent(Type type, float value);
    ArboEvent(const ArboEvent&) = default;
    ArboEvent& operator=(const ArboEvent&) = default;
    virtual ~ArboEvent();

    Type type() const { return mType; }
    float value() const { return mValue; }

private:
    Type mType = NoteToggle;
    float mValue = 0.0f;
};
