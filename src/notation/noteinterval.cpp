#include "notation/noteinterval.h"

namespace {

// Semitones of the major or perfect interval, indexed by diatonic steps.
// The unison and anything outside 1..7 count as 0.
int majorOrPerfectSemitones(int steps)
{
    static const int SEMITONES[] = {0, 2, 4, 5, 7, 9, 11, 12};
    return steps >= 1 && steps <= 7 ? SEMITONES[steps] : 0;
}

// The conventional interval nearest to each prime's octave-reduced ratio.
// 11/8 (551 cents) and 23/16 (628 cents) both land on the tritone, 29/16
// (1030 cents) on the minor seventh like 7/4.
QString intervalTextOfPrime(long long prime)
{
    switch (prime) {
    case 2:
        return QStringLiteral("p8");
    case 3:
        return QStringLiteral("p5");
    case 5:
        return QStringLiteral("M3");
    case 7:
        return QStringLiteral("m7");
    case 11:
        return QStringLiteral("aug4");
    case 13:
        return QStringLiteral("m6");
    case 17:
        return QStringLiteral("m2");
    case 19:
        return QStringLiteral("m3");
    case 23:
        return QStringLiteral("aug4");
    case 29:
        return QStringLiteral("m7");
    case 31:
        return QStringLiteral("M7");
    default:
        return QString();
    }
}

} // namespace

NoteInterval::NoteInterval(const QString& text)
{
    storeFromString(text);
}

NoteInterval::NoteInterval(int prime)
{
    storeFromPrime(prime);
}

void NoteInterval::init()
{
    mDirection = 1;
    mOctaves = 0;
    mSteps = 0;
    mQuality = 0;
}

bool NoteInterval::isImperfect() const
{
    return mSteps == 1 || mSteps == 2 || mSteps == 5 || mSteps == 6;
}

void NoteInterval::storeFromString(const QString& text)
{
    QString rest = text;
    if (rest.startsWith(QLatin1Char('-'))) {
        mDirection = -1;
        rest.remove(0, 1);
    } else {
        mDirection = 1;
    }

    // Only the last character is the number, so intervals stop at a ninth.
    // Text without a number (the empty text included) gives steps -1.
    int number = 0;
    if (!rest.isEmpty()) {
        const ushort last = rest.back().unicode();
        if (last >= '0' && last <= '9') {
            number = last - '0';
        }
    }
    mSteps = number - 1;
    rest.chop(1);

    // The word is not checked against the kind of interval ("p3" reads as a
    // major third); an unknown word keeps the quality that was there.
    if (rest == QLatin1String("dim")) {
        mQuality = isImperfect() ? -2 : -1;
    } else if (rest == QLatin1String("m")) {
        mQuality = -1;
    } else if (rest == QLatin1String("M") || rest == QLatin1String("p")) {
        mQuality = 0;
    } else if (rest == QLatin1String("aug")) {
        mQuality = 1;
    }
}

void NoteInterval::storeFromPrime(int prime)
{
    const long long magnitude = prime < 0 ? -static_cast<long long>(prime) : prime;
    QString text = intervalTextOfPrime(magnitude);
    if (prime < 0) {
        text.prepend(QLatin1Char('-'));
    }
    // A number outside the table (1, 0, a composite, anything above 31) gives
    // the empty text, which parses as steps -1 with no semitones: a note moved
    // by it goes one letter down and its accidental makes up for it, so the
    // pitch is kept and only the spelling changes. Lattice paths never hold
    // such steps; the behaviour is kept as it is rather than turned into an
    // error, so that a bad step can never stop a card from being spelled.
    storeFromString(text);
}

QString NoteInterval::toString() const
{
    QString text;
    if (mDirection < 0) {
        text += QLatin1Char('-');
    }
    const bool knownSteps = mSteps >= 0 && mSteps <= 7;
    switch (mQuality) {
    case -2:
        text += QLatin1String("dim");
        break;
    case -1:
        if (knownSteps) {
            text += isImperfect() ? QLatin1String("m") : QLatin1String("dim");
        }
        break;
    case 0:
        if (knownSteps) {
            text += isImperfect() ? QLatin1String("M") : QLatin1String("p");
        }
        break;
    case 1:
        text += QLatin1String("aug");
        break;
    default:
        break;
    }
    text += QString::number(mSteps + 1);
    return text;
}

int NoteInterval::toSemitoneDistance() const
{
    return (majorOrPerfectSemitones(mSteps) + 12 * mOctaves + mQuality) * mDirection;
}
