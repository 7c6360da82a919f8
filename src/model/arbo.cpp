#include "model/arbo.h"

#include "model/arboconstants.h"

Arbo::Arbo(QObject* parent) : SerializableRoot(parent) {}

void Arbo::read(const QJsonObject&) {}

void Arbo::write(QJsonObject&) const {}

bool Arbo::isValidPrime(int p)
{
    return ArboConstants::isValidPrime(p);
}

float Arbo::primeRatio(int p)
{
    return p >= 1 ? ArboConstants::PRIME_RATIOS[p] : 1.0f / ArboConstants::PRIME_RATIOS[-p];
}
