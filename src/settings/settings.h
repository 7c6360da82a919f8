#pragma once

#include "settings/serializableroot.h"

#include <QList>
#include <QPoint>
#include <QRect>
#include <QSize>
#include <QString>
#include <QStringList>

// The user's options and the remembered window state, kept in "options.json".
//
// The main window and the options dialog read and change the fields directly;
// the player's change signals reach the slots, queued, on the GUI thread.
// read() keeps values as they are; replaceUnusableValues() is the separate
// step that start-up runs afterwards.
class Settings : public SerializableRoot
{
    Q_OBJECT
public:
    static const QString FILE_NAME; // "options.json"

    explicit Settings(QObject* parent = nullptr);

    // Loads "options.json" from the configuration folder, or writes the
    // defaults there on a first run.
    bool init();

    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;

    // A value that cannot work would silence the instrument (a base frequency
    // of 0, a volume of 1e30, a buffer of 1 frame) or make the window unusable
    // at every start, with nothing the performer can do about it on stage.
    // Each such value goes back to its default, with a warning that names the
    // key. What holds:
    //   baseFrequency    finite, FREQUENCY_MIN..FREQUENCY_MAX Hz
    //   masterVolume     finite, VOLUME_MIN..VOLUME_MAX
    //   framesPerBuffer  FRAMES_MIN..FRAMES_MAX
    //   defaultPatch     a plain file name (no folder part), or empty
    //   windowSize       unset, or positive and no larger than the largest
    //                    of `screens`
    //   windowPos        unset, or such that the window's top-left corner
    //                    area lies on one of `screens`
    // `screens` are the available desktop areas; with none, the window
    // geometry is left alone. Returns the keys that were replaced.
    QStringList replaceUnusableValues(const QList<QRect>& screens);

    // The audible range, the one definition for everyone who checks a
    // frequency: the base frequency, the 1/1 after a transposition (both
    // inclusive) and the notes the patch is told of (strictly inside).
    static constexpr float FREQUENCY_MIN = 20.0f;
    static constexpr float FREQUENCY_MAX = 20000.0f;
    static constexpr float VOLUME_MIN = 0.0f;
    static constexpr float VOLUME_MAX = 4.0f;
    // The buffer sizes the options and the audio output accept.
    static constexpr int FRAMES_MIN = 16;
    static constexpr int FRAMES_MAX = 8192;

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
    // How the note cards write their notes: letter, accidental and cents from
    // equal temperament, or the exact Helmholtz-Ellis signs (JSON "notation":
    // "conventional" or "helmholtz-ellis"; anything else keeps the default).
    enum class Notation
    {
        Conventional,
        HelmholtzEllis
    };
    Notation mNotation = Notation::Conventional;
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

private:
    // The two halves of replaceUnusableValues(): the values the sound
    // depends on, and the window's size and position; each adds the keys it
    // replaced to `replaced`.
    void replaceUnusableSoundValues(QStringList& replaced);
    void replaceUnusableWindowGeometry(const QList<QRect>& screens, QStringList& replaced);
};
