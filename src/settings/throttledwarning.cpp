#include "settings/throttledwarning.h"

#include <QDebug>

void ThrottledWarning::warn(const QString& text)
{
    if (mThrottle.admit()) {
        summarise();
        qWarning().noquote() << text;
    }
}

void ThrottledWarning::summarise()
{
    if (const unsigned long count = mThrottle.takeSuppressed()) {
        qWarning().noquote() << QString::fromLatin1(mSummary).arg(count);
    }
}

void ThrottledWarning::summariseIfDue()
{
    if (mThrottle.summaryDue()) {
        summarise();
    }
}
