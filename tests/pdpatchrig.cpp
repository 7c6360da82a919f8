#include "pdpatchrig.h"

#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <z_libpd.h>

#include <clocale>
#include <cstdio>

#if defined(__SSE__) || defined(__x86_64__) || defined(_M_X64)
#include <pmmintrin.h>
#include <xmmintrin.h>
#define ARBO_HAVE_SSE_FLAGS 1
#endif

namespace PdPatchRig {

namespace {

constexpr int BLOCK = 64;
const char* const SHELL_FILES[] = {"arbo_main.pd", "arbo_vprep.pd", "equal-loudness.pd",
                                   "tb_compressor~.pd", "tb_compressorUI.pd"};

struct State
{
    int initResult = -2; // -2: not tried
    int sampleRate = 0;
    void* patch = nullptr;
    long frames = 0;
    std::vector<VoiceStop> stops;
    std::vector<std::vector<std::string>> infos;
    std::vector<std::string> lines;
    std::string partialLine;
    std::vector<float> buffer;
};

State& state()
{
    static State s;
    return s;
}

void printHook(const char* text)
{
    State& s = state();
    s.partialLine += text;
    std::string::size_type nl;
    while ((nl = s.partialLine.find('\n')) != std::string::npos) {
        s.lines.push_back(s.partialLine.substr(0, nl));
        s.partialLine.erase(0, nl + 1);
    }
}

std::string atomText(t_atom& atom)
{
    if (libpd_is_float(&atom)) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%g", double(libpd_get_float(&atom)));
        return buf;
    }
    if (libpd_is_symbol(&atom)) {
        return libpd_get_symbol(&atom);
    }
    return "?";
}

void listHook(const char* source, int argc, t_atom* argv)
{
    State& s = state();
    const std::string recv(source);
    if (recv == "voice-stop") {
        if (argc > 0 && libpd_is_float(&argv[0])) {
            s.stops.push_back({int(libpd_get_float(&argv[0])), s.frames});
        }
    } else if (recv == "output-voice-info") {
        std::vector<std::string> atoms;
        for (int i = 0; i < argc; ++i) {
            atoms.push_back(atomText(argv[i]));
        }
        s.infos.push_back(atoms);
    }
}

bool copyReplacing(const QString& from, const QString& to)
{
    if (QFileInfo::exists(to) && !QFile::remove(to)) {
        return false;
    }
    return QFile::copy(from, to);
}

} // namespace

bool init()
{
    State& s = state();
    if (s.initResult == -2) {
        std::setlocale(LC_NUMERIC, "C");
        libpd_set_printhook(printHook);
        libpd_set_listhook(listHook);
        s.initResult = libpd_init();
        libpd_bind("voice-stop");
        libpd_bind("output-voice-info");
    }
    return s.initResult == 0;
}

void setDenormalsOff()
{
#ifdef ARBO_HAVE_SSE_FLAGS
    _MM_SET_FLUSH_ZERO_MODE(_MM_FLUSH_ZERO_ON);
    _MM_SET_DENORMALS_ZERO_MODE(_MM_DENORMALS_ZERO_ON);
#endif
}

bool setSampleRate(int sampleRate)
{
    if (libpd_init_audio(0, 2, sampleRate) != 0) {
        return false;
    }
    state().sampleRate = sampleRate;
    return true;
}

int sampleRate()
{
    return state().sampleRate;
}

QString shellDir()
{
    return TestSupport::binDir() + QStringLiteral("/patches/shell");
}

QString voiceDir()
{
    return TestSupport::binDir() + QStringLiteral("/patches");
}

QStringList voicePatches()
{
    QStringList paths;
    const QFileInfoList entries =
        QDir(voiceDir()).entryInfoList({QStringLiteral("*.pd")}, QDir::Files, QDir::Name);
    for (const QFileInfo& info : entries) {
        paths << info.absoluteFilePath();
    }
    return paths;
}

bool prepareRuntimeFolder(const QString& folder, const QString& voicePath)
{
    if (!QDir().mkpath(folder)) {
        return false;
    }
    for (const char* name : SHELL_FILES) {
        const QString file = QString::fromLatin1(name);
        if (!copyReplacing(shellDir() + QLatin1Char('/') + file,
                           folder + QLatin1Char('/') + file)) {
            return false;
        }
    }
    return copyReplacing(voicePath, folder + QStringLiteral("/arbo_voice.pd"));
}

bool open(const QString& folder)
{
    State& s = state();
    close();
    clearCaptured();
    s.frames = 0;
    s.patch = libpd_openfile("arbo_main.pd", QFile::encodeName(folder).constData());
    if (!s.patch) {
        return false;
    }
    setDsp(true);
    return true;
}

void setDsp(bool on)
{
    libpd_start_message(1);
    libpd_add_float(on ? 1.0f : 0.0f);
    libpd_finish_message("pd", "dsp");
}

void* openFile(const QString& path)
{
    const QFileInfo info(path);
    return libpd_openfile(QFile::encodeName(info.fileName()).constData(),
                          QFile::encodeName(info.absolutePath()).constData());
}

void closeFile(void* handle)
{
    if (handle) {
        libpd_closefile(handle);
    }
}

void close()
{
    State& s = state();
    if (s.patch) {
        setDsp(false);
        libpd_closefile(s.patch);
        s.patch = nullptr;
    }
}

bool isOpen()
{
    return state().patch != nullptr;
}

void sendVoice(float value, int type, int voice)
{
    libpd_start_message(3);
    libpd_add_float(value);
    libpd_add_float(float(type));
    libpd_add_float(float(voice));
    libpd_finish_list("arbo-in");
}

void noteOn(int voice, float frequency, float volume)
{
    sendVoice(frequency, 2, voice);
    sendVoice(volume, 3, voice);
    sendVoice(1.0f, 1, voice);
}

void gate(int voice, bool on)
{
    sendVoice(on ? 1.0f : 0.0f, 1, voice);
}

void sendMacro(int macro, float value)
{
    sendVoice(value, macro + 3, 0);
}

void sendMasterVolume(float volume)
{
    libpd_start_message(1);
    libpd_add_float(volume);
    libpd_finish_list("master-vol");
}

void queryMacros()
{
    libpd_bang("query-macros");
}

void render(long frames, std::vector<float>* left, std::vector<float>* right)
{
    State& s = state();
    s.buffer.resize(2 * BLOCK);
    static const float silence[2 * BLOCK] = {};
    for (long done = 0; done < frames; done += BLOCK) {
        // One tick at a time, so that a report is stamped with its own tick.
        libpd_process_float(1, silence, s.buffer.data());
        for (int i = 0; i < BLOCK; ++i) {
            if (left) {
                left->push_back(s.buffer[2 * i]);
            }
            if (right) {
                right->push_back(s.buffer[2 * i + 1]);
            }
        }
        s.frames += BLOCK;
    }
}

long framesRendered()
{
    return state().frames;
}

const std::vector<VoiceStop>& voiceStops()
{
    return state().stops;
}

const std::vector<std::vector<std::string>>& voiceInfos()
{
    return state().infos;
}

const std::vector<std::string>& printed()
{
    return state().lines;
}

void clearCaptured()
{
    State& s = state();
    s.stops.clear();
    s.infos.clear();
    s.lines.clear();
}

} // namespace PdPatchRig
