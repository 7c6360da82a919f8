#pragma once

#include <QHash>
#include <QObject>
#include <QString>

#include <memory>

class Arbo;
class PatchChooser;
class PdPlayer;
class QShortcut;
class QWidget;
class Scene;
class SceneBook;
class Settings;

// What the window does with scenes: stores the sound as a new scene of the
// active cue list, asks the player to recall or step, keeps the player's
// table of the active list up to date, and finishes what only the GUI thread
// can do when the player says it recalled a scene: the voice patch (the
// engine's patch change, so the chord goes on) and, once the new patch is
// in, the scene's macros for it. Also the scene keys of the window.
//
// Every trigger is a command through the player's rings, so a recall asked
// for here, by a foot switch, by OSC or by a tag is carried out the same way,
// in order with the notes played before it.
//
// GUI thread.
class SceneController : public QObject
{
    Q_OBJECT
public:
    SceneController(PdPlayer* player, Arbo* lattice, const Settings* options, SceneBook* book,
                    PatchChooser* patches, QWidget* window);
    ~SceneController() override;

    // The sound as it is now, as a new scene named `name` (empty: the
    // chord's note names) at the end of the active list.
    void store(const QString& name);
    // Scene `index` (0-based) of the active list.
    void recall(int index);
    // The next (direction > 0) or previous scene.
    void step(int direction);
    // The scene recalled last (0: none) and whether it is in the active list.
    quint32 currentId() const { return mCurrentId; }

    // A patch as a scene keeps it: a voice of the program by its file name,
    // anything else by its full path; and back to a file.
    static QString patchName(const QString& path);
    static QString patchFile(const QString& name);

signals:
    // The current scene changed (0: none).
    void currentChanged(quint32 id);
    // A line for the performer: what was stored, what is missing.
    void message(const QString& text);

private:
    void onStored(int source, float ticket, bool taken);
    void onRecalled(int index, quint32 id);
    void onPatchLoaded(const QString& path);
    void applyScenePatch();
    void installShortcuts();
    QString defaultName(const Scene& scene) const;
    void queue(int type, float value);

    PdPlayer* mPlayer;
    Arbo* mLattice;
    const Settings* mOptions;
    SceneBook* mBook;
    PatchChooser* mPatches;
    QWidget* mWindow;
    quint32 mCurrentId = 0;
    // The names of the stores asked for here, by their ticket.
    QHash<int, QString> mNames;
    int mTicket = 0;
    // A recalled scene's patch change, coalesced: a burst of recalls costs
    // one change, to the last scene's patch.
    bool mPatchChangeQueued = false;
    // The scene whose macros go to the patch it is changing to.
    quint32 mMacrosFor = 0;
    QString mMacrosPatch;
    QList<QShortcut*> mShortcuts;
};
