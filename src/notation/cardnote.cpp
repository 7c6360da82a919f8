#include "notation/cardnote.h"

#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboratio.h"
#include "settings/appcontext.h"
#include "settings/debuglog.h"
#include "settings/settings.h"

#include <QDebug>
#include <QList>

namespace {

// The lattice the node belongs to; a node outside any tree (as the tests make
// them) follows the registered one.
const Arbo* latticeOf(const ArboBall* node)
{
    return node->lattice() ? node->lattice() : AppContext::lattice();
}

float baseFrequency(const Arbo* lattice)
{
    return lattice ? lattice->baseFrequency() : AppContext::settings()->mBaseFrequency;
}

} // namespace

float CardNote::justFrequency(const ArboBall* node)
{
    Q_ASSERT(node);
    const Arbo* lattice = latticeOf(node);
    ArboRatio ratio = lattice ? lattice->transposition() : ArboRatio(1, 1);
    const ArboRatio nodeRatio = ArboRatio::pathRatio(node->path());
    if (!ratio.multiplyIfExact(nodeRatio)) {
        // The lattice refuses transpositions that would overflow any node, so
        // this is not reached; should it be, the frequency is still right to
        // single precision.
        ARBO_DEBUG() << "CardNote::justFrequency: inexact ratio for" << node->path().toString();
        return static_cast<float>(ratio.toDouble() * nodeRatio.toDouble() * baseFrequency(lattice));
    }
    // Numerator and denominator each to float, then the quotient times the
    // base frequency, all in single precision: the very value the sound
    // engine sends to the voice, and for the root exactly the base frequency,
    // which is what lets the base note keep the user's spelling.
    return static_cast<float>(ratio.numerator()) / static_cast<float>(ratio.denominator()) *
           baseFrequency(lattice);
}

Note CardNote::noteForBall(const ArboBall* node, float justFrequency)
{
    Q_ASSERT(node);
    const Arbo* lattice = latticeOf(node);
    const float base = baseFrequency(lattice);

    // Equal to the options' base frequency, so the user's spelling of the base
    // note applies ("Ab 4" rather than G#4).
    Note note(base);
    ARBO_DEBUG() << "mBaseFreq: " << base << "justFreq: " << justFrequency;

    // Every interval is walked, the transposition's first: the spelling
    // depends on the way to the note, not only on where it ends.
    QList<int> steps;
    if (lattice) {
        steps = lattice->transposeSteps();
    }
    steps += node->path().toList();
    for (int i = 0; i < steps.size(); ++i) {
        ARBO_DEBUG() << "i, prime = " << i << steps.at(i);
        note.addInterval(steps.at(i));
    }

    const Note just(justFrequency);
    const float cents = (just.toSemitonePitch() - note.toSemitonePitch()) * 100.0f;
    ARBO_DEBUG() << "centsDiff: " << cents;
    note.addCents(cents);
    return note;
}
