#include "recording/recordingwriter.h"

#include "sound/recordtap.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <chrono>

namespace {

// How many looks between two checks that the files are still there.
constexpr int LOOKS_PER_EXISTENCE_CHECK = 50;

} // namespace

void RecordingWriter::PatchBook::add(std::uint32_t serial, const PerformanceLog::Patch& patch)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mPatches[serial] = patch;
    // Only the last few can still be asked for: a recording names the patch
    // playing when it begins and those handed over while it runs.
    while (mPatches.size() > 16) {
        mPatches.erase(mPatches.begin());
    }
}

PerformanceLog::Patch RecordingWriter::PatchBook::find(std::uint32_t serial) const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto found = mPatches.find(serial);
    return found == mPatches.end() ? PerformanceLog::Patch() : found->second;
}

RecordingWriter::RecordingWriter(RecordTap& tap, std::unique_ptr<AudioFileWriter> audio,
                                 std::unique_ptr<QFile> log, const PerformanceLog::Header& header,
                                 std::shared_ptr<const PatchBook> patches)
    : mTap(tap), mAudio(std::move(audio)), mLog(std::move(log)), mHeader(header),
      mPatches(std::move(patches)), mBuffer(std::size_t(CHUNK_FRAMES) * 2)
{
}

RecordingWriter::~RecordingWriter()
{
    join();
}

void RecordingWriter::start()
{
    mThread = std::thread([this] { run(); });
}

void RecordingWriter::wake()
{
    {
        const std::lock_guard<std::mutex> lock(mWakeMutex);
        mWoken = true;
    }
    mWakeCondition.notify_one();
}

void RecordingWriter::join()
{
    if (mThread.joinable()) {
        wake();
        mThread.join();
    }
}

QString RecordingWriter::error() const
{
    const std::lock_guard<std::mutex> lock(mErrorMutex);
    return mError;
}

void RecordingWriter::fail(const QString& error)
{
    {
        const std::lock_guard<std::mutex> lock(mErrorMutex);
        mError = error;
    }
    mFailed.store(true, std::memory_order_release);
}

void RecordingWriter::run()
{
    for (;;) {
        // The phase first: once it says stopped, everything the audio thread
        // recorded is in the rings.
        const RecordTap::Phase phase = mTap.phase();
        if (phase != RecordTap::Armed) {
            // It began when it has a first buffer, even if it stopped before
            // this look.
            if (!mBegan.load(std::memory_order_relaxed) && mTap.firstBufferFrames() > 0 &&
                !writeHeader()) {
                break;
            }
            if (!mBegan.load(std::memory_order_relaxed)) {
                break; // stopped before it began: nothing to write
            }
            // The samples waiting are counted before the entries are taken,
            // so that every gap among those samples is known.
            const std::size_t available = mTap.readableFrames();
            mMaxLag.store(std::max<std::int64_t>(mMaxLag.load(std::memory_order_relaxed),
                                                 std::int64_t(available)),
                          std::memory_order_relaxed);
            QByteArray lines;
            if (!drainEntries(lines) || !appendLog(lines) || !drainSamples(available)) {
                break;
            }
            if (phase == RecordTap::Stopped) {
                appendLog(PerformanceLog::endLine(mTap.endPosition(), mTap.lostFrames(),
                                                  mTap.lostEntries()));
                break;
            }
            if (++mLooks % LOOKS_PER_EXISTENCE_CHECK == 0 && !checkFilesExist()) {
                break;
            }
        }
        std::unique_lock<std::mutex> lock(mWakeMutex);
        mWakeCondition.wait_for(lock, std::chrono::milliseconds(INTERVAL_MS),
                                [this] { return mWoken; });
        mWoken = false;
    }
    finish();
}

bool RecordingWriter::writeHeader()
{
    mHeader.state = mTap.startState();
    mHeader.bufferFrames = mTap.firstBufferFrames();
    mHeader.patch = mPatches->find(mHeader.state.patchSerial);
    mHeader.recorded = QDateTime::currentDateTime().toString(Qt::ISODate);
    mBegan.store(true, std::memory_order_release);
    return appendLog(PerformanceLog::headerLine(mHeader));
}

bool RecordingWriter::drainEntries(QByteArray& lines)
{
    RecordTap::Entry entry;
    while (mTap.popEntry(entry)) {
        switch (entry.kind) {
        case RecordTap::Entry::Command:
            lines += PerformanceLog::commandLine(entry.position, entry.command);
            break;
        case RecordTap::Entry::PatchChange:
            lines += PerformanceLog::patchLine(entry.position, mPatches->find(entry.serial));
            break;
        case RecordTap::Entry::Gap:
            lines += PerformanceLog::gapLine(entry.position, entry.frames);
            mGaps.push_back(Gap{entry.position, entry.frames});
            break;
        }
    }
    return true;
}

bool RecordingWriter::drainSamples(std::size_t available)
{
    if (!mAudio) {
        return true;
    }
    for (;;) {
        // A gap is silence, in its place.
        if (!mGaps.empty() && mGaps.front().position <= mFilePosition) {
            if (!mAudio->writeSilence(mGaps.front().frames)) {
                fail(mAudio->error());
                return false;
            }
            mFilePosition += mGaps.front().frames;
            mGaps.pop_front();
            continue;
        }
        std::int64_t limit = std::int64_t(available);
        if (!mGaps.empty()) {
            limit = std::min(limit, mGaps.front().position - mFilePosition);
        }
        const std::size_t wanted = std::size_t(std::min<std::int64_t>(limit, CHUNK_FRAMES));
        if (wanted == 0) {
            return true;
        }
        const std::size_t got = mTap.readFrames(mBuffer.data(), wanted);
        if (!mAudio->write(mBuffer.data(), std::int64_t(got))) {
            fail(mAudio->error());
            return false;
        }
        mFilePosition += std::int64_t(got);
        mFramesWritten.store(mFilePosition, std::memory_order_relaxed);
        available -= got;
        if (got < wanted) {
            return true;
        }
    }
}

bool RecordingWriter::appendLog(const QByteArray& lines)
{
    if (lines.isEmpty()) {
        return true;
    }
    if (mLog->write(lines) != lines.size() || !mLog->flush()) {
        fail(QStringLiteral("Cannot write to %1: %2").arg(mLog->fileName(), mLog->errorString()));
        return false;
    }
    mLogSize += lines.size();
    return true;
}

bool RecordingWriter::checkFilesExist()
{
    // A folder removed under an open file raises no error on writing: the
    // data would go to a file nobody can find any more.
    for (const QString& path : {mAudio ? mAudio->path() : QString(), mLog->fileName()}) {
        if (!path.isEmpty() && !QFileInfo::exists(path)) {
            fail(
                QStringLiteral("%1 has vanished (was its folder removed or unmounted?)").arg(path));
            return false;
        }
    }
    return true;
}

void RecordingWriter::finish()
{
    // A log cut short by a full disk keeps its whole lines only.
    if (mLog->isOpen()) {
        mLog->flush();
        if (mLog->size() > mLogSize) {
            mLog->resize(mLogSize);
        }
        mLog->close();
    }
    if (mAudio && !mAudio->close() && !hasFailed()) {
        fail(mAudio->error());
    }
    mFinished.store(true, std::memory_order_release);
}
