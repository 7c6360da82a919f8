#pragma once

#include <QString>

// A musical interval in its usual short form ("p5", "M3", "-m7", "aug4",
// "dim5") together with its size in equal-tempered semitones.
//
// Its main use is to translate one step of the lattice along a prime into the
// interval by which a note's spelling moves: each prime stands for the nearest
// conventional interval of its octave-reduced ratio (3 -> p5, 5 -> M3,
// 7 -> m7, ...). A plain value type without shared state: any thread may use
// it, and it never allocates beyond its QString results.
class NoteInterval
{
public:
    // Parses `text` (see storeFromString) into a unison going up.
    explicit NoteInterval(const QString& text);
    // The interval that a step along `prime` stands for; a negative prime is
    // the same interval going down.
    explicit NoteInterval(int prime);

    // Up, no octaves, unison, major/perfect quality.
    void init();

    // Reads an optional "-" (down), a quality word ("dim", "m", "M", "p",
    // "aug") and a one-digit interval number (1 unison ... 8 octave).
    void storeFromString(const QString& text);
    void storeFromPrime(int prime);

    // Short form: "-" for a falling interval, the quality word, the number.
    // Octaves are not shown.
    QString toString() const;
    // Signed size in semitones, octaves included.
    int toSemitoneDistance() const;

    int direction() const { return mDirection; }
    int octaves() const { return mOctaves; }
    int steps() const { return mSteps; }
    int quality() const { return mQuality; }

private:
    bool isImperfect() const;

    int mDirection = 1; // +1 up, -1 down
    // Whole octaves added to the interval. Nothing here sets it to anything
    // but 0, yet it is part of the interval's size and is kept so that an
    // interval wider than an octave can be represented without a new type.
    int mOctaves = 0;
    int mSteps = 0;   // interval number minus 1: unison 0, second 1, ..., octave 7
    int mQuality = 0; // -2, -1, 0 or +1 relative to the major or perfect interval
};
