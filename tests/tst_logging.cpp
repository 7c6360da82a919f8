// The process-wide message handler: what reaches the log file, what reaches
// the diagnostics and their dialog, and that messages from several threads
// stay whole and in order.

#include "app/tuningarboapplication.h"
#include "testsupport.h"
#include "ui/diagnosticsdialog.h"
#include "ui/diagnosticslinemodel.h"

#include <QFileInfo>
#include <QLabel>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace {

const QString STAMP = QStringLiteral("\\[\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d\\] ");

} // namespace

class TestLogging : public QObject
{
    Q_OBJECT

public:
    explicit TestLogging(TuningArboApplication* app) : mApp(app) {}

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

private slots:
    void initTestCase()
    {
        mLogPath = mDir.path() + "/log.txt";
        QVERIFY(mApp->mLog.open(mLogPath));
        QVERIFY(QRegularExpression("^\\n-{78}\\nStarting app at \\d\\d/\\d\\d/\\d\\d "
                                   "\\d\\d:\\d\\d:\\d\\d\\.\\d{1,3}\\n$")
                    .match(logText())
                    .hasMatch());
    }

    void init()
    {
        setFlags({});
        mLogStart = logText().size();
    }

    // The file gets everything but debug, a critical message stands in a
    // block of its own; without command-line words nothing reaches the
    // diagnostics. With "all", every file's messages do, debug included
    // (stamp and text two blanks apart), but a message without a source
    // file is then dropped completely. A word picks a file by its base
    // name, lower-cased, extension cut; the words filter only the
    // diagnostics, never the file.
    void fileAndDiagnostics()
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
        QVERIFY(diagnostics.isEmpty());

        setFlags({"all"});
        qDebug("%s", "debug for diagnostics");
        QCOMPARE(diagnostics.size(), 1);
        QVERIFY(QRegularExpression("^" + STAMP + " debug for diagnostics\\n$")
                    .match(diagnostics.at(0))
                    .hasMatch());
        QMessageLogger(nullptr, 0, nullptr).warning("no source file");
        QCOMPARE(diagnostics.size(), 1);
        QVERIFY(!newLogText().contains("no source file"));

        setFlags({"tst_logging"});
        qWarning("%s", "picked by name");
        setFlags({"pdplayer"});
        qWarning("%s", "another file's word");
        QCOMPARE(diagnostics.size(), 2);
        QVERIFY(diagnostics.at(1).endsWith(" picked by name\n"));
        QVERIFY(newLogText().contains("picked by name"));
        QVERIFY(newLogText().contains("another file's word"));
    }

    // With "all", lines logged in turn by the GUI thread, a QThread (as the
    // wand listener runs on) and a plain thread (as the sound library's audio
    // callback runs on) arrive in the dialog in the order they were logged,
    // each a paragraph of its own, whether the dialog is shown or not;
    // nothing logged before the dialog existed. A line of the GUI thread does
    // not overtake the other threads' lines.
    void linesFromEveryThreadArriveInOrder()
    {
        setFlags({"all"});
        qDebug("before the dialog");
        DiagnosticsDialog dialog;
        dialog.listenTo(mApp, &TuningArboApplication::diagnosticMessage);
        QStringList expected;
        for (int round = 0; round < 3; ++round) {
            const QString gui = QStringLiteral("gui %1").arg(round);
            const QString listener = QStringLiteral("listener %1").arg(round);
            const QString audio = QStringLiteral("audio %1").arg(round);
            qDebug().noquote() << gui;
            QThread* thread = QThread::create([listener] { qDebug().noquote() << listener; });
            thread->start();
            thread->wait();
            delete thread;
            std::thread([audio] { qDebug().noquote() << audio; }).join();
            expected << gui << listener << audio;
            if (round == 1) {
                dialog.show();
            }
        }
        qWarning("last from the gui");
        expected << "last from the gui";

        const QStringList lines = dialog.shownLines().lines();
        QCOMPARE(dialog.text().split('\n'), lines);
        QCOMPARE(lines.size(), expected.size());
        for (int i = 0; i < lines.size(); ++i) {
            QVERIFY2(QRegularExpression("^" + STAMP + " " +
                                        QRegularExpression::escape(expected.at(i)) + "$")
                         .match(lines.at(i))
                         .hasMatch(),
                     qPrintable(lines.at(i)));
        }
    }

    // Many messages from four threads at once: every line in the file whole,
    // every one in the diagnostics and kept by their dialog.
    void messagesFromManyThreadsStayWhole()
    {
        setFlags({"all"});
        std::atomic<int> diagnostics{0};
        QObject receiver;
        connect(
            mApp, &TuningArboApplication::diagnosticMessage, &receiver, [&] { ++diagnostics; },
            Qt::DirectConnection);
        DiagnosticsDialog dialog;
        dialog.listenTo(mApp, &TuningArboApplication::diagnosticMessage);

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
        const QRegularExpression whole("^" + STAMP +
                                       "thread \\d message \\d+ with some length to it$");
        for (const QString& line : lines) {
            QVERIFY2(whole.match(line).hasMatch(), qPrintable(line));
        }
        QCOMPARE(diagnostics.load(), threads * perThread);
        QCOMPARE(dialog.shownLines().rowCount(), threads * perThread);
    }

    // A shown dialog under a flood lists only the newest lines and says how
    // many earlier ones it no longer lists; its text still holds them all.
    void dialogListsTheNewestLines()
    {
        setFlags({"all"});
        DiagnosticsDialog dialog;
        dialog.listenTo(mApp, &TuningArboApplication::diagnosticMessage);
        dialog.show();
        const int lines = DiagnosticsDialog::SHOWN_LINES + 2500;
        QThread* worker = QThread::create([lines] {
            for (int i = 0; i < lines; ++i) {
                qDebug("flood %d", i);
            }
        });
        worker->start();
        QVERIFY(worker->wait(60000));
        delete worker;
        auto* label = dialog.findChild<QLabel*>("droppedLabel");
        QTRY_VERIFY(label->text().startsWith(QLocale().toString(2500) + " earlier lines"));
        QVERIFY(label->isVisible());
        const DiagnosticsLineModel& shown = dialog.shownLines();
        QCOMPARE(shown.rowCount(), DiagnosticsDialog::SHOWN_LINES);
        QVERIFY(shown.lines().first().endsWith(" flood 2500"));
        QVERIFY(shown.lines().last().endsWith(QString(" flood %1").arg(lines - 1)));
        const QStringList all = dialog.text().split('\n');
        QCOMPARE(all.size(), lines);
        for (int i : {0, 4096, lines / 2, lines - 1}) {
            QVERIFY2(all.at(i).endsWith(QString(" flood %1").arg(i)), qPrintable(all.at(i)));
        }
    }

    // At its size the file becomes log.txt.1 and a new one begins, while
    // four threads log: every line stays whole and in its thread's order,
    // and the last line is in the new file.
    void rotatesAtItsSize()
    {
        mApp->mLog.setRotateBytes(64 * 1024);
        std::vector<QThread*> workers;
        for (int t = 0; t < 4; ++t) {
            workers.push_back(QThread::create([t] {
                for (int i = 0; i < 3000; ++i) {
                    qWarning("rotating %d line %d", t, i);
                }
            }));
            workers.back()->start();
        }
        for (QThread* worker : workers) {
            QVERIFY(worker->wait(30000));
            delete worker;
        }
        qWarning("the last line");
        mApp->mLog.setRotateBytes(AppLog::ROTATE_BYTES);
        const QString older = QString::fromUtf8(TestSupport::readFile(mLogPath + ".1"));
        QVERIFY(QFileInfo(mLogPath).size() < 64 * 1024 + 100);
        QVERIFY(older.size() >= 64 * 1024);
        QVERIFY(logText().contains("The earlier lines are in log.txt.1"));
        const QRegularExpression line("^" + STAMP + "rotating (\\d) line (\\d+)$");
        int last[4] = {-1, -1, -1, -1};
        for (const QString& text : (older + logText()).split('\n', Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch match = line.match(text);
            if (text.contains("rotating")) {
                QVERIFY2(match.hasMatch(), qPrintable(text));
                const int t = match.captured(1).toInt();
                QVERIFY(match.captured(2).toInt() > last[t]);
                last[t] = match.captured(2).toInt();
            }
        }
        QVERIFY(logText().endsWith("the last line\n"));
        mLogStart = 0;
    }

    void fatalMessageStandsInABlock()
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

    void commandLineWordsLoseOneDashAndCase()
    {
        QProcess child;
        child.start(QCoreApplication::applicationFilePath(),
                    {"--flags-child", "-All", "--all", "PdPlayer", "-"});
        QVERIFY(child.waitForFinished(30000));
        QCOMPARE(QString::fromUtf8(child.readAllStandardOutput()).trimmed(),
                 QStringLiteral("|-all|all|pdplayer"));
    }
};

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
