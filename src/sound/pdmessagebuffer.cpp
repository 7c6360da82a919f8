#include "sound/pdmessagebuffer.h"

#include "model/arboevent.h"
#include "model/arbonoteevent.h"

#include <QDebug>

#include <algorithm>
#include <new>

PdMessageBuffer::PdMessageBuffer() = default;

PdMessageBuffer::~PdMessageBuffer()
{
    if (mFullWarning.suppressed() != 0) {
        reportDrops();
    }
}

void PdMessageBuffer::setLogDrops(bool log)
{
    mLogDrops = log;
}

quint32 PdMessageBuffer::takeSilentDrops()
{
    return mSilentDrops.exchange(0, std::memory_order_relaxed);
}

bool PdMessageBuffer::init()
{
    if (!mRing) {
        mRing.reset(new (std::nothrow) SpscQueue<Chunk, CAPACITY>);
    }
    return mRing != nullptr;
}

bool PdMessageBuffer::queueEvent(const ArboEvent* event)
{
    if (!event) {
        return false;
    }
    Chunk chunk;
    chunk.type = event->type();
    chunk.value = event->value();
    if (const auto* note = dynamic_cast<const ArboNoteEvent*>(event)) {
        chunk.path = note->path();
    }
    return writeChunk(&chunk);
}

bool PdMessageBuffer::writeChunk(const Chunk* chunk)
{
    if (!mRing || !chunk) {
        return false;
    }
    // The queue checks for room and copies the whole chunk, or nothing, in
    // this one call.
    if (!mRing->push(*chunk)) {
        noteDrop();
        return false;
    }
    // The clock is read only while drops wait to be reported.
    if (mLogDrops && mFullWarning.suppressed() != 0 && mFullWarning.summaryDue()) {
        reportDrops();
    }
    return true;
}

void PdMessageBuffer::noteDrop()
{
    if (!mLogDrops) {
        mSilentDrops.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (!mFullWarning.admit()) {
        return; // counted, reported with the next message
    }
    if (mFullWarning.suppressed() != 0) {
        reportDrops();
    }
    qWarning("Command buffer full");
}

void PdMessageBuffer::reportDrops()
{
    qWarning("%lu more commands were dropped because the command buffer was full",
             mFullWarning.takeSuppressed());
}

bool PdMessageBuffer::peek(Chunk& chunk)
{
    if (!mHasAhead) {
        if (!mRing || !mRing->pop(mAhead)) {
            return false;
        }
        mHasAhead = true;
    }
    chunk = mAhead;
    return true;
}

void PdMessageBuffer::pop()
{
    mHasAhead = false;
}

int PdMessageBuffer::freeChunks() const
{
    return mRing ? int(mRing->freeSlots()) : 0;
}
