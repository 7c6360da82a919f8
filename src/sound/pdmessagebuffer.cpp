#include "sound/pdmessagebuffer.h"

#include "model/arboevent.h"
#include "model/arbonoteevent.h"

#include <QDebug>

#include <algorithm>

extern "C" {
#include "z_ringbuffer.h"
}

PdMessageBuffer::PdMessageBuffer() = default;

PdMessageBuffer::~PdMessageBuffer()
{
    if (mFullWarning.suppressed() != 0) {
        reportDrops();
    }
    if (mRing) {
        rb_free(mRing);
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
        mRing = rb_create(RING_BYTES);
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
    // The ring checks for room and copies all 16 bytes, or nothing, in this
    // one call; asking for the free space first would only add a second pair
    // of atomic operations on the line the reader is polling.
    if (rb_write_to_buffer(mRing, 1, reinterpret_cast<const char*>(chunk), CHUNK_BYTES) != 0) {
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
        if (!mRing || rb_available_to_read(mRing) < CHUNK_BYTES ||
            rb_read_from_buffer(mRing, reinterpret_cast<char*>(&mAhead), CHUNK_BYTES) != 0) {
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
    return mRing ? rb_available_to_write(mRing) / CHUNK_BYTES : 0;
}
