#include "settings/serializableroot.h"

#include "settings/appcontext.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSaveFile>

#include <cerrno>
#include <unistd.h>

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
    removeAbandonedTemporaryFiles();
    if (!QFile::exists(mPath)) {
        initWithDefaults();
        return save();
    }
    return load();
}

void SerializableRoot::initWithDefaults() {}

bool SerializableRoot::save() const
{
    if (mDamaged) {
        setDamagedFileAside();
    }
    // QSaveFile writes next to the target and renames over it on commit(), so
    // the old document survives anything that goes wrong before that point.
    QSaveFile file(mPath);
    if (!file.open(QIODevice::WriteOnly)) {
        mLastSaveError = file.errorString();
        qCritical().noquote() << QStringLiteral("Couldn't open file %1 for saving.").arg(mPath);
        return false;
    }
    QJsonObject json;
    write(json);
    const QByteArray bytes = QJsonDocument(json).toJson(QJsonDocument::Indented);

    // A document smaller than the write buffer reaches the file only when the
    // buffer is flushed, and commit() renames the temporary file over the
    // target even when that last flush fails: on a full disk the user's file
    // would be replaced by an empty one. So the flush happens here, where a
    // failure can still abandon the temporary file, and so does the sync to
    // disk, which is where a file system that allocates late reports no space.
    QString error;
    if (file.write(bytes) != bytes.size() || !file.flush()) {
        error = file.errorString();
    } else if (::fsync(file.handle()) != 0 && errno != EINVAL) {
        error = qt_error_string(errno); // EINVAL: this file system does not sync; fine
    }
    if (!error.isEmpty()) {
        file.cancelWriting(); // the temporary file goes, the old file stays
    } else if (!file.commit()) {
        error = file.errorString();
    }
    if (!error.isEmpty()) {
        mLastSaveError = error;
        qCritical().noquote() << QStringLiteral("Couldn't write file %1: %2").arg(mPath, error);
        return false;
    }
    mLastSaveError.clear();
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
        mDamaged = true;
        return false;
    }
    mDamaged = false;
    // A top-level array reads as an empty object: every key keeps its value.
    read(doc.object());
    return true;
}

QString SerializableRoot::setDamagedFileAside() const
{
    if (!mDamaged || !QFile::exists(mPath)) {
        return QString();
    }
    const QString base = mPath + QStringLiteral(".damaged-") +
                         QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-hhmmss"));
    QString aside = base;
    for (int n = 2; QFileInfo::exists(aside); ++n) {
        aside = base + QLatin1Char('-') + QString::number(n);
    }
    if (!QFile::rename(mPath, aside)) {
        qWarning().noquote()
            << QStringLiteral("Couldn't keep damaged file %1 as %2.").arg(mPath, aside);
        return QString();
    }
    mDamaged = false;
    qWarning().noquote() << QStringLiteral("Kept damaged file %1 as %2.").arg(mPath, aside);
    return aside;
}

void SerializableRoot::removeAbandonedTemporaryFiles() const
{
    const QFileInfo target(mPath);
    // The six letters and digits that QSaveFile appends to the file name.
    const QRegularExpression temporary(
        QStringLiteral("^%1\\.[A-Za-z0-9]{6}$").arg(QRegularExpression::escape(target.fileName())));
    const QStringList names =
        QDir(target.path())
            .entryList({target.fileName() + QStringLiteral(".??????")}, QDir::Files | QDir::Hidden);
    for (const QString& name : names) {
        if (!temporary.match(name).hasMatch()) {
            continue;
        }
        const QString leftover = target.path() + QLatin1Char('/') + name;
        if (QFile::remove(leftover)) {
            qWarning().noquote()
                << QStringLiteral("Removed %1, left behind by an interrupted save.").arg(leftover);
        }
    }
}
