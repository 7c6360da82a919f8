#pragma once

#include "sound/scenetable.h"

#include <QJsonObject>
#include <QString>

#include <vector>

// One scene of a cue list: everything a listener hears from the instrument,
// as the player stored it, with its name and the voice patch it plays.
//
// In a file a scene reads:
//
//   { "name": "Otonal chord",
//     "patch": "Sine.pd",              a voice of the program by file name,
//                                      any other patch by its full path
//     "notes": [ { "ratio": "5/4", "path": "/5", "held": false } ],
//     "transposition": "3/2",
//     "masterVolume": 1, "voiceVolume": 0.8, "baseFrequency": 440,
//     "monophonic": false,
//     "macros": [ 0.5, null, ... ],    null: the patch's own default
//     "disabledPrimes": [ 11 ] }
//
// A note's ratio is the exact pitch it sounds at (transposition included);
// its path is where the lattice showed it, for the reader. Files travel
// between machines and are edited by hand: what is out of range is left out
// or put back to its default with a warning, never handed to the player.
// Keys this program does not know are kept and written back.
//
// A plain value; GUI thread.
class Scene
{
public:
    QString name;
    QString patch;
    // The sound (its id is the book's, given when the scene enters a list).
    SceneTable::Scene sound;
    std::vector<SceneTable::Note> notes;
    QJsonObject unknown;

    // The scene a snapshot of the player describes.
    static Scene fromSnapshot(const SceneTable::Snapshot& snapshot);
    // `warnings` gets one line for each value that was left out.
    static Scene fromJson(const QJsonObject& json, QStringList* warnings);
    QJsonObject toJson() const;

    // "n/d" in lowest terms with both parts from 1 to 2^63, or false.
    static bool parseRatio(const QString& text, ArboRatio* ratio);
};
