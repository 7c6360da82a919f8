#pragma once

#include "model/arbopath.h"
#include "model/arboratio.h"

#include <QtGlobal>

#include <cstdint>
#include <vector>

// The scenes of the active cue list as the audio thread recalls them: what
// each one sounds like, in plain values. The window builds a table whenever
// the list changes and hands it over whole (see SceneRecaller); once handed
// over it is never changed, only replaced, so the audio thread reads it
// without locks and never allocates.
//
// The patch a scene plays is not in here: a patch change opens a file, which
// only the GUI thread does, once the audio thread has said which scene it
// recalled.
class SceneTable
{
public:
    static constexpr int MACRO_COUNT = 8;
    static constexpr int PRIME_FLAG_COUNT = 32;
    static constexpr int MAX_NOTES = 128;

    // One sounding note: its exact ratio (transposition included, as the
    // voices hold it), the lattice path it was played at, and whether a key
    // holds it (a held note is started as held again, so that letting go of
    // its key still ends it).
    struct Note
    {
        ArboRatio ratio;
        ArboPath path;
        bool held = false;
    };

    // Everything of a scene but its notes, which lie in notes() from
    // firstNote on.
    struct Scene
    {
        // The window's name for the scene, stable while the scene exists:
        // the current scene is found again by it when the list changes.
        std::uint32_t id = 0;
        ArboRatio transposition{1, 1};
        float volume = 1.0f;
        float voiceVolume = 1.0f;
        float baseFrequency = 440.0f;
        bool monophonic = false;
        // Negative: the patch's own default (never set), left alone.
        float macros[MACRO_COUNT] = {-1, -1, -1, -1, -1, -1, -1, -1};
        bool primeEnabled[PRIME_FLAG_COUNT];
        int firstNote = 0;
        int noteCount = 0;

        Scene()
        {
            for (bool& enabled : primeEnabled) {
                enabled = true;
            }
        }
    };

    // What the audio thread took of the sound at a store: one scene and its
    // notes, in a fixed record that needs no allocation.
    struct Snapshot
    {
        Scene scene;
        Note notes[MAX_NOTES];
    };

    // GUI thread, while building: appends `scene` with `notes` (at most
    // MAX_NOTES of them are kept).
    void append(Scene scene, const std::vector<Note>& notes);

    int size() const { return int(mScenes.size()); }
    const Scene& scene(int index) const { return mScenes[std::size_t(index)]; }
    const Note* notes(const Scene& scene) const { return mNotes.data() + scene.firstNote; }
    // The index of the scene `id`, or -1.
    int indexOf(std::uint32_t id) const;

private:
    std::vector<Scene> mScenes;
    std::vector<Note> mNotes;
};
