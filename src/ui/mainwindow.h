#pragma once

#include <QMainWindow>

#include <memory>

class Arbo;
class ArboView;
class QLabel;

namespace Ui {
class MainWindow;
}

// The one top-level window. Its widgets come from the form (mainwindow.ui);
// their object names are part of the interface, as tests and the style sheet
// find widgets by them.
//
// It shows the lattice in one of two drawings, "Flowers" (page 0 of
// centralStack) and "Grapes" (page 1), switched by a link label; and the
// voice patch row: the patch menu with its step buttons and the "Load"
// button. The player's requests to step the patch (from the wands) arrive
// here too.
//
// GUI thread only.
class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit MainWindow(Arbo* lattice, QWidget* parent = nullptr);
    ~MainWindow() override;

    // The view of the drawing shown now.
    ArboView* arboView() const;
    // Whether the flowers drawing is shown (the "circlesView" option).
    bool isCirclesViewShown() const;

    // Puts the voice patch at `path` into play; on failure shows why.
    void loadPatch(const QString& path);
    // The "defaultPatch" option's patch, else "Sine.pd", else none.
    void loadDefaultPatch();
    // Lists the voice patches of the resource folder in the menu.
    void initPatchMenu();
    void addPatchToMenu(const QString& path);
    void setNoPatchLoaded(bool noPatch);

public slots:
    // "circles" shows the flowers, "grapes" the grapes; other links nothing.
    void onSwitcherClicked(const QString& link);
    // "absolute", "absolute2" or "relative": the readout mode of balls and
    // cards.
    void onAbsRelSwitcherClicked(const QString& link);
    // The transposition or the base frequency changed: balls recolour.
    void onTransposeChanged();
    void onPatchDecRequested();
    void onPatchIncRequested();
    void on_patchMenu_activated(int index);
    void on_patchDecButton_clicked();
    void on_patchIncButton_clicked();
    void on_loadPatchButton_clicked();

private:
    void stepPatch(int step);

    std::unique_ptr<Ui::MainWindow> mUi;
    Arbo* mLattice;
    QLabel* mViewSwitcher;
    // Made and connected, but given no text: the readout mode is not offered
    // in the window.
    QLabel* mAbsRelSwitcher;
    // The menu item of the patch last loaded successfully; -1 before any.
    int mLastLoadedPatch = -1;
    QString mLastPatchFolder;
};
