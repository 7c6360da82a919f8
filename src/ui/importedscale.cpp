#include "ui/importedscale.h"

#include "midi/midiinput.h"
#include "model/arbo.h"
#include "tuning/keyboardmapping.h"
#include "tuning/tuningexport.h"
#include "ui/keyboardinput.h"
#include "ui/scalebindings.h"

#include <algorithm>

namespace {

// The node at `path`, walked from the root; null when the lattice has none.
ArboBall* nodeAt(const Arbo& lattice, const ArboPath& path)
{
    ArboBall* node = lattice.root();
    for (const int step : path.toList()) {
        if (!node) {
            break;
        }
        node = node->childAtPrime(step);
    }
    return node;
}

} // namespace

ImportedScale::ImportedScale(Arbo* lattice, const Settings* options, QObject* parent)
    : QObject(parent), mLattice(lattice), mOptions(options)
{
}

ImportedScale::~ImportedScale()
{
    setMarks(false);
}

void ImportedScale::attachInputs(const InputMap::Bindings& own, KeyboardInput* keys,
                                 MidiInput* midi)
{
    mOwn = own;
    mKeys = keys;
    mMidi = midi;
    applyBindings();
}

bool ImportedScale::load(const QString& scalePath, const QString& mappingPath,
                         double toleranceCents, QString& error)
{
    ScalaScale scale;
    if (!ScalaScale::load(scalePath, scale, error)) {
        return false;
    }
    KeyboardMapping mapping;
    if (!mappingPath.isEmpty()) {
        if (!KeyboardMapping::load(mappingPath, mapping, error)) {
            return false;
        }
    } else {
        TuningExport::Reference reference;
        if (!TuningExport::referenceOf(*mOptions, *mLattice, reference, error)) {
            return false;
        }
        mapping = KeyboardMapping::linear(reference.oneOneKey, reference.oneOneFrequency(),
                                          scale.pitches.size());
    }
    KeyTuning tuning;
    if (!KeyTuning::make(scale, mapping, tuning, error)) {
        return false;
    }
    ScalePlacement placement(toleranceCents);
    placement.preferNodesOf(*mLattice);
    const QVector<ScalePlacement::Place> places = placement.placeScale(scale);

    setMarks(false);
    mScale = scale;
    mTuning = tuning;
    mTolerance = placement.tolerance();
    mPlaces = places;
    mActive = true;
    setMarks(true);
    applyBindings();
    emit changed();
    return true;
}

void ImportedScale::clear()
{
    if (!mActive) {
        return;
    }
    setMarks(false);
    mActive = false;
    mScale = ScalaScale();
    mTuning = KeyTuning();
    mPlaces.clear();
    applyBindings();
    emit changed();
}

void ImportedScale::latticeReloaded()
{
    // The marked nodes went with the old tree.
    mMarked.clear();
    if (!mActive) {
        return;
    }
    ScalePlacement placement(mTolerance);
    placement.preferNodesOf(*mLattice);
    mPlaces = placement.placeScale(mScale);
    setMarks(true);
}

int ImportedScale::placedCount() const
{
    return int(std::count_if(mPlaces.begin(), mPlaces.end(),
                             [](const ScalePlacement::Place& place) { return place.placed; }));
}

QStringList ImportedScale::unplacedLines() const
{
    QStringList lines;
    for (int i = 0; i < mPlaces.size(); ++i) {
        if (!mPlaces.at(i).placed) {
            lines << QStringLiteral("%1 (%2): %3")
                         .arg(i + 1)
                         .arg(mScale.pitches.at(i).text, mPlaces.at(i).reason);
        }
    }
    return lines;
}

void ImportedScale::setMarks(bool on)
{
    if (!on) {
        for (const ArboPath& path : qAsConst(mMarked)) {
            if (ArboBall* node = nodeAt(*mLattice, path)) {
                node->setMarked(false);
            }
        }
        mMarked.clear();
        return;
    }
    // The 1/1 first: degree 0 of every scale, at the root.
    QVector<ArboPath> paths{ArboPath()};
    for (const ScalePlacement::Place& place : qAsConst(mPlaces)) {
        if (place.placed) {
            paths.append(place.path);
        }
    }
    for (const ArboPath& path : qAsConst(paths)) {
        ArboBall* node = nodeAt(*mLattice, path);
        if (node && !mMarked.contains(path)) {
            node->setMarked(true);
            mMarked.append(path);
        }
    }
}

void ImportedScale::applyBindings()
{
    mBindings = mActive ? ScaleBindings::overlay(mOwn, mTuning, mPlaces) : mOwn;
    if (mKeys) {
        mKeys->setBindings(mBindings);
    }
    if (mMidi) {
        mMidi->setBindings(mBindings);
    }
}
