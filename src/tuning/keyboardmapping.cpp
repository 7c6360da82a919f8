#include "tuning/keyboardmapping.h"

#include "tuning/tuningfilelines.h"

#include <cmath>

namespace {

constexpr int HIGHEST_KEY = 127;
constexpr double HIGHEST_FREQUENCY = 1000000.0;

// Reads a whole number from `low` to `high`.
bool readNumber(const QByteArray& word, int low, int high, int& value)
{
    if (word.isEmpty() || word.size() > 9) {
        return false;
    }
    for (const char c : word) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    value = word.toInt();
    return value >= low && value <= high;
}

QString found(const QByteArray& word)
{
    return word.isEmpty() ? QStringLiteral(", found an empty line")
                          : QStringLiteral(", found %1").arg(TuningFileLines::quoted(word));
}

// The next line's first word, or the error of a missing `what`.
bool nextWord(TuningFileLines& lines, const QString& what, QByteArray& word, int& number,
              QString& error)
{
    QByteArray line;
    if (!lines.next(line, number)) {
        error = lines.error(lines.endLine(),
                            QStringLiteral("expected %1, found the end of the file").arg(what));
        return false;
    }
    word = TuningFileLines::firstWord(line);
    return true;
}

// Reads the header field of one line into `value`, and its line number.
bool readField(TuningFileLines& lines, const QString& what, int high, int& value, QString& error,
               int* line = nullptr)
{
    QByteArray word;
    int number = 0;
    if (!nextWord(lines, what, word, number, error)) {
        return false;
    }
    if (!readNumber(word, 0, high, value)) {
        error = lines.error(number, QStringLiteral("expected %1 (0 to %2)").arg(what).arg(high) +
                                        found(word));
        return false;
    }
    if (line) {
        *line = number;
    }
    return true;
}

bool readFrequency(TuningFileLines& lines, KeyboardMapping& mapping, QString& error)
{
    const QString what = QStringLiteral("the reference frequency in Hz");
    QByteArray word;
    int number = 0;
    if (!nextWord(lines, what, word, number, error)) {
        return false;
    }
    bool ok = !word.isEmpty() && (word.at(0) == '.' || (word.at(0) >= '0' && word.at(0) <= '9'));
    const double frequency = ok ? word.toDouble(&ok) : 0.0;
    if (!ok || !(frequency > 0.0) || !(frequency <= HIGHEST_FREQUENCY)) {
        error = lines.error(number, QStringLiteral("expected %1 (above 0, at most %2)")
                                            .arg(what)
                                            .arg(HIGHEST_FREQUENCY, 0, 'f', 0) +
                                        found(word));
        return false;
    }
    mapping.referenceFrequency = frequency;
    return true;
}

bool readHeader(TuningFileLines& lines, KeyboardMapping& mapping, QString& error)
{
    using M = KeyboardMapping;
    int line = 0;
    if (!readField(lines, QStringLiteral("the size of the pattern"), M::MAX_SIZE, mapping.size,
                   error) ||
        !readField(lines, QStringLiteral("the first key to retune"), HIGHEST_KEY, mapping.firstKey,
                   error) ||
        !readField(lines, QStringLiteral("the last key to retune"), HIGHEST_KEY, mapping.lastKey,
                   error, &line) ||
        !readField(lines, QStringLiteral("the middle key"), HIGHEST_KEY, mapping.middleKey,
                   error)) {
        return false;
    }
    if (mapping.lastKey < mapping.firstKey) {
        error = lines.error(line, QStringLiteral("expected a last key to retune not below the "
                                                 "first (%1 < %2)")
                                      .arg(mapping.lastKey)
                                      .arg(mapping.firstKey));
        return false;
    }
    if (!readField(lines, QStringLiteral("the reference key"), HIGHEST_KEY, mapping.referenceKey,
                   error, &mapping.referenceLine)) {
        return false;
    }
    return readFrequency(lines, mapping, error) &&
           readField(lines, QStringLiteral("the scale degree of the formal octave"), M::MAX_SIZE,
                     mapping.octaveDegree, error);
}

bool readEntries(TuningFileLines& lines, KeyboardMapping& mapping, QString& error)
{
    mapping.entries.fill(KeyboardMapping::UNMAPPED, mapping.size);
    QByteArray line;
    int number = 0;
    for (int i = 0; i < mapping.size && lines.next(line, number); ++i) {
        const QByteArray word = TuningFileLines::firstWord(line);
        int degree = 0;
        if (word.isEmpty() && lines.restIsBlank()) {
            break; // the entries ended early: the rest are unmapped
        }
        if (word == "x" || word == "X") {
            continue;
        }
        if (!readNumber(word, 0, KeyboardMapping::MAX_SIZE * 1024, degree)) {
            error = lines.error(number, QStringLiteral("expected a scale degree (0 or more) or x "
                                                       "for an unmapped key") +
                                            found(word));
            return false;
        }
        mapping.entries[i] = degree;
    }
    return true;
}

} // namespace

bool KeyboardMapping::parse(const QByteArray& bytes, const QString& fileName,
                            KeyboardMapping& mapping, QString& error)
{
    TuningFileLines lines(bytes, fileName);
    KeyboardMapping result;
    result.fileName = fileName;
    if (!readHeader(lines, result, error)) {
        return false;
    }
    if (!readEntries(lines, result, error)) {
        return false;
    }
    mapping = result;
    return true;
}

bool KeyboardMapping::load(const QString& path, KeyboardMapping& mapping, QString& error)
{
    QByteArray bytes;
    return TuningFileLines::readFile(path, bytes, error) && parse(bytes, path, mapping, error);
}

KeyboardMapping KeyboardMapping::linear(int middleKey, double frequency, int scaleSize)
{
    KeyboardMapping mapping;
    mapping.size = scaleSize;
    mapping.middleKey = middleKey;
    mapping.referenceKey = middleKey;
    mapping.referenceFrequency = frequency;
    mapping.octaveDegree = scaleSize;
    mapping.entries.resize(scaleSize);
    for (int i = 0; i < scaleSize; ++i) {
        mapping.entries[i] = i;
    }
    return mapping;
}

int KeyboardMapping::entryOfKey(int key, int& patterns) const
{
    const int distance = key - middleKey;
    if (size == 0) {
        patterns = 0;
        return distance;
    }
    // Floor division: keys below the middle belong to the patterns below.
    patterns = distance >= 0 ? distance / size : -((-distance + size - 1) / size);
    return entries.value(distance - patterns * size, UNMAPPED);
}

QByteArray KeyboardMapping::toBytes(const QString& name) const
{
    QString text = QStringLiteral("! %1\n!\n").arg(name);
    const auto field = [&text](const char* comment, const QString& value) {
        text += QStringLiteral("! %1\n%2\n").arg(QLatin1String(comment), value);
    };
    field("Size of map. The pattern repeats every so many keys:", QString::number(size));
    field("First MIDI note number to retune:", QString::number(firstKey));
    field("Last MIDI note number to retune:", QString::number(lastKey));
    field("Middle note where the first entry of the mapping is mapped to:",
          QString::number(middleKey));
    field("Reference note for which frequency is given:", QString::number(referenceKey));
    field("Frequency to tune the above note to (floating point e.g. 440.0):",
          QString::number(referenceFrequency, 'f', 10));
    field("Scale degree to consider as formal octave:", QString::number(octaveDegree));
    text += QStringLiteral("! Mapping.\n");
    for (const int entry : entries) {
        text += entry == UNMAPPED ? QStringLiteral("x\n") : QString::number(entry) + '\n';
    }
    return text.toUtf8();
}
