#pragma once

#include "sound/denormals.h"

#include <QString>
#include <QStringList>
#include <QVector>

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
inline void setDenormalsOff()
{
    Denormals::flushToZero();
}

// libpd_init_audio(0, 2, sampleRate). Takes effect for the next open().
bool setSampleRate(int sampleRate);

// The voice patches shipped in the resource folder, sorted by name, and one
// of them by file name ("Sine.pd").
QStringList voicePatches();
QString voicePatch(const QString& fileName);

// Makes `folder` a runtime patch folder: the shell files and the voice patch
// at `voicePath` copied in as "arbo_voice.pd" (replacing older copies).
bool prepareRuntimeFolder(const QString& folder, const QString& voicePath);

// Closes the open patch, opens `file` from `folder` and switches DSP on.
// Clears the captured reports and prints. False when libpd cannot open it.
bool open(const QString& folder, const QString& file = QStringLiteral("arbo_main.pd"));
// Switches DSP off and closes the open patch.
void close();

// The patch contract.
void noteOn(int voice, float frequency, float volume = 1.0f);
void gate(int voice, bool on);
void sendMacro(int macro, float value); // macro 1..8, sent to the whole patch
void sendMasterVolume(float volume);
void queryMacros();

// Renders `frames` (a multiple of 64) stereo frames, appending the left
// channel to `left` and the right channel to `right` (either may be null).
void render(long frames, QVector<float>* left, QVector<float>* right = nullptr);

// What the patch said since open() (or the last clear()).
struct Captured
{
    long frames = 0; // rendered since open(), not cleared
    std::vector<VoiceStop> stops;
    // The macro text of each "output-voice-info" answer (its second atom).
    std::vector<std::string> macroTexts;
    // Complete lines printed by Pd (each is also logged as a warning).
    std::vector<std::string> printed;
    void clear()
    {
        stops.clear();
        macroTexts.clear();
        printed.clear();
    }
};
Captured& captured();

} // namespace PdPatchRig
