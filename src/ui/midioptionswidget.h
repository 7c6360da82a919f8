#pragma once

#include <QWidget>

class MidiOutput;
class MidiSettings;
class QCheckBox;
class QComboBox;
class QLabel;
class QSpinBox;

// The MIDI options: on/off, port, tuning method, bend range, member channels
// and whether the built-in sound plays too, with a line saying what the
// output is doing. Every change is written into the settings at once and
// announced with MidiSettings::changed(), on which the output reopens, so the
// options act live.
//
// GUI thread.
class MidiOptionsWidget : public QWidget
{
    Q_OBJECT
public:
    MidiOptionsWidget(MidiSettings* settings, MidiOutput* output, QWidget* parent = nullptr);

    // Reads the settings into the controls and lists the ports again.
    void refresh();

private slots:
    void onEdited();
    void onStatusChanged(const QString& status);

private:
    void fillPorts();
    void updateEnabled();

    MidiSettings* mSettings;
    MidiOutput* mOutput;
    QCheckBox* mEnabled;
    QComboBox* mPort;
    QComboBox* mMethod;
    QSpinBox* mBendRange;
    QSpinBox* mMemberChannels;
    QCheckBox* mBuiltInSound;
    QLabel* mStatus;
    bool mFilling = false;
};
