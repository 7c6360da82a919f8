#pragma once

#include "settings/logthrottle.h"

#include <QString>

// One kind of warning that outside input can trigger at its own speed (the
// network, a MIDI device): the first is logged as it stands, the rest within
// a second only counted and then summed up in one line, through a LogThrottle.
//
// Not thread-safe: one per thread. Allocates only when it logs.
class ThrottledWarning
{
public:
    // `summary` is a text with a %1 for how many warnings were held back,
    // such as "%1 more packets were dropped (warnings suppressed)". It must
    // outlive the object (a string literal).
    explicit ThrottledWarning(const char* summary) : mSummary(summary) {}

    // Logs `text` as a warning unless the throttle holds it back; a summary
    // of those held back before goes first.
    void warn(const QString& text);
    // Logs the summary of the warnings held back, if any.
    void summarise();
    // The same, once the throttle's interval has passed; for a caller that
    // goes idle now and then, so that a burst that stops is accounted for.
    void summariseIfDue();

private:
    LogThrottle mThrottle;
    const char* mSummary;
};
