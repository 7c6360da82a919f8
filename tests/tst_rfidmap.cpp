#include "model/arbonoteevent.h"
#include "input/inputbinding.h"
#include "input/rfidmap.h"
#include "testsupport.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QLoggingCategory>

// The tag map as users write it by hand: real files in the isolated
// configuration folder, read through init() exactly as the UDP listener does.
// Nothing a file holds may crash the reader; the program never writes it.
class TestRfidMap : public QObject
{
    Q_OBJECT

private:
    static QString mapPath() { return TestSupport::configDir() + QStringLiteral("/rfid_map.json"); }

    // A note's path, or "type value" for any other event; empty for none.
    static QString describe(const ArboEvent* event)
    {
        const auto* note = dynamic_cast<const ArboNoteEvent*>(event);
        return !event ? QString()
               : note ? note->path().toString()
                      : QStringLiteral("%1 %2").arg(int(event->type())).arg(event->value());
    }

private slots:
    // One file with a member for each rule, under the keys "T00", "T01"...
    // (looked up in lower case): each member is read on its own, and a broken
    // one is skipped with a warning without disturbing the others.
    void entryRules()
    {
        const QString NOT_OBJECT =
            "is not mapped to an object with \"event\" and \"value\". Ignoring.";
        const QString NO_PATH =
            "asks for event %1, which needs a path (a \"value\" such as \"/3/-5\"). Ignoring.";
        const QString UNKNOWN = "asks for event %1, which is no command this program knows. "
                                "Ignoring.";
        const QVector<QPair<QByteArray, QString>> CASES = {
            // Not an object: skipped rather than read as a toggle of the root.
            {"7", NOT_OBJECT},
            {R"("/3")", NOT_OBJECT},
            {"null", NOT_OBJECT},
            // A text beginning with "/" makes a note toggle whatever "event" says.
            {R"({"event": 0, "value": "/3/-5"})", "/3/-5"},
            {R"({"event": 5, "value": "/2"})", "/2"},
            {R"({"value": "/"})", "/"},
            {R"({"value": "/3/3/3/3/3/3/3/3"})", "/3/3/3/3/3/3"}, // steps beyond six dropped
            {R"({"event": 0, "value": "/3/9"})", "was assigned invalid path /3/9. Ignoring."},
            {R"({"event": 2, "value": "/x"})", "was assigned invalid path /x. Ignoring."},
            {R"({"event": 2, "value": "/37"})", "was assigned invalid path /37. Ignoring."},
            // Plain events: anything but a number counts as 0.
            {R"({"event": 2, "value": -3})", "2 -3"},
            {R"({"event": 4, "value": " /3"})", "4 0"},
            {R"({"value": 0.25})", NO_PATH.arg(0)},
            {R"({"event": 1})", "1 0"},
            {R"({"event": "5", "value": true})", NO_PATH.arg(0)},
            // A note needs a path: without one it would sound the root.
            {R"({"event": 0})", NO_PATH.arg(0)},
            {R"({"event": 0, "value": ""})", NO_PATH.arg(0)},
            {R"({"event": 0, "value": 5})", NO_PATH.arg(0)},
            {R"({"event": 21, "value": 1})", NO_PATH.arg(21)},
            // Values that would silence or deafen the instrument.
            {R"({"event": 9, "value": 0})",
             "asks for event 9 with the value 0, which is no base frequency from 20 Hz to 20 kHz. "
             "Ignoring."},
            {R"({"event": 9, "value": 1e30})",
             "asks for event 9 with the value 1e+30, which is no base frequency from 20 Hz to 20 "
             "kHz. Ignoring."},
            {R"({"event": 9, "value": 432})", "9 432"},
            {R"({"event": 6, "value": 1e300})",
             "asks for event 6 with the value 3.40282e+38, which is no volume from 0 to 4. "
             "Ignoring."},
            {R"({"event": 12, "value": -0.5})",
             "asks for event 12 with the value -0.5, which is no macro value from 0 to 1. "
             "Ignoring."},
            {R"({"event": 3, "value": [0.5]})", "3 0"},
            {R"({"event": 11, "value": 0.75, "more": {"a": [true]}})", "11 0.75"},
            {R"({"event": 2.7, "value": 1})", "2 1"}, // truncated toward zero
            // Codes this program does not know, or keeps for itself.
            {R"({"event": -1.7, "value": 1})", UNKNOWN.arg(-1)},
            {R"({"event": 99, "value": 1})", UNKNOWN.arg(99)},
            {R"({"event": 19})", "asks for event 19, which is the program's own. Ignoring."},
            // Numbers beyond int and float saturate instead of overflowing.
            {R"({"event": 2147483648})", UNKNOWN.arg(2147483647)},
            {R"({"event": -1e300})", UNKNOWN.arg(-2147483647 - 1)},
            {R"({"event": 2, "value": 1e300})", "2 3.40282e+38"},
            {R"({"event": 2, "value": -1e300})", "2 -3.40282e+38"},
        };
        // The same tag in another case: the later member (as the object
        // orders its keys, upper case first) replaces the earlier one.
        QStringList members = {R"("DUP": {"event": 3, "value": 0.1})",
                               R"("dup": {"event": 4, "value": 0.2})"};
        int kept = 1;
        for (int i = 0; i < CASES.size(); ++i) {
            const QString key = QStringLiteral("T%1").arg(i, 2, 10, QChar('0'));
            members << QStringLiteral("\"%1\": %2").arg(key, QString::fromUtf8(CASES[i].first));
            if (CASES[i].second.endsWith("Ignoring.")) {
                QTest::ignoreMessage(QtWarningMsg,
                                     qPrintable("RFID " + key.toLower() + ' ' + CASES[i].second));
            } else {
                ++kept;
            }
        }
        const QByteArray file = "{" + members.join(",\n").toUtf8() + "}";
        QVERIFY(TestSupport::writeFile(mapPath(), file));
        auto* map = new RfidMap;
        QVERIFY(map->init());
        QCOMPARE(map->size(), kept);
        for (int i = 0; i < CASES.size(); ++i) {
            const QString expected = CASES[i].second.endsWith("Ignoring.") ? "" : CASES[i].second;
            const QString member = QString::fromUtf8(CASES[i].first) + " -> "; // says which failed
            QCOMPARE(member +
                         describe(map->lookup(QStringLiteral("t%1").arg(i, 2, 10, QChar('0')))),
                     member + expected);
        }
        QCOMPARE(describe(map->lookup("Dup")), QStringLiteral("4 0.2"));
        map->term();
        delete map;
        QCOMPARE(TestSupport::readFile(mapPath()), file);
    }

    // A file that is not a JSON document leaves the map empty and init()
    // false; a document that is no object reads as an empty map. The file
    // stays as it is.
    void unreadableFiles_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("initResult");
        const auto data = [](const char* name) {
            return TestSupport::readFile(TestSupport::dataDir() + "/rfid/" + name);
        };
        QTest::newRow("not JSON") << data("not_json.json") << false;
        QTest::newRow("empty") << data("empty.json") << false;
        QTest::newRow("truncated") << data("truncated.json") << false;
        QTest::newRow("binary") << data("binary.json") << false;
        QTest::newRow("number beyond double") << data("number_overflow.json") << false;
        QTest::newRow("nesting beyond the parser") << "{\"a\": " + QByteArray(200000, '[') << false;
        QTest::newRow("top-level array") << data("top_level_array.json") << true;
    }

    // Every command number from every kind of source: a tag of the map (the
    // wands and OSC's tag message read it) and an entry of the input map
    // (keys, MIDI, OSC addresses and OSC's event message read it). Both take
    // the commands a player may send bare, and never a note without its
    // path, the program's own patch commands or a number nobody knows.
    void everyCodeFromEverySource()
    {
        QSet<int> expected;
        for (int code = ArboEvent::AllNotesOff; code <= ArboEvent::Macro8; ++code) {
            expected.insert(code);
        }
        QStringList members;
        QSet<int> byInputMap;
        for (int code = -1; code <= ArboEvent::LAST_TYPE + 1; ++code) {
            const double value = code == ArboEvent::BaseFrequency ? 440.0 : 0.5;
            members << QStringLiteral("\"c%1\": {\"event\": %1, \"value\": %2}")
                           .arg(code)
                           .arg(value);
            QString why;
            if (InputBinding::fromJson(QJsonObject{{"event", code}, {"value", value}}, &why)
                    .isBound()) {
                byInputMap.insert(code);
            }
        }
        QVERIFY(TestSupport::writeFile(mapPath(), "{" + members.join(",").toUtf8() + "}"));
        QLoggingCategory::setFilterRules(QStringLiteral("default.warning=false"));
        RfidMap map;
        QVERIFY(map.init());
        QLoggingCategory::setFilterRules(QString());
        QSet<int> byTags;
        for (int code = -1; code <= ArboEvent::LAST_TYPE + 1; ++code) {
            if (map.lookup(QStringLiteral("c%1").arg(code))) {
                byTags.insert(code);
            }
        }
        QCOMPARE(byTags, expected);
        QCOMPARE(byInputMap, expected);
    }

    void unreadableFiles()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, initResult);
        QVERIFY(TestSupport::writeFile(mapPath(), content));
        if (!initResult) {
            QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("^Couldn't parse file "));
        }
        RfidMap map;
        QCOMPARE(map.init(), initResult);
        QCOMPARE(map.size(), 0);
        map.term();
        QCOMPARE(TestSupport::readFile(mapPath()), content);
    }
};

ARBO_TEST_MAIN(TestRfidMap)
#include "tst_rfidmap.moc"
