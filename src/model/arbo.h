#pragma once

#include "model/arboball.h"
#include "model/arboratio.h"
#include "settings/serializableroot.h"

#include <QColor>
#include <QHash>
#include <QList>
#include <QMap>
#include <QSet>

class ArboEvent;
class PdPlayer;

// The lattice: the tree of nodes rooted at the unison 1/1, the colours of the
// primes, the current transposition and base frequency, and which notes sound.
//
// The lattice makes no sound. The sound engine decides what plays and what
// the transposition is, and reports it through its signals, which reach the
// four slots here queued, on the GUI thread. The lattice follows: it keys
// every node by the ratio it sounds now (transposition times the node's path
// ratio) so that a reported ratio finds its node, and marks the nodes playing
// and enabled.
//
// The lattice is kept in "arbo_v15.json" (the version is part of the name, so
// a file of another version is never read). That file is edited by hand:
// reading it skips, with a log line, whatever does not fit (see
// ArboBall::read()), and nothing in it can make a ratio overflow or divide by
// zero.
//
// GUI thread only; it takes no locks.
class Arbo : public SerializableRoot
{
    Q_OBJECT
public:
    static const QString FILE_NAME;
    // The colour of the root and of every prime without a colour.
    static const QColor WHITE;

    explicit Arbo(QObject* parent = nullptr);
    ~Arbo() override;

    // Loads "arbo_v15.json" from the configuration folder, or creates it from
    // the defaults, and then follows `player` (when not null) through queued
    // connections. False when the file cannot be read or written.
    bool init(PdPlayer* player);
    using SerializableRoot::init;

    // Colours ("colors") and tree ("root"); then the ball map is rebuilt.
    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;
    // The thirteen colours and the default tree: 19 trunk nodes of steps of 2
    // and 3, each with the 18 leaves of the primes 5 to 31, and the links
    // (see ArboDefaults).
    void initWithDefaults() override;

    // +-2, +-3, +-5, ..., +-31.
    static bool isValidPrime(int p);
    // The ratio of one step as a float; -1 (or its reciprocal) for a step that
    // is no prime.
    static float primeRatio(int p);
    // The colour of |p|, or white.
    QColor lookupColor(int p) const;

    // Whether the lattice may be transposed by `step`: the 1/1 must stay
    // between 20 Hz and 20 kHz and every node's ratio must stay exact in 64
    // bits. Refusals for overflow are logged at debug level.
    bool canTransposeTo(const ArboRatio& step) const;
    ArboBall* ballFromRatio(const ArboRatio& ratio) const { return mBallMap.value(ratio, nullptr); }
    // Keys every node by transposition times its path ratio, all nodes not
    // playing, then marks the nodes of the sounding ratios playing again.
    void buildBallMap();
    void buildBallMapFrom(ArboBall* node);
    // Sets `enabled` on every child of `node` (and its subtree) that hangs
    // under +prime or -prime, anywhere below `node`.
    void togglePrimeFrom(ArboBall* node, int prime, bool enabled);
    // Gives `node` one pair of leaves (-p, then +p) for each prime from 5 to
    // 31.
    void addLeaves(ArboBall* node);
    void addLeaf(ArboBall* node, int prime);

    ArboBall* root() const { return mRoot; }
    const ArboRatio& transposition() const { return mTransposition; }
    float baseFrequency() const { return mBaseFrequency; }
    // The signed prime steps whose product is the transposition, without any
    // +p/-p pair. A reference: cheap, read on every redraw.
    const QList<int>& transposeSteps() const { return mTransposeSteps; }
    const QMap<int, QColor>& primeColors() const { return mPrimeColors; }
    const QHash<ArboRatio, ArboBall*>& ballMap() const { return mBallMap; }
    const QSet<ArboRatio>& playingRatios() const { return mPlaying; }

public slots:
    // The sound engine switched the note of `ratio` (transposition included)
    // on or off.
    void onNoteToggled(ArboRatio ratio, bool on);
    // The sound engine transposed: `ratio` is the whole new transposition,
    // `step` the prime step taken, 0 for back to none.
    void onTransposed(ArboRatio ratio, int step);
    void onBaseFrequencyChanged(float frequency);
    // Prime 1 stands for the whole lattice.
    void onPrimeEnabledToggled(int prime, bool enabled);

signals:
    void transposeOrBaseFrequencyChanged();

private slots:
    // The engine's reports, coalesced (onTransposed() and
    // onBaseFrequencyChanged() act at once, for callers that need it).
    void onEngineTransposed(ArboRatio ratio, int step);
    void onEngineBaseFrequencyChanged(float frequency);

private:
    void replaceRoot();
    void recordTransposition(const ArboRatio& ratio, int step);
    // Adds one step of the engine to `steps` (0: back to none), cancelling
    // +p/-p pairs.
    static void addTransposeStep(QList<int>& steps, int step);
    // Takes over what the engine reported since the last call (with one
    // rebuild of the ball map) and emits transposeOrBaseFrequencyChanged();
    // scheduleRefresh() queues it unless it is queued already.
    void scheduleRefresh();
    void refresh();

    ArboBall* mRoot = nullptr;
    ArboRatio mTransposition{1, 1};
    float mBaseFrequency = 440.0f;
    QList<int> mTransposeSteps;
    QMap<int, QColor> mPrimeColors;
    QHash<ArboRatio, ArboBall*> mBallMap;
    // The largest numerator, denominator and value among the ball map's keys,
    // so that canTransposeTo() can usually clear all keys at once.
    unsigned long long mMaxKeyNumerator = 0;
    unsigned long long mMaxKeyDenominator = 0;
    double mMaxKeyValue = 0.0;
    QSet<ArboRatio> mPlaying;
    // The engine's reports waiting for refresh().
    struct Pending
    {
        bool transposed = false;
        ArboRatio transposition;
        QList<int> steps;
        bool baseFrequencyChanged = false;
        float baseFrequency = 0.0f;
    };
    Pending mPending;
    bool mRefreshScheduled = false;
};
