#include "offlineplayer.h"

#include "sound/pdplayer.h"

#include <z_libpd.h>

#include <algorithm>
#include <cmath>

namespace OfflinePlayer {

std::vector<float> render(PdPlayer& player, double seconds)
{
    constexpr int TICK = 64; // libpd's block size
    const int buffers = std::max(1, int(std::ceil(seconds / BUFFER_SECONDS)));
    std::vector<float> left;
    left.reserve(size_t(buffers) * BUFFER_FRAMES);
    std::vector<float> stereo(BUFFER_FRAMES * 2, 0.0f);
    for (int b = 0; b < buffers; ++b) {
        player.processEvents();
        libpd_process_float(BUFFER_FRAMES / TICK, nullptr, stereo.data());
        for (int i = 0; i < BUFFER_FRAMES; ++i) {
            left.push_back(stereo[size_t(2 * i)]);
        }
    }
    return left;
}

} // namespace OfflinePlayer
