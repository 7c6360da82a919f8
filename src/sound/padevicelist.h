#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include <portaudio.h>

class PortAudioLibrary;

// The output devices PortAudio offers, as the options list them: "host:
// device" for each device with output channels, in PortAudio's order ("DS"
// stands for a Windows DirectSound host). Input-only devices are not listed,
// so a list index and PortAudio's index differ: the list keeps the map from
// one to the other, rebuilt with the list, so that the two always agree. It
// chooses the device for a list index, and logs the device table.
//
// GUI thread.
class PaDeviceList
{
public:
    // The list entry for a host API and device name.
    static QString entry(const QString& hostApiName, const QString& deviceName);

    // Rebuilds the list and the map from the first `count` devices of
    // `library`, and returns the list.
    QStringList rebuild(const PortAudioLibrary& library, int count);
    // No devices (before PortAudio starts, or when it cannot count them).
    void clear() { mPortAudioIndex.clear(); }
    bool isEmpty() const { return mPortAudioIndex.isEmpty(); }

    // The PortAudio device for the entry at `listIndex`; -1, or an index
    // that is not in the list, means the system's default output device,
    // whose place in the list (if it is listed) goes into `listIndex`.
    // paNoDevice, logged, when there is no default or PortAudio has no such
    // device.
    PaDeviceIndex choose(const PortAudioLibrary& library, int& listIndex) const;

    // The first `count` devices of `library`, each with its properties, at
    // debug level.
    static void log(const PortAudioLibrary& library, int count);

private:
    QHash<int, int> mPortAudioIndex; // list index to PortAudio index
};
