#include "notation/cardnote.h"

#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboratio.h"
#include "settings/debuglog.h"
#include "settings/settings.h"

#include <QDebug>
#include <QList>

float CardNote::justFrequency(const ArboBall* node)
{
    Q_ASSERT(node && node->lattice());
    const Arbo* lattice = node->lattice();
    ArboRatio ratio = lattice->transposition();
    const ArboRatio nodeRatio = ArboRatio::pathRatio(node->path());
    if (!ratio.multiplyIfExact(nodeRatio)) {
        // The lattice refuses transpositions that would overflow any node, so
        // this is not reached; should it be, the frequency is still right to
        // single precision.
        ARBO_DEBUG() << "CardNote::justFrequency: inexact ratio for" << node->path().toString();
        return static_cast<float>(ratio.toDouble() * nodeRatio.toDouble() * lattice->baseFrequency());
    }
    // Numerator and denominator each to float, then the quotient times the
    // base frequency, all in single precision: the very value the sound
    // engine sends to the voice, and for the root exactly the base frequency,
    // which is what lets the base note keep the user's spelling.
    return static_cast<float>(ratio.numerator()) / static_cast<float>(ratio.denominator()) *
           lattice->baseFrequency();
}

Note CardNote::noteForBall(const ArboBall* node, const Settings& options, float justFrequency)
{
    Q_ASSERT(node && node->lattice());
    const Arbo* lattice = node->lattice();
    const float base = lattice->baseFrequency();

    // Equal to the options' base frequency, so the user's spelling of the base
    // note applies ("Ab 4" rather than G#4).
    Note note(base, options);
    ARBO_DEBUG() << "mBaseFreq: " << base << "justFreq: " << justFrequency;

    // Every interval is walked, the transposition's first: the spelling
    // depends on the way to the note, not only on where it ends.
    QList<int> steps = lattice->transposeSteps();
    steps += node->path().toList();
    for (int i = 0; i < steps.size(); ++i) {
        ARBO_DEBUG() << "i, prime = " << i << steps.at(i);
        note.addInterval(steps.at(i), options);
    }

    const Note just(justFrequency, options);
    const float cents = (just.toSemitonePitch() - note.toSemitonePitch()) * 100.0f;
    ARBO_DEBUG() << "centsDiff: " << cents;
    note.addCents(cents);
    return note;
}

HejiSpelling CardNote::hejiForBall(const ArboBall* node, const Settings& options)
{
    Q_ASSERT(node && node->lattice());
    ArboRatio ratio = node->lattice()->transposition();
    if (!ratio.multiplyIfExact(ArboRatio::pathRatio(node->path()))) {
        return HejiSpelling();
    }
    return HejiSpelling(ratio.numerator(), ratio.denominator(), options.mBaseNote);
}
