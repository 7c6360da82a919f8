#pragma once

#include <boost/rational.hpp>

// The primes of the lattice and their octave-reduced ratios.
//
// The two ratio tables are indexed by the prime itself (0 to 31), so a signed
// step s of a path looks up its prime at |s| without any search. Every index
// that is not one of the eleven primes holds 0/1 (exact table) or -1.0 (float
// table): a non-positive entry is how the program tells that an index is no
// usable prime.
//
// All tables are compile-time constants: nothing here depends on the order of
// static initialisation, and every thread may read them.
namespace ArboConstants {

using Rational = boost::rational<unsigned long long>;

// The leading 1 is deliberate: index 0 stands for the root, i.e. the whole
// lattice (the prime controls use it to switch everything on or off).
inline constexpr int PRIMES[12] = {1, 2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31};

inline constexpr int PRIME_TABLE_SIZE = 32;

// 2 stays 2/1; every other prime is brought into the octave from 1 to 2.
inline constexpr Rational PRIME_RATIONALS[PRIME_TABLE_SIZE] = {
    Rational(0ULL, 1ULL), Rational(0ULL, 1ULL),   Rational(2ULL, 1ULL), Rational(3ULL, 2ULL),
    Rational(0ULL, 1ULL), Rational(5ULL, 4ULL),   Rational(0ULL, 1ULL), Rational(7ULL, 4ULL),
    Rational(0ULL, 1ULL), Rational(0ULL, 1ULL),   Rational(0ULL, 1ULL), Rational(11ULL, 8ULL),
    Rational(0ULL, 1ULL), Rational(13ULL, 8ULL),  Rational(0ULL, 1ULL), Rational(0ULL, 1ULL),
    Rational(0ULL, 1ULL), Rational(17ULL, 16ULL), Rational(0ULL, 1ULL), Rational(19ULL, 16ULL),
    Rational(0ULL, 1ULL), Rational(0ULL, 1ULL),   Rational(0ULL, 1ULL), Rational(23ULL, 16ULL),
    Rational(0ULL, 1ULL), Rational(0ULL, 1ULL),   Rational(0ULL, 1ULL), Rational(0ULL, 1ULL),
    Rational(0ULL, 1ULL), Rational(29ULL, 16ULL), Rational(0ULL, 1ULL), Rational(31ULL, 16ULL),
};

inline constexpr float PRIME_RATIOS[PRIME_TABLE_SIZE] = {
    -1.0f,  -1.0f,   2.0f,   1.5f,  -1.0f, 1.25f, -1.0f,   1.75f,   -1.0f,   -1.0f,  -1.0f,
    1.375f, -1.0f,   1.625f, -1.0f, -1.0f, -1.0f, 1.0625f, -1.0f,   1.1875f, -1.0f,  -1.0f,
    -1.0f,  1.4375f, -1.0f,  -1.0f, -1.0f, -1.0f, -1.0f,   1.8125f, -1.0f,   1.9375f};

// Whether `step` is a usable signed prime step: nonzero, |step| <= 31 and a
// prime of the table (so +-2, +-3, +-5, ..., +-31). Any int is accepted.
constexpr bool isValidPrime(int step)
{
    // Range first: negating the most negative int would overflow.
    return step != 0 && step > -PRIME_TABLE_SIZE && step < PRIME_TABLE_SIZE &&
           PRIME_RATIOS[step < 0 ? -step : step] > 0.0f;
}

// The exact ratio of one signed step: the table entry for a positive step, its
// reciprocal for a negative one. Returns false, and leaves `ratio` alone, for
// a step that is not a valid prime (whose reciprocal would have a zero
// denominator). Any thread; never throws, never allocates.
bool stepRational(int step, Rational& ratio);

// Cancels every +p/-p pair in `steps`, keeping the remaining steps in their
// order. The walk goes from the front; for each step the list is searched from
// the back for its negation, both are removed and the same position is tested
// again. The lattice keeps its transposition steps this way and a node builds
// its absolute steps the same way.
template <typename List> void cancelOppositeSteps(List& steps)
{
    int i = 0;
    while (i < int(steps.size())) {
        const int wanted = -steps.at(i);
        int j = int(steps.size()) - 1;
        while (j > i && steps.at(j) != wanted) {
            --j;
        }
        if (j > i) {
            steps.removeAt(j); // j lies behind i: remove it first, i stays put
            steps.removeAt(i);
        } else {
            ++i;
        }
    }
}

} // namespace ArboConstants
