#include "model/arboball.h"

#include "model/arbo.h"
#include "model/arboconstants.h"

#include <QDebug>
#include <QJsonObject>
#include <QJsonValue>

#include <cstdlib>

namespace {

const QString CHILDREN = QStringLiteral("children");
const QString LINKS = QStringLiteral("links");

// A key of "children" or "links": a decimal integer, or 0 when it is not one.
int readStepKey(const QString& key)
{
    bool ok = false;
    const int step = key.toInt(&ok, 10);
    return ok ? step : 0;
}

} // namespace

ArboBall::ArboBall(const ArboPath& path, const QColor& color, QObject* parent)
    : SerializableNode(parent), mPath(path), mRatio(ArboRatio::pathRatio(path)), mColor(color)
{
    if (auto* node = qobject_cast<const ArboBall*>(parent)) {
        mLattice = node->mLattice;
    } else {
        mLattice = qobject_cast<const Arbo*>(parent);
    }
}

void ArboBall::read(const QJsonObject& json)
{
    const QJsonValue children = json.value(CHILDREN);
    if (children.isObject()) {
        const QJsonObject object = children.toObject();
        for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
            // A key that is not a number reads as step 0, which addLeaf() takes
            // as the terminator: the child then has this node's own path. The
            // program never writes such keys, but reading them is harmless.
            const int step = readStepKey(it.key());
            if (step != 0 && !ArboConstants::isValidPrime(step)) {
                qWarning().noquote() << "Lattice file: skipped the child" << it.key() << "of"
                                     << mPath.toString() << "(not a prime step) and its subtree";
                continue;
            }
            ArboPath childPath = mPath;
            childPath.addLeaf(static_cast<signed char>(step));
            auto* child = new ArboBall(childPath, colorForPrime(step), this);
            child->read(it.value().toObject());
            addChild(step, child);
        }
    } else if (json.contains(CHILDREN)) {
        qWarning().noquote() << "Lattice file: skipped the children of" << mPath.toString()
                             << "(not an object)";
    }

    const QJsonValue links = json.value(LINKS);
    if (links.isObject()) {
        const QJsonObject object = links.toObject();
        for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
            const int prime = readStepKey(it.key());
            if (!it.value().isString()) {
                qWarning().noquote() << "Lattice file: skipped the link" << it.key() << "of"
                                     << mPath.toString() << "(its path is not a text)";
                continue;
            }
            // The parser logs "Invalid path: " itself.
            if (!ArboPath(it.value().toString()).isValid()) {
                qWarning().noquote() << "Lattice file: skipped the link" << it.key() << "of"
                                     << mPath.toString() << "(invalid path)";
                continue;
            }
            addLink(prime, it.value().toString());
        }
    } else if (json.contains(LINKS)) {
        qWarning().noquote() << "Lattice file: skipped the links of" << mPath.toString()
                             << "(not an object)";
    }
}

void ArboBall::write(QJsonObject& json) const
{
    if (!mChildren.isEmpty()) {
        QJsonObject children;
        for (auto it = mChildren.constBegin(); it != mChildren.constEnd(); ++it) {
            QJsonObject child;
            it.value()->write(child);
            children.insert(QString::number(it.key()), child);
        }
        json.insert(CHILDREN, children);
    }
    if (!mLinks.isEmpty()) {
        QJsonObject links;
        for (auto it = mLinks.constBegin(); it != mLinks.constEnd(); ++it) {
            links.insert(QString::number(it.key()), it.value().mPath.toString());
        }
        json.insert(LINKS, links);
    }
}

void ArboBall::addChild(int step, ArboBall* child)
{
    ArboBall* earlier = mChildren.value(step, nullptr);
    if (earlier == child) {
        return;
    }
    if (child) {
        child->setParent(this);
    }
    mChildren.insert(step, child);
    delete earlier;
}

void ArboBall::addLink(int prime, const QString& path)
{
    mLinks.insert(prime, Link{colorForPrime(prime), ArboPath(path)});
}

void ArboBall::setPlaying(bool playing)
{
    if (playing == mPlaying) {
        return;
    }
    mPlaying = playing;
    emit playingChanged(mPlaying);
}

void ArboBall::togglePlaying()
{
    mPlaying = !mPlaying;
    emit playingChanged(mPlaying);
}

void ArboBall::setEnabled(bool enabled)
{
    if (enabled == mEnabled) {
        return;
    }
    mEnabled = enabled;
    for (ArboBall* child : qAsConst(mChildren)) {
        child->setEnabled(enabled);
    }
    emit enabledChanged(mEnabled);
}

void ArboBall::setMarked(bool marked)
{
    if (marked == mMarked) {
        return;
    }
    mMarked = marked;
    emit markedChanged(mMarked);
}

QList<int> ArboBall::absPathSteps() const
{
    QList<int> steps;
    if (mLattice) {
        steps = mLattice->transposeSteps();
    }
    steps.append(mPath.toList());
    ArboConstants::cancelOppositeSteps(steps);
    return steps;
}

int ArboBall::lastAbsStep() const
{
    return absStep(AbsStepChoice::PreferLow);
}

int ArboBall::highestAbsStep() const
{
    return absStep(AbsStepChoice::Highest);
}

int ArboBall::absStep(AbsStepChoice choice) const
{
    const QList<int> steps = absPathSteps();
    if (steps.isEmpty()) {
        return 1;
    }
    for (int step : mPath.toList()) {
        if (std::abs(step) >= HIGH_PRIME_STEP) {
            return BEYOND_THREE_LIMIT;
        }
    }
    int highest = 0;
    int highestLow = 0;
    for (int step : steps) {
        const int prime = std::abs(step);
        highest = qMax(highest, prime);
        if (prime < HIGH_PRIME_STEP) {
            highestLow = qMax(highestLow, prime);
        }
    }
    if (choice == AbsStepChoice::PreferLow && highestLow > 0) {
        return highestLow;
    }
    return highest;
}

QColor ArboBall::colorForPrime(int prime) const
{
    return mLattice ? mLattice->lookupColor(prime) : QColor(Qt::white);
}
