#pragma once

#include "model/arboevent.h"

#include <QList>
#include <QMainWindow>
#include <QPointer>
#include <QPoint>
#include <QStringList>

#include <memory>

class Arbo;
class DiagnosticsDialog;
class OptionsDialog;
class TweakDialog;
class ArboView;
class QLabel;
class QSlider;

namespace Ui {
class MainWindow;
}

// The one top-level window. Its widgets come from the form (mainwindow.ui);
// their object names are part of the interface, as tests and the style sheet
// find widgets by them.
//
// Top: the logo, the voice patch row (menu, step buttons, "Load"), the preset
// row (hidden: presets are not offered yet), eight macro sliders, the options
// button and the volume. Left: the transpose strip. Middle: the lattice in one
// of two drawings, "Flowers" (page 0 of centralStack) and "Grapes" (page 1),
// switched by a link label. Bottom: "Stop all", Mono/Poly and the readout of
// the transposition.
//
// Every control becomes an ArboEvent queued on the player; the player's
// answers (volume, monophony, macros, patch steps from the wands) come back
// queued and set the controls without sending anything again.
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
    // Sends macro `index` (0..7) the slider position `value`, normalised to
    // 0..1 by the sliders' range.
    void setMacro(int index, float value);
    // Where the options dialog opens next time; (0, 0) means wherever it
    // likes.
    void setOptionsDialogPosition(const QPoint& position) { mOptionsDialogPosition = position; }

    // The automatic update check of the construction: when due by the
    // options "updateCheckInterval" and "tSysLastUpdateCheck", it starts a
    // check of the update feed (none when the build has no feed).
    void applicationUpdateCheck();
    // Called by the tweak dialog's "Update": stops all notes, reloads the
    // style sheets and the lattice file, clears the leaf position tables and
    // rebuilds the drawings.
    void updateTweaks();
    // Ctrl+9: shows the diagnostics dialog when hidden, hides it when shown.
    void toggleDiagnostics();
    DiagnosticsDialog* diagnosticsDialog() const { return mDiagnosticsDialog; }
    TweakDialog* tweakDialog() const { return mTweakDialog; }
    OptionsDialog* optionsDialog() const;

public slots:
    // "circles" shows the flowers, "grapes" the grapes; other links nothing.
    void onSwitcherClicked(const QString& link);
    // "absolute", "absolute2" or "relative": the readout mode of balls and
    // cards.
    void onAbsRelSwitcherClicked(const QString& link);
    // The transposition or the base frequency changed: the readout follows
    // and the balls recolour.
    void onTransposeChanged();
    void onVolumeChanged(float volume);
    void onMonophonicChanged(bool monophonic);
    void onMacroValueChanged(int macro, float value);
    void onMacroNamesReceived(const QStringList& names);
    void onPatchDecRequested();
    void onPatchIncRequested();
    void onMacroSliderValueChanged(int value);
    void on_patchMenu_activated(int index);
    void on_patchDecButton_clicked();
    void on_patchIncButton_clicked();
    void on_loadPatchButton_clicked();
    void on_presetDecButton_clicked();
    void on_presetIncButton_clicked();
    void on_optionsButton_clicked();
    void on_volumeSlider_valueChanged(int value);
    void on_stopAllButton_clicked();
    void on_monoButton_clicked();
    void on_polyButton_clicked();

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    void setIcons();
    void stepPatch(int step);
    // The patch steps of wands, OSC and MIDI: see onPatchIncRequested().
    void takeRequestedPatchSteps();
    void updateReadout();
    QSlider* macroSlider(int number) const;
    QLabel* macroLabel(int number) const;
    // A slider's position as a number from 0 to 1, and back.
    static float normalised(const QSlider* slider, float value);
    static int sliderPosition(const QSlider* slider, float value);
    // Queues an event made for this one call.
    static void queue(ArboEvent::Type type, float value);

    std::unique_ptr<Ui::MainWindow> mUi;
    Arbo* mLattice;
    QLabel* mViewSwitcher;
    // Made and connected, but given no text: the readout mode is not offered
    // in the window.
    QLabel* mAbsRelSwitcher;
    // Made once and queued again on every press.
    const ArboEvent mStopAllEvent;
    // The menu item of the patch last loaded successfully; -1 before any.
    int mLastLoadedPatch = -1;
    // Patch steps taken from the player and not yet carried out, and whether
    // a change for them runs (a failed load's message box lets the event
    // loop, and so more steps, in during a change).
    int mRequestedPatchSteps = 0;
    bool mPatchChangeUnderWay = false;
    QString mLastPatchFolder;
    QPoint mOptionsDialogPosition;
    DiagnosticsDialog* mDiagnosticsDialog = nullptr;
    TweakDialog* mTweakDialog = nullptr;
    // Made anew each time it opens; gone when closed and deleted.
    QPointer<OptionsDialog> mOptionsDialog;
    bool mFirstPaintLogged = false;
};
