#include "jackplayback.h"

#include "settings/paths.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"

bool JackPlayback::start(PdPlayer* player, const QString& voicePatch, int sampleRate,
                         int periodFrames, bool tryRealtime)
{
    mError = JackFixture::missingTools();
    if (!mError.isEmpty()) {
        return false;
    }
    mRealtime = tryRealtime && mJack.start(sampleRate, periodFrames, 30000, true);
    if (!mRealtime && !mJack.start(sampleRate, periodFrames)) {
        mError = mJack.error();
        return false;
    }
    mJack.applyToThisProcess();
    mPlayer = player;
    mRunning = true;
    if (!mOutput.init(periodFrames, -1, player) || !PatchLoader::loadVoice(player, voicePatch)) {
        mError = QStringLiteral("could not open the JACK device or the voice");
        stop();
        return false;
    }
    return true;
}

void JackPlayback::stop()
{
    if (mRunning) {
        if (mOutput.isStreamRunning()) {
            mPlayer->unloadPatch();
        }
        mOutput.term();
        mRunning = false;
    }
    mJack.stop();
}
