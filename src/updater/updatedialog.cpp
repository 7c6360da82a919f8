#include "updater/updatedialog.h"

#include "updater/updater.h"
#include "updater/updaterregistry.h"

#include <QCoreApplication>

#ifndef ARBO_UPDATE_FEED_URL
#define ARBO_UPDATE_FEED_URL ""
#endif

namespace {
const char* const FEED_ENV = "ARBO_UPDATE_FEED_URL";
}

UpdateDialog::UpdateDialog(QObject* parent) : QObject(parent) {}

QString UpdateDialog::feedUrl()
{
    if (qEnvironmentVariableIsSet(FEED_ENV)) {
        return qEnvironmentVariable(FEED_ENV).trimmed();
    }
    return QStringLiteral(ARBO_UPDATE_FEED_URL).trimmed();
}

bool UpdateDialog::isCheckDue(int interval, const QString& lastCheck, const QDateTime& now)
{
    QDateTime last = QDateTime::fromString(lastCheck, Qt::TextDate);
    if (!last.isValid()) {
        last = now.addYears(-1);
    }
    switch (interval) {
    case ALWAYS:
        return true;
    case WEEKLY:
        return last.addDays(7) < now;
    case MONTHLY:
        return last.addMonths(1) < now;
    case QUARTERLY:
        return last.addMonths(3) < now;
    case SHORT:
        return last.addSecs(300) < now;
    default:
        return false;
    }
}

bool UpdateDialog::checkAtStartup(QObject* parent, int interval, QString& lastCheck)
{
    const QDateTime now = QDateTime::currentDateTime();
    if (!isCheckDue(interval, lastCheck, now)) {
        return false;
    }
    auto* dialog = new UpdateDialog(parent);
    dialog->setNotifyOnFinish(false);
    dialog->setNotifyOnUpdate(true);
    if (!dialog->checkForUpdates()) {
        delete dialog;
        return false;
    }
    lastCheck = now.toString(Qt::TextDate);
    return true;
}

bool UpdateDialog::checkNow(QObject* parent, QString& lastCheck)
{
    auto* dialog = new UpdateDialog(parent);
    dialog->setNotifyOnFinish(true);
    dialog->setNotifyOnUpdate(true);
    const bool started = dialog->checkForUpdates();
    lastCheck = QDateTime::currentDateTime().toString(Qt::TextDate);
    return started;
}

bool UpdateDialog::checkForUpdates()
{
    const QString url = feedUrl();
    if (url.isEmpty()) {
        if (mNotifyOnFinish) {
            Updater::showMessage(QMessageBox::Information, QCoreApplication::applicationName(),
                                 QStringLiteral("<h3>") + tr("This build has no update feed") +
                                     QStringLiteral("</h3>"),
                                 tr("This copy of %1 was built without the address of an update "
                                    "feed, so it cannot look for updates.")
                                     .arg(QCoreApplication::applicationName()),
                                 QMessageBox::Close, QMessageBox::Close);
        }
        return false;
    }
    UpdaterRegistry* registry = UpdaterRegistry::getInstance();
    const QString name = QCoreApplication::applicationName();
    const QString version = QStringLiteral(ARBO_VERSION);
    registry->setModuleName(url, name);
    registry->setModuleVersion(url, version);
    registry->setUserAgentString(url,
                                 QStringLiteral("%1/%2 (Qt; UpdaterRegistry)").arg(name, version));
    registry->setDownloaderEnabled(url, true);
    registry->setNotifyOnFinish(url, mNotifyOnFinish);
    registry->setNotifyOnUpdate(url, mNotifyOnUpdate);
    registry->checkForUpdates(url);
    return true;
}
