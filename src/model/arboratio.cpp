#include "model/arboratio.h"

#include "settings/throttledwarning.h"

#include <QDebug>

#include <cmath>
#include <limits>

namespace {

using Rational = ArboRatio::Rational;

// Multiplies `ratio` by the prime of every step of `steps` (count steps, or up
// to the terminator when count is negative). False when a step is no valid
// prime or the product does not fit; `ratio` is then unspecified.
template <typename Steps> bool multiplySteps(Rational& ratio, const Steps& steps, int count)
{
    for (int i = 0; count < 0 ? steps[i] != 0 : i < count; ++i) {
        Rational step;
        if (!ArboConstants::stepRational(steps[i], step) ||
            !ArboRatio::multiplyExact(ratio, step)) {
            return false;
        }
    }
    return true;
}

// Nodes' ratios are made anew for the whole lattice at every transposition,
// so a transposition near the 64-bit limit would log a line for each node,
// and a flood of them from the network hundreds of thousands: throttled.
ThrottledWarning& tooLarge()
{
    thread_local ThrottledWarning warning(
        "%1 more absolute ratios did not fit in 64 bits (warnings suppressed)");
    return warning;
}

QString stepsText(const QList<int>& steps)
{
    QStringList texts;
    for (const int step : steps) {
        texts << QString::number(step);
    }
    return texts.join(QLatin1String(", "));
}

} // namespace

ArboRatio::ArboRatio(unsigned long long numerator, unsigned long long denominator)
    : mRatio(numerator, denominator)
{
}

ArboRatio::ArboRatio(const ArboPath& path, const QList<int>& transposeSteps)
{
    storeFromPath(path, transposeSteps);
}

ArboRatio ArboRatio::pathRatio(const ArboPath& path)
{
    ArboRatio result;
    // A path holds at most seven steps of at most 31/16: the product always
    // fits, so the only failure is a step that is not a prime.
    Rational ratio(1);
    if (multiplySteps(ratio, path.toCharArray(), -1)) {
        result.mRatio = ratio;
    }
    return result;
}

void ArboRatio::storeFromPath(const ArboPath& path, const QList<int>& transposeSteps)
{
    mRatio = pathRatio(path).mRatio;
    storeFromAbsolutePath(path, transposeSteps);
}

void ArboRatio::storeFromAbsolutePath(const ArboPath& path, const QList<int>& transposeSteps)
{
    mAbsRatio = Rational(0);
    if (!path.hasValidSteps()) {
        return;
    }
    Rational absolute(1);
    if (!multiplySteps(absolute, transposeSteps, transposeSteps.size())) {
        tooLarge().warn(QStringLiteral("Absolute ratio of %1 does not fit in 64 bits; "
                                       "transposition steps: %2")
                            .arg(path.toString(), stepsText(transposeSteps)));
        return;
    }
    if (!multiplySteps(absolute, path.toCharArray(), -1)) {
        tooLarge().warn(
            QStringLiteral("Absolute ratio of %1 does not fit in 64 bits").arg(path.toString()));
        return;
    }
    mAbsRatio = absolute;
}

ArboRatio& ArboRatio::operator*=(const ArboRatio& other)
{
    mRatio *= other.mRatio;
    return *this;
}

bool ArboRatio::multiplyIfExact(const ArboRatio& other)
{
    return multiplyExact(mRatio, other.mRatio);
}

bool ArboRatio::multiplyExact(Rational& accumulator, const Rational& factor)
{
    using U = unsigned long long;
    // The rational product cancels crosswise first, so only factors that are
    // left after cancelling can overflow.
    const U gcd1 = boost::integer::gcd(accumulator.numerator(), factor.denominator());
    const U gcd2 = boost::integer::gcd(factor.numerator(), accumulator.denominator());
    if (gcd1 == 0 || gcd2 == 0) {
        return false; // only a zero denominator gives a zero gcd
    }
    const U a = accumulator.numerator() / gcd1;
    const U b = factor.numerator() / gcd2;
    const U c = accumulator.denominator() / gcd2;
    const U d = factor.denominator() / gcd1;
    constexpr U MAX = std::numeric_limits<U>::max();
    if ((a != 0 && b > MAX / a) || (c != 0 && d > MAX / c)) {
        return false;
    }
    // Coprime by construction: assign() only confirms it.
    accumulator.assign(a * b, c * d);
    return true;
}

bool ArboRatio::surelyExactProduct(unsigned long long numerator, unsigned long long denominator,
                                   double value, const ArboRatio& other)
{
    // When even the products before cancelling fit, the cancelled product
    // fits; and for a value below 2^20 the rational and the floating-point
    // products differ by a few units in the last place, less than 1e-9, far
    // inside the tolerance of canMultiplyWith().
    unsigned long long product = 0;
    return !__builtin_mul_overflow(numerator, other.numerator(), &product) &&
           !__builtin_mul_overflow(denominator, other.denominator(), &product) &&
           value * other.toDouble() < SURE_VALUE_LIMIT;
}

bool ArboRatio::canMultiplyWith(const ArboRatio& other) const
{
    if (surelyExactProduct(numerator(), denominator(), toDouble(), other)) {
        return true;
    }
    Rational product = mRatio;
    const bool fits = multiplyExact(product, other.mRatio);
    if (!fits) {
        // What the plain rational product gives: it wraps around (unsigned
        // arithmetic), which is exactly what this test is meant to catch.
        product = mRatio;
        product *= other.mRatio;
    }
    const double testProduct = double(product.numerator()) / double(product.denominator());
    const double realProduct =
        (double(mRatio.numerator()) / double(mRatio.denominator())) *
        (double(other.mRatio.numerator()) / double(other.mRatio.denominator()));
    if (!fits || float(std::fabs(testProduct - realProduct)) > 1e-5f) {
        qDebug().noquote() << QStringLiteral("canMultiply fail on %1 * %2:\n  test product: %3, "
                                             "real product: %4")
                                  .arg(toString(), other.toString())
                                  .arg(testProduct, 0, 'g', 17)
                                  .arg(realProduct, 0, 'g', 17);
        return false;
    }
    return true;
}

QString ArboRatio::toString() const
{
    return QString::number(mRatio.numerator()) + QLatin1Char('/') +
           QString::number(mRatio.denominator());
}

QString ArboRatio::toStringAbs() const
{
    return QString::number(mAbsRatio.numerator()) + QLatin1Char('/') +
           QString::number(mAbsRatio.denominator());
}

uint qHash(const ArboRatio& ratio, uint seed)
{
    uint hash = seed * 31u + uint(ratio.numerator());
    hash = hash * 31u + uint(ratio.denominator());
    return hash;
}
