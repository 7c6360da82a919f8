#include "settings/appcontext.h"

#include "settings/settings.h"

#include <QCoreApplication>
#include <QStandardPaths>

namespace AppContext {

const char* const APP_NAME = "Merrow Tuning Arbo";

namespace {
Settings* sSettings = nullptr;
Arbo* sLattice = nullptr;
PdPlayer* sPlayer = nullptr;
AudioOutput* sAudioOutput = nullptr;
MidiOutput* sMidiOutput = nullptr;
MidiSettings* sMidiSettings = nullptr;
} // namespace

Settings* settings()
{
    if (sSettings) {
        return sSettings;
    }
    // Built on first use so that a test without registered options still reads
    // the documented defaults.
    static Settings defaults;
    return &defaults;
}

void setSettings(Settings* settings)
{
    sSettings = settings;
}

Arbo* lattice()
{
    return sLattice;
}
void setLattice(Arbo* lattice)
{
    sLattice = lattice;
}

PdPlayer* player()
{
    return sPlayer;
}
void setPlayer(PdPlayer* player)
{
    sPlayer = player;
}

AudioOutput* audioOutput()
{
    return sAudioOutput;
}
void setAudioOutput(AudioOutput* output)
{
    sAudioOutput = output;
}

MidiOutput* midiOutput()
{
    return sMidiOutput;
}
MidiSettings* midiSettings()
{
    return sMidiSettings;
}
void setMidi(MidiOutput* output, MidiSettings* settings)
{
    sMidiOutput = output;
    sMidiSettings = settings;
}

QString configDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
}

QString resourceDir()
{
    return QCoreApplication::applicationDirPath();
}

QString patchDir()
{
    return configDir() + QStringLiteral("/patch");
}

} // namespace AppContext
