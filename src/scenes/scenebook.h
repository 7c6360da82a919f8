#pragma once

#include "scenes/scene.h"
#include "settings/serializableroot.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <memory>

// The performer's scenes, in "scenes.json": several named cue lists (set
// lists), one of them active, and how scenes are triggered.
//
//   { "format": 1,
//     "active": 0,
//     "lists": [ { "name": "Concert", "scenes": [ <Scene>, ... ] } ],
//     "triggers": { "nextKey": "PgDown", "previousKey": "PgUp",
//                   "recallModifier": "Alt", "programChange": true,
//                   "nextController": 85, "previousController": 86 },
//     "panelVisible": true }
//
// Every change is saved at once (a crash loses nothing stored), through the
// atomic save of every document. A file that does not parse, or that a newer
// version of the program wrote ("format" above FORMAT), is kept aside and the
// book starts anew, saying so; keys this version does not know are kept, at
// every level. An exported cue list is a file of the same form with one list.
//
// Scenes get an id when they enter the book, unique while the program runs;
// the player finds the current scene by it (SceneTable).
//
// GUI thread.
class SceneBook : public SerializableRoot
{
    Q_OBJECT
public:
    static const QString FILE_NAME; // "scenes.json"
    static constexpr int FORMAT = 1;

    struct CueList
    {
        QString name;
        QList<Scene> scenes;
        QJsonObject unknown;
    };
    struct Triggers
    {
        // Qt's portable key names; the recall keys are the modifier with 1
        // to 9 and 0 (scene 10).
        QString nextKey = QStringLiteral("PgDown");
        QString previousKey = QStringLiteral("PgUp");
        QString recallModifier = QStringLiteral("Alt");
        bool programChange = true;
        // Controllers 85 and 86 are undefined in MIDI 1.0, so nothing else
        // answers them; -1 is none.
        int nextController = 85;
        int previousController = 86;
    };

    explicit SceneBook(QObject* parent = nullptr);
    ~SceneBook() override;

    // Loads "scenes.json" or makes it. False when the file was damaged or
    // too new: it is kept aside, the book starts empty and problem() says
    // what happened, for the window to show.
    bool init();
    using SerializableRoot::init;
    QString problem() const { return mProblem; }

    void initWithDefaults() override;
    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;

    int listCount() const { return mLists.size(); }
    const CueList& list(int index) const { return mLists[index]; }
    int activeIndex() const { return mActive; }
    const CueList& active() const { return mLists[mActive]; }
    void setActive(int index);
    // A new empty list, made active.
    void addList(const QString& name);
    void renameList(int index, const QString& name);
    // The last list stays: there is always one to store into.
    void removeList(int index);

    // The active list's scenes.
    void append(Scene scene);
    void rename(int index, const QString& name);
    // A copy right after the original.
    void duplicate(int index);
    void remove(int index);
    // Puts the scene deleted last back where it was.
    bool undoRemove();
    bool canUndoRemove() const { return mDeleted.has; }
    void move(int from, int to);
    // The scene `id` of the active list, or null.
    const Scene* sceneById(quint32 id) const;

    const Triggers& triggers() const { return mTriggers; }
    void setTriggers(const Triggers& triggers);
    bool panelVisible() const { return mPanelVisible; }
    void setPanelVisible(bool visible);

    // The cue list `index` into `file`; false with the reason in `error`.
    bool exportList(int index, const QString& file, QString* error) const;
    // The lists of `file`, added after the others (a name already taken
    // gets a number); the first of them becomes active. False with the
    // reason in `error`; `warnings` gets what was left out.
    bool importLists(const QString& file, QStringList* warnings, QString* error);

    // The active list for the player.
    std::unique_ptr<SceneTable> table() const;

signals:
    // The lists or scenes changed (and were saved, or saveFailed() said not).
    void changed();
    void saveFailed(QString error);

private:
    void commit();
    QList<CueList> readLists(const QJsonObject& json, QStringList* warnings);
    static QJsonObject listToJson(const CueList& list);
    QString uniqueListName(const QString& name) const;
    void giveId(Scene& scene) { scene.sound.id = ++mLastId; }

    QList<CueList> mLists;
    int mActive = 0;
    Triggers mTriggers;
    bool mPanelVisible = true;
    QJsonObject mUnknown;
    QJsonObject mUnknownTriggers;
    bool mTooNew = false;
    QString mProblem;
    quint32 mLastId = 0;
    struct Deleted
    {
        bool has = false;
        int list = 0;
        int index = 0;
        Scene scene;
    };
    Deleted mDeleted;
};
