#include "model/arbo.h"

#include "model/arboconstants.h"
#include "model/arbodefaults.h"
#include "settings/settings.h"
#include "settings/throttledwarning.h"
#include "sound/pdplayer.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>

#include <cmath>
#include <cstdlib>
#include <utility>

const QString Arbo::FILE_NAME = QStringLiteral("arbo_v15.json");
const QColor Arbo::WHITE = QColor(255, 255, 255, 255);

namespace {

const QString COLORS = QStringLiteral("colors");
const QString PRIME = QStringLiteral("prime");
const QString COLOR = QStringLiteral("color");
const QString ROOT = QStringLiteral("root");

const int LEAF_PRIMES[] = {5, 7, 11, 13, 17, 19, 23, 29, 31};

} // namespace

Arbo::Arbo(QObject* parent) : SerializableRoot(parent)
{
    replaceRoot();
}

Arbo::~Arbo() = default;

bool Arbo::init(PdPlayer* player)
{
    if (!SerializableRoot::init(FILE_NAME)) {
        return false;
    }
    if (player) {
        // The player emits on the audio thread; queued, the slots run here.
        connect(player, &PdPlayer::noteToggled, this, &Arbo::onNoteToggled, Qt::QueuedConnection);
        // These two coalesce: see onEngineTransposed().
        connect(player, &PdPlayer::transposed, this, &Arbo::onEngineTransposed,
                Qt::QueuedConnection);
        connect(player, &PdPlayer::baseFrequencyChanged, this,
                &Arbo::onEngineBaseFrequencyChanged, Qt::QueuedConnection);
        connect(player, &PdPlayer::primeEnabledToggled, this, &Arbo::onPrimeEnabledToggled,
                Qt::QueuedConnection);
    }
    return true;
}

void Arbo::replaceRoot()
{
    // The ball map points into the old tree: empty it before the tree goes.
    mBallMap.clear();
    mMaxKeyNumerator = 0;
    mMaxKeyDenominator = 0;
    mMaxKeyValue = 0.0;
    delete mRoot;
    mRoot = new ArboBall(ArboPath(), WHITE, this);
}

void Arbo::read(const QJsonObject& json)
{
    const QJsonValue colors = json.value(COLORS);
    if (colors.isArray()) {
        const QJsonArray array = colors.toArray();
        for (const QJsonValue& entry : array) {
            const QJsonValue prime = entry.toObject().value(PRIME);
            const QColor color(entry.toObject().value(COLOR).toString());
            // A prime beyond the range of int could not be looked up anyway.
            if (!prime.isDouble() || !(std::fabs(prime.toDouble()) < 2147483647.0) ||
                !color.isValid()) {
                qWarning() << "Lattice file: skipped the colour entry" << entry;
                continue;
            }
            mPrimeColors.insert(int(prime.toDouble()), color);
        }
    } else if (json.contains(COLORS)) {
        qWarning() << "Lattice file: skipped \"colors\" (not an array)";
    }

    replaceRoot();
    const QJsonValue root = json.value(ROOT);
    if (!root.isObject() && json.contains(ROOT)) {
        qWarning() << "Lattice file: skipped \"root\" (not an object)";
    }
    mRoot->read(root.toObject());
    buildBallMap();
}

void Arbo::write(QJsonObject& json) const
{
    QJsonArray colors;
    for (auto it = mPrimeColors.constBegin(); it != mPrimeColors.constEnd(); ++it) {
        colors.append(QJsonObject{{PRIME, it.key()}, {COLOR, it.value().name()}});
    }
    json.insert(COLORS, colors);
    QJsonObject root;
    mRoot->write(root);
    json.insert(ROOT, root);
}

void Arbo::initWithDefaults()
{
    mPrimeColors = ArboDefaults::primeColors();
    qDebug() << "Arbo::initWithDefaults - mPrimeColors:" << mPrimeColors;

    replaceRoot();
    ArboDefaults::growTree(*this);
    buildBallMap();
}

bool Arbo::isValidPrime(int p)
{
    return ArboConstants::isValidPrime(p);
}

float Arbo::primeRatio(int p)
{
    // Range first: std::abs of the most negative int would overflow.
    const bool inTable =
        p > -ArboConstants::PRIME_TABLE_SIZE && p < ArboConstants::PRIME_TABLE_SIZE;
    const float ratio = inTable ? ArboConstants::PRIME_RATIOS[std::abs(p)] : -1.0f;
    return p >= 1 ? ratio : 1.0f / ratio;
}

QColor Arbo::lookupColor(int p) const
{
    return mPrimeColors.value(std::abs(p), WHITE);
}

bool Arbo::canTransposeTo(const ArboRatio& step) const
{
    ArboRatio transposed = mTransposition;
    if (!transposed.multiplyIfExact(step)) {
        return mTransposition.canMultiplyWith(step); // false; logs why
    }
    // Written so that a NaN base frequency refuses too.
    const float frequency = mBaseFrequency * float(transposed.toDouble());
    // Transpositions must keep the 1/1 within the audible range.
    if (!(frequency >= Settings::FREQUENCY_MIN && frequency <= Settings::FREQUENCY_MAX)) {
        return false;
    }
    // This runs for every transpose button after every change. When the
    // largest parts of all keys pass, every key passes, and the loop below
    // would only confirm it.
    if (ArboRatio::surelyExactProduct(mMaxKeyNumerator, mMaxKeyDenominator, mMaxKeyValue, step)) {
        return true;
    }
    for (auto it = mBallMap.constBegin(); it != mBallMap.constEnd(); ++it) {
        if (!it.key().canMultiplyWith(step)) {
            qDebug().noquote() << QStringLiteral("canTransposeTo fail on %1 to %2:\n  ball: %3 at "
                                                 "%4 can't be played")
                                      .arg(mTransposition.toString(), step.toString(),
                                           it.value()->path().toString(), it.key().toString());
            return false;
        }
    }
    return true;
}

void Arbo::buildBallMap()
{
    // Rebuilt on every transposition: keep the table's size so that refilling
    // it does not grow it step by step.
    const int size = mBallMap.size();
    mBallMap.clear();
    mBallMap.reserve(size);
    mMaxKeyNumerator = 0;
    mMaxKeyDenominator = 0;
    mMaxKeyValue = 0.0;
    buildBallMapFrom(mRoot);
    for (const ArboRatio& ratio : qAsConst(mPlaying)) {
        if (ArboBall* node = ballFromRatio(ratio)) {
            node->setPlaying(true);
        }
    }
}

void Arbo::buildBallMapFrom(ArboBall* node)
{
    if (!node) {
        return;
    }
    // Nodes read from a file have valid steps and at most six of them, so
    // neither check fails for the tree itself; but a transposition reported
    // by the engine may be too large for some nodes, which are then left out
    // rather than keyed by a wrapped-around ratio.
    ArboRatio key = mTransposition;
    // Throttled: the map is built anew at every transposition, which the
    // network can ask for hundreds of times a second.
    thread_local ThrottledWarning skipped("%1 more nodes were left out of the ball map "
                                          "(warnings suppressed)");
    if (node->ratio().numerator() == 0) {
        skipped.warn(QStringLiteral("Ball map: skipped the node %1 (not a path of prime steps)")
                         .arg(node->path().toString()));
    } else if (!key.multiplyIfExact(node->ratio())) {
        skipped.warn(QStringLiteral("Ball map: skipped the node %1 (its ratio under the "
                                    "transposition %2 does not fit in 64 bits)")
                         .arg(node->path().toString(), mTransposition.toString()));
    } else {
        mBallMap.insert(key, node);
        mMaxKeyNumerator = qMax(mMaxKeyNumerator, key.numerator());
        mMaxKeyDenominator = qMax(mMaxKeyDenominator, key.denominator());
        mMaxKeyValue = qMax(mMaxKeyValue, key.toDouble());
    }
    node->setPlaying(false);
    for (ArboBall* child : node->children()) {
        buildBallMapFrom(child);
    }
}

void Arbo::togglePrimeFrom(ArboBall* node, int prime, bool enabled)
{
    if (!node) {
        return;
    }
    if (ArboBall* up = node->childAtPrime(prime)) {
        up->setEnabled(enabled);
    }
    if (ArboBall* down = node->childAtPrime(-prime)) {
        down->setEnabled(enabled);
    }
    for (ArboBall* child : node->children()) {
        togglePrimeFrom(child, prime, enabled);
    }
}

void Arbo::addLeaves(ArboBall* node)
{
    for (int prime : LEAF_PRIMES) {
        addLeaf(node, prime);
    }
}

void Arbo::addLeaf(ArboBall* node, int prime)
{
    for (int step : {-prime, prime}) {
        ArboPath path = node->path();
        path.addLeaf(static_cast<signed char>(step));
        node->addChild(step, new ArboBall(path, lookupColor(prime), node));
    }
}

void Arbo::onNoteToggled(ArboRatio ratio, bool on)
{
    if (on) {
        mPlaying.insert(ratio);
    } else {
        mPlaying.remove(ratio);
    }
    // Under a transposition still to be taken over, the map is keyed by the
    // old one; the rebuild marks the playing nodes from mPlaying.
    if (mPending.transposed) {
        return;
    }
    if (ArboBall* node = ballFromRatio(ratio)) {
        node->setPlaying(on);
    }
}

void Arbo::onTransposed(ArboRatio ratio, int step)
{
    recordTransposition(ratio, step);
    buildBallMap();
    emit transposeOrBaseFrequencyChanged();
}

void Arbo::onEngineTransposed(ArboRatio ratio, int step)
{
    // The network can transpose hundreds of thousands of times a second, and
    // every rebuild of the map, with the window's redraw that follows it,
    // takes a millisecond or more: done for each, the window would fall
    // minutes behind, deaf to everything (a quit request too). So the steps
    // are gathered, and taken over with one rebuild after every report that
    // is already waiting; until then the lattice shows the last state whole.
    if (!mPending.transposed) {
        mPending.transposed = true;
        mPending.transposition = mTransposition;
        mPending.steps = mTransposeSteps;
    }
    mPending.transposition = ratio;
    addTransposeStep(mPending.steps, step);
    scheduleRefresh();
}

void Arbo::onEngineBaseFrequencyChanged(float frequency)
{
    mPending.baseFrequency = frequency; // gathered for the same reason
    mPending.baseFrequencyChanged = true;
    scheduleRefresh();
}

void Arbo::scheduleRefresh()
{
    if (!mRefreshScheduled) {
        mRefreshScheduled = true;
        QMetaObject::invokeMethod(this, &Arbo::refresh, Qt::QueuedConnection);
    }
}

void Arbo::refresh()
{
    mRefreshScheduled = false;
    const Pending pending = std::exchange(mPending, Pending());
    bool changed = false;
    if (pending.baseFrequencyChanged && pending.baseFrequency != mBaseFrequency) {
        mBaseFrequency = pending.baseFrequency;
        changed = true;
    }
    if (pending.transposed) {
        mTransposition = pending.transposition;
        mTransposeSteps = pending.steps;
        buildBallMap();
        changed = true;
    }
    if (changed) {
        emit transposeOrBaseFrequencyChanged();
    }
}

void Arbo::recordTransposition(const ArboRatio& ratio, int step)
{
    mTransposition = ratio;
    addTransposeStep(mTransposeSteps, step);
}

void Arbo::addTransposeStep(QList<int>& steps, int step)
{
    if (step == 0) {
        steps.clear();
    } else if (isValidPrime(step)) {
        steps.append(step);
        ArboConstants::cancelOppositeSteps(steps);
    } else {
        // The engine never takes such a step; keeping it would make every
        // absolute ratio meaningless.
        thread_local ThrottledWarning noPrime("%1 more transposition steps were no prime "
                                              "steps (warnings suppressed)");
        noPrime.warn(
            QStringLiteral("Transposition step %1 is no prime step; not recorded").arg(step));
    }
}

void Arbo::onBaseFrequencyChanged(float frequency)
{
    if (frequency == mBaseFrequency) {
        return;
    }
    mBaseFrequency = frequency;
    emit transposeOrBaseFrequencyChanged();
}

void Arbo::onPrimeEnabledToggled(int prime, bool enabled)
{
    if (prime == 1) {
        mRoot->setEnabled(enabled);
    } else {
        togglePrimeFrom(mRoot, prime, enabled);
    }
}
