#pragma once

#include "settings/serializableroot.h"

#include <QPoint>
#include <QSize>
#include <QString>

// The user's options and the remembered window state, kept in "options.json".
//
// The main window and the options dialog read and change the fields directly;
// the player's change signals reach the slots, queued, on the GUI thread.
// Values are kept as read: nothing is clamped or range-checked here.
class Settings : public SerializableRoot
{
    Q_OBJECT
public:
    explicit Settings(QObject* parent = nullptr);

    // Loads "options.json" from the configuration folder, or writes the
    // defaults there on a first run.
    bool init();

    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;

    int mAudioDevice = -1; // -1: the system's default output device
    int mFramesPerBuffer = 256;
    float mBaseFrequency = 440.0f;
    int mCalibrationFrequency = 440; // Hz of A4
    QString mBaseNote = QStringLiteral("A 4");
    float mMasterVolume = 0.75f;
    bool mMonophonic = false;
    QString mDefaultPatch = QStringLiteral("Sine.pd");
    int mUdpPort = 8888;
    bool mCirclesView = false;
    int mAbsRelView = 1;
    int mUpdateCheckInterval = 1;
    QString mTSysLastUpdateCheck;
    QSize mWindowSize = QSize(-1, -1); // (-1, -1): never stored, not applied
    QPoint mWindowPos = QPoint(-1, -1);
    bool mWindowMaximized = false;

public slots:
    void onAudioDeviceChanged(int device);
    void onFramesPerBufferChanged(int frames);
    void onBaseFrequencyChanged(float frequency);
    void onCalibrationFrequencyChanged(int frequency);
    void onBaseNoteChanged(QString note);
    void onMasterVolumeChanged(float volume);
    void onMonophonicChanged(bool monophonic);
};
