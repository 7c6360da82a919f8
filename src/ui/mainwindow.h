#pragma once

#include "input/inputmap.h"
#include "model/arboevent.h"
#include "ui/instrumentparts.h"

#include <QList>
#include <QMainWindow>
#include <QPointer>
#include <QPoint>
#include <QStringList>

#include <memory>

class Arbo;
class PdPlayer;
class Settings;
class DiagnosticsDialog;
class OptionsDialog;
class MacroSliders;
class PatchChooser;
class TweakDialog;
class TuningMenu;
class SceneController;
class ScenePanel;
class KeyboardInput;
class MidiInput;
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
// row (hidden: presets are not offered yet), the "Tuning" button with the
// imported scale's name, eight macro sliders, the options button and the
// volume. Left: the transpose strip. Middle: the lattice in one
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
    explicit MainWindow(const InstrumentParts& parts, QWidget* parent = nullptr);
    ~MainWindow() override;

    // The view of the drawing shown now.
    ArboView* arboView() const;
    // Whether the flowers drawing is shown (the "circlesView" option).
    bool isCirclesViewShown() const;

    // The patch menu and the loading of voices.
    PatchChooser* patches() const { return mPatches; }
    MacroSliders* macros() const { return mMacros; }
    // Scala import and tuning export: the "Tuning" button's menu.
    TuningMenu* tuning() const { return mTuning; }
    // The scenes panel and what it drives; null without a scene book.
    ScenePanel* scenePanel() const { return mScenePanel; }
    SceneController* scenes() const { return mScenes; }
    // The computer keys and the MIDI input, and the input map's bindings
    // they play by when no imported scale lies over them. Either may be null.
    void attachInputs(const InputMap::Bindings& own, KeyboardInput* keys, MidiInput* midi);
    // Where the options dialog opens next time; (0, 0) means wherever it
    // likes.
    void setOptionsDialogPosition(const QPoint& position) { mOptionsDialogPosition = position; }

    // The automatic update check of the construction: when due by the
    // options "updateCheckInterval" and "tSysLastUpdateCheck", it starts a
    // check of the update feed (none when the build has no feed).
    void applicationUpdateCheck();
    // Called by the tweak dialog's "Update": stops all notes, reloads the
    // style sheets and the lattice file (marking an imported scale's nodes
    // anew), clears the leaf position tables and rebuilds the drawings.
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
    // The options dialog chose another notation: the sounding cards are
    // made anew in it. (The drawing that is hidden rebuilds its cards when
    // it is shown.)
    void onNotationChanged();
    void onVolumeChanged(float volume);
    void onMonophonicChanged(bool monophonic);
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
    // The link labels over the drawing: the flowers/grapes switch and the
    // readout mode's (made but given no text).
    void addSwitchers();
    // The developer's dialog of the layout constants, on Ctrl+T.
    void addTweakDialog();
    // The scenes panel on the right, and its button beside "Tuning".
    void addScenes();
    void updateReadout();
    // Queues an event made for this one call.
    void queue(ArboEvent::Type type, float value);

    std::unique_ptr<Ui::MainWindow> mUi;
    InstrumentParts mParts;
    Arbo* mLattice;
    PdPlayer* mPlayer;
    Settings* mOptions;
    QLabel* mViewSwitcher;
    // Made and connected, but given no text: the readout mode is not offered
    // in the window.
    QLabel* mAbsRelSwitcher;
    // Made once and queued again on every press.
    const ArboEvent mStopAllEvent;
    PatchChooser* mPatches = nullptr;
    MacroSliders* mMacros = nullptr;
    TuningMenu* mTuning = nullptr;
    SceneController* mScenes = nullptr;
    ScenePanel* mScenePanel = nullptr;
    QPoint mOptionsDialogPosition;
    DiagnosticsDialog* mDiagnosticsDialog = nullptr;
    TweakDialog* mTweakDialog = nullptr;
    // Made anew each time it opens; gone when closed and deleted.
    QPointer<OptionsDialog> mOptionsDialog;
    bool mFirstPaintLogged = false;
};
