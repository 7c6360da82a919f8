#pragma once

#include <QByteArray>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVector>

#include <atomic>

// Every line the diagnostics dialog has been given, kept for the whole run
// at a few bytes a line, and the newest of them waiting for the dialog.
//
// A performer may leave the program running for hours with every file's
// messages switched on. Keeping each line as a string (and as a paragraph of
// a text box) cost about 250 bytes a line, a quarter of a gigabyte per
// million. Here each line goes into an archive of zlib-compressed blocks as
// it comes, and only the newest `waitingLimit` lines wait, as strings, for
// the dialog to take them: whatever the rate or however long the dialog
// stays hidden, the memory grows only by the compressed text.
//
// The logging thread pays for its own lines (a copy, and now and then the
// compression of a block), so a thread that floods the log slows itself
// rather than the window.
//
// Threads: append() and text() from any thread; takeNew() by the one reader.
class DiagnosticsBuffer
{
public:
    // Lines are compressed in blocks of about this many bytes.
    static constexpr int BLOCK_BYTES = 64 * 1024;

    explicit DiagnosticsBuffer(int waitingLimit);

    // Adds `line`; one trailing line end, which every logged line carries,
    // is dropped (the archive ends each line itself).
    void append(const QString& line);

    struct NewLines
    {
        // The newest lines since the last take, oldest first, at most the
        // waiting limit.
        QStringList lines;
        // How many lines came since the last take but did not wait (the
        // oldest of them, beyond the limit): they are only in the archive.
        qint64 skipped = 0;
    };
    enum class Wait
    {
        No, // nothing is taken if another thread holds the lock just now
        Yes
    };
    NewLines takeNew(Wait wait);
    // Whether takeNew() has anything to give; cheap, without the lock.
    bool hasNew() const { return mHasNew.load(std::memory_order_acquire); }

    // Every line ever appended, in order, one per line (no line end after
    // the last).
    QString text() const;
    qint64 lineCount() const;
    // The archive's size in memory, in bytes.
    qint64 archiveBytes() const;

private:
    void compressSpill();

    const int mWaitingLimit;
    mutable QMutex mMutex;
    QStringList mWaiting;
    qint64 mSkipped = 0;
    std::atomic<bool> mHasNew{false};
    // The archive: compressed blocks of UTF-8 lines, each ended by '\n',
    // then the lines not yet in a block.
    QVector<QByteArray> mBlocks;
    QByteArray mSpill;
    qint64 mLineCount = 0;
};
