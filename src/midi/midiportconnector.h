#pragma once

#include <QString>
#include <QStringList>

#include <memory>
#include <string>
#include <vector>

// Connects other programs' and devices' MIDI output ports to one input port
// of this program, as a third party, the way jack_connect and aconnect do:
// on JACK through a client of its own that has no ports, on ALSA through a
// sequencer client of its own that makes the subscriptions. So any number of
// sources feed the one port, and the one thread that reads it.
//
// Threads: GUI thread only. Nothing here runs on a real-time thread.
class MidiPortConnector
{
public:
    struct Port
    {
        QString name;        // "client:port"
        QStringList aliases; // other names the system knows it by
        bool own = false;    // a port of this program (never a source)

        // The first of `texts` that the name or one of the aliases contains,
        // in any case; empty when none does.
        QString firstMatch(const QStringList& texts) const;
    };

    virtual ~MidiPortConnector();

    // The connector for JACK (`jack`) or the ALSA sequencer; null when that
    // system cannot be reached, with the reason in `error`.
    static std::unique_ptr<MidiPortConnector> make(bool jack, const QString& clientName,
                                                   QString& error);

    // Finds the input port called `portName` that this process registered
    // under a client whose name begins with `clientName` (JACK adds a number
    // to a client name that is taken). False when there is none.
    virtual bool findOwnInput(const QString& clientName, const QString& portName) = 0;
    // Its full name, once found.
    virtual QString ownInput() const = 0;

    // The MIDI output ports that exist now.
    virtual std::vector<Port> sources() = 0;
    // Connects `source` to the own input, unless it is already connected.
    // False on failure, with the reason in `error`.
    virtual bool connectToOwn(const Port& source, QString& error) = 0;
    // Whether the MIDI system has gone away under the connector (a JACK
    // server that stopped). Then nothing above works any more, and RtMidi's
    // objects on that server must be abandoned, not destroyed (see
    // JackServerWatch).
    virtual bool systemGone() const = 0;
};
