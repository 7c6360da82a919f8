#pragma once

#include "ui/instrumentparts.h"

#include <QString>

#include <vector>

class Arbo;
class ArboRatio;
class PdPlayer;
class Settings;

// Runs the player without a sound card: the calling thread plays the audio
// thread, draining the command buffers and running libpd buffer by buffer as
// the audio callback does. Results are exact and repeatable.
namespace OfflinePlayer {

constexpr int SAMPLE_RATE = 44100;
constexpr int BUFFER_FRAMES = 256;
constexpr double BUFFER_SECONDS = double(BUFFER_FRAMES) / SAMPLE_RATE;

// Runs `player` through its render entry for at least `seconds` (whole
// buffers, one at least), delivering its results after each buffer as the
// GUI thread would, and returns the left channel: silence while no patch is
// open. The player must have been given
// initAudio(2, SAMPLE_RATE).
std::vector<float> render(PdPlayer& player, double seconds);
// One buffer, for a test that plays the audio thread and only wants the
// commands carried out and their results delivered.
void runBuffer(PdPlayer& player);
// The voice sounding `ratio` (struck and not released), or -1.
int voiceOf(const PdPlayer& player, const ArboRatio& ratio);

// The instrument as start-up builds it, minus the sound card: starts the
// player for render() with the shell patches in the runtime patch folder,
// and loads the lattice (following the player), then the voice `voice` of
// the patch folder ("Sine.pd"), if given. Fails the calling test on any
// failure: check QTest::currentTestFailed().
void setUp(PdPlayer& player, Arbo& lattice, const QString& voice = QString());
// What a window made by the test acts on: these three, no audio output and
// no MIDI.
InstrumentParts parts(PdPlayer& player, Arbo& lattice, Settings& options);

} // namespace OfflinePlayer
