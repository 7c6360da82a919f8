// The process-wide message handler: what reaches the log file, what reaches
// the diagnostics, and that messages from several threads stay whole.

#include "app/tuningarboapplication.h"
#include "testsupport.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

const QString STAMP = QStringLiteral("\\[\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d\\] ");

// A message that carries no source location, as from a build without them.
void warnWithoutSource(const char* text)
{
    QMessageLogger(nullptr, 0, nullptr).warning("%s", text);
}

} // namespace

class TestLogging : public QObject
{
    Q_OBJECT

public:
    explicit TestLogging(TuningArboApplication* app) : mApp(app) {}

private slots:
    void initTestCase();
    void init();
    void fileGetsEverythingButDebugAndCriticalStandsInABlock();
    void diagnosticsFilterByCommandLineWords();
    void messagesFromManyThreadsStayWhole();
    void fatalMessageStandsInABlock();
    void commandLineWordsLoseOneDashAndCase();

private:
    // As if the words had been given on the command line: the handler then
    // also leaves debug messages switched on.
    void setFlags(const QSet<QString>& flags)
    {
        mApp->mLog.mFlags = flags;
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, !flags.isEmpty());
    }
    QString logText() const { return QString::fromUtf8(TestSupport::readFile(mLogPath)); }
    QString newLogText() const { return logText().mid(mLogStart); }

    TuningArboApplication* mApp;
    QTemporaryDir mDir;
    QString mLogPath;
    int mLogStart = 0;
};

void TestLogging::initTestCase()
{
    mLogPath = mDir.path() + "/log.txt";
    QVERIFY(mApp->mLog.open(mLogPath));
    const QString banner = logText();
    QVERIFY(QRegularExpression("^\\n-{78}\\nStarting app at \\d\\d/\\d\\d/\\d\\d "
                               "\\d\\d:\\d\\d:\\d\\d\\.\\d{1,3}\\n$")
                .match(banner)
                .hasMatch());
}

void TestLogging::init()
{
    setFlags({});
    mLogStart = logText().size();
}

void TestLogging::fileGetsEverythingButDebugAndCriticalStandsInABlock()
{
    QStringList diagnostics;
    QObject receiver; // the connection ends with the test
    connect(mApp, &TuningArboApplication::diagnosticMessage, &receiver,
            [&](const QString& m) { diagnostics << m; });

    qDebug() << "a debug line";
    qInfo() << "an info line";
    qWarning() << "a warning line";
    qCritical() << "a critical line";

    const QRegularExpression expected("^" + STAMP + "an info line\\n" + STAMP +
                                      "a warning line\\n\\nCRITICAL:\\n" + STAMP +
                                      "a critical line\\n\\n$");
    QVERIFY2(expected.match(newLogText()).hasMatch(), qPrintable(newLogText()));
    // Without command-line words nothing reaches the diagnostics.
    QVERIFY(diagnostics.isEmpty());
}

void TestLogging::diagnosticsFilterByCommandLineWords()
{
    QStringList diagnostics;
    QObject receiver; // the connection ends with the test
    connect(mApp, &TuningArboApplication::diagnosticMessage, &receiver,
            [&](const QString& m) { diagnostics << m; });

    // "all": every file, debug included; the stamp and the text are
    // separated by two blanks.
    setFlags({"all"});
    qDebug("%s", "debug for diagnostics");
    QCOMPARE(diagnostics.size(), 1);
    QVERIFY(QRegularExpression("^" + STAMP + " debug for diagnostics\\n$")
                .match(diagnostics.at(0))
                .hasMatch());

    // A message without a source file is dropped completely once any word
    // was given: not in the diagnostics, not in the file.
    warnWithoutSource("no source file");
    QCOMPARE(diagnostics.size(), 1);
    QVERIFY(!newLogText().contains("no source file"));

    // A word picks the file by its base name, lower-cased, extension cut.
    setFlags({"tst_logging"});
    qWarning("%s", "picked by name");
    setFlags({"pdplayer"});
    qWarning("%s", "another file's word");
    QCOMPARE(diagnostics.size(), 2);
    QVERIFY(diagnostics.at(1).endsWith(" picked by name\n"));
    // Both warnings still reach the file: the words filter only the diagnostics.
    QVERIFY(newLogText().contains("picked by name"));
    QVERIFY(newLogText().contains("another file's word"));
}

void TestLogging::messagesFromManyThreadsStayWhole()
{
    setFlags({"all"});
    std::atomic<int> diagnostics{0};
    QObject receiver;
    connect(
        mApp, &TuningArboApplication::diagnosticMessage, &receiver, [&] { ++diagnostics; },
        Qt::DirectConnection);

    const int threads = 4;
    const int perThread = 500;
    std::vector<QThread*> workers;
    for (int t = 0; t < threads; ++t) {
        workers.push_back(QThread::create([t] {
            for (int i = 0; i < perThread; ++i) {
                qWarning("thread %d message %d with some length to it", t, i);
            }
        }));
        workers.back()->start();
    }
    for (QThread* worker : workers) {
        QVERIFY(worker->wait(30000));
        delete worker;
    }

    const QStringList lines = newLogText().split('\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), threads * perThread);
    const QRegularExpression whole("^" + STAMP + "thread \\d message \\d+ with some length to it$");
    for (const QString& line : lines) {
        QVERIFY2(whole.match(line).hasMatch(), qPrintable(line));
    }
    QCOMPARE(diagnostics.load(), threads * perThread);
}

void TestLogging::fatalMessageStandsInABlock()
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(),
                {"--fatal-child", mDir.path() + "/fatal.txt"});
    QVERIFY(child.waitForFinished(30000));
    QVERIFY(child.exitStatus() == QProcess::CrashExit || child.exitCode() != 0);
    const QString text = QString::fromUtf8(TestSupport::readFile(mDir.path() + "/fatal.txt"));
    QVERIFY2(
        QRegularExpression("\\n\\nFATAL:\\n" + STAMP + "the end\\n\\n$").match(text).hasMatch(),
        qPrintable(text));
}

void TestLogging::commandLineWordsLoseOneDashAndCase()
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(),
                {"--flags-child", "-All", "--all", "PdPlayer", "-"});
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(QString::fromUtf8(child.readAllStandardOutput()).trimmed(),
             QStringLiteral("|-all|all|pdplayer"));
}

int main(int argc, char** argv)
{
    TestSupport::isolateHome();
    qputenv("QT_QPA_PLATFORM", "offscreen");
    if (argc >= 3 && std::strcmp(argv[1], "--fatal-child") == 0) {
        int count = 1;
        TuningArboApplication app(count, argv);
        app.mLog.open(QString::fromLocal8Bit(argv[2]));
        qFatal("the end");
    }
    if (argc >= 2 && std::strcmp(argv[1], "--flags-child") == 0) {
        std::vector<char*> args = TestSupport::childArguments(argc, argv);
        int count = int(args.size());
        TuningArboApplication app(count, args.data());
        QStringList flags = app.mLog.mFlags.values();
        flags.sort();
        std::printf("%s\n", qPrintable(flags.join('|')));
        return 0;
    }
    int count = 1;
    TuningArboApplication app(count, argv);
    TestLogging test(&app);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_logging.moc"
