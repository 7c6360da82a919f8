#pragma once

#include <QWidget>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QSpinBox;
class RecordingSettings;

// The recording options: the sound file's format, the recordings folder,
// whether a sound file is written beside the performance log, and the MIDI
// controller that starts and stops recording. Every change is written into
// the settings at once and announced with RecordingSettings::changed(), so
// the options act live (the next recording, the controller at once).
//
// GUI thread.
class RecordingOptionsWidget : public QWidget
{
    Q_OBJECT
public:
    explicit RecordingOptionsWidget(RecordingSettings* settings, QWidget* parent = nullptr);

    // Reads the settings into the controls.
    void refresh();

public slots:
    void chooseFolder();

private:
    void onEdited();

    RecordingSettings* mSettings;
    QComboBox* mFormat;
    QLineEdit* mFolder;
    QCheckBox* mAudio;
    QSpinBox* mController;
    bool mFilling = false;
};
