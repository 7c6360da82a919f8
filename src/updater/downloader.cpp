#include "updater/downloader.h"

#include "updater/updater.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QDateTime>
#include <QDesktopServices>
#include <QDir>
#include <QHBoxLayout>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace {

const QString TITLE = QStringLiteral("Updater");
// Longest name most Linux file systems accept, in bytes.
constexpr int MAX_NAME_BYTES = 255;

QString timeRemainingLabel(const QString& text)
{
    return Downloader::tr("Time remaining") + QStringLiteral(": ") + text;
}

} // namespace

Downloader::Downloader(QWidget* parent)
    : QWidget(parent), mDownloadDir(QDir::homePath() + QStringLiteral("/Downloads/")),
      mManager(new QNetworkAccessManager(this)), mProgressBar(new QProgressBar(this)),
      mDownloadLabel(new QLabel(tr("Downloading updates"), this)),
      mTimeLabel(new QLabel(timeRemainingLabel(tr("unknown")), this)),
      mStopButton(new QPushButton(tr("Stop"), this)), mOpenButton(new QPushButton(tr("Open"), this))
{
    setWindowTitle(TITLE);
    setWindowFlags(Qt::Dialog);
    mProgressBar->setObjectName(QStringLiteral("progressBar"));
    mProgressBar->setRange(0, 100);
    mDownloadLabel->setObjectName(QStringLiteral("downloadLabel"));
    mTimeLabel->setObjectName(QStringLiteral("timeLabel"));
    mStopButton->setObjectName(QStringLiteral("stopButton"));
    mOpenButton->setObjectName(QStringLiteral("openButton"));
    mOpenButton->setEnabled(false);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(mOpenButton);
    buttons->addWidget(mStopButton);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(mDownloadLabel);
    layout->addWidget(mProgressBar);
    layout->addWidget(mTimeLabel);
    layout->addLayout(buttons);
    setMinimumWidth(420);

    connect(mStopButton, &QPushButton::clicked, this, &Downloader::cancelDownload);
    connect(mOpenButton, &QPushButton::clicked, this, &Downloader::openDownload);
}

Downloader::~Downloader()
{
    if (mReply) {
        dropReply();
        mFile.remove();
    }
}

QString Downloader::safeFileName(const QString& name)
{
    if (name.isEmpty()) {
        return QStringLiteral("Update.bin");
    }
    bool plain = !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) &&
                 !name.contains(QLatin1String("..")) && !name.startsWith(QLatin1Char('.')) &&
                 QFile::encodeName(name).size() <= MAX_NAME_BYTES;
    for (const QChar c : name) {
        if (c.category() == QChar::Other_Control) {
            plain = false;
        }
    }
    return plain ? name : QStringLiteral("QSU_Update.bin");
}

QString Downloader::sizeText(qint64 received, qint64 total)
{
    // Both amounts are shown in whole units. The total is divided first and
    // only then rounded to two decimals, so it too comes out whole: that is
    // how this dialog has always shown it, and it is kept on purpose.
    const auto amount = [](qint64 bytes, bool isTotal) {
        QString unit;
        qint64 whole = bytes;
        if (bytes < 1024) {
            return tr("%1 bytes").arg(bytes);
        }
        if (bytes > 1048575) {
            whole = bytes / 1048576;
            unit = tr("%1 MB");
        } else {
            whole = bytes / 1024;
            unit = tr("%1 KB");
        }
        if (isTotal) {
            return unit.arg(QString::number(qRound64(double(whole) * 100.0) / 100.0));
        }
        return unit.arg(whole);
    };
    // A server that sends no length gives a total of -1: say so in words
    // instead of "-1 bytes".
    const QString totalText = total < 0 ? tr("unknown") : amount(total, true);
    return tr("Downloading updates") + QStringLiteral(" (") + amount(received, false) +
           QStringLiteral(" ") + tr("of") + QStringLiteral(" ") + totalText + QStringLiteral(")");
}

QString Downloader::timeRemainingText(qint64 remaining)
{
    if (remaining > 7200) {
        const int hours = int(double(remaining) / 3600.0 + 0.5);
        // Never below 2 here; the branch stays for a reader who lowers the limit.
        return hours < 2 ? tr("about one hour") : tr("about %1 hours").arg(hours);
    }
    if (remaining < 61) {
        const int seconds = int(double(remaining) + 0.5);
        return seconds == 1 ? tr("1 second") : tr("%1 seconds").arg(seconds);
    }
    const int minutes = int(double(remaining) / 60.0 + 0.5);
    return minutes == 1 ? tr("1 minute") : tr("%1 minutes").arg(minutes);
}

void Downloader::setFileName(const QString& name)
{
    mFileName = safeFileName(name);
    if (mFileName != name && !name.isEmpty()) {
        qWarning() << "Update file name" << name << "is not a plain file name; saving as"
                   << mFileName;
    }
}

QString Downloader::filePath() const
{
    return QDir(mDownloadDir).filePath(mFileName);
}

void Downloader::startDownload(const QUrl& url)
{
    mRedirects = 0;
    begin(url);
}

void Downloader::begin(const QUrl& url)
{
    dropReply();
    mProgressBar->setRange(0, 100);
    mProgressBar->setValue(0);
    mStopButton->setText(tr("Stop"));
    mOpenButton->setEnabled(false);
    mDownloadLabel->setText(tr("Downloading updates"));
    mTimeLabel->setText(timeRemainingLabel(tr("unknown")));
    show();

    if (!Updater::isSafeUrl(url)) {
        fail(tr("%1 is not an https address.").arg(url.toString()));
        return;
    }
    QDir().mkpath(mDownloadDir);
    QFile::remove(filePath());
    mFile.close();
    mFile.setFileName(partialFilePath());
    mFile.remove();
    if (!mFile.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        fail(tr("cannot write %1").arg(mFile.fileName()));
        return;
    }
    mStartTime = QDateTime::currentSecsSinceEpoch();
    mReceived = 0;

    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::UserAgentHeader, mUserAgentString);
    // Redirects are followed here, one by one, so each target can be checked.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    request.setTransferTimeout(Updater::TRANSFER_TIMEOUT_MS);
    mReply = mManager->get(request);
    connect(mReply, &QNetworkReply::readyRead, this, &Downloader::saveFile);
    connect(mReply, &QNetworkReply::downloadProgress, this, &Downloader::updateProgress);
    connect(mReply, &QNetworkReply::finished, this, &Downloader::finished);
}

void Downloader::dropReply()
{
    if (mReply) {
        QNetworkReply* reply = mReply;
        mReply = nullptr;
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
}

void Downloader::saveFile()
{
    if (!mReply) {
        return;
    }
    const QByteArray data = mReply->readAll();
    // The body of a redirect is not part of the file.
    if (!mReply->attribute(QNetworkRequest::RedirectionTargetAttribute).isNull()) {
        return;
    }
    if (mFile.isOpen() && mFile.write(data) != data.size()) {
        fail(tr("cannot write %1").arg(mFile.fileName()));
        return;
    }
    // Qt reports progress at most every 150 ms or so and not at all for data
    // that arrives just before the server pauses, so what was written is
    // reported here as well; otherwise a stalled download shows stale figures.
    mReceived += data.size();
    if (!data.isEmpty()) {
        const QVariant length = mReply->header(QNetworkRequest::ContentLengthHeader);
        updateProgress(mReceived, length.isValid() ? length.toLongLong() : -1);
    }
}

void Downloader::updateProgress(qint64 received, qint64 total)
{
    if (!mReply || !mReply->attribute(QNetworkRequest::RedirectionTargetAttribute).isNull()) {
        return;
    }
    if (total > 0) {
        mProgressBar->setRange(0, 100);
        mProgressBar->setValue(int(received * 100 / total));
    } else {
        mProgressBar->setRange(0, 0);
    }
    calculateSizes(received, total);
    calculateTimeRemaining(received, total);
}

void Downloader::calculateSizes(qint64 received, qint64 total)
{
    mDownloadLabel->setText(sizeText(received, total));
}

void Downloader::calculateTimeRemaining(qint64 received, qint64 total)
{
    const qint64 elapsed = QDateTime::currentSecsSinceEpoch() - mStartTime;
    if (elapsed < 1 || total < 0) {
        return;
    }
    const qint64 rate = received / elapsed;
    if (rate <= 0) {
        return;
    }
    mTimeLabel->setText(timeRemainingLabel(timeRemainingText((total - received) / rate)));
}

void Downloader::finished()
{
    QNetworkReply* reply = mReply;
    if (!reply) {
        return;
    }
    const QUrl target = reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl();
    if (!target.isEmpty() && reply->error() == QNetworkReply::NoError) {
        const QUrl resolved = reply->url().resolved(target);
        if (!Updater::isSafeUrl(resolved)) {
            fail(tr("the server redirected to %1, which is not an https address.")
                     .arg(resolved.toString()));
        } else if (++mRedirects > MAX_REDIRECTS) {
            fail(tr("too many redirects."));
        } else {
            begin(resolved);
        }
        return;
    }
    if (reply->error() != QNetworkReply::NoError) {
        fail(reply->errorString());
        return;
    }
    saveFile();
    mReply = nullptr;
    reply->deleteLater();
    if (!mFile.isOpen()) {
        return; // a write failed and was reported
    }
    mFile.close();
    QFile::remove(filePath());
    if (!mFile.rename(filePath())) {
        fail(tr("cannot rename %1").arg(partialFilePath()));
        return;
    }
    emit downloadFinished(mUrlId, filePath());
    installUpdate();
}

void Downloader::fail(const QString& reason)
{
    qWarning() << "Update download failed:" << reason;
    dropReply();
    mFile.close();
    mFile.remove();
    mProgressBar->setRange(0, 100);
    mStopButton->setText(tr("Close"));
    mDownloadLabel->setText(tr("Download failed: %1").arg(reason));
    mTimeLabel->clear();
}

void Downloader::installUpdate()
{
    mStopButton->setText(tr("Close"));
    mDownloadLabel->setText(tr("Download complete!"));
    mTimeLabel->setText(tr("The installer will open separately") + QStringLiteral("..."));
    if (mUseCustomInstallProcedures) {
        return;
    }
    const QString text =
        mMandatoryUpdate
            ? tr("In order to install the update, you may need to quit the application. This is a "
                 "mandatory update, exiting now will close the application")
            : tr("In order to use the new version, quit the application and replace it in your "
                 "applications folder.");
    Updater::showMessage(
        QMessageBox::Information, TITLE,
        QStringLiteral("<h3>") + tr("Click \"OK\" to open the downloaded file now") +
            QStringLiteral("</h3>"),
        text, QMessageBox::Ok | QMessageBox::Cancel, QMessageBox::Ok,
        [this](int button) {
            if (button == QMessageBox::Ok) {
                openDownload();
            } else if (mMandatoryUpdate) {
                QCoreApplication::quit();
            } else {
                mOpenButton->setEnabled(true);
                mDownloadLabel->setText(tr("Click the \"Open\" button to apply the update"));
            }
        },
        this);
}

void Downloader::openDownload()
{
    const QString path = filePath();
    if (!QFile::exists(path)) {
        Updater::showMessage(QMessageBox::Critical, tr("Error"),
                             tr("Cannot find downloaded update!"), QString(), QMessageBox::Close,
                             QMessageBox::Close, {}, this);
        return;
    }
    // The desktop's handler for the file's type opens it; the program itself
    // never runs what it downloaded.
    QDesktopServices::openUrl(QUrl::fromLocalFile(path));
}

void Downloader::cancelDownload()
{
    if (!mReply) {
        close();
        return;
    }
    const QString text =
        mMandatoryUpdate ? tr("Are you sure you want to cancel the download? This is a mandatory "
                              "update, exiting now will close the application")
                         : tr("Are you sure you want to cancel the download?");
    Updater::showMessage(
        QMessageBox::Question, TITLE, text, QString(), QMessageBox::Yes | QMessageBox::No,
        QMessageBox::No,
        [this](int button) {
            // The download may have ended while the question was open.
            if (button != QMessageBox::Yes || !mReply) {
                return;
            }
            dropReply();
            mFile.close();
            mFile.remove();
            hide();
            if (mMandatoryUpdate) {
                QCoreApplication::quit();
            }
        },
        this);
}

void Downloader::closeEvent(QCloseEvent* event)
{
    // Closing the window while data still arrives is a cancel and asks first.
    if (mReply) {
        event->ignore();
        cancelDownload();
        return;
    }
    QWidget::closeEvent(event);
}
