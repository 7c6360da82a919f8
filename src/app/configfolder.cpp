#include "app/configfolder.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QLockFile>
#include <QMessageBox>
#include <QTemporaryFile>

ConfigFolder::ConfigFolder() = default;

ConfigFolder::~ConfigFolder() = default;

bool ConfigFolder::make(const QString& path)
{
    mPath = path;
    const bool made = QDir().mkpath(mPath);
    qDebug() << "Config dir:" << mPath;
    if (made) {
        return true;
    }
    // The text has no %1 on purpose; the logged line keeps the literal %s.
    qCritical() << QStringLiteral("Could not create config directory %s.").arg(mPath);
    QMessageBox::critical(nullptr, QCoreApplication::applicationName(),
                          QCoreApplication::translate("ConfigFolder",
                                                      "Creation of config directory failed.\n\n"
                                                      "The program will now shut down."),
                          QMessageBox::Ok);
    return false;
}

bool ConfigFolder::lock()
{
    mInstanceLock = std::make_unique<QLockFile>(mPath + QStringLiteral("/arbo.lock"));
    // Never stale by age: a lock is stale only when its process is gone (a
    // crashed or killed run), which QLockFile finds out by itself.
    mInstanceLock->setStaleLockTime(0);
    if (mInstanceLock->tryLock(0)) {
        return true;
    }
    if (mInstanceLock->error() != QLockFile::LockFailedError) {
        // No lock can be made here (a read-only folder): nothing can be
        // overwritten either, and the folder check says what is wrong.
        mInstanceLock.reset();
        return true;
    }
    qint64 pid = 0;
    QString host;
    QString program;
    mInstanceLock->getLockInfo(&pid, &host, &program);
    mInstanceLock.reset();
    // No log file yet, on purpose: this goes to standard error, and the
    // running instance's files stay untouched.
    const QString text =
        QCoreApplication::translate(
            "ConfigFolder", "%1 is already running (process %2).\n\nThis copy will now shut down.")
            .arg(QCoreApplication::applicationName())
            .arg(pid);
    qCritical().noquote() << text;
    QMessageBox::critical(nullptr, QCoreApplication::applicationName(), text, QMessageBox::Ok);
    return false;
}

bool ConfigFolder::reportUnwritable(const QStringList& folders)
{
    QStringList problems;
    for (const QString& folder : folders) {
        if (!QFileInfo(folder).isDir()) {
            continue; // made later; a failure there has its own message
        }
        QTemporaryFile probe(folder + QStringLiteral("/.write-check-XXXXXX"));
        if (!probe.open()) {
            problems << QStringLiteral("%1 (%2)").arg(folder, probe.errorString());
        }
    }
    if (problems.isEmpty()) {
        return true;
    }
    const QString text =
        QCoreApplication::translate(
            "ConfigFolder",
            "This folder cannot be written:\n%1\n\nNo options or lattice changes can be saved, and "
            "voice patches cannot be loaded, until it can.")
            .arg(problems.join(QLatin1Char('\n')));
    qCritical().noquote() << text;
    QMessageBox::critical(nullptr, QCoreApplication::applicationName(), text, QMessageBox::Ok);
    mUnwritableReported = true;
    return false;
}
