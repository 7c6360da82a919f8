// Start-up and shutdown of the whole program: the real binary on a temporary
// configuration folder, and start-up failures, which stop at a message box,
// run in a child process of this test that dismisses the box and reports it.
// The program needs an audio device: a private JACK server on the dummy
// driver stands in for the sound card.

#include "app/tuningarboapplication.h"
#include "jackfixture.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QMessageBox>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <vector>

namespace {

const char* const CHILD_FLAG = "--startup-child";

const QStringList SHELL_PATCHES = {"arbo_main.pd", "arbo_vprep.pd", "equal-loudness.pd",
                                   "tb_compressor~.pd", "tb_compressorUI.pd"};

// The child: the same three steps as main(), with every message box answered
// at once and its text printed on standard output as one line.
int runChild(int argc, char** argv)
{
    std::vector<char*> args = TestSupport::childArguments(argc, argv);
    int count = int(args.size());
    TuningArboApplication app(count, args.data());
    TestSupport::MessageBoxAnswerer answerer;
    if (!app.init()) {
        return 1;
    }
    app.term();
    return 0;
}

struct RunResult
{
    int exitCode = -1;
    QStringList messageBoxes;
    QString errors;
};

// A folder that plays the role of the resource folder: a copy of this test
// executable (so that its folder is the resource folder) and of the real
// resources, minus the files named in `omit`.
class ResourceCopy
{
public:
    explicit ResourceCopy(const QStringList& omit = {})
    {
        const QString from = TestSupport::binDir();
        copyTree(from + "/patches", mDir.path() + "/patches");
        for (const QString& name : {QStringLiteral("style.qss"), QStringLiteral("style_mac.qss")}) {
            if (!omit.contains(name)) {
                QFile::copy(from + "/" + name, mDir.path() + "/" + name);
            }
        }
        for (const QString& name : omit) {
            QFile::remove(mDir.path() + "/" + name);
        }
        mExecutable =
            mDir.path() + "/" + QFileInfo(QCoreApplication::applicationFilePath()).fileName();
        QFile::copy(QCoreApplication::applicationFilePath(), mExecutable);
    }
    QString path() const { return mDir.path(); }
    QString executable() const { return mExecutable; }

private:
    static void copyTree(const QString& from, const QString& to)
    {
        QDir().mkpath(to);
        const QFileInfoList entries =
            QDir(from).entryInfoList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot);
        for (const QFileInfo& entry : entries) {
            if (entry.isDir()) {
                copyTree(entry.filePath(), to + "/" + entry.fileName());
            } else {
                QFile::copy(entry.filePath(), to + "/" + entry.fileName());
            }
        }
    }
    QTemporaryDir mDir;
    QString mExecutable;
};

RunResult runStartupChild(const QString& executable, const QString& dataHome,
                          const QProcessEnvironment& audio, const QStringList& args = {})
{
    QProcess process;
    QProcessEnvironment env = audio;
    env.insert("XDG_DATA_HOME", dataHome);
    env.insert("QT_QPA_PLATFORM", "offscreen");
    process.setProcessEnvironment(env);
    process.start(executable, QStringList{CHILD_FLAG} + args);
    RunResult result;
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    result.exitCode = process.exitCode();
    result.messageBoxes =
        TestSupport::messageBoxesIn(QString::fromUtf8(process.readAllStandardOutput()));
    result.errors = QString::fromUtf8(process.readAllStandardError());
    return result;
}

ino_t inodeOf(const QString& path)
{
    struct stat info = {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
}

} // namespace

class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void fatalFailuresStopWithTheirMessage_data();
    void fatalFailuresStopWithTheirMessage();
    void unopenableLogFileIsNotFatal();
    void damagedOptionsAreReportedOnceAndStartupGoesOn();
    void binaryStartsCopiesShellPatchesAndShutsDownOnSigterm();
    void outdatedRuntimePatchIsReplaced();

private:
    JackFixture mJack;
};

void TestStartup::initTestCase()
{
    QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
    QVERIFY2(mJack.start(), qPrintable(mJack.error()));
}

void TestStartup::fatalFailuresStopWithTheirMessage_data()
{
    QTest::addColumn<QStringList>("omit");
    QTest::addColumn<bool>("configBelowFile");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("logged");
    QTest::addColumn<bool>("noAudioDevice");

    QTest::newRow("config folder below a regular file")
        << QStringList() << true
        << "Creation of config directory failed.\n\nThe program will now shut down."
        << "Could not create config directory %s." << false;
    QTest::newRow("no style.qss")
        << QStringList{"style.qss"} << false
        << "Initialisation of style sheet failed.\n\nThe program will now shut down."
        << "Failed to find style sheet file" << false;
    QTest::newRow("no style_mac.qss alone")
        << QStringList{"style_mac.qss"} << false
        << "Initialisation of style sheet failed.\n\nThe program will now shut down."
        << "Failed to find platform-specific style sheet file" << false;
    QTest::newRow("no usable audio device")
        << QStringList() << false
        << "Initialisation of audio device failed. This means no audio playback will be "
           "possible.\n\nThe program will now shut down."
        << "No default output device returned from Pa_GetDefaultOutputDevice" << true;
}

void TestStartup::fatalFailuresStopWithTheirMessage()
{
    QFETCH(QStringList, omit);
    QFETCH(bool, configBelowFile);
    QFETCH(QString, message);
    QFETCH(QString, logged);
    QFETCH(bool, noAudioDevice);

    ResourceCopy resources(omit);
    QTemporaryDir home;
    QString dataHome = home.path() + "/share";
    if (configBelowFile) {
        QVERIFY(TestSupport::writeFile(home.path() + "/plain-file", "not a folder"));
        dataHome = home.path() + "/plain-file/share";
    }

    const RunResult result =
        runStartupChild(resources.executable(), dataHome,
                        noAudioDevice ? JackFixture::noDeviceEnvironment() : mJack.environment());
    if (noAudioDevice && result.exitCode == 0) {
        // The environment hides ALSA's and JACK's devices; a device of
        // another kind (OSS) cannot be hidden from PortAudio this way.
        QSKIP("This machine has an audio device outside ALSA and JACK");
    }
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.messageBoxes, QStringList{message});

    // Before the log file exists the critical line goes to standard error;
    // after, into the log file.
    const QString log =
        QString::fromUtf8(TestSupport::readFile(dataHome + "/Merrow Tuning Arbo/log.txt"));
    QVERIFY2((result.errors + log).contains(logged), qPrintable(result.errors + log));
}

void TestStartup::unopenableLogFileIsNotFatal()
{
    ResourceCopy resources;
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    QVERIFY(QDir().mkpath(config + "/log.txt")); // a folder where the log file belongs

    const RunResult result =
        runStartupChild(resources.executable(), home.path(), mJack.environment());
    QVERIFY2(result.errors.contains("Couldn't open log file"), qPrintable(result.errors));
    QVERIFY(result.messageBoxes.isEmpty());
    QCOMPARE(result.exitCode, 0);
    // The program went on past the log file: options and runtime patches exist.
    QVERIFY(QFile::exists(config + "/options.json"));
    QVERIFY(QFile::exists(config + "/patch/arbo_main.pd"));
}

void TestStartup::damagedOptionsAreReportedOnceAndStartupGoesOn()
{
    ResourceCopy resources;
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    QVERIFY(TestSupport::writeFile(config + "/options.json", "{ \"udpPort\": 9"));

    const RunResult result =
        runStartupChild(resources.executable(), home.path(), mJack.environment());
    QCOMPARE(result.messageBoxes,
             QStringList{"Failed to read saved options. All options will be reset to defaults."});
    QCOMPARE(result.exitCode, 0);
    // Shutdown rewrote the damaged file with the values in use.
    QVERIFY(TestSupport::readFile(config + "/options.json").contains("\"udpPort\": 8888"));
}

void TestStartup::binaryStartsCopiesShellPatchesAndShutsDownOnSigterm()
{
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";

    auto runOnce = [&](const QStringList& args) {
        QProcess process;
        QProcessEnvironment env = mJack.environment();
        env.insert("XDG_DATA_HOME", home.path());
        env.insert("QT_QPA_PLATFORM", "offscreen");
        process.setProcessEnvironment(env);
        const int started = TestSupport::readFile(config + "/log.txt").count("PaStream started");
        process.start(TestSupport::mainBinary(), args);
        QVERIFY(process.waitForStarted());
        // This run's stream has started: its signal handlers are in place.
        QTRY_VERIFY_WITH_TIMEOUT(
            TestSupport::readFile(config + "/log.txt").count("PaStream started") > started, 30000);
        process.terminate(); // SIGTERM: a clean shutdown that saves
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
    };

    runOnce({});
    for (const QString& name : SHELL_PATCHES) {
        QCOMPARE(TestSupport::readFile(config + "/patch/" + name),
                 TestSupport::readFile(TestSupport::binDir() + "/patches/shell/" + name));
    }
    QString log = QString::fromUtf8(TestSupport::readFile(config + "/log.txt"));
    QVERIFY(log.contains("\n" + QString(78, '-') + "\nStarting app at "));
    // Debug messages never reach the file.
    QVERIFY(!log.contains("Config dir:"));

    // Options written at shutdown hold all sixteen keys.
    const QJsonObject options =
        QJsonDocument::fromJson(TestSupport::readFile(config + "/options.json")).object();
    QCOMPARE(options.size(), 16);

    // A second run finds the runtime copies current and copies nothing.
    QHash<QString, ino_t> inodes;
    for (const QString& name : SHELL_PATCHES) {
        inodes[name] = inodeOf(config + "/patch/" + name);
    }
    runOnce({"-All"});
    for (const QString& name : SHELL_PATCHES) {
        QCOMPARE(inodeOf(config + "/patch/" + name), inodes[name]);
    }
    // The log grows across runs: two banners.
    log = QString::fromUtf8(TestSupport::readFile(config + "/log.txt"));
    QCOMPARE(log.count("Starting app at "), 2);
}

void TestStartup::outdatedRuntimePatchIsReplaced()
{
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    // The runtime copy is made first, so it is older than the resource copy
    // made after it, as after an update of the program.
    QVERIFY(TestSupport::writeFile(config + "/patch/arbo_main.pd", "#N canvas 0 0 10 10 12;\n"));
    QTest::qWait(20);
    ResourceCopy resources;

    const RunResult result =
        runStartupChild(resources.executable(), home.path(), mJack.environment());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(TestSupport::readFile(config + "/patch/arbo_main.pd"),
             TestSupport::readFile(resources.path() + "/patches/shell/arbo_main.pd"));
}

int main(int argc, char** argv)
{
    if (argc >= 2 && std::strcmp(argv[1], CHILD_FLAG) == 0) {
        return runChild(argc, argv);
    }
    TestSupport::isolateHome();
    QApplication app(argc, argv);
    TestStartup test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_startup.moc"
