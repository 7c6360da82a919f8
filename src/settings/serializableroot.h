#pragma once

#include "settings/serializablenode.h"

#include <QString>

// A JSON document kept in one file of the configuration folder.
//
// Subclasses say how to read and write themselves and what their defaults are;
// this class does the file and JSON mechanics. Saving goes through a temporary
// file in the same folder that replaces the old file only once it is complete,
// so a crash, a kill or a full disk in the middle of a save leaves the previous
// file intact. A failed load leaves the object as it was and leaves the file on
// disk untouched until the next successful save replaces it.
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

    bool save() const;
    bool load();

    QString path() const { return mPath; }
    bool saveOnTerm() const { return mSaveOnTerm; }
    // A document that must never be written back clears this before init().
    void setSaveOnTerm(bool save) { mSaveOnTerm = save; }

private:
    QString mPath;
    bool mSaveOnTerm = true;
};
