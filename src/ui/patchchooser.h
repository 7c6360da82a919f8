#pragma once

#include <QObject>
#include <QString>

class PdPlayer;
class QComboBox;
class QWidget;

// The window's choice of voice patch: the patch menu (every voice of the
// resource folder, any other patch the user opened, and "None loaded" while
// nothing plays), the steps through it from the arrows, the wands, OSC and
// MIDI, and the loading of the chosen patch into the player.
//
// A failed load says so in a message box over `window` and leaves the last
// good patch playing and chosen in the menu.
//
// GUI thread only.
class PatchChooser : public QObject
{
    Q_OBJECT
public:
    // `menu` and `window` belong to the main window, `player` outlives both.
    PatchChooser(QComboBox* menu, PdPlayer* player, QWidget* window);

    // Lists the voice patches of the resource folder in the menu.
    void initMenu();
    void addToMenu(const QString& path);
    void setNoPatchLoaded(bool noPatch);
    // Puts the voice patch at `path` into play; on failure shows why.
    void load(const QString& path);
    // The file of the patch last loaded successfully; empty before any.
    QString currentPath() const;
    // The `name` patch of the resource folder (the "defaultPatch" option),
    // else "Sine.pd", else none.
    void loadDefault(const QString& name);
    // Moves `step` entries through the menu, round its ends, and loads the
    // patch there.
    void step(int step);
    // Tries every voice of the resource folder in name order, each quietly
    // first (a broken file costs a log line rather than a message box), and
    // loads the first that works; false when none does.
    bool loadAny();
    // Asks the user for a patch file and loads it.
    void openFile();

public slots:
    // The patch steps of wands, OSC and MIDI, summed by the player.
    void takeRequestedSteps();

private:
    QComboBox* mMenu;
    PdPlayer* mPlayer;
    QWidget* mWindow;
    // The menu item of the patch last loaded successfully; -1 before any.
    int mLastLoaded = -1;
    // Patch steps taken from the player and not yet carried out, and whether
    // a change for them runs (a failed load's message box lets the event
    // loop, and so more steps, in during a change).
    int mRequestedSteps = 0;
    bool mChangeUnderWay = false;
    QString mLastFolder;
};
