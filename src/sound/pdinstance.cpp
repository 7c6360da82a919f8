#include "sound/pdinstance.h"

#include "settings/debuglog.h"
#include "sound/patchthread.h"
#include "sound/realtimezone.h"

#include <m_pd.h>
#include <z_libpd.h>
extern "C" {
#include <m_imp.h> // glob_evalfile: Pd's own loader, without libpd's global lock
}

#include <QDebug>

#include <algorithm>
#include <cstring>

namespace {

// The instance being opened on this thread: the patch answers the macro
// query during the open, through libpd's one list hook.
thread_local PdInstance* tOpening = nullptr;

// Silent ticks computed after opening, so that the audio thread's first
// buffer of the new patch finds its memory touched and its DSP chain built.
constexpr int WARM_UP_TICKS = 16;

} // namespace

PdInstance::PdInstance() : mPd(libpd_new_instance()) {}

PdInstance::~PdInstance()
{
    close();
    if (mPd) {
        libpd_free_instance(mPd);
        // libpd's current instance of this thread must not dangle.
        libpd_set_instance(libpd_get_instance(0));
    }
}

void PdInstance::makeCurrent() const
{
    libpd_set_instance(mPd);
}

void PdInstance::initAudio(int outChannels, int sampleRate)
{
    makeCurrent();
    libpd_init_audio(0, outChannels, sampleRate);
}

bool PdInstance::open(const QByteArray& file, const QByteArray& folder)
{
    bool opened = false;
    PatchThread::run([&] { opened = openHere(file, folder); });
    return opened;
}

void PdInstance::close()
{
    if (mPatch) {
        PatchThread::run([this] { closeHere(); });
    }
}

bool PdInstance::openHere(const QByteArray& file, const QByteArray& folder)
{
    closeHere();
    makeCurrent();
    mMacroNames.clear();
    mMacroDefaults.clear();
    mCarryFrames = 0;
    // What libpd_openfile does, without its global write lock: that lock
    // would wait for the audio thread's instance to finish its buffer and
    // then stop it for the whole time the file takes to load. Opening needs
    // only this instance's lock (classes are made, if an external is loaded,
    // under the global lock that class_new takes by itself).
    sys_lock();
    mPatch = glob_evalfile(nullptr, gensym(file.constData()), gensym(folder.constData()));
    sys_unlock();
    if (!mPatch) {
        qCritical().noquote() << "Opening PD patch failed: " << folder << file;
        return false;
    }
    if (!setDsp(true)) {
        qCritical().noquote() << "setDsp(true) failed after opening: " << folder << file;
        close();
        return false;
    }
    mVoiceStopBinding = libpd_bind("voice-stop");
    mVoiceInfoBinding = libpd_bind("output-voice-info");
    // The patch answers during the bang, through the list hook.
    mAwaitingMacroNames = true;
    tOpening = this;
    if (libpd_bang("query-macros") != 0) {
        qCritical() << "libpd_bang for query-macros returned error status";
    }
    tOpening = nullptr;
    mAwaitingMacroNames = false;
    float scratch[BLOCK_FRAMES * CHANNELS];
    for (int i = 0; i < WARM_UP_TICKS; ++i) {
        libpd_process_float(1, nullptr, scratch);
    }
    return true;
}

void PdInstance::closeHere()
{
    if (!mPatch) {
        return;
    }
    makeCurrent();
    setDsp(false);
    for (void** binding : {&mVoiceStopBinding, &mVoiceInfoBinding}) {
        if (*binding) {
            libpd_unbind(*binding);
            *binding = nullptr;
        }
    }
    libpd_closefile(mPatch);
    mPatch = nullptr;
    mCarryFrames = 0;
}

bool PdInstance::sendList(const char* receiver, float a, float b, float c)
{
    const RealTimeZone::Library library;
    makeCurrent();
    if (libpd_start_message(3) != 0) {
        return false;
    }
    libpd_add_float(a);
    libpd_add_float(b);
    libpd_add_float(c);
    return libpd_finish_list(receiver) == 0;
}

bool PdInstance::sendFloat(const char* receiver, float value)
{
    const RealTimeZone::Library library;
    makeCurrent();
    if (libpd_start_message(1) != 0) {
        return false;
    }
    libpd_add_float(value);
    return libpd_finish_list(receiver) == 0;
}

bool PdInstance::setDsp(bool on)
{
    const RealTimeZone::Library library;
    makeCurrent();
    if (libpd_start_message(1) != 0) {
        return false;
    }
    libpd_add_float(on ? 1.0f : 0.0f);
    return libpd_finish_message("pd", "dsp") == 0;
}

void PdInstance::process(float* output, int frames) noexcept
{
    if (frames <= 0) {
        return;
    }
    const RealTimeZone::Library library; // the copies below are too cheap to tell apart
    makeCurrent();
    int done = 0;
    // 1. The rest of the tick that the previous call could not take.
    if (mCarryFrames > 0) {
        const int taken = std::min(mCarryFrames, frames);
        std::copy_n(mCarry + (BLOCK_FRAMES - mCarryFrames) * CHANNELS, taken * CHANNELS, output);
        mCarryFrames -= taken;
        done = taken;
    }
    // 2. Whole ticks, straight into the buffer.
    const int ticks = (frames - done) / BLOCK_FRAMES;
    if (ticks > 0) {
        libpd_process_float(ticks, nullptr, output + done * CHANNELS);
        done += ticks * BLOCK_FRAMES;
    }
    // 3. One more tick for the end of the buffer; its tail waits for the
    // next call. The sound runs on without a gap at any buffer size.
    if (done < frames) {
        libpd_process_float(1, nullptr, mCarry);
        const int rest = frames - done;
        std::copy_n(mCarry, rest * CHANNELS, output + done * CHANNELS);
        mCarryFrames = BLOCK_FRAMES - rest;
    }
}

bool PdInstance::receiveWhileOpening(const char* receiver, int argc, _atom* argv)
{
    PdInstance* instance = tOpening;
    if (!instance || std::strcmp(receiver, "output-voice-info") != 0) {
        return false;
    }
    // Only the first reply after the query counts.
    if (instance->mAwaitingMacroNames && argc >= 2 && libpd_is_symbol(&argv[1])) {
        instance->parseMacroNames(QString::fromLocal8Bit(libpd_get_symbol(&argv[1])));
    }
    instance->mAwaitingMacroNames = false;
    return true;
}

void PdInstance::parseMacroNames(const QString& text)
{
    ARBO_DEBUG() << "Received macro names:" << text;
    mMacroNames = text.split(QLatin1Char(':'));
    mMacroDefaults.clear();
    for (QString& name : mMacroNames) {
        const int open = name.indexOf(QLatin1Char('('));
        const int close = name.indexOf(QLatin1Char(')'));
        if (open < 0 || close <= open) {
            mMacroDefaults.append(-1.0f); // no default
            continue;
        }
        mMacroDefaults.append(name.mid(open + 1, close - open - 1).toFloat());
        name.truncate(open);
    }
}
