#include "sound/paoutputstream.h"

#include "sound/boundedcall.h"
#include "sound/portaudiolibrary.h"

#include <QDebug>

#include <cstring>

bool PaOutputStream::chooseFormat(const PortAudioLibrary& library, PaDeviceIndex device)
{
    // Stereo, 32-bit float, interleaved; the latency halfway between the
    // device's low and high defaults.
    const PaDeviceInfo* info = library.GetDeviceInfo(device);
    std::memset(&mParameters, 0, sizeof(mParameters));
    mParameters.device = device;
    mParameters.channelCount = CHANNELS;
    mParameters.sampleFormat = paFloat32;
    mParameters.suggestedLatency =
        (info->defaultLowOutputLatency + info->defaultHighOutputLatency) / 2;
    mParameters.hostApiSpecificStreamInfo = nullptr;
    mChosenRate = SAMPLE_RATE;

    const PaError supported = library.IsFormatSupported(nullptr, &mParameters, mChosenRate);
    if (supported == paInvalidSampleRate) {
        qWarning() << "Got invalid sample rate for 44100";
        mChosenRate = info->defaultSampleRate;
    } else if (supported != paFormatIsSupported) {
        qCritical().noquote() << "Output format not supported"
                              << QStringLiteral("Pa_IsFormatSupported returned err: %1 %2")
                                     .arg(supported)
                                     .arg(QString::fromLocal8Bit(library.GetErrorText(supported)));
        return false;
    }
    return true;
}

bool PaOutputStream::open(const PortAudioLibrary& library, unsigned long framesPerBuffer,
                          PaStreamCallback* callback, PaStreamFinishedCallback* finished,
                          void* context)
{
    mSampleRate = mChosenRate;
    mOutputLatency = 0.0;
    const PaError error = library.OpenStream(&mStream, nullptr, &mParameters, mChosenRate,
                                             framesPerBuffer, paNoFlag, callback, context);
    if (error != paNoError) {
        logError(library, "Pa_OpenStream", error);
        mStream = nullptr;
        return false;
    }
    library.SetStreamFinishedCallback(mStream, finished);
    if (const PaStreamInfo* streamInfo = library.GetStreamInfo(mStream)) {
        mOutputLatency = streamInfo->outputLatency;
        mSampleRate = streamInfo->sampleRate;
        qWarning() << "PaStream opened with output latency" << streamInfo->outputLatency
                   << "and sample rate" << streamInfo->sampleRate;
    }
    return true;
}

bool PaOutputStream::start(const PortAudioLibrary& library)
{
    const PaError error = library.StartStream(mStream);
    if (error != paNoError) {
        logError(library, "Pa_StartStream", error);
        return false;
    }
    qWarning() << "PaStream started";
    return true;
}

bool PaOutputStream::isActive(const PortAudioLibrary& library) const
{
    return library.IsStreamActive(mStream) == 1;
}

bool PaOutputStream::stopAndClose(const std::shared_ptr<PortAudioLibrary>& library, int timeoutMs)
{
    qWarning() << "Stopping stream...";
    PaStream* stream = mStream;
    PaError error = paNoError;
    // Stopping and closing a stream whose server went away may never
    // return (see PortAudioLibrary): both are bounded, and a stream that
    // does not let go is left behind with its library.
    const bool stopped = BoundedCall::run(
        timeoutMs, [library, stream] { return library->StopStream(stream); }, &error);
    if (stopped && error != paNoError) {
        logError(*library, "Pa_StopStream", error); // and close it all the same
    }
    bool closedInTime = false;
    if (stopped) {
        qWarning() << "Closing stream...";
        closedInTime = BoundedCall::run(
            timeoutMs, [library, stream] { return library->CloseStream(stream); }, &error);
    }
    mStream = nullptr; // forgotten in any case
    if (!closedInTime) {
        qCritical() << "The audio stream did not stop within" << timeoutMs
                    << "ms; it is left behind";
        PortAudioLibrary::abandon(library);
        return true;
    }
    if (error != paNoError) {
        logError(*library, "Pa_CloseStream", error);
        // Any other error still counts as closed, deliberately: the stream
        // is unusable either way, and refusing to go on would leave the user
        // with no way to pick another device.
        return error != paUnanticipatedHostError;
    }
    return true;
}

void PaOutputStream::stopAndCloseQuietly(const std::shared_ptr<PortAudioLibrary>& library,
                                         int timeoutMs)
{
    PaError ignored = paNoError;
    PaStream* stream = mStream;
    if (!BoundedCall::run(
            timeoutMs,
            [library, stream] {
                library->StopStream(stream);
                return library->CloseStream(stream);
            },
            &ignored)) {
        PortAudioLibrary::abandon(library);
    }
    mStream = nullptr;
}

void PaOutputStream::logError(const PortAudioLibrary& library, const char* call, PaError error)
{
    qCritical().noquote() << QStringLiteral("%1 returned err: %2 %3")
                                 .arg(QLatin1String(call))
                                 .arg(error)
                                 .arg(QString::fromLocal8Bit(library.GetErrorText(error)));
}
