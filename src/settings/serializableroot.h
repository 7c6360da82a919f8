#pragma once

#include "settings/serializablenode.h"

#include <QString>

// A JSON document kept in one file of the configuration folder.
//
// Subclasses say how to read and write themselves and what their defaults are;
// this class does the file and JSON mechanics. Saving goes through a temporary
// file in the same folder that replaces the old file only once it is complete
// and on disk, so a crash, a kill or a full disk in the middle of a save
// leaves the previous file intact. A failed load leaves the object as it was
// and leaves the file on disk untouched until the next save; a file that did
// not parse is then kept beside the new one (see setDamagedFileAside()).
//
// GUI thread (or the thread that owns the object); not thread-safe.
class SerializableRoot : public SerializableNode
{
    Q_OBJECT
public:
    explicit SerializableRoot(QObject* parent = nullptr);

    // End of life: saves when saveOnTerm() is set.
    virtual void term();
    // Binds the document to `fileName` in the configuration folder and loads
    // it, or, when no file exists there, gives the object its defaults and
    // writes them. Returns whether that load or save succeeded.
    virtual bool init(const QString& fileName);
    // The document's default content, given before a first save.
    virtual void initWithDefaults();
    // Like init(), for a program that only looks (arbo-tuning may run while
    // the instrument has the folder): loads `fileName` from the configuration
    // folder, or gives the defaults when it is not there, and changes nothing
    // on disk: no save, no file set aside, no temporary file removed, and
    // term() no longer saves. False when the file cannot be read or parsed.
    bool initReadOnly(const QString& fileName);

    bool save() const;
    bool load();

    QString path() const { return mPath; }
    bool saveOnTerm() const { return mSaveOnTerm; }
    // A document that must never be written back clears this before init().
    void setSaveOnTerm(bool save) { mSaveOnTerm = save; }

    // Why the last save failed, in the system's words; empty when it succeeded
    // (or nothing was saved yet). The application tells the user from this.
    QString lastSaveError() const { return mLastSaveError; }

    // One typo in a hand-edited file must not cost the user every value in
    // it: before a damaged file is replaced by a save, or given up on, it is
    // renamed to "<file>.damaged-yyyyMMdd-hhmmss" beside the original and the
    // new name is logged. Returns that name; empty when there was no damaged
    // file or the rename failed (logged too).
    QString setDamagedFileAside() const;

    // Whether something is at `path` that cannot hold a document: not a
    // regular file (a folder, a device, a pipe, a link to one of them), one
    // this user may not read, or one larger than any document (64 MiB).
    // Nothing there, or a dangling link, is not such an entry.
    static bool isUnreadableEntry(const QString& path);
    // Keeps such an entry aside like a damaged file, so that the document is
    // made anew from its defaults; init() does this for its own file.
    // Returns the new name, empty when nothing was moved.
    static QString setAsideIfUnreadable(const QString& path);
    // Renames `path` to "<path>.damaged-yyyyMMdd-hhmmss" (with "-2" and so
    // on when that exists) and logs it; `what` names it in the log line.
    // Returns the new name, empty when the rename failed (logged too).
    static QString keepAside(const QString& path, const char* what);

private:
    // A save killed half-way leaves its temporary file
    // ("<file>.saving-XXXXXX") behind; the next start removes it. Only one instance runs on a
    // configuration folder, so nobody else is writing such a file meanwhile.
    void removeAbandonedTemporaryFiles() const;

    QString mPath;
    bool mSaveOnTerm = true;
    mutable bool mDamaged = false;
    mutable QString mLastSaveError;
};
