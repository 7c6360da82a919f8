#pragma once

#include "model/arboevent.h"
#include "model/arbonoteevent.h"

#include <QJsonObject>
#include <QString>

class QJsonValue;

// What one key, MIDI note, MIDI controller or OSC address of the input map
// does: play the note at a path, or send an event of the wands' vocabulary.
//
// In the map an entry reads like a tag's in "rfid_map.json", plus an optional
// range for controllers:
//
//   { "value": "/3/5" }                    the note at that path
//   { "event": 2, "value": -3 }            a fixed event (here: transpose)
//   { "event": 6, "min": 0, "max": 1 }     a controller's position scaled
//                                          into the range (here: volume)
//
// Notes play while held: a press starts the note (unless it already sounds)
// and the release ends it. With latch on, a press toggles it, as a wand does,
// and a release does nothing. A fixed event fires on the press.
//
// Threads: a value type. The events it hands out are its own members, so a
// binding must outlive their use; each input thread keeps its own copy of
// the map and nothing allocates when one is looked up or used.
class InputBinding
{
public:
    // Nothing bound: every method returns null.
    InputBinding() = default;
    // A note at `path`.
    explicit InputBinding(const ArboPath& path);
    // An event with a fixed value.
    InputBinding(ArboEvent::Type type, float value);
    // An event whose value follows a controller, scaled into min..max.
    static InputBinding ranged(ArboEvent::Type type, float min, float max);

    // Reads one entry. An entry that cannot be used gives the empty binding
    // and, in `error`, why (for the warning that names the entry).
    static InputBinding fromJson(const QJsonValue& json, QString* error);
    QJsonObject toJson() const;

    bool isBound() const { return mKind != None; }
    bool isNote() const { return mKind == Note; }
    const ArboPath& path() const { return mStart.path(); }
    ArboEvent::Type type() const { return mEvent.type(); }

    // A key or button went down, or came up. Null when nothing is to be sent.
    const ArboEvent* press(bool latch) const;
    const ArboEvent* release(bool latch) const;
    // A controller moved to `position`, 0 to 1. A note is pressed at or above
    // one half and released below; a fixed event fires at or above one half;
    // a ranged event is written into `scratch` with the scaled value, and a
    // pointer to it returned.
    const ArboEvent* control(float position, bool latch, ArboEvent& scratch) const;

private:
    enum Kind
    {
        None,
        Note,
        Fixed,
        Ranged,
    };
    Kind mKind = None;
    ArboNoteEvent mToggle;
    ArboNoteEvent mStart;
    ArboNoteEvent mEnd;
    ArboEvent mEvent;
    float mMin = 0.0f;
    float mMax = 1.0f;
};
