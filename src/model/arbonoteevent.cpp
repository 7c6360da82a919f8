#include "model/arbonoteevent.h"

#include <QString>

ArboNoteEvent::ArboNoteEvent() : ArboEvent(NoteToggle, 1.0f) {}

ArboNoteEvent::ArboNoteEvent(const QString& path) : ArboEvent(NoteToggle, 1.0f), mPath(path) {}

ArboNoteEvent::ArboNoteEvent(const ArboPath& path) : ArboEvent(NoteToggle, 1.0f), mPath(path) {}

ArboNoteEvent::ArboNoteEvent(const ArboPath& path, Type type) : ArboEvent(type, 1.0f), mPath(path)
{
}

ArboNoteEvent::~ArboNoteEvent() = default;
