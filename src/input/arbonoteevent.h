#pragma once

#include "input/arboevent.h"
#include "model/arbopath.h"

class QString;

// The command to toggle the note at a lattice path. Its type is always
// NoteToggle and its value always 1.0.
class ArboNoteEvent : public ArboEvent
{
public:
    // The root's note.
    ArboNoteEvent();
    // The note at the path given as text ("/3/-5"); an unparsable text gives
    // the invalid path, which the player ignores.
    explicit ArboNoteEvent(const QString& path);
    explicit ArboNoteEvent(const ArboPath& path);
    ArboNoteEvent(const ArboNoteEvent&) = default;
    ArboNoteEvent& operator=(const ArboNoteEvent&) = default;
    ~ArboNoteEvent() override;

    const ArboPath& path() const { return mPath; }

private:
    ArboPath mPath;
};
