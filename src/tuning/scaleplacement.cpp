#include "tuning/scaleplacement.h"

#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboratio.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace {

using Rational = ScalePlacement::Rational;
using BigInt = ScalePlacement::BigInt;
constexpr int ODD = ScalePlacement::ODD_PRIME_COUNT;
constexpr int MAX_STEPS = ArboPath::MAX_LEAF_STEPS;
const int ODD_PRIMES[ODD] = {3, 5, 7, 11, 13, 17, 19, 23, 29, 31};

// The steps of 2 in one step of `prime`: 3/2 has one, 5/4 two, 31/16 four.
int twosInStep(int prime)
{
    return __builtin_ctzll(ArboConstants::PRIME_RATIONALS[prime].denominator());
}

double stepCents(int prime)
{
    const Rational& step = ArboConstants::PRIME_RATIONALS[prime];
    return 1200.0 * std::log2(double(step.numerator()) / double(step.denominator()));
}

// Every pitch class of at most six odd steps, by its number of steps, each
// sorted by its cents within the octave: about 134,000 entries.
struct CentsEntry
{
    double cents;
    signed char exponents[ODD];
    bool operator<(const CentsEntry& other) const { return cents < other.cents; }
};
struct CentsTable
{
    std::vector<CentsEntry> bySteps[MAX_STEPS + 1];
};

void grow(CentsTable& table, CentsEntry& entry, int index, int used, double cents)
{
    if (index == ODD) {
        entry.cents = cents - 1200.0 * std::floor(cents / 1200.0);
        table.bySteps[used].push_back(entry);
        return;
    }
    const int room = MAX_STEPS - used;
    for (int e = -room; e <= room; ++e) {
        entry.exponents[index] = static_cast<signed char>(e);
        grow(table, entry, index + 1, used + std::abs(e), cents + e * stepCents(ODD_PRIMES[index]));
    }
}

CentsTable buildCentsTable()
{
    CentsTable table;
    CentsEntry entry{};
    grow(table, entry, 0, 0, 0.0);
    for (auto& steps : table.bySteps) {
        std::sort(steps.begin(), steps.end());
    }
    return table;
}

const CentsTable& centsTable()
{
    static const CentsTable table = buildCentsTable();
    return table;
}

// The entry of `steps` nearest to the pitch class `cents` (0 to 1200), or
// null; `distance` is how far it lies, across the octave's end too.
const CentsEntry* nearest(const std::vector<CentsEntry>& steps, double cents, double& distance)
{
    const CentsEntry* best = nullptr;
    distance = 1e300;
    for (const double target : {cents - 1200.0, cents, cents + 1200.0}) {
        const auto at = std::lower_bound(steps.begin(), steps.end(), CentsEntry{target, {}});
        for (auto it : {at, at == steps.begin() ? at : at - 1}) {
            if (it != steps.end() && std::fabs(it->cents - target) < distance) {
                distance = std::fabs(it->cents - target);
                best = &*it;
            }
        }
    }
    return best;
}

// Divides every factor `prime` out of `value`; their count.
int divideOut(BigInt& value, int prime)
{
    int count = 0;
    BigInt quotient;
    BigInt remainder;
    for (;;) {
        boost::multiprecision::divide_qr(value, BigInt(prime), quotient, remainder);
        if (remainder != 0) {
            return count;
        }
        value = quotient;
        ++count;
    }
}

// The smallest prime factor of `a` or `b` (neither has one below 37), or 0
// when there is none below 1000.
int smallestLargePrime(const BigInt& a, const BigInt& b)
{
    for (int candidate = 37; candidate < 1000; candidate += 2) {
        if ((a > 1 && a % candidate == 0) || (b > 1 && b % candidate == 0)) {
            return candidate;
        }
    }
    return 0;
}

QPair<quint64, quint64> keyOf(const Rational& ratio)
{
    return qMakePair(quint64(ratio.numerator()), quint64(ratio.denominator()));
}

} // namespace

QString ScalePlacement::Place::text() const
{
    return placed ? path.toString() : QStringLiteral("- ") + reason;
}

ScalePlacement::ScalePlacement(double toleranceCents)
    : mTolerance(std::isfinite(toleranceCents) ? qBound(0.0, toleranceCents, MAX_TOLERANCE)
                                               : DEFAULT_TOLERANCE)
{
}

void ScalePlacement::preferNodesOf(const Arbo& lattice)
{
    mNodesByRatio.clear();
    mNodesByPitchClass.clear();
    QList<const ArboBall*> todo{lattice.root()};
    while (!todo.isEmpty()) {
        const ArboBall* node = todo.takeLast();
        for (const ArboBall* child : node->children()) {
            todo.append(child);
        }
        const Rational& ratio = node->ratio().ratio();
        if (ratio.numerator() == 0) {
            continue;
        }
        const int length = node->path().length();
        const auto keep = [&](QHash<Key, ArboPath>& nodes, const Key& key) {
            const auto it = nodes.constFind(key);
            // The shortest path, and among those the first in text order, so
            // the choice does not depend on the order of the walk.
            if (it == nodes.constEnd() || length < it->length() ||
                (length == it->length() && node->path().toString() < it->toString())) {
                nodes.insert(key, node->path());
            }
        };
        keep(mNodesByRatio, keyOf(ratio));
        keep(mNodesByPitchClass, keyOf(ScalePlacement::pitchClass(ratio)));
    }
}

void ScalePlacement::preferNode(Place& place) const
{
    auto it = mNodesByRatio.constFind(keyOf(place.ratio));
    if (it == mNodesByRatio.constEnd()) {
        it = mNodesByPitchClass.constFind(keyOf(ScalePlacement::pitchClass(place.ratio)));
        if (it == mNodesByPitchClass.constEnd()) {
            return;
        }
    }
    place.path = *it;
}

ScalePlacement::Place ScalePlacement::fromExponents(const int (&exponents)[ODD],
                                                    long long twos) const
{
    int odd = 0;
    for (const int e : exponents) {
        odd += std::abs(e);
    }
    const long long room = MAX_STEPS - odd;
    const int kept = int(qBound(-room, twos, room));
    ArboPath path;
    for (int i = 0; i < std::abs(kept); ++i) {
        path.addLeaf(static_cast<signed char>(kept > 0 ? 2 : -2));
    }
    for (int p = 0; p < ODD; ++p) {
        for (int i = 0; i < std::abs(exponents[p]); ++i) {
            path.addLeaf(
                static_cast<signed char>(exponents[p] > 0 ? ODD_PRIMES[p] : -ODD_PRIMES[p]));
        }
    }
    Place place;
    place.placed = true;
    place.path = path;
    place.playPath = path;
    place.ratio = ArboRatio::pathRatio(path).ratio();
    preferNode(place);
    return place;
}

ScalePlacement::Place ScalePlacement::placeRatio(const BigInt& numerator,
                                                 const BigInt& denominator) const
{
    Place place;
    if (numerator <= 0 || denominator <= 0) {
        place.reason = QStringLiteral("not a ratio above 0");
        return place;
    }
    BigInt up = numerator;
    BigInt down = denominator;
    long long twos = divideOut(up, 2) - divideOut(down, 2);
    int exponents[ODD] = {};
    int odd = 0;
    for (int p = 0; p < ODD; ++p) {
        exponents[p] = divideOut(up, ODD_PRIMES[p]) - divideOut(down, ODD_PRIMES[p]);
        twos += (long long)exponents[p] * twosInStep(ODD_PRIMES[p]);
        odd += std::abs(exponents[p]);
    }
    if (up != 1 || down != 1) {
        const int prime = smallestLargePrime(up, down);
        place.reason = prime ? QStringLiteral("needs the prime %1, above 31").arg(prime)
                             : QStringLiteral("needs a prime above 31");
        return place;
    }
    if (odd > MAX_STEPS) {
        place.reason =
            QStringLiteral("needs %1 prime steps, a path has at most %2").arg(odd).arg(MAX_STEPS);
        return place;
    }
    return fromExponents(exponents, twos);
}

ScalePlacement::Place ScalePlacement::placeRatio(const Rational& ratio) const
{
    return placeRatio(BigInt(ratio.numerator()), BigInt(ratio.denominator()));
}

ScalePlacement::Place ScalePlacement::placeCents(double cents) const
{
    Place place;
    if (!std::isfinite(cents)) {
        place.reason = QStringLiteral("no pitch");
        return place;
    }
    const double pitchClass = cents - 1200.0 * std::floor(cents / 1200.0);
    for (const auto& steps : centsTable().bySteps) {
        double distance = 0.0;
        const CentsEntry* entry = nearest(steps, pitchClass, distance);
        // A hair of slack: a tolerance of 0 still takes an exact value.
        if (!entry || distance > mTolerance + 1e-9) {
            continue;
        }
        int exponents[ODD] = {};
        double own = 0.0;
        for (int p = 0; p < ODD; ++p) {
            exponents[p] = entry->exponents[p];
            own += exponents[p] * stepCents(ODD_PRIMES[p]);
        }
        return fromExponents(exponents, std::llround((cents - own) / 1200.0));
    }
    place.reason = QStringLiteral("no lattice ratio within %1 %2")
                       .arg(mTolerance)
                       .arg(mTolerance == 1.0 ? QStringLiteral("cent") : QStringLiteral("cents"));
    return place;
}

ScalePlacement::Place ScalePlacement::place(const ScalaScale::Pitch& pitch) const
{
    return pitch.isRatio ? placeRatio(pitch.numerator, pitch.denominator) : placeCents(pitch.cents);
}

QVector<ScalePlacement::Place> ScalePlacement::placeScale(const ScalaScale& scale) const
{
    QVector<Place> places;
    places.reserve(scale.pitches.size());
    for (const ScalaScale::Pitch& pitch : scale.pitches) {
        places.append(place(pitch));
    }
    return places;
}

ScalePlacement::Rational ScalePlacement::pitchClass(Rational ratio)
{
    while (ratio >= Rational(2)) {
        ratio /= 2;
    }
    while (ratio < Rational(1)) {
        ratio *= 2;
    }
    return ratio;
}
