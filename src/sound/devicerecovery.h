#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <cstdint>

class PaAudioOutput;

// Brings a lost audio device back. A stage machine loses its device now and
// then (a USB interface pulled, a sound server restarted). A watchdog notices
// a stream that stopped on its own or whose callbacks no longer come, says so
// once (deviceLost), and tries to open the device again every second until it
// can (deviceRestored). Each attempt starts PortAudio afresh, as PortAudio
// learns of devices and servers only when it starts.
//
// A part of PaAudioOutput, which owns it and passes its signals on; it works
// on the output's stream and library. GUI thread, all of it: what it reads
// of the stream's callback is atomic.
class DeviceRecovery : public QObject
{
    Q_OBJECT
public:
    explicit DeviceRecovery(PaAudioOutput& output);

    // A stream on the device listed as `deviceName` has started: the
    // watchdog looks at it from now on, and a loss retries that device.
    void watch(const QString& deviceName);
    // The stream is being closed on purpose.
    void stopWatching() { mWatchdog.stop(); }
    void stopRetrying() { mRetryTimer.stop(); }
    // Whether the device was lost and is being retried.
    bool isLost() const { return mLost; }

    // The watchdog's look at the running stream (its timer calls it).
    void check();
    // One attempt to open the lost device again (the retry timer calls it).
    // True when the device runs again.
    bool retry();

signals:
    void deviceLost(QString message);
    void deviceRestored(QString message);

private:
    // Declares the stream lost: logs it, keeps every later callback of it
    // away from the player, lets it go and starts the retries.
    void lose(const QString& reason);
    // Whether there is anything to open: the lost device, or a default one.
    bool canOpen(int wanted) const;
    // Carries out what was queued while the device was lost, then lets
    // every note go.
    void tidyPlayer();

    PaAudioOutput& mOutput;
    QTimer mWatchdog;
    QTimer mRetryTimer;
    QElapsedTimer mSinceProgress;
    std::uint64_t mSeenCallbacks = 0;
    bool mLost = false;
    bool mRetryFailureLogged = false;
    QString mLostDeviceName;
};
