#include "input/arboevent.h"
#include "input/arbonoteevent.h"
#include "input/rfidmap.h"
#include "testsupport.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QThread>

#include <limits>

// The tag map as users write it by hand: real files in the isolated
// configuration folder, read through init() exactly as the UDP listener does.
class TestRfidMap : public QObject
{
    Q_OBJECT

private:
    static QString mapPath() { return TestSupport::configDir() + QStringLiteral("/rfid_map.json"); }

    static bool writeMap(const QByteArray& bytes)
    {
        return TestSupport::writeFile(mapPath(), bytes);
    }

    static bool copyData(const QString& name)
    {
        return writeMap(
            TestSupport::readFile(TestSupport::dataDir() + QStringLiteral("/rfid/") + name));
    }

    static const ArboNoteEvent* asNote(const ArboEvent* event)
    {
        return dynamic_cast<const ArboNoteEvent*>(event);
    }

private slots:
    void init() { QFile::remove(mapPath()); }

    // One member per row, under the key "Tag01", looked up as "tag01".
    void entryRules_data()
    {
        const QString NOT_AN_OBJECT = QStringLiteral(
            "RFID tag01 is not mapped to an object with \"event\" and \"value\". Ignoring.");
        QTest::addColumn<QByteArray>("member");
        QTest::addColumn<bool>("kept");
        QTest::addColumn<QString>("path"); // set for a note toggle
        QTest::addColumn<int>("type");
        QTest::addColumn<float>("value");
        QTest::addColumn<QString>("warning");

        const int INT_MAX_ = std::numeric_limits<int>::max();
        const int INT_MIN_ = std::numeric_limits<int>::min();
        const float FLT_MAX_ = std::numeric_limits<float>::max();
        const QString none;

        // Paths: a text beginning with "/" makes a note toggle whatever "event" says.
        QTest::newRow("note") << QByteArray(R"({"event": 0, "value": "/3/-5"})") << true << "/3/-5"
                              << 0 << 1.0f << none;
        QTest::newRow("path beats event")
            << QByteArray(R"({"event": 5, "value": "/2"})") << true << "/2" << 0 << 1.0f << none;
        QTest::newRow("path without event")
            << QByteArray(R"({"value": "/2/3"})") << true << "/2/3" << 0 << 1.0f << none;
        QTest::newRow("root") << QByteArray(R"({"event": 0, "value": "/"})") << true << "/" << 0
                              << 1.0f << none;
        QTest::newRow("steps beyond six dropped")
            << QByteArray(R"({"event": 0, "value": "/3/3/3/3/3/3/3/3"})") << true << "/3/3/3/3/3/3"
            << 0 << 1.0f << none;
        QTest::newRow("9 is no prime")
            << QByteArray(R"({"event": 0, "value": "/3/9"})") << false << none << 0 << 0.0f
            << "RFID tag01 was assigned invalid path /3/9. Ignoring.";
        QTest::newRow("not a number")
            << QByteArray(R"({"event": 0, "value": "/x"})") << false << none << 0 << 0.0f
            << "RFID tag01 was assigned invalid path /x. Ignoring.";
        QTest::newRow("step beyond 31")
            << QByteArray(R"({"event": 2, "value": "/37"})") << false << none << 0 << 0.0f
            << "RFID tag01 was assigned invalid path /37. Ignoring.";

        // Plain events.
        QTest::newRow("transpose down by 3")
            << QByteArray(R"({"event": 2, "value": -3})") << true << none << 2 << -3.0f << none;
        QTest::newRow("text without slash")
            << QByteArray(R"({"event": 4, "value": "0.5"})") << true << none << 4 << 0.0f << none;
        QTest::newRow("space before slash")
            << QByteArray(R"({"event": 4, "value": " /3"})") << true << none << 4 << 0.0f << none;
        QTest::newRow("missing event")
            << QByteArray(R"({"value": 0.25})") << true << none << 0 << 0.25f << none;
        QTest::newRow("missing value")
            << QByteArray(R"({"event": 1})") << true << none << 1 << 0.0f << none;
        QTest::newRow("empty object") << QByteArray("{}") << true << none << 0 << 0.0f << none;
        // Not an object: skipped, rather than read as a toggle of the root.
        QTest::newRow("number instead of object")
            << QByteArray("7") << false << none << 0 << 0.0f << NOT_AN_OBJECT;
        QTest::newRow("path instead of object")
            << QByteArray(R"("/3")") << false << none << 0 << 0.0f << NOT_AN_OBJECT;
        QTest::newRow("null") << QByteArray("null") << false << none << 0 << 0.0f << NOT_AN_OBJECT;
        QTest::newRow("event as text")
            << QByteArray(R"({"event": "5", "value": 1})") << true << none << 0 << 1.0f << none;
        QTest::newRow("event as bool")
            << QByteArray(R"({"event": true, "value": 1})") << true << none << 0 << 1.0f << none;
        QTest::newRow("value as bool")
            << QByteArray(R"({"event": 3, "value": true})") << true << none << 3 << 0.0f << none;
        QTest::newRow("value as array")
            << QByteArray(R"({"event": 3, "value": [0.5]})") << true << none << 3 << 0.0f << none;
        QTest::newRow("value as object") << QByteArray(R"({"event": 3, "value": {"value": 0.5}})")
                                         << true << none << 3 << 0.0f << none;
        QTest::newRow("fraction truncated")
            << QByteArray(R"({"event": 2.9, "value": 1})") << true << none << 2 << 1.0f << none;
        QTest::newRow("negative fraction truncated")
            << QByteArray(R"({"event": -1.7, "value": 1})") << true << none << -1 << 1.0f << none;

        // Codes the player does not know are kept: it ignores them itself.
        QTest::newRow("code 21") << QByteArray(R"({"event": 21, "value": 1})") << true << none << 21
                                 << 1.0f << none;
        QTest::newRow("code -1") << QByteArray(R"({"event": -1, "value": 1})") << true << none << -1
                                 << 1.0f << none;

        // Numbers beyond int and float saturate instead of overflowing.
        QTest::newRow("int max") << QByteArray(R"({"event": 2147483647})") << true << none
                                 << INT_MAX_ << 0.0f << none;
        QTest::newRow("int max + 1")
            << QByteArray(R"({"event": 2147483648})") << true << none << INT_MAX_ << 0.0f << none;
        QTest::newRow("int min - 1")
            << QByteArray(R"({"event": -2147483649})") << true << none << INT_MIN_ << 0.0f << none;
        QTest::newRow("huge event")
            << QByteArray(R"({"event": 1e300})") << true << none << INT_MAX_ << 0.0f << none;
        QTest::newRow("huge negative event")
            << QByteArray(R"({"event": -1e300})") << true << none << INT_MIN_ << 0.0f << none;
        QTest::newRow("30 digits") << QByteArray(R"({"event": 123456789012345678901234567890})")
                                   << true << none << INT_MAX_ << 0.0f << none;
        QTest::newRow("huge value") << QByteArray(R"({"event": 6, "value": 1e300})") << true << none
                                    << 6 << FLT_MAX_ << none;
        QTest::newRow("huge negative value") << QByteArray(R"({"event": 6, "value": -1e300})")
                                             << true << none << 6 << -FLT_MAX_ << none;
        QTest::newRow("tiny value")
            << QByteArray(R"({"event": 6, "value": 1e-300})") << true << none << 6 << 0.0f << none;
    }

    void entryRules()
    {
        QFETCH(QByteArray, member);
        QFETCH(bool, kept);
        QFETCH(QString, path);
        QFETCH(int, type);
        QFETCH(float, value);
        QFETCH(QString, warning);

        QVERIFY(writeMap("{\n    \"Tag01\": " + member + "\n}\n"));
        if (!warning.isEmpty()) {
            QTest::ignoreMessage(QtWarningMsg, warning.toUtf8().constData());
        }
        RfidMap map;
        QVERIFY(map.init());

        const ArboEvent* event = map.lookup(QStringLiteral("tag01"));
        if (!kept) {
            QVERIFY(!event);
            QCOMPARE(map.size(), 0);
            return;
        }
        QVERIFY(event);
        QCOMPARE(map.size(), 1);
        QCOMPARE(int(event->type()), type);
        QCOMPARE(event->value(), value);
        const ArboNoteEvent* note = asNote(event);
        QCOMPARE(note != nullptr, !path.isEmpty());
        if (note) {
            QCOMPARE(note->path().toString(), path);
        }
    }

    // A file that is not a JSON document leaves the map empty and init()
    // false; a document that is no object reads as an empty map.
    void unreadableFiles_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("initResult");

        QTest::newRow("not JSON") << "not_json.json" << false;
        QTest::newRow("empty") << "empty.json" << false;
        QTest::newRow("truncated") << "truncated.json" << false;
        QTest::newRow("binary") << "binary.json" << false;
        QTest::newRow("number beyond double") << "number_overflow.json" << false;
        QTest::newRow("top-level array") << "top_level_array.json" << true;
    }

    void unreadableFiles()
    {
        QFETCH(QString, file);
        QFETCH(bool, initResult);

        QVERIFY(copyData(file));
        const QByteArray before = TestSupport::readFile(mapPath());
        if (!initResult) {
            QTest::ignoreMessage(QtCriticalMsg,
                                 QRegularExpression(QStringLiteral("^Couldn't parse file ")));
        }
        RfidMap map;
        QCOMPARE(map.init(), initResult);
        QCOMPARE(map.size(), 0);
        QVERIFY(!map.lookup(QStringLiteral("04a1b2")));
        map.term();
        QCOMPARE(TestSupport::readFile(mapPath()), before);
    }

    void deepNestingAndNoFile()
    {
        // Nesting far beyond the parser's limit must fail cleanly.
        QVERIFY(writeMap("{\"a\": " + QByteArray(200000, '[')));
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression(QStringLiteral("^Couldn't parse file ")));
        RfidMap nested;
        QVERIFY(!nested.init());
        QCOMPARE(nested.size(), 0);

        // Without a file, the map starts empty (no tag is assigned out of the box).
        QFile::remove(mapPath());
        RfidMap fresh;
        QVERIFY(fresh.init());
        QCOMPARE(fresh.size(), 0);
        QCOMPARE(fresh.path(), mapPath());
    }

    // Every other entry of a hand-written file survives the broken ones, and
    // the program never writes the file back.
    void mixedFileKeepsTheRestAndStaysUntouched()
    {
        QVERIFY(copyData(QStringLiteral("mixed.json")));
        const QByteArray before = TestSupport::readFile(mapPath());
        const QDateTime modified = QFileInfo(mapPath()).lastModified();

        QTest::ignoreMessage(QtWarningMsg,
                             "RFID 0000000003 was assigned invalid path /3/9. Ignoring.");
        QTest::ignoreMessage(QtWarningMsg,
                             "RFID 0000000012 was assigned invalid path /x. Ignoring.");
        for (const char* tag : {"0000000006", "0000000007", "0000000008"}) {
            QTest::ignoreMessage(QtWarningMsg,
                                 qPrintable(QStringLiteral("RFID %1 is not mapped to an object "
                                                           "with \"event\" and \"value\". "
                                                           "Ignoring.")
                                                .arg(QLatin1String(tag))));
        }
        auto* map = new RfidMap;
        QVERIFY(map->init());
        QCOMPARE(map->size(), 11);
        QVERIFY(!map->lookup(QStringLiteral("0000000006")));

        const ArboNoteEvent* note = asNote(map->lookup(QStringLiteral("0000000001")));
        QVERIFY(note);
        QCOMPARE(note->path().toString(), QStringLiteral("/3/-5"));
        QVERIFY(!map->lookup(QStringLiteral("0000000003")));
        QVERIFY(!map->lookup(QStringLiteral("0000000012")));
        QCOMPARE(int(map->lookup(QStringLiteral("0000000010"))->type()),
                 std::numeric_limits<int>::max());
        QCOMPARE(int(map->lookup(QStringLiteral("0000000011"))->type()), 99);
        QCOMPARE(map->lookup(QStringLiteral("0000000013"))->type(), ArboEvent::Macro1);
        QCOMPARE(map->lookup(QStringLiteral("0000000013"))->value(), 0.75f);
        QVERIFY(asNote(map->lookup(QStringLiteral("0000000014"))));
        QCOMPARE(map->lookup(QString())->type(), ArboEvent::AllNotesOff);

        map->term();
        delete map;
        QCOMPARE(TestSupport::readFile(mapPath()), before);
        QCOMPARE(QFileInfo(mapPath()).lastModified(), modified);
    }

    void tagsIgnoreCase()
    {
        QVERIFY(copyData(QStringLiteral("case_duplicates.json")));
        RfidMap map;
        QVERIFY(map.init());
        // 04A1B2 and 04a1b2 are one tag: the later member (the lower-case one,
        // as the object orders its keys) wins.
        QCOMPARE(map.size(), 2);
        for (const char* tag : {"04a1b2", "04A1B2", "04a1B2"}) {
            const ArboEvent* event = map.lookup(QLatin1String(tag));
            QVERIFY2(event, tag);
            QCOMPARE(event->type(), ArboEvent::VoiceVolume);
            QCOMPARE(event->value(), 0.2f);
        }
        QVERIFY(asNote(map.lookup(QStringLiteral("abcdef0123"))));
        QVERIFY(!map.lookup(QStringLiteral("04a1b")));
        QVERIFY(!map.lookup(QString()));
    }

    void thousandsOfEntries()
    {
        const int COUNT = 5000;
        QJsonObject root;
        for (int i = 0; i < COUNT; ++i) {
            QJsonObject entry;
            if (i % 2 == 0) {
                entry.insert(QStringLiteral("event"), 0);
                entry.insert(QStringLiteral("value"),
                             i % 4 == 0 ? QStringLiteral("/3/-5") : QStringLiteral("/2/7/-11"));
            } else {
                entry.insert(QStringLiteral("event"), i % 25);
                entry.insert(QStringLiteral("value"), i * 0.5);
            }
            root.insert(QStringLiteral("TAG%1").arg(i, 6, 10, QLatin1Char('0')), entry);
        }
        QVERIFY(writeMap(QJsonDocument(root).toJson()));

        // One debug line per entry is of no interest here.
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
        RfidMap map;
        const bool loaded = map.init();
        QLoggingCategory::setFilterRules(QString());
        QVERIFY(loaded);
        QCOMPARE(map.size(), COUNT);
        for (int i = 0; i < COUNT; ++i) {
            const ArboEvent* event =
                map.lookup(QStringLiteral("tag%1").arg(i, 6, 10, QLatin1Char('0')));
            QVERIFY(event);
            if (i % 2 == 0) {
                QVERIFY(asNote(event));
            } else {
                QCOMPARE(int(event->type()), i % 25);
                QCOMPARE(event->value(), float(i * 0.5));
            }
        }
    }

    // What write() produces reads back to the same map.
    void writeReadsBack()
    {
        QVERIFY(writeMap(R"({"AB": {"event": 0, "value": "/2/-3"},
                             "cd": {"event": 10, "value": 7},
                             "Ef": {"event": 42, "value": -0.5}})"));
        RfidMap map;
        QVERIFY(map.init());
        QJsonObject json;
        map.write(json);
        QCOMPARE(json.keys(), (QStringList{"ab", "cd", "ef"}));
        QCOMPARE(json.value("ab").toObject().value("value").toString(), QStringLiteral("/2/-3"));
        QCOMPARE(json.value("ab").toObject().value("event").toInt(), 0);

        RfidMap copy;
        copy.read(json);
        QCOMPARE(copy.size(), 3);
        QCOMPARE(asNote(copy.lookup("AB"))->path(), ArboPath(QStringLiteral("/2/-3")));
        QCOMPARE(copy.lookup("cd")->type(), ArboEvent::PrimeToggle);
        QCOMPARE(copy.lookup("cd")->value(), 7.0f);
        QCOMPARE(int(copy.lookup("ef")->type()), 42);
        QCOMPARE(copy.lookup("ef")->value(), -0.5f);

        // Reading again replaces the whole map.
        copy.read(QJsonObject{{"zz", QJsonObject{{"event", 1}}}});
        QCOMPARE(copy.size(), 1);
        QVERIFY(!copy.lookup("ab"));
    }

    // The UDP listener owns its map on its own thread.
    void worksOnAnotherThread()
    {
        QVERIFY(writeMap(R"({"04A1B2": {"event": 8, "value": 1}})"));
        bool loaded = false;
        int type = -1;
        QThread* thread = QThread::create([&] {
            RfidMap map;
            loaded = map.init();
            if (const ArboEvent* event = map.lookup(QStringLiteral("04a1b2"))) {
                type = event->type();
            }
            map.term();
        });
        thread->start();
        QVERIFY(thread->wait(10000));
        delete thread;
        QVERIFY(loaded);
        QCOMPARE(type, int(ArboEvent::PatchStep));
    }
};

ARBO_TEST_MAIN(TestRfidMap)
#include "tst_rfidmap.moc"
