#include "offlineinstrument.h"

#include "model/arbo.h"
#include "settings/appcontext.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QDir>

namespace OfflineInstrument {

bool start(Settings* settings, PdPlayer* player, Arbo* lattice, int sampleRate)
{
    if (!QDir().mkpath(TestSupport::configDir())) {
        return false;
    }
    AppContext::setSettings(settings);
    AppContext::setPlayer(player);
    AppContext::setLattice(lattice);
    return player->init() && player->initAudio(2, sampleRate) == 0 &&
           PatchLoader::installShellPatches() &&
           PatchLoader::loadVoice(player, TestSupport::binDir() + "/patches/Sine.pd") &&
           lattice->init(player);
}

} // namespace OfflineInstrument
