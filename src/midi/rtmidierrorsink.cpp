#include "midi/rtmidierrorsink.h"

void RtMidiErrorSink::onError(RtMidiError::Type type, const std::string& text, void* sink)
{
    auto* errors = static_cast<RtMidiErrorSink*>(sink);
    // Warnings that only say a port list is empty are no failure.
    if (type == RtMidiError::WARNING && text.find("no ports available") != std::string::npos) {
        return;
    }
    std::lock_guard<std::mutex> lock(errors->mMutex);
    errors->mText = text;
    errors->mFailed.store(true, std::memory_order_release);
}

bool RtMidiErrorSink::take(std::string& into)
{
    if (!mFailed.exchange(false, std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mMutex);
    into = mText;
    return true;
}

void RtMidiErrorSink::install(RtMidi& midi)
{
    midi.setErrorCallback(&RtMidiErrorSink::onError, this);
}
