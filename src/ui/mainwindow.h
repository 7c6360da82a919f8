#pragma once

#include <QMainWindow>

class Arbo;
class QComboBox;
class QPushButton;

// The one top-level window. For now it holds the voice patch row: the patch
// menu with its step buttons and the "Load" button; the player's requests to
// step the patch (from the wands) arrive here too.
class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit MainWindow(Arbo* lattice, QWidget* parent = nullptr);

    // Puts the voice patch at `path` into play; on failure shows why.
    void loadPatch(const QString& path);
    // The "defaultPatch" option's patch, else "Sine.pd", else none.
    void loadDefaultPatch();
    // Lists the voice patches of the resource folder in the menu.
    void initPatchMenu();
    void addPatchToMenu(const QString& path);
    void setNoPatchLoaded(bool noPatch);

public slots:
    void onPatchDecRequested();
    void onPatchIncRequested();
    void on_patchMenu_activated(int index);
    void on_patchDecButton_clicked();
    void on_patchIncButton_clicked();
    void on_loadPatchButton_clicked();

private:
    void stepPatch(int step);

    Arbo* mLattice;
    QComboBox* mPatchMenu;
    QPushButton* mPatchDecButton;
    QPushButton* mPatchIncButton;
    QPushButton* mLoadPatchButton;
    // The menu item of the patch last loaded successfully; -1 before any.
    int mLastLoadedPatch = -1;
    QString mLastPatchFolder;
};
