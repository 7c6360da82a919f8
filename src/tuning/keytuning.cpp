#include "tuning/keytuning.h"

#include "model/arbopath.h"
#include "model/arboratio.h"

#include <cmath>

namespace {

long long floorDivide(long long value, long long divisor)
{
    const long long quotient = value / divisor;
    return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? quotient - 1 : quotient;
}

} // namespace

bool KeyTuning::make(const ScalaScale& scale, const KeyboardMapping& mapping, KeyTuning& tuning,
                     QString& error)
{
    if (scale.pitches.isEmpty()) {
        error = QStringLiteral("%1:%2: expected a scale of at least one pitch to map to keys")
                    .arg(scale.fileName)
                    .arg(scale.countLine);
        return false;
    }
    KeyTuning result;
    result.mMapping = mapping;
    result.mCents.reserve(scale.pitches.size() + 1);
    result.mCents.append(0.0L);
    for (const ScalaScale::Pitch& pitch : scale.pitches) {
        result.mCents.append(pitch.isRatio
                                 ? ScalaScale::ratioCents(pitch.numerator, pitch.denominator)
                                 : static_cast<long double>(pitch.cents));
    }
    long long reference = 0;
    if (!result.absoluteDegree(mapping.referenceKey, reference)) {
        error = QStringLiteral("%1:%2: expected a reference key that plays a scale degree "
                               "(key %3 is unmapped)")
                    .arg(mapping.fileName)
                    .arg(mapping.referenceLine)
                    .arg(mapping.referenceKey);
        return false;
    }
    result.mReferenceCents = result.centsOfDegree(reference);
    tuning = result;
    return true;
}

bool KeyTuning::absoluteDegree(int key, long long& degree) const
{
    int patterns = 0;
    const int entry = mMapping.entryOfKey(key, patterns);
    if (mMapping.size != 0 && entry == KeyboardMapping::UNMAPPED) {
        return false;
    }
    const long long octave = mMapping.octaveDegree == 0 ? scaleSize() : mMapping.octaveDegree;
    degree = entry + (long long)patterns * octave;
    return true;
}

long double KeyTuning::centsOfDegree(long long degree) const
{
    const long long size = scaleSize();
    const long long periods = floorDivide(degree, size);
    return static_cast<long double>(periods) * mCents.last() +
           mCents.at(int(degree - periods * size));
}

bool KeyTuning::degreeOfKey(int key, int& degree, int& periods) const
{
    long long absolute = 0;
    if (key < mMapping.firstKey || key > mMapping.lastKey || !absoluteDegree(key, absolute)) {
        return false;
    }
    const long long size = scaleSize();
    const long long whole = floorDivide(absolute, size);
    periods = int(whole);
    degree = int(absolute - whole * size);
    return true;
}

bool KeyTuning::centsOfKey(int key, long double& cents) const
{
    long long absolute = 0;
    if (!absoluteDegree(key, absolute)) {
        return false;
    }
    cents = centsOfDegree(absolute) - mReferenceCents;
    return true;
}

double KeyTuning::frequencyOfKey(int key) const
{
    int degree = 0;
    int periods = 0;
    long double cents = 0.0L;
    if (!degreeOfKey(key, degree, periods) || !centsOfKey(key, cents)) {
        return 0.0;
    }
    const double frequency =
        double(static_cast<long double>(mMapping.referenceFrequency) * std::exp2(cents / 1200.0L));
    // A hostile mapping can ask for degrees millions of octaves away.
    return std::isfinite(frequency) ? frequency : 0.0;
}

bool KeyTuning::ratioOfDegree(int degree, int periods, const QVector<ScalePlacement::Place>& places,
                              Rational& ratio)
{
    if (places.isEmpty() || degree < 0 || degree >= places.size()) {
        return false;
    }
    const ScalePlacement::Place& period = places.last();
    if ((degree > 0 && !places.at(degree - 1).placed) || (periods != 0 && !period.placed)) {
        return false;
    }
    ratio = degree > 0 ? places.at(degree - 1).ratio : Rational(1);
    if (periods == 0) {
        return true;
    }
    const Rational step = periods > 0 ? period.ratio : Rational(1) / period.ratio;
    for (int i = 0; i < std::abs(periods); ++i) {
        if (!ArboRatio::multiplyExact(ratio, step)) {
            return false;
        }
    }
    return true;
}

bool KeyTuning::pathOfDegree(int degree, int periods, const QVector<ScalePlacement::Place>& places,
                             ArboPath& path)
{
    Rational ratio;
    if (!ratioOfDegree(degree, periods, places, ratio)) {
        return false;
    }
    const ScalePlacement::Place place = ScalePlacement().placeRatio(ratio);
    if (!place.placed) {
        return false;
    }
    path = place.playPath;
    return true;
}

bool KeyTuning::ratioOfKey(int key, const QVector<ScalePlacement::Place>& places,
                           Rational& ratio) const
{
    int degree = 0;
    int periods = 0;
    return places.size() == scaleSize() && degreeOfKey(key, degree, periods) &&
           ratioOfDegree(degree, periods, places, ratio);
}

bool KeyTuning::pathOfKey(int key, const QVector<ScalePlacement::Place>& places,
                          ArboPath& path) const
{
    int degree = 0;
    int periods = 0;
    return places.size() == scaleSize() && degreeOfKey(key, degree, periods) &&
           pathOfDegree(degree, periods, places, path);
}
