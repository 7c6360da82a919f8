// Start-up and shutdown of the whole program: the real binary on a temporary
// configuration folder, and start-up failures, which stop at a message box,
// run in a child process of this test that dismisses the box and reports it.
// The program needs an audio device: a private JACK server on the dummy
// driver stands in for the sound card.

#include "app/tuningarboapplication.h"
#include "fulldisk.h"
#include "jackfixture.h"
#include "testsupport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <csignal>
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
    // Whether the run ended with `code` after showing `boxes`.
    bool is(int code, const QStringList& boxes = {}) const
    {
        return exitCode == code && messageBoxes == boxes;
    }
    // For a failing check: how the run ended and what it said last.
    QString report() const
    {
        return QString("exit code %1, message boxes: %2\nstandard error (end):\n%3")
            .arg(QString::number(exitCode), messageBoxes.join(" | "), errors.right(3000));
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
        QProcess::execute("cp", {"-R", from + "/patches", from + "/style.qss",
                                 from + "/style_mac.qss", mDir.path()});
        for (const QString& name : omit) {
            QFile::remove(mDir.filePath(name));
        }
        QFile::copy(QCoreApplication::applicationFilePath(), executable());
    }
    QString path() const { return mDir.path(); }
    QString executable() const { return mDir.filePath("tst_startup"); }

private:
    QTemporaryDir mDir;
};

// Every file below `folder` but the log, each with a hash of its content,
// to tell whether anything was written there.
QStringList filesBelow(const QString& folder)
{
    QStringList files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (!path.endsWith("/log.txt")) {
            const QByteArray content = TestSupport::readFile(path);
            files << path + " " +
                         QCryptographicHash::hash(content, QCryptographicHash::Md5).toHex();
        }
    }
    files.sort();
    return files;
}

ino_t inodeOf(const QString& path)
{
    struct stat info = {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
}

// SIGTERM, a clean shutdown that saves: whether the program then ended
// normally with exit code 0.
bool terminate(QProcess& process)
{
    process.terminate();
    return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

} // namespace

class TestStartup : public QObject
{
    Q_OBJECT

    JackFixture mJack;
    std::unique_ptr<QTemporaryDir> mTemporaryHome;
    QString mHome; // the data folder of the runs
    std::unique_ptr<ResourceCopy> mResources;

    QString config() const { return mHome + "/Merrow Tuning Arbo"; }
    QString log() const { return QString::fromUtf8(TestSupport::readFile(config() + "/log.txt")); }
    QJsonObject document(const QString& name) const
    {
        return QJsonDocument::fromJson(TestSupport::readFile(config() + "/" + name)).object();
    }
    // The environment of a run: the private server (or `audio`), the home
    // folder as its data folder, no screen.
    QProcessEnvironment environment(QProcessEnvironment audio = {}) const
    {
        QProcessEnvironment env = audio.isEmpty() ? mJack.environment() : audio;
        env.insert("XDG_DATA_HOME", mHome);
        env.insert("QT_QPA_PLATFORM", "offscreen");
        return env;
    }

    // The start-up of the child made of the resource copy.
    RunResult startChild(const QString& afterInit = QString(),
                         const QProcessEnvironment& audio = {}) const
    {
        QProcess process;
        QProcessEnvironment env = environment(audio);
        env.insert(AFTER_INIT, afterInit);
        process.setProcessEnvironment(env);
        process.start(mResources->executable(), {CHILD_FLAG});
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished();
        }
        RunResult result;
        result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.messageBoxes =
            TestSupport::messageBoxesIn(QString::fromUtf8(process.readAllStandardOutput()));
        result.errors = QString::fromUtf8(process.readAllStandardError());
        return result;
    }

    // Starts the real binary and waits until its log shows `marker` once
    // more. The voice is opened last at start-up, after every file is written.
    bool launch(QProcess& process, const QString& marker = "Opening PD patch",
                const QStringList& args = {})
    {
        const int before = log().count(marker);
        process.setProcessEnvironment(environment());
        process.start(TestSupport::mainBinary(), args);
        return process.waitForStarted() &&
               QTest::qWaitFor(
                   [&] {
                       return log().count(marker) > before || process.state() != QProcess::Running;
                   },
                   30000) &&
               process.state() == QProcess::Running;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(JackFixture::missingTools().isEmpty(), qPrintable(JackFixture::missingTools()));
        QVERIFY2(mJack.start(), qPrintable(mJack.error()));
    }

    void init()
    {
        mTemporaryHome = std::make_unique<QTemporaryDir>();
        mHome = mTemporaryHome->path();
        mResources = std::make_unique<ResourceCopy>();
    }

    // What start-up says and does: a failure that ends it (its message says
    // the program shuts down; exit code 1), or one it reports and goes on,
    // each with its message box and its lines in the log (or, before the log
    // file exists, on standard error); then the runtime copies in place and
    // values of the options saved at shutdown.
    void startupOutcomes_data()
    {
        QTest::addColumn<QStringList>("omit");
        QTest::addColumn<QString>("file");    // "name=content", written before the resources
        QTest::addColumn<QString>("message"); // empty: none
        QTest::addColumn<QStringList>("logged");
        QTest::addColumn<QString>("copied"); // "runtime file=resource file": the same
        QTest::addColumn<QString>("saved");  // values of the options saved at shutdown
        const auto row = [](const char* name, const QStringList& omit, const QString& file,
                            const QString& message, const QStringList& logged,
                            const QString& copied = {}, const QString& saved = {}) {
            QTest::newRow(name) << omit << file << message << logged << copied << saved;
        };
        const QString end = "\n\nThe program will now shut down.";
        row("config folder below a regular file", {}, {},
            "Creation of config directory failed." + end,
            {"Could not create config directory %s."});
        row("no style.qss", {"style.qss"}, {}, "Initialisation of style sheet failed." + end,
            {"Failed to find style sheet file"});
        row("no style_mac.qss alone", {"style_mac.qss"}, {},
            "Initialisation of style sheet failed." + end,
            {"Failed to find platform-specific style sheet file"});
        row("no usable audio device", {}, {},
            "Initialisation of audio device failed. This means no audio playback will be "
            "possible." +
                end,
            {"No default output device returned from Pa_GetDefaultOutputDevice"});
        // Reported once; shutdown saves the values in use.
        row("damaged options", {}, "options.json={ \"udpPort\": 9",
            "Failed to read saved options. All options will be reset to defaults.",
            {"Failed to read saved options."}, {}, R"({"udpPort": 8888})");
        // Scenes a show cannot read never stop it: kept aside, said once.
        row("damaged scenes", {}, "scenes.json={ \"lists\": [", {},
            {"The scenes file is damaged and cannot be read. It was kept as "});
        row("scenes of a newer version", {}, R"(scenes.json={"format": 99, "lists": []})", {},
            {"The scenes file was written by a newer version of the program and cannot be "
             "read. It was kept as "});
        // A runtime copy older than the program's, as after an update.
        row("outdated runtime patch", {}, "patch/arbo_main.pd=#N canvas 0 0 10 10 12;\n", {}, {},
            "patch/arbo_main.pd=patches/shell/arbo_main.pd");
        // Without Sine another voice plays; without any the instrument is
        // silent and says so.
        row("no Sine.pd", {"patches/Sine.pd"}, {}, {},
            {"Sine patch not found, set None loaded.",
             "Playing voice patch %1/patches/Organ.pd instead of the default."},
            "patch/arbo_voice.pd=patches/Organ.pd");
        row("no voice at all",
            {"patches/Sine.pd", "patches/Organ.pd", "patches/Pluck.pd", "patches/Vocal.pd"}, {},
            "No voice patch could be loaded from %1/patches, so the instrument is silent.\n\n"
            "Reinstalling the program restores its voice patches.",
            {"Sine patch not found, set None loaded."});
        // Device 57 is not there (an interface not plugged in): the program
        // plays on the default device, which the options then name. The
        // voice is the default one, not the file outside the patch folder.
        const QString unusable = "Option %1 has the unusable value %2; using %3 instead.";
        row("unusable options", {}, R"(options.json={
            "audioDevice": 57, "baseFrequency": 0, "masterVolume": 1e30, "framesPerBuffer": 7,
            "windowSize": "100000,100000", "windowPos": "100000,100000",
            "defaultPatch": "../../../../../../../../etc/passwd", "udpPort": 9100 })",
            {},
            {unusable.arg("baseFrequency", "0", "440"),
             unusable.arg("masterVolume", "1.00000002e+30", "0.75"),
             unusable.arg("framesPerBuffer", "7", "256"),
             unusable.arg("windowSize", "100000,100000", "-1,-1"),
             unusable.arg("windowPos", "100000,100000", "-1,-1"),
             unusable.arg("defaultPatch", "../../../../../../../../etc/passwd", "Sine.pd")},
            "patch/arbo_voice.pd=patches/Sine.pd",
            R"({"baseFrequency": 440, "masterVolume": 0.75, "framesPerBuffer": 256,
                "defaultPatch": "Sine.pd", "audioDevice": 0, "udpPort": 9100})");
    }
    void startupOutcomes()
    {
        QFETCH(QStringList, omit);
        QFETCH(QString, file);
        QFETCH(QString, message);
        QFETCH(QStringList, logged);
        QFETCH(QString, copied);
        QFETCH(QString, saved);
        const QString tag = QTest::currentDataTag();
        if (tag.startsWith("config folder")) {
            QVERIFY(TestSupport::writeFile(mHome + "/plain-file", "not a folder"));
            mHome = mHome + "/plain-file/share";
        }
        if (!file.isEmpty()) {
            const QString name = file.section('=', 0, 0);
            QVERIFY(TestSupport::writeFile(config() + "/" + name, file.section('=', 1).toUtf8()));
            QTest::qWait(20); // older than the resources copied next
        }
        mResources = std::make_unique<ResourceCopy>(omit);
        const QString resources = mResources->path();
        const bool noDevice = tag == "no usable audio device";
        const RunResult result =
            startChild({}, noDevice ? JackFixture::noDeviceEnvironment() : QProcessEnvironment());
        if (noDevice && result.exitCode == 0) {
            // The environment hides ALSA's and JACK's devices; a device of
            // another kind (OSS) cannot be hidden from PortAudio this way.
            QSKIP("This machine has an audio device outside ALSA and JACK");
        }
        QStringList boxes = message.isEmpty() ? QStringList() : QStringList{message};
        QVERIFY2(result.is(message.endsWith("shut down.") ? 1 : 0,
                           boxes.replaceInStrings("%1", resources)),
                 qPrintable(result.report()));
        for (const QString& line : logged.replaceInStrings("%1", resources)) {
            QVERIFY2((result.errors + log()).contains(line), qPrintable(line + "\n---\n" + log()));
        }
        if (!copied.isEmpty()) {
            QCOMPARE(TestSupport::readFile(config() + "/" + copied.section('=', 0, 0)),
                     TestSupport::readFile(resources + "/" + copied.section('=', 1)));
        }
        const QJsonObject values = QJsonDocument::fromJson(saved.toUtf8()).object();
        for (auto it = values.begin(); it != values.end(); ++it) {
            QVERIFY2(document("options.json").value(it.key()) == it.value(), qPrintable(it.key()));
        }
    }

    // Folders where the documents belong and a file where the runtime patch
    // folder belongs, as a slip in a file manager leaves them: each is kept
    // aside under a name of its own and the program starts as on a first run.
    void entriesInTheWayAreKeptAsideAndStartupGoesOn()
    {
        const QStringList documents = {"arbo_v15.json", "options.json", "input_map.json",
                                       "rfid_map.json"};
        for (const QString& name : documents) {
            QVERIFY(TestSupport::writeFile(config() + "/" + name + "/inside.txt", "mine"));
        }
        QVERIFY(TestSupport::writeFile(config() + "/patch", "not a folder"));

        const RunResult result = startChild();
        QVERIFY2(result.is(0), qPrintable(result.report()));
        for (const QString& name : documents + QStringList{"patch"}) {
            const QFileInfoList aside = QDir(config()).entryInfoList(
                {name + ".damaged-*"}, QDir::AllEntries | QDir::Hidden);
            QCOMPARE(aside.size(), 1);
            QCOMPARE(aside.first().isDir(), name != "patch");
            // Made anew, but for the tag map, which only its user writes.
            const QString anew = config() + "/" + name + (name == "patch" ? "/arbo_main.pd" : "");
            QCOMPARE(QFileInfo(anew).isFile(), name != "rfid_map.json");
        }
    }

    // The real binary, twice. The first run copies the shell patches; a
    // buffer size of the user's own reaches the device and is kept; SIGTERM
    // shuts down cleanly. The second finds the copies current. SIGTERM comes
    // while the options' message box waits for a click: nobody is at the
    // window, so the box closes, start-up ends, and the program saves and
    // leaves at once instead of playing on with nobody to stop it.
    void binaryRunsAndShutsDownOnSigterm()
    {
        QVERIFY(TestSupport::writeFile(config() + "/options.json", "{ \"framesPerBuffer\": 128 }"));
        QProcess process;
        QVERIFY(launch(process));
        QVERIFY(terminate(process));
        for (const QString& name : SHELL_PATCHES) {
            QCOMPARE(TestSupport::readFile(config() + "/patch/" + name),
                     TestSupport::readFile(TestSupport::binDir() + "/patches/shell/" + name));
        }
        QVERIFY(log().contains("frames per buffer: 128"));
        QVERIFY(log().contains("Calling Pa_Terminate..."));
        const QStringList critical = log().split('\n').filter(QStringLiteral("CRITICAL"));
        QVERIFY2(critical.isEmpty(), qPrintable(critical.join('\n')));
        // Options written at shutdown hold all seventeen keys.
        QCOMPARE(document("options.json").size(), 17);
        QCOMPARE(document("options.json").value("framesPerBuffer").toInt(), 128);

        QHash<QString, ino_t> inodes;
        for (const QString& name : SHELL_PATCHES) {
            inodes[name] = inodeOf(config() + "/patch/" + name);
        }
        QVERIFY(TestSupport::writeFile(config() + "/options.json", ""));
        QVERIFY(QFile::remove(config() + "/arbo_v15.json"));
        // Logged right before the box opens.
        QVERIFY(launch(process, "Failed to read saved options", {"-All"}));
        QElapsedTimer timer;
        timer.start();
        QVERIFY(terminate(process));
        QVERIFY2(timer.elapsed() < 2000, qPrintable(QString("%1 ms").arg(timer.elapsed())));
        for (const QString& name : SHELL_PATCHES) {
            QCOMPARE(inodeOf(config() + "/patch/" + name), inodes[name]);
        }
        // Saved as at any clean exit: the options whole, the lattice written.
        QCOMPARE(document("options.json").size(), 17);
        QVERIFY(QFileInfo(config() + "/arbo_v15.json").isFile());
        // The log grows across runs: two banners.
        QCOMPARE(log().count("Starting app at "), 2);
    }

    void secondInstanceSaysSoAndWritesNothing()
    {
        QProcess first;
        QVERIFY(launch(first));
        const QStringList before = filesBelow(config());
        const int banners = log().count("Starting app at ");

        // The second start, while the first plays.
        const RunResult second = startChild();
        const QString text = QString("Merrow Tuning Arbo is already running (process %1).\n\nThis "
                                     "copy will now shut down.")
                                 .arg(first.processId());
        QVERIFY2(second.is(1, {text}), qPrintable(second.report()));
        QVERIFY2(second.errors.contains("is already running"), qPrintable(second.errors));
        QCOMPARE(filesBelow(config()), before);
        QCOMPARE(log().count("Starting app at "), banners);
        // The first goes on and shuts down as usual.
        QCOMPARE(first.state(), QProcess::Running);
        QVERIFY(terminate(first));

        // A run that crashed leaves its lock behind; the next start takes it over.
        QProcess crashed;
        QVERIFY(launch(crashed));
        ::kill(pid_t(crashed.processId()), SIGKILL);
        QVERIFY(crashed.waitForFinished(30000));
        QVERIFY(QFile::exists(config() + "/arbo.lock"));
        const RunResult after = startChild();
        QVERIFY2(after.is(0), qPrintable(after.report()));
    }

    // An emptied or cut-short lattice file.
    void damagedLatticeIsKeptAsideAndTheNextStartWorks()
    {
        for (const QByteArray& damaged :
             {QByteArray(), QByteArray("{\n    \"colors\": [\n        {\n")}) {
            init();
            QVERIFY(TestSupport::writeFile(config() + "/arbo_v15.json", damaged));

            const RunResult failed = startChild();
            QVERIFY2(
                failed.is(1, {"Arbo initialisation failed.\n\nThe program will now shut down."}),
                qPrintable(failed.report()));
            const QStringList kept =
                QDir(config()).entryList({"arbo_v15.json.damaged-*"}, QDir::Files);
            QCOMPARE(kept.size(), 1);
            QCOMPARE(TestSupport::readFile(config() + "/" + kept.first()), damaged);
            QVERIFY(!QFile::exists(config() + "/arbo_v15.json"));
            QVERIFY2(log().contains(QString("Kept damaged file %1/arbo_v15.json as %1/%2.")
                                        .arg(config(), kept.first())),
                     qPrintable(log()));

            // The next start builds the default lattice and leaves the kept file be.
            const RunResult next = startChild();
            QVERIFY2(next.is(0), qPrintable(next.report()));
            QCOMPARE(document("arbo_v15.json").value("colors").toArray().size(), 13);
            QVERIFY(document("arbo_v15.json").value("root").toObject().contains("children"));
            QCOMPARE(TestSupport::readFile(config() + "/" + kept.first()), damaged);
        }
    }

    // Saves that fail at shutdown (a disk filled during the session, a file
    // size limit) keep the files as they were and say so. A configuration
    // folder that cannot be written is named at start-up, and the voice that
    // cannot be copied in follows with its own message; nothing more is said
    // at shutdown, and the log goes to standard error. Nothing below the
    // folder changes, and with room again the next run starts as usual.
    void unwritableFilesKeepTheirContentAndSaySo_data()
    {
        QTest::addColumn<QString>("trouble");
        QTest::addColumn<QString>("reason");
        QTest::newRow("disk full during the session") << "fill"
                                                      << "No space left on device";
        QTest::newRow("file size limit") << "limit"
                                         << "File too large";
        QTest::newRow("read-only folder") << "read-only" << QString();
    }
    void unwritableFilesKeepTheirContentAndSaySo()
    {
        QFETCH(QString, trouble);
        QFETCH(QString, reason);
        // Root writes through any permission: as root the file system itself
        // is made read-only.
        TmpfsMount disk;
        const bool mounted = trouble != "limit" && TmpfsMount::canMount();
        if (trouble == "fill" && !mounted) {
            QSKIP("Mounting a tmpfs needs root; the file size limit row fails the same saves");
        }
        if (mounted) {
            QVERIFY2(disk.mount(2 * 1024 * 1024), qPrintable(disk.error()));
            mHome = disk.path();
        }
        // A first run writes the files; a user's lattice is small.
        const RunResult firstRun = startChild();
        QVERIFY2(firstRun.is(0), qPrintable(firstRun.report()));
        const QStringList before = filesBelow(config());
        const auto setWritable = [&](bool writable) {
            return mounted ? disk.setReadOnly(!writable)
                           : QProcess::execute("chmod",
                                               {"-R", writable ? "u+w" : "a-w", config()}) == 0;
        };
        QVERIFY(setWritable(trouble != "read-only"));
        auto writable = qScopeGuard([&] { setWritable(true); });

        const RunResult result = startChild(trouble == "fill" ? "fill:" + mHome : trouble);
        if (trouble == "read-only") {
            QVERIFY2(result.exitCode == 0 && result.messageBoxes.size() == 2,
                     qPrintable(result.report()));
            const QString named = result.messageBoxes.at(0);
            QVERIFY2(named.startsWith("This folder cannot be written:\n" + config() + " ("),
                     qPrintable(named));
            QVERIFY2(named.contains(config() + "/patch ("), qPrintable(named));
            QVERIFY(result.messageBoxes.at(1).startsWith("Failed to load patch "));
            QVERIFY2(result.errors.contains("Couldn't open log file"), qPrintable(result.errors));
        } else {
            // (The log has no room for the reason either; the settings test
            // checks the logged line.)
            const QString text = QString("Your changes could not be saved; the files keep their "
                                         "previous content.\n\n%1/arbo_v15.json: %2\n"
                                         "%1/options.json: %2")
                                     .arg(config(), reason);
            QVERIFY2(result.is(0, {text}), qPrintable(result.report()));
        }
        QCOMPARE(filesBelow(config()), before);

        disk.makeRoom();
        QVERIFY(setWritable(true));
        const RunResult next = startChild();
        QVERIFY2(next.is(0), qPrintable(next.report()));
    }
};

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
