#include "app/applog.h"

#include <QDateTime>
#include <QDebug>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QTime>

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The log whose handler is installed. Read by the handler on any thread;
// written only while no other thread logs (start-up and shutdown).
std::atomic<AppLog*> sLog{nullptr};

} // namespace

AppLog::AppLog(QObject* parent) : QObject(parent) {}

AppLog::~AppLog()
{
    remove();
}

bool AppLog::open(const QString& path)
{
    mFile.setFileName(path);
    // Unbuffered: every message goes out in one write() of its own (see write).
    if (!mFile.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
        qCritical().noquote() << QStringLiteral("Couldn't open log file %1 for writing.").arg(path);
        return false;
    }
    mSize.store(mFile.size());
    // Without diagnostics words nobody receives debug messages (the file never
    // gets them), so switch them off at the source: they are then not even
    // formatted, which keeps them off the audio thread's budget.
    if (mFlags.isEmpty()) {
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    }
    sLog.store(this);
    qInstallMessageHandler(messageHandler);
    mInstalled = true;
    const QString banner =
        QStringLiteral("\n%1\nStarting app at %2\n")
            .arg(QString(78, QLatin1Char('-')),
                 QDateTime::currentDateTime().toString(QStringLiteral("dd/MM/yy hh:mm:ss.z")));
    write(banner.toUtf8());
    return true;
}

void AppLog::remove()
{
    if (mInstalled) {
        qInstallMessageHandler(nullptr);
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
        sLog.store(nullptr);
        mInstalled = false;
    }
}

void AppLog::write(const QByteArray& bytes)
{
    // One write() per message on the append-mode descriptor: the kernel keeps
    // each message whole even when several threads log at once, which the
    // buffered QFile API would not guarantee without a lock.
    const int fd = mFile.handle();
    if (fd < 0) {
        return;
    }
    const ssize_t written = ::write(fd, bytes.constData(), size_t(bytes.size()));
    const qint64 size = mSize.fetch_add(written > 0 ? written : 0) + (written > 0 ? written : 0);
    // One thread rotates; the others write on meanwhile.
    if (size >= mRotateBytes.load() && !mRotating.exchange(true)) {
        rotate();
        mRotating.store(false);
    }
}

void AppLog::rotate()
{
    const QByteArray path = QFile::encodeName(mFile.fileName());
    if (::rename(path.constData(), (path + ".1").constData()) != 0) {
        mSize.store(0); // try again after as much again
        return;
    }
    const int fresh = ::open(path.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fresh >= 0) {
        ::dup2(fresh, mFile.handle());
        ::close(fresh);
    }
    mSize.store(0);
    const QString stamp = QTime::currentTime().toString(QStringLiteral("[hh:mm:ss.zzz] "));
    write((stamp + QStringLiteral("The earlier lines are in %1.1\n")
                       .arg(QFileInfo(mFile.fileName()).fileName()))
              .toUtf8());
}

bool AppLog::isAskedFor(const QMessageLogContext& context) const
{
    const QString file = QString::fromUtf8(context.file ? context.file : "");
    int separator = file.lastIndexOf(QLatin1Char('/'));
    if (separator < 0) {
        separator = file.lastIndexOf(QLatin1Char('\\'));
    }
    if (separator < 0) {
        return false;
    }
    QString baseName = file.mid(separator + 1);
    const int dot = baseName.lastIndexOf(QLatin1Char('.'));
    if (dot >= 0) {
        baseName.truncate(dot);
    }
    return mFlags.contains(QStringLiteral("all")) || mFlags.contains(baseName.toLower());
}

void AppLog::messageHandler(QtMsgType type, const QMessageLogContext& context,
                            const QString& message)
{
    AppLog* log = sLog.load();
    if (!log) {
        return;
    }
    const QString stamp = QTime::currentTime().toString(QStringLiteral("[hh:mm:ss.zzz] "));

    if (!log->mFlags.isEmpty()) {
        // A message without a source file is dropped altogether once any word
        // was given on the command line, log file included. Deliberate: the
        // words ask for a diagnostic session, not for the everyday log.
        if (!context.file ||
            (!std::strchr(context.file, '/') && !std::strchr(context.file, '\\'))) {
            return;
        }
        if (log->isAskedFor(context)) {
            emit log->diagnosticMessage(QStringLiteral("%1 %2\n").arg(stamp, message));
        }
    }

    if (type == QtDebugMsg) {
        return; // debug output is for the diagnostics dialog only
    }

    // The lock is taken and released before the write, not around it; the
    // write below is a single system call and needs no lock to stay whole.
    log->mMutex.lock();
    log->mMutex.unlock();

    QByteArray block;
    if (type == QtCriticalMsg) {
        block += "\nCRITICAL:\n";
    } else if (type == QtFatalMsg) {
        block += "\nFATAL:\n";
    }
    block += stamp.toUtf8();
    block += message.toUtf8();
    block += '\n';
    if (type == QtCriticalMsg || type == QtFatalMsg) {
        block += '\n';
    }
    log->write(block);
}
