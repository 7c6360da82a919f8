// Start-up and shutdown of the whole program: the real binary on a temporary
// configuration folder, and start-up failures, which stop at a message box,
// run in a child process of this test that dismisses the box and reports it.
// The program needs an audio device: a private JACK server on the dummy
// driver stands in for the sound card.

#include "app/tuningarboapplication.h"
#include "fulldisk.h"
#include "jackfixture.h"
#include "testsupport.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QMessageBox>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <vector>

namespace {

const char* const CHILD_FLAG = "--startup-child";
// What the child does to its disk between start-up and shutdown, as the
// machine would while the instrument is played: "fill:<folder>" fills the
// file system of that folder, "limit" lowers the file size limit to 64 bytes.
const char* const AFTER_INIT = "ARBO_TEST_AFTER_INIT";

const QStringList SHELL_PATCHES = {"arbo_main.pd", "arbo_vprep.pd", "equal-loudness.pd",
                                   "tb_compressor~.pd", "tb_compressorUI.pd"};

// The child: the same steps as main(), with every message box answered
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
    const QString afterInit = qEnvironmentVariable(AFTER_INIT);
    std::unique_ptr<FileSizeLimit> limit;
    if (afterInit == "limit") {
        limit = std::make_unique<FileSizeLimit>(64);
    } else if (afterInit.startsWith("fill:")) {
        // Fills the mounted tmpfs that holds the folder; the test unmounts it.
        QString error;
        if (!fillFileSystem(afterInit.mid(5) + "/filler", &error)) {
            TestSupport::printLine("FILL FAILED: " + error);
        }
    }
    app.term();
    return 0;
}

struct RunResult
{
    int exitCode = -1;
    QStringList messageBoxes;
    QString errors;
    // For a failing check: how the run ended and what it said last.
    QString report() const
    {
        return QString("exit code %1, message boxes: %2\nstandard error (end):\n%3")
            .arg(exitCode)
            .arg(messageBoxes.join(" | "))
            .arg(errors.right(3000));
    }
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
                          const QProcessEnvironment& audio, const QStringList& args = {},
                          const QString& afterInit = QString())
{
    QProcess process;
    QProcessEnvironment env = audio;
    if (!afterInit.isEmpty()) {
        env.insert(AFTER_INIT, afterInit);
    }
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

// Every file below `folder` but the log, with its content, to tell whether
// anything was written there.
QMap<QString, QByteArray> filesBelow(const QString& folder)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (!path.endsWith("/log.txt")) {
            files.insert(path, TestSupport::readFile(path));
        }
    }
    return files;
}

// The paths whose content differs between two snapshots of filesBelow().
QString changedFiles(const QMap<QString, QByteArray>& before,
                     const QMap<QString, QByteArray>& after)
{
    QStringList changed;
    QSet<QString> paths(before.keyBegin(), before.keyEnd());
    paths.unite(QSet<QString>(after.keyBegin(), after.keyEnd()));
    for (const QString& path : paths) {
        if (before.value(path, "<none>") != after.value(path, "<none>")) {
            changed << path;
        }
    }
    return "changed: " + changed.join(", ");
}

QStringList matching(const QString& folder, const QString& pattern)
{
    return QDir(folder).entryList({pattern}, QDir::Files | QDir::Hidden, QDir::Name);
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
    void damagedOptionsAreReportedOnceAndStartupGoesOn();
    void sigtermDuringTheStartupBoxEndsTheProgram();
    void entriesInTheWayAreKeptAsideAndStartupGoesOn();
    void binaryStartsCopiesShellPatchesAndShutsDownOnSigterm();
    void outdatedRuntimePatchIsReplaced();
    void secondInstanceSaysSoAndWritesNothing();
    void damagedLatticeIsKeptAsideAndTheNextStartWorks_data();
    void damagedLatticeIsKeptAsideAndTheNextStartWorks();
    void failedSavesAtShutdownKeepTheFilesAndSaySo_data();
    void failedSavesAtShutdownKeepTheFilesAndSaySo();
    void readOnlyConfigFolderIsNamed();
    void unusableOptionsAreReplaced();
    void missingSineFallsBackToAnotherVoice_data();
    void missingSineFallsBackToAnotherVoice();

private:
    // Starts the real binary on `home` and waits until its start-up is done.
    bool startBinary(QProcess& process, const QString& home);
    // The real binary's environment: the private server, `home` as its data
    // folder, no screen.
    // The start-up of the child made of `resources` on the private server.
    RunResult startChild(const ResourceCopy& resources, const QString& home,
                       const QString& afterInit = QString()) const
    {
        return runStartupChild(resources.executable(), home, mJack.environment(), {}, afterInit);
    }
    QProcessEnvironment programEnvironment(const QString& home) const
    {
        QProcessEnvironment env = mJack.environment();
        env.insert("XDG_DATA_HOME", home);
        env.insert("QT_QPA_PLATFORM", "offscreen");
        return env;
    }

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

void TestStartup::damagedOptionsAreReportedOnceAndStartupGoesOn()
{
    ResourceCopy resources;
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    QVERIFY(TestSupport::writeFile(config + "/options.json", "{ \"udpPort\": 9"));

    const RunResult result = startChild(resources, home.path());
    QCOMPARE(result.messageBoxes,
             QStringList{"Failed to read saved options. All options will be reset to defaults."});
    QCOMPARE(result.exitCode, 0);
    // Shutdown rewrote the damaged file with the values in use (what becomes
    // of the damaged one is the settings test's).
    QVERIFY(TestSupport::readFile(config + "/options.json").contains("\"udpPort\": 8888"));
}

// A SIGTERM while the options' message box waits for a click: nobody is at
// the window, so the box closes, start-up ends, and the program saves and
// leaves at once instead of playing on with nobody to stop it.
void TestStartup::sigtermDuringTheStartupBoxEndsTheProgram()
{
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    QVERIFY(TestSupport::writeFile(config + "/options.json", ""));
    QProcess process;
    process.setProcessEnvironment(programEnvironment(home.path()));
    process.start(TestSupport::mainBinary(), QStringList());
    QVERIFY(process.waitForStarted());
    // Logged right before the box opens.
    QTRY_VERIFY_WITH_TIMEOUT(
        TestSupport::readFile(config + "/log.txt").contains("Failed to read saved options"), 30000);
    QElapsedTimer timer;
    timer.start();
    process.terminate();
    QVERIFY(process.waitForFinished(30000));
    const qint64 took = timer.elapsed();
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QVERIFY2(took < 2000, qPrintable(QString("%1 ms").arg(took)));
    // Saved as at any clean exit: the options whole, the lattice written.
    const QJsonObject options =
        QJsonDocument::fromJson(TestSupport::readFile(config + "/options.json")).object();
    QCOMPARE(options.size(), 16);
    QVERIFY(QFileInfo(config + "/arbo_v15.json").isFile());
}

// Folders where the documents belong and a file where the runtime patch
// folder belongs, as a slip in a file manager leaves them: each is kept
// aside under a name of its own and the program starts as on a first run.
void TestStartup::entriesInTheWayAreKeptAsideAndStartupGoesOn()
{
    ResourceCopy resources;
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    const QStringList documents = {"arbo_v15.json", "options.json", "input_map.json",
                                   "rfid_map.json"};
    for (const QString& name : documents) {
        QVERIFY(TestSupport::writeFile(config + "/" + name + "/inside.txt", "mine"));
    }
    QVERIFY(TestSupport::writeFile(config + "/patch", "not a folder"));

    const RunResult result = startChild(resources, home.path());
    QVERIFY2(result.exitCode == 0, qPrintable(result.report()));
    QCOMPARE(result.messageBoxes, QStringList());
    for (const QString& name : documents + QStringList{"patch"}) {
        const QFileInfoList aside =
            QDir(config).entryInfoList({name + ".damaged-*"}, QDir::AllEntries | QDir::Hidden);
        QCOMPARE(aside.size(), 1);
        QCOMPARE(aside.first().isDir(), name != "patch");
    }
    // Written anew, but for the tag map, which only its user writes.
    for (const char* name : {"arbo_v15.json", "options.json", "input_map.json"}) {
        QVERIFY2(QFileInfo(config + "/" + name).isFile(), qPrintable(name));
    }
    QVERIFY(!QFileInfo::exists(config + "/rfid_map.json"));
    QVERIFY(QFileInfo(config + "/patch/arbo_main.pd").isFile());
}

void TestStartup::binaryStartsCopiesShellPatchesAndShutsDownOnSigterm()
{
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";

    auto runOnce = [&](const QStringList& args) {
        QProcess process;
        process.setProcessEnvironment(programEnvironment(home.path()));
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

    // A buffer size of the user's own reaches the device and is kept.
    QVERIFY(TestSupport::writeFile(config + "/options.json", "{ \"framesPerBuffer\": 128 }"));
    runOnce({});
    for (const QString& name : SHELL_PATCHES) {
        QCOMPARE(TestSupport::readFile(config + "/patch/" + name),
                 TestSupport::readFile(TestSupport::binDir() + "/patches/shell/" + name));
    }
    QString log = QString::fromUtf8(TestSupport::readFile(config + "/log.txt"));
    QVERIFY(log.contains("\n" + QString(78, '-') + "\nStarting app at "));
    QVERIFY(log.contains("frames per buffer: 128"));
    QVERIFY(log.contains("Calling Pa_Terminate..."));
    const QStringList critical = log.split('\n').filter(QStringLiteral("CRITICAL"));
    QVERIFY2(critical.isEmpty(), qPrintable(critical.join('\n')));
    // Debug messages never reach the file.
    QVERIFY(!log.contains("Config dir:"));

    // Options written at shutdown hold all sixteen keys.
    const QJsonObject options =
        QJsonDocument::fromJson(TestSupport::readFile(config + "/options.json")).object();
    QCOMPARE(options.size(), 16);
    QCOMPARE(options.value("framesPerBuffer").toInt(), 128);

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

    const RunResult result = startChild(resources, home.path());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(TestSupport::readFile(config + "/patch/arbo_main.pd"),
             TestSupport::readFile(resources.path() + "/patches/shell/arbo_main.pd"));
}

bool TestStartup::startBinary(QProcess& process, const QString& home)
{
    const QString log = home + "/Merrow Tuning Arbo/log.txt";
    // Start-up writes the input map (saved whole, through a temporary file)
    // last, after the voice is opened.
    const char* const marker = "Opening PD patch";
    const QString inputMap = home + "/Merrow Tuning Arbo/input_map.json";
    const int started = TestSupport::readFile(log).count(marker);
    process.setProcessEnvironment(programEnvironment(home));
    process.start(TestSupport::mainBinary(), QStringList());
    if (!process.waitForStarted()) {
        return false;
    }
    QElapsedTimer timer;
    timer.start();
    while (TestSupport::readFile(log).count(marker) <= started || !QFile::exists(inputMap)) {
        if (timer.elapsed() > 30000 || process.state() != QProcess::Running) {
            return false;
        }
        QTest::qWait(20);
    }
    return true;
}

void TestStartup::secondInstanceSaysSoAndWritesNothing()
{
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    QProcess first;
    QVERIFY(startBinary(first, home.path()));
    const QMap<QString, QByteArray> before = filesBelow(config);
    const int banners = TestSupport::readFile(config + "/log.txt").count("Starting app at ");

    // The second start, while the first plays.
    ResourceCopy resources;
    const RunResult second = startChild(resources, home.path());
    QVERIFY2(second.exitCode == 1, qPrintable(second.report()));
    const QString text = QString("Merrow Tuning Arbo is already running (process %1).\n\nThis "
                                 "copy will now shut down.")
                             .arg(first.processId());
    QCOMPARE(second.messageBoxes, QStringList{text});
    QVERIFY2(second.errors.contains("is already running"), qPrintable(second.errors));
    QVERIFY2(filesBelow(config) == before, qPrintable(changedFiles(before, filesBelow(config))));
    QCOMPARE(TestSupport::readFile(config + "/log.txt").count("Starting app at "), banners);

    // The first goes on and shuts down as usual.
    QCOMPARE(first.state(), QProcess::Running);
    first.terminate();
    QVERIFY(first.waitForFinished(30000));
    QCOMPARE(first.exitCode(), 0);

    // A run that crashed leaves its lock behind; the next start takes it over.
    QProcess crashed;
    QVERIFY(startBinary(crashed, home.path()));
    QVERIFY(QFile::exists(config + "/arbo.lock"));
    ::kill(pid_t(crashed.processId()), SIGKILL);
    QVERIFY(crashed.waitForFinished(30000));
    QVERIFY(QFile::exists(config + "/arbo.lock"));
    const RunResult after = startChild(resources, home.path());
    QCOMPARE(after.messageBoxes, QStringList());
    QVERIFY2(after.exitCode == 0, qPrintable(after.report()));
}

void TestStartup::damagedLatticeIsKeptAsideAndTheNextStartWorks_data()
{
    QTest::addColumn<QByteArray>("damaged");
    QTest::newRow("emptied") << QByteArray();
    QTest::newRow("cut short") << QByteArray("{\n    \"colors\": [\n        {\n");
}

void TestStartup::damagedLatticeIsKeptAsideAndTheNextStartWorks()
{
    QFETCH(QByteArray, damaged);
    ResourceCopy resources;
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    QVERIFY(TestSupport::writeFile(config + "/arbo_v15.json", damaged));

    const RunResult failed = startChild(resources, home.path());
    QVERIFY2(failed.exitCode == 1, qPrintable(failed.report()));
    QCOMPARE(failed.messageBoxes,
             QStringList{"Arbo initialisation failed.\n\nThe program will now shut down."});
    const QStringList kept = matching(config, "arbo_v15.json.damaged-*");
    QCOMPARE(kept.size(), 1);
    QCOMPARE(TestSupport::readFile(config + "/" + kept.first()), damaged);
    QVERIFY(!QFile::exists(config + "/arbo_v15.json"));
    const QString log = QString::fromUtf8(TestSupport::readFile(config + "/log.txt"));
    QVERIFY2(log.contains(
                 QString("Kept damaged file %1/arbo_v15.json as %1/%2.").arg(config, kept.first())),
             qPrintable(log));

    // The next start builds the default lattice and leaves the kept file be.
    const RunResult next = startChild(resources, home.path());
    QCOMPARE(next.messageBoxes, QStringList());
    QVERIFY2(next.exitCode == 0, qPrintable(next.report()));
    const QJsonObject lattice =
        QJsonDocument::fromJson(TestSupport::readFile(config + "/arbo_v15.json")).object();
    QCOMPARE(lattice.value("colors").toArray().size(), 13);
    QVERIFY(lattice.value("root").toObject().contains("children"));
    QCOMPARE(TestSupport::readFile(config + "/" + kept.first()), damaged);
}

void TestStartup::failedSavesAtShutdownKeepTheFilesAndSaySo_data()
{
    QTest::addColumn<bool>("tmpfs");
    QTest::addColumn<QString>("reason");
    QTest::newRow("disk full during the session") << true << "No space left on device";
    QTest::newRow("file size limit") << false << "File too large";
}

void TestStartup::failedSavesAtShutdownKeepTheFilesAndSaySo()
{
    QFETCH(bool, tmpfs);
    QFETCH(QString, reason);

    TmpfsMount disk;
    QTemporaryDir plainHome;
    QString home = plainHome.path();
    if (tmpfs) {
        if (!TmpfsMount::canMount()) {
            QSKIP("Mounting a tmpfs needs root; the file size limit row fails the same saves");
        }
        QVERIFY2(disk.mount(2 * 1024 * 1024), qPrintable(disk.error()));
        home = disk.path();
    }
    const QString config = home + "/Merrow Tuning Arbo";
    ResourceCopy resources;

    // A first run writes the files; a user's lattice is small.
    const RunResult firstRun = startChild(resources, home);
    QVERIFY2(firstRun.exitCode == 0, qPrintable(firstRun.report()));
    const QByteArray options = TestSupport::readFile(config + "/options.json");
    const QByteArray lattice = TestSupport::readFile(config + "/arbo_v15.json");
    QVERIFY(!options.isEmpty() && !lattice.isEmpty());

    const RunResult result = startChild(resources, home, tmpfs ? "fill:" + home : "limit");
    QVERIFY2(result.exitCode == 0, qPrintable(result.report()));
    const QString text = QString("Your changes could not be saved; the files keep their previous "
                                 "content.\n\n%1/arbo_v15.json: %2\n%1/options.json: %2")
                             .arg(config, reason);
    QCOMPARE(result.messageBoxes, QStringList{text});
    QCOMPARE(TestSupport::readFile(config + "/options.json"), options);
    QCOMPARE(TestSupport::readFile(config + "/arbo_v15.json"), lattice);
    QCOMPARE(matching(config, "*.saving-*"), QStringList());
    // (The log has no room for the reason either; the settings test checks
    // the logged line.)

    // With room again, the next run starts as usual.
    disk.makeRoom();
    const RunResult next = startChild(resources, home);
    QCOMPARE(next.messageBoxes, QStringList());
    QVERIFY2(next.exitCode == 0, qPrintable(next.report()));
}

void TestStartup::readOnlyConfigFolderIsNamed()
{
    // Root writes through any permission, so as root the file system itself
    // is made read-only.
    TmpfsMount disk;
    QTemporaryDir plainHome;
    QString home = plainHome.path();
    if (TmpfsMount::canMount()) {
        QVERIFY2(disk.mount(2 * 1024 * 1024), qPrintable(disk.error()));
        home = disk.path();
    }
    const QString config = home + "/Merrow Tuning Arbo";
    ResourceCopy resources;
    const RunResult firstRun = startChild(resources, home);
    QVERIFY2(firstRun.exitCode == 0, qPrintable(firstRun.report()));
    const QMap<QString, QByteArray> before = filesBelow(config);

    if (TmpfsMount::canMount()) {
        QVERIFY2(disk.setReadOnly(true), qPrintable(disk.error()));
    } else {
        for (const QString& folder : {config, config + "/patch"}) {
            QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner));
        }
        for (const QString& file : before.keys()) {
            QVERIFY(QFile::setPermissions(file, QFile::ReadOwner));
        }
    }
    auto writable = qScopeGuard([&] {
        if (TmpfsMount::canMount()) {
            disk.setReadOnly(false);
        } else {
            QFile::setPermissions(config, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
            QFile::setPermissions(config + "/patch",
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        }
    });

    const RunResult result = startChild(resources, home);
    QVERIFY2(result.exitCode == 0, qPrintable(result.report()));
    // First the folder is named; the voice that cannot be copied in follows
    // with its own message, and nothing more is said at shutdown.
    QCOMPARE(result.messageBoxes.size(), 2);
    QVERIFY2(
        result.messageBoxes.at(0).startsWith("This folder cannot be written:\n" + config + " ("),
        qPrintable(result.messageBoxes.at(0)));
    QVERIFY2(result.messageBoxes.at(0).contains(config + "/patch ("),
             qPrintable(result.messageBoxes.at(0)));
    QVERIFY(result.messageBoxes.at(1).startsWith("Failed to load patch "));
    QVERIFY2(result.errors.contains("Couldn't open log file"), qPrintable(result.errors));
    QVERIFY2(filesBelow(config) == before, qPrintable(changedFiles(before, filesBelow(config))));
}

void TestStartup::unusableOptionsAreReplaced()
{
    ResourceCopy resources;
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";
    // Device 57 is not there (an interface not plugged in): the program plays
    // on the default device, which the options then name.
    QVERIFY(TestSupport::writeFile(config + "/options.json", R"({
        "audioDevice": 57, "baseFrequency": 0, "masterVolume": 1e30, "framesPerBuffer": 7,
        "windowSize": "100000,100000", "windowPos": "100000,100000",
        "defaultPatch": "../../../../../../../../etc/passwd", "udpPort": 9100 })"));

    const RunResult result = startChild(resources, home.path());
    QCOMPARE(result.messageBoxes, QStringList());
    QVERIFY2(result.exitCode == 0, qPrintable(result.report()));

    const QString log = QString::fromUtf8(TestSupport::readFile(config + "/log.txt"));
    for (const QString& line :
         {QString("Option baseFrequency has the unusable value 0; using 440 instead."),
          QString("Option masterVolume has the unusable value 1.00000002e+30; using 0.75 "
                  "instead."),
          QString("Option framesPerBuffer has the unusable value 7; using 256 instead."),
          QString("Option windowSize has the unusable value 100000,100000; using -1,-1 "
                  "instead."),
          QString("Option windowPos has the unusable value 100000,100000; using -1,-1 "
                  "instead."),
          QString("Option defaultPatch has the unusable value ../../../../../../../../etc/passwd; "
                  "using Sine.pd instead.")}) {
        QVERIFY2(log.contains(line), qPrintable(line + "\n---\n" + log));
    }
    // The voice is the default one, not the file outside the patch folder.
    QCOMPARE(TestSupport::readFile(config + "/patch/arbo_voice.pd"),
             TestSupport::readFile(resources.path() + "/patches/Sine.pd"));

    const QJsonObject options =
        QJsonDocument::fromJson(TestSupport::readFile(config + "/options.json")).object();
    QCOMPARE(options.value("baseFrequency").toDouble(), 440.0);
    QCOMPARE(options.value("masterVolume").toDouble(), 0.75);
    QCOMPARE(options.value("framesPerBuffer").toInt(), 256);
    QCOMPARE(options.value("defaultPatch").toString(), QString("Sine.pd"));
    QCOMPARE(options.value("audioDevice").toInt(), 0);
    QCOMPARE(options.value("udpPort").toInt(), 9100); // usable values stay
}

void TestStartup::missingSineFallsBackToAnotherVoice_data()
{
    QTest::addColumn<QStringList>("omit");
    QTest::addColumn<QString>("playing"); // the voice in play, or empty for none
    QTest::newRow("no Sine.pd") << QStringList{"patches/Sine.pd"} << "Organ.pd";
    QTest::newRow("no voice at all") << QStringList{"patches/Sine.pd", "patches/Organ.pd",
                                                    "patches/Pluck.pd", "patches/Vocal.pd"}
                                     << "";
}

void TestStartup::missingSineFallsBackToAnotherVoice()
{
    QFETCH(QStringList, omit);
    QFETCH(QString, playing);
    ResourceCopy resources(omit);
    QTemporaryDir home;
    const QString config = home.path() + "/Merrow Tuning Arbo";

    const RunResult result = startChild(resources, home.path());
    QVERIFY2(result.exitCode == 0, qPrintable(result.report()));
    const QString log = QString::fromUtf8(TestSupport::readFile(config + "/log.txt"));
    QVERIFY(log.contains("Sine patch not found, set None loaded."));
    if (playing.isEmpty()) {
        QCOMPARE(result.messageBoxes,
                 QStringList{QString("No voice patch could be loaded from %1/patches, so the "
                                     "instrument is silent.\n\nReinstalling the program "
                                     "restores its voice patches.")
                                 .arg(resources.path())});
        return;
    }
    QCOMPARE(result.messageBoxes, QStringList());
    QCOMPARE(TestSupport::readFile(config + "/patch/arbo_voice.pd"),
             TestSupport::readFile(resources.path() + "/patches/" + playing));
    QVERIFY2(log.contains(QString("Playing voice patch %1/patches/%2 instead of the default.")
                              .arg(resources.path(), playing)),
             qPrintable(log));
}

int main(int argc, char** argv)
{
    if (argc >= 2 && std::strcmp(argv[1], CHILD_FLAG) == 0) {
        return TuningArboApplication::leave(runChild(argc, argv));
    }
    TestSupport::isolateHome();
    QApplication app(argc, argv);
    TestStartup test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_startup.moc"
