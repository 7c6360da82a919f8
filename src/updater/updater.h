#pragma once

#include <QByteArray>
#include <QMessageBox>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <functional>

class Downloader;
class QNetworkAccessManager;
class QNetworkReply;

// Fetches and interprets one update feed (a JSON document with an "updates"
// object keyed by platform) and tells the user what it found.
//
// Everything the server sends is treated as hostile: only https addresses are
// fetched or opened (also after a redirect), certificate errors are never
// ignored, at most MAX_REDIRECTS redirects are followed, and a feed larger
// than MAX_FEED_SIZE or not a JSON object counts as "no update".
//
// Thread contract: GUI thread only (it shows message boxes).
class Updater : public QObject
{
    Q_OBJECT
public:
    static constexpr int MAX_REDIRECTS = 5;
    static constexpr qint64 MAX_FEED_SIZE = 1024 * 1024;
    // Longest silence of the server, in ms, before a fetch counts as failed.
    static constexpr int TRANSFER_TIMEOUT_MS = 30000;

    explicit Updater(const QString& url, QObject* parent = nullptr);
    ~Updater() override;

    // True when version `x` is newer than version `y` (dot-separated numbers;
    // a part that is not a number counts as 0; with all shared parts equal the
    // one with more parts is newer, so 1.5.0.1 > 1.5.0 but 1.5 is not > 1.5.0).
    static bool compare(const QString& x, const QString& y);

    // True for an absolute https URL, the only kind this checker fetches or opens.
    static bool isSafeUrl(const QUrl& url);

    // Shows a non-modal rich-text message box that stays on top and deletes
    // itself when closed; `onFinished` gets the standard button that closed it
    // (0 when closed otherwise), and is dropped if `owner` is deleted first.
    // Shared by the checker, the downloader and the front so every message
    // looks and behaves alike (and a test can find and answer it).
    static QMessageBox* showMessage(QMessageBox::Icon icon, const QString& title,
                                    const QString& heading, const QString& informative,
                                    QMessageBox::StandardButtons buttons,
                                    QMessageBox::StandardButton defaultButton,
                                    std::function<void(int)> onFinished = {},
                                    QObject* owner = nullptr);

    QString url() const { return mUrl; }
    QString openUrl() const { return mOpenUrl; }
    QString changelog() const { return mChangelog; }
    QString downloadUrl() const { return mDownloadUrl; }
    QString latestVersion() const { return mLatestVersion; }
    QString moduleName() const { return mModuleName; }
    QString moduleVersion() const { return mModuleVersion; }
    QString platformKey() const { return mPlatformKey; }
    QString userAgentString() const { return mUserAgentString; }
    bool notifyOnUpdate() const { return mNotifyOnUpdate; }
    bool notifyOnFinish() const { return mNotifyOnFinish; }
    bool updateAvailable() const { return mUpdateAvailable; }
    bool downloaderEnabled() const { return mDownloaderEnabled; }
    bool mandatoryUpdate() const { return mMandatoryUpdate; }
    bool useCustomInstallProcedures() const;
    QString downloadDir() const;
    Downloader* downloader() const { return mDownloader; }

    void setModuleName(const QString& name) { mModuleName = name; }
    void setModuleVersion(const QString& version) { mModuleVersion = version; }
    void setPlatformKey(const QString& key) { mPlatformKey = key; }
    void setUserAgentString(const QString& agent);
    void setNotifyOnUpdate(bool notify) { mNotifyOnUpdate = notify; }
    void setNotifyOnFinish(bool notify) { mNotifyOnFinish = notify; }
    void setDownloaderEnabled(bool enabled) { mDownloaderEnabled = enabled; }
    void setMandatoryUpdate(bool mandatory) { mMandatoryUpdate = mandatory; }
    void setUseCustomInstallProcedures(bool custom);
    void setDownloadDir(const QString& dir);

public slots:
    // Fetches the feed; the answer arrives through the signals below.
    void checkForUpdates();

signals:
    void checkingFinished(const QString& url);
    void downloadFinished(const QString& url, const QString& filePath);
    void networkError(const QString& message, bool failed);
    void removeUpdateDialog();

private slots:
    void onReply(QNetworkReply* reply);

private:
    void sendRequest();
    void parseFeed(const QByteArray& body);
    void refuse(const QString& address);
    void setUpdateAvailable(bool available);
    void onUpdateAnswered(int button);
    void showBox(QMessageBox::Icon icon, const QString& heading, const QString& informative,
                 QMessageBox::StandardButtons buttons, QMessageBox::StandardButton defaultButton,
                 std::function<void(int)> onFinished);

    QString mUrl;
    QString mOpenUrl;
    QString mChangelog;
    QString mDownloadUrl;
    QString mLatestVersion;
    QString mModuleName;
    QString mModuleVersion;
    QString mPlatformKey;
    QString mUserAgentString;
    bool mNotifyOnUpdate = true;
    bool mNotifyOnFinish = false;
    bool mUpdateAvailable = false;
    bool mDownloaderEnabled = true;
    bool mMandatoryUpdate = false;
    bool mNetworkError = false;
    Downloader* mDownloader = nullptr; // owned; a top-level widget, so no Qt parent

    QNetworkAccessManager* mManager = nullptr;
    QPointer<QNetworkReply> mReply;
    QPointer<QMessageBox> mBox;
    int mRedirects = 0;
    bool mOversized = false;
};
