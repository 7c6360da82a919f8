#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QString>

class Updater;

// The one registry of update checkers: one Updater per feed URL, made on first
// use and kept for the life of the process. Every call names the feed first.
//
// Thread contract: GUI thread only. The registry is deleted when the
// application object goes away, before the widgets' window system does.
class UpdaterRegistry : public QObject
{
    Q_OBJECT
public:
    static UpdaterRegistry* getInstance();

    Updater* getUpdater(const QString& url);

    QString getOpenUrl(const QString& url);
    QString getChangelog(const QString& url);
    QString getDownloadUrl(const QString& url);
    QString getLatestVersion(const QString& url);
    QString getModuleName(const QString& url);
    QString getModuleVersion(const QString& url);
    QString getPlatformKey(const QString& url);
    QString getUserAgentString(const QString& url);
    QString getDownloadDir(const QString& url);
    bool getUpdateAvailable(const QString& url);
    bool getNotifyOnUpdate(const QString& url);
    bool getNotifyOnFinish(const QString& url);
    bool getDownloaderEnabled(const QString& url);
    bool getMandatoryUpdate(const QString& url);
    bool getUseCustomInstallProcedures(const QString& url);

    void setModuleName(const QString& url, const QString& name);
    void setModuleVersion(const QString& url, const QString& version);
    void setPlatformKey(const QString& url, const QString& key);
    void setNotifyOnUpdate(const QString& url, bool notify);
    void setNotifyOnFinish(const QString& url, bool notify);
    void setDownloaderEnabled(const QString& url, bool enabled);
    void setMandatoryUpdate(const QString& url, bool mandatory);
    void setUseCustomInstallProcedures(const QString& url, bool custom);
    void setUserAgentString(const QString& url, const QString& agent);
    void setDownloadDir(const QString& url, const QString& dir);

    void checkForUpdates(const QString& url);

signals:
    // The signals of every Updater, with the feed URL they concern.
    void checkingFinished(const QString& url);
    void downloadFinished(const QString& url, const QString& filePath);

private:
    UpdaterRegistry() = default;
    ~UpdaterRegistry() override;

    QHash<QString, Updater*> mUpdaters; // owned
};
