#pragma once

#include "settings/serializableroot.h"

#include <QList>

// The lattice model (being filled in).
class Arbo : public SerializableRoot
{
    Q_OBJECT
public:
    explicit Arbo(QObject* parent = nullptr);

    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;

    static bool isValidPrime(int p);
    static float primeRatio(int p);

    const QList<int>& transposeSteps() const { return mTransposeSteps; }

private:
    QList<int> mTransposeSteps;
};
