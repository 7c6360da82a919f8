#include "updater/updater.h"

#include "updater/downloader.h"

#include <QApplication>
#include <QDesktopServices>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStringList>

namespace {

QString defaultPlatformKey()
{
#if defined(Q_OS_MACOS)
    return QStringLiteral("osx");
#elif defined(Q_OS_WIN)
    return QStringLiteral("windows");
#else
    return QStringLiteral("linux");
#endif
}

QString heading(const QString& text)
{
    return QStringLiteral("<h3>") + text + QStringLiteral("</h3>");
}

} // namespace

Updater::Updater(const QString& url, QObject* parent)
    : QObject(parent), mUrl(url), mModuleName(QCoreApplication::applicationName()),
      mModuleVersion(QCoreApplication::applicationVersion()), mPlatformKey(defaultPlatformKey()),
      mManager(new QNetworkAccessManager(this))
{
    mUserAgentString =
        QStringLiteral("%1/%2 (Qt; UpdaterRegistry)").arg(mModuleName, mModuleVersion);
    mDownloader = new Downloader();
    mDownloader->setUserAgentString(mUserAgentString);
    connect(mDownloader, &Downloader::downloadFinished, this, &Updater::downloadFinished);
}

Updater::~Updater()
{
    delete mBox;
    delete mDownloader;
}

bool Updater::compare(const QString& x, const QString& y)
{
    const QStringList xs = x.split(QLatin1Char('.'), Qt::KeepEmptyParts);
    const QStringList ys = y.split(QLatin1Char('.'), Qt::KeepEmptyParts);
    const int shared = std::min(xs.size(), ys.size());
    for (int i = 0; i < shared; ++i) {
        // toLongLong gives 0 for a part that is not a number, which is the rule.
        const qlonglong a = xs.at(i).toLongLong();
        const qlonglong b = ys.at(i).toLongLong();
        if (a > b) {
            return true;
        }
        if (a < b) {
            return false;
        }
    }
    return xs.size() > ys.size();
}

bool Updater::isSafeUrl(const QUrl& url)
{
    return url.isValid() && url.scheme() == QLatin1String("https") && !url.host().isEmpty();
}

QMessageBox* Updater::showMessage(QMessageBox::Icon icon, const QString& title,
                                  const QString& heading, const QString& informative,
                                  QMessageBox::StandardButtons buttons,
                                  QMessageBox::StandardButton defaultButton,
                                  std::function<void(int)> onFinished, QObject* owner)
{
    auto* box = new QMessageBox(icon, title, heading, buttons);
    box->setTextFormat(Qt::RichText);
    box->setInformativeText(informative);
    box->setDefaultButton(defaultButton);
    box->setWindowModality(Qt::NonModal);
    box->setWindowFlags(box->windowFlags() | Qt::Tool | Qt::WindowStaysOnTopHint);
    box->setAttribute(Qt::WA_DeleteOnClose);
    if (onFinished) {
        QObject::connect(box, &QMessageBox::finished, owner ? owner : box, std::move(onFinished));
    }
    box->show();
    return box;
}

bool Updater::useCustomInstallProcedures() const
{
    return mDownloader->useCustomInstallProcedures();
}

QString Updater::downloadDir() const
{
    return mDownloader->downloadDir();
}

void Updater::setUserAgentString(const QString& agent)
{
    mUserAgentString = agent;
    mDownloader->setUserAgentString(agent);
}

void Updater::setUseCustomInstallProcedures(bool custom)
{
    mDownloader->setUseCustomInstallProcedures(custom);
}

void Updater::setDownloadDir(const QString& dir)
{
    mDownloader->setDownloadDir(dir);
}

void Updater::checkForUpdates()
{
    mRedirects = 0;
    sendRequest();
}

void Updater::sendRequest()
{
    if (mReply) {
        // A new check replaces one still running; the old answer is dropped.
        mReply->disconnect(this);
        mReply->abort();
        mReply->deleteLater();
    }
    mNetworkError = false;
    mOversized = false;
    if (!isSafeUrl(QUrl(mUrl))) {
        mUpdateAvailable = false;
        refuse(mUrl);
        emit checkingFinished(mUrl);
        return;
    }
    QNetworkRequest request{QUrl(mUrl)};
    request.setHeader(QNetworkRequest::UserAgentHeader, mUserAgentString);
    // Redirects are followed here, one by one, so each target can be checked.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::ManualRedirectPolicy);
    // A server that accepts the connection and then says nothing would leave
    // the check hanging for good.
    request.setTransferTimeout(TRANSFER_TIMEOUT_MS);
    QNetworkReply* reply = mManager->get(request);
    mReply = reply;
    connect(reply, &QNetworkReply::downloadProgress, this, [this, reply](qint64 got, qint64 total) {
        if (got > MAX_FEED_SIZE || total > MAX_FEED_SIZE) {
            mOversized = true;
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { onReply(reply); });
}

void Updater::onReply(QNetworkReply* reply)
{
    reply->deleteLater();
    if (reply == mReply) {
        mReply = nullptr;
    }
    // The progress signal stops a big feed early, but Qt may deliver a whole
    // small burst without one, so the size is checked again here.
    if (mOversized || reply->bytesAvailable() > MAX_FEED_SIZE) {
        qWarning() << "Update feed" << mUrl << "is larger than" << MAX_FEED_SIZE
                   << "bytes; ignored";
        emit checkingFinished(mUrl);
        setUpdateAvailable(false);
        return;
    }

    const QUrl target = reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl();
    if (!target.isEmpty() && reply->error() == QNetworkReply::NoError) {
        const QUrl resolved = reply->url().resolved(target);
        if (!isSafeUrl(resolved)) {
            mUpdateAvailable = false;
            refuse(resolved.toString());
            emit checkingFinished(mUrl);
            return;
        }
        if (++mRedirects > MAX_REDIRECTS) {
            qWarning() << "Update feed" << mUrl << "redirects more than" << MAX_REDIRECTS
                       << "times";
            mNetworkError = true;
            emit networkError(tr("Too many redirects"), true);
            emit checkingFinished(mUrl);
            setUpdateAvailable(false);
            return;
        }
        mUrl = resolved.toString();
        sendRequest();
        return;
    }

    if (reply->error() != QNetworkReply::NoError) {
        qWarning() << "Update check of" << mUrl << "failed:" << reply->errorString();
        mNetworkError = true;
        emit networkError(reply->errorString(), true);
        emit checkingFinished(mUrl);
        setUpdateAvailable(false);
        return;
    }

    parseFeed(reply->readAll());
}

void Updater::parseFeed(const QByteArray& body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (document.isNull() || !document.isObject()) {
        qWarning() << "Update feed" << mUrl << "is not a JSON object; ignored";
        emit checkingFinished(mUrl);
        setUpdateAvailable(false);
        return;
    }
    const QJsonObject entry = document.object()
                                  .value(QStringLiteral("updates"))
                                  .toObject()
                                  .value(mPlatformKey)
                                  .toObject();
    mOpenUrl = entry.value(QStringLiteral("open-url")).toString();
    mChangelog = entry.value(QStringLiteral("changelog")).toString();
    mDownloadUrl = entry.value(QStringLiteral("download-url")).toString();
    mLatestVersion = entry.value(QStringLiteral("latest-version")).toString();
    if (entry.contains(QStringLiteral("mandatory-update"))) {
        mMandatoryUpdate = entry.value(QStringLiteral("mandatory-update")).toBool();
    }
    const bool available = compare(mLatestVersion, mModuleVersion);
    emit checkingFinished(mUrl);
    setUpdateAvailable(available);
}

// An address that is not https is never fetched or opened: the user is told,
// when the check was meant to say anything at all.
void Updater::refuse(const QString& address)
{
    qWarning() << "Update checker refused the address" << address << "(not https)";
    if (mNotifyOnUpdate || mNotifyOnFinish) {
        showBox(QMessageBox::Warning, tr("The update address is not safe"),
                tr("Updates are only fetched and opened over https, and %1 is not an https "
                   "address.")
                    .arg(address.toHtmlEscaped()),
                QMessageBox::Close, QMessageBox::Close, [this](int) { emit removeUpdateDialog(); });
    }
}

void Updater::showBox(QMessageBox::Icon icon, const QString& headingText,
                      const QString& informative, QMessageBox::StandardButtons buttons,
                      QMessageBox::StandardButton defaultButton,
                      std::function<void(int)> onFinished)
{
    if (mBox) {
        // A box replaced by a newer one is not an answer: closing it must not
        // run its buttons' actions (a mandatory update's "No" would quit).
        mBox->disconnect(this);
        mBox->close();
    }
    mBox = showMessage(icon, mModuleName, heading(headingText), informative, buttons, defaultButton,
                       std::move(onFinished), this);
}

void Updater::setUpdateAvailable(bool available)
{
    mUpdateAvailable = available;
    if (available && mNotifyOnUpdate) {
        const QString text =
            mMandatoryUpdate
                ? tr("Would you like to download the update now? This is a mandatory update, "
                     "exiting now will close the application")
                : tr("Please note the changelog. Would you like to download the update now?");
        showBox(QMessageBox::Information,
                tr("Version %1 of %2 has been released!").arg(mLatestVersion, mModuleName), text,
                QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes,
                [this](int button) { onUpdateAnswered(button); });
    } else if (mNetworkError && (mNotifyOnUpdate || mNotifyOnFinish)) {
        mNotifyOnFinish = true;
        showBox(QMessageBox::Information, tr("A network error occurred"),
                tr("Cannot check for updates. Please check your internet connection and retry."),
                QMessageBox::Close | QMessageBox::Retry, QMessageBox::Retry, [this](int button) {
                    if (button == QMessageBox::Retry) {
                        checkForUpdates();
                    } else {
                        emit removeUpdateDialog();
                    }
                });
    } else if (mNotifyOnFinish) {
        showBox(QMessageBox::Information,
                tr("You are running the latest version of %1").arg(mModuleName),
                tr("No updates are available for the moment"), QMessageBox::Close,
                QMessageBox::Close, [this](int) { emit removeUpdateDialog(); });
    }
}

void Updater::onUpdateAnswered(int button)
{
    if (button == QMessageBox::Yes) {
        if (!mOpenUrl.isEmpty()) {
            // The feed is hostile until proven otherwise: a page is only
            // handed to the browser when it is an https page.
            if (isSafeUrl(QUrl(mOpenUrl))) {
                QDesktopServices::openUrl(QUrl(mOpenUrl));
            } else {
                refuse(mOpenUrl);
            }
        } else if (!isSafeUrl(QUrl(mDownloadUrl))) {
            refuse(mDownloadUrl);
        } else if (!mDownloaderEnabled) {
            QDesktopServices::openUrl(QUrl(mDownloadUrl));
        } else {
            mDownloader->setUrlId(mUrl);
            mDownloader->setFileName(mDownloadUrl.split(QLatin1Char('/')).last());
            mDownloader->setMandatoryUpdate(mMandatoryUpdate);
            mDownloader->startDownload(QUrl(mDownloadUrl));
        }
    } else if (mMandatoryUpdate) {
        QCoreApplication::quit();
    }
    emit removeUpdateDialog();
}
