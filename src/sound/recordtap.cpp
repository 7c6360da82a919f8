#include "sound/recordtap.h"

RecordTap::RecordTap(bool keepSamples)
    : mEntries(std::make_unique<SpscQueue<Entry, ENTRY_CAPACITY>>())
{
    if (keepSamples) {
        mSamples = std::make_unique<SpscQueue<float, SAMPLE_CAPACITY>>();
    }
}

RecordTap::~RecordTap() = default;

bool RecordTap::stopWithoutAudioThread()
{
    // Nobody renders: the position is this thread's to read.
    int phase = mPhase.load(std::memory_order_acquire);
    while (phase != Stopped) {
        mEndPosition = mPosition.load(std::memory_order_relaxed);
        if (mPhase.compare_exchange_weak(phase, Stopped, std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

RecordTap::BufferStart RecordTap::beginBuffer(bool canStart) noexcept
{
    int phase = mPhase.load(std::memory_order_relaxed);
    if (phase == Stopped) {
        return Skip;
    }
    if (mStopRequested.load(std::memory_order_acquire)) {
        // Everything recorded so far was published with the positions and
        // samples before; the phase publishes the end.
        mEndPosition = mPosition.load(std::memory_order_relaxed);
        mPhase.compare_exchange_strong(phase, Stopped, std::memory_order_acq_rel);
        return Skip;
    }
    if (phase == Recording) {
        return Record;
    }
    return canStart ? Begin : Skip;
}

void RecordTap::start(int frames) noexcept
{
    mFirstBufferFrames = frames;
    int armed = Armed;
    // Fails only when the GUI thread stopped it meanwhile, with no audio
    // thread running: then nothing is recorded.
    mPhase.compare_exchange_strong(armed, Recording, std::memory_order_acq_rel);
}

void RecordTap::push(const Entry& entry) noexcept
{
    if (!mEntries->push(entry)) {
        mLostEntries.fetch_add(1, std::memory_order_relaxed);
    }
}

void RecordTap::logCommand(const PdMessageBuffer::Chunk& command) noexcept
{
    Entry entry;
    entry.position = mPosition.load(std::memory_order_relaxed);
    entry.kind = Entry::Command;
    entry.command = command;
    push(entry);
}

void RecordTap::logPatchChange(std::uint32_t serial) noexcept
{
    Entry entry;
    entry.position = mPosition.load(std::memory_order_relaxed);
    entry.kind = Entry::PatchChange;
    entry.serial = serial;
    push(entry);
}

void RecordTap::endBuffer(const float* output, int frames) noexcept
{
    const std::int64_t position = mPosition.load(std::memory_order_relaxed);
    if (mSamples && !mSamples->pushAll(output, std::size_t(frames) * CHANNELS)) {
        // The writer fell behind by the whole ring: these frames become
        // silence in the file, in their place, and are counted.
        mLostFrames.fetch_add(std::uint64_t(frames), std::memory_order_relaxed);
        Entry gap;
        gap.position = position;
        gap.kind = Entry::Gap;
        gap.frames = frames;
        push(gap);
    }
    mPosition.store(position + frames, std::memory_order_release);
}

std::size_t RecordTap::readableFrames() const
{
    return mSamples ? mSamples->readable() / CHANNELS : 0;
}

std::size_t RecordTap::readFrames(float* out, std::size_t maxFrames)
{
    // Whole frames only: the audio thread pushes whole buffers.
    return mSamples ? mSamples->popUpTo(out, maxFrames * CHANNELS) / CHANNELS : 0;
}
