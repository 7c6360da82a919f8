#pragma once

#include "input/inputmap.h"
#include "tuning/keytuning.h"
#include "tuning/scaleplacement.h"

#include <QVector>

// The input bindings while an imported scale is played: the user's own, with
// the scale laid over their notes.
//
// Each MIDI note that the keyboard mapping maps plays its degree and octave
// (KeyTuning::pathOfKey()) in exact tuning on the lattice. The computer keys
// that play notes in the default map play the scale by degree: the key that
// plays the 1/1 there (F) plays the 1/1, the keys after it in the order of
// InputMap::defaultNoteKeys() degree 1, 2, 3, ... on into the next periods,
// the keys before it the degrees below. Every other binding that plays a note
// (a note the mapping leaves unmapped, a key of the user's own) is taken off,
// so that no key sounds the lattice's layout in the middle of the scale;
// bindings of events (transposition, "Stop all", volume, ...) and the
// controllers stay. A degree that could not be placed leaves its key and its
// notes silent.
namespace ScaleBindings {

InputMap::Bindings overlay(const InputMap::Bindings& own, const KeyTuning& tuning,
                           const QVector<ScalePlacement::Place>& places);

// The name of the computer key that plays `degree` (0 the 1/1, then each
// pitch of the scale, N the period, N + 1 the first pitch a period up, ...)
// in overlay(); empty when no key does.
QString keyOfDegree(int degree);

} // namespace ScaleBindings
