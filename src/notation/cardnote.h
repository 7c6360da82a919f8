#pragma once

#include "notation/hejispelling.h"
#include "notation/note.h"

class ArboBall;
class Settings;

// The note that a card shows for a node of the lattice, worked out without any
// widget so that the card only has to draw it.
//
// Both functions read the node's lattice (its base frequency, transposition
// and transposition steps) and the options they are given, so they belong to
// the GUI thread. The node must belong to a lattice (ArboBall::lattice()).
class CardNote
{
public:
    // The frequency the node sounds at: the lattice's base frequency times the
    // transposition ratio times the node's ratio, the product taken as one
    // exact fraction and converted the way the sound engine converts it, so
    // that the card shows the frequency that is actually played.
    static float justFrequency(const ArboBall* node);

    // Spells the node as a musician reads it: the base note (named as the
    // user named it), moved by the interval of each transposition step and
    // then of each step of the node's path, keeps the spelling those intervals
    // give; the cents say how far `justFrequency` lies from that spelled
    // pitch in equal temperament. Beyond half a semitone, or past a double
    // sharp or flat, the note is spelled enharmonically (Note::isEnharmonic).
    static Note noteForBall(const ArboBall* node, const Settings& options, float justFrequency);

    // The node's sounding ratio (the transposition times the node's own)
    // above the options' 1/1 Note, in Helmholtz-Ellis notation. Not valid
    // when that ratio cannot be formed exactly.
    static HejiSpelling hejiForBall(const ArboBall* node, const Settings& options);
};
