#include "sound/padevicelist.h"

#include "sound/portaudiolibrary.h"

#include <QDebug>

QString PaDeviceList::entry(const QString& hostApiName, const QString& deviceName)
{
    QString host = hostApiName;
    if (host.toLower() == QLatin1String("windows directsound")) {
        host = QStringLiteral("DS");
    }
    return host + QStringLiteral(": ") + deviceName;
}

QStringList PaDeviceList::rebuild(const PortAudioLibrary& library, int count)
{
    QStringList list;
    mPortAudioIndex.clear();
    for (int i = 0; i < count; ++i) {
        const PaDeviceInfo* info = library.GetDeviceInfo(i);
        if (!info || info->maxOutputChannels < 1) {
            continue; // input-only devices are not listed: list and PortAudio indices differ
        }
        const PaHostApiInfo* hostApi = library.GetHostApiInfo(info->hostApi);
        const QString host = hostApi ? QString::fromLocal8Bit(hostApi->name) : QString();
        mPortAudioIndex.insert(list.size(), i);
        list.append(entry(host, QString::fromLocal8Bit(info->name)));
    }
    return list;
}

PaDeviceIndex PaDeviceList::choose(const PortAudioLibrary& library, int& listIndex) const
{
    // The listed device, else the system's default.
    PaDeviceIndex paIndex = paNoDevice;
    const auto mapped = mPortAudioIndex.constFind(listIndex);
    if (listIndex != -1 && mapped != mPortAudioIndex.constEnd()) {
        paIndex = mapped.value();
    } else {
        paIndex = library.GetDefaultOutputDevice();
        if (paIndex == paNoDevice) {
            qCritical() << "No default output device returned from Pa_GetDefaultOutputDevice";
            return paNoDevice;
        }
        // Reported as the default's place in the list; when the default is
        // not listed, the index asked for stays.
        for (auto it = mPortAudioIndex.constBegin(); it != mPortAudioIndex.constEnd(); ++it) {
            if (it.value() == paIndex) {
                listIndex = it.key();
                break;
            }
        }
    }
    const int count = library.GetDeviceCount();
    if (paIndex < 0 || paIndex >= count) {
        qCritical().noquote() << QStringLiteral("Device index %1 passed to "
                                                "PaAudioOutput::selectDevice did not translate "
                                                "to valid paIndex %2. Device count: %3.")
                                     .arg(listIndex)
                                     .arg(paIndex)
                                     .arg(count);
        return paNoDevice;
    }
    return paIndex;
}

void PaDeviceList::log(const PortAudioLibrary& library, int count)
{
    for (int i = 0; i < count; ++i) {
        const PaDeviceInfo* info = library.GetDeviceInfo(i);
        if (!info) {
            continue;
        }
        const PaHostApiInfo* hostApi = library.GetHostApiInfo(info->hostApi);
        qDebug() << "Index:" << i;
        qDebug() << "Name:" << QString::fromLocal8Bit(info->name);
        qDebug() << "Host API:" << (hostApi ? QString::fromLocal8Bit(hostApi->name) : QString());
        qDebug() << "Max inputs:" << info->maxInputChannels;
        qDebug() << "Max outputs:" << info->maxOutputChannels;
        qDebug() << "Default low input latency:" << info->defaultLowInputLatency;
        qDebug() << "Default high input latency:" << info->defaultHighInputLatency;
        qDebug() << "Default low output latency:" << info->defaultLowOutputLatency;
        qDebug() << "Default high output latency:" << info->defaultHighOutputLatency;
        qDebug() << "Default sample rate:" << info->defaultSampleRate;
    }
}
