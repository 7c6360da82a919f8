#include "sound/realtimezone.h"

namespace {

thread_local bool tAudio = false;
thread_local int tLibraryDepth = 0;

} // namespace

bool RealTimeZone::inOwnAudioCode() noexcept
{
    return tAudio && tLibraryDepth == 0;
}

RealTimeZone::Audio::Audio() noexcept
{
    tAudio = true;
}

RealTimeZone::Audio::~Audio()
{
    tAudio = false;
}

RealTimeZone::Library::Library() noexcept
{
    ++tLibraryDepth;
}

RealTimeZone::Library::~Library()
{
    --tLibraryDepth;
}

RealTimeZone::Hook::Hook() noexcept : mSavedDepth(tLibraryDepth)
{
    tLibraryDepth = 0;
}

RealTimeZone::Hook::~Hook()
{
    tLibraryDepth = mSavedDepth;
}
