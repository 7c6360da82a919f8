#include "settings/serializableroot.h"

#include "settings/paths.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// Between the document's file name and the six characters that make a
// temporary file's name unique.
const QString TEMPORARY_INFIX = QStringLiteral(".saving-");
} // namespace

SerializableRoot::SerializableRoot(QObject* parent) : SerializableNode(parent) {}

void SerializableRoot::term()
{
    if (mSaveOnTerm) {
        save();
    }
}

bool SerializableRoot::init(const QString& fileName)
{
    mPath = Paths::configDir() + QLatin1Char('/') + fileName;
    removeAbandonedTemporaryFiles();
    // Whatever is there and cannot hold the document goes aside: the object
    // then starts from its defaults, as on a first run.
    setAsideIfUnreadable(mPath);
    if (!QFile::exists(mPath)) {
        initWithDefaults();
        return save();
    }
    return load();
}

bool SerializableRoot::initReadOnly(const QString& fileName)
{
    mPath = Paths::configDir() + QLatin1Char('/') + fileName;
    mSaveOnTerm = false;
    if (isUnreadableEntry(mPath)) {
        qCritical().noquote() << QStringLiteral("Couldn't read %1: not a readable file").arg(mPath);
        return false;
    }
    if (!QFile::exists(mPath)) {
        initWithDefaults();
        return true;
    }
    return load();
}

void SerializableRoot::initWithDefaults() {}

bool SerializableRoot::save() const
{
    if (mDamaged) {
        setDamagedFileAside();
    }
    QJsonObject json;
    write(json);
    const QByteArray bytes = QJsonDocument(json).toJson(QJsonDocument::Indented);

    // The document goes to a temporary file beside the target, which replaces
    // the target only once it is complete and on disk: a crash, a kill or a
    // full disk in between leaves the previous file as it was. The bytes are
    // written with the system call itself so that a failure is seen, with
    // the system's reason, at the write that fails (a buffered file reports a
    // short write late and without a reason, and a save that went on would
    // replace the user's file with an empty one). The temporary file has a
    // name of its own kind so that the next start can tell a killed save's
    // leftovers from the user's files.
    QTemporaryFile file(mPath + TEMPORARY_INFIX + QStringLiteral("XXXXXX"));
    if (!file.open()) {
        mLastSaveError = file.errorString();
        qCritical().noquote() << QStringLiteral("Couldn't open file %1 for saving.").arg(mPath);
        return false;
    }
    const QFile::Permissions permissions =
        QFile::exists(mPath)
            ? QFile::permissions(mPath)
            : QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther;
    const int fd = file.handle();
    QString error;
    for (qint64 done = 0; done < bytes.size() && error.isEmpty();) {
        const ssize_t written = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (written > 0) {
            done += written;
        } else if (written < 0 && errno != EINTR) {
            error = qt_error_string(errno);
        }
    }
    // A file system that allocates late reports a full disk only here.
    // EINVAL: this file system does not sync, nothing to wait for.
    if (error.isEmpty() && ::fsync(fd) != 0 && errno != EINVAL) {
        error = qt_error_string(errno);
    }
    if (error.isEmpty()) {
        file.setPermissions(permissions);
        file.close();
        if (::rename(QFile::encodeName(file.fileName()).constData(),
                     QFile::encodeName(mPath).constData()) == 0) {
            file.setAutoRemove(false);
        } else {
            error = qt_error_string(errno);
        }
    }
    if (!error.isEmpty()) {
        mLastSaveError = error; // the temporary file goes with `file`
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

bool SerializableRoot::isUnreadableEntry(const QString& path)
{
    // Only a regular file that can be read holds a document. A folder of the
    // document's name (made by a slip in a file manager), a device, a pipe
    // (whose reading would block start-up for good), a link to any of them,
    // a file this user may not read, or one far too large to be a document,
    // would otherwise fail every start.
    constexpr qint64 LARGEST_DOCUMENT = 64 * 1024 * 1024;
    const QByteArray name = QFile::encodeName(path);
    struct stat info = {};
    if (::lstat(name.constData(), &info) != 0) {
        return false; // nothing there
    }
    if (S_ISLNK(info.st_mode) && ::stat(name.constData(), &info) != 0) {
        return false; // a dangling link: a save replaces it, as a missing file
    }
    return !S_ISREG(info.st_mode) || info.st_size > LARGEST_DOCUMENT ||
           ::access(name.constData(), R_OK) != 0;
}

QString SerializableRoot::keepAside(const QString& path, const char* what)
{
    const QString base = path + QStringLiteral(".damaged-") +
                         QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-hhmmss"));
    QString aside = base;
    for (int n = 2; QFileInfo::exists(aside) || QFileInfo(aside).isSymLink(); ++n) {
        aside = base + QLatin1Char('-') + QString::number(n);
    }
    // The entry itself is renamed (a link, not what it points to; a folder
    // with everything in it).
    if (::rename(QFile::encodeName(path).constData(), QFile::encodeName(aside).constData()) != 0) {
        qWarning().noquote() << QStringLiteral("Couldn't keep %1 %2 as %3: %4")
                                    .arg(QLatin1String(what), path, aside, qt_error_string(errno));
        return QString();
    }
    qWarning().noquote()
        << QStringLiteral("Kept %1 %2 as %3.").arg(QLatin1String(what), path, aside);
    return aside;
}

QString SerializableRoot::setAsideIfUnreadable(const QString& path)
{
    return isUnreadableEntry(path) ? keepAside(path, "unreadable entry") : QString();
}

QString SerializableRoot::setDamagedFileAside() const
{
    if (!mDamaged || !QFileInfo::exists(mPath)) {
        return QString();
    }
    const QString aside = keepAside(mPath, "damaged file");
    if (!aside.isEmpty()) {
        mDamaged = false;
    }
    return aside;
}

void SerializableRoot::removeAbandonedTemporaryFiles() const
{
    const QFileInfo target(mPath);
    const QString pattern = target.fileName() + TEMPORARY_INFIX + QStringLiteral("??????");
    const QStringList names =
        QDir(target.path()).entryList({pattern}, QDir::Files | QDir::Hidden | QDir::System);
    for (const QString& name : names) {
        const QString leftover = target.path() + QLatin1Char('/') + name;
        if (QFile::remove(leftover)) {
            qWarning().noquote()
                << QStringLiteral("Removed %1, left behind by an interrupted save.").arg(leftover);
        }
    }
}
