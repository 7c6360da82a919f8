#pragma once

#include <QString>
#include <QStringList>

#include <string>
#include <vector>

// Drives the instrument's Pd patches through the real libpd, the way the
// program does: a runtime patch folder holding the shell patches and the
// chosen voice as "arbo_voice.pd", "arbo_main.pd" opened from there, the
// messages of the patch contract, and rendering of stereo output. Shared by
// the patch tests and the patch benchmarks.
//
// libpd keeps one global Pd instance and global hooks, so there is one rig
// state per process: every call must come from the one thread that renders,
// and only one patch is open at a time.
namespace PdPatchRig {

// A report from the patch on "voice-stop", with the output frame (counted
// from the last open()) of the Pd tick in which it arrived.
struct VoiceStop
{
    int voice;
    long frame;
};

// Starts libpd once per process (later calls only return the first result),
// installs the print and list hooks and binds "voice-stop" and
// "output-voice-info". Forces LC_NUMERIC to "C" first, as the program does:
// Pd parses the numbers of patch files with the C library.
bool init();

// Flush-to-zero and denormals-are-zero on the calling thread, as on the
// program's audio thread.
void setDenormalsOff();

// libpd_init_audio(0, 2, sampleRate). Takes effect for the next open().
bool setSampleRate(int sampleRate);
int sampleRate();

// The resource folder's shell patches and voice patches.
QString shellDir();
QString voiceDir();
// The voice patches shipped in the resource folder, sorted by name.
QStringList voicePatches();

// Makes `folder` a runtime patch folder: the five shell files and the voice
// patch at `voicePath` copied in as "arbo_voice.pd" (replacing older copies).
bool prepareRuntimeFolder(const QString& folder, const QString& voicePath);

// Opens "arbo_main.pd" from `folder` and switches DSP on. Clears the captured
// reports and prints. Returns false when libpd returns a null handle.
bool open(const QString& folder);
// Opens any patch file; returns libpd's handle (null on failure). No DSP.
void* openFile(const QString& path);
void closeFile(void* handle);
// Sends "dsp 1" or "dsp 0" to Pd.
void setDsp(bool on);
// Switches DSP off and closes the patch opened by open().
void close();
bool isOpen();

// The patch contract.
void sendVoice(float value, int type, int voice);
void noteOn(int voice, float frequency, float volume = 1.0f);
void gate(int voice, bool on);
void sendMacro(int macro, float value); // macro 1..8, sent to the whole patch
void sendMasterVolume(float volume);
void queryMacros();

// Renders `frames` (a multiple of 64) stereo frames, appending the left
// channel to `left` and the right channel to `right` (either may be null).
void render(long frames, std::vector<float>* left, std::vector<float>* right = nullptr);
// Frames rendered since open().
long framesRendered();

// Captured since open() (or the last clearCaptured()).
const std::vector<VoiceStop>& voiceStops();
// Each "output-voice-info" list, its atoms rendered as text.
const std::vector<std::vector<std::string>>& voiceInfos();
// Complete lines printed by Pd.
const std::vector<std::string>& printed();
void clearCaptured();

} // namespace PdPatchRig
