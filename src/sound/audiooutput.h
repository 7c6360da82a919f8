#pragma once

#include <QObject>
#include <QStringList>

class PdPlayer;

// The audio output: lists the output devices, runs one of them as a stream
// and, from the stream's callback, has the player carry out its commands and
// compute the sound. PaAudioOutput is the implementation on PortAudio.
//
// Everything but the stream callback runs on the GUI thread.
class AudioOutput : public QObject
{
    Q_OBJECT
public:
    explicit AudioOutput(QObject* parent = nullptr) : QObject(parent) {}

    // Stores the buffer size and the player, starts the audio library and
    // opens `deviceIndex` (an index into devices(); -1 for the system's
    // default), falling back to the default device.
    virtual bool init(int framesPerBuffer, int deviceIndex, PdPlayer* player) = 0;
    virtual void term() = 0;
    // Names of the output devices, "host: device"; the list index is what
    // selectDevice() and the "audioDevice" option take.
    virtual QStringList devices() const = 0;
    virtual void logDevices() const = 0;
    virtual bool selectDevice(int deviceIndex) = 0;
    // While muted, every buffer is written as silence (the patch still runs).
    // The change reaches the callback at the latest one buffer later.
    virtual void mute() = 0;
    virtual void unmute() = 0;

    // Whether a stream is running, so that its callback will drain the
    // command buffers. GUI thread. The GUI thread starts and stops streams,
    // but a stream can also stop on its own (its audio server went away), so
    // the answer asks the audio library rather than remembering.
    virtual bool isStreamRunning() const = 0;

    int selectedDevice() const { return mSelectedDevice; }
    int framesPerBuffer() const { return mFramesPerBuffer; }
    PdPlayer* player() const { return mPlayer; }

    void setSelectedDevice(int device)
    {
        mSelectedDevice = device;
        emit selectedDeviceChanged(device);
    }

signals:
    void selectedDeviceChanged(int device);

protected:
    int mSelectedDevice = -1;
    int mFramesPerBuffer = 256;
    PdPlayer* mPlayer = nullptr;
};
