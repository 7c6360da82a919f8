#include "model/arboevent.h"

#include "settings/settings.h"

#include <cmath>

ArboEvent::ArboEvent(Type type, float value) : mType(type), mValue(value) {}

// Out of line so the class's virtual table lives in exactly one object file.
ArboEvent::~ArboEvent() = default;

bool ArboEvent::needsPath(int type)
{
    return type == NoteToggle || type == NoteStart || type == NoteEnd;
}

const char* ArboEvent::bareRefusal(int type)
{
    if (type < 0 || type > LAST_TYPE) {
        return "is no command this program knows";
    }
    if (needsPath(type)) {
        return "needs a path (a \"value\" such as \"/3/-5\")";
    }
    if (type == OpenPatch || type == ClosePatch || type == RatioToggle) {
        return "is the program's own";
    }
    return nullptr;
}

const char* ArboEvent::refusal(int type, float value)
{
    // Written so that NaN fails every comparison and is refused with it.
    switch (type) {
    case BaseFrequency:
        return value >= Settings::FREQUENCY_MIN && value <= Settings::FREQUENCY_MAX
                   ? nullptr
                   : "is no base frequency from 20 Hz to 20 kHz";
    case MasterVolume:
    case VoiceVolume:
        return value >= Settings::VOLUME_MIN && value <= Settings::VOLUME_MAX
                   ? nullptr
                   : "is no volume from 0 to 4";
    case MasterVolumeStep:
    case VoiceVolumeStep:
        return std::fabs(value) <= Settings::VOLUME_MAX - Settings::VOLUME_MIN
                   ? nullptr
                   : "is no volume step from -4 to 4";
    case Macro1:
    case Macro2:
    case Macro3:
    case Macro4:
    case Macro5:
    case Macro6:
    case Macro7:
    case Macro8:
        return value >= 0.0f && value <= 1.0f ? nullptr : "is no macro value from 0 to 1";
    case SceneRecall:
        return value >= 1.0f && value <= float(SCENE_NUMBER_MAX) && value == std::floor(value)
                   ? nullptr
                   : "is no scene number";
    default:
        return std::isfinite(value) ? nullptr : "is not a finite number";
    }
}
