#pragma once

#include "model/arboconstants.h"
#include "model/arbopath.h"
#include "tuning/keyboardmapping.h"
#include "tuning/keytuning.h"
#include "tuning/scalascale.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVector>

class Arbo;
class Settings;

// A set of lattice nodes written as tuning files for other instruments:
// Scala .scl and .kbm, AnaMark .tun, and the MIDI Tuning Standard bulk
// tuning dump (.syx). The same key sounds the same frequency in all four.
//
// The scale holds the distinct pitch classes of the nodes' own ratios (the
// root's 1/1 always among them, as degree 0), reduced into the octave and
// sorted, as exact ratios with the 2/1 period last; a comment before each
// names the shortest path that sounds it. The mapping puts the 1/1 on the key
// of the "1/1 Note" and tunes that key to the base frequency times the
// lattice's transposition (the engine sounds a node at base frequency times
// transposition times the node's ratio), and gives each following key the
// next degree, octave after octave. The .tun and .syx files hold the
// frequencies of all 128 keys that this mapping gives.
//
// A plain value; any thread, one thread per object. referenceOf() and
// nodePaths() read a lattice and options, which belong to the GUI thread.
class TuningExport
{
public:
    using Rational = ArboConstants::Rational;

    enum class Format
    {
        Scala,
        KeyboardMapping,
        AnaMark,
        MidiTuningDump
    };
    // "scl", "kbm", "tun" or "syx" (the files' usual suffixes).
    static bool formatFromName(const QString& name, Format& format);

    // Where the lattice's 1/1 sounds.
    struct Reference
    {
        // Hz of the 1/1 before the transposition (the option "baseFrequency").
        double baseFrequency = 440.0;
        // The option "baseNote", and the MIDI key it names.
        QString oneOneNote = QStringLiteral("A 4");
        int oneOneKey = 69;
        Rational transposition{1};

        double oneOneFrequency() const;
    };
    // The MIDI key of a note name as the options write it ("A 4" is 69,
    // "C# 4" and "Db 4" are 61); -1 for a text that names no key 0 to 127.
    static int keyOfNoteName(const QString& name);
    // The reference of `options` and `lattice`. False when the 1/1 Note
    // names no key, with the reason in `error`.
    static bool referenceOf(const Settings& options, const Arbo& lattice, Reference& reference,
                            QString& error);
    // The paths of every node of `lattice`, or of those whose primes are
    // switched on (ArboBall::isEnabled()).
    static QList<ArboPath> nodePaths(const Arbo& lattice, bool enabledOnly);

    // The tuning of `paths` (paths that are no prime steps are left out).
    TuningExport(const QList<ArboPath>& paths, const Reference& reference);

    const ScalaScale& scale() const { return mScale; }
    const KeyboardMapping& mapping() const { return mMapping; }
    // The path named for each degree, degree 0 (the root) first.
    const QVector<ArboPath>& degreePaths() const { return mDegreePaths; }
    // The frequency of `key` (0 to 127) in Hz, as all four files give it.
    double frequencyOfKey(int key) const { return mTuning.frequencyOfKey(key); }

    // The file's bytes; `fileName` is the name the files mention themselves
    // by (the .scl and .kbm name their file, the dump carries a name).
    QByteArray toBytes(Format format, const QString& fileName) const;
    // Writes `bytes` to `path` whole or not at all. False with "FILE: why".
    static bool writeFile(const QString& path, const QByteArray& bytes, QString& error);

    // MIDI key 0 of the tuning standards (440 · 2^(-69/12)).
    static constexpr double KEY_0_FREQUENCY = 8.1757989156437073336;
    static constexpr int KEYS = 128;
    static constexpr int DUMP_BYTES = 408;

private:
    QByteArray anaMark(const QString& fileName) const;
    QByteArray tuningDump(const QString& fileName) const;

    Reference mReference;
    ScalaScale mScale;
    KeyboardMapping mMapping;
    KeyTuning mTuning;
    QVector<ArboPath> mDegreePaths;
};
