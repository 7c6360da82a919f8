// The update checker against a real HTTPS server on 127.0.0.1, run by this
// test with a key and certificate made by the openssl command at start. The
// test process trusts that certificate through Qt's default CA list, so the
// product verifies the server exactly as it would verify the maker's. The
// checker's message boxes are answered from here by clicking their buttons.
// Declining a mandatory update quits the application, so that case runs in a
// child process with its own event loop.

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

#include <cstring>
#include <memory>

namespace {

const char* const MANDATORY_CHILD_FLAG = "--mandatory-child";
const QString APP_NAME = QStringLiteral("Merrow Tuning Arbo");
const QString VERSION = QStringLiteral("1.5.0");

// One canned answer of the test server.
struct Route
{
    int status = 200;
    QByteArray body;
    QByteArray location;   // a Location header, for redirects
    qint64 holdAfter = -1; // send only this many body bytes until release()
};

// A small HTTPS/1.1 server: one request per connection, answered from a
// table of routes by path, "Connection: close".
class HttpsServer : public QTcpServer
{
public:
    HttpsServer(const QSslCertificate& cert, const QSslKey& key) : mCert(cert), mKey(key) {}

    bool start() { return listen(QHostAddress::LocalHost); }
    QString url(const QString& path) const
    {
        return QStringLiteral("https://127.0.0.1:%1%2").arg(serverPort()).arg(path);
    }
    void route(const QString& path, const Route& route) { mRoutes[path] = route; }
    void feed(const QString& path, const QByteArray& json) { mRoutes[path].body = json; }

    // Sends the rest of a held answer.
    void release(const QString& path)
    {
        const auto held = mHeld.take(path);
        if (held.first) {
            held.first->write(held.second);
            held.first->disconnectFromHost();
        }
    }
    // Drops the connection of a held answer, mid-body.
    void cut(const QString& path)
    {
        const auto held = mHeld.take(path);
        if (held.first) {
            held.first->abort();
        }
    }

    int connections = 0;
    QStringList paths; // every request's path, in order
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
        QByteArray& buffer = mBuffers[socket];
        buffer += socket->readAll();
        const int end = buffer.indexOf("\r\n\r\n");
        if (end < 0) {
            return;
        }
        const QList<QByteArray> lines = buffer.left(end).split('\n');
        mBuffers.remove(socket);
        const QString path = QString::fromLatin1(lines.value(0).split(' ').value(1));
        paths << path;
        for (const QByteArray& line : lines) {
            if (line.toLower().startsWith("user-agent:")) {
                lastUserAgent = line.mid(11).trimmed();
            }
        }
        Route r = mRoutes.value(path, Route{404, "not here", {}, -1});
        QByteArray head = "HTTP/1.1 " + QByteArray::number(r.status) +
                          " X\r\nContent-Length: " + QByteArray::number(r.body.size()) +
                          "\r\nConnection: close\r\n";
        if (!r.location.isEmpty()) {
            head += "Location: " + r.location + "\r\n";
        }
        socket->write(head + "\r\n");
        if (r.holdAfter >= 0) {
            socket->write(r.body.left(r.holdAfter));
            mHeld[path] = {socket, r.body.mid(r.holdAfter)};
            return;
        }
        socket->write(r.body);
        socket->disconnectFromHost();
    }

    QSslCertificate mCert;
    QSslKey mKey;
    QHash<QString, Route> mRoutes;
    QHash<QSslSocket*, QByteArray> mBuffers;
    QHash<QString, QPair<QPointer<QSslSocket>, QByteArray>> mHeld;
};

// Receives what the program hands to the desktop (files and web pages), so
// no browser or viewer is ever started by the test.
class UrlCatcher : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> opened;
public slots:
    void open(const QUrl& url) { opened << url; }
};

QByteArray feedJson(const QString& version, const QString& downloadUrl = QString(),
                    const QString& mandatory = QString())
{
    QByteArray entry = "\"latest-version\": \"" + version.toUtf8() +
                       "\", \"changelog\": \"Better sound\", \"open-url\": \"\", "
                       "\"download-url\": \"" +
                       downloadUrl.toUtf8() + "\"";
    if (!mandatory.isEmpty()) {
        entry += ", \"mandatory-update\": " + mandatory.toUtf8();
    }
    return "{ \"updates\": { \"osx\": { \"latest-version\": \"99.0\" }, \"linux\": { " + entry +
           " } } }";
}

using TestSupport::visibleMessageBox;

// Waits until a message box is shown.
QMessageBox* waitForBox(int timeoutMs = 15000)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        if (QMessageBox* box = visibleMessageBox()) {
            return box;
        }
        QTest::qWait(10);
    }
    return nullptr;
}

void answer(QMessageBox* box, QMessageBox::StandardButton button)
{
    QAbstractButton* b = box->button(button);
    QVERIFY2(b, "the box has no such button");
    b->click();
}

// Key and certificate for 127.0.0.1, made by the openssl command in `dir`.
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
    return QString();
}

QSslCertificate loadCertificate(const QString& dir)
{
    return QSslCertificate::fromData(TestSupport::readFile(dir + "/cert.pem")).value(0);
}

QSslKey loadKey(const QString& dir)
{
    return QSslKey(TestSupport::readFile(dir + "/key.pem"), QSsl::Ec);
}

void trust(const QSslCertificate& cert)
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.addCaCertificate(cert);
    QSslConfiguration::setDefaultConfiguration(config);
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

// The child: a mandatory update declined with "No" must end the event loop.
int runMandatoryChild(int argc, char** argv)
{
    TestSupport::isolateHome();
    std::vector<char*> args = TestSupport::childArguments(argc, argv);
    int count = int(args.size());
    QApplication app(count, args.data());
    const QString dir = qEnvironmentVariable("ARBO_TEST_CERT_DIR");
    trust(loadCertificate(dir));
    HttpsServer server(loadCertificate(dir), loadKey(dir));
    if (!server.start()) {
        return 2;
    }
    server.feed("/mandatory.json", feedJson("1.6", "https://127.0.0.1/x.deb", "true"));
    makeUpdater(server.url("/mandatory.json"), false)->checkForUpdates();
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [] {
        if (QMessageBox* box = visibleMessageBox()) {
            TestSupport::printLine(QStringLiteral("MESSAGEBOX: ") + box->informativeText());
            box->button(QMessageBox::No)->click();
        }
    });
    poll.start(10);
    QTimer::singleShot(60000, [] { std::exit(3); }); // never reached when quitting works
    const int code = app.exec();
    TestSupport::printLine(QStringLiteral("QUIT"));
    return code;
}

} // namespace

class TestUpdater : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir mCertDir;
    std::unique_ptr<HttpsServer> mServer;
    UrlCatcher mCatcher;

    QString downloads() const { return TestSupport::home() + "/Downloads"; }

private slots:
    void initTestCase()
    {
        const QString error = makeCertificate(mCertDir.path());
        QVERIFY2(error.isEmpty(), qPrintable(error));
        trust(loadCertificate(mCertDir.path()));
        mServer = std::make_unique<HttpsServer>(loadCertificate(mCertDir.path()),
                                                loadKey(mCertDir.path()));
        QVERIFY(mServer->start());
        QDesktopServices::setUrlHandler("file", &mCatcher, "open");
        QDesktopServices::setUrlHandler("https", &mCatcher, "open");
        QDesktopServices::setUrlHandler("http", &mCatcher, "open");
    }

    void cleanup()
    {
        while (QMessageBox* box = visibleMessageBox()) {
            box->hide();
            box->deleteLater();
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    void compareFollowsTheVersionRules()
    {
        QVERIFY(Updater::compare("1.5.1", "1.5.0"));
        QVERIFY(Updater::compare("1.5.0.1", "1.5.0"));
        QVERIFY(!Updater::compare("1.5", "1.5.0"));
        QVERIFY(!Updater::compare("1.5.0", "1.5.0"));
        QVERIFY(!Updater::compare("1.4.9", "1.5.0"));
        QVERIFY(Updater::compare("1.10", "1.9"));     // numbers, not text
        QVERIFY(!Updater::compare("1.x", "1.0"));     // not a number counts as 0
        QVERIFY(Updater::compare("1.5.0.", "1.5.0")); // an empty part is a part
        QVERIFY(!Updater::compare("", "1.5.0"));
    }

    // Newer, equal and shorter versions from a real feed (which way round
    // the two are compared; the order of versions is compare's), with the
    // request's User-Agent and the texts of both boxes.
    void feedVersionsGiveTheRightBox_data()
    {
        QTest::addColumn<QString>("latest");
        QTest::addColumn<bool>("available");
        QTest::newRow("newer") << "1.5.1" << true;
        QTest::newRow("equal") << "1.5.0" << false;
        QTest::newRow("shorter") << "1.5" << false;
    }
    void feedVersionsGiveTheRightBox()
    {
        QFETCH(QString, latest);
        QFETCH(bool, available);
        const QString path = "/versions-" + latest + ".json";
        mServer->feed(path, feedJson(latest, mServer->url("/files/x.deb")));
        Updater* updater = makeUpdater(mServer->url(path), true);
        QSignalSpy finished(updater, &Updater::checkingFinished);
        QSignalSpy removed(updater, &Updater::removeUpdateDialog);
        updater->checkForUpdates();

        QMessageBox* box = waitForBox();
        QVERIFY(box);
        QCOMPARE(finished.count(), 1);
        QCOMPARE(updater->updateAvailable(), available);
        QCOMPARE(mServer->lastUserAgent,
                 QByteArray("Merrow Tuning Arbo/1.5.0 (Qt; UpdaterRegistry)"));
        QCOMPARE(box->windowModality(), Qt::NonModal);
        if (available) {
            QCOMPARE(box->text(),
                     "<h3>Version " + latest + " of Merrow Tuning Arbo has been released!</h3>");
            // No "mandatory-update" in the feed: not mandatory.
            QVERIFY(!updater->mandatoryUpdate());
            QCOMPARE(box->defaultButton(), box->button(QMessageBox::Yes));
            answer(box, QMessageBox::No);
        } else {
            QCOMPARE(box->text(),
                     QString("<h3>You are running the latest version of Merrow Tuning Arbo</h3>"));
            answer(box, QMessageBox::Close);
        }
        QCOMPARE(removed.count(), 1);
        QTRY_VERIFY(!visibleMessageBox());
    }

    // With only notify-on-update (the start-up check) "no update" says nothing.
    void startupStyleCheckIsSilentWithoutUpdate()
    {
        mServer->feed("/silent.json", feedJson("1.5.0"));
        Updater* updater = makeUpdater(mServer->url("/silent.json"), false);
        QSignalSpy finished(updater, &Updater::checkingFinished);
        updater->checkForUpdates();
        QVERIFY(finished.wait(15000));
        // The box would be shown right after checkingFinished, before wait() returns.
        QVERIFY(!visibleMessageBox());
    }

    // Nothing listens: the network box, whose Retry checks again and whose
    // Close ends it; shown even for the start-up check.
    void networkErrorOffersRetry()
    {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        Updater* updater =
            makeUpdater(QString("https://127.0.0.1:%1/updates.json").arg(port), false);
        QSignalSpy errors(updater, &Updater::networkError);
        QSignalSpy removed(updater, &Updater::removeUpdateDialog);
        updater->checkForUpdates();
        QMessageBox* box = waitForBox();
        QVERIFY(box);
        QCOMPARE(errors.count(), 1);
        QCOMPARE(box->text(), QString("<h3>A network error occurred</h3>"));
        QCOMPARE(box->defaultButton(), box->button(QMessageBox::Retry));
        answer(box, QMessageBox::Retry);
        QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 2, 15000);
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(removed.count(), 0);
        answer(box, QMessageBox::Close);
        QCOMPARE(removed.count(), 1);
    }

    // A redirect is followed and replaces the address; more than five are a
    // failure; one to plain http, like a plain http feed, is refused without
    // asking it.
    void redirects()
    {
        mServer->route("/moved.json", Route{302, {}, "/moved-here.json", -1});
        mServer->feed("/moved-here.json", feedJson("2.0"));
        Updater* updater = makeUpdater(mServer->url("/moved.json"), true);
        updater->checkForUpdates();
        QMessageBox* box = waitForBox();
        QVERIFY(box);
        QVERIFY(updater->updateAvailable());
        QCOMPARE(updater->url(), mServer->url("/moved-here.json"));
        answer(box, QMessageBox::No);

        mServer->route("/loop.json", Route{302, {}, "/loop.json", -1});
        mServer->paths.clear();
        updater = makeUpdater(mServer->url("/loop.json"), true);
        updater->checkForUpdates();
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(), QString("<h3>A network error occurred</h3>"));
        QCOMPARE(mServer->paths.count(), 6);
        answer(box, QMessageBox::Close);

        const QString plain = QString("http://127.0.0.1:%1/x.json").arg(mServer->serverPort());
        mServer->route("/to-http.json", Route{301, {}, plain.toUtf8(), -1});
        updater = makeUpdater(mServer->url("/to-http.json"), true);
        const int connections = mServer->connections;
        updater->checkForUpdates();
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(), QString("<h3>The update address is not safe</h3>"));
        QVERIFY(box->informativeText().contains(plain));
        QCOMPARE(mServer->connections, connections + 1); // the http address was never asked
        QVERIFY(!updater->updateAvailable());
        answer(box, QMessageBox::Close);

        updater = makeUpdater(plain, false);
        QSignalSpy finished(updater, &Updater::checkingFinished);
        updater->checkForUpdates();
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(), QString("<h3>The update address is not safe</h3>"));
        QCOMPARE(finished.count(), 1);
        QCOMPARE(mServer->connections, connections + 1);
    }

    // Too big, not JSON, or JSON but no object: no update, no network error.
    void hostileFeedsAreNoUpdate_data()
    {
        QTest::addColumn<QByteArray>("body");
        QByteArray big = feedJson("9.9.9");
        big.append(QByteArray(Updater::MAX_FEED_SIZE, ' '));
        QTest::newRow("oversized") << big;
        QTest::newRow("not json") << QByteArray("<html>9.9.9</html>");
        QTest::newRow("array") << QByteArray(
            "[{\"updates\": {\"linux\": {\"latest-version\": \"9\"}}}]");
    }
    void hostileFeedsAreNoUpdate()
    {
        QFETCH(QByteArray, body);
        const QString path =
            "/hostile-" + QString(QTest::currentDataTag()).replace(' ', '-') + ".json";
        mServer->feed(path, body);
        Updater* updater = makeUpdater(mServer->url(path), true);
        QSignalSpy errors(updater, &Updater::networkError);
        updater->checkForUpdates();
        QMessageBox* box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(),
                 QString("<h3>You are running the latest version of Merrow Tuning Arbo</h3>"));
        QVERIFY(!updater->updateAvailable());
        QCOMPARE(errors.count(), 0);
        QVERIFY(updater->latestVersion().isEmpty());
    }

    void customAppcastHandsOverTheBody()
    {
        const QByteArray body = "<rss>anything</rss>";
        mServer->feed("/appcast.xml", body);
        const QString url = mServer->url("/appcast.xml");
        UpdaterRegistry::getInstance()->setUseCustomAppcast(url, true);
        QSignalSpy appcast(UpdaterRegistry::getInstance(), &UpdaterRegistry::appcastDownloaded);
        makeUpdater(url, true)->checkForUpdates();
        QVERIFY(appcast.wait(15000));
        QCOMPARE(appcast.at(0).at(0).toString(), url);
        QCOMPARE(appcast.at(0).at(1).toByteArray(), body);
        QVERIFY(!visibleMessageBox()); // a box would have been shown before the signal
    }

    // A download of a few MB: progress texts while the server holds back the
    // rest, data in ".part" until the end, then the renamed file, the offer to
    // open it and the open button; then the missing-file message.
    void downloadRenamesAndOffersToOpen()
    {
        QByteArray data(3 * 1048576 + 1234, Qt::Uninitialized);
        for (int i = 0; i < data.size(); ++i) {
            data[i] = char(i * 7 + i / 251);
        }
        const qint64 held = 2 * 1048576 + 5;
        mServer->route("/files/arbo-1.6.deb", Route{200, data, {}, held});
        mServer->feed("/download.json", feedJson("1.6", mServer->url("/files/arbo-1.6.deb")));
        Updater* updater = makeUpdater(mServer->url("/download.json"), false);
        QSignalSpy done(updater, &Updater::downloadFinished);
        updater->checkForUpdates();
        QMessageBox* box = waitForBox();
        QVERIFY(box);
        answer(box, QMessageBox::Yes);

        Downloader* downloader = updater->downloader();
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

        mServer->release("/files/arbo-1.6.deb");
        QTRY_COMPARE_WITH_TIMEOUT(done.count(), 1, 15000);
        QCOMPARE(done.at(0).at(0).toString(), mServer->url("/download.json"));
        QCOMPARE(done.at(0).at(1).toString(), file);
        QCOMPARE(TestSupport::readFile(file), data);
        QVERIFY(!QFile::exists(file + ".part"));
        QVERIFY(!(QFileInfo(file).permissions() &
                  (QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther)));
        QCOMPARE(stop->text(), QString("Close"));

        box = waitForBox();
        QVERIFY(box);
        answer(box, QMessageBox::Cancel);
        QVERIFY(open->isEnabled());
        QVERIFY(mCatcher.opened.isEmpty());
        open->click();
        QCOMPARE(mCatcher.opened, QList<QUrl>{QUrl::fromLocalFile(file)});

        QVERIFY(QFile::remove(file));
        open->click();
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(), QString("Cannot find downloaded update!"));
        answer(box, QMessageBox::Close);
        stop->click();
        QTRY_VERIFY(!downloader->isVisible());
        mCatcher.opened.clear();
    }

    // Cancelling asks first; "No" goes on, "Yes" stops and leaves no file.
    // A mandatory update says so in its questions.
    void cancelAsksAndLeavesNothing()
    {
        const QByteArray data(2 * 1048576, 'x');
        mServer->route("/files/cancel.deb", Route{200, data, {}, 1048576});
        mServer->feed("/cancel.json", feedJson("1.6", mServer->url("/files/cancel.deb"), "true"));
        Updater* updater = makeUpdater(mServer->url("/cancel.json"), false);
        updater->checkForUpdates();
        QMessageBox* box = waitForBox();
        QVERIFY(box);
        QVERIFY(updater->mandatoryUpdate());
        QCOMPARE(box->informativeText(),
                 QString("Would you like to download the update now? This is "
                         "a mandatory update, exiting now will close the application"));
        answer(box, QMessageBox::Yes);
        Downloader* downloader = updater->downloader();
        const QString file = downloads() + "/cancel.deb";
        QTRY_COMPARE_WITH_TIMEOUT(QFileInfo(file + ".part").size(), qint64(1048576), 15000);

        downloader->findChild<QPushButton*>("stopButton")->click();
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(), QString("Are you sure you want to cancel the download? This is a "
                                      "mandatory update, exiting now will close the application"));
        answer(box, QMessageBox::No);
        QVERIFY(downloader->isDownloading());

        // Not mandatory any more for the same download: the plain question,
        // and "Yes" cancels (a mandatory "Yes" would quit the test).
        downloader->setMandatoryUpdate(false);
        downloader->findChild<QPushButton*>("stopButton")->click();
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(), QString("Are you sure you want to cancel the download?"));
        answer(box, QMessageBox::Yes);
        QVERIFY(!downloader->isDownloading());
        QVERIFY(!downloader->isVisible());
        QVERIFY(!QFile::exists(file + ".part"));
        QVERIFY(!QFile::exists(file));
        mServer->release("/files/cancel.deb");
    }

    // A name from the server that could reach outside the folder or hide is
    // replaced; the download lands under the safe name and nothing else.
    void hostileFileNames()
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

        mServer->route("/files/.profile", Route{200, "echo owned", {}, -1});
        mServer->feed("/hidden.json", feedJson("1.6", mServer->url("/files/.profile")));
        Updater* updater = makeUpdater(mServer->url("/hidden.json"), false);
        QSignalSpy done(updater, &Updater::downloadFinished);
        updater->checkForUpdates();
        QMessageBox* box = waitForBox();
        QVERIFY(box);
        answer(box, QMessageBox::Yes);
        QVERIFY(done.wait(15000));
        QCOMPARE(done.at(0).at(1).toString(), downloads() + "/QSU_Update.bin");
        QVERIFY(!QFile::exists(downloads() + "/.profile"));
        box = waitForBox();
        QVERIFY(box);
        answer(box, QMessageBox::Cancel);
        updater->downloader()->close();

        // A download address that is not https is refused before any request.
        mServer->feed("/http-download.json", feedJson("1.6", "http://127.0.0.1:1/x.deb"));
        updater = makeUpdater(mServer->url("/http-download.json"), false);
        updater->checkForUpdates();
        box = waitForBox();
        QVERIFY(box);
        answer(box, QMessageBox::Yes);
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(), QString("<h3>The update address is not safe</h3>"));
        QVERIFY(!updater->downloader()->isVisible());
    }

    // A refused or broken download leaves neither the file nor its ".part";
    // a redirected one lands under the name of the address in the feed.
    void failedDownloadsLeaveNothing()
    {
        const auto startDownload = [this](const QString& feedPath, const QString& filePath) {
            mServer->feed(feedPath, feedJson("1.6", mServer->url(filePath)));
            Updater* updater = makeUpdater(mServer->url(feedPath), false);
            updater->checkForUpdates();
            QMessageBox* box = waitForBox();
            if (box) {
                answer(box, QMessageBox::Yes);
            }
            return updater->downloader();
        };

        Downloader* downloader = startDownload("/missing.json", "/files/missing.deb");
        auto* label = downloader->findChild<QLabel*>("downloadLabel");
        QTRY_VERIFY_WITH_TIMEOUT(label->text().startsWith("Download failed: "), 15000);
        QVERIFY(!QFile::exists(downloads() + "/missing.deb"));
        QVERIFY(!QFile::exists(downloads() + "/missing.deb.part"));
        QCOMPARE(downloader->findChild<QPushButton*>("stopButton")->text(), QString("Close"));
        downloader->close();

        mServer->route("/files/cut.deb", Route{200, QByteArray(100000, 'c'), {}, 50000});
        downloader = startDownload("/cut.json", "/files/cut.deb");
        QTRY_COMPARE_WITH_TIMEOUT(QFileInfo(downloads() + "/cut.deb.part").size(), qint64(50000),
                                  15000);
        mServer->cut("/files/cut.deb");
        label = downloader->findChild<QLabel*>("downloadLabel");
        QTRY_VERIFY_WITH_TIMEOUT(label->text().startsWith("Download failed: "), 15000);
        QVERIFY(!QFile::exists(downloads() + "/cut.deb"));
        QVERIFY(!QFile::exists(downloads() + "/cut.deb.part"));
        downloader->close();

        mServer->route("/files/old.deb", Route{302, {}, "/files/new.deb", -1});
        mServer->route("/files/new.deb", Route{200, "new build", {}, -1});
        downloader = startDownload("/redirected.json", "/files/old.deb");
        QSignalSpy done(downloader, &Downloader::downloadFinished);
        QVERIFY(done.wait(15000));
        QCOMPARE(TestSupport::readFile(downloads() + "/old.deb"), QByteArray("new build"));
        QVERIFY(!QFile::exists(downloads() + "/old.deb.part"));
        QMessageBox* box = waitForBox();
        QVERIFY(box);
        answer(box, QMessageBox::Cancel);
        downloader->close();
    }

    // The rounding edges of the progress texts.
    void sizeAndTimeTexts()
    {
        QCOMPARE(Downloader::sizeText(1536, 2500000), QString("Downloading updates (1 KB of 2 MB)"));
        QCOMPARE(Downloader::sizeText(1023, 1024),
                 QString("Downloading updates (1023 bytes of 1 KB)"));
        QCOMPARE(Downloader::sizeText(1048575, 3 * 1048576 - 1),
                 QString("Downloading updates (1023 KB of 2 MB)"));
        for (const auto& time : QList<QPair<int, QString>>{{1, "1 second"},
                                                          {60, "60 seconds"},
                                                          {61, "1 minute"},
                                                          {90, "2 minutes"},
                                                          {7200, "120 minutes"},
                                                          {7201, "about 2 hours"},
                                                          {9000, "about 3 hours"}}) {
            QCOMPARE(Downloader::timeRemainingText(time.first), time.second);
        }
    }

    void checkIntervals()
    {
        const QDateTime now = QDateTime::currentDateTime();
        const auto ago = [&](qint64 seconds) {
            return now.addSecs(-seconds).toString(Qt::TextDate);
        };
        const qint64 day = 86400;
        QVERIFY(UpdateDialog::isCheckDue(0, ago(10), now));
        QVERIFY(!UpdateDialog::isCheckDue(1, ago(6 * day), now));
        QVERIFY(UpdateDialog::isCheckDue(1, ago(8 * day), now));
        QVERIFY(!UpdateDialog::isCheckDue(2, ago(20 * day), now));
        QVERIFY(UpdateDialog::isCheckDue(2, ago(32 * day), now));
        QVERIFY(!UpdateDialog::isCheckDue(3, ago(80 * day), now));
        QVERIFY(UpdateDialog::isCheckDue(3, ago(95 * day), now));
        QVERIFY(!UpdateDialog::isCheckDue(4, ago(400 * day), now));
        QVERIFY(!UpdateDialog::isCheckDue(5, ago(299), now));
        QVERIFY(UpdateDialog::isCheckDue(5, ago(301), now));
        QVERIFY(!UpdateDialog::isCheckDue(6, ago(400 * day), now));
        QVERIFY(!UpdateDialog::isCheckDue(-1, ago(400 * day), now));
        // Never checked: counts as a year ago.
        QVERIFY(UpdateDialog::isCheckDue(3, QString(), now));
    }

    // The front: the feed from the environment, the start-up rule with its
    // time stamp, and a build without a feed.
    void frontUsesTheConfiguredFeed()
    {
        QObject owner;
        mServer->feed("/front.json", feedJson(VERSION));
        qputenv("ARBO_UPDATE_FEED_URL", mServer->url("/front.json").toUtf8());
        QCOMPARE(UpdateDialog::feedUrl(), mServer->url("/front.json"));

        const QString sixDays = QDateTime::currentDateTime().addDays(-6).toString(Qt::TextDate);
        QString last = sixDays;
        mServer->paths.clear();
        QVERIFY(!UpdateDialog::checkAtStartup(&owner, 1, last));
        QCOMPARE(last, sixDays);
        const QString eightDays = QDateTime::currentDateTime().addDays(-8).toString(Qt::TextDate);
        last = eightDays;
        QVERIFY(UpdateDialog::checkAtStartup(&owner, 1, last));
        QVERIFY(last != eightDays);
        QVERIFY(
            qAbs(QDateTime::fromString(last, Qt::TextDate).secsTo(QDateTime::currentDateTime())) <
            5);
        QTRY_COMPARE_WITH_TIMEOUT(mServer->paths, QStringList{"/front.json"}, 15000);

        last.clear();
        QVERIFY(UpdateDialog::checkNow(&owner, last));
        QVERIFY(!last.isEmpty());
        QMessageBox* box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(),
                 QString("<h3>You are running the latest version of Merrow Tuning Arbo</h3>"));
        answer(box, QMessageBox::Close);

        // No feed: the start-up check does nothing and says nothing; the
        // button tells the user.
        qputenv("ARBO_UPDATE_FEED_URL", "");
        last = eightDays;
        QVERIFY(!UpdateDialog::checkAtStartup(&owner, 0, last));
        QCOMPARE(last, eightDays);
        QVERIFY(!visibleMessageBox()); // it would have been shown at once
        QVERIFY(!UpdateDialog::checkNow(&owner, last));
        box = waitForBox();
        QVERIFY(box);
        QCOMPARE(box->text(), QString("<h3>This build has no update feed</h3>"));
        answer(box, QMessageBox::Close);
        qunsetenv("ARBO_UPDATE_FEED_URL");
    }

    void decliningAMandatoryUpdateQuits()
    {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("ARBO_TEST_CERT_DIR", mCertDir.path());
        child.setProcessEnvironment(env);
        child.start(QCoreApplication::applicationFilePath(), {MANDATORY_CHILD_FLAG});
        QVERIFY(child.waitForFinished(90000));
        const QString out = QString::fromLocal8Bit(child.readAllStandardOutput());
        QCOMPARE(child.exitCode(), 0);
        QVERIFY2(out.contains("QUIT"), qPrintable(out));
        QCOMPARE(TestSupport::messageBoxesIn(out),
                 QStringList{"Would you like to download the update now? This is a mandatory "
                             "update, exiting now will close the application"});
    }
};

int main(int argc, char** argv)
{
    if (argc >= 2 && std::strcmp(argv[1], MANDATORY_CHILD_FLAG) == 0) {
        return runMandatoryChild(argc, argv);
    }
    TestSupport::isolateHome();
    QApplication app(argc, argv);
    app.setApplicationName(APP_NAME);
    TestUpdater test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_updater.moc"
