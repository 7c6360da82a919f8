#pragma once

#include <QString>
#include <QStringList>

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

    // The engine's own patches, copied from the resource folder's
    // "patches/shell" into the runtime patch folder at every start.
    static const QStringList& shellPatches();

    // Copies the shell patches into the runtime patch folder (made if
    // missing), each only when the copy there is older than the resource.
    // True when all of them are in place.
    static bool installShellPatches();

    // Copies source to target unless the target's creation time is not
    // earlier than the source's (the runtime copy is then current). False
    // only when an outdated target cannot be deleted or the copy fails.
    static bool copyIfNewer(const QString& source, const QString& target);

    // Installs `voicePatch` and opens the main patch with it, which takes
    // over from the open one (PdPlayer::loadPatch). Returns false, with the
    // reason logged, when the copy or the opening fails; the patch that
    // played before then plays on.
    static bool loadVoice(PdPlayer* player, const QString& voicePatch);
    // The voice patch that the runtime copy was last made from (empty before
    // any), so that a recording can name what it plays.
    static QString currentVoice();
};
