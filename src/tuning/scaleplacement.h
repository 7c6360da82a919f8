#pragma once

#include "model/arboconstants.h"
#include "model/arbopath.h"
#include "tuning/scalascale.h"

#include <QHash>
#include <QPair>
#include <QString>
#include <QVector>

class Arbo;

// Where the degrees of a scale lie on the lattice: for each pitch, a path of
// prime steps (2 to 31, at most six, the lattice's own limit) that sounds it.
//
// A degree is a pitch class, so octaves may be given up: a ratio line is
// placed exactly when its prime factors allow it, the steps of 2 that put it
// in its own octave being added as far as the six steps leave room (3/2 is
// "/3"; 729/512 needs six steps of 3 and sounds three octaves up). A ratio
// with a prime above 31, or whose odd primes need more than six steps, is not
// placed, with the reason. A cents line is matched within the tolerance: to
// the lattice ratio with the fewest steps (then the nearest among those),
// since published scales round their cents and the nearest of the lattice's
// many complex ratios would rarely be the one meant; none within it, and the
// degree is not placed.
//
// Paths are written with the steps of 2 first, then the other primes from
// the lowest, as the lattice grows its trunk and leaves. After
// preferNodesOf(), a degree that a node of that lattice sounds (the same
// ratio, or else the same pitch class with the fewest steps) is placed at
// that node, so a window can mark its ball; playPath still sounds the
// degree's own octave.
//
// Any thread, one thread per object; the table that cents lines are matched
// against is built once, on first use, and then shared read-only.
class ScalePlacement
{
public:
    using Rational = ArboConstants::Rational;
    using BigInt = ScalaScale::BigInt;

    static constexpr double DEFAULT_TOLERANCE = 1.0;
    static constexpr double MAX_TOLERANCE = 600.0;

    // `ratio` moved by octaves into [1, 2): the pitch class that a scale
    // degree and an exported degree stand for. `ratio` must be positive.
    static Rational pitchClass(Rational ratio);

    struct Place
    {
        bool placed = false;
        // Where the degree lies on the lattice: the node preferred (see
        // preferNodesOf()), otherwise playPath.
        ArboPath path;
        // The path that sounds `ratio`, octave and all.
        ArboPath playPath;
        // The ratio the degree sounds: its own when its octave fitted.
        Rational ratio{0};
        // Why the degree was not placed.
        QString reason;

        // The path's text ("/3/5"), or "- " and the reason.
        QString text() const;
    };

    // `toleranceCents` (clamped to 0..MAX_TOLERANCE) is how far a cents line
    // may lie from the lattice ratio it is matched to.
    explicit ScalePlacement(double toleranceCents = DEFAULT_TOLERANCE);

    // Places degrees at the nodes of `lattice` where it has them (see above).
    // Call it again after the lattice changes. GUI thread for the lattice.
    void preferNodesOf(const Arbo& lattice);

    Place placeRatio(const BigInt& numerator, const BigInt& denominator) const;
    Place placeRatio(const Rational& ratio) const;
    Place placeCents(double cents) const;
    Place place(const ScalaScale::Pitch& pitch) const;
    // One place for each pitch of `scale`, in its order.
    QVector<Place> placeScale(const ScalaScale& scale) const;

    double tolerance() const { return mTolerance; }

    // The odd primes of the lattice, 3 to 31.
    static constexpr int ODD_PRIME_COUNT = 10;

private:
    // The path of the odd exponents (one per odd prime) and `twos` steps of
    // 2 wanted for the octave, fewer when the six steps leave no room.
    Place fromExponents(const int (&exponents)[ODD_PRIME_COUNT], long long twos) const;
    // The lattice's node for the placed path, where there is one.
    void preferNode(Place& place) const;

    double mTolerance;
    using Key = QPair<quint64, quint64>;
    QHash<Key, ArboPath> mNodesByRatio;
    QHash<Key, ArboPath> mNodesByPitchClass;
};
