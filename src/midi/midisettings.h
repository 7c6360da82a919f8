#pragma once

#include "settings/serializableroot.h"

#include <QString>

// The MIDI output's options, kept in a document of their own, "midi.json", so
// that the main options keep their fixed set of keys.
//
// Values are clamped to what the output can use when read, so a hand-edited
// file cannot ask for channel 17 or a zero bend range.
//
// GUI thread.
class MidiSettings : public SerializableRoot
{
    Q_OBJECT
public:
    static const QString METHOD_MPE;
    static const QString METHOD_MTS;

    explicit MidiSettings(QObject* parent = nullptr);

    // Loads "midi.json" from the configuration folder, or writes the defaults
    // there on a first run.
    bool init();

    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;

    bool mEnabled = true;
    // Empty: a virtual port of our own that other programs connect to;
    // otherwise the name of an existing port to connect to.
    QString mPort;
    QString mMethod = METHOD_MPE;
    int mBendRange = 2;       // semitones, 1..96 (MPE)
    int mMemberChannels = 15; // 1..15 (MPE)
    bool mBuiltInSound = true;

    bool operator==(const MidiSettings& other) const;
    bool operator!=(const MidiSettings& other) const { return !(*this == other); }
    // Copies the values (not the file binding).
    void copyValues(const MidiSettings& other);

signals:
    // Emitted by the options widget after it changed a value.
    void changed();
};
