// Options and the JSON document mechanics under them: defaults, the type
// rules of reading, damaged files, and saves that a crash cannot tear.

#include "fulldisk.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "testsupport.h"

#include <QDir>
#include <QJsonArray>
#include <QProcess>
#include <QRandomGenerator>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString optionsPath()
{
    return TestSupport::configDir() + "/options.json";
}

// The defaults as written, with the keys of the JSON object `changes` set.
QJsonObject defaultsWith(const QByteArray& changes)
{
    QJsonObject json;
    Settings().write(json);
    const QJsonObject values = QJsonDocument::fromJson(changes).object();
    for (auto it = values.begin(); it != values.end(); ++it) {
        json.insert(it.key(), it.value());
    }
    return json;
}

// A document with a large payload, so that writing it takes long enough for
// a kill to land in the middle of a save.
class BulkyDocument : public SerializableRoot
{
public:
    QString mVersion;
    void read(const QJsonObject& json) override { mVersion = json.value("version").toString(); }
    void write(QJsonObject& json) const override
    {
        json.insert("version", mVersion);
        QJsonArray bulk;
        for (int i = 0; i < 20000; ++i) {
            bulk.append(mVersion + QString::number(i));
        }
        json.insert("bulk", bulk);
    }
};

// Child process: saves the document again and again, alternating between
// two versions, until it is killed.
int saveForever()
{
    BulkyDocument doc;
    doc.init("bulky.json");
    setvbuf(stdout, nullptr, _IONBF, 0); // every word out at once
    printf("ready\n");
    for (int i = 0;; ++i) {
        doc.mVersion = (i % 2) ? "odd" : "even";
        printf("saving\n");
        doc.save();
        printf("saved\n");
    }
}

} // namespace

class TestSettings : public QObject
{
    Q_OBJECT

private slots:

    void init()
    {
        QDir(TestSupport::configDir()).removeRecursively();
        QVERIFY(QDir().mkpath(TestSupport::configDir()));
    }

    void readTakesOnlyValuesOfTheRightType_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QByteArray>("expected"); // the keys that differ from the defaults

        // A fraction for an int truncates toward zero; floats are taken as they
        // are, nothing clamped; a size with three parts takes the first two.
        QTest::newRow("numbers and sizes")
            << QByteArray(R"({"udpPort": 9000.7, "audioDevice": -2.9, "baseFrequency": 261.625,
                              "masterVolume": 7.5, "framesPerBuffer": 0,
                              "windowSize": "800,600,5", "windowPos": "10,-20"})")
            << QByteArray(R"({"udpPort": 9000, "audioDevice": -2, "baseFrequency": 261.625,
                              "masterVolume": 7.5, "framesPerBuffer": 0,
                              "windowSize": "800,600", "windowPos": "10,-20"})");
        // Numbers beyond int saturate; non-numeric parts of a size give zero.
        QTest::newRow("extremes") << QByteArray(R"({"udpPort": 1e300, "audioDevice": -1e300,
                              "windowSize": "wide,tall", "windowPos": ","})")
                                  << QByteArray(
                                         R"({"udpPort": 2147483647, "audioDevice": -2147483648,
                              "windowSize": "0,0", "windowPos": "0,0"})");
        // A string where a number belongs, a bool or number where a string
        // belongs, a number or string where a bool belongs, a size that is no
        // string or has one part, unknown keys: all ignored.
        QTest::newRow("wrong types")
            << QByteArray(R"({"udpPort": "9000", "baseFrequency": "432", "baseNote": true,
                              "defaultPatch": 12, "monophonic": 1, "windowMaximized": "true",
                              "windowSize": [800, 600], "windowPos": 5, "volume": 3, "": null})")
            << QByteArray("{}");
        QTest::newRow("size with one part")
            << QByteArray(R"({"windowSize": "800"})") << QByteArray("{}");
        // The notation by its word; another word or a number keeps the default.
        QTest::newRow("notation")
            << QByteArray(R"({"notation": "helmholtz-ellis"})")
            << QByteArray(R"({"notation": "helmholtz-ellis"})");
        QTest::newRow("unknown notation")
            << QByteArray(R"({"notation": "HEJI"})") << QByteArray("{}");
    }

    void readTakesOnlyValuesOfTheRightType()
    {
        QFETCH(QByteArray, json);
        QFETCH(QByteArray, expected);
        Settings settings;
        settings.read(QJsonDocument::fromJson(json).object());
        QJsonObject actual;
        settings.write(actual);
        QCOMPARE(actual, defaultsWith(expected));
    }

    void damagedFileKeepsDefaultsAndStaysUntilSaved_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("loads"); // a top-level array parses, as an empty object

        QTest::newRow("empty") << "empty.json" << false;
        QTest::newRow("truncated") << "truncated.json" << false;
        QTest::newRow("binary garbage") << "binary-garbage.json" << false;
        QTest::newRow("top-level array") << "top-level-array.json" << true;
    }

    void damagedFileKeepsDefaultsAndStaysUntilSaved()
    {
        QFETCH(QString, file);
        QFETCH(bool, loads);

        const QByteArray damaged =
            TestSupport::readFile(TestSupport::dataDir() + "/options/" + file);
        QVERIFY(TestSupport::writeFile(optionsPath(), damaged));

        if (!loads) {
            QTest::ignoreMessage(QtCriticalMsg,
                                 QRegularExpression("^Couldn't parse file .*options\\.json\\. JSON "
                                                    "error: "));
        }
        Settings settings;
        QCOMPARE(settings.init(), loads);
        QCOMPARE(settings.mUdpPort, 8888);
        QCOMPARE(settings.mBaseNote, QStringLiteral("A 4"));
        // The damaged file stays as it was until a save replaces it.
        QCOMPARE(TestSupport::readFile(optionsPath()), damaged);

        settings.mUdpPort = 9100;
        if (!loads) {
            QTest::ignoreMessage(
                QtWarningMsg, QRegularExpression("^Kept damaged file .*options\\.json as "
                                                 ".*options\\.json\\.damaged-\\d{8}-\\d{6}\\.$"));
        }
        settings.term();
        Settings reread;
        QVERIFY(reread.init());
        QCOMPARE(reread.mUdpPort, 9100);

        // What did not parse is kept beside the new file, byte for byte, for the
        // user to repair; what parsed needed no keeping.
        const QStringList kept =
            QDir(TestSupport::configDir()).entryList({"options.json.damaged-*"}, QDir::Files);
        QCOMPARE(kept.size(), loads ? 0 : 1);
        if (!loads) {
            QCOMPARE(TestSupport::readFile(TestSupport::configDir() + "/" + kept.first()), damaged);
        }
    }

    void unusableFilePlaceIsKeptAside()
    {
        // What stands where the file belongs and cannot hold it is renamed like
        // a damaged file, whatever it is, and the options start from their
        // defaults: a folder (its content kept), a pipe (whose reading would
        // block for good), a link to a device that never ends.
        const auto kept = [] {
            return QDir(TestSupport::configDir())
                .entryInfoList({"options.json.damaged-*"}, QDir::AllEntries | QDir::System);
        };
        const QByteArray path = QFile::encodeName(optionsPath());
        for (const QString kind : {"folder", "pipe", "link to /dev/zero"}) {
            if (kind == "folder") {
                QVERIFY(QDir().mkpath(optionsPath()));
                QVERIFY(TestSupport::writeFile(optionsPath() + "/keep.txt", "mine"));
            } else if (kind == "pipe") {
                QCOMPARE(::mkfifo(path.constData(), 0600), 0);
            } else {
                QCOMPARE(::symlink("/dev/zero", path.constData()), 0);
            }
            const int before = kept().size();
            Settings settings;
            settings.mUdpPort = 1;
            QVERIFY2(settings.init(), qPrintable(kind));
            QCOMPARE(settings.mUdpPort, 1); // written, not read
            QVERIFY(QFileInfo(optionsPath()).isFile());
            QCOMPARE(kept().size(), before + 1);
            for (const QFileInfo& aside : kept()) {
                QVERIFY(!aside.isSymLink() || aside.symLinkTarget() == "/dev/zero");
            }
            QVERIFY(QFile::remove(optionsPath()));
        }
        const QFileInfoList asides = kept();
        const auto folder = std::find_if(asides.begin(), asides.end(),
                                         [](const QFileInfo& aside) { return aside.isDir(); });
        QVERIFY(folder != asides.end());
        QCOMPARE(TestSupport::readFile(folder->filePath() + "/keep.txt"), QByteArray("mine"));
    }

    void failedSaveKeepsThePreviousFile_data()
    {
        QTest::addColumn<bool>("tmpfs");
        QTest::addColumn<QString>("reason");
        // Both rows fail inside the flush of a document smaller than the write
        // buffer, where a failure once went unnoticed and emptied the file.
        QTest::newRow("full tmpfs") << true << "No space left on device";
        QTest::newRow("file size limit") << false << "File too large";
    }

    void failedSaveKeepsThePreviousFile()
    {
        QFETCH(bool, tmpfs);
        QFETCH(QString, reason);

        TmpfsMount disk;
        const QByteArray savedDataHome = qgetenv("XDG_DATA_HOME");
        if (tmpfs) {
            if (!TmpfsMount::canMount()) {
                QSKIP("Mounting a tmpfs needs root; the file size limit row fails the same flush");
            }
            QVERIFY2(disk.mount(256 * 1024), qPrintable(disk.error()));
            qputenv("XDG_DATA_HOME", QFile::encodeName(disk.path()));
            QVERIFY(QDir().mkpath(Paths::configDir()));
        }
        auto restoreHome = qScopeGuard([&] { qputenv("XDG_DATA_HOME", savedDataHome); });
        const QString path = Paths::configDir() + "/options.json";

        Settings settings;
        QVERIFY(settings.init());
        settings.mUdpPort = 9001;
        QVERIFY(settings.save());
        QVERIFY(settings.lastSaveError().isEmpty());
        const QByteArray previous = TestSupport::readFile(path);
        QVERIFY(previous.contains("9001"));

        settings.mUdpPort = 9002;
        {
            std::unique_ptr<FileSizeLimit> limit;
            if (tmpfs) {
                QVERIFY2(disk.fill(), qPrintable(disk.error()));
            } else {
                limit = std::make_unique<FileSizeLimit>(64);
                QVERIFY(limit->isActive());
            }
            QTest::ignoreMessage(
                QtCriticalMsg,
                QRegularExpression("^Couldn't write file .*/options\\.json: " + reason + "$"));
            QVERIFY(!settings.save());
        }
        QCOMPARE(settings.lastSaveError(), reason);
        QCOMPARE(TestSupport::readFile(path), previous);
        // The temporary file of the failed save is gone too.
        QCOMPARE(QDir(Paths::configDir()).entryList({"options.json*"}, QDir::Files),
                 QStringList{"options.json"});

        // With room again the next save goes through and forgets the failure.
        disk.makeRoom();
        QVERIFY(settings.save());
        QVERIFY(settings.lastSaveError().isEmpty());
        QVERIFY(TestSupport::readFile(path).contains("9002"));
    }

    // Each value that could not work is replaced by its default (and named);
    // the limits themselves are kept.
    void unusableValuesGoBackToTheirDefaults_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QStringList>("replaced");
        const auto row = [](const char* name, const QByteArray& json,
                            const QStringList& replaced = {}) {
            QTest::newRow(name) << json << replaced;
        };
        const QStringList all = {"baseFrequency", "masterVolume", "framesPerBuffer",
                                 "defaultPatch",  "windowSize",   "windowPos"};
        // A default patch outside the patch folder; a window larger than any
        // screen, at a position off every screen.
        row("zero frequency, huge volume, too few frames",
            R"({"baseFrequency": 0, "masterVolume": 1e30, "framesPerBuffer": 7,
                "defaultPatch": "../../../../../etc/passwd",
                "windowSize": "100000,100000", "windowPos": "5000,5000"})",
            all);
        // A default patch as an absolute path; a window of no size.
        row("negative frequency and volume, too many frames",
            R"({"baseFrequency": -440, "masterVolume": -5, "framesPerBuffer": 100000,
                "defaultPatch": "/usr/share/x.pd", "windowSize": "0,0"})",
            all.mid(0, 5));
        row("denormal frequency, patch with a backslash",
            R"({"baseFrequency": 1e-40, "defaultPatch": "..\\x.pd"})",
            {"baseFrequency", "defaultPatch"});
        row("near-maximum frequency", R"({"baseFrequency": 3e38})", {"baseFrequency"});
        row("frequency beyond float range reads as infinity",
            R"({"baseFrequency": 1e39, "masterVolume": 3e38})", all.mid(0, 2));
        // Plain patch names are the window's business; a window filling the
        // second screen, partly off the left edge, is usable.
        row("limits kept", R"({"baseFrequency": 20, "masterVolume": 4, "framesPerBuffer": 16,
                              "defaultPatch": "Gone.pd",
                              "windowSize": "1280,1024", "windowPos": "-50,10"})");
        row("other limits kept",
            R"({"baseFrequency": 20000, "masterVolume": 0, "framesPerBuffer": 8192})");
    }

    void unusableValuesGoBackToTheirDefaults()
    {
        QFETCH(QByteArray, json);
        QFETCH(QStringList, replaced);
        QVERIFY(TestSupport::writeFile(optionsPath(), json));
        Settings settings;
        QVERIFY(settings.init());
        for (const QString& key : replaced) {
            QTest::ignoreMessage(
                QtWarningMsg,
                QRegularExpression(
                    QString("^Option %1 has the unusable value .* using .* instead\\.$").arg(key)));
        }
        const QList<QRect> screens{QRect(0, 0, 1920, 1080), QRect(1920, 0, 1280, 1024)};
        QCOMPARE(settings.replaceUnusableValues(screens), replaced);
        // Saved, the file holds the defaults in place of what could not work
        // (in these rows every value is replaced, or none).
        QVERIFY(settings.save());
        QCOMPARE(QJsonDocument::fromJson(TestSupport::readFile(optionsPath())).object(),
                 defaultsWith(replaced.isEmpty() ? json : "{}"));
    }

    void killedSaveNeverLeavesAPartialFile()
    {
        const QString path = TestSupport::configDir() + "/bulky.json";
        // At least 25 kills, and on until a few of them have landed inside a save
        // (the child's last word was "saving"), which a loaded machine may take a
        // few more rounds to produce.
        int killsInsideSave = 0;
        for (int round = 0; round < 25 || (killsInsideSave < 5 && round < 200); ++round) {
            QProcess child;
            child.start(QCoreApplication::applicationFilePath(), {"--save-forever"});
            QVERIFY(child.waitForReadyRead(30000));
            // Let it get into a save at some unpredictable point, then kill it.
            QTest::qWait(int(QRandomGenerator::global()->bounded(5, 60)));
            ::kill(pid_t(child.processId()), SIGKILL);
            QVERIFY(child.waitForFinished(30000));
            const QList<QByteArray> words = child.readAllStandardOutput().trimmed().split('\n');
            if (words.last() == "saving") {
                ++killsInsideSave;
            }

            QJsonParseError error;
            const QJsonDocument doc = QJsonDocument::fromJson(TestSupport::readFile(path), &error);
            QVERIFY2(!doc.isNull(),
                     qPrintable(QString("round %1: %2").arg(round).arg(error.errorString())));
            const QString version = doc.object().value("version").toString();
            QVERIFY2(version == "even" || version == "odd" || version.isEmpty(),
                     qPrintable(version));
            QCOMPARE(doc.object().value("bulk").toArray().size(), 20000);
        }
        QVERIFY2(killsInsideSave >= 5, "too few kills interrupted a save; the test proved little");

        // The next start removes what killed saves left behind, and only that.
        const QString folder = TestSupport::configDir();
        QVERIFY(TestSupport::writeFile(folder + "/bulky.json.saving-Ab12Cd", "{ \"half"));
        QVERIFY(TestSupport::writeFile(folder + "/bulky.json.damaged-20260101-120000", "keep"));
        QVERIFY(TestSupport::writeFile(folder + "/bulky.json.backup", "keep"));
        QVERIFY(TestSupport::writeFile(folder + "/bulky.json.Ab12Cd", "keep"));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression("^Removed .*/bulky\\.json\\.saving-Ab12Cd, left "
                                                "behind by an interrupted save\\.$"));
        BulkyDocument doc;
        QVERIFY(doc.init("bulky.json"));
        QCOMPARE(QDir(folder).entryList({"bulky.json*"}, QDir::Files, QDir::Name),
                 (QStringList{"bulky.json", "bulky.json.Ab12Cd", "bulky.json.backup",
                              "bulky.json.damaged-20260101-120000"}));
    }
};

int main(int argc, char** argv)
{
    // The child inherits the parent's isolated home through the environment.
    const bool child = argc >= 2 && std::strcmp(argv[1], "--save-forever") == 0;
    if (!child) {
        TestSupport::isolateHome();
    }
    QCoreApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("Merrow Tuning Arbo"));
    if (child) {
        return saveForever();
    }
    TestSettings test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_settings.moc"
