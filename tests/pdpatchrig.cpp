#include "pdpatchrig.h"

#include "sound/patchloader.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>

#include <z_libpd.h>

#include <clocale>

namespace PdPatchRig {

namespace {

constexpr int BLOCK = 64;

int sInitResult = -2; // -2: not tried
void* sPatch = nullptr;
Captured sCaptured;
std::string sPartialLine;

void printHook(const char* text)
{
    sPartialLine += text;
    std::string::size_type nl;
    while ((nl = sPartialLine.find('\n')) != std::string::npos) {
        sCaptured.printed.push_back(sPartialLine.substr(0, nl));
        qWarning("Pd: %s", sCaptured.printed.back().c_str()); // shown beside a failing check
        sPartialLine.erase(0, nl + 1);
    }
}

void listHook(const char* source, int argc, t_atom* argv)
{
    const std::string recv(source);
    if (recv == "voice-stop" && argc > 0 && libpd_is_float(&argv[0])) {
        sCaptured.stops.push_back({int(libpd_get_float(&argv[0])), sCaptured.frames});
    } else if (recv == "output-voice-info") {
        const bool text = argc > 1 && libpd_is_symbol(&argv[1]);
        sCaptured.macroTexts.push_back(text ? libpd_get_symbol(&argv[1]) : "");
    }
}

void setDsp(bool on)
{
    libpd_start_message(1);
    libpd_add_float(on ? 1.0f : 0.0f);
    libpd_finish_message("pd", "dsp");
}

void sendVoice(float value, int type, int voice)
{
    libpd_start_message(3);
    libpd_add_float(value);
    libpd_add_float(float(type));
    libpd_add_float(float(voice));
    libpd_finish_list("arbo-in");
}

} // namespace

bool init()
{
    if (sInitResult == -2) {
        std::setlocale(LC_NUMERIC, "C");
        libpd_set_listhook(listHook);
        libpd_set_printhook([](const char*) {}); // no greetings of Pd and its externals
        sInitResult = libpd_init();
        libpd_set_printhook(printHook);
        libpd_bind("voice-stop");
        libpd_bind("output-voice-info");
    }
    return sInitResult == 0;
}

bool setSampleRate(int sampleRate)
{
    return libpd_init_audio(0, 2, sampleRate) == 0;
}

QStringList voicePatches()
{
    QStringList paths;
    const QDir dir(TestSupport::binDir() + QStringLiteral("/patches"));
    for (const QString& name : dir.entryList({QStringLiteral("*.pd")}, QDir::Files, QDir::Name)) {
        paths << dir.absoluteFilePath(name);
    }
    return paths;
}

QString voicePatch(const QString& fileName)
{
    return TestSupport::binDir() + QStringLiteral("/patches/") + fileName;
}

bool prepareRuntimeFolder(const QString& folder, const QString& voicePath)
{
    auto copy = [&folder](const QString& from, const QString& name) {
        QFile::remove(folder + QLatin1Char('/') + name);
        return QFile::copy(from, folder + QLatin1Char('/') + name);
    };
    const QString shellDir = TestSupport::binDir() + QStringLiteral("/patches/shell/");
    bool ok = QDir().mkpath(folder) && copy(voicePath, QStringLiteral("arbo_voice.pd"));
    for (const QString& name : PatchLoader::shellPatches()) {
        ok = ok && copy(shellDir + name, name);
    }
    return ok;
}

bool open(const QString& folder, const QString& file)
{
    close();
    sCaptured.clear();
    sCaptured.frames = 0;
    sPatch =
        libpd_openfile(QFile::encodeName(file).constData(), QFile::encodeName(folder).constData());
    setDsp(sPatch != nullptr);
    return sPatch != nullptr;
}

void close()
{
    if (sPatch) {
        setDsp(false);
        libpd_closefile(sPatch);
        sPatch = nullptr;
    }
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
    libpd_float("master-vol", volume);
}

void queryMacros()
{
    libpd_bang("query-macros");
}

void render(long frames, QVector<float>* left, QVector<float>* right)
{
    static const float silence[2 * BLOCK] = {};
    float buffer[2 * BLOCK];
    for (long done = 0; done < frames; done += BLOCK) {
        // One tick at a time, so that a report is stamped with its own tick.
        libpd_process_float(1, silence, buffer);
        for (int i = 0; i < BLOCK; ++i) {
            if (left) {
                left->append(buffer[2 * i]);
            }
            if (right) {
                right->append(buffer[2 * i + 1]);
            }
        }
        sCaptured.frames += BLOCK;
    }
}

Captured& captured()
{
    return sCaptured;
}

} // namespace PdPatchRig
