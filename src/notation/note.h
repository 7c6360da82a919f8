#pragma once

#include <QChar>
#include <QString>

class Settings;

// A pitch named the way a musician reads it on a staff: a letter, an
// accidental, an octave (C4 is middle C) and a deviation in cents from the
// equal-tempered pitch of that spelling.
//
// A note card starts from the lattice's reference note and walks along a
// node's path with addInterval, one prime step after another, so the note
// keeps the spelling that the intervals give (a just major third above C is E,
// never F flat). Once an accidental would pass a double sharp or double flat,
// or the deviation half a semitone, the spelling is taken from the pitch alone
// (the most common spelling of its pitch class) and the note remembers that it
// is enharmonic; from then on intervals follow the frequency.
//
// A plain value type. The pitch reference (calibration frequency, base
// frequency, base note) comes from the options its caller passes, so it
// belongs to the thread that owns those options: the GUI thread. Every step
// writes a debug line (ARBO_DEBUG) for the diagnostics dialog.
class Note
{
public:
    // C0 with no deviation; a placeholder for a note that is stored later.
    Note();
    // Parses `text` in the form letter, octave, accidental ("a4", "B3b",
    // "f5##"), then takes `cents` as the deviation.
    Note(const QString& text, int cents);
    // The most common spelling of `semitone` (C0 = 0, A4 = 57). `cents` only
    // counts in whole hundreds (whole semitones): the division is an integer
    // one, as it always was, and callers that need a fractional deviation
    // build the note from a frequency instead.
    Note(int semitone, int cents);
    // The note of a frequency measured against the calibration frequency
    // (storeFromFreq).
    Note(float frequency, const Settings& options);

    // Zeroes letter, cents, accidental and octave and clears the enharmonic
    // flag.
    void init();

    void storeFromString(const QString& text);
    // Spells the fractional semitone pitch `semitone` by the most common
    // spelling of its pitch class, with the cents brought into (-49.5, 50.5].
    // A non-empty `baseNote` (the option "baseNote", such as "Ab 4") gives
    // its letter and accidental instead of that spelling.
    void storeFromSemitone(float semitone, const QString& baseNote = QString());
    // The note of `frequency` against the options' calibration frequency; the
    // options' base frequency itself is spelled as their base note.
    void storeFromFreq(float frequency, const Settings& options);

    // Semitones above C0, cents included.
    float toSemitonePitch() const;
    // The equal-tempered frequency of the spelled pitch, from A4 = 440 Hz.
    float toFrequency() const;

    // Moves the note by the interval that a lattice step along `prime` stands
    // for (a negative prime goes down). A note that is already enharmonic
    // follows the frequency, spelled against the options' pitch reference.
    void addInterval(int prime, const Settings& options);
    void addCents(float cents);
    void makeEnharmonic() { mEnharmonic = true; }

    // The letter ('C' ... 'B'), or the null character for a letter outside
    // 0..6.
    QChar noteLetter() const;
    // Letter, accidental and octave, for example "Eb4", "F##3" or "C-1".
    QString noteSpelling() const;

    int note() const { return mNote; } // letter as diatonic step: 0 C ... 6 B
    float cents() const { return mCents; }
    int accidental() const { return mAccidental; } // -2 double flat ... +2 double sharp
    int octave() const { return mOctave; }
    bool isEnharmonic() const { return mEnharmonic; }

private:
    QString spellingWithCents() const;

    int mNote = 0;
    float mCents = 0.0f;
    int mAccidental = 0;
    int mOctave = 0;
    // Set once the spelling has been taken from the pitch alone; one-way, so
    // that a walk never returns to interval logic after giving it up.
    bool mEnharmonic = false;
};
