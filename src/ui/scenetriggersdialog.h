#pragma once

#include <QDialog>

class QCheckBox;
class QComboBox;
class QKeySequenceEdit;
class QSpinBox;
class SceneBook;

// "Scene triggers": which keys step through the cue list and recall its
// first ten scenes, which MIDI controllers a foot switch steps with, and
// whether MIDI Program Change recalls. OK writes them into the scene book,
// which the window's keys and the MIDI input follow at once.
//
// GUI thread.
class SceneTriggersDialog : public QDialog
{
    Q_OBJECT
public:
    SceneTriggersDialog(SceneBook* book, QWidget* parent = nullptr);

    void accept() override;

private:
    SceneBook* mBook;
    QKeySequenceEdit* mNext;
    QKeySequenceEdit* mPrevious;
    QComboBox* mModifier;
    QSpinBox* mNextController;
    QSpinBox* mPreviousController;
    QCheckBox* mProgramChange;
};
