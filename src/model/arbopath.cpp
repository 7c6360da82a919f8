#include "model/arbopath.h"

#include "model/arboconstants.h"

#include <QDebug>
#include <QVector>

ArboPath::ArboPath(signed char step)
{
    mSteps[0] = step;
}

ArboPath::ArboPath(const QString& text)
{
    storeFromString(text);
}

void ArboPath::storeFromString(const QString& text)
{
    *this = ArboPath();
    const QVector<QStringRef> parts = text.splitRef(QLatin1Char('/'), Qt::SkipEmptyParts);
    const int count = qMin(parts.size(), MAX_LEAF_STEPS);
    for (int i = 0; i < count; ++i) {
        bool ok = false;
        const int step = parts.at(i).toInt(&ok, 10);
        if (!ok || !ArboConstants::isValidPrime(step)) {
            qDebug().nospace() << "Invalid path: " << text;
            *this = ArboPath();
            mSteps[0] = INVALID_STEP;
            return;
        }
        mSteps[i] = static_cast<signed char>(step);
    }
}

QString ArboPath::parseToString() const
{
    if (mSteps[0] == 0) {
        return QStringLiteral("/");
    }
    QString text;
    for (int i = 0; mSteps[i] != 0; ++i) {
        text += QLatin1Char('/');
        text += QString::number(int(mSteps[i]));
    }
    return text;
}

QList<int> ArboPath::toList() const
{
    QList<int> steps;
    for (int i = 0; mSteps[i] != 0; ++i) {
        steps.append(mSteps[i]);
    }
    return steps;
}

int ArboPath::length() const
{
    int count = 0;
    while (mSteps[count] != 0) {
        ++count;
    }
    return count;
}

bool ArboPath::hasValidSteps() const
{
    for (int i = 0; mSteps[i] != 0; ++i) {
        if (!ArboConstants::isValidPrime(mSteps[i])) {
            return false;
        }
    }
    return true;
}

void ArboPath::addLeaf(signed char step)
{
    const int count = length();
    if (count < MAX_LEAF_STEPS) {
        mSteps[count] = step;
    }
}

void ArboPath::removeLeaf()
{
    const int count = length();
    if (count > 0 && count < MAX_STEPS) {
        mSteps[count - 1] = 0;
    }
}

ArboPath ArboPath::operator+(const ArboPath& other) const
{
    ArboPath result(*this);
    int count = length();
    for (int i = 0; other.mSteps[i] != 0 && count < MAX_STEPS; ++i) {
        result.mSteps[count++] = other.mSteps[i];
    }
    return result;
}

bool ArboPath::operator==(const ArboPath& other) const
{
    for (int i = 0; i < MAX_LEAF_STEPS; ++i) {
        if (mSteps[i] != other.mSteps[i]) {
            return false;
        }
        if (mSteps[i] == 0) {
            return true;
        }
    }
    return mSteps[MAX_LEAF_STEPS] == 0 && other.mSteps[MAX_LEAF_STEPS] == 0;
}

uint qHash(const ArboPath& path, uint seed)
{
    uint hash = seed;
    const signed char* steps = path.toCharArray();
    for (int i = 0; i < ArboPath::MAX_LEAF_STEPS && steps[i] != 0; ++i) {
        hash = hash * 31u + uint(int(steps[i]));
    }
    return hash;
}
