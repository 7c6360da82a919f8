#include "ui/diagnosticsbuffer.h"

#include <QMutexLocker>

DiagnosticsBuffer::DiagnosticsBuffer(int waitingLimit) : mWaitingLimit(waitingLimit)
{
    mSpill.reserve(BLOCK_BYTES + 1024);
}

void DiagnosticsBuffer::append(const QString& message)
{
    const QString line =
        message.endsWith(QLatin1Char('\n')) ? message.left(message.size() - 1) : message;
    const QByteArray utf8 = line.toUtf8();
    QMutexLocker lock(&mMutex);
    mWaiting.append(line);
    if (mWaiting.size() > mWaitingLimit) {
        mWaiting.removeFirst();
        ++mSkipped;
    }
    mHasNew.store(true, std::memory_order_release);
    mSpill.append(utf8);
    mSpill.append('\n');
    ++mLineCount;
    if (mSpill.size() >= BLOCK_BYTES) {
        compressSpill();
    }
}

void DiagnosticsBuffer::compressSpill()
{
    // Level 6 compresses a block of log lines in about a millisecond to a
    // tenth of its size or less; the faster levels leave twice as much.
    QByteArray block = qCompress(mSpill, 6);
    // qCompress() leaves room for the worst case, as big as the input.
    block.squeeze();
    mBlocks.append(block);
    mSpill.resize(0);
}

DiagnosticsBuffer::NewLines DiagnosticsBuffer::takeNew(Wait wait)
{
    NewLines taken;
    // A thread flooding the log takes the lock again and again (a mutex is
    // not fair): the window would rather take its lines a frame later.
    if (wait == Wait::No) {
        if (!mMutex.tryLock()) {
            return taken;
        }
    } else {
        mMutex.lock();
    }
    taken.lines.swap(mWaiting);
    taken.skipped = mSkipped;
    mSkipped = 0;
    mHasNew.store(false, std::memory_order_release);
    mMutex.unlock();
    return taken;
}

QString DiagnosticsBuffer::text() const
{
    QVector<QByteArray> blocks;
    QByteArray spill;
    {
        // Copies share the blocks' data; the decompression runs unlocked.
        QMutexLocker lock(&mMutex);
        blocks = mBlocks;
        spill = mSpill;
    }
    QByteArray all;
    for (const QByteArray& block : qAsConst(blocks)) {
        all.append(qUncompress(block));
    }
    all.append(spill);
    if (all.endsWith('\n')) {
        all.chop(1);
    }
    return QString::fromUtf8(all);
}

qint64 DiagnosticsBuffer::lineCount() const
{
    QMutexLocker lock(&mMutex);
    return mLineCount;
}

qint64 DiagnosticsBuffer::archiveBytes() const
{
    QMutexLocker lock(&mMutex);
    qint64 bytes = mSpill.capacity();
    for (const QByteArray& block : mBlocks) {
        bytes += block.capacity();
    }
    return bytes;
}
