#pragma once

#include "model/arboconstants.h"

#include <QApplication>
#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QtTest>

#include <lo/lo.h>

#include <vector>

// Shared helpers of the test executables.
namespace TestSupport {

// Points HOME, XDG_DATA_HOME, XDG_CONFIG_HOME, XDG_CACHE_HOME and
// XDG_RUNTIME_DIR at a fresh temporary folder that lives until the process
// ends, so no test ever reads or writes the real user's files. Call it before
// the QApplication is constructed. Returns the folder.
QString isolateHome();

// The temporary home made by isolateHome().
QString home();

// The instrument's configuration folder inside the temporary home.
QString configDir();

// The folder of the executables, which is also the resource folder.
QString binDir();

// The instrument's executable.
QString mainBinary();

// Writes `bytes` to `path`, creating missing parent folders. Fails the
// calling test (through QVERIFY in the caller) when it returns false.
bool writeFile(const QString& path, const QByteArray& bytes);

// Reads a whole file; empty when it cannot be read.
QByteArray readFile(const QString& path);

// The folder of hostile and sample input files, tests/data in the source tree.
QString dataDir();

// The real tuning files that other people made, kept beside the repository
// (../shared/tuning-data) or where ARBO_TUNING_DATA says.
QString tuningDataDir();

// Empty when the shared tuning files and the built arbo-tuning are there;
// otherwise what is missing and how to get it.
QString missingTuningFiles();

// `ratio` moved by octaves into [1, 2), computed here rather than by the code
// under test.
ArboConstants::Rational pitchClass(ArboConstants::Rational ratio);

// A UDP port that was free a moment ago.
quint16 freeUdpPort();

// One OSC message, laid out by liblo's own encoder: OSC("/a", "if", 1, 0.5).
#define OSC(...) TestSupport::oscMessage(__VA_ARGS__, LO_ARGS_END)
QByteArray oscMessage(const char* address, const char* types, ...);
// An OSC bundle of `elements`, timed far in the future (which the input
// ignores): one datagram, which arrives whole or not at all.
QByteArray oscBundle(const QList<QByteArray>& elements);

// Keeps every message this process logs, from any thread, for the tests that
// look for lines or count them; critical ones are marked "CRITICAL: ". With
// `echo` each is passed on to Qt's default handler too.
void captureLog(bool echo = false);
QStringList loggedLines(); // since the last clearLog()
void clearLog();
bool logged(const QString& line);
// How many messages the log accounts for: one per line that begins with
// `line`, N per throttled summary "N more ... `summary`".
long long loggedCount(const QString& line, const QString& summary);

} // namespace TestSupport

// main() for a QtTest class: isolates the home folder, makes a QApplication
// named like the instrument (so the configuration folder is the real one
// inside the temporary home), runs the tests.
#define ARBO_TEST_MAIN(TestClass)                                                                  \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        TestSupport::isolateHome();                                                                \
        QApplication app(argc, argv);                                                              \
        app.setApplicationName(QStringLiteral("Merrow Tuning Arbo"));                              \
        TestClass test;                                                                            \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&test, argc, argv);                                                    \
    }

class ArboBallWidget;
class ArboView;
class QMessageBox;

namespace TestSupport {

// The ball `view` draws for the node at `path` ("/3/-5"), or null.
ArboBallWidget* ballAt(const ArboView* view, const QString& path);

// The message box shown as a window of its own, if any (the update checker's
// boxes are not modal, so they are looked for among the windows).
QMessageBox* visibleMessageBox();

// For child processes that run the program's start-up in a test: answers
// every message box as soon as it is shown (so nothing waits for a click) and
// prints its text on standard output as one line, "MESSAGEBOX: " followed by
// the text with its line breaks written as \n. The parent reads them back
// with messageBoxesIn().
class MessageBoxAnswerer : public QObject
{
public:
    MessageBoxAnswerer();
    int answered() const { return mAnswered; }
    // The texts of the boxes answered so far, in order.
    const QStringList& texts() const { return mTexts; }
    // "title | text" of each box answered, in order.
    QStringList answeredBoxes() const;

private:
    QTimer mTimer;
    int mAnswered = 0;
    QStringList mTitles;
    QStringList mTexts;
};

// Writes one line on standard output at once, line breaks written as \n.
void printLine(const QString& line);

// The texts of the message boxes that a child's standard output reports.
QStringList messageBoxesIn(const QString& output);

// The child's own arguments: the program name and everything after the
// word that selected the child (argv[1]).
std::vector<char*> childArguments(int argc, char** argv);

} // namespace TestSupport
