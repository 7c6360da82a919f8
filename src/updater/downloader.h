#pragma once

#include <QFile>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <QWidget>

class QCloseEvent;
class QLabel;
class QNetworkAccessManager;
class QNetworkReply;
class QProgressBar;
class QPushButton;

// A small window that downloads an update into the download folder, showing
// progress, size and time remaining, and then offers to open the file with
// the desktop's handler for its type.
//
// The data goes to "<name>.part" and is renamed to "<name>" only when the
// download has finished without error; a failed or cancelled download removes
// the partial file, so no half file is ever left under the real name. Nothing
// downloaded is ever executed by the program itself and the file is written
// without the executable bit.
//
// Thread contract: GUI thread only.
class Downloader : public QWidget
{
    Q_OBJECT
public:
    static constexpr int MAX_REDIRECTS = 5;

    explicit Downloader(QWidget* parent = nullptr);
    ~Downloader() override;

    // The name a download is stored under: `name` itself when it is a plain
    // file name, "Update.bin" when it is empty, and "QSU_Update.bin" when it
    // could reach outside the download folder or hide itself (a "/", "\",
    // "..", a leading ".", a control character, or longer than a file name
    // may be).
    static QString safeFileName(const QString& name);

    // "Downloading updates (<received> of <total>)", each amount in bytes,
    // KB or MB in whole units.
    static QString sizeText(qint64 received, qint64 total);

    // "1 second", "%1 minutes", "about %1 hours", ... for a remaining time.
    static QString timeRemainingText(qint64 remainingSeconds);

    void setUrlId(const QString& url) { mUrlId = url; }
    void setFileName(const QString& name);
    void setMandatoryUpdate(bool mandatory) { mMandatoryUpdate = mandatory; }
    void setUserAgentString(const QString& agent) { mUserAgentString = agent; }
    void setUseCustomInstallProcedures(bool custom) { mUseCustomInstallProcedures = custom; }
    void setDownloadDir(const QString& dir) { mDownloadDir = dir; }

    QString fileName() const { return mFileName; }
    QString downloadDir() const { return mDownloadDir; }
    QString filePath() const;
    QString partialFilePath() const { return filePath() + QStringLiteral(".part"); }
    bool mandatoryUpdate() const { return mMandatoryUpdate; }
    bool useCustomInstallProcedures() const { return mUseCustomInstallProcedures; }
    bool isDownloading() const { return !mReply.isNull(); }

public slots:
    void startDownload(const QUrl& url);
    void cancelDownload();
    void openDownload();
    void installUpdate();

signals:
    void downloadFinished(const QString& url, const QString& filePath);

protected:
    void closeEvent(QCloseEvent* event) override;

private slots:
    void saveFile();
    void updateProgress(qint64 received, qint64 total);
    void finished();

private:
    void begin(const QUrl& url);
    void dropReply();
    void fail(const QString& reason);
    void calculateSizes(qint64 received, qint64 total);
    void calculateTimeRemaining(qint64 received, qint64 total);

    QString mUrlId;
    QString mFileName = QStringLiteral("Update.bin");
    QString mDownloadDir;
    QString mUserAgentString;
    bool mMandatoryUpdate = false;
    bool mUseCustomInstallProcedures = false;

    QNetworkAccessManager* mManager;
    QPointer<QNetworkReply> mReply;
    QFile mFile;
    qint64 mStartTime = 0; // seconds since the epoch
    int mRedirects = 0;
    qint64 mReceived = 0; // bytes written to the partial file

    QProgressBar* mProgressBar;
    QLabel* mDownloadLabel;
    QLabel* mTimeLabel;
    QPushButton* mStopButton;
    QPushButton* mOpenButton;
};
