#pragma once

#include "jackfixture.h"
#include "sound/paaudiooutput.h"

#include <QString>

class PdPlayer;

// The program's whole audio path running for real, for measurements that need
// the device's callback: a private JACK server on the dummy driver (see
// JackFixture), the PaAudioOutput on it driving `player`, and a voice patch
// loaded.
//
// GUI thread (the benchmark's main thread) only.
class JackPlayback
{
public:
    JackPlayback() = default;
    ~JackPlayback() { stop(); }
    JackPlayback(const JackPlayback&) = delete;
    JackPlayback& operator=(const JackPlayback&) = delete;

    // Starts the server, with real-time scheduling when `tryRealtime` and the
    // system allows it, else without; opens the default device (the server)
    // and loads `voicePatch`. False, with the reason in error(), on any
    // failure; then nothing is left running.
    bool start(PdPlayer* player, const QString& voicePatch, int sampleRate, int periodFrames,
               bool tryRealtime = false);
    // Closes the patch, the output and the server.
    void stop();

    PaAudioOutput& output() { return mOutput; }
    bool realtime() const { return mRealtime; }
    // What the server logged so far (it names the clients it blames for
    // xruns).
    QString serverLog() const { return mJack.log(QStringLiteral("jackd.log")); }
    QString error() const { return mError; }

private:
    JackFixture mJack;
    PaAudioOutput mOutput;
    PdPlayer* mPlayer = nullptr;
    bool mRunning = false;
    bool mRealtime = false;
    QString mError;
};
