#include "sound/devicerecovery.h"

#include "model/arboevent.h"
#include "sound/paaudiooutput.h"
#include "sound/pdplayer.h"
#include "sound/portaudiolibrary.h"

#include <QDebug>

DeviceRecovery::DeviceRecovery(PaAudioOutput& output) : mOutput(output)
{
    mWatchdog.setInterval(PaAudioOutput::WATCHDOG_INTERVAL_MS);
    connect(&mWatchdog, &QTimer::timeout, this, &DeviceRecovery::check);
    mRetryTimer.setInterval(PaAudioOutput::REOPEN_INTERVAL_MS);
    connect(&mRetryTimer, &QTimer::timeout, this, &DeviceRecovery::retry);
}

void DeviceRecovery::watch(const QString& deviceName)
{
    mLostDeviceName = deviceName;
    mSeenCallbacks = mOutput.mCallbackCount.load();
    mSinceProgress.start();
    mWatchdog.start();
}

void DeviceRecovery::check()
{
    if (!mOutput.mStream.isOpen() || mLost || mOutput.mLibrary->isAbandoned()) {
        return;
    }
    if (mOutput.mStreamFinished.load()) {
        lose(QStringLiteral("the audio stream stopped"));
        return;
    }
    if (!mOutput.mStream.isActive(*mOutput.mLibrary)) {
        lose(QStringLiteral("the audio system stopped the stream"));
        return;
    }
    const std::uint64_t callbacks = mOutput.mCallbackCount.load(std::memory_order_relaxed);
    // A callback that is still rendering (opening a large patch takes a
    // while) is slow, not gone: only a stream whose callbacks stopped coming
    // is lost.
    if (callbacks != mSeenCallbacks || mOutput.mRenderOwner.load(std::memory_order_relaxed) != 0) {
        mSeenCallbacks = callbacks;
        mSinceProgress.start();
    } else if (mSinceProgress.elapsed() > PaAudioOutput::STALL_TIMEOUT_MS) {
        lose(QStringLiteral("no audio for %1 s").arg(PaAudioOutput::STALL_TIMEOUT_MS / 1000.0));
    }
}

void DeviceRecovery::lose(const QString& reason)
{
    mLost = true;
    mRetryFailureLogged = false;
    qWarning().noquote()
        << QStringLiteral("Audio device lost: %1. Trying to open it again.").arg(reason);
    mOutput.closeDevice(); // bounded, and keeps every later callback of it away from the player
    emit deviceLost(QStringLiteral("Audio device lost (%1). Reconnecting as soon as it is back...")
                        .arg(reason));
    mRetryTimer.start();
}

bool DeviceRecovery::retry()
{
    if (!mLost) {
        mRetryTimer.stop();
        return true;
    }
    QString copyError;
    if (!mOutput.startLibraryAfresh(&copyError)) {
        if (!copyError.isEmpty() && !mRetryFailureLogged) {
            qCritical().noquote() << "Cannot load the audio library again:" << copyError;
            mRetryFailureLogged = true;
        }
        return false;
    }
    // Quietly until there is something to open: the attempts repeat every
    // second, and selectDevice() logs its failures as errors.
    const int wanted = mOutput.devices().indexOf(mLostDeviceName);
    if (!canOpen(wanted)) {
        mOutput.terminateLibrary();
        return false;
    }
    tidyPlayer();
    if (!mOutput.selectDevice(wanted)) {
        return false;
    }
    mLost = false;
    mRetryTimer.stop();
    const QString device = mOutput.devices().value(mOutput.selectedDevice());
    qWarning().noquote() << "Audio device opened again:" << device;
    emit deviceRestored(QStringLiteral("Audio device back: %1").arg(device));
    return true;
}

bool DeviceRecovery::canOpen(int wanted) const
{
    return wanted >= 0 || (!mOutput.mDeviceList.isEmpty() &&
                           mOutput.mLibrary->GetDefaultOutputDevice() != paNoDevice);
}

void DeviceRecovery::tidyPlayer()
{
    // No callback runs now, so the player is this thread's to tidy up: what
    // was queued meanwhile is carried out, then every note is let go, so
    // that the device comes back silent and the lattice shows no note
    // playing that nobody hears.
    PdPlayer* player = mOutput.player();
    player->processEvents();
    const ArboEvent allOff(ArboEvent::AllNotesOff, 1.0f);
    player->queueEventGui(&allOff);
    player->processEvents();
}
