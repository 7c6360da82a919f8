#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

struct _atom;
struct _pdinstance;

// One Pure Data instance of libpd with at most one patch open in it.
//
// A patch change never opens a patch where the sound is made: the new patch
// is opened and warmed up in a spare instance on another thread while the
// audio thread goes on playing the old one, then the audio thread crossfades
// from one instance to the other (see PdPlayer). The player keeps a small
// pool of instances, made at start-up, so that no instance is made or freed
// while the sound runs (libpd takes its global write lock for that, which
// would stop the audio thread for the time it takes).
//
// Threads: one thread at a time uses an instance. open() and close() run
// off the audio thread while the audio thread does not use this instance
// (carried out on the PatchThread while the caller waits); the message
// calls and process() run on whichever thread owns it at the moment (the
// audio thread once it plays). libpd keeps its current instance per thread:
// every call here makes this instance the calling thread's current one
// first.
class PdInstance
{
public:
    // Makes a new libpd instance. Off the audio thread, while it does not
    // run libpd (at start-up).
    PdInstance();
    // Closes the patch and frees the instance. Off the audio thread, once
    // the audio thread no longer uses it.
    ~PdInstance();
    PdInstance(const PdInstance&) = delete;
    PdInstance& operator=(const PdInstance&) = delete;

    // Off the audio thread: Pd's audio settings for this instance.
    void initAudio(int outChannels, int sampleRate);

    // Off the audio thread, while the audio thread does not use this
    // instance. Opens `file` in `folder`, switches its DSP on, binds the
    // patch's reports ("voice-stop", "output-voice-info"), asks for its
    // macros and computes a few silent ticks, so that the first buffer on
    // the audio thread costs no more than any other. False, with the patch
    // closed again and the reason logged, when it cannot be opened.
    bool open(const QByteArray& file, const QByteArray& folder);
    // Off the audio thread: closes the patch, if one is open.
    void close();
    bool isOpen() const { return mPatch != nullptr; }

    // What the patch answered to "query-macros" while it was opened: the
    // names (at most eight are used) and their defaults (-1: none).
    const QStringList& macroNames() const { return mMacroNames; }
    const QList<float>& macroDefaults() const { return mMacroDefaults; }

    _pdinstance* pd() const { return mPd; }

    // The owning thread. Messages to the open patch; false when libpd could
    // not start the message. They neither log nor allocate.
    bool sendList(const char* receiver, float a, float b, float c);
    bool sendFloat(const char* receiver, float value);
    bool setDsp(bool on);

    // The owning thread: `frames` stereo frames of the patch's output (any
    // number). Pd computes whole ticks of 64 frames; the part of a tick that
    // does not fit is kept for the next call.
    void process(float* output, int frames) noexcept;
    // Forgets the part of a tick kept for the next call.
    void resetCarry() { mCarryFrames = 0; }

    // libpd's list hook, while an instance is being opened on this thread:
    // the macro names reach the instance that asked for them. True when the
    // message was for it.
    static bool receiveWhileOpening(const char* receiver, int argc, _atom* argv);

    static constexpr int CHANNELS = 2;
    static constexpr int BLOCK_FRAMES = 64;

private:
    void makeCurrent() const;
    // open() and close() themselves, on the calling thread.
    bool openHere(const QByteArray& file, const QByteArray& folder);
    void closeHere();
    void parseMacroNames(const QString& text);

    _pdinstance* mPd = nullptr;
    void* mPatch = nullptr;
    void* mVoiceStopBinding = nullptr;
    void* mVoiceInfoBinding = nullptr;
    QStringList mMacroNames;
    QList<float> mMacroDefaults;
    bool mAwaitingMacroNames = false;
    float mCarry[BLOCK_FRAMES * CHANNELS] = {};
    int mCarryFrames = 0;
};
