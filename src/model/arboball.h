#pragma once

#include "model/arbopath.h"
#include "model/arboratio.h"
#include "settings/serializablenode.h"

#include <QColor>
#include <QList>
#include <QMap>

class Arbo;

// One node of the lattice tree: the note reached from the root by its path.
//
// A node owns its children (it is their QObject parent), one per signed prime
// step, so deleting a node deletes its subtree. It may carry links: extra
// struts to another node, named by path. Three flags are live state that the
// display and the note cards follow through the signals: playing (the note
// sounds), enabled (its prime is switched on) and marked (a degree of the
// scale imported in the window lies here). None of them is saved.
//
// A node belongs to one lattice, which it takes from its parent (the lattice
// for the root, the parent node for every other node); it asks the lattice
// for colours and for the transposition steps. A node without a lattice is
// white and untransposed.
//
// GUI thread only.
class ArboBall : public SerializableNode
{
    Q_OBJECT
public:
    struct Link
    {
        QColor mColor;
        ArboPath mPath;
    };

    ArboBall(const ArboPath& path, const QColor& color, QObject* parent);

    // Creates the children (and their subtrees) and links described by `json`
    // (keys "children" and "links"). Hand-edited files are expected: a child
    // key that is not a number is step 0, so that child gets this node's path;
    // a child key that is a number but no valid prime step is skipped with its
    // subtree, and so is a link whose path does not parse or is not a text.
    // Each skip is logged.
    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;

    ArboBall* childAtPrime(int step) const { return mChildren.value(step, nullptr); }
    // Stores `child` under `step`. An earlier child under that step is deleted
    // with its subtree. The node becomes the child's parent.
    void addChild(int step, ArboBall* child);
    // A link under `prime` to the node at `path` (text form), coloured as the
    // lattice colours that prime; replaces an earlier link under `prime`.
    void addLink(int prime, const QString& path);

    void setPlaying(bool playing);
    // Inverts playing and always emits.
    void togglePlaying();
    // When the value changes: stores it, passes it to every child (so the
    // whole subtree follows, deepest nodes emitting first), then emits.
    void setEnabled(bool enabled);
    // This node alone; emits when the value changes.
    void setMarked(bool marked);

    // The lattice's transposition steps followed by this node's path steps,
    // with every +p/-p pair cancelled.
    QList<int> absPathSteps() const;
    // Primes that characterise the node's absolute position for the display:
    // 1 for the root position, 32 (one past the largest prime) for a node
    // whose own path goes beyond the 3-limit; otherwise the largest absolute
    // step (lastAbsStep() prefers the steps of 2 and 3 when there are any).
    int lastAbsStep() const;
    int highestAbsStep() const;

    const ArboPath& path() const { return mPath; }
    // The ratio of the node's own path, without transposition (kept from
    // construction, as the path never changes); 0/1 for a path that is not
    // made of prime steps.
    const ArboRatio& ratio() const { return mRatio; }
    // Not set by the node itself; free for the display's use.
    const ArboPath& secondPath() const { return mSecondPath; }
    void setSecondPath(const ArboPath& path) { mSecondPath = path; }
    const QColor& color() const { return mColor; }
    const QMap<int, ArboBall*>& children() const { return mChildren; }
    const QMap<int, Link>& links() const { return mLinks; }
    bool isPlaying() const { return mPlaying; }
    bool isEnabled() const { return mEnabled; }
    bool isMarked() const { return mMarked; }
    // The lattice the node belongs to, or null.
    const Arbo* lattice() const { return mLattice; }

    // Steps at or above this absolute value are primes of 5 and above.
    static constexpr int HIGH_PRIME_STEP = 4;
    // The value of lastAbsStep()/highestAbsStep() beyond the 3-limit.
    static constexpr int BEYOND_THREE_LIMIT = 32;

signals:
    void playingChanged(bool playing);
    void enabledChanged(bool enabled);
    void markedChanged(bool marked);

private:
    enum class AbsStepChoice
    {
        Highest,
        PreferLow
    };
    int absStep(AbsStepChoice choice) const;
    QColor colorForPrime(int prime) const;

    ArboPath mPath;
    ArboRatio mRatio;
    ArboPath mSecondPath;
    QColor mColor;
    QMap<int, ArboBall*> mChildren;
    QMap<int, Link> mLinks;
    bool mPlaying = false;
    bool mEnabled = true;
    bool mMarked = false;
    const Arbo* mLattice = nullptr;
};
