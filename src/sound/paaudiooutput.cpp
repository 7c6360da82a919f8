#include "sound/paaudiooutput.h"

#include "settings/settings.h"
#include "sound/boundedcall.h"
#include "sound/pdplayer.h"
#include "sound/portaudiolibrary.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QThread>

#include <chrono>
#include <cstring>

// What a stream's callback is given: the output and the token the stream was
// started with. Lives as long as the stream, or for good when the stream is
// left behind, since its callback may still come.
struct PaAudioOutput::StreamContext
{
    PaAudioOutput* output;
    std::uint32_t token;
};

namespace {

// The render owner while the GUI thread holds it; never a stream's token.
constexpr std::uint32_t GUI_OWNER = 0xffffffffu;

} // namespace

int PaAudioOutput::unfinishedCalls()
{
    return BoundedCall::unfinished();
}

PaAudioOutput::PaAudioOutput(QObject* parent)
    : AudioOutput(parent), mLibrary(PortAudioLibrary::linked())
{
    connect(&mRecovery, &DeviceRecovery::deviceLost, this, &AudioOutput::deviceLost);
    connect(&mRecovery, &DeviceRecovery::deviceRestored, this, &AudioOutput::deviceRestored);
}

PaAudioOutput::~PaAudioOutput()
{
    // Only after a start-up that stopped half-way; term() has done this
    // otherwise. Quietly: the log handler may already be gone.
    mRecovery.stopWatching();
    mRecovery.stopRetrying();
    if (mStream.isOpen() && !mLibrary->isAbandoned()) {
        mStream.stopAndCloseQuietly(mLibrary, STOP_TIMEOUT_MS);
    }
    retireCallbacks();
    if (mInitialised && !mLibrary->isAbandoned()) {
        PaError ignored = paNoError;
        const auto library = mLibrary;
        if (!BoundedCall::run(STOP_TIMEOUT_MS, [library] { return library->Terminate(); },
                              &ignored)) {
            PortAudioLibrary::abandon(mLibrary);
        }
    }
    mInitialised = false;
    if (!mLibrary->isAbandoned()) {
        delete mContext; // a context left behind stays: its callback may still come
    }
}

void PaAudioOutput::logPaError(const char* call, PaError error) const
{
    qCritical().noquote() << QStringLiteral("%1 returned err: %2 %3")
                                 .arg(QLatin1String(call))
                                 .arg(error)
                                 .arg(QString::fromLocal8Bit(mLibrary->GetErrorText(error)));
}

bool PaAudioOutput::init(int framesPerBuffer, int deviceIndex, PdPlayer* player)
{
    // A value typed into the options file by hand: 0 or less cannot open a
    // stream, and a huge one would delay every note by seconds.
    if (framesPerBuffer < Settings::FRAMES_MIN || framesPerBuffer > Settings::FRAMES_MAX) {
        qWarning() << "Frames per buffer" << framesPerBuffer << "cannot be used (" << Settings::FRAMES_MIN
                   << "to" << Settings::FRAMES_MAX << "); using" << DEFAULT_FRAMES_PER_BUFFER;
        framesPerBuffer = DEFAULT_FRAMES_PER_BUFFER;
    }
    mFramesPerBuffer = framesPerBuffer;
    mPlayer = player;

    const PaError error = mLibrary->Initialize();
    if (error != paNoError) {
        logPaError("Pa_Initialize", error);
        return false;
    }
    mInitialised = true;
    qWarning() << "PortAudio initialised.";
    qDebug() << "PortAudio version number:" << mLibrary->GetVersion();
    qDebug() << "PortAudio version text:" << mLibrary->GetVersionText();

    devices(); // builds the device map

    if (selectDevice(deviceIndex)) {
        return true;
    }
    return selectDevice(-1);
}

void PaAudioOutput::term()
{
    qWarning() << "PaAudioOutput::term...";
    mRecovery.stopRetrying();
    closeDevice();
    if (mInitialised) {
        qWarning() << "Calling Pa_Terminate...";
        terminateLibrary();
    }
}

void PaAudioOutput::terminateLibrary()
{
    mInitialised = false;
    if (mLibrary->isAbandoned()) {
        return; // never called again, see PortAudioLibrary
    }
    PaError error = paNoError;
    const auto library = mLibrary;
    if (!BoundedCall::run(STOP_TIMEOUT_MS, [library] { return library->Terminate(); }, &error)) {
        qCritical() << "Pa_Terminate did not return within" << STOP_TIMEOUT_MS
                    << "ms; the audio library is left behind";
        PortAudioLibrary::abandon(mLibrary);
        return;
    }
    if (error != paNoError) {
        qWarning().noquote() << QStringLiteral("Pa_Terminate returned err: %1 %2")
                                    .arg(error)
                                    .arg(QString::fromLocal8Bit(mLibrary->GetErrorText(error)));
    }
}

bool PaAudioOutput::startLibraryAfresh(QString* copyError)
{
    // PortAudio learns of devices and servers only when it starts, so each
    // attempt starts it afresh; a library left behind is replaced by a copy.
    if (mInitialised) {
        terminateLibrary();
    }
    if (mLibrary->isAbandoned()) {
        std::shared_ptr<PortAudioLibrary> fresh = PortAudioLibrary::freshCopy(copyError);
        if (!fresh) {
            return false;
        }
        mLibrary = fresh;
    }
    if (mLibrary->Initialize() != paNoError) {
        return false;
    }
    mInitialised = true;
    return true;
}

QString PaAudioOutput::deviceEntry(const QString& hostApiName, const QString& deviceName)
{
    return PaDeviceList::entry(hostApiName, deviceName);
}

QStringList PaAudioOutput::devices() const
{
    mDeviceList.clear();
    if (!mInitialised) {
        return QStringList();
    }
    const int count = mLibrary->GetDeviceCount();
    if (count < 0) {
        logPaError("Pa_GetDeviceCount", count);
        return QStringList();
    }
    return mDeviceList.rebuild(*mLibrary, count);
}

void PaAudioOutput::logDevices() const
{
    if (!mInitialised) {
        return;
    }
    const int count = mLibrary->GetDeviceCount();
    qDebug() << "Number of audio devices found:" << count;
    if (count < 0) {
        logPaError("Pa_GetDeviceCount", count);
        return;
    }
    PaDeviceList::log(*mLibrary, count);
}

bool PaAudioOutput::selectDevice(int deviceIndex)
{
    if (!mInitialised || !mPlayer) {
        qCritical() << "PaAudioOutput::selectDevice called before a successful init";
        return false;
    }
    int listIndex = deviceIndex;
    const PaDeviceIndex paIndex = mDeviceList.choose(*mLibrary, listIndex);
    if (paIndex == paNoDevice) {
        return false;
    }
    // A failed selection from here on leaves no stream running.
    if (!closeDevice()) {
        return false;
    }
    if (!mStream.chooseFormat(*mLibrary, paIndex)) {
        setSelectedDevice(-1);
        return false;
    }
    const double sampleRate = mStream.chosenSampleRate();
    qWarning() << "Selecting device" << listIndex << "with latency:" << mStream.suggestedLatency()
               << "frames per buffer:" << mFramesPerBuffer << "sample rate:" << sampleRate
               << "channel count:" << CHANNELS;
    // No stream runs now, so libpd may be set up from this thread.
    mPlayer->initAudio(CHANNELS, int(sampleRate));
    if (!openStream() || !mStream.start(*mLibrary)) {
        // A stream that does not start stays open until the next closeDevice().
        setSelectedDevice(-1);
        return false;
    }
    mPlayer->setAudioThreadRunning(true);
    mRecovery.watch(devices().value(listIndex));
    setSelectedDevice(listIndex);
    return true;
}

bool PaAudioOutput::openStream()
{
    mStats.reset(); // no callback runs between the close before and the start after
    mStreamFinished.store(false);
    mContext = new StreamContext{this, mStreamToken.load()};
    if (!mStream.open(*mLibrary, static_cast<unsigned long>(mFramesPerBuffer),
                      &PaAudioOutput::portAudioCallback, &PaAudioOutput::onStreamFinished,
                      mContext)) {
        delete mContext;
        mContext = nullptr;
        return false;
    }
    return true;
}

bool PaAudioOutput::closeDevice()
{
    mRecovery.stopWatching();
    if (!mStream.isOpen()) {
        return true;
    }
    bool closed = true;
    if (mLibrary->isAbandoned()) {
        mStream.forget(); // nothing may be called in a library left behind
    } else {
        closed = mStream.stopAndClose(mLibrary, STOP_TIMEOUT_MS);
    }
    retireCallbacks();
    logStreamStats();
    // No callback renders any more: patch changes are carried out at once.
    mPlayer->setAudioThreadRunning(false);
    if (!mLibrary->isAbandoned()) {
        delete mContext;
    }
    mContext = nullptr;
    return closed;
}

void PaAudioOutput::logStreamStats() const
{
    // The callback counts its timing but may not log, and nothing else shows
    // it outside the program: one line per stream, here, once its last
    // callback has ended and the figures are final, lets a long run (a show,
    // a soak under load) read its xruns and worst callback from the log.
    const CallbackStats::Snapshot stats = mStats.snapshot();
    if (stats.callbacks == 0) {
        return;
    }
    const auto ms = [](std::int64_t ns) { return QString::number(double(ns) / 1e6, 'f', 3); };
    qInfo().noquote() << QStringLiteral(
                             "Audio stream closed after %1 callbacks: %2 xruns, %3 "
                             "overruns, worst %4 ms, 99th percentile %5 ms, period %6 ms")
                             .arg(stats.callbacks)
                             .arg(stats.underflows)
                             .arg(stats.overruns)
                             .arg(ms(stats.maxNs), ms(stats.percentileNs(0.99)),
                                  ms(stats.periodNs));
}

void PaAudioOutput::retireCallbacks()
{
    // From here on no callback of an earlier stream matches the token; the
    // next stream gets the new one.
    mStreamToken.fetch_add(1);
    if (mStreamToken.load() == GUI_OWNER) {
        mStreamToken.store(1);
    }
    // Taking the owner once waits out a callback that is inside render()
    // now; any that comes later sees the new token and stays out.
    // There is no giving up: a callback that is still rendering owns the
    // player, and touching it from here would corrupt it. A callback always
    // ends, and none waits for this thread.
    QElapsedTimer waited;
    waited.start();
    bool told = false;
    std::uint32_t expected = 0;
    while (!mRenderOwner.compare_exchange_weak(expected, GUI_OWNER, std::memory_order_acquire)) {
        expected = 0;
        if (!told && waited.elapsed() > STOP_TIMEOUT_MS) {
            qWarning() << "Waiting for an audio callback that has run for" << waited.elapsed()
                       << "ms";
            told = true;
        }
        QThread::usleep(200);
    }
    mRenderOwner.store(0, std::memory_order_release);
}

void PaAudioOutput::mute()
{
    mPlayer->setMuted(true);
}

void PaAudioOutput::unmute()
{
    mPlayer->setMuted(false);
}

bool PaAudioOutput::isStreamRunning()
{
    if (!mStream.isOpen() || mRecovery.isLost()) {
        return false;
    }
    checkStream(); // a stream that died is noticed here, not only by the watchdog
    return mStream.isOpen() && !mRecovery.isLost();
}

void PaAudioOutput::checkStream()
{
    mRecovery.check();
}

bool PaAudioOutput::retryLostDevice()
{
    return mRecovery.retry();
}

void PaAudioOutput::onStreamFinished(void* userData)
{
    auto* context = static_cast<StreamContext*>(userData);
    PaAudioOutput* output = context->output;
    if (context->token == output->mStreamToken.load()) {
        output->mStreamFinished.store(true);
    }
}

int PaAudioOutput::portAudioCallback(const void* /*input*/, void* output, unsigned long frames,
                                     const PaStreamCallbackTimeInfo* /*timeInfo*/,
                                     PaStreamCallbackFlags statusFlags, void* userData)
{
    auto* context = static_cast<StreamContext*>(userData);
    return context->output->onStreamCallback(context->token, static_cast<float*>(output), frames,
                                             statusFlags);
}

int PaAudioOutput::onStreamCallback(std::uint32_t token, float* output, unsigned long frames,
                                    PaStreamCallbackFlags statusFlags) noexcept
{
    // What may still happen on this thread, and only inside libpd: libpd
    // takes its instance's own lock around each call (never contended: only
    // this thread uses the instance), and some Pd objects allocate in some
    // of their message methods. Patches are opened and closed on the GUI
    // thread, in instances this thread does not use at the time. Apart from
    // that, nothing here blocks, locks, allocates, logs, emits or touches a
    // file or socket: the player reports through a fixed queue, and the
    // render owner below is one compare-and-swap that never waits.
    const auto start = std::chrono::steady_clock::now();
    const std::size_t bytes = std::size_t(frames) * CHANNELS * sizeof(float);
    std::uint32_t nobody = 0;
    if (!mRenderOwner.compare_exchange_strong(nobody, token, std::memory_order_acquire)) {
        std::memset(output, 0, bytes); // another stream's callback, or the GUI thread, has it
        return paContinue;
    }
    if (token != mStreamToken.load(std::memory_order_relaxed)) {
        // A stream that was left behind came back to life: it must never
        // run the player again.
        mRenderOwner.store(0, std::memory_order_release);
        std::memset(output, 0, bytes);
        return paAbort;
    }
    render(output, int(frames));
    mCallbackCount.store(mCallbackCount.load(std::memory_order_relaxed) + 1,
                         std::memory_order_relaxed);
    mRenderOwner.store(0, std::memory_order_release);

    const auto end = std::chrono::steady_clock::now();
    const double rate = mStream.sampleRate() > 0.0 ? mStream.sampleRate() : SAMPLE_RATE;
    const auto periodNs = std::int64_t(double(frames) * 1e9 / rate);
    mStats.record(std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count(),
                  periodNs, (statusFlags & paOutputUnderflow) != 0);
    return paContinue;
}

void PaAudioOutput::render(float* output, int frames) noexcept
{
    mPlayer->render(output, frames);
}
