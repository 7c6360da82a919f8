// Options and the JSON document mechanics under them: defaults, the type
// rules of reading, damaged files, and saves that a crash cannot tear.

#include "settings/settings.h"
#include "testsupport.h"

#include <QDir>
#include <QJsonArray>
#include <QProcess>
#include <QRandomGenerator>

#include <csignal>
#include <cstring>

namespace {

QString optionsPath()
{
    return TestSupport::configDir() + "/options.json";
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
    printf("ready\n");
    fflush(stdout);
    for (int i = 0;; ++i) {
        doc.mVersion = (i % 2) ? "odd" : "even";
        printf("saving\n");
        fflush(stdout);
        doc.save();
        printf("saved\n");
        fflush(stdout);
    }
}

} // namespace

class TestSettings : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void firstRunWritesEveryKeyWithItsDefault();
    void readTakesOnlyValuesOfTheRightType_data();
    void readTakesOnlyValuesOfTheRightType();
    void damagedFileKeepsDefaultsAndStaysUntilSaved_data();
    void damagedFileKeepsDefaultsAndStaysUntilSaved();
    void unusableFilePlaceFailsWithoutTouchingIt();
    void killedSaveNeverLeavesAPartialFile();
};

void TestSettings::init()
{
    QDir(TestSupport::configDir()).removeRecursively();
    QVERIFY(QDir().mkpath(TestSupport::configDir()));
}

void TestSettings::firstRunWritesEveryKeyWithItsDefault()
{
    Settings settings;
    QVERIFY(settings.init());
    const QByteArray bytes = TestSupport::readFile(optionsPath());
    const QJsonObject json = QJsonDocument::fromJson(bytes).object();

    const QJsonObject expected{
        {"audioDevice", -1},           {"framesPerBuffer", 256},    {"baseFrequency", 440.0},
        {"calibrationFrequency", 440}, {"baseNote", "A 4"},         {"masterVolume", 0.75},
        {"monophonic", false},         {"defaultPatch", "Sine.pd"}, {"udpPort", 8888},
        {"circlesView", false},        {"absRelView", 1},           {"updateCheckInterval", 1},
        {"tSysLastUpdateCheck", ""},   {"windowSize", "-1,-1"},     {"windowPos", "-1,-1"},
        {"windowMaximized", false},
    };
    QCOMPARE(json, expected);
    // Indented, one key per line, so the file stays editable by hand.
    QCOMPARE(bytes.count('\n'), 18);

    // Read back, the file gives the same values.
    Settings again;
    QVERIFY(again.init());
    QJsonObject rewritten;
    again.write(rewritten);
    QCOMPARE(rewritten, expected);
}

void TestSettings::readTakesOnlyValuesOfTheRightType_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QByteArray>("expected"); // the keys that differ from the defaults

    QTest::newRow("fraction for an int truncates toward zero")
        << QByteArray(R"({"udpPort": 9000.7, "audioDevice": -2.9})")
        << QByteArray(R"({"udpPort": 9000, "audioDevice": -2})");
    QTest::newRow("string where a number belongs is ignored")
        << QByteArray(R"({"udpPort": "9000", "baseFrequency": "432"})") << QByteArray("{}");
    QTest::newRow("bool where a string belongs is ignored")
        << QByteArray(R"({"baseNote": true, "defaultPatch": 12})") << QByteArray("{}");
    QTest::newRow("number where a bool belongs is ignored")
        << QByteArray(R"({"monophonic": 1, "windowMaximized": "true"})") << QByteArray("{}");
    QTest::newRow("floats taken as they are, nothing clamped")
        << QByteArray(R"({"baseFrequency": 261.625, "masterVolume": 7.5, "framesPerBuffer": 0})")
        << QByteArray(R"({"baseFrequency": 261.625, "masterVolume": 7.5, "framesPerBuffer": 0})");
    QTest::newRow("numbers beyond int saturate")
        << QByteArray(R"({"udpPort": 1e300, "audioDevice": -1e300})")
        << QByteArray(R"({"udpPort": 2147483647, "audioDevice": -2147483648})");
    QTest::newRow("size with one part is not applied")
        << QByteArray(R"({"windowSize": "800"})") << QByteArray("{}");
    QTest::newRow("size with three parts takes the first two")
        << QByteArray(R"({"windowSize": "800,600,5", "windowPos": "10,-20"})")
        << QByteArray(R"({"windowSize": "800,600", "windowPos": "10,-20"})");
    QTest::newRow("non-numeric parts give zero")
        << QByteArray(R"({"windowSize": "wide,tall", "windowPos": ","})")
        << QByteArray(R"({"windowSize": "0,0", "windowPos": "0,0"})");
    QTest::newRow("size that is not a string is not applied")
        << QByteArray(R"({"windowSize": [800, 600], "windowPos": 5})") << QByteArray("{}");
    QTest::newRow("unknown keys are ignored")
        << QByteArray(R"({"volume": 3, "": null})") << QByteArray("{}");
}

void TestSettings::readTakesOnlyValuesOfTheRightType()
{
    QFETCH(QByteArray, json);
    QFETCH(QByteArray, expected);

    QJsonObject defaults;
    Settings().write(defaults);

    Settings settings;
    settings.read(QJsonDocument::fromJson(json).object());
    QJsonObject actual;
    settings.write(actual);

    QJsonObject wanted = defaults;
    const QJsonObject changes = QJsonDocument::fromJson(expected).object();
    for (auto it = changes.begin(); it != changes.end(); ++it) {
        wanted.insert(it.key(), it.value());
    }
    QCOMPARE(actual, wanted);
}

void TestSettings::damagedFileKeepsDefaultsAndStaysUntilSaved_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("loads"); // a top-level array parses, as an empty object

    QTest::newRow("empty") << "empty.json" << false;
    QTest::newRow("truncated") << "truncated.json" << false;
    QTest::newRow("binary garbage") << "binary-garbage.json" << false;
    QTest::newRow("top-level array") << "top-level-array.json" << true;
}

void TestSettings::damagedFileKeepsDefaultsAndStaysUntilSaved()
{
    QFETCH(QString, file);
    QFETCH(bool, loads);

    const QByteArray damaged = TestSupport::readFile(TestSupport::dataDir() + "/options/" + file);
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
    settings.term();
    Settings reread;
    QVERIFY(reread.init());
    QCOMPARE(reread.mUdpPort, 9100);
}

void TestSettings::unusableFilePlaceFailsWithoutTouchingIt()
{
    // A folder where the file belongs: neither load nor save can use it.
    QVERIFY(QDir().mkpath(optionsPath()));
    QVERIFY(TestSupport::writeFile(optionsPath() + "/keep.txt", "mine"));

    Settings settings;
    QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("^Couldn't (open|parse) file .*"));
    QVERIFY(!settings.init());
    QCOMPARE(settings.mUdpPort, 8888);

    QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("^Couldn't (open|write) file .*"));
    QVERIFY(!settings.save());
    QCOMPARE(TestSupport::readFile(optionsPath() + "/keep.txt"), QByteArray("mine"));
}

void TestSettings::killedSaveNeverLeavesAPartialFile()
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
        QVERIFY2(version == "even" || version == "odd" || version.isEmpty(), qPrintable(version));
        QCOMPARE(doc.object().value("bulk").toArray().size(), 20000);
    }
    QVERIFY2(killsInsideSave >= 5, "too few kills interrupted a save; the test proved little");
}

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
