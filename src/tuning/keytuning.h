#pragma once

#include "model/arboconstants.h"
#include "tuning/keyboardmapping.h"
#include "tuning/scalascale.h"
#include "tuning/scaleplacement.h"

#include <QString>
#include <QVector>

class ArboPath;

// A scale laid on the MIDI keys through a keyboard mapping: which degree each
// key plays and at what frequency, after the published rule.
//
// For a key k between the first and last keys to retune: i = k - middle;
// with a pattern of M entries, q = floor(i / M) and the entry e of i mod M
// give the degree g = e + q·D (D the formal octave degree, the scale's size
// when 0); a linear mapping (M = 0) gives g = i. Degree g sounds the ratio
// P^floor(g/N) · r[g mod N] (N pitches, r[0] = 1/1, P the period, the last
// pitch), and the reference key sounds the reference frequency through the
// scale itself: f(k) = f_ref · R(k) / R(reference key).
//
// For playing on the lattice, pathOfKey() gives the path of the key's degree
// and octave from the degrees' places (ScalePlacement): the exact ratio of
// the degree times the period's, placed again, so the key sounds exactly
// through the engine (at the engine's base frequency, not f_ref).
//
// A plain value; any thread, one thread per object.
class KeyTuning
{
public:
    using Rational = ArboConstants::Rational;

    // Tunes `scale` through `mapping`. False, with "FILE:LINE: ..." in
    // `error`, when the scale has no pitches or the reference key plays no
    // degree; `tuning` is then left as it was.
    static bool make(const ScalaScale& scale, const KeyboardMapping& mapping, KeyTuning& tuning,
                     QString& error);

    // The degree that `key` plays: `degree` from 0 (the 1/1) to N - 1 (the
    // pitch of that number) and `periods` how many periods above (negative:
    // below). False for a key outside the retuned range or unmapped.
    bool degreeOfKey(int key, int& degree, int& periods) const;
    // The frequency of `key` in Hz; 0 when degreeOfKey() is false or the
    // frequency lies beyond any number.
    double frequencyOfKey(int key) const;
    // 1200 · log2 of the key's frequency over the reference frequency (any
    // mapped key, in range or not); false when unmapped.
    bool centsOfKey(int key, long double& cents) const;

    // The exact ratio of scale degree `degree` (0 the 1/1, up to the number
    // of pitches - 1) `periods` periods up (down when negative) on the
    // lattice: the degree's placed ratio times the period's placed ratio for
    // each period. False when a degree it needs is not placed or the product
    // leaves 64 bits. `places` are one per pitch (placeScale()). For playing
    // by degree without a mapping (computer keys numbered by degree).
    static bool ratioOfDegree(int degree, int periods, const QVector<ScalePlacement::Place>& places,
                              Rational& ratio);
    // The path that sounds ratioOfDegree(), octave and all as far as six
    // steps allow: what the engine is to play.
    static bool pathOfDegree(int degree, int periods, const QVector<ScalePlacement::Place>& places,
                             ArboPath& path);

    // The exact ratio `key` sounds above the 1/1 on the lattice: its
    // degree's placed ratio times the period's placed ratio for each period.
    // False when the key is unmapped, a degree it needs is not placed, or the
    // product leaves 64 bits. `places` are one per pitch (placeScale()).
    bool ratioOfKey(int key, const QVector<ScalePlacement::Place>& places, Rational& ratio) const;
    // pathOfDegree() of the key's degree and periods: what the engine is to
    // play for the key.
    bool pathOfKey(int key, const QVector<ScalePlacement::Place>& places, ArboPath& path) const;

    int scaleSize() const { return mCents.size() - 1; }
    const KeyboardMapping& mapping() const { return mMapping; }

private:
    // The degree counted from the 1/1 without the retuned range's limits.
    bool absoluteDegree(int key, long long& degree) const;
    long double centsOfDegree(long long degree) const;

    // 0 for the 1/1, then each pitch; the last is the period.
    QVector<long double> mCents;
    KeyboardMapping mMapping;
    long double mReferenceCents = 0.0L;
};
