#pragma once

class Arbo;
class PdPlayer;
class Settings;

// The instrument's model and engine as the display tests need them, without
// a sound card: the test thread plays the audio thread, draining the player's
// command buffers and running libpd itself.
namespace OfflineInstrument {

// Registers the three with AppContext, makes the configuration folder,
// starts libpd in stereo at `sampleRate` with the shell patches and the Sine
// voice, and lets the lattice follow the player. False at the first step
// that fails.
bool start(Settings* settings, PdPlayer* player, Arbo* lattice, int sampleRate);

} // namespace OfflineInstrument
