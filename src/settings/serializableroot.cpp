#include "settings/serializableroot.h"

#include "settings/appcontext.h"

#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>

SerializableRoot::SerializableRoot(QObject* parent) : SerializableNode(parent) {}

void SerializableRoot::term()
{
    if (mSaveOnTerm) {
        save();
    }
}

bool SerializableRoot::init(const QString& fileName)
{
    mPath = AppContext::configDir() + QLatin1Char('/') + fileName;
    if (!QFile::exists(mPath)) {
        initWithDefaults();
        return save();
    }
    return load();
}

void SerializableRoot::initWithDefaults() {}

bool SerializableRoot::save() const
{
    // QSaveFile writes next to the target and renames over it on commit(), so
    // the old document survives anything that goes wrong before that point.
    QSaveFile file(mPath);
    if (!file.open(QIODevice::WriteOnly)) {
        qCritical().noquote() << QStringLiteral("Couldn't open file %1 for saving.").arg(mPath);
        return false;
    }
    QJsonObject json;
    write(json);
    const QByteArray bytes = QJsonDocument(json).toJson(QJsonDocument::Indented);
    if (file.write(bytes) != bytes.size() || !file.commit()) {
        qCritical().noquote()
            << QStringLiteral("Couldn't write file %1: %2").arg(mPath, file.errorString());
        return false;
    }
    return true;
}

bool SerializableRoot::load()
{
    QFile file(mPath);
    if (!file.open(QIODevice::ReadOnly)) {
        qCritical().noquote() << QStringLiteral("Couldn't open file %1 for loading.").arg(mPath);
        return false;
    }
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &error);
    if (doc.isNull()) {
        qCritical().noquote() << QStringLiteral("Couldn't parse file %1. JSON error: %2")
                                     .arg(mPath, error.errorString());
        return false;
    }
    // A top-level array reads as an empty object: every key keeps its value.
    read(doc.object());
    return true;
}
