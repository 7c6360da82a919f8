#pragma once

#include "input/inputbinding.h"
#include "settings/serializableroot.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

#include <array>

// How keys, MIDI notes and controllers, and OSC addresses play the lattice,
// as the user arranged it in "input_map.json":
//
//   { "latch": false,          notes toggle like wands instead of held
//     "midiVelocity": false,   MIDI velocity sets the voice volume
//     "midiPorts": ["nanoKEY"],  MIDI ports to connect to (part of the name)
//     "oscPort": 0,            UDP port for OSC; 0 means none
//     "keys": { "F": { "value": "/" }, "Space": { "event": 1 } },
//     "midiNotes": { "69": { "value": "/" } },
//     "midiControllers": { "7": { "event": 6 } },
//     "osc": { "/fader/1": { "event": 11 } } }
//
// Entries are InputBindings. Key names are Qt's portable key names ("A",
// "Space", "1", ";"). On first run the default map is written, so the file
// shows what can be changed. The file is the user's: whatever the program
// made of it is never written back over it, and an entry that cannot be used
// is skipped with a warning that names it, the rest still loads.
//
// Threads: GUI thread. The input threads get a copy of bindings() each, so
// nobody shares the tables once they run.
class InputMap : public SerializableRoot
{
    Q_OBJECT
public:
    static const QString FILE_NAME; // "input_map.json"

    struct Bindings
    {
        bool latch = false;
        bool midiVelocity = false;
        int oscPort = 0;
        QStringList midiPorts;
        QHash<QString, InputBinding> keys;
        std::array<InputBinding, 128> midiNotes;
        std::array<InputBinding, 128> midiControllers;
        QHash<QString, InputBinding> osc;
    };

    explicit InputMap(QObject* parent = nullptr);
    ~InputMap() override;

    using SerializableRoot::init;
    // Loads "input_map.json", or writes the default map when there is none.
    bool init();
    void initWithDefaults() override;
    void read(const QJsonObject& json) override;
    void write(QJsonObject& json) const override;

    const Bindings& bindings() const { return mBindings; }

    // The portable name of a key code ("A", "Space"); empty for none.
    static QString keyName(int key);

    // A key that plays a note in the default map, and the note's path.
    struct NoteKey
    {
        QString name;
        ArboPath path;
    };
    // The note keys of the default map in the order of the keyboard's rows:
    // the bottom letter row, the home row, then the top row, each from the
    // left, so that a scale played by degree rises along them.
    static QVector<NoteKey> defaultNoteKeys();

private:
    Bindings mBindings;
};
