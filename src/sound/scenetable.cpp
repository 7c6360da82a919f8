#include "sound/scenetable.h"

#include <algorithm>

void SceneTable::append(Scene scene, const std::vector<Note>& notes)
{
    scene.firstNote = int(mNotes.size());
    scene.noteCount = std::min(int(notes.size()), MAX_NOTES);
    mNotes.insert(mNotes.end(), notes.begin(), notes.begin() + scene.noteCount);
    mScenes.push_back(scene);
}

int SceneTable::indexOf(std::uint32_t id) const
{
    for (std::size_t i = 0; i < mScenes.size(); ++i) {
        if (mScenes[i].id == id) {
            return int(i);
        }
    }
    return -1;
}
