#pragma once

#include <QChar>
#include <QString>
#include <QStringList>
#include <QVector>

#include <array>

// A just pitch written in the extended Helmholtz-Ellis notation (HEJI, Sabat
// and von Schweinitz, 2020 revision), where the written note is the exact
// pitch.
//
// The letter with its sharp or flat is a Pythagorean pitch: the 1/1 Note
// moved by the chain of perfect fifths (3/2) and octaves of the ratio. Every
// prime from 5 to 31 stands for its nearest Pythagorean pitch and one comma,
// and the comma is written as a sign of that prime:
//
//   prime  written as          comma               sign per factor of p
//   5      81/64  (4 fifths)   80/81    (-21.5 c)  a syntonic arrow down, on the accidental
//   7      16/9   (-2 fifths)  63/64    (-27.3 c)  septimal comma down (two in one sign)
//   11     4/3    (-1 fifth)   33/32    (+53.3 c)  undecimal quarter-tone up
//   13     27/16  (3 fifths)   26/27    (-65.3 c)  tridecimal quarter-tone down
//   17     2187/2048 (7 fifths) 2176/2187 (-8.7 c) 17-schisma down
//   19     32/27  (-3 fifths)  513/512  (+3.4 c)   19-schisma up
//   23     729/512 (6 fifths)  736/729  (+16.5 c)  23-comma up
//   29     16/9   (-2 fifths)  261/256  (+33.5 c)  29-comma up
//   31     2/1    (no fifth)   31/32    (-55.0 c)  31-quarter-tone down
//
// (each row for the prime's octave-reduced ratio; a prime in the denominator
// turns its sign round). So 5/4 above A4 is C sharp 5 with one arrow down, and
// 7/4 above C4 is B flat 4 with a septimal comma down.
//
// The signs are those of SMuFL's HEJI range, by name (SmuflGlyphs). The
// arrows are part of the accidental's glyph (up to three); every other
// prime's sign stands to the left of it, higher primes further left. A
// natural is written wherever the note carries no other sign, and with the
// arrows and with the combining signs of 17 to 31, which lean on an
// accidental; the signs of 7, 11 and 13 stand alone before a natural note.
//
// A plain value type with no shared state: any thread may use it.
class HejiSpelling
{
public:
    // The primes the notation knows, from 2 to 31.
    static constexpr std::array<int, 11> PRIMES = {2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31};

    struct Sign
    {
        QString glyph; // SMuFL name
        // Whose colour the sign takes: 3 for a plain Pythagorean accidental,
        // 5 for one with syntonic arrows, otherwise the sign's own prime.
        int prime;
    };

    // A note name of the options' "1/1 Note" (a letter, an optional "#" or
    // "b", an optional space, the octave: "A 4", "Bb 3") or of a command line
    // ("C#5"). Letter as diatonic step (0 C ... 6 B), accidental -1..+1.
    static bool parseNoteName(const QString& text, int& letter, int& accidental, int& octave);

    // Unspelled: isValid() is false.
    HejiSpelling() = default;
    // `numerator`/`denominator` above the note named `reference` (see
    // parseNoteName), which is taken to sound at its equal-tempered pitch.
    HejiSpelling(unsigned long long numerator, unsigned long long denominator,
                 const QString& reference);

    // A positive ratio of the primes 2 to 31 over a readable reference.
    bool isValid() const { return mValid; }
    // Valid, and written with the signs there are: an accidental from double
    // flat to double sharp and at most three syntonic arrows. Anything
    // further (a chain of more than twelve fifths or thirds away) has no
    // sign in the notation.
    bool isWritable() const;

    int letter() const { return mLetter; } // 0 C ... 6 B
    QChar letterText() const;
    int accidental() const { return mAccidental; } // Pythagorean: -2 double flat ... +2
    int octave() const { return mOctave; }         // C4 is middle C
    // "C5": letter and octave, without the accidental.
    QString letterAndOctave() const;
    // Syntonic commas (81/80) by which the note is raised (positive) or
    // lowered (negative).
    int arrows() const { return mArrows; }
    // The exponent of `prime` (2 to 31) in the ratio; 0 for any other number.
    int exponent(int prime) const;

    // The signs as written, left to right: the prime signs from the highest
    // prime down, the accidental (with its arrows) last, next to the note.
    // Empty when the pitch is not writable.
    const QVector<Sign>& signs() const { return mSigns; }
    QStringList glyphNames() const;

    // Equal-tempered semitones from the reference to the written note (its
    // letter, accidental and octave).
    int semitones() const { return mSemitones; }
    // How far the pitch lies from the equal-tempered pitch of the written
    // note, in cents: what a player needs to know to find it on a piano.
    double cents() const { return mCents; }

private:
    void spell(int referenceLetter, int referenceAccidental, int referenceOctave);
    void addSigns();

    bool mValid = false;
    std::array<int, PRIMES.size()> mExponents{};
    int mLetter = 0;
    int mAccidental = 0;
    int mOctave = 0;
    int mArrows = 0;
    int mSemitones = 0;
    double mCents = 0.0;
    QVector<Sign> mSigns;
};
