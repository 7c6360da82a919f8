#include "model/arboconstants.h"

namespace ArboConstants {

static_assert(PRIME_RATIONALS[3] == Rational(3ULL, 2ULL) &&
                  PRIME_RATIONALS[31] == Rational(31ULL, 16ULL),
              "prime table out of order");
static_assert(isValidPrime(2) && isValidPrime(-31) && !isValidPrime(0) && !isValidPrime(1) &&
                  !isValidPrime(4) && !isValidPrime(-33) && !isValidPrime(127),
              "prime test out of step with the tables");

bool stepRational(int step, Rational& ratio)
{
    if (!isValidPrime(step)) {
        return false;
    }
    if (step > 0) {
        ratio = PRIME_RATIONALS[step];
    } else {
        const Rational& prime = PRIME_RATIONALS[-step];
        ratio = Rational(prime.denominator(), prime.numerator());
    }
    return true;
}

} // namespace ArboConstants
