#pragma once

#include "recording/audiofilewriter.h"
#include "settings/serializableroot.h"

#include <QString>

// The recording options, kept in a document of their own, "recording.json",
// so that the main options keep their fixed set of keys:
//
//   { "format": "wav24",   wav24, wav32f or flac24 (AudioFileWriter)
//     "folder": "",        where recordings go; empty: the default folder
//     "audio": true,       false: the performance log alone, no sound file
//     "controller": -1 }   MIDI controller 0..127 that starts and stops
//                          recording (each press toggles); -1: none
//
// Values that cannot be used keep their defaults when read.
//
// GUI thread.
class RecordingSettings : public SerializableRoot
{
    Q_OBJECT
public:
    explicit RecordingSettings(QObject* parent = nullptr);

    // Loads "recording.json" from the configuration folder, or writes the
    // defaults there on a first run.
    bool init();

    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;

    // A folder named after the program in the user's music folder.
    static QString defaultFolder();
    // The folder recordings go to: the one chosen, or the default.
    QString folder() const;

    AudioFileWriter::Format mFormat = AudioFileWriter::DEFAULT_FORMAT;
    QString mFolder; // empty: defaultFolder()
    bool mAudio = true;
    int mController = -1;

signals:
    // Emitted by the options widget after it changed a value.
    void changed();
};
