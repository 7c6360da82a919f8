#include "settings/logthrottle.h"

LogThrottle::LogThrottle(std::chrono::milliseconds interval) : mInterval(interval) {}

bool LogThrottle::admit(Clock::time_point now)
{
    if (mLogged && now - mLastLogged < mInterval) {
        ++mSuppressed;
        return false;
    }
    mLogged = true;
    mLastLogged = now;
    return true;
}

bool LogThrottle::summaryDue(Clock::time_point now) const
{
    return mSuppressed != 0 && now - mLastLogged >= mInterval;
}

unsigned long LogThrottle::takeSuppressed(Clock::time_point now)
{
    const unsigned long count = mSuppressed;
    mSuppressed = 0;
    if (count != 0) {
        mLogged = true;
        mLastLogged = now;
    }
    return count;
}
