#pragma once

#include <QDateTime>
#include <QObject>
#include <QString>

// The front of the update checker for the main window and the options
// dialog: it knows this build's feed, carries the two notification switches
// and starts a check through the registry. It has no window of its own; the
// checker's message boxes are the dialog the user sees.
//
// Thread contract: GUI thread only.
class UpdateDialog : public QObject
{
    Q_OBJECT
public:
    // The option updateCheckInterval: 0 always, 1 weekly, 2 monthly,
    // 3 quarterly, 4 never, 5 every 300 seconds; anything else never.
    enum Interval
    {
        ALWAYS = 0,
        WEEKLY = 1,
        MONTHLY = 2,
        QUARTERLY = 3,
        NEVER = 4,
        SHORT = 5
    };

    explicit UpdateDialog(QObject* parent = nullptr);

    // The feed of this build: the environment variable ARBO_UPDATE_FEED_URL
    // when it is set (even to nothing, which switches checks off), else the
    // address given to the build. Empty: this build has no update feed.
    static QString feedUrl();

    // Whether a start-up check is due. `lastCheck` is the time of the last
    // check in Qt's text date format; empty (or unreadable) counts as a year
    // before `now`.
    static bool isCheckDue(int interval, const QString& lastCheck, const QDateTime& now);

    // The start-up check of the main window: when `interval` makes a check due,
    // starts one that speaks only when an update exists, and then (only when a
    // check really started) sets `lastCheck` to now in Qt's text date format.
    // Without a feed it does nothing and says nothing. Returns whether a
    // check started.
    static bool checkAtStartup(QObject* parent, int interval, QString& lastCheck);

    // "Search for updates now ...": a check that reports every outcome, then
    // `lastCheck` = now in Qt's text date format. Without a feed the user is
    // told that this build has none. Returns whether a check started.
    static bool checkNow(QObject* parent, QString& lastCheck);

    void setNotifyOnUpdate(bool notify) { mNotifyOnUpdate = notify; }
    void setNotifyOnFinish(bool notify) { mNotifyOnFinish = notify; }
    bool notifyOnUpdate() const { return mNotifyOnUpdate; }
    bool notifyOnFinish() const { return mNotifyOnFinish; }

    // Starts a check of feedUrl() with the two switches. Returns false (and,
    // when notify-on-finish is set, says so) when this build has no feed.
    bool checkForUpdates();

private:
    bool mNotifyOnUpdate = true;
    bool mNotifyOnFinish = false;
};
