#include "model/arbo.h"
#include "settings/paths.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QDir>
#include <QJsonDocument>
#include <QLoggingCategory>

namespace {

QString latticeFile()
{
    return TestSupport::configDir() + QStringLiteral("/arbo_v15.json");
}

// Every node of the tree, the root first. Nodes are the QObject children of
// their parents, and a replaced child is deleted, so this also finds leaks.
QList<ArboBall*> nodesOf(const Arbo& arbo)
{
    return QList<ArboBall*>{arbo.root()} + arbo.root()->findChildren<ArboBall*>();
}

QJsonObject toJson(const Arbo& arbo)
{
    QJsonObject json;
    arbo.write(json);
    return json;
}

} // namespace

class TestLattice : public QObject
{
    Q_OBJECT
private slots:
    // The application creates the configuration folder at start-up.
    void initTestCase() { QVERIFY(QDir().mkpath(TestSupport::configDir())); }
    void init() { QDir().remove(latticeFile()); }

    void defaultLattice()
    {
        Arbo arbo;
        QVERIFY(arbo.init(nullptr));
        // The first run writes the file, as the lattice has it in memory.
        QCOMPARE(QJsonDocument::fromJson(TestSupport::readFile(latticeFile())).object(),
                 toJson(arbo));
        QCOMPARE(arbo.primeColors().size(), 13);

        // 19 trunk nodes of steps of 2 and 3, each with the 18 leaves of the
        // higher primes (so, by the count, leaves have none); ten links, each
        // to the node an octave above; every node keyed by its own ratio.
        static const QRegularExpression HIGH_STEP(QStringLiteral("/-?([5-9]|\\d\\d)"));
        const QList<ArboBall*> nodes = nodesOf(arbo);
        int trunk = 0;
        int links = 0;
        for (ArboBall* node : nodes) {
            QCOMPARE(arbo.ballFromRatio(ArboRatio::pathRatio(node->path())), node);
            for (auto it = node->links().constBegin(); it != node->links().constEnd();
                 ++it, ++links) {
                QCOMPARE(it.key(), 2);
                QCOMPARE(ArboRatio::pathRatio(it.value().mPath), node->ratio() * ArboRatio(2, 1));
            }
            if (!node->path().toString().contains(HIGH_STEP)) {
                ++trunk;
                for (int prime : {5, 7, 11, 13, 17, 19, 23, 29, 31}) {
                    QVERIFY(node->childAtPrime(prime) && node->childAtPrime(-prime));
                }
            }
        }
        QCOMPARE(trunk, 19);
        QCOMPARE(links, 10);
        QCOMPARE(nodes.size(), 19 + 19 * 18);
    }

    void saveLoadRoundTrip()
    {
        Arbo first;
        QVERIFY(first.init(nullptr));
        // Something the defaults do not have, so the file is really read back.
        first.root()->childAtPrime(3)->addLink(5, QStringLiteral("/3/5"));
        first.root()->childAtPrime(2)->addChild(
            -5, new ArboBall(ArboPath(QStringLiteral("/2/-5")), Qt::red, nullptr));
        first.buildBallMap();
        first.term(); // saves

        Arbo second;
        QVERIFY(second.init(nullptr));
        QCOMPARE(toJson(second), toJson(first)); // tree, links and colours
        QCOMPARE(second.ballMap().size(), first.ballMap().size());
        for (ArboBall* node : nodesOf(second)) {
            QCOMPARE(second.ballFromRatio(node->ratio())->path(),
                     first.ballFromRatio(node->ratio())->path());
        }
        // Colours come from the colour table on reading, not from the writer.
        QCOMPARE(second.root()->childAtPrime(2)->childAtPrime(-5)->color(), QColor(156, 4, 4));
    }

    void transposition()
    {
        Arbo arbo;
        QVERIFY(arbo.init(nullptr));
        ArboBall* fifth = arbo.root()->childAtPrime(3);
        ArboBall* ninth = fifth->childAtPrime(3);
        arbo.onNoteToggled(ArboRatio(9, 4), true);

        // Every node is keyed by the ratio it sounds now, and a sounding note
        // is shown on whichever node sounds it now.
        arbo.onTransposed(ArboRatio(3, 2), 3);
        QVERIFY(!ninth->isPlaying() && fifth->isPlaying());
        // A note keeps its identity (its ratio) whatever the transposition.
        const ArboRatio third(ArboPath(QStringLiteral("/5")), arbo.transposeSteps());
        QCOMPARE(third.toStringAbs(), QStringLiteral("15/8"));
        QCOMPARE(third, ArboRatio(5, 4));
        // Opposite steps cancel, whatever lies between them.
        arbo.onTransposed(ArboRatio(15, 8), 5);
        arbo.onTransposed(ArboRatio(5, 4), -3);
        QCOMPARE(arbo.transposeSteps(), QList<int>{5});
        QCOMPARE(fifth->absPathSteps(), (QList<int>{5, 3}));
        // 0 is back to none.
        arbo.onTransposed(ArboRatio(1, 1), 0);
        QVERIFY(arbo.transposeSteps().isEmpty());
        QCOMPARE(arbo.ballFromRatio(ArboRatio(3, 2)), fifth);
        QVERIFY(ninth->isPlaying() && !fifth->isPlaying());
        // A step that is no prime would spoil every absolute ratio.
        QTest::ignoreMessage(QtWarningMsg, "Transposition step 4 is no prime step; not recorded");
        arbo.onTransposed(ArboRatio(1, 1), 4);
        QVERIFY(arbo.transposeSteps().isEmpty());

        // The 1/1 must stay between 20 Hz and 20 kHz.
        QVERIFY(!arbo.canTransposeTo(ArboRatio(1, 32))); // 13.75 Hz
        QVERIFY(!arbo.canTransposeTo(ArboRatio(64, 1))); // 28160 Hz

        // A transposition near the edge of 64 bits, as a long series of wand
        // steps could make it: 3^39 / 2^61, about 1.76, so the frequency test
        // passes and only the exactness of the ratios can refuse. Nodes whose
        // ratio no longer fits are left out of the ball map, never keyed by a
        // wrapped-around ratio. (Each skip and refusal is logged; silenced.)
        QLoggingCategory::setFilterRules(
            QStringLiteral("default.warning=false\ndefault.debug=false"));
        const ArboRatio edge(4052555153018976267ULL, 1ULL << 61);
        arbo.onTransposed(edge, 0);
        QVERIFY(arbo.ballMap().size() > 1 && arbo.ballMap().size() < nodesOf(arbo).size());
        for (auto it = arbo.ballMap().constBegin(); it != arbo.ballMap().constEnd(); ++it) {
            const double factor = it.key().toDouble() / it.value()->ratio().toDouble();
            QVERIFY(qAbs(factor / edge.toDouble() - 1.0) < 1e-9);
        }
        // One more 3 would make the /3 node's ratio 3^41; 27/16 overflows the
        // transposition itself. Down is fine.
        QVERIFY(!arbo.canTransposeTo(ArboRatio(3, 2)));
        QVERIFY(!arbo.canTransposeTo(ArboRatio(27, 16)));
        QVERIFY(arbo.canTransposeTo(ArboRatio(2, 3)));
        QLoggingCategory::setFilterRules(QString());
        // Written so that a NaN base frequency refuses too.
        arbo.onBaseFrequencyChanged(std::numeric_limits<float>::quiet_NaN());
        QVERIFY(!arbo.canTransposeTo(ArboRatio(2, 3)));
    }

    void primeEnabling()
    {
        Arbo arbo;
        QVERIFY(arbo.init(nullptr));
        const QList<ArboBall*> nodes = nodesOf(arbo);
        int changes = 0;
        for (ArboBall* node : nodes) {
            connect(node, &ArboBall::enabledChanged, this, [&changes] { ++changes; });
        }
        // Exactly the two leaves of 5 on each trunk node, one signal each.
        arbo.onPrimeEnabledToggled(5, false);
        QCOMPARE(changes, 19 * 2);
        for (ArboBall* node : nodes) {
            QCOMPARE(node->isEnabled(),
                     !node->path().toString().contains(QRegularExpression("/-?5$")));
        }
        // The 3-branches go with their whole subtrees, leaves included;
        // switched on again, those leaves of 5 come back, the others stay off.
        arbo.onPrimeEnabledToggled(3, false);
        QVERIFY(!arbo.root()->childAtPrime(2)->childAtPrime(3)->isEnabled());
        arbo.onPrimeEnabledToggled(3, true);
        QVERIFY(arbo.root()->childAtPrime(3)->childAtPrime(5)->isEnabled());
        QVERIFY(!arbo.root()->childAtPrime(2)->childAtPrime(5)->isEnabled());
        // Prime 1 is the whole lattice.
        arbo.onPrimeEnabledToggled(1, false);
        QVERIFY(!arbo.root()->isEnabled() && !nodes.last()->isEnabled());
        arbo.onPrimeEnabledToggled(1, true);
        QVERIFY(arbo.root()->childAtPrime(2)->childAtPrime(5)->isEnabled());
    }

    void followsThePlayer()
    {
        PdPlayer player;
        Arbo arbo;
        QVERIFY(arbo.init(&player));
        // The player emits on the audio thread: queued, nothing happens until
        // the event loop runs.
        emit player.transposed(ArboRatio(3, 2), 3);
        emit player.noteToggled(ArboRatio(9, 4), true);
        emit player.baseFrequencyChanged(220.0f);
        emit player.primeEnabledToggled(7, false);
        QVERIFY(arbo.transposeSteps().isEmpty());
        QTRY_VERIFY(!arbo.root()->childAtPrime(-7)->isEnabled());
        QCOMPARE(arbo.transposeSteps(), QList<int>{3});
        QCOMPARE(arbo.baseFrequency(), 220.0f);
        QVERIFY(arbo.root()->childAtPrime(3)->isPlaying());
    }

    void hostileFiles_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<bool>("loads");
        // Each skip is logged ("Lattice file: "), an unparsable file once.
        QTest::addColumn<int>("messages");
        QTest::addColumn<int>("nodes");
        QTest::addColumn<QByteArray>("written"); // as compact JSON; empty: not checked

        auto row = [](const char* name, const QByteArray& contents, bool loads, int messages,
                      int nodes, const QByteArray& written) {
            QTest::newRow(name) << contents << loads << messages << nodes << written;
        };
        auto file = [](const char* name) {
            return TestSupport::readFile(TestSupport::dataDir() + "/lattice/" + name);
        };
        auto nested = [](const QByteArray& level, int count) {
            return R"({"root": )" + level.repeated(count) + "{}" +
                   QByteArray("}").repeated(level.count('{') * count) + "}";
        };
        const QByteArray bare = R"({"colors":[],"root":{}})";
        row("not JSON", file("not_json.json"), false, 1, 1, bare);
        row("empty", file("empty.json"), false, 1, 1, bare);
        row("top-level array", file("top_level_array.json"), true, 0, 1, bare);
        row("wrong types", file("wrong_types.json"), true, 2, 1, bare);
        // Only the well-formed colours count; a fractional prime is truncated.
        row("bad colours", file("bad_colors.json"), true, 9, 4,
            R"({"colors":[{"color":"#123456","prime":7},{"color":"#abcdef","prime":11}],)"
            R"("root":{"children":{"-13":{},"11":{},"7":{}}}})");
        // Keys that are no numbers (and the number too large for an int) read
        // as step 0: the child has its parent's path and replaces the one
        // before. Numbers that are no prime steps go with their subtrees.
        row("bad children", file("bad_children.json"), true, 5, 8,
            R"({"colors":[{"color":"#b7b7b7","prime":0},{"color":"#5173b6","prime":3}],)"
            R"("root":{"children":{"0":{"children":{"-3":{}}},"2":{},)"
            R"("3":{"children":{"-3":{},"0":{"children":{"5":{}}}}}}}})");
        // A link to a node that does not exist is kept: it is only a path.
        row("bad links", file("bad_links.json"), true, 4, 2,
            R"({"colors":[],"root":{"children":{"3":{"links":{"0":"/-3","2":"/3/3/3/3/3"}}},)"
            R"("links":{"2":"/2/3/5/7/11/13"}}})");
        // Paths stop at six steps; the largest ratio, 31^6 / 16^6, is exact.
        row("31 nested past six", file("deep_primes.json"), true, 0, 16, {});
        // Far beyond what the JSON reader accepts: refused, no stack overflow.
        row("10000 deep", nested(R"({"children": {"3": )", 10000), false, 1, 1, bare);
        row("500 deep", nested(R"({"children": {"3": {"children": {"-2": )", 250), true, 0, 501,
            {});
        // Thousands of keys that are no numbers all land on step 0; keys that
        // spell the same number replace each other too.
        QByteArray wide = R"({"root": {"children": {"3": {}, "03": {}, "+3": {})";
        for (int i = 0; i < 20000; ++i) {
            wide += ", \"n" + QByteArray::number(i) + "\": {}";
        }
        row("20000 wide", wide + "}}}", true, 0, 3,
            R"({"colors":[],"root":{"children":{"0":{},"3":{}}}})");
    }

    void hostileFiles()
    {
        QFETCH(QByteArray, contents);
        QFETCH(bool, loads);
        QFETCH(int, messages);
        QFETCH(int, nodes);
        QFETCH(QByteArray, written);

        QVERIFY(TestSupport::writeFile(latticeFile(), contents));
        for (int i = 0; i < messages; ++i) {
            QTest::ignoreMessage(loads ? QtWarningMsg : QtCriticalMsg,
                                 QRegularExpression("^(Lattice file: |Couldn't parse file )"));
        }
        Arbo arbo;
        QCOMPARE(arbo.init(nullptr), loads);
        QCOMPARE(TestSupport::readFile(latticeFile()), contents); // nothing written before a save
        QCOMPARE(nodesOf(arbo).size(), nodes);
        if (!written.isEmpty()) {
            QCOMPARE(QJsonDocument(toJson(arbo)).toJson(QJsonDocument::Compact), written);
        }
        // Whatever was read can be played with, written and read back the same.
        arbo.onPrimeEnabledToggled(3, false);
        arbo.onTransposed(ArboRatio(3, 2), 3);
        QVERIFY(arbo.canTransposeTo(ArboRatio(3, 2)));
        arbo.term();
        Arbo again;
        QVERIFY(again.init(nullptr));
        QCOMPARE(toJson(again), toJson(arbo));
    }
};

ARBO_TEST_MAIN(TestLattice)
#include "tst_lattice.moc"
