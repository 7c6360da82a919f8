#pragma once

#include <QString>
#include <QStringList>

#include <memory>

class QLockFile;

// The per-user configuration folder as start-up takes it: made if missing,
// locked for this instance, and checked for being writable, each failure
// told to the user once.
//
// GUI thread only, during start-up; the lock is held until the object goes.
class ConfigFolder
{
public:
    ConfigFolder();
    ~ConfigFolder();

    // Makes the folder at `path`, the one the other calls work on; on failure
    // says so in a box and returns false.
    bool make(const QString& path);
    // One instance per configuration folder: a second one would reinstall the
    // voice under the first and, at exit, overwrite the other's options and
    // lattice. Takes the lock file in the folder (the lock of a crashed run
    // is taken over). False only when another running instance holds it; a
    // folder where no lock can be made is reported by reportUnwritable()
    // instead.
    bool lock();
    // A read-only configuration tree otherwise shows only as a failing voice
    // patch, which blames the patch. Tells the user once which of `folders`
    // cannot be written. Returns whether all could be.
    bool reportUnwritable(const QStringList& folders);
    // Whether the user was told that a folder cannot be written, so the
    // failures that follow from it need not be reported again.
    bool unwritableReported() const { return mUnwritableReported; }

private:
    QString mPath;
    std::unique_ptr<QLockFile> mInstanceLock;
    bool mUnwritableReported = false;
};
