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
    // command buffers. GUI thread. A stream can also stop on its own (its
    // audio server went away): the call notices that, and a false answer
    // means that no callback will run the player until a new stream starts,
    // so the caller may carry commands out itself.
    virtual bool isStreamRunning() = 0;

    int selectedDevice() const { return mSelectedDevice; }
    int framesPerBuffer() const { return mFramesPerBuffer; }
    PdPlayer* player() const { return mPlayer; }
    // The player that the callback runs; init() sets it too. GUI thread,
    // while no stream runs (tests and benchmarks render without a device).
    void setPlayer(PdPlayer* player) { mPlayer = player; }

    void setSelectedDevice(int device)
    {
        mSelectedDevice = device;
        emit selectedDeviceChanged(device);
    }

signals:
    void selectedDeviceChanged(int device);
    // The running stream stopped on its own (its device or audio server went
    // away); `message` says so in words for the window. The output retries
    // by itself.
    void deviceLost(QString message);
    // The lost device runs again; `message` says so for the window.
    void deviceRestored(QString message);

protected:
    int mSelectedDevice = -1;
    int mFramesPerBuffer = 256;
    PdPlayer* mPlayer = nullptr;
};
