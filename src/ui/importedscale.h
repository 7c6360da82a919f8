#pragma once

#include "input/inputmap.h"
#include "tuning/keytuning.h"
#include "tuning/scalascale.h"
#include "tuning/scaleplacement.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QVector>

class Arbo;
class ArboBall;
class KeyboardInput;
class MidiInput;
class Settings;

// The scale imported in the main window: a Scala scale with its keyboard
// mapping, its degrees placed on the lattice, the lattice's nodes at those
// places (and the root, its 1/1) marked, and the computer keys and MIDI notes playing its degrees in
// exact tuning (ScaleBindings) beside the mouse, the wands and OSC.
//
// Without a .kbm the mapping is linear: the key of the "1/1 Note" option
// plays the 1/1 and each key above the next degree. A mapping's reference
// frequency moves nothing: the lattice's 1/1 sounds at the base frequency.
//
// load() is all or nothing: a file that breaks its format's rules gives
// "FILE:LINE: what was expected", and the scale, the marks and the bindings
// in force stay as they were. clear() gives the inputs the user's own
// bindings back and takes the marks off.
//
// GUI thread only. The lattice and the options outlive it.
class ImportedScale : public QObject
{
    Q_OBJECT
public:
    ImportedScale(Arbo* lattice, const Settings* options, QObject* parent = nullptr);
    ~ImportedScale() override;

    // The inputs the scale plays through, and the user's own bindings (the
    // input map's), which they get now and again after clear(). Either input
    // may be null.
    void attachInputs(const InputMap::Bindings& own, KeyboardInput* keys, MidiInput* midi);

    // Reads `scalePath` and, unless empty, `mappingPath`, places the degrees
    // within `toleranceCents` and puts the scale in play. False, with the
    // reason in `error`, changing nothing.
    bool load(const QString& scalePath, const QString& mappingPath, double toleranceCents,
              QString& error);
    void clear();
    // After the lattice was loaded anew: places the degrees at its new nodes
    // and marks them.
    void latticeReloaded();

    bool isActive() const { return mActive; }
    const ScalaScale& scale() const { return mScale; }
    const KeyTuning& tuning() const { return mTuning; }
    const QVector<ScalePlacement::Place>& places() const { return mPlaces; }
    // The bindings in force: the user's own, or the scale's over them.
    const InputMap::Bindings& bindings() const { return mBindings; }
    // How many degrees were placed, and how many nodes are marked (the root
    // among them).
    int placedCount() const;
    int markedCount() const { return mMarked.size(); }
    // One line per degree that was not placed: "12 (37/32): needs the prime
    // 37, above 31", the degree number first.
    QStringList unplacedLines() const;

signals:
    // A scale came into play or went.
    void changed();

private:
    void setMarks(bool on);
    void applyBindings();

    Arbo* mLattice;
    const Settings* mOptions;
    QPointer<KeyboardInput> mKeys;
    QPointer<MidiInput> mMidi;
    InputMap::Bindings mOwn;
    InputMap::Bindings mBindings;
    bool mActive = false;
    ScalaScale mScale;
    KeyTuning mTuning;
    double mTolerance = ScalePlacement::DEFAULT_TOLERANCE;
    QVector<ScalePlacement::Place> mPlaces;
    // The nodes marked, by path (the nodes themselves go when the lattice is
    // loaded anew).
    QVector<ArboPath> mMarked;
};
