#include "tuning/scalascale.h"

#include "tuning/tuningfilelines.h"

#include <cmath>

namespace {

using BigInt = ScalaScale::BigInt;

const QString PITCH_EXPECTED = QStringLiteral(
    "expected a pitch: cents with a \".\" (701.955), a ratio (3/2) or a whole number (2)");

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Reads an unsigned decimal integer of at most MAX_TERM_DIGITS digits.
// 0: not a number; -1: too many digits; 1: read.
int readTerm(const QByteArray& word, BigInt& value)
{
    if (word.isEmpty()) {
        return 0;
    }
    for (const char c : word) {
        if (!isDigit(c)) {
            return 0;
        }
    }
    if (word.size() > ScalaScale::MAX_TERM_DIGITS) {
        return -1;
    }
    value = 0;
    for (const char c : word) {
        value = value * 10 + (c - '0');
    }
    return 1;
}

// Cents: an optional sign, digits with one "." somewhere, at least one digit.
bool readCents(const QByteArray& word, double& cents)
{
    int start = (word.startsWith('-') || word.startsWith('+')) ? 1 : 0;
    int digits = 0;
    int points = 0;
    for (int i = start; i < word.size(); ++i) {
        if (word.at(i) == '.') {
            ++points;
        } else if (isDigit(word.at(i))) {
            ++digits;
        } else {
            return false;
        }
    }
    if (points != 1 || digits == 0) {
        return false;
    }
    bool ok = false;
    cents = word.toDouble(&ok); // the C locale's "." whatever the user's locale
    return ok && std::isfinite(cents);
}

// The pitch of one pitch line. False with the reason in `what`.
bool readPitch(const QByteArray& line, ScalaScale::Pitch& pitch, QString& what)
{
    const QByteArray word = TuningFileLines::firstWord(line);
    const QString found = word.isEmpty()
                              ? QStringLiteral(", found an empty line")
                              : QStringLiteral(", found %1").arg(TuningFileLines::quoted(word));
    if (word.contains('.')) {
        double cents = 0.0;
        if (!readCents(word, cents)) {
            what = PITCH_EXPECTED + found;
            return false;
        }
        if (std::fabs(cents) > ScalaScale::MAX_CENTS) {
            what = QStringLiteral("expected cents from %1 to %2")
                       .arg(-ScalaScale::MAX_CENTS)
                       .arg(ScalaScale::MAX_CENTS) +
                   found;
            return false;
        }
        pitch.cents = cents;
        return true;
    }
    const int slash = word.indexOf('/');
    BigInt numerator;
    BigInt denominator = 1;
    const int first = readTerm(slash < 0 ? word : word.left(slash), numerator);
    const int second = slash < 0 ? 1 : readTerm(word.mid(slash + 1), denominator);
    if (first < 0 || second < 0) {
        what = QStringLiteral("expected a ratio whose terms have at most %1 digits")
                   .arg(ScalaScale::MAX_TERM_DIGITS);
        return false;
    }
    if (first == 0 || second == 0) {
        const bool negative = word.startsWith('-');
        what = (negative ? QStringLiteral("expected a ratio above 0") : PITCH_EXPECTED) + found;
        return false;
    }
    if (numerator == 0 || denominator == 0) {
        what = QStringLiteral("expected a ratio above 0") + found;
        return false;
    }
    pitch = ScalaScale::ratioPitch(numerator, denominator);
    return true;
}

// The number of pitches on the count line. False with the reason.
bool readCount(const QByteArray& line, int& count, QString& what)
{
    const QByteArray word = TuningFileLines::firstWord(line);
    bool ok = !word.isEmpty();
    for (const char c : word) {
        ok = ok && isDigit(c);
    }
    count = ok && word.size() <= 9 ? word.toInt() : -1;
    if (count < 0 || count > ScalaScale::MAX_PITCHES) {
        what = QStringLiteral("expected the number of pitches, a whole number from 0 to %1, "
                              "found %2")
                   .arg(ScalaScale::MAX_PITCHES)
                   .arg(TuningFileLines::quoted(word));
        return false;
    }
    return true;
}

} // namespace

QString ScalaScale::Pitch::valueText() const
{
    if (!isRatio) {
        return QString::number(cents, 'f', 6);
    }
    return QString::fromStdString(numerator.str()) + QLatin1Char('/') +
           QString::fromStdString(denominator.str());
}

ScalaScale::Pitch ScalaScale::ratioPitch(const BigInt& numerator, const BigInt& denominator)
{
    Pitch pitch;
    const BigInt divisor = boost::multiprecision::gcd(numerator, denominator);
    pitch.isRatio = true;
    pitch.numerator = numerator / divisor;
    pitch.denominator = denominator / divisor;
    pitch.cents = double(ratioCents(pitch.numerator, pitch.denominator));
    return pitch;
}

long double ScalaScale::ratioCents(const BigInt& numerator, const BigInt& denominator)
{
    // log2 of each term from its leading 64 bits and their position, so that
    // terms far beyond a long double's range still give their logarithm.
    const auto log2Of = [](const BigInt& value) {
        const unsigned top = unsigned(boost::multiprecision::msb(value));
        const unsigned shift = top > 63 ? top - 63 : 0;
        const BigInt leading = value >> shift;
        return std::log2(static_cast<long double>(leading.convert_to<unsigned long long>())) +
               static_cast<long double>(shift);
    };
    return 1200.0L * (log2Of(numerator) - log2Of(denominator));
}

bool ScalaScale::parse(const QByteArray& bytes, const QString& fileName, ScalaScale& scale,
                       QString& error)
{
    TuningFileLines lines(bytes, fileName);
    QByteArray line;
    int number = 0;
    if (!lines.next(line, number)) {
        error = lines.error(lines.endLine(), QStringLiteral("expected the description line, "
                                                            "found the end of the file"));
        return false;
    }
    ScalaScale result;
    result.description = TuningFileLines::text(TuningFileLines::trimmed(line));
    QString what;
    int count = 0;
    if (!lines.next(line, number)) {
        error = lines.error(lines.endLine(), QStringLiteral("expected the number of pitches, "
                                                            "found the end of the file"));
        return false;
    }
    if (!readCount(line, count, what)) {
        error = lines.error(number, what);
        return false;
    }
    const int countLine = number;
    result.fileName = fileName;
    result.countLine = countLine;
    while (result.pitches.size() < count && lines.next(line, number)) {
        Pitch pitch;
        if (!readPitch(line, pitch, what)) {
            error = lines.error(number, what);
            return false;
        }
        pitch.text = TuningFileLines::text(TuningFileLines::trimmed(line));
        pitch.line = number;
        result.pitches.append(pitch);
    }
    if (result.pitches.size() < count) {
        error = lines.error(countLine, QStringLiteral("the count says %1 pitches, the file has %2")
                                           .arg(count)
                                           .arg(result.pitches.size()));
        return false;
    }
    scale = result;
    return true;
}

bool ScalaScale::load(const QString& path, ScalaScale& scale, QString& error)
{
    QByteArray bytes;
    return TuningFileLines::readFile(path, bytes, error) && parse(bytes, path, scale, error);
}

QByteArray ScalaScale::toBytes(const QString& fileName) const
{
    // The published template's shape: the file's name as the first comment,
    // the count indented by one space, and the pitches too.
    QString text = QStringLiteral("! %1\n").arg(fileName);
    for (const QString& comment : headerComments) {
        text += QStringLiteral("! %1\n").arg(comment);
    }
    // A description that starts with "!" would read as a comment.
    const QString shown =
        description.startsWith(QLatin1Char('!')) ? QLatin1Char(' ') + description : description;
    text += QStringLiteral("!\n%1\n %2\n!\n").arg(shown).arg(pitches.size());
    for (const Pitch& pitch : pitches) {
        if (!pitch.comment.isEmpty()) {
            text += QStringLiteral("! %1\n").arg(pitch.comment);
        }
        text += QLatin1Char(' ') + pitch.valueText() + QLatin1Char('\n');
    }
    return text.toUtf8();
}
