#include "sound/paaudiooutput.h"

#include "sound/denormals.h"
#include "sound/pdplayer.h"

#include <z_libpd.h>

#include <QDebug>

#include <chrono>
#include <cstring>

PaAudioOutput::PaAudioOutput(QObject* parent) : AudioOutput(parent) {}

PaAudioOutput::~PaAudioOutput()
{
    // Only after a start-up that stopped half-way; term() has done this
    // otherwise. Quietly: the log handler may already be gone.
    if (mStream) {
        Pa_StopStream(mStream);
        Pa_CloseStream(mStream);
        mStream = nullptr;
    }
    if (mInitialised) {
        Pa_Terminate();
        mInitialised = false;
    }
}

void PaAudioOutput::logPaError(const char* call, PaError error)
{
    qCritical().noquote() << QStringLiteral("%1 returned err: %2 %3")
                                 .arg(QLatin1String(call))
                                 .arg(error)
                                 .arg(QString::fromLocal8Bit(Pa_GetErrorText(error)));
}

bool PaAudioOutput::init(int framesPerBuffer, int deviceIndex, PdPlayer* player)
{
    mFramesPerBuffer = framesPerBuffer;
    mPlayer = player;

    const PaError error = Pa_Initialize();
    if (error != paNoError) {
        logPaError("Pa_Initialize", error);
        return false;
    }
    mInitialised = true;
    qWarning() << "PortAudio initialised.";
    qDebug() << "PortAudio version number:" << Pa_GetVersion();
    qDebug() << "PortAudio version text:" << Pa_GetVersionText();

    devices(); // builds the device map

    if (selectDevice(deviceIndex)) {
        return true;
    }
    return selectDevice(-1);
}

void PaAudioOutput::term()
{
    qWarning() << "PaAudioOutput::term...";
    closeDevice();
    if (mInitialised) {
        qWarning() << "Calling Pa_Terminate...";
        const PaError error = Pa_Terminate();
        if (error != paNoError) {
            qWarning().noquote() << QStringLiteral("Pa_Terminate returned err: %1 %2")
                                        .arg(error)
                                        .arg(QString::fromLocal8Bit(Pa_GetErrorText(error)));
        }
        mInitialised = false;
    }
}

QString PaAudioOutput::deviceEntry(const QString& hostApiName, const QString& deviceName)
{
    QString host = hostApiName;
    if (host.toLower() == QLatin1String("windows directsound")) {
        host = QStringLiteral("DS");
    }
    return host + QStringLiteral(": ") + deviceName;
}

QStringList PaAudioOutput::devices() const
{
    QStringList list;
    mDeviceMap.clear();
    const int count = Pa_GetDeviceCount();
    if (count < 0) {
        logPaError("Pa_GetDeviceCount", count);
        return list;
    }
    for (int i = 0; i < count; ++i) {
        const PaDeviceInfo* info = Pa_GetDeviceInfo(i);
        if (!info || info->maxOutputChannels < 1) {
            continue; // input-only devices are not listed: list and PortAudio indices differ
        }
        const PaHostApiInfo* hostApi = Pa_GetHostApiInfo(info->hostApi);
        const QString host = hostApi ? QString::fromLocal8Bit(hostApi->name) : QString();
        mDeviceMap.insert(list.size(), i);
        list.append(deviceEntry(host, QString::fromLocal8Bit(info->name)));
    }
    return list;
}

void PaAudioOutput::logDevices() const
{
    const int count = Pa_GetDeviceCount();
    qDebug() << "Number of audio devices found:" << count;
    if (count < 0) {
        logPaError("Pa_GetDeviceCount", count);
        return;
    }
    for (int i = 0; i < count; ++i) {
        const PaDeviceInfo* info = Pa_GetDeviceInfo(i);
        if (!info) {
            continue;
        }
        const PaHostApiInfo* hostApi = Pa_GetHostApiInfo(info->hostApi);
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

bool PaAudioOutput::selectDevice(int deviceIndex)
{
    if (!mInitialised || !mPlayer) {
        qCritical() << "PaAudioOutput::selectDevice called before a successful init";
        return false;
    }

    // 1. The PortAudio device: the listed one, else the system's default.
    int listIndex = deviceIndex;
    PaDeviceIndex paIndex = paNoDevice;
    const auto mapped = mDeviceMap.constFind(deviceIndex);
    if (deviceIndex != -1 && mapped != mDeviceMap.constEnd()) {
        paIndex = mapped.value();
    } else {
        paIndex = Pa_GetDefaultOutputDevice();
        if (paIndex == paNoDevice) {
            qCritical() << "No default output device returned from Pa_GetDefaultOutputDevice";
            return false;
        }
        // Reported as the default's place in the list; when the default is
        // not listed, the index asked for stays.
        for (auto it = mDeviceMap.constBegin(); it != mDeviceMap.constEnd(); ++it) {
            if (it.value() == paIndex) {
                listIndex = it.key();
                break;
            }
        }
    }

    // 2.
    const int count = Pa_GetDeviceCount();
    if (paIndex < 0 || paIndex >= count) {
        qCritical().noquote() << QStringLiteral("Device index %1 passed to "
                                                "PaAudioOutput::selectDevice did not translate "
                                                "to valid paIndex %2. Device count: %3.")
                                     .arg(listIndex)
                                     .arg(paIndex)
                                     .arg(count);
        return false;
    }

    // 3. A failed selection from here on leaves no stream running.
    if (!closeDevice()) {
        return false;
    }

    // 4. Stereo, 32-bit float, interleaved; the latency halfway between the
    // device's low and high defaults.
    const PaDeviceInfo* info = Pa_GetDeviceInfo(paIndex);
    PaStreamParameters output;
    std::memset(&output, 0, sizeof(output));
    output.device = paIndex;
    output.channelCount = CHANNELS;
    output.sampleFormat = paFloat32;
    output.suggestedLatency = (info->defaultLowOutputLatency + info->defaultHighOutputLatency) / 2;
    output.hostApiSpecificStreamInfo = nullptr;
    double sampleRate = SAMPLE_RATE;

    // 5.
    const PaError supported = Pa_IsFormatSupported(nullptr, &output, sampleRate);
    if (supported == paInvalidSampleRate) {
        qWarning() << "Got invalid sample rate for 44100";
        sampleRate = info->defaultSampleRate;
    } else if (supported != paFormatIsSupported) {
        qCritical().noquote() << "Output format not supported"
                              << QStringLiteral("Pa_IsFormatSupported returned err: %1 %2")
                                     .arg(supported)
                                     .arg(QString::fromLocal8Bit(Pa_GetErrorText(supported)));
        setSelectedDevice(-1);
        return false;
    }

    // 6.
    qWarning() << "Selecting device" << listIndex << "with latency:" << output.suggestedLatency
               << "frames per buffer:" << mFramesPerBuffer << "sample rate:" << sampleRate
               << "channel count:" << CHANNELS;

    // 7. No stream runs now, so libpd may be set up from this thread.
    mPlayer->initAudio(CHANNELS, int(sampleRate));

    // 8.
    mSampleRate = sampleRate;
    mOutputLatency = 0.0;
    mStats.reset(); // no callback runs between the close above and the start below
    PaError error = Pa_OpenStream(&mStream, nullptr, &output, sampleRate,
                                  static_cast<unsigned long>(mFramesPerBuffer), paNoFlag,
                                  &PaAudioOutput::portAudioCallback, this);
    if (error != paNoError) {
        logPaError("Pa_OpenStream", error);
        mStream = nullptr;
        setSelectedDevice(-1);
        return false;
    }
    if (const PaStreamInfo* streamInfo = Pa_GetStreamInfo(mStream)) {
        mOutputLatency = streamInfo->outputLatency;
        mSampleRate = streamInfo->sampleRate;
        qWarning() << "PaStream opened with output latency" << streamInfo->outputLatency
                   << "and sample rate" << streamInfo->sampleRate;
    }

    // 9.
    error = Pa_StartStream(mStream);
    if (error != paNoError) {
        // The stream stays open until the next closeDevice().
        logPaError("Pa_StartStream", error);
        setSelectedDevice(-1);
        return false;
    }
    qWarning() << "PaStream started";
    setSelectedDevice(listIndex);
    return true;
}

bool PaAudioOutput::closeDevice()
{
    if (!mStream) {
        return true;
    }
    qWarning() << "Stopping stream...";
    PaError error = Pa_StopStream(mStream);
    if (error != paNoError) {
        logPaError("Pa_StopStream", error); // and close it all the same
    }
    qWarning() << "Closing stream...";
    error = Pa_CloseStream(mStream);
    mStream = nullptr; // forgotten in any case
    if (error != paNoError) {
        logPaError("Pa_CloseStream", error);
        // Any other error still counts as closed, deliberately: the stream is
        // unusable either way, and refusing to go on would leave the user
        // with no way to pick another device.
        return error != paUnanticipatedHostError;
    }
    return true;
}

void PaAudioOutput::mute()
{
    mMuted.store(true, std::memory_order_relaxed);
}

void PaAudioOutput::unmute()
{
    mMuted.store(false, std::memory_order_relaxed);
}

bool PaAudioOutput::isStreamRunning() const
{
    return mStream && Pa_IsStreamActive(mStream) == 1;
}

int PaAudioOutput::portAudioCallback(const void* /*input*/, void* output, unsigned long frames,
                                     const PaStreamCallbackTimeInfo* /*timeInfo*/,
                                     PaStreamCallbackFlags statusFlags, void* userData)
{
    return static_cast<PaAudioOutput*>(userData)->render(static_cast<float*>(output), frames,
                                                         statusFlags);
}

int PaAudioOutput::render(float* output, unsigned long frames,
                          PaStreamCallbackFlags statusFlags) noexcept
{
    const auto start = std::chrono::steady_clock::now();
    // Every time rather than once: PortAudio does not promise one thread for
    // the stream's whole life, and setting it costs a register write.
    Denormals::flushToZero();

    // Commands are carried out whether or not a patch is open. This also
    // gives this thread libpd's instance, which libpd_process_float needs.
    mPlayer->processEvents();

    const std::size_t bytes = std::size_t(frames) * CHANNELS * sizeof(float);
    bool silent = true;
    if (mPlayer->isPatchOpen()) {
        const unsigned long ticks = frames / PD_BLOCK_FRAMES;
        libpd_process_float(int(ticks), nullptr, output);
        // Pd only computes whole blocks. Frames per buffer that are no
        // multiple of 64 leave a remainder Pd cannot fill; it is written as
        // silence rather than left holding whatever the buffer held before.
        const std::size_t written = std::size_t(ticks) * PD_BLOCK_FRAMES * CHANNELS;
        if (written * sizeof(float) < bytes) {
            std::memset(output + written, 0, bytes - written * sizeof(float));
        }
        // Muted: the patch went on running, only its output is discarded.
        silent = mMuted.load(std::memory_order_relaxed);
    }
    if (silent) {
        std::memset(output, 0, bytes);
    }

    const auto end = std::chrono::steady_clock::now();
    const double rate = mSampleRate > 0.0 ? mSampleRate : SAMPLE_RATE;
    const auto periodNs = std::int64_t(double(frames) * 1e9 / rate);
    mStats.record(std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count(),
                  periodNs, (statusFlags & paOutputUnderflow) != 0);
    return paContinue;
}
