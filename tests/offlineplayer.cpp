#include "offlineplayer.h"

#include "model/arbo.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QDir>

#include <algorithm>
#include <cmath>

namespace OfflinePlayer {

std::vector<float> render(PdPlayer& player, double seconds)
{
    const int buffers = std::max(1, int(std::ceil(seconds / BUFFER_SECONDS)));
    std::vector<float> left;
    left.reserve(size_t(buffers) * BUFFER_FRAMES);
    std::vector<float> stereo(BUFFER_FRAMES * 2, 0.0f);
    for (int b = 0; b < buffers; ++b) {
        player.render(stereo.data(), BUFFER_FRAMES);
        player.deliverResults(); // as the GUI thread's timer would
        for (int i = 0; i < BUFFER_FRAMES; ++i) {
            left.push_back(stereo[size_t(2 * i)]);
        }
    }
    return left;
}

void runBuffer(PdPlayer& player)
{
    render(player, BUFFER_SECONDS);
}

int voiceOf(const PdPlayer& player, const ArboRatio& ratio)
{
    for (const PdPlayer::NoteOn& voice : player.voices()) {
        if (voice.seqId != 0 && !voice.released && voice.ratio == ratio) {
            return voice.voice;
        }
    }
    return -1;
}

void setUp(PdPlayer& player, Arbo& lattice, const QString& voice)
{
    QVERIFY(QDir().mkpath(TestSupport::configDir()));
    QVERIFY(player.init());
    QCOMPARE(player.initAudio(2, SAMPLE_RATE), 0);
    QVERIFY(PatchLoader::installShellPatches());
    QVERIFY(lattice.init(&player));
    QVERIFY(voice.isEmpty() ||
            PatchLoader::loadVoice(&player, TestSupport::binDir() + "/patches/" + voice));
}

InstrumentParts parts(PdPlayer& player, Arbo& lattice, Settings& options)
{
    InstrumentParts parts;
    parts.lattice = &lattice;
    parts.player = &player;
    parts.options = &options;
    return parts;
}

} // namespace OfflinePlayer
