#include "ui/scalebindings.h"

namespace {

// The note keys in order, and where the 1/1 lies among them.
const QVector<InputMap::NoteKey>& noteKeys(int& root)
{
    static const QVector<InputMap::NoteKey> KEYS = InputMap::defaultNoteKeys();
    static const int ROOT = [] {
        for (int i = 0; i < KEYS.size(); ++i) {
            if (KEYS.at(i).path == ArboPath()) {
                return i;
            }
        }
        return 0;
    }();
    root = ROOT;
    return KEYS;
}

int floorDivide(int value, int divisor)
{
    const int quotient = value / divisor;
    return value % divisor != 0 && value < 0 ? quotient - 1 : quotient;
}

} // namespace

InputMap::Bindings ScaleBindings::overlay(const InputMap::Bindings& own, const KeyTuning& tuning,
                                          const QVector<ScalePlacement::Place>& places)
{
    InputMap::Bindings bindings = own;
    for (int note = 0; note < 128; ++note) {
        ArboPath path;
        if (tuning.pathOfKey(note, places, path)) {
            bindings.midiNotes[size_t(note)] = InputBinding(path);
        } else if (bindings.midiNotes[size_t(note)].isNote()) {
            bindings.midiNotes[size_t(note)] = InputBinding();
        }
    }
    for (auto it = bindings.keys.begin(); it != bindings.keys.end();) {
        it = it->isNote() ? bindings.keys.erase(it) : std::next(it);
    }
    int root = 0;
    const QVector<InputMap::NoteKey>& keys = noteKeys(root);
    const int size = tuning.scaleSize();
    for (int i = 0; i < keys.size() && size > 0; ++i) {
        const int periods = floorDivide(i - root, size);
        ArboPath path;
        if (KeyTuning::pathOfDegree(i - root - periods * size, periods, places, path)) {
            bindings.keys.insert(keys.at(i).name, InputBinding(path));
        } else {
            bindings.keys.remove(keys.at(i).name);
        }
    }
    return bindings;
}

QString ScaleBindings::keyOfDegree(int degree)
{
    int root = 0;
    const QVector<InputMap::NoteKey>& keys = noteKeys(root);
    const int index = root + degree;
    return index >= 0 && index < keys.size() ? keys.at(index).name : QString();
}
