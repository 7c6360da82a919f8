#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

// A Scala keyboard mapping (.kbm): which MIDI key plays which scale degree,
// and which key sounds which frequency.
//
// The file holds, in lines that are no comments: the size M of the pattern
// (0: a linear mapping, key k plays degree k - middle), the first and last
// keys to retune, the middle key (where the pattern's first entry lies), the
// reference key and its frequency in Hz, the degree that is the formal octave
// (0: the scale's size), then M entries, each a scale degree or "x" for a key
// left unmapped. As Scala allows, entries may end early; the keys whose
// entries are left out are unmapped. An entry line that is empty while more
// entries follow is an error; empty lines after the last entry are not. Lines
// after the M entries are ignored. KeyTuning works out the frequencies.
//
// A file that breaks a rule gives one error, "FILE:LINE: what was expected",
// and no mapping at all.
//
// A plain value; any thread, one thread per object.
class KeyboardMapping
{
public:
    static constexpr int UNMAPPED = -1;
    static constexpr int MAX_SIZE = 65536;

    // Parses the bytes of a .kbm file; `fileName` only names it in errors.
    // On failure `mapping` is left as it was and `error` says why.
    static bool parse(const QByteArray& bytes, const QString& fileName, KeyboardMapping& mapping,
                      QString& error);
    // Reads and parses the file at `path` (errors name it as given).
    static bool load(const QString& path, KeyboardMapping& mapping, QString& error);

    // Every key plays its own degree counted from `middleKey`, which sounds
    // `frequency`: the pattern of `scaleSize` entries 0, 1, ..., whose
    // formal octave is the scale's size.
    static KeyboardMapping linear(int middleKey, double frequency, int scaleSize);

    // The file's text, in the published template's shape with its comments.
    QByteArray toBytes(const QString& fileName) const;

    // The degree the pattern gives to the key `key` (before octaves are
    // added): its entry, or UNMAPPED. For a linear mapping, key - middle.
    int entryOfKey(int key, int& patterns) const;

    int size = 0;
    int firstKey = 0;
    int lastKey = 127;
    int middleKey = 60;
    int referenceKey = 69;
    double referenceFrequency = 440.0;
    int octaveDegree = 0;
    // M entries; UNMAPPED for "x" and for the entries the file left out.
    QVector<int> entries;

    // Where it came from, for errors found later (KeyTuning).
    QString fileName;
    int referenceLine = 0;
};
