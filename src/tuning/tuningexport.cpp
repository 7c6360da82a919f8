#include "tuning/tuningexport.h"

#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboratio.h"
#include "settings/settings.h"
#include "tuning/scaleplacement.h"

#include <QRegularExpression>
#include <QSaveFile>

#include <cmath>
#include <map>

namespace {

using Rational = TuningExport::Rational;

// Whether `path` names its pitch class better than `other`: fewer steps,
// then the first in text order.
bool namesBetter(const ArboPath& path, const ArboPath& other)
{
    return path.length() != other.length() ? path.length() < other.length()
                                           : path.toString() < other.toString();
}

// The three bytes of the tuning standards for `frequency`: the key at or
// below it, and the 14-bit fraction of the semitone above that key. Below
// key 0 the lowest word, above the top the highest (7F 7F 7F means "no
// change" and is never written for a pitch).
void mtsWord(double frequency, char* word)
{
    const double cents = 1200.0 * std::log2(frequency / TuningExport::KEY_0_FREQUENCY);
    long key = 0;
    long fraction = 0;
    if (cents > 0.0) {
        key = long(std::floor(cents / 100.0));
        fraction = std::lround((cents - 100.0 * double(key)) * 16384.0 / 100.0);
        if (fraction == 16384) {
            ++key;
            fraction = 0;
        }
    }
    if (key > 127 || (key == 127 && fraction > 16382)) {
        key = 127;
        fraction = 16382;
    }
    word[0] = char(key);
    word[1] = char(fraction >> 7);
    word[2] = char(fraction & 0x7f);
}

QString number(double value, int decimals)
{
    return QString::number(value, 'f', decimals);
}

} // namespace

bool TuningExport::formatFromName(const QString& name, Format& format)
{
    static const QStringList NAMES{"scl", "kbm", "tun", "syx"};
    const int index = NAMES.indexOf(name);
    if (index < 0) {
        return false;
    }
    format = Format(index);
    return true;
}

double TuningExport::Reference::oneOneFrequency() const
{
    return baseFrequency * double(transposition.numerator()) / double(transposition.denominator());
}

int TuningExport::keyOfNoteName(const QString& name)
{
    static const QRegularExpression NOTE(QStringLiteral("^([A-G])([#b]?) (-?[0-9]{1,2})$"));
    const QRegularExpressionMatch match = NOTE.match(name);
    if (!match.hasMatch()) {
        return -1;
    }
    // Semitones above C of the letters A to G.
    static const int LETTERS[7] = {9, 11, 0, 2, 4, 5, 7};
    const QString accidental = match.captured(2);
    const int key = 12 * (match.captured(3).toInt() + 1) +
                    LETTERS[match.captured(1)[0].unicode() - 'A'] +
                    (accidental == QLatin1String("#")   ? 1
                     : accidental == QLatin1String("b") ? -1
                                                        : 0);
    return key >= 0 && key < KEYS ? key : -1;
}

bool TuningExport::referenceOf(const Settings& options, const Arbo& lattice, Reference& reference,
                               QString& error)
{
    Reference result;
    result.baseFrequency = double(options.mBaseFrequency);
    result.oneOneNote = options.mBaseNote;
    result.oneOneKey = keyOfNoteName(options.mBaseNote);
    result.transposition = lattice.transposition().ratio();
    if (result.oneOneKey < 0) {
        error = QStringLiteral("%1: expected a 1/1 Note such as \"A 4\" (baseNote), found \"%2\"")
                    .arg(options.path().isEmpty() ? Settings::FILE_NAME : options.path(),
                         options.mBaseNote);
        return false;
    }
    reference = result;
    return true;
}

QList<ArboPath> TuningExport::nodePaths(const Arbo& lattice, bool enabledOnly)
{
    QList<ArboPath> paths;
    QList<const ArboBall*> todo{lattice.root()};
    while (!todo.isEmpty()) {
        const ArboBall* node = todo.takeFirst();
        if (!enabledOnly || node->isEnabled()) {
            paths.append(node->path());
        }
        for (const ArboBall* child : node->children()) {
            todo.append(child);
        }
    }
    return paths;
}

TuningExport::TuningExport(const QList<ArboPath>& paths, const Reference& reference)
    : mReference(reference)
{
    // The root is always degree 0: the .scl's 1/1 is implicit.
    std::map<Rational, ArboPath> classes{{Rational(1), ArboPath()}};
    for (const ArboPath& path : paths) {
        const Rational ratio = ArboRatio::pathRatio(path).ratio();
        if (!path.isValid() || ratio.numerator() == 0) {
            continue;
        }
        const auto inserted = classes.emplace(ScalePlacement::pitchClass(ratio), path);
        if (!inserted.second && namesBetter(path, inserted.first->second)) {
            inserted.first->second = path;
        }
    }
    const int size = int(classes.size());
    mScale.description =
        QStringLiteral("Merrow Tuning Arbo lattice, %1 pitch classes, 1/1 on key %2 (%3) at %4 Hz")
            .arg(size)
            .arg(reference.oneOneKey)
            .arg(reference.oneOneNote, number(reference.oneOneFrequency(), 6));
    mScale.headerComments
        << QStringLiteral("Exact ratios of the lattice's pitch classes. Degree 0, the 1/1, is the")
        << QStringLiteral(
               "path /; each degree below names the shortest lattice path that sounds it.");
    for (const auto& entry : classes) {
        mDegreePaths.append(entry.second);
        if (entry.first == Rational(1)) {
            continue;
        }
        ScalaScale::Pitch pitch =
            ScalaScale::ratioPitch(entry.first.numerator(), entry.first.denominator());
        pitch.comment = QStringLiteral("degree %1: %2")
                            .arg(mDegreePaths.size() - 1)
                            .arg(entry.second.toString());
        mScale.pitches.append(pitch);
    }
    ScalaScale::Pitch period = ScalaScale::ratioPitch(2, 1);
    period.comment = QStringLiteral("the period: the octave");
    mScale.pitches.append(period);
    mMapping = KeyboardMapping::linear(reference.oneOneKey, reference.oneOneFrequency(), size);
    QString error;
    KeyTuning::make(mScale, mMapping, mTuning, error); // cannot fail: 1/1 is mapped
}

QByteArray TuningExport::toBytes(Format format, const QString& fileName) const
{
    switch (format) {
    case Format::Scala:
        return mScale.toBytes(fileName);
    case Format::KeyboardMapping:
        return mMapping.toBytes(fileName);
    case Format::AnaMark:
        return anaMark(fileName);
    case Format::MidiTuningDump:
        return tuningDump(fileName);
    }
    return QByteArray();
}

QByteArray TuningExport::anaMark(const QString& fileName) const
{
    // Two sections, as the format's author recommends for reach: [Tuning]
    // (whole cents, the oldest readers) and [Exact Tuning] (the exact
    // frequencies), both relative to MIDI key 0; readers use the latter.
    double cents[KEYS];
    for (int key = 0; key < KEYS; ++key) {
        cents[key] = 1200.0 * std::log2(frequencyOfKey(key) / KEY_0_FREQUENCY);
    }
    QString text =
        QStringLiteral("; AnaMark tuning file %1\n; %2\n; Written by Merrow Tuning Arbo %3\n")
            .arg(fileName, mScale.description, QStringLiteral(ARBO_VERSION));
    text += QStringLiteral("\n[Tuning]\n");
    for (int key = 0; key < KEYS; ++key) {
        text += QStringLiteral("note %1 = %2\n")
                    .arg(key)
                    .arg(std::llround(std::floor(cents[key] + 0.5)));
    }
    text += QStringLiteral("\n[Exact Tuning]\nBaseFreq = 8.1757989156437073336\n");
    for (int key = 0; key < KEYS; ++key) {
        text += QStringLiteral("note %1 = %2\n").arg(key).arg(number(cents[key], 10));
    }
    return text.toUtf8();
}

QByteArray TuningExport::tuningDump(const QString& fileName) const
{
    QByteArray dump;
    dump.reserve(DUMP_BYTES);
    // Non-real-time, all devices, MIDI tuning, bulk dump reply, program 0.
    dump.append("\xF0\x7E\x7F\x08\x01\x00", 6);
    // The name: 16 printable ASCII characters, padded with spaces.
    QByteArray name = fileName.toLatin1().left(16);
    for (char& c : name) {
        c = (c >= 0x20 && c < 0x7f) ? c : '_';
    }
    dump.append(name.leftJustified(16, ' '));
    for (int key = 0; key < KEYS; ++key) {
        char word[3];
        mtsWord(frequencyOfKey(key), word);
        dump.append(word, 3);
    }
    // XOR of everything after F0, masked to seven bits: the reading most
    // receivers take (many ignore the checksum of this message altogether).
    char checksum = 0;
    for (int i = 1; i < dump.size(); ++i) {
        checksum = char(checksum ^ dump.at(i));
    }
    dump.append(char(checksum & 0x7f));
    dump.append('\xF7');
    return dump;
}

bool TuningExport::writeFile(const QString& path, const QByteArray& bytes, QString& error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}
