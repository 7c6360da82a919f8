#pragma once

#include "recording/audiofilewriter.h"
#include "recording/performancelog.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class QFile;
class RecordTap;

// The writer thread of one recording: drains the audio thread's rings (see
// RecordTap) into the sound file and the performance log, a few dozen times a
// second, at normal priority. The audio thread never waits for it; when it
// falls behind by the whole ring, the frames lost become silence in their
// place and are counted in the log's last line, never hidden.
//
// When a write fails (a full disk, a file system gone) or the file vanishes
// (its folder removed), it stops writing, finishes both files so that what
// was written stays a valid sound file and a log of whole lines, and says why
// (failed(), error()); the recorder then ends the recording.
//
// Threads: made, started, woken and joined by the GUI thread; everything else
// runs on its own thread. The status functions are for any thread.
class RecordingWriter
{
public:
    // The patches by the serial of their hand-over (PdPlayer::patchHandingOver),
    // filled by the GUI thread as they are handed over and read by the
    // writer when the log names them.
    class PatchBook
    {
    public:
        void add(std::uint32_t serial, const PerformanceLog::Patch& patch);
        // The patch of `serial`; no patch when it is not known.
        PerformanceLog::Patch find(std::uint32_t serial) const;

    private:
        mutable std::mutex mMutex;
        std::map<std::uint32_t, PerformanceLog::Patch> mPatches;
    };

    // How often the writer looks at the rings, and at most how many frames
    // it writes at once.
    static constexpr int INTERVAL_MS = 10;
    static constexpr int CHUNK_FRAMES = 16384;

    // `audio` is open (null: the log alone); `log` is open for writing.
    // `header` has everything but the state and the patch, which the
    // recording's first buffer decides.
    RecordingWriter(RecordTap& tap, std::unique_ptr<AudioFileWriter> audio,
                    std::unique_ptr<QFile> log, const PerformanceLog::Header& header,
                    std::shared_ptr<const PatchBook> patches);
    // Joins the thread.
    ~RecordingWriter();
    RecordingWriter(const RecordingWriter&) = delete;
    RecordingWriter& operator=(const RecordingWriter&) = delete;

    void start();
    // Asks for a look at the rings now rather than at the next interval.
    void wake();
    // Waits until the thread has written everything up to the end of the
    // recording (or failed) and closed the files.
    void join();

    // Any thread.
    bool isFinished() const { return mFinished.load(std::memory_order_acquire); }
    bool hasFailed() const { return mFailed.load(std::memory_order_acquire); }
    // Why it failed; empty otherwise. Once hasFailed().
    QString error() const;
    // Whether anything was recorded (the recording began).
    bool began() const { return mBegan.load(std::memory_order_acquire); }
    // The most frames that waited in the ring at one look, so far.
    std::int64_t maxLagFrames() const { return mMaxLag.load(std::memory_order_relaxed); }
    std::int64_t framesWritten() const { return mFramesWritten.load(std::memory_order_relaxed); }

private:
    void run();
    // The steps of one look; each false on a failure (recorded by fail()).
    bool writeHeader();
    bool drainEntries(QByteArray& lines);
    bool drainSamples(std::size_t available);
    bool appendLog(const QByteArray& lines);
    bool checkFilesExist();
    void fail(const QString& error);
    void finish();

    RecordTap& mTap;
    std::unique_ptr<AudioFileWriter> mAudio;
    std::unique_ptr<QFile> mLog;
    PerformanceLog::Header mHeader;
    std::shared_ptr<const PatchBook> mPatches;
    std::thread mThread;

    std::mutex mWakeMutex;
    std::condition_variable mWakeCondition;
    bool mWoken = false;

    // The writer thread's own.
    struct Gap
    {
        std::int64_t position;
        std::int64_t frames;
    };
    std::deque<Gap> mGaps;
    std::vector<float> mBuffer;
    std::int64_t mFilePosition = 0;
    qint64 mLogSize = 0; // bytes of whole lines written
    int mLooks = 0;

    std::atomic<bool> mBegan{false};
    std::atomic<bool> mFailed{false};
    std::atomic<bool> mFinished{false};
    std::atomic<std::int64_t> mMaxLag{0};
    std::atomic<std::int64_t> mFramesWritten{0};
    mutable std::mutex mErrorMutex;
    QString mError;
};
