#pragma once

#include <QColor>
#include <QMap>

class Arbo;

// The lattice that a first run starts with, before there is a lattice file:
// the colours of the primes, and a tree of 19 trunk nodes (the root among
// them) of steps of 2 and 3, each with the 18 leaves of the primes 5 to 31,
// and octave links between trunk nodes. The shape is the one the instrument
// has always started with, uneven on purpose.
//
// Threads: the thread that owns the lattice being grown (the GUI thread).
// The tables behind it are constants.
class ArboDefaults
{
public:
    // The thirteen colours by prime. Keys 0 and 1 are no primes; the display
    // takes its greys from them.
    static QMap<int, QColor> primeColors();
    // Grows the default tree and its links below the root of `lattice`, a
    // root without children yet; each node takes the lattice's colour of its
    // step.
    static void growTree(Arbo& lattice);
};
