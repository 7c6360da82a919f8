#include "notation/note.h"

#include "model/arbopath.h"
#include "model/arboratio.h"
#include "notation/noteinterval.h"
#include "settings/debuglog.h"
#include "settings/settings.h"

#include <QDebug>

#include <cmath>

namespace {

// Semitones above C of each letter (mNote 0..6 = C D E F G A B).
const int LETTER_SEMITONES[7] = {0, 2, 4, 5, 7, 9, 11};

// mNote of the letters a..g, in alphabetical order.
const int LETTER_FROM_ALPHABET[7] = {5, 6, 0, 1, 2, 3, 4};

const char LETTER_TEXT[7] = {'C', 'D', 'E', 'F', 'G', 'A', 'B'};

struct Spelling
{
    int note;
    int accidental;
};

// The spelling a musician reaches for first, by pitch class: sharps for
// C#, F# and G#, flats for Eb and Bb.
const Spelling MOST_COMMON_SPELLING[12] = {
    {0, 0},  // C
    {0, 1},  // C#
    {1, 0},  // D
    {2, -1}, // Eb
    {2, 0},  // E
    {3, 0},  // F
    {3, 1},  // F#
    {4, 0},  // G
    {4, 1},  // G#
    {5, 0},  // A
    {6, -1}, // Bb
    {6, 0},  // B
};

// Far beyond any audible pitch (about 83,000 octaves), yet small enough for
// the octave and pitch class to fit an int. Only a nonsense reference (a
// calibration frequency of 0, a frequency of 0) produces more.
const float MAX_SEMITONE = 1.0e6f;

// The just ratio of one lattice step along `prime`, as the path of that one
// step multiplies out. A step that is no prime of the lattice counts as the
// unison, matching the interval that stands for it (no semitones).
float stepRatio(int prime)
{
    if (prime < -31 || prime > 31 || !ArboConstants::isValidPrime(prime)) {
        return 1.0f;
    }
    const ArboRatio ratio = ArboRatio::pathRatio(ArboPath(static_cast<signed char>(prime)));
    return static_cast<float>(ratio.numerator()) / static_cast<float>(ratio.denominator());
}

// `semitone`, moved by a whole semitone when needed to bring its cents into
// the window (-49.5, 50.5]; those cents go to `cents`. The window is not
// (-50, 50]: a pitch exactly half-way keeps the lower spelling (+50 cents),
// and the half cent of slack keeps the single-precision noise of a walk from
// re-spelling a note that sits right on the border.
float centredSemitone(float semitone, float& cents)
{
    float s = semitone;
    cents = (s - std::trunc(s)) * 100.0f;
    if (cents > 50.5f) {
        s += 1.0f;
        cents -= 100.0f;
    } else if (cents <= -49.5f) {
        s -= 1.0f;
        cents += 100.0f;
    }
    return s;
}

// The octave of the semitone pitch `s` (C0 = 0). Truncation toward zero,
// shifted by 11 below zero, is the floor for whole pitches: semitone -1 is B
// of octave -1.
int octaveOf(float s)
{
    return static_cast<int>(s >= 0.0f ? std::trunc(s / 12.0f) : std::trunc((s - 11.0f) / 12.0f));
}

// The pitch class (0 = C ... 11 = B) of the semitone pitch `s`, truncated.
int pitchClassOf(float s)
{
    const int pitchClass = static_cast<int>(std::trunc(s)) % 12;
    return pitchClass < 0 ? pitchClass + 12 : pitchClass;
}

bool isAsciiDigit(QChar c)
{
    return c.unicode() >= '0' && c.unicode() <= '9';
}

QString accidentalText(int accidental)
{
    // Only -2..+2 are spelled on a card; the others occur for a moment inside
    // addInterval and are written out in full in its diagnostics.
    return accidental >= 0 ? QString(accidental, QLatin1Char('#'))
                           : QString(-accidental, QLatin1Char('b'));
}

} // namespace

Note::Note()
{
    init();
}

Note::Note(const QString& text, int cents)
{
    ARBO_DEBUG() << "Note init 1" << text << cents;
    storeFromString(text);
    mCents = static_cast<float>(cents);
}

Note::Note(int semitone, int cents)
{
    ARBO_DEBUG() << "Note init 2" << semitone << cents;
    storeFromSemitone(static_cast<float>(semitone + cents / 100));
}

Note::Note(float frequency, const Settings& options)
{
    ARBO_DEBUG() << "Note init 3" << frequency;
    storeFromFreq(frequency, options);
}

void Note::init()
{
    mNote = 0;
    mCents = 0.0f;
    mAccidental = 0;
    mOctave = 0;
    mEnharmonic = false;
}

void Note::storeFromString(const QString& text)
{
    ARBO_DEBUG() << "storeFromString" << text;
    QString rest = text;

    // The letter comes first, then the octave, then the accidental: "B4b" is
    // B flat 4. "Bb4" therefore reads as a B of octave 0 with the unknown
    // accidental "b4", that is natural.
    if (!rest.isEmpty()) {
        const ushort letter = rest.at(0).toLower().unicode();
        if (letter >= 'a' && letter <= 'g') {
            mNote = LETTER_FROM_ALPHABET[letter - 'a'];
        }
        rest.remove(0, 1);
    }

    int length = 0;
    while (length < rest.size() &&
           (isAsciiDigit(rest.at(length)) || rest.at(length) == QLatin1Char('-'))) {
        ++length;
    }
    bool ok = false;
    const int octave = rest.left(length).toInt(&ok, 10);
    mOctave = ok ? octave : 0;
    rest.remove(0, length);

    if (rest == QLatin1String("bb")) {
        mAccidental = -2;
    } else if (rest == QLatin1String("b")) {
        mAccidental = -1;
    } else if (rest == QLatin1String("#")) {
        mAccidental = 1;
    } else if (rest == QLatin1String("##")) {
        mAccidental = 2;
    } else {
        mAccidental = 0;
    }
}

void Note::storeFromSemitone(float semitone, const QString& baseNote)
{
    ARBO_DEBUG() << "storeFromSemitone ... semitone, mOctave, mNote, mAccidental, mCents"
                 << semitone << mOctave << mNote << mAccidental << mCents;
    if (!std::isfinite(semitone) || std::fabs(semitone) > MAX_SEMITONE) {
        // Keeps the integer conversions below defined; the note stays as it was.
        ARBO_DEBUG() << "storeFromSemitone: no pitch for semitone" << semitone;
        return;
    }

    const float s = centredSemitone(semitone, mCents);
    mOctave = octaveOf(s);
    const Spelling& spelling = MOST_COMMON_SPELLING[pitchClassOf(s)];
    mNote = spelling.note;
    mAccidental = spelling.accidental;

    if (!baseNote.isEmpty()) {
        // The lattice's own base note is spelled as the user named it ("Ab 4"
        // stays A flat where the most common spelling says G sharp). Only
        // letter and accidental are taken: the octave stays the one of the
        // pitch, so the name can never move the note by an octave.
        const int index = baseNote.at(0).unicode() - 'A';
        if (index >= 0 && index <= 6) {
            mNote = LETTER_FROM_ALPHABET[index];
        }
        if (baseNote.size() > 1) {
            const QChar sign = baseNote.at(1);
            if (sign == QLatin1Char(' ')) {
                mAccidental = 0;
            } else if (sign == QLatin1Char('b')) {
                mAccidental = -1;
            } else if (sign == QLatin1Char('#')) {
                mAccidental = 1;
            }
        }
        ARBO_DEBUG() << "Note::storeFromSemitone: Most common spelling overridden" << baseNote;
    }
    ARBO_DEBUG()
        << "storeFromSemitone ... after logical check: semitone, mOctave, mNote, mAccidental, "
           "mCents"
        << s << mOctave << mNote << mAccidental << mCents;
}

void Note::storeFromFreq(float frequency, const Settings& options)
{
    ARBO_DEBUG() << "storeFromFreq freq" << frequency;

    // The calibration frequency is the pitch of A4 (semitone 57). Single
    // precision on purpose: the cents of notes near a quarter tone fall on one
    // side of the window or the other by this very rounding, and the cards
    // must agree with what they have always shown.
    const float semitone =
        std::log(frequency / static_cast<float>(options.mCalibrationFrequency)) / 0.6931472f *
            12.0f +
        57.0f;
    ARBO_DEBUG() << "storeFromFreq semitone" << semitone;
    // Exact comparison on purpose. The lattice hands the card the very float
    // that the options hold, so equality picks out the lattice's own base
    // note and nothing else; a tolerance would also rename lattice notes a
    // schisma (2 cents) away as the base note.
    storeFromSemitone(semitone,
                      frequency == options.mBaseFrequency ? options.mBaseNote : QString());
}

float Note::toSemitonePitch() const
{
    ARBO_DEBUG() << "@Note::toSemitonePitch()";
    const int letterSemitone = mNote >= 0 && mNote <= 6 ? LETTER_SEMITONES[mNote] : 0;
    const float semitone = letterSemitone + 12 * mOctave + mAccidental + mCents / 100.0f;
    ARBO_DEBUG() << "mOctave, mNote, semitone, mAccidental, mCents: " << mOctave << mNote
                 << letterSemitone << mAccidental << mCents;
    ARBO_DEBUG() << "Return value " << semitone;
    return semitone;
}

float Note::toFrequency() const
{
    // Fixed at A4 = 440 Hz, not the calibration frequency that storeFromFreq
    // measures against. The asymmetry is deliberate and kept: this is the
    // frequency of the spelled pitch at concert pitch, the way the note reads
    // on paper. Its one user inside the notation is an interval added to an
    // enharmonic note, which goes out through here and back through
    // storeFromFreq; under a calibration other than 440 such a step also
    // carries the calibration's offset (-7.85 cents at 442 Hz). A card does
    // not show that offset: its cents are measured last, from the just
    // frequency itself, so only the choice of spelling near a border can
    // differ, never the pitch the card names.
    const float pitch = toSemitonePitch();
    const float f0 = 440.0f;
    const float a = 1.0594631f;
    const float n = pitch - 57.0f;
    ARBO_DEBUG() << "@Note::toFrequency: f0, a, n" << f0 << a << n;
    return f0 * std::pow(a, n);
}

void Note::addInterval(int prime, const Settings& options)
{
    ARBO_DEBUG() << "Note::addInterval called" << prime;
    const NoteInterval interval(prime);
    const QString before = spellingWithCents();

    if (mEnharmonic) {
        // Interval logic has been given up: follow the pitch.
        ARBO_DEBUG() << "Note is already in enharmonic presentation.";
        const float frequency = toFrequency();
        storeFromFreq(frequency * stepRatio(prime), options);
    } else {
        const int direction = interval.direction();
        const float oldSemitonePitch = std::round(toSemitonePitch());

        mNote += direction * interval.steps();
        ARBO_DEBUG() << "interval, direction, mOctave, mNote = " << interval.toString() << direction
                     << mOctave << mNote;

        // The octave of the new letter, computed as it always has been: the
        // letter (now -7..13) spills over into the octave by truncation toward
        // zero, with the letter shifted by -6 when the note lies below octave 0
        // (judged by the octave, or by the letter itself in octave 0) so that
        // truncation rounds downward there too. For every letter one step can
        // reach this is floor((7 * octave + letter) / 7); it is kept in exactly
        // this form, single precision included, so that no spelling changes.
        const bool negative = mOctave != 0 ? mOctave < 0 : mNote < 0;
        const int shiftedNote = negative ? mNote - 6 : mNote;
        mOctave = static_cast<int>(std::trunc(
            static_cast<float>(mOctave + direction * interval.octaves()) + shiftedNote / 7.0f));
        mNote %= 7;
        if (mNote < 0) {
            mNote += 7;
        }

        // The letter has moved by the interval's number; the accidental makes
        // up the difference to the interval's size in semitones.
        const float newSemitonePitch = std::round(toSemitonePitch());
        ARBO_DEBUG() << "Adjusting accidentals: Before: oldSemitonePitch, toSemitonePitch, "
                        "toSemitoneDistance, mAccidental"
                     << oldSemitonePitch << newSemitonePitch << interval.toSemitoneDistance()
                     << mAccidental;
        const int diff = static_cast<int>(newSemitonePitch - oldSemitonePitch);
        mAccidental += interval.toSemitoneDistance() - diff;
        ARBO_DEBUG() << "Adjusting accidentals: Then: diff, toSemitoneDistance, mAccidental" << diff
                     << interval.toSemitoneDistance() << mAccidental;

        if (mAccidental < -2 || mAccidental > 2) {
            // No triple sharps on a card: spell the pitch by its most common
            // name and stay enharmonic for the rest of the walk.
            ARBO_DEBUG() << "Accidental outside of borders" << mAccidental;
            storeFromSemitone(toSemitonePitch());
            mEnharmonic = true;
            ARBO_DEBUG() << "Accidental: Note displayed as enharmonic";
        }
    }

    ARBO_DEBUG() << "addInterval: " << before << "added prime" << prime << "(interval"
                 << interval.toString() << ")"
                 << "to become" << spellingWithCents();
}

void Note::addCents(float cents)
{
    const QString before = spellingWithCents();
    mCents += cents;
    if (mCents <= -49.5f || mCents > 50.5f) {
        // More than half a semitone off the spelled pitch: the spelling no
        // longer names the note, so take the most common name of the pitch.
        ARBO_DEBUG() << "Note:addCents - breaking out of rule system @ mCents" << mCents;
        storeFromSemitone(toSemitonePitch());
        mEnharmonic = true;
        ARBO_DEBUG() << ">50 ct -> Note displayed as enharmonic";
    }
    ARBO_DEBUG() << "addCents:" << before << "added cents" << cents << "to become"
                 << spellingWithCents();
}

QChar Note::noteLetter() const
{
    return mNote >= 0 && mNote <= 6 ? QChar::fromLatin1(LETTER_TEXT[mNote]) : QChar();
}

QString Note::noteSpelling() const
{
    QString text;
    const QChar letter = noteLetter();
    if (!letter.isNull()) {
        text += letter;
    }
    text += accidentalText(mAccidental);
    text += QString::number(mOctave);
    return text;
}

QString Note::spellingWithCents() const
{
    return noteSpelling() + QLatin1Char(' ') + QString::number(mCents, 'f', 2);
}
