#include "sound/patchmixer.h"

#include <algorithm>
#include <cmath>

void PatchMixer::setSampleRate(int sampleRate)
{
    mFadeFrames = std::max(1, int(CROSSFADE_SECONDS * sampleRate));
}

bool PatchMixer::setVolume(float volume)
{
    mVolume = volume;
    bool sent = true;
    for (PdInstance* instance : {mCurrent, mOld}) {
        if (instance && !instance->sendFloat("master-vol", volume)) {
            mFailedMessages.fetch_add(1, std::memory_order_relaxed);
            sent = false;
        }
    }
    return sent;
}

void PatchMixer::crossfadeTo(PdInstance* next)
{
    mOld = mCurrent;
    mCurrent = next;
    mFadeFrame = 0;
    if (next) {
        next->resetCarry();
        next->sendFloat("master-vol", mVolume);
    }
}

bool PatchMixer::renderPiece(float* output, int frames) noexcept
{
    const int samples = frames * CHANNELS;
    if (mCurrent) {
        mCurrent->process(output, frames);
    } else {
        std::fill(output, output + samples, 0.0f);
    }
    if (!mOld) {
        return false;
    }
    // The crossfade: equal power, so that the chord keeps its loudness
    // while one patch gives way to the other.
    mOld->process(mFadeBuffer, frames);
    constexpr double QUARTER_TURN = 1.5707963267948966;
    for (int i = 0; i < frames; ++i) {
        const double position = std::min(1.0, double(mFadeFrame + i) / double(mFadeFrames));
        const float in = float(std::sin(QUARTER_TURN * position));
        const float out = float(std::cos(QUARTER_TURN * position));
        for (int c = 0; c < CHANNELS; ++c) {
            output[i * CHANNELS + c] =
                output[i * CHANNELS + c] * in + mFadeBuffer[i * CHANNELS + c] * out;
        }
    }
    mFadeFrame += frames;
    return mFadeFrame >= mFadeFrames;
}

void PatchMixer::restartDsp()
{
    for (PdInstance* instance : {mCurrent, mOld}) {
        if (instance) {
            instance->resetCarry();
            instance->setDsp(false);
            instance->setDsp(true);
        }
    }
}
