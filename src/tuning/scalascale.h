#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <boost/multiprecision/cpp_int.hpp>

// A scale in the Scala .scl format: a description, and N pitches above the
// implicit 1/1, the last of which is the period (usually 2/1).
//
// Reading follows the published rules: the first line that is no comment is
// the description (it may be empty), the second the number of pitches, then
// one pitch per line, the value being the first word: with a "." it is cents
// ("701.955", "67.", "-30.5"), with one "/" a ratio ("3/2"), otherwise a whole
// number ("2" is 2/1). Whatever follows the value is a label. Lines after the
// last pitch are ignored. Pitches may be unsorted, repeated or at or below the
// 1/1. Ratios stay exact: their terms are arbitrary-precision integers, so
// the archive's 25-digit ratios load; terms of more than MAX_TERM_DIGITS
// digits are refused. A cents line stays cents: it is never turned into a
// ratio here (ScalePlacement matches it to the lattice).
//
// A file that breaks a rule gives one error, "FILE:LINE: what was expected",
// and no scale at all.
//
// A plain value; any thread, one thread per object.
class ScalaScale
{
public:
    using BigInt = boost::multiprecision::cpp_int;

    static constexpr int MAX_TERM_DIGITS = 100;
    static constexpr int MAX_PITCHES = 100000;
    // Cents beyond this many octaves either way mean no audible pitch.
    static constexpr double MAX_CENTS = 100000.0;

    struct Pitch
    {
        // The line as the file has it, without the spaces around it.
        QString text;
        int line = 0;
        bool isRatio = false;
        // A ratio line's value in lowest terms; 1/1 for a cents line.
        BigInt numerator = 1;
        BigInt denominator = 1;
        // A cents line's value as written; a ratio line's value in cents.
        double cents = 0.0;
        // Written as a "!" line before the pitch by toBytes(); not read.
        QString comment;

        QString valueText() const;
    };

    // Parses the bytes of a .scl file; `fileName` only names it in errors.
    // On failure `scale` is left as it was and `error` says why.
    static bool parse(const QByteArray& bytes, const QString& fileName, ScalaScale& scale,
                      QString& error);
    // Reads and parses the file at `path` (errors name it as given).
    static bool load(const QString& path, ScalaScale& scale, QString& error);

    // A pitch of the ratio `numerator`/`denominator` (both above 0), reduced.
    static Pitch ratioPitch(const BigInt& numerator, const BigInt& denominator);
    // 1200 · log2(numerator / denominator), in long double precision.
    static long double ratioCents(const BigInt& numerator, const BigInt& denominator);

    // The file's text: a comment line naming `fileName`, the header comments,
    // the description, the count and the pitches (ratios as "n/d", cents
    // with six decimals), each after its comment.
    QByteArray toBytes(const QString& fileName) const;

    // The file as named to parse() and the line of its count, for errors
    // found later (KeyTuning).
    QString fileName;
    int countLine = 0;
    QString description;
    // Comment lines written after the file name line, without their "!".
    QStringList headerComments;
    // The pitches in the file's order; the last one is the period.
    QVector<Pitch> pitches;
};
