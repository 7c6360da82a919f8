#include "recording/recorder.h"

#include "recording/recordingsettings.h"
#include "settings/paths.h"
#include "sound/commanddispatcher.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "sound/recordtap.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

namespace {

QString readText(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

Recorder::Recorder(PdPlayer* player, const RecordingSettings* settings, QObject* parent)
    : QObject(parent), mPlayer(player), mSettings(settings),
      mPatches(std::make_shared<RecordingWriter::PatchBook>())
{
    // Direct: the patch is in the book before the audio thread can take the
    // change up and log it.
    connect(player, &PdPlayer::patchHandingOver, this, &Recorder::onPatchHandingOver,
            Qt::DirectConnection);
    mPoll.setInterval(POLL_INTERVAL_MS);
    connect(&mPoll, &QTimer::timeout, this, &Recorder::poll);
}

Recorder::~Recorder()
{
    stop();
}

void Recorder::onPatchHandingOver(quint32 serial, const QString& file)
{
    PerformanceLog::Patch patch;
    if (!file.isEmpty()) {
        patch.none = false;
        patch.file = QFileInfo(file).fileName();
        // The engine's main patch plays the voice copied beside it: the log
        // keeps the voice, which is what the player chose.
        if (QFileInfo(file) == QFileInfo(PatchLoader::mainPatchFile())) {
            patch.voice = QFileInfo(PatchLoader::currentVoice()).fileName();
            patch.voiceText = readText(PatchLoader::voiceFile());
        } else {
            patch.text = readText(file);
        }
    }
    mPatches->add(serial, patch);
}

QString Recorder::freeBaseName(const QString& folder, const QString& extension) const
{
    const QString stamp =
        QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd_HH-mm-ss"));
    QString base = folder + QLatin1Char('/') + stamp;
    for (int n = 2; QFileInfo::exists(base + QLatin1Char('.') + extension) ||
                    QFileInfo::exists(base + QStringLiteral(".jsonl"));
         ++n) {
        base = folder + QLatin1Char('/') + stamp + QLatin1Char('-') + QString::number(n);
    }
    return base;
}

bool Recorder::start()
{
    if (isRecording()) {
        return true;
    }
    const QString folder = mSettings->folder();
    if (!QDir().mkpath(folder)) {
        report(tr("Cannot record: the recordings folder %1 cannot be made.").arg(folder), true);
        return false;
    }
    const AudioFileWriter::Format format = mSettings->mFormat;
    const QString base = freeBaseName(folder, AudioFileWriter::extension(format));
    mSampleRate = mPlayer->sampleRate();
    std::unique_ptr<AudioFileWriter> audio;
    if (mSettings->mAudio) {
        audio = std::make_unique<AudioFileWriter>();
        if (!audio->open(base + QLatin1Char('.') + AudioFileWriter::extension(format), format,
                         mSampleRate, RecordTap::CHANNELS)) {
            report(tr("Cannot record: %1").arg(audio->error()), true);
            QFile::remove(audio->path());
            return false;
        }
    }
    auto log = std::make_unique<QFile>(base + QStringLiteral(".jsonl"));
    if (!log->open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        report(tr("Cannot record: %1: %2").arg(log->fileName(), log->errorString()), true);
        if (audio) {
            audio->close();
            QFile::remove(audio->path());
        }
        return false;
    }
    mAudioPath = audio ? audio->path() : QString();
    mLogPath = log->fileName();

    PerformanceLog::Header header;
    header.program =
        QStringLiteral("%1 %2").arg(QLatin1String(Paths::APP_NAME), QStringLiteral(ARBO_VERSION));
    header.sampleRate = mSampleRate;
    mTap = std::make_unique<RecordTap>(audio != nullptr);
    mWriter = std::make_unique<RecordingWriter>(*mTap, std::move(audio), std::move(log), header,
                                                mPatches);
    mWriter->start();
    mPlayer->setRecordTap(mTap.get());
    mPoll.start();
    qInfo().noquote() << "Recording to" << (mAudioPath.isEmpty() ? mLogPath : mAudioPath);
    emit recordingChanged(true);
    return true;
}

void Recorder::stop()
{
    if (!isRecording()) {
        return;
    }
    mPoll.stop();
    mTap->requestStop();
    // The audio thread ends it at the start of its next buffer; without one
    // (or one that is stuck) it ends here.
    QElapsedTimer waited;
    waited.start();
    while (mTap->phase() != RecordTap::Stopped) {
        if (!mPlayer->isAudioThreadRunning() || waited.elapsed() > STOP_TIMEOUT_MS) {
            mTap->stopWithoutAudioThread();
            break;
        }
        QThread::usleep(500);
    }
    mPlayer->setRecordTap(nullptr);
    const bool released = mPlayer->waitForBufferEnd(STOP_TIMEOUT_MS);
    mWriter->join();

    mLastLost = mTap->lostFrames();
    mLastMaxLag = mWriter->maxLagFrames();
    mLastSeconds = double(mTap->position()) / double(mSampleRate);
    const bool began = mWriter->began();
    const bool failed = mWriter->hasFailed() || !mStopReason.isEmpty();
    const QString error = mWriter->hasFailed() ? mWriter->error() : mStopReason;
    mStopReason.clear();
    const qint64 written = mWriter->framesWritten();
    mWriter.reset();
    if (released) {
        mTap.reset();
    } else {
        // A stuck audio thread may still hold it: it is never freed.
        static_cast<void>(mTap.release());
    }
    emit recordingChanged(false);

    if (!began) {
        QFile::remove(mAudioPath);
        QFile::remove(mLogPath);
        report(tr("Nothing was recorded: no sound was playing."), true);
        return;
    }
    const QString files =
        mAudioPath.isEmpty()
            ? mLogPath
            : tr("%1 and its performance log %2").arg(mAudioPath, QFileInfo(mLogPath).fileName());
    if (failed) {
        const double kept =
            mAudioPath.isEmpty() ? mLastSeconds : double(written) / double(mSampleRate);
        report(tr("Recording stopped: %1\n\nWhat was recorded until then, %2, is kept in %3.")
                   .arg(error, formatDuration(kept), files),
               true);
        return;
    }
    QString message = tr("Recorded %1 to %2.").arg(formatDuration(mLastSeconds), files);
    if (mLastLost > 0) {
        message +=
            tr(" %1 frames could not be kept in time and are silence in the file.").arg(mLastLost);
    }
    report(message, mLastLost > 0);
}

void Recorder::toggle()
{
    if (isRecording()) {
        stop();
    } else {
        start();
    }
}

void Recorder::onRecordRequest(int request)
{
    switch (request) {
    case CommandDispatcher::RecordStart:
        start();
        break;
    case CommandDispatcher::RecordStop:
        stop();
        break;
    case CommandDispatcher::RecordToggle:
        toggle();
        break;
    default:
        break;
    }
}

void Recorder::poll()
{
    if (!mWriter) {
        return;
    }
    if (mPlayer->sampleRate() != mSampleRate) {
        // Another sound card: a file has one rate.
        mStopReason = tr("the sound card's sample rate changed from %1 Hz to %2 Hz.")
                          .arg(mSampleRate)
                          .arg(mPlayer->sampleRate());
    }
    if (mWriter->hasFailed() || !mStopReason.isEmpty()) {
        stop();
    }
}

void Recorder::report(const QString& message, bool failed)
{
    if (failed) {
        qWarning().noquote() << message;
    } else {
        qInfo().noquote() << message;
    }
    emit finished(message, failed);
}

double Recorder::elapsedSeconds() const
{
    return mTap ? double(mTap->position()) / double(mSampleRate) : mLastSeconds;
}

qint64 Recorder::bytesWritten() const
{
    qint64 bytes = 0;
    for (const QString& path : {mAudioPath, mLogPath}) {
        if (!path.isEmpty()) {
            bytes += QFileInfo(path).size();
        }
    }
    return bytes;
}

quint64 Recorder::lostFrames() const
{
    return mTap ? mTap->lostFrames() : mLastLost;
}

QString Recorder::formatDuration(double seconds)
{
    const qint64 whole = qint64(seconds);
    const qint64 hours = whole / 3600;
    const QLatin1Char zero('0');
    if (hours > 0) {
        return QStringLiteral("%1:%2:%3")
            .arg(hours)
            .arg(whole / 60 % 60, 2, 10, zero)
            .arg(whole % 60, 2, 10, zero);
    }
    return QStringLiteral("%1:%2").arg(whole / 60).arg(whole % 60, 2, 10, zero);
}
