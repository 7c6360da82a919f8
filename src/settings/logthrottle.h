#pragma once

#include <chrono>

// Keeps a warning that outside input can trigger at network speed from
// flooding the log file.
//
// The first occurrence is logged as it stands. After that, occurrences within
// one interval of the last logged one are only counted; the next occurrence
// after the interval is logged again, preceded by a summary of how many were
// held back. A caller that goes idle asks summaryDue() now and then, so that a
// burst that stops is still accounted for without waiting for the next one.
//
// Not thread-safe: one throttle per thread. Never allocates or blocks.
class LogThrottle
{
public:
    using Clock = std::chrono::steady_clock;

    explicit LogThrottle(std::chrono::milliseconds interval = std::chrono::seconds(1));

    // Records one occurrence. True when the caller should log it now: the
    // first one, and the first one at least an interval after the last one
    // logged. Before logging it, the caller reports takeSuppressed() when that
    // is not zero. False: the occurrence has been counted, log nothing.
    bool admit(Clock::time_point now = Clock::now());

    // Whether counted occurrences wait for a summary and the interval since
    // the last logged message has passed.
    bool summaryDue(Clock::time_point now = Clock::now()) const;

    // The occurrences counted since the last logged one; resets the count and
    // restarts the interval (the summary is itself a logged message).
    unsigned long takeSuppressed(Clock::time_point now = Clock::now());

    unsigned long suppressed() const { return mSuppressed; }

private:
    std::chrono::milliseconds mInterval;
    Clock::time_point mLastLogged;
    bool mLogged = false;
    unsigned long mSuppressed = 0;
};
