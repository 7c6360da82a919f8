#include "updater/updaterregistry.h"

#include "updater/updater.h"

#include <QCoreApplication>

namespace {
UpdaterRegistry* sInstance = nullptr;
}

UpdaterRegistry* UpdaterRegistry::getInstance()
{
    if (!sInstance) {
        sInstance = new UpdaterRegistry;
        // The updaters own top-level widgets, which must go before the
        // application object tears the window system down; post routines run
        // at the start of its destruction.
        qAddPostRoutine([] {
            delete sInstance;
            sInstance = nullptr;
        });
    }
    return sInstance;
}

UpdaterRegistry::~UpdaterRegistry()
{
    qDeleteAll(mUpdaters);
}

Updater* UpdaterRegistry::getUpdater(const QString& url)
{
    Updater*& updater = mUpdaters[url];
    if (!updater) {
        updater = new Updater(url);
        // The updater's own url changes after a redirect; the registry keeps
        // reporting under the address it was asked for.
        connect(updater, &Updater::checkingFinished, this,
                [this, url] { emit checkingFinished(url); });
        connect(
            updater, &Updater::downloadFinished, this,
            [this, url](const QString&, const QString& path) { emit downloadFinished(url, path); });
    }
    return updater;
}

QString UpdaterRegistry::getOpenUrl(const QString& url)
{
    return getUpdater(url)->openUrl();
}
QString UpdaterRegistry::getChangelog(const QString& url)
{
    return getUpdater(url)->changelog();
}
QString UpdaterRegistry::getDownloadUrl(const QString& url)
{
    return getUpdater(url)->downloadUrl();
}
QString UpdaterRegistry::getLatestVersion(const QString& url)
{
    return getUpdater(url)->latestVersion();
}
QString UpdaterRegistry::getModuleName(const QString& url)
{
    return getUpdater(url)->moduleName();
}
QString UpdaterRegistry::getModuleVersion(const QString& url)
{
    return getUpdater(url)->moduleVersion();
}
QString UpdaterRegistry::getPlatformKey(const QString& url)
{
    return getUpdater(url)->platformKey();
}
QString UpdaterRegistry::getUserAgentString(const QString& url)
{
    return getUpdater(url)->userAgentString();
}
QString UpdaterRegistry::getDownloadDir(const QString& url)
{
    return getUpdater(url)->downloadDir();
}
bool UpdaterRegistry::getUpdateAvailable(const QString& url)
{
    return getUpdater(url)->updateAvailable();
}
bool UpdaterRegistry::getNotifyOnUpdate(const QString& url)
{
    return getUpdater(url)->notifyOnUpdate();
}
bool UpdaterRegistry::getNotifyOnFinish(const QString& url)
{
    return getUpdater(url)->notifyOnFinish();
}
bool UpdaterRegistry::getDownloaderEnabled(const QString& url)
{
    return getUpdater(url)->downloaderEnabled();
}
bool UpdaterRegistry::getMandatoryUpdate(const QString& url)
{
    return getUpdater(url)->mandatoryUpdate();
}
bool UpdaterRegistry::getUseCustomInstallProcedures(const QString& url)
{
    return getUpdater(url)->useCustomInstallProcedures();
}

void UpdaterRegistry::setModuleName(const QString& url, const QString& name)
{
    getUpdater(url)->setModuleName(name);
}
void UpdaterRegistry::setModuleVersion(const QString& url, const QString& version)
{
    getUpdater(url)->setModuleVersion(version);
}
void UpdaterRegistry::setPlatformKey(const QString& url, const QString& key)
{
    getUpdater(url)->setPlatformKey(key);
}
void UpdaterRegistry::setNotifyOnUpdate(const QString& url, bool notify)
{
    getUpdater(url)->setNotifyOnUpdate(notify);
}
void UpdaterRegistry::setNotifyOnFinish(const QString& url, bool notify)
{
    getUpdater(url)->setNotifyOnFinish(notify);
}
void UpdaterRegistry::setDownloaderEnabled(const QString& url, bool enabled)
{
    getUpdater(url)->setDownloaderEnabled(enabled);
}
void UpdaterRegistry::setMandatoryUpdate(const QString& url, bool mandatory)
{
    getUpdater(url)->setMandatoryUpdate(mandatory);
}
void UpdaterRegistry::setUseCustomInstallProcedures(const QString& url, bool custom)
{
    getUpdater(url)->setUseCustomInstallProcedures(custom);
}
void UpdaterRegistry::setUserAgentString(const QString& url, const QString& agent)
{
    getUpdater(url)->setUserAgentString(agent);
}
void UpdaterRegistry::setDownloadDir(const QString& url, const QString& dir)
{
    getUpdater(url)->setDownloadDir(dir);
}

void UpdaterRegistry::checkForUpdates(const QString& url)
{
    getUpdater(url)->checkForUpdates();
}
