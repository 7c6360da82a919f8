#include "notation/hejispelling.h"

#include "notation/smuflglyphs.h"

#include <cmath>
#include <cstdlib>
#include <iterator>

namespace {

// Semitones above C of each letter (0 C ... 6 B).
const int LETTER_SEMITONES[7] = {0, 2, 4, 5, 7, 9, 11};
const char LETTER_TEXT[7] = {'C', 'D', 'E', 'F', 'G', 'A', 'B'};
// By letter in alphabetical order, a to g: the letter as diatonic step.
const int LETTER_FROM_ALPHABET[7] = {5, 6, 0, 1, 2, 3, 4};

// One prime above 3 as the notation writes it: p = 2^octaves * 3^fifths *
// comma, where 2^octaves * 3^fifths is the Pythagorean pitch nearest the
// prime's own and the comma is what the sign stands for. `raises` says
// whether one factor of p raises the Pythagorean pitch (comma above 1).
struct PrimeSign
{
    int prime;
    int fifths;
    int octaves;
    bool raises;
    // The SMuFL names of one comma down and one up; empty for 5, whose
    // arrows belong to the accidental's glyph.
    const char* lower;
    const char* raise;
    bool combining; // a sign that leans on an accidental
};

// The commas of the 2020 HEJI legend. Each row multiplies out exactly:
// 5 = 3^4/2^4 * 80/81, 7 = 2^6/3^2 * 63/64, 11 = 2^5/3 * 33/32,
// 13 = 3^3/2 * 26/27, 17 = 3^7/2^7 * 2176/2187, 19 = 2^9/3^3 * 513/512,
// 23 = 3^6/2^5 * 736/729, 29 = 2^8/3^2 * 261/256, 31 = 2^5 * 31/32.
const PrimeSign PRIME_SIGNS[] = {
    {5, 4, -4, false, "", "", false},
    {7, -2, 6, false, "accidentalLowerOneSeptimalComma", "accidentalRaiseOneSeptimalComma", false},
    {11, -1, 5, true, "accidentalLowerOneUndecimalQuartertone",
     "accidentalRaiseOneUndecimalQuartertone", false},
    {13, 3, -1, false, "accidentalLowerOneTridecimalQuartertone",
     "accidentalRaiseOneTridecimalQuartertone", false},
    {17, 7, -7, false, "accidentalCombiningLower17Schisma", "accidentalCombiningRaise17Schisma",
     true},
    {19, -3, 9, true, "accidentalCombiningLower19Schisma", "accidentalCombiningRaise19Schisma",
     true},
    // SMuFL kept the name from the days when 23 and 29 shared a sign; the
    // 29-limit comma has a sign of its own since.
    {23, 6, -5, true, "accidentalCombiningLower23Limit29LimitComma",
     "accidentalCombiningRaise23Limit29LimitComma", true},
    {29, -2, 8, true, "accidentalCombiningLower29LimitComma",
     "accidentalCombiningRaise29LimitComma", true},
    {31, 0, 5, false, "accidentalCombiningLower31Schisma", "accidentalCombiningRaise31Schisma",
     true},
};

// Two septimal commas have one sign of their own.
const char* const LOWER_TWO_SEPTIMAL = "accidentalLowerTwoSeptimalCommas";
const char* const RAISE_TWO_SEPTIMAL = "accidentalRaiseTwoSeptimalCommas";

const char* const ACCIDENTAL_WORDS[5] = {"DoubleFlat", "Flat", "Natural", "Sharp", "DoubleSharp"};
const char* const ARROW_WORDS[4] = {"", "OneArrow", "TwoArrows", "ThreeArrows"};
constexpr int MAX_ARROWS = 3;
constexpr int MAX_ACCIDENTAL = 2;

int floorDiv(int a, int b)
{
    return a / b - (a % b != 0 && (a < 0) != (b < 0) ? 1 : 0);
}

int indexOfPrime(int prime)
{
    for (size_t i = 0; i < HejiSpelling::PRIMES.size(); ++i) {
        if (HejiSpelling::PRIMES[i] == prime) {
            return int(i);
        }
    }
    return -1;
}

// Divides every prime of the notation out of `value`, adding `sign` times
// its count to `exponents`; false when anything else is left.
bool factor(unsigned long long value, int sign, std::array<int, 11>& exponents)
{
    if (value == 0) {
        return false;
    }
    for (size_t i = 0; i < HejiSpelling::PRIMES.size(); ++i) {
        const auto prime = static_cast<unsigned long long>(HejiSpelling::PRIMES[i]);
        while (value % prime == 0) {
            value /= prime;
            exponents[i] += sign;
        }
    }
    return value == 1;
}

} // namespace

bool HejiSpelling::parseNoteName(const QString& text, int& letter, int& accidental, int& octave)
{
    const QString name = text.trimmed();
    if (name.isEmpty()) {
        return false;
    }
    const ushort first = name.at(0).toLower().unicode();
    if (first < 'a' || first > 'g') {
        return false;
    }
    int at = 1;
    int sign = 0;
    if (at < name.size() && (name.at(at) == QLatin1Char('#') || name.at(at) == QLatin1Char('b'))) {
        sign = name.at(at) == QLatin1Char('#') ? 1 : -1;
        ++at;
    }
    bool ok = false;
    const int number = name.mid(at).trimmed().toInt(&ok, 10);
    // Far beyond hearing either way, yet every sum below stays an int.
    if (!ok || number < -100 || number > 100) {
        return false;
    }
    letter = LETTER_FROM_ALPHABET[first - 'a'];
    accidental = sign;
    octave = number;
    return true;
}

HejiSpelling::HejiSpelling(unsigned long long numerator, unsigned long long denominator,
                           const QString& reference)
{
    int letter = 0;
    int accidental = 0;
    int octave = 0;
    if (!parseNoteName(reference, letter, accidental, octave) ||
        !factor(numerator, 1, mExponents) || !factor(denominator, -1, mExponents)) {
        mExponents.fill(0);
        return;
    }
    mValid = true;
    spell(letter, accidental, octave);
    mCents = 1200.0 * (std::log2(double(numerator)) - std::log2(double(denominator))) -
             100.0 * mSemitones;
    if (isWritable()) {
        addSigns();
    }
}

void HejiSpelling::spell(int referenceLetter, int referenceAccidental, int referenceOctave)
{
    // The Pythagorean part of the ratio: the powers of 2 and 3 themselves,
    // and those that each prime's written pitch stands on.
    int fifths = exponent(3);
    int octaves = exponent(2);
    for (const PrimeSign& p : PRIME_SIGNS) {
        fifths += p.fifths * exponent(p.prime);
        octaves += p.octaves * exponent(p.prime);
    }
    mArrows = -exponent(5);

    // 3 is a fifth above an octave (4 + 7 letters, 7 + 12 semitones), 2 an
    // octave (7 letters, 12 semitones).
    const int steps = 11 * fifths + 7 * octaves;
    mSemitones = 19 * fifths + 12 * octaves;

    const int index = 7 * referenceOctave + referenceLetter + steps;
    mOctave = floorDiv(index, 7);
    mLetter = index - 7 * mOctave;
    const int referenceSemitone =
        12 * referenceOctave + LETTER_SEMITONES[referenceLetter] + referenceAccidental;
    mAccidental = referenceSemitone + mSemitones - (12 * mOctave + LETTER_SEMITONES[mLetter]);
}

void HejiSpelling::addSigns()
{
    bool standsAlone = false; // a sign of 7, 11 or 13, which needs no natural
    for (int i = int(std::size(PRIME_SIGNS)) - 1; i >= 0; --i) {
        const PrimeSign& p = PRIME_SIGNS[i];
        const int e = exponent(p.prime);
        if (p.prime == 5 || e == 0) {
            continue;
        }
        const bool up = (e > 0) == p.raises;
        int count = std::abs(e);
        if (p.prime == 7) {
            for (; count >= 2; count -= 2) {
                mSigns.append(
                    {QString::fromLatin1(up ? RAISE_TWO_SEPTIMAL : LOWER_TWO_SEPTIMAL), 7});
            }
        }
        for (; count > 0; --count) {
            mSigns.append({QString::fromLatin1(up ? p.raise : p.lower), p.prime});
        }
        standsAlone = standsAlone || !p.combining;
    }
    if (mArrows != 0 || mAccidental != 0 || !standsAlone) {
        QString name = QStringLiteral("accidental") +
                       QLatin1String(ACCIDENTAL_WORDS[mAccidental + MAX_ACCIDENTAL]);
        if (mArrows != 0) {
            name += QLatin1String(ARROW_WORDS[std::abs(mArrows)]) +
                    QLatin1String(mArrows > 0 ? "Up" : "Down");
        }
        mSigns.append({name, mArrows != 0 ? 5 : 3});
    }
    for (const Sign& sign : qAsConst(mSigns)) {
        // Every name made here is in the one table, which the build checks
        // against the font.
        Q_ASSERT(SmuflGlyphs::contains(sign.glyph));
        Q_UNUSED(sign);
    }
}

bool HejiSpelling::isWritable() const
{
    return mValid && std::abs(mAccidental) <= MAX_ACCIDENTAL && std::abs(mArrows) <= MAX_ARROWS;
}

QChar HejiSpelling::letterText() const
{
    return QChar::fromLatin1(LETTER_TEXT[mLetter]);
}

QString HejiSpelling::letterAndOctave() const
{
    return letterText() + QString::number(mOctave);
}

int HejiSpelling::exponent(int prime) const
{
    const int i = indexOfPrime(prime);
    return i < 0 ? 0 : mExponents[size_t(i)];
}

QStringList HejiSpelling::glyphNames() const
{
    QStringList names;
    for (const Sign& sign : mSigns) {
        names << sign.glyph;
    }
    return names;
}
