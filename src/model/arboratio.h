#pragma once

#include "model/arboconstants.h"
#include "model/arbopath.h"

#include <QList>
#include <QMetaType>
#include <QString>

// An exact pitch: the ratio that a path of prime steps multiplies out to.
//
// Two exact fractions of unsigned 64-bit integers, always in lowest terms:
// - the ratio, from the node's own path alone, relative to the root 1/1;
// - the absolute ratio, which also includes the lattice's transposition (its
//   transposition steps followed by the path).
// Equality and hashing use the ratio only, so a note keeps its identity
// whatever the transposition.
//
// A plain value (no heap memory) that travels by value through queued
// signals. The default value of both fields is 0/1, which is no pitch.
//
// Overflow: the 64-bit arithmetic wraps silently, so code that combines
// ratios which may grow calls canMultiplyWith() (which logs) or
// multiplyIfExact() (which does not) first.
//
// Threads: everything but storeFromPath(), storeFromAbsolutePath(), the path
// constructor and canMultiplyWith() may be used on any thread, never
// allocates (except the text forms) and never throws (except the constructor
// from numerator and denominator). Those four may log and belong to the GUI
// thread; the audio thread uses pathRatio().
class ArboRatio
{
public:
    using Rational = ArboConstants::Rational;

    // Both fields 0/1.
    ArboRatio() = default;
    // ratio = numerator/denominator in lowest terms, absolute ratio 0/1.
    // A denominator of 0 throws boost::bad_rational; never pass one that
    // comes from outside the program.
    ArboRatio(unsigned long long numerator, unsigned long long denominator);
    // storeFromPath(path, transposeSteps). GUI thread.
    ArboRatio(const ArboPath& path, const QList<int>& transposeSteps);

    // The ratio of `path` in the ratio field, absolute ratio 0/1; reads no
    // shared state. Any thread; never allocates, logs or throws. A path with a
    // step that is not a valid prime (such as the invalid path) gives 0/1.
    static ArboRatio pathRatio(const ArboPath& path);

    // Sets the ratio from the path, then the absolute ratio as below.
    // GUI thread.
    void storeFromPath(const ArboPath& path, const QList<int>& transposeSteps);
    // Sets the absolute ratio: the product of the lattice's transposition
    // steps (Arbo::transposeSteps(), passed by the caller who knows the
    // lattice) followed by the path's steps. GUI thread. A path that holds a step which is not a
    // valid prime has no pitch: 0/1 (rather than a division by the zero of
    // the table). A product that does not fit in 64 bits also gives 0/1, with
    // a warning, rather than a wrong value.
    void storeFromAbsolutePath(const ArboPath& path, const QList<int>& transposeSteps);

    // Multiplies the ratio field; the absolute ratio is left alone. Wraps on
    // overflow: see canMultiplyWith().
    ArboRatio& operator*=(const ArboRatio& other);
    // Multiplies the ratio field when the exact product fits in 64 bits and
    // returns true; otherwise changes nothing and returns false. Any thread.
    bool multiplyIfExact(const ArboRatio& other);

    // Whether this ratio times `other` (ratio fields) is exact in 64 bits.
    // Besides the exact overflow test, the rational product is compared with
    // the floating-point product and refused when they differ by more than
    // 1e-5. That tolerance is absolute on purpose: large ratios are judged by
    // the same 1e-5, and no playable pitch is large. Logs the reason at debug
    // level when it refuses.
    bool canMultiplyWith(const ArboRatio& other) const;

    // "3/2": numerator, "/", denominator in decimal.
    QString toString() const;
    QString toStringAbs() const;

    const Rational& ratio() const { return mRatio; }
    unsigned long long numerator() const { return mRatio.numerator(); }
    unsigned long long denominator() const { return mRatio.denominator(); }
    double toDouble() const { return double(numerator()) / double(denominator()); }

    bool operator==(const ArboRatio& other) const { return mRatio == other.mRatio; }
    bool operator!=(const ArboRatio& other) const { return !(*this == other); }

    // Whether canMultiplyWith() is certain to hold for every ratio whose
    // numerator, denominator and value are at most the given ones, without
    // running its full test: the products of the parts fit in 64 bits and the
    // product's value stays below SURE_VALUE_LIMIT. A false result says
    // nothing. Lets a caller test a whole set of ratios by its largest parts
    // at once. Any thread.
    static bool surelyExactProduct(unsigned long long numerator, unsigned long long denominator,
                                   double value, const ArboRatio& other);
    static constexpr double SURE_VALUE_LIMIT = 1048576.0; // 2^20

    // Multiplies `accumulator` by `factor` when the exact product fits in 64
    // bits; otherwise leaves it and returns false. Any thread.
    static bool multiplyExact(Rational& accumulator, const Rational& factor);

private:
    Rational mRatio;
    Rational mAbsRatio;
};

inline ArboRatio operator*(ArboRatio left, const ArboRatio& right)
{
    left *= right;
    return left;
}

// h = seed * 31 + numerator; h = h * 31 + denominator (of the ratio field), in
// 32-bit unsigned arithmetic.
uint qHash(const ArboRatio& ratio, uint seed = 0);

Q_DECLARE_METATYPE(ArboRatio)
