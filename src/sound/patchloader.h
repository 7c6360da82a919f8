#pragma once

#include <QString>

class PdPlayer;

// Puts a voice patch into play: the chosen patch is copied into the runtime
// patch folder as "arbo_voice.pd", which the engine's main patch
// "arbo_main.pd" (already there, see the application's start-up) plays on
// each of its voices, and the main patch is then opened again.
//
// GUI thread. Widget-free, so that the window and the tests share it.
class PatchLoader
{
public:
    // The runtime copy of the voice and the main patch that plays it.
    static QString voiceFile();
    static QString mainPatchFile();

    // Closes the open patch, installs `voicePatch` and opens the main patch.
    // Returns false, with the reason logged, when the copy or the opening
    // fails; the engine then has no patch open.
    static bool loadVoice(PdPlayer* player, const QString& voicePatch);
};
