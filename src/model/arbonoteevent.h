#pragma once

#include "model/arboevent.h"
#include "model/arbopath.h"

class QString;

// A command about the note at a lattice path: NoteToggle (what wands and
// clicks send), or NoteStart/NoteEnd (held keys). The value is always 1.0.
class ArboNoteEvent : public ArboEvent
{
public:
    // The root's note.
    ArboNoteEvent();
    // The note at the path given as text ("/3/-5"); an unparsable text gives
    // the invalid path, which the player ignores.
    explicit ArboNoteEvent(const QString& path);
    explicit ArboNoteEvent(const ArboPath& path);
    // `type` is NoteToggle, NoteStart or NoteEnd.
    ArboNoteEvent(const ArboPath& path, Type type);
    ArboNoteEvent(const ArboNoteEvent&) = default;
    ArboNoteEvent& operator=(const ArboNoteEvent&) = default;
    ~ArboNoteEvent() override;

    const ArboPath& path() const { return mPath; }

private:
    ArboPath mPath;
};
