// The update checker against a real HTTPS server on 127.0.0.1, run by this
// test with a key and certificate made by the openssl command at start. The
// test process trusts that certificate through Qt's default CA list, so the
// product verifies the server exactly as it would verify the maker's. The
// checker's message boxes are answered from here by clicking their buttons.

#include "testsupport.h"
#include "updater/downloader.h"
#include "updater/updatedialog.h"
#include "updater/updater.h"
#include "updater/updaterregistry.h"

#include <QDesktopServices>
#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>

#include <memory>

namespace {

const char* const MANDATORY_CHILD_FLAG = "--mandatory-child";
const QString APP_NAME = QStringLiteral("Merrow Tuning Arbo");
const QString VERSION = QStringLiteral("1.5.0");
const QString LATEST = "<h3>You are running the latest version of " + APP_NAME + "</h3>";
const QString NOT_SAFE = QStringLiteral("<h3>The update address is not safe</h3>");
const QString NETWORK_ERROR = QStringLiteral("<h3>A network error occurred</h3>");
const QString OPEN_NOW = QStringLiteral("<h3>Click \"OK\" to open the downloaded file now</h3>");

QString released(const QString& version)
{
    return "<h3>Version " + version + " of " + APP_NAME + " has been released!</h3>";
}

// A small HTTPS/1.1 server: one request per connection, answered from a
// table of canned answers by path, "Connection: close". Its key and
// certificate are the ones in `certDir`.
class HttpsServer : public QTcpServer
{
public:
    explicit HttpsServer(const QString& certDir)
        : mCert(QSslCertificate::fromData(TestSupport::readFile(certDir + "/cert.pem")).value(0)),
          mKey(TestSupport::readFile(certDir + "/key.pem"), QSsl::Ec)
    {
        route("/404", "not here", 404);
    }

    QString url(const QString& path) const
    {
        return QStringLiteral("https://127.0.0.1:%1%2").arg(serverPort()).arg(path);
    }
    // Answers `path` with `body` (a redirect to `location` if given). With
    // `holdAfter`, only that many bytes of the body go out until release().
    void route(const QString& path, const QByteArray& body, int status = 200,
               const QByteArray& location = {}, qint64 holdAfter = -1)
    {
        const QByteArray head =
            "HTTP/1.1 " + QByteArray::number(status) +
            " X\r\nConnection: close\r\nContent-Length: " + QByteArray::number(body.size()) +
            "\r\n" + (location.isEmpty() ? "" : "Location: " + location + "\r\n") + "\r\n";
        mRoutes[path] = {head + body, holdAfter < 0 ? -1 : head.size() + holdAfter};
    }

    // Sends the rest of a held answer, or drops its connection mid-body (cut).
    void release(const QString& path, bool cut = false)
    {
        const auto held = mHeld.take(path);
        if (held.first && cut) {
            held.first->abort();
        } else if (held.first) {
            held.first->write(held.second);
            held.first->disconnectFromHost();
        }
    }

    int connections = 0;
    QByteArray lastUserAgent;

protected:
    void incomingConnection(qintptr handle) override
    {
        ++connections;
        auto* socket = new QSslSocket(this);
        socket->setSocketDescriptor(handle);
        socket->setLocalCertificate(mCert);
        socket->setPrivateKey(mKey);
        connect(socket, &QSslSocket::readyRead, this, [this, socket] { onData(socket); });
        connect(socket, &QSslSocket::disconnected, socket, &QObject::deleteLater);
        socket->startServerEncryption();
    }

private:
    void onData(QSslSocket* socket)
    {
        QByteArray& request = mRequests[socket];
        request += socket->readAll();
        if (!request.contains("\r\n\r\n")) {
            return;
        }
        const QString path = QString::fromLatin1(request.split(' ').value(1));
        static const QRegularExpression agent("\r\nuser-agent: *([^\r]*)",
                                              QRegularExpression::CaseInsensitiveOption);
        lastUserAgent = agent.match(QString::fromLatin1(request)).captured(1).toLatin1();
        mRequests.remove(socket);
        const auto [answer, hold] = mRoutes.value(path, mRoutes.value("/404"));
        socket->write(hold < 0 ? answer : answer.left(hold));
        if (hold >= 0) {
            mHeld[path] = {socket, answer.mid(hold)};
        } else {
            socket->disconnectFromHost();
        }
    }

    QSslCertificate mCert;
    QSslKey mKey;
    QHash<QString, QPair<QByteArray, qint64>> mRoutes; // the answer, the bytes sent at once
    QHash<QSslSocket*, QByteArray> mRequests;
    QHash<QString, QPair<QPointer<QSslSocket>, QByteArray>> mHeld;
};

QByteArray feedJson(const QString& version, const QString& downloadUrl = {}, bool mandatory = false)
{
    QJsonObject entry{{"latest-version", version},
                      {"changelog", "Better sound"},
                      {"open-url", ""},
                      {"download-url", downloadUrl}};
    if (mandatory) {
        entry.insert("mandatory-update", true);
    }
    const QJsonObject updates{{"osx", QJsonObject{{"latest-version", "99.0"}}}, {"linux", entry}};
    return QJsonDocument(QJsonObject{{"updates", updates}}).toJson();
}

using TestSupport::visibleMessageBox;

// Waits for the next message box and clicks `button` on it. Returns the
// box's text, or what went wrong.
QString answerNext(QMessageBox::StandardButton button)
{
    if (!QTest::qWaitFor([] { return visibleMessageBox() != nullptr; }, 15000)) {
        return QStringLiteral("no message box");
    }
    QMessageBox* box = visibleMessageBox();
    const QString text = box->text();
    if (!box->button(button)) {
        return "no such button on " + text;
    }
    box->button(button)->click();
    return text;
}

// Key and certificate for 127.0.0.1, made by the openssl command in `dir`,
// and trusted. Returns what went wrong.
QString makeCertificate(const QString& dir)
{
    const QString openssl = QStandardPaths::findExecutable(QStringLiteral("openssl"));
    if (openssl.isEmpty()) {
        return QStringLiteral("the openssl command is missing: install the Debian package openssl");
    }
    QProcess process;
    process.start(openssl, {"req", "-x509", "-newkey", "ec", "-pkeyopt",
                            "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                            "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
                            dir + "/key.pem", "-out", dir + "/cert.pem"});
    if (!process.waitForFinished(60000) || process.exitCode() != 0) {
        return QStringLiteral("openssl failed: ") +
               QString::fromLocal8Bit(process.readAllStandardError());
    }
    // This process trusts the certificate as it trusts the public CAs.
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.addCaCertificates(dir + "/cert.pem");
    QSslConfiguration::setDefaultConfiguration(config);
    return QString();
}

Updater* makeUpdater(const QString& url, bool notifyOnFinish)
{
    UpdaterRegistry* registry = UpdaterRegistry::getInstance();
    registry->setModuleName(url, APP_NAME);
    registry->setModuleVersion(url, VERSION);
    registry->setUserAgentString(url, APP_NAME + "/" + VERSION + " (Qt; UpdaterRegistry)");
    registry->setNotifyOnUpdate(url, true);
    registry->setNotifyOnFinish(url, notifyOnFinish);
    return registry->getUpdater(url);
}

} // namespace

class TestUpdater : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir mCertDir;
    std::unique_ptr<HttpsServer> mServer;
    QList<QUrl> mOpened; // what the program handed to the desktop

    QString downloads() const { return TestSupport::home() + "/Downloads"; }

    // A check of a feed that offers version 1.6 at `fileUrl`, answered with
    // "Yes": the download starts.
    Downloader* startDownload(const QString& feedPath, const QString& fileUrl)
    {
        mServer->route(feedPath, feedJson("1.6", fileUrl));
        Updater* updater = makeUpdater(mServer->url(feedPath), false);
        updater->checkForUpdates();
        QTest::qCompare(answerNext(QMessageBox::Yes), released("1.6"), "the box", "the offer",
                        __FILE__, __LINE__);
        return updater->downloader();
    }

public slots:
    // Receives what the program hands to the desktop (files and web pages),
    // so no browser or viewer is ever started by the test.
    void open(const QUrl& url) { mOpened << url; }

private slots:
    void initTestCase()
    {
        const QString error = makeCertificate(mCertDir.path());
        QVERIFY2(error.isEmpty(), qPrintable(error));
        mServer = std::make_unique<HttpsServer>(mCertDir.path());
        QVERIFY(mServer->listen(QHostAddress::LocalHost));
        for (const char* scheme : {"file", "https", "http"}) {
            QDesktopServices::setUrlHandler(scheme, this, "open");
        }
    }

    void cleanup()
    {
        while (QMessageBox* box = visibleMessageBox()) {
            delete box;
        }
    }

    // What a check says for each kind of feed and address: the box (none for
    // a start-up style check without news), the version read, how many
    // requests reached the server, and the address the check ends at. Every
    // request carries the User-Agent; every box is non-modal and closes the
    // checker's dialog when answered. A network error's Retry, its default,
    // checks again.
    void checkOutcomes_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("notifyOnFinish");
        QTest::addColumn<QString>("text");   // the box; empty: none
        QTest::addColumn<QString>("detail"); // a part of its informative text
        QTest::addColumn<QString>("latest");
        QTest::addColumn<int>("requests");
        QTest::addColumn<QString>("endsAt");
        const auto row = [this](const char* name, const QString& path, bool notify,
                                const QString& text, const QString& detail, const QString& latest,
                                int requests, const QString& endsAt = {}) {
            const QString url = path.startsWith('/') ? mServer->url(path) : path;
            QTest::newRow(name) << url << notify << text << detail << latest << requests
                                << (endsAt.isEmpty() ? url : mServer->url(endsAt));
        };
        // Which way round the two versions are compared; the order of
        // versions is compare's. No "mandatory-update": not mandatory.
        for (const QString version : {"1.5.1", "1.5.0", "1.5"}) {
            mServer->route("/v" + version, feedJson(version, mServer->url("/files/x.deb")));
        }
        row("newer", "/v1.5.1", true, released("1.5.1"), "Please note the changelog", "1.5.1", 1);
        row("equal", "/v1.5.0", true, LATEST, "", "1.5.0", 1);
        row("shorter", "/v1.5", true, LATEST, "", "1.5", 1);
        row("no news at start-up is silent", "/v1.5.0", false, "", "", "1.5.0", 1);
        // Shown even for the start-up check.
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString nobody = QString("https://127.0.0.1:%1/x.json").arg(closed.serverPort());
        closed.close();
        row("nothing listens", nobody, false, NETWORK_ERROR, "", "", 0);

        // A redirect is followed and replaces the address; more than five are
        // a failure; one to plain http, like a plain http feed, is refused
        // without asking it.
        const QString plain = QString("http://127.0.0.1:%1/x.json").arg(mServer->serverPort());
        mServer->route("/moved.json", {}, 302, "/moved-here.json");
        mServer->route("/moved-here.json", feedJson("2.0"));
        mServer->route("/loop.json", {}, 302, "/loop.json");
        mServer->route("/to-http.json", {}, 301, plain.toUtf8());
        row("redirected", "/moved.json", true, released("2.0"), "", "2.0", 2, "/moved-here.json");
        row("redirect loop", "/loop.json", true, NETWORK_ERROR, "", "", 2 * 6);
        row("redirect to http", "/to-http.json", true, NOT_SAFE, plain, "", 1);
        row("http feed", plain, false, NOT_SAFE, plain, "", 0);

        // Too big, not JSON, or JSON but no object: no update, no network error.
        QByteArray big = feedJson("9.9.9");
        big.append(QByteArray(Updater::MAX_FEED_SIZE, ' '));
        mServer->route("/oversized.json", big);
        mServer->route("/not-json.json", "<html>9.9.9</html>");
        mServer->route("/array.json", "[{\"updates\": {\"linux\": {\"latest-version\": \"9\"}}}]");
        for (const char* name : {"oversized", "not-json", "array"}) {
            row(name, "/" + QString(name) + ".json", true, LATEST, "", "", 1);
        }
    }
    void checkOutcomes()
    {
        QFETCH(QString, url);
        QFETCH(bool, notifyOnFinish);
        QFETCH(QString, text);
        QFETCH(QString, detail);
        QFETCH(QString, latest);
        QFETCH(int, requests);
        QFETCH(QString, endsAt);
        Updater* updater = makeUpdater(url, notifyOnFinish);
        QSignalSpy finished(updater, &Updater::checkingFinished);
        QSignalSpy errors(updater, &Updater::networkError);
        QSignalSpy removed(updater, &Updater::removeUpdateDialog);
        const int connections = mServer->connections;
        mServer->lastUserAgent.clear();
        updater->checkForUpdates();
        const bool offer = !latest.isEmpty() && text == released(latest);
        const bool failed = text == NETWORK_ERROR;
        for (int round = 1; round <= (failed ? 2 : 1); ++round) {
            if (text.isEmpty()) {
                QVERIFY(finished.wait(15000));
                break; // a box would be shown right after checkingFinished
            }
            QTRY_VERIFY_WITH_TIMEOUT(visibleMessageBox(), 15000);
            QMessageBox* box = visibleMessageBox();
            QCOMPARE(box->text(), text);
            QVERIFY2(box->informativeText().contains(detail), qPrintable(box->informativeText()));
            QCOMPARE(box->windowModality(), Qt::NonModal);
            QCOMPARE(box->defaultButton(), box->button(offer    ? QMessageBox::Yes
                                                       : failed ? QMessageBox::Retry
                                                                : QMessageBox::Close));
            QCOMPARE(finished.count(), round);
            QCOMPARE(errors.count(), failed ? round : 0);
            QCOMPARE(removed.count(), 0);
            box->button(offer                  ? QMessageBox::No
                        : round == 1 && failed ? QMessageBox::Retry
                                               : QMessageBox::Close)
                ->click();
        }
        QTRY_VERIFY(!visibleMessageBox());
        QCOMPARE(removed.count(), text.isEmpty() ? 0 : 1);
        QCOMPARE(updater->updateAvailable(), offer);
        QCOMPARE(updater->latestVersion(), latest);
        QCOMPARE(mServer->connections - connections, requests);
        QCOMPARE(mServer->lastUserAgent,
                 requests ? QByteArray("Merrow Tuning Arbo/1.5.0 (Qt; UpdaterRegistry)")
                          : QByteArray());
        QCOMPARE(updater->url(), endsAt);
    }

    // A download of a few MB: progress texts while the server holds back the
    // rest, data in ".part" until the end. Stopping asks first, saying so for
    // a mandatory update, and "No" goes on. Then the renamed file, the offer
    // to open it and the open button; then the missing-file message.
    void downloadRenamesAndOffersToOpen()
    {
        QByteArray data(3 * 1048576 + 1234, Qt::Uninitialized);
        for (int i = 0; i < data.size(); ++i) {
            data[i] = char(i * 7 + i / 251);
        }
        const qint64 held = 2 * 1048576 + 5;
        mServer->route("/files/arbo-1.6.deb", data, 200, {}, held);
        Downloader* downloader =
            startDownload("/download.json", mServer->url("/files/arbo-1.6.deb"));
        QSignalSpy done(downloader, &Downloader::downloadFinished);
        QVERIFY(downloader->isVisible());
        const QString file = downloads() + "/arbo-1.6.deb";
        auto* label = downloader->findChild<QLabel*>("downloadLabel");
        auto* stop = downloader->findChild<QPushButton*>("stopButton");
        auto* open = downloader->findChild<QPushButton*>("openButton");
        QTRY_COMPARE_WITH_TIMEOUT(label->text(), QString("Downloading updates (2 MB of 3 MB)"),
                                  15000);
        QTRY_COMPARE(QFileInfo(file + ".part").size(), held);
        QVERIFY(!QFile::exists(file));
        QVERIFY(!open->isEnabled());
        const QString question = "Are you sure you want to cancel the download?";
        for (bool mandatory : {true, false}) { // a mandatory update's "Cancel" below would quit
            downloader->setMandatoryUpdate(mandatory);
            stop->click();
            QCOMPARE(answerNext(QMessageBox::No),
                     question + (mandatory ? " This is a mandatory update, exiting now will "
                                             "close the application"
                                           : ""));
            QVERIFY(downloader->isDownloading());
        }

        mServer->release("/files/arbo-1.6.deb");
        QTRY_COMPARE_WITH_TIMEOUT(done.count(), 1, 15000);
        QCOMPARE(done.at(0).at(0).toString(), mServer->url("/download.json"));
        QCOMPARE(done.at(0).at(1).toString(), file);
        QCOMPARE(TestSupport::readFile(file), data);
        QVERIFY(!QFile::exists(file + ".part"));
        QVERIFY(!(QFileInfo(file).permissions() &
                  (QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther)));
        QCOMPARE(stop->text(), QString("Close"));

        QCOMPARE(answerNext(QMessageBox::Cancel), OPEN_NOW);
        QVERIFY(open->isEnabled());
        QVERIFY(mOpened.isEmpty());
        open->click();
        QCOMPARE(mOpened, QList<QUrl>{QUrl::fromLocalFile(file)});

        QVERIFY(QFile::remove(file));
        open->click();
        QCOMPARE(answerNext(QMessageBox::Close), QString("Cannot find downloaded update!"));
        stop->click();
        QTRY_VERIFY(!downloader->isVisible());
        mOpened.clear();
    }

    // A name from the server that could reach outside the folder or hide is
    // replaced. The download lands under the (safe) name of the address in
    // the feed, even when the server redirects, and nothing else is written.
    // A download address that is not https is refused before any request.
    void hostileNamesAndAddresses()
    {
        QCOMPARE(Downloader::safeFileName("arbo-1.6.deb"), QString("arbo-1.6.deb"));
        QCOMPARE(Downloader::safeFileName("setup v2.zip"), QString("setup v2.zip"));
        QCOMPARE(Downloader::safeFileName(""), QString("Update.bin"));
        for (const QString& name :
             {QString("../evil"), QString(".."), QString(".bashrc"), QString("a\\b"),
              QString("a/b"), QString("x..y"), QString("a\nb"), QString("tab\there"),
              QString(QChar(0x7f)), QString(300, 'a')}) {
            QCOMPARE(Downloader::safeFileName(name), QString("QSU_Update.bin"));
        }

        mServer->route("/files/.profile", {}, 302, "/files/new.deb");
        mServer->route("/files/new.deb", "echo owned");
        Downloader* downloader = startDownload("/hidden.json", mServer->url("/files/.profile"));
        QSignalSpy done(downloader, &Downloader::downloadFinished);
        QVERIFY(done.wait(15000));
        QCOMPARE(done.at(0).at(1).toString(), downloads() + "/QSU_Update.bin");
        QCOMPARE(TestSupport::readFile(downloads() + "/QSU_Update.bin"), QByteArray("echo owned"));
        QCOMPARE(QDir(downloads()).entryList({".p*", "new*", "*.part"}, QDir::Files | QDir::Hidden),
                 QStringList());
        QCOMPARE(answerNext(QMessageBox::Cancel), OPEN_NOW);
        downloader->close();

        downloader = startDownload("/http-download.json", "http://127.0.0.1:1/x.deb");
        QCOMPARE(answerNext(QMessageBox::Close), NOT_SAFE);
        QVERIFY(!downloader->isVisible());
    }

    // A refused, broken or cancelled download leaves neither the file nor
    // its ".part".
    void failedDownloadsLeaveNothing()
    {
        for (const QString name : {"missing", "cut", "cancelled"}) {
            const QString file = downloads() + "/" + name + ".deb";
            if (name != "missing") {
                mServer->route("/files/" + name + ".deb", QByteArray(100000, 'c'), 200, {}, 50000);
            }
            Downloader* downloader =
                startDownload("/" + name + ".json", mServer->url("/files/" + name + ".deb"));
            auto* stop = downloader->findChild<QPushButton*>("stopButton");
            if (name != "missing") {
                QTRY_COMPARE_WITH_TIMEOUT(QFileInfo(file + ".part").size(), qint64(50000), 15000);
            }
            if (name == "cancelled") {
                stop->click();
                QCOMPARE(answerNext(QMessageBox::Yes),
                         QString("Are you sure you want to cancel the download?"));
                QVERIFY(!downloader->isDownloading() && !downloader->isVisible());
            } else {
                mServer->release("/files/" + name + ".deb", true); // (nothing held if missing)
                auto* label = downloader->findChild<QLabel*>("downloadLabel");
                QTRY_VERIFY_WITH_TIMEOUT(label->text().startsWith("Download failed: "), 15000);
                QCOMPARE(stop->text(), QString("Close"));
            }
            QVERIFY2(!QFile::exists(file) && !QFile::exists(file + ".part"), qPrintable(name));
            downloader->close();
        }
    }

    // The rules that need no server: the order of versions (numbers, not
    // text; not a number counts as 0; an empty part is a part), the rounding
    // edges of the progress texts, and when a start-up check is due.
    void versionsTextsAndIntervals()
    {
        const QList<std::tuple<QString, QString, bool>> versions = {
            {"1.5.1", "1.5.0", true},  {"1.5.0.1", "1.5.0", true}, {"1.5", "1.5.0", false},
            {"1.5.0", "1.5.0", false}, {"1.4.9", "1.5.0", false},  {"1.10", "1.9", true},
            {"1.x", "1.0", false},     {"1.5.0.", "1.5.0", true},  {"", "1.5.0", false}};
        for (const auto& [x, y, newer] : versions) {
            QVERIFY2(Updater::compare(x, y) == newer, qPrintable(x + " against " + y));
        }
        QCOMPARE(Downloader::sizeText(1536, 2500000),
                 QString("Downloading updates (1 KB of 2 MB)"));
        QCOMPARE(Downloader::sizeText(1023, 1024),
                 QString("Downloading updates (1023 bytes of 1 KB)"));
        QCOMPARE(Downloader::sizeText(1048575, 3 * 1048576 - 1),
                 QString("Downloading updates (1023 KB of 2 MB)"));
        const QList<QPair<int, QString>> times = {{1, "1 second"},        {60, "60 seconds"},
                                                  {61, "1 minute"},       {90, "2 minutes"},
                                                  {7200, "120 minutes"},  {7201, "about 2 hours"},
                                                  {9000, "about 3 hours"}};
        for (const auto& [seconds, text] : times) {
            QCOMPARE(Downloader::timeRemainingText(seconds), text);
        }
        // Interval, seconds since the last check, due.
        const qint64 day = 86400;
        const QList<std::tuple<int, qint64, bool>> intervals = {
            {0, 10, true},        {1, 6 * day, false},   {1, 8 * day, true},
            {2, 20 * day, false}, {2, 32 * day, true},   {3, 80 * day, false},
            {3, 95 * day, true},  {4, 400 * day, false}, {5, 299, false},
            {5, 301, true},       {6, 400 * day, false}, {-1, 400 * day, false}};
        const QDateTime now = QDateTime::currentDateTime();
        for (const auto& [interval, ago, due] : intervals) {
            const QString last = now.addSecs(-ago).toString(Qt::TextDate);
            QVERIFY2(UpdateDialog::isCheckDue(interval, last, now) == due,
                     qPrintable(QString("%1 after %2 s").arg(interval).arg(ago)));
        }
        // Never checked: counts as a year ago.
        QVERIFY(UpdateDialog::isCheckDue(3, QString(), now));
    }

    // The front: the feed from the environment, the start-up rule with its
    // time stamp, and a build without a feed.
    void frontUsesTheConfiguredFeed()
    {
        QObject owner;
        mServer->route("/front.json", feedJson(VERSION));
        qputenv("ARBO_UPDATE_FEED_URL", mServer->url("/front.json").toUtf8());
        QCOMPARE(UpdateDialog::feedUrl(), mServer->url("/front.json"));

        const QString sixDays = QDateTime::currentDateTime().addDays(-6).toString(Qt::TextDate);
        QString last = sixDays;
        const int connections = mServer->connections;
        QVERIFY(!UpdateDialog::checkAtStartup(&owner, 1, last));
        QCOMPARE(last, sixDays);
        const QString eightDays = QDateTime::currentDateTime().addDays(-8).toString(Qt::TextDate);
        last = eightDays;
        QVERIFY(UpdateDialog::checkAtStartup(&owner, 1, last));
        const QDateTime stamp = QDateTime::fromString(last, Qt::TextDate);
        QVERIFY(qAbs(stamp.secsTo(QDateTime::currentDateTime())) < 5);
        QTRY_COMPARE_WITH_TIMEOUT(mServer->connections, connections + 1, 15000);

        last.clear();
        QVERIFY(UpdateDialog::checkNow(&owner, last));
        QVERIFY(!last.isEmpty());
        QCOMPARE(answerNext(QMessageBox::Close), LATEST);

        // No feed: the start-up check does nothing and says nothing (what
        // the button says then is the options dialog's test).
        qputenv("ARBO_UPDATE_FEED_URL", "");
        last = eightDays;
        QVERIFY(!UpdateDialog::checkAtStartup(&owner, 0, last));
        QCOMPARE(last, eightDays);
        QVERIFY(!visibleMessageBox()); // it would have been shown at once
        qunsetenv("ARBO_UPDATE_FEED_URL");
    }

    // Declining a mandatory update quits the application: the running event
    // loop ends. This runs last, since after a quit no event loop of this
    // process runs again.
    void decliningAMandatoryUpdateQuits()
    {
        mServer->route("/mandatory.json", feedJson("1.6", mServer->url("/files/x.deb"), true));
        makeUpdater(mServer->url("/mandatory.json"), false)->checkForUpdates();
        QTRY_VERIFY_WITH_TIMEOUT(visibleMessageBox(), 15000);
        QMessageBox* box = visibleMessageBox();
        QCOMPARE(box->informativeText(), QString("Would you like to download the update now? This "
                                                 "is a mandatory update, exiting now will close "
                                                 "the application"));
        QEventLoop loop;
        QTimer::singleShot(0, box->button(QMessageBox::No), &QAbstractButton::click);
        QTimer::singleShot(30000, &loop, [&loop] { loop.exit(1); });
        QCOMPARE(loop.exec(), 0);
    }
};

ARBO_TEST_MAIN(TestUpdater)

#include "tst_updater.moc"
