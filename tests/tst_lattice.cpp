#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboratio.h"
#include "settings/appcontext.h"
#include "sound/pdplayer.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QPointer>
#include <QSignalSpy>

#include <functional>

Q_DECLARE_METATYPE(QList<int>)

namespace {

QString latticeFile()
{
    return TestSupport::configDir() + QStringLiteral("/arbo_v15.json");
}

void forEachNode(ArboBall* node, const std::function<void(ArboBall*)>& visit)
{
    visit(node);
    for (ArboBall* child : node->children()) {
        forEachNode(child, visit);
    }
}

int countNodes(ArboBall* root)
{
    int count = 0;
    forEachNode(root, [&](ArboBall*) { ++count; });
    return count;
}

bool isTrunkPath(const ArboPath& path)
{
    for (int step : path.toList()) {
        if (std::abs(step) > 3) {
            return false;
        }
    }
    return true;
}

// The tree as lines "child keys from the root => node path", in key order, so
// that a test can state a whole tree at once.
QStringList treeLines(const ArboBall* node, const QString& keys = QString())
{
    QStringList lines{(keys.isEmpty() ? QStringLiteral("/") : keys) + QStringLiteral(" => ") +
                      node->path().toString()};
    for (auto it = node->children().constBegin(); it != node->children().constEnd(); ++it) {
        lines += treeLines(it.value(), keys + QLatin1Char('/') + QString::number(it.key()));
    }
    return lines;
}

// The ball map as lines "ratio => node path", sorted.
QStringList ballMapLines(const Arbo& arbo)
{
    QStringList lines;
    for (auto it = arbo.ballMap().constBegin(); it != arbo.ballMap().constEnd(); ++it) {
        lines.append(it.key().toString() + QStringLiteral(" => ") + it.value()->path().toString());
    }
    lines.sort();
    return lines;
}

QJsonObject toJson(const Arbo& arbo)
{
    QJsonObject json;
    arbo.write(json);
    return json;
}

// Silences the lines a hostile file is expected to cause, so the test output
// shows only what is unexpected.
void ignoreLatticeWarnings(int count)
{
    for (int i = 0; i < count; ++i) {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Lattice file: ")));
    }
}

// Collects the messages logged while it lives.
class MessageCatcher
{
public:
    MessageCatcher()
    {
        sCurrent = this;
        mPrevious = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext&, const QString& message) {
                sCurrent->mMessages.append(message);
            });
    }
    ~MessageCatcher()
    {
        qInstallMessageHandler(mPrevious);
        sCurrent = nullptr;
    }
    QStringList mMessages;

private:
    static MessageCatcher* sCurrent;
    QtMessageHandler mPrevious;
};
MessageCatcher* MessageCatcher::sCurrent = nullptr;

// Registers a lattice for the absolute ratios while it lives.
class RegisteredLattice
{
public:
    explicit RegisteredLattice(Arbo* arbo) { AppContext::setLattice(arbo); }
    ~RegisteredLattice() { AppContext::setLattice(nullptr); }
};

} // namespace

class TestLattice : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();

    void ballFlagsAndSignals();
    void ballJson();
    void absoluteSteps_data();
    void absoluteSteps();

    void defaultLattice();
    void saveLoadRoundTrip();
    void transposition();
    void absoluteRatioFollowsTransposition();
    void canTransposeTo();
    void overflowingTransposition();
    void primeEnabling();
    void followsThePlayer();

    void unreadableFiles_data();
    void unreadableFiles();
    void wrongTypes();
    void badColors();
    void badChildren();
    void badLinks();
    void deepAndWideTrees();
};

void TestLattice::initTestCase()
{
    qRegisterMetaType<ArboPath>("ArboPath");
    qRegisterMetaType<ArboRatio>("ArboRatio");
    // The application creates the configuration folder at start-up.
    QVERIFY(QDir().mkpath(TestSupport::configDir()));
}

void TestLattice::init()
{
    QFile::remove(latticeFile());
    AppContext::setLattice(nullptr);
}

void TestLattice::ballFlagsAndSignals()
{
    ArboBall root(ArboPath(), Qt::white, nullptr);
    QVERIFY(!root.isPlaying());
    QVERIFY(root.isEnabled());
    QCOMPARE(root.childAtPrime(3), nullptr);

    QSignalSpy playing(&root, &ArboBall::playingChanged);
    root.setPlaying(false);
    QCOMPARE(playing.count(), 0);
    root.setPlaying(true);
    root.setPlaying(true);
    QCOMPARE(playing.count(), 1);
    root.togglePlaying();
    root.togglePlaying();
    QCOMPARE(playing.count(), 3);
    QCOMPARE(playing.at(1).at(0).toBool(), false);
    QCOMPARE(playing.at(2).at(0).toBool(), true);
    QVERIFY(root.isPlaying());

    // root -> 3 -> 3/3, root -> -3. Disabling emits once per node, deepest
    // first.
    auto* up = new ArboBall(ArboPath(QStringLiteral("/3")), Qt::blue, &root);
    root.addChild(3, up);
    auto* upUp = new ArboBall(ArboPath(QStringLiteral("/3/3")), Qt::blue, up);
    up->addChild(3, upUp);
    auto* down = new ArboBall(ArboPath(QStringLiteral("/-3")), Qt::blue, &root);
    root.addChild(-3, down);
    QCOMPARE(root.childAtPrime(-3), down);

    QStringList order;
    for (ArboBall* node : {&root, up, upUp, down}) {
        connect(node, &ArboBall::enabledChanged, this,
                [&order, node](bool) { order.append(node->path().toString()); });
    }
    root.setEnabled(false);
    QCOMPARE(order, (QStringList{"/-3", "/3/3", "/3", "/"}));
    order.clear();
    up->setEnabled(false); // its subtree is already disabled
    QVERIFY(order.isEmpty());
    root.setEnabled(true);
    QCOMPARE(order.size(), 4);
    QVERIFY(upUp->isEnabled());

    // A child stored under a taken step replaces the earlier one, which goes
    // with its subtree.
    QPointer<ArboBall> oldUp = up;
    QPointer<ArboBall> oldUpUp = upUp;
    auto* newUp = new ArboBall(ArboPath(QStringLiteral("/3")), Qt::red, nullptr);
    root.addChild(3, newUp);
    QCOMPARE(newUp->parent(), &root);
    QVERIFY(oldUp.isNull());
    QVERIFY(oldUpUp.isNull());
    QCOMPARE(root.childAtPrime(3), newUp);
    QCOMPARE(root.children().size(), 2);
}

void TestLattice::ballJson()
{
    ArboBall root(ArboPath(), Qt::white, nullptr);
    QJsonObject empty;
    root.write(empty);
    QVERIFY(empty.isEmpty());

    const QJsonObject json = QJsonDocument::fromJson(R"({
        "children": {"-2": {}, "3": {"children": {"5": {}}}},
        "links": {"2": "/2/3"}
    })")
                                 .object();
    root.read(json);
    QCOMPARE(treeLines(&root), (QStringList{"/ => /", "/-2 => /-2", "/3 => /3", "/3/5 => /3/5"}));
    QCOMPARE(root.links().size(), 1);
    QCOMPARE(root.links().value(2).mPath, ArboPath(QStringLiteral("/2/3")));
    // No lattice: every colour is white.
    QCOMPARE(root.childAtPrime(3)->color(), QColor(Qt::white));

    QJsonObject written;
    root.write(written);
    QCOMPARE(written, json);
    // Leaves write "children" with empty objects and no "links".
    QJsonObject leaf;
    root.childAtPrime(-2)->write(leaf);
    QVERIFY(leaf.isEmpty());
    QJsonObject parentOfLeaves;
    root.childAtPrime(3)->write(parentOfLeaves);
    QCOMPARE(parentOfLeaves, QJsonDocument::fromJson(R"({"children": {"5": {}}})").object());
}

void TestLattice::absoluteSteps_data()
{
    QTest::addColumn<QList<int>>("transposition");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QList<int>>("absolute");
    QTest::addColumn<int>("last");
    QTest::addColumn<int>("highest");

    QTest::newRow("root") << QList<int>() << "/" << QList<int>() << 1 << 1;
    QTest::newRow("trunk") << QList<int>() << "/3/-2" << QList<int>{3, -2} << 3 << 3;
    QTest::newRow("octave") << QList<int>() << "/-2/-2" << QList<int>{-2, -2} << 2 << 2;
    QTest::newRow("leaf") << QList<int>() << "/3/5" << QList<int>{3, 5} << 32 << 32;
    QTest::newRow("back to the root") << QList<int>{3} << "/-3" << QList<int>() << 1 << 1;
    QTest::newRow("transposed by 5") << QList<int>{5} << "/3" << QList<int>{5, 3} << 3 << 5;
    QTest::newRow("only high") << QList<int>{5, 7} << "/" << QList<int>{5, 7} << 7 << 7;
    QTest::newRow("leaf cancelled") << QList<int>{5} << "/-5" << QList<int>() << 1 << 1;
    QTest::newRow("leaf on transposed") << QList<int>{5, 5} << "/-5" << QList<int>{5} << 32 << 32;
    QTest::newRow("mixed") << QList<int>{-3, 7} << "/3/3/2" << QList<int>{7, 3, 2} << 3 << 7;
}

void TestLattice::absoluteSteps()
{
    QFETCH(QList<int>, transposition);
    QFETCH(QString, path);
    QFETCH(QList<int>, absolute);
    QFETCH(int, last);
    QFETCH(int, highest);

    Arbo arbo;
    for (int step : transposition) {
        arbo.onTransposed(ArboRatio(1, 1), step); // the steps matter here, not the ratio
    }
    QCOMPARE(arbo.transposeSteps(), transposition);
    auto* node = new ArboBall(ArboPath(path), Qt::white, arbo.root());
    arbo.root()->addChild(7, node);
    QCOMPARE(node->absPathSteps(), absolute);
    QCOMPARE(node->lastAbsStep(), last);
    QCOMPARE(node->highestAbsStep(), highest);
}

void TestLattice::defaultLattice()
{
    Arbo arbo;
    QTest::ignoreMessage(
        QtDebugMsg, QRegularExpression(QStringLiteral("^Arbo::initWithDefaults - mPrimeColors: "
                                                      "QMap\\(\\(0, QColor\\(ARGB 1, 0.717")));
    QVERIFY(arbo.init(nullptr));
    QVERIFY(QFile::exists(latticeFile()));
    QCOMPARE(arbo.path(), latticeFile());

    // Thirteen colours, in the file as well.
    const QMap<int, QColor>& colors = arbo.primeColors();
    QCOMPARE(colors.keys(), (QList<int>{0, 1, 2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31}));
    QCOMPARE(colors.value(0), QColor(183, 183, 183));
    QCOMPARE(colors.value(3), QColor(81, 115, 182));
    QCOMPARE(colors.value(31), QColor(42, 157, 123));
    const QJsonObject file = QJsonDocument::fromJson(TestSupport::readFile(latticeFile())).object();
    QCOMPARE(file.value(QStringLiteral("colors")).toArray().size(), 13);
    QCOMPARE(file.value(QStringLiteral("colors")).toArray().at(4).toObject(),
             QJsonDocument::fromJson(R"({"prime": 5, "color": "#9c0404"})").object());
    QCOMPARE(file, toJson(arbo));

    // 19 trunk nodes of steps of 2 and 3, each with 18 leaves that have none.
    QStringList trunk;
    int leaves = 0;
    forEachNode(arbo.root(), [&](ArboBall* node) {
        // Every node's path is its parent's plus its key, coloured by that key.
        if (node != arbo.root()) {
            auto* parent = qobject_cast<ArboBall*>(node->parent());
            QVERIFY(parent);
            const int key = parent->children().key(node);
            ArboPath expected = parent->path();
            expected.addLeaf(static_cast<signed char>(key));
            QCOMPARE(node->path(), expected);
            QCOMPARE(node->color(), arbo.lookupColor(key));
        }
        if (!isTrunkPath(node->path())) {
            ++leaves;
            QVERIFY(node->children().isEmpty());
            return;
        }
        trunk.append(node->path().toString());
        int nodeLeaves = 0;
        for (int prime : {5, 7, 11, 13, 17, 19, 23, 29, 31}) {
            nodeLeaves +=
                (node->childAtPrime(prime) ? 1 : 0) + (node->childAtPrime(-prime) ? 1 : 0);
        }
        QCOMPARE(nodeLeaves, 18);
    });
    trunk.sort();
    QCOMPARE(trunk, (QStringList{"/", "/-2", "/-2/-2", "/-2/-2/3", "/-2/-2/3/3", "/-2/-3", "/-2/3",
                                 "/-2/3/3", "/-3", "/-3/-3", "/-3/-3/-3", "/2", "/2/-3", "/2/-3/-3",
                                 "/2/-3/-3/-3", "/2/3", "/2/3/3", "/3", "/3/3"}));
    QCOMPARE(leaves, 19 * 18);
    QCOMPARE(arbo.root()->color(), Arbo::WHITE);
    QCOMPARE(arbo.root()->childAtPrime(-7)->color(), QColor(40, 56, 208));

    // The links: octave struts, all under prime 2.
    QStringList links;
    forEachNode(arbo.root(), [&](ArboBall* node) {
        for (auto it = node->links().constBegin(); it != node->links().constEnd(); ++it) {
            QCOMPARE(it.key(), 2);
            QCOMPARE(it.value().mColor, QColor(91, 91, 91));
            links.append(node->path().toString() + QStringLiteral(" -> ") +
                         it.value().mPath.toString());
        }
    });
    links.sort();
    QCOMPARE(links,
             (QStringList{"/-2/-2/3 -> /-2/3", "/-2/-2/3/3 -> /-2/3/3", "/-2/-3 -> /-3",
                          "/-2/3 -> /3", "/-2/3/3 -> /3/3", "/-3 -> /2/-3", "/-3/-3 -> /2/-3/-3",
                          "/-3/-3/-3 -> /2/-3/-3/-3", "/3 -> /2/3", "/3/3 -> /2/3/3"}));

    // Every node sounds its own ratio; no two share one in the default tree.
    QCOMPARE(arbo.ballMap().size(), 19 + 19 * 18);
    forEachNode(arbo.root(), [&](ArboBall* node) {
        QCOMPARE(arbo.ballFromRatio(ArboRatio::pathRatio(node->path())), node);
    });
    QCOMPARE(arbo.ballFromRatio(ArboRatio(3, 2)), arbo.root()->childAtPrime(3));
    QCOMPARE(arbo.ballFromRatio(ArboRatio(7, 5)), nullptr);
}

void TestLattice::saveLoadRoundTrip()
{
    Arbo first;
    QVERIFY(first.init(nullptr));
    // Something the defaults do not have, so the file is really read back.
    first.root()->childAtPrime(3)->addLink(5, QStringLiteral("/3/5"));
    first.root()->childAtPrime(2)->addChild(
        -5, new ArboBall(ArboPath(QStringLiteral("/2/-5")), Qt::red, nullptr));
    first.buildBallMap();
    first.term(); // saves
    const QByteArray saved = TestSupport::readFile(latticeFile());

    Arbo second;
    QVERIFY(second.init(nullptr));
    QCOMPARE(treeLines(second.root()), treeLines(first.root()));
    QCOMPARE(second.primeColors(), first.primeColors());
    QCOMPARE(ballMapLines(second), ballMapLines(first));
    QCOMPARE(toJson(second), toJson(first));
    QCOMPARE(second.root()->childAtPrime(3)->links().value(5).mColor, QColor(156, 4, 4));
    // Colours come from the colour table on reading, not from the writer.
    QCOMPARE(second.root()->childAtPrime(2)->childAtPrime(-5)->color(), QColor(156, 4, 4));

    second.term();
    QCOMPARE(TestSupport::readFile(latticeFile()), saved);
    // Indented JSON, one key per line.
    QVERIFY(saved.contains("\n    \"colors\": [\n"));

    // With saving switched off, term() leaves the file alone.
    Arbo third;
    QVERIFY(third.init(nullptr));
    third.root()->addLink(3, QStringLiteral("/3"));
    third.setSaveOnTerm(false);
    third.term();
    QCOMPARE(TestSupport::readFile(latticeFile()), saved);
}

void TestLattice::transposition()
{
    Arbo arbo;
    QVERIFY(arbo.init(nullptr));
    QSignalSpy changed(&arbo, &Arbo::transposeOrBaseFrequencyChanged);
    const QStringList untransposed = ballMapLines(arbo);

    arbo.onTransposed(ArboRatio(3, 2), 3);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(arbo.transposeSteps(), QList<int>{3});
    QCOMPARE(arbo.transposition(), ArboRatio(3, 2));
    forEachNode(arbo.root(), [&](ArboBall* node) {
        QCOMPARE(arbo.ballFromRatio(ArboRatio(3, 2) * ArboRatio::pathRatio(node->path())), node);
    });

    arbo.onTransposed(ArboRatio(1, 1), -3);
    QVERIFY(arbo.transposeSteps().isEmpty());
    QCOMPARE(ballMapLines(arbo), untransposed);

    // Opposite steps cancel, whatever lies between them.
    arbo.onTransposed(ArboRatio(3, 2), 3);
    arbo.onTransposed(ArboRatio(15, 8), 5);
    arbo.onTransposed(ArboRatio(15, 4), 2);
    arbo.onTransposed(ArboRatio(5, 2), -3);
    QCOMPARE(arbo.transposeSteps(), (QList<int>{5, 2}));
    arbo.onTransposed(ArboRatio(1, 1), 0); // back to none, whatever was there
    QVERIFY(arbo.transposeSteps().isEmpty());
    QCOMPARE(ballMapLines(arbo), untransposed);

    // A step that is no prime is not recorded (it would spoil the absolute
    // ratios); the ratio, which the engine owns, is still taken.
    QTest::ignoreMessage(QtWarningMsg, "Transposition step 4 is no prime step; not recorded");
    arbo.onTransposed(ArboRatio(1, 1), 4);
    QVERIFY(arbo.transposeSteps().isEmpty());
    QCOMPARE(changed.count(), 8);

    // Base frequency: a signal only on change.
    arbo.onBaseFrequencyChanged(440.0f);
    QCOMPARE(changed.count(), 8);
    arbo.onBaseFrequencyChanged(261.6f);
    QCOMPARE(arbo.baseFrequency(), 261.6f);
    QCOMPARE(changed.count(), 9);

    // A sounding note stays shown on whichever node sounds it now.
    ArboBall* fifth = arbo.root()->childAtPrime(3);
    ArboBall* ninth = fifth->childAtPrime(3);
    arbo.onNoteToggled(ArboRatio(9, 4), true);
    QVERIFY(ninth->isPlaying());
    arbo.onTransposed(ArboRatio(3, 2), 3);
    QVERIFY(!ninth->isPlaying());
    QVERIFY(fifth->isPlaying());
    // Moved off the tree: still sounding, shown nowhere.
    arbo.onTransposed(ArboRatio(64, 1), 0);
    QVERIFY(arbo.playingRatios().contains(ArboRatio(9, 4)));
    int playing = 0;
    forEachNode(arbo.root(), [&](ArboBall* node) { playing += node->isPlaying() ? 1 : 0; });
    QCOMPARE(playing, 0);
    arbo.onTransposed(ArboRatio(1, 1), 0);
    QVERIFY(ninth->isPlaying());
    arbo.onNoteToggled(ArboRatio(9, 4), false);
    QVERIFY(!ninth->isPlaying());
    QVERIFY(arbo.playingRatios().isEmpty());
    arbo.onNoteToggled(ArboRatio(7, 5), true); // no node: only the set changes
    QCOMPARE(arbo.playingRatios().size(), 1);
}

void TestLattice::absoluteRatioFollowsTransposition()
{
    Arbo arbo;
    QVERIFY(arbo.init(nullptr));
    RegisteredLattice registered(&arbo);
    const ArboPath third(QStringLiteral("/5"));
    QCOMPARE(ArboRatio(third).toStringAbs(), QStringLiteral("5/4"));

    arbo.onTransposed(ArboRatio(3, 2), 3);
    const ArboRatio transposed(third);
    QCOMPARE(transposed.toString(), QStringLiteral("5/4"));
    QCOMPARE(transposed.toStringAbs(), QStringLiteral("15/8"));
    QCOMPARE(transposed, ArboRatio(5, 4)); // identity ignores the transposition
    QCOMPARE(qHash(transposed), qHash(ArboRatio(5, 4)));
    QCOMPARE(third.toRatio().toStringAbs(), QStringLiteral("15/8"));

    arbo.onTransposed(ArboRatio(3, 4), -2);
    QCOMPARE(ArboRatio(ArboPath(QStringLiteral("/-3"))).toStringAbs(), QStringLiteral("1/2"));

    // Nodes read the same steps.
    QCOMPARE(arbo.root()->childAtPrime(-3)->absPathSteps(), QList<int>{-2});
}

void TestLattice::canTransposeTo()
{
    Arbo arbo;
    QVERIFY(arbo.init(nullptr));
    QVERIFY(!arbo.canTransposeTo(ArboRatio(1, 32))); // 13.75 Hz
    QVERIFY(arbo.canTransposeTo(ArboRatio(32, 1)));  // 14080 Hz
    QVERIFY(!arbo.canTransposeTo(ArboRatio(64, 1))); // 28160 Hz
    QVERIFY(arbo.canTransposeTo(ArboRatio(1, 16)));  // 27.5 Hz
    QVERIFY(arbo.canTransposeTo(ArboRatio(3, 2)));

    arbo.onBaseFrequencyChanged(20.0f);
    QVERIFY(arbo.canTransposeTo(ArboRatio(1, 1)));
    QVERIFY(!arbo.canTransposeTo(ArboRatio(2, 3)));
    arbo.onBaseFrequencyChanged(std::numeric_limits<float>::quiet_NaN());
    QVERIFY(!arbo.canTransposeTo(ArboRatio(1, 1)));
    arbo.onBaseFrequencyChanged(440.0f);

    // After a transposition the range counts from the transposed 1/1.
    arbo.onTransposed(ArboRatio(32, 1), 2);
    QVERIFY(!arbo.canTransposeTo(ArboRatio(2, 1)));
    QVERIFY(arbo.canTransposeTo(ArboRatio(1, 2)));
}

void TestLattice::overflowingTransposition()
{
    // A transposition near the edge of 64 bits, as a long series of wand
    // steps could make it: 3^39 / 2^61, about 1.76, so the 1/1 sounds at
    // 773 Hz and the frequency test passes.
    const unsigned long long pow3_39 = 4052555153018976267ULL;
    const ArboRatio edge(pow3_39, 1ULL << 61);
    Arbo arbo;
    QVERIFY(arbo.init(nullptr));
    const int nodes = countNodes(arbo.root());

    // Nodes whose ratio no longer fits are left out of the ball map, each
    // with a log line, never keyed by a wrapped-around ratio.
    {
        MessageCatcher catcher;
        arbo.onTransposed(edge, 0);
        QVERIFY(
            catcher.mMessages.contains(QStringLiteral("Ball map: skipped the node /3/3 (its ratio "
                                                      "under the transposition %1 does not fit "
                                                      "in 64 bits)")
                                           .arg(edge.toString())));
        QCOMPARE(catcher.mMessages.size(), nodes - arbo.ballMap().size());
    }
    QVERIFY(arbo.ballMap().size() < nodes);
    QVERIFY(arbo.ballMap().size() > 1);
    for (auto it = arbo.ballMap().constBegin(); it != arbo.ballMap().constEnd(); ++it) {
        QCOMPARE(it.key(), edge * ArboRatio::pathRatio(it.value()->path()));
        QVERIFY(qAbs(it.key().toDouble() -
                     edge.toDouble() * ArboRatio::pathRatio(it.value()->path()).toDouble()) <
                1e-9 * it.key().toDouble());
    }
    QCOMPARE(arbo.ballFromRatio(edge), arbo.root());
    QCOMPARE(arbo.ballFromRatio(edge * ArboRatio(9, 4)), nullptr);

    // One more 3 would make the /3 node's ratio 3^41: refused, with the reason.
    QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("^canMultiply fail on ")));
    QTest::ignoreMessage(
        QtDebugMsg,
        QRegularExpression(QStringLiteral("^canTransposeTo fail on %1 to 3/2:\n  ball: \\S+ at "
                                          "\\d+/\\d+ can't be played$")
                               .arg(edge.toString())));
    QVERIFY(!arbo.canTransposeTo(ArboRatio(3, 2)));

    // The transposition itself overflowing is refused as well.
    QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("^canMultiply fail on ")));
    QVERIFY(!arbo.canTransposeTo(ArboRatio(27, 16)));
    // Downwards the ratios shrink: allowed.
    QVERIFY(arbo.canTransposeTo(ArboRatio(2, 3)));
}

void TestLattice::primeEnabling()
{
    Arbo arbo;
    QVERIFY(arbo.init(nullptr));
    int changes = 0;
    forEachNode(arbo.root(), [&](ArboBall* node) {
        connect(node, &ArboBall::enabledChanged, this, [&changes] { ++changes; });
    });
    const auto enabledPaths = [&arbo](bool enabled) {
        QStringList paths;
        forEachNode(arbo.root(), [&](ArboBall* node) {
            if (node->isEnabled() == enabled) {
                paths.append(node->path().toString());
            }
        });
        return paths;
    };

    arbo.onPrimeEnabledToggled(5, false);
    QCOMPARE(changes, 19 * 2);
    for (const QString& path : enabledPaths(false)) {
        const QList<int> steps = ArboPath(path).toList();
        QVERIFY2(std::abs(steps.constLast()) == 5, qPrintable(path));
    }
    QCOMPARE(enabledPaths(false).size(), 19 * 2);
    QVERIFY(arbo.root()->childAtPrime(3)->isEnabled());
    QVERIFY(arbo.root()->childAtPrime(7)->isEnabled());

    arbo.onPrimeEnabledToggled(3, false); // the 3-branches of the trunk, with their leaves
    QVERIFY(!arbo.root()->childAtPrime(-3)->childAtPrime(-3)->childAtPrime(7)->isEnabled());
    QVERIFY(arbo.root()->childAtPrime(2)->isEnabled());
    QVERIFY(!arbo.root()->childAtPrime(2)->childAtPrime(3)->isEnabled());
    // Switching a prime on passes down whole subtrees: the leaves of 5 below
    // the 3-branches come back with them, those elsewhere stay off.
    arbo.onPrimeEnabledToggled(3, true);
    QVERIFY(arbo.root()->childAtPrime(3)->childAtPrime(5)->isEnabled());
    QVERIFY(!arbo.root()->childAtPrime(2)->childAtPrime(5)->isEnabled());

    arbo.onPrimeEnabledToggled(1, false);
    QVERIFY(enabledPaths(true).isEmpty());
    arbo.onPrimeEnabledToggled(1, true);
    QVERIFY(enabledPaths(false).isEmpty());
    arbo.onPrimeEnabledToggled(5, true); // already on: nothing
    QVERIFY(enabledPaths(false).isEmpty());
}

void TestLattice::followsThePlayer()
{
    PdPlayer player;
    Arbo arbo;
    QVERIFY(arbo.init(&player));
    QSignalSpy changed(&arbo, &Arbo::transposeOrBaseFrequencyChanged);

    // Queued: nothing happens until the event loop runs.
    emit player.transposed(ArboRatio(3, 2), 3);
    emit player.noteToggled(ArboRatio(9, 4), true);
    emit player.baseFrequencyChanged(220.0f);
    emit player.primeEnabledToggled(7, false);
    QVERIFY(arbo.transposeSteps().isEmpty());
    QTRY_COMPARE(changed.count(), 2);
    QCOMPARE(arbo.transposeSteps(), QList<int>{3});
    QCOMPARE(arbo.baseFrequency(), 220.0f);
    QVERIFY(arbo.root()->childAtPrime(3)->isPlaying());
    QVERIFY(!arbo.root()->childAtPrime(-7)->isEnabled());
}

void TestLattice::unreadableFiles_data()
{
    QTest::addColumn<QString>("file");
    QTest::newRow("not JSON") << "not_json.json";
    QTest::newRow("empty") << "empty.json";
}

void TestLattice::unreadableFiles()
{
    QFETCH(QString, file);
    QVERIFY(
        QFile::copy(TestSupport::dataDir() + QStringLiteral("/lattice/") + file, latticeFile()));
    const QByteArray before = TestSupport::readFile(latticeFile());
    Arbo arbo;
    QTest::ignoreMessage(QtCriticalMsg,
                         QRegularExpression(QStringLiteral("^Couldn't parse file ")));
    QVERIFY(!arbo.init(nullptr));
    // Left as constructed: the root alone, and the file untouched.
    QCOMPARE(countNodes(arbo.root()), 1);
    QVERIFY(arbo.ballMap().isEmpty());
    QCOMPARE(TestSupport::readFile(latticeFile()), before);
}

void TestLattice::wrongTypes()
{
    // A top-level array reads as an empty object: the root alone.
    QVERIFY(QFile::copy(TestSupport::dataDir() + QStringLiteral("/lattice/top_level_array.json"),
                        latticeFile()));
    {
        Arbo arbo;
        QVERIFY(arbo.init(nullptr));
        QCOMPARE(countNodes(arbo.root()), 1);
        QVERIFY(arbo.primeColors().isEmpty());
    }
    QFile::remove(latticeFile());
    QVERIFY(QFile::copy(TestSupport::dataDir() + QStringLiteral("/lattice/wrong_types.json"),
                        latticeFile()));
    Arbo arbo;
    QTest::ignoreMessage(QtWarningMsg, "Lattice file: skipped \"colors\" (not an array)");
    QTest::ignoreMessage(QtWarningMsg, "Lattice file: skipped \"root\" (not an object)");
    QVERIFY(arbo.init(nullptr));
    QCOMPARE(countNodes(arbo.root()), 1);
    QCOMPARE(arbo.lookupColor(3), Arbo::WHITE);
    QCOMPARE(arbo.ballMap().size(), 1);
}

void TestLattice::badColors()
{
    QVERIFY(QFile::copy(TestSupport::dataDir() + QStringLiteral("/lattice/bad_colors.json"),
                        latticeFile()));
    Arbo arbo;
    ignoreLatticeWarnings(9);
    QVERIFY(arbo.init(nullptr));
    // Only the well-formed entries count; a fractional prime is truncated.
    QCOMPARE(arbo.primeColors().keys(), (QList<int>{7, 11}));
    QCOMPARE(arbo.lookupColor(-7), QColor(0x12, 0x34, 0x56));
    QCOMPARE(arbo.lookupColor(11), QColor(0xab, 0xcd, 0xef));
    QCOMPARE(arbo.lookupColor(3), Arbo::WHITE);
    QCOMPARE(arbo.root()->childAtPrime(7)->color(), QColor(0x12, 0x34, 0x56));
    QCOMPARE(arbo.root()->childAtPrime(-13)->color(), Arbo::WHITE);
}

void TestLattice::badChildren()
{
    QVERIFY(QFile::copy(TestSupport::dataDir() + QStringLiteral("/lattice/bad_children.json"),
                        latticeFile()));
    Arbo arbo;
    // -128, 1000, 4 and 1 are numbers but no prime steps; the links of /3 are
    // no object.
    ignoreLatticeWarnings(5);
    QVERIFY(arbo.init(nullptr));
    // Keys that are not numbers (and the number too large for an int) read as
    // step 0: the child takes its parent's path, and each replaces the one
    // before under that key ("0", then "999...", then "x").
    QCOMPARE(treeLines(arbo.root()),
             (QStringList{"/ => /", "/0 => /", "/0/-3 => /-3", "/2 => /2", "/3 => /3",
                          "/3/-3 => /3/-3", "/3/0 => /3", "/3/0/5 => /3/5"}));
    QCOMPARE(arbo.root()->childAtPrime(0)->color(), QColor(0xb7, 0xb7, 0xb7));
    // Equal ratios: the later node replaces the earlier in the ball map, and
    // /3/-3 sounds 1/1 as well.
    QStringList expected{"1/1 => /3/-3", "15/8 => /3/5", "2/1 => /2", "2/3 => /-3", "3/2 => /3"};
    expected.sort();
    QCOMPARE(ballMapLines(arbo), expected);
    QCOMPARE(arbo.ballFromRatio(ArboRatio(1, 1)), arbo.root()->childAtPrime(3)->childAtPrime(-3));
    QCOMPARE(arbo.ballFromRatio(ArboRatio(3, 2)), arbo.root()->childAtPrime(3)->childAtPrime(0));

    // What was read is written back and reads the same.
    arbo.term();
    Arbo again;
    QVERIFY(again.init(nullptr));
    QCOMPARE(treeLines(again.root()), treeLines(arbo.root()));
}

void TestLattice::badLinks()
{
    QVERIFY(QFile::copy(TestSupport::dataDir() + QStringLiteral("/lattice/bad_links.json"),
                        latticeFile()));
    Arbo arbo;
    QTest::ignoreMessage(QtDebugMsg, "Invalid path: \"/2/x\"");
    QTest::ignoreMessage(QtDebugMsg, "Invalid path: \"/4\"");
    ignoreLatticeWarnings(4);
    QVERIFY(arbo.init(nullptr));
    const ArboBall* third = arbo.root()->childAtPrime(3);
    QCOMPARE(third->links().keys(), (QList<int>{0, 2}));
    // A link to a node that does not exist is kept: it is only a path.
    QCOMPARE(third->links().value(2).mPath.toString(), QStringLiteral("/3/3/3/3/3"));
    QCOMPARE(third->links().value(0).mPath.toString(), QStringLiteral("/-3"));
    // Parsing keeps six steps.
    QCOMPARE(arbo.root()->links().value(2).mPath.toString(), QStringLiteral("/2/3/5/7/11/13"));
}

void TestLattice::deepAndWideTrees()
{
    // Steps of 31 nested past six: the paths stop at six steps and the
    // largest ratio, 31^6 / 16^6, is exact.
    QVERIFY(QFile::copy(TestSupport::dataDir() + QStringLiteral("/lattice/deep_primes.json"),
                        latticeFile()));
    {
        Arbo arbo;
        QVERIFY(arbo.init(nullptr));
        QCOMPARE(countNodes(arbo.root()), 1 + 8 + 7);
        QCOMPARE(arbo.ballMap().size(), 1 + 6 + 6);
        ArboBall* deepest = arbo.ballFromRatio(ArboRatio(887503681ULL, 16777216ULL));
        QVERIFY(deepest);
        QCOMPARE(deepest->path().toString(), QStringLiteral("/31/31/31/31/31/31"));
        QVERIFY(arbo.ballFromRatio(ArboRatio(16777216ULL, 887503681ULL)));
        QVERIFY(arbo.canTransposeTo(ArboRatio(3, 2)));
    }

    // Nesting far beyond what the JSON reader accepts: refused as unparsable,
    // no stack overflow.
    const int tooDeep = 10000;
    QByteArray bytes = "{\"root\": ";
    for (int i = 0; i < tooDeep; ++i) {
        bytes += "{\"children\": {\"3\": ";
    }
    bytes += "{}";
    bytes += QByteArray("}}").repeated(tooDeep);
    bytes += "}";
    QVERIFY(TestSupport::writeFile(latticeFile(), bytes));
    {
        Arbo arbo;
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression(QStringLiteral("^Couldn't parse file .*deep")));
        QVERIFY(!arbo.init(nullptr));
    }

    // As deep as the reader allows: read, mapped, written and read again.
    const int deep = 500;
    bytes = "{\"root\": ";
    for (int i = 0; i < deep; ++i) {
        bytes += (i % 2 ? "{\"children\": {\"-2\": " : "{\"children\": {\"3\": ");
    }
    bytes += "{}";
    bytes += QByteArray("}}").repeated(deep);
    bytes += "}";
    QVERIFY(TestSupport::writeFile(latticeFile(), bytes));
    {
        Arbo arbo;
        QVERIFY(arbo.init(nullptr));
        QCOMPARE(countNodes(arbo.root()), deep + 1);
        QCOMPARE(arbo.ballMap().size(), 7); // /, /3, /3/-2, ... /3/-2/3/-2/3/-2
        arbo.onPrimeEnabledToggled(3, false);
        arbo.onTransposed(ArboRatio(3, 2), 3);
        QVERIFY(arbo.canTransposeTo(ArboRatio(3, 2)));
        arbo.term();
        Arbo again;
        QVERIFY(again.init(nullptr));
        QCOMPARE(countNodes(again.root()), deep + 1);
    }

    // Very wide: thousands of keys that are not numbers all land on step 0,
    // each replacing the one before; keys that spell the same number do too.
    QJsonObject children;
    for (int i = 0; i < 20000; ++i) {
        children.insert(QStringLiteral("n%1").arg(i), QJsonObject());
    }
    for (const char* key : {"3", "03", "+3", "003"}) {
        children.insert(QString::fromLatin1(key), QJsonObject{{QStringLiteral("children"),
                                                               QJsonObject{{key, QJsonObject()}}}});
    }
    const QJsonObject wide{
        {QStringLiteral("root"), QJsonObject{{QStringLiteral("children"), children}}}};
    QVERIFY(TestSupport::writeFile(latticeFile(), QJsonDocument(wide).toJson()));
    Arbo arbo;
    QVERIFY(arbo.init(nullptr));
    QCOMPARE(arbo.root()->children().keys(), (QList<int>{0, 3}));
    QCOMPARE(countNodes(arbo.root()), 4);
    QCOMPARE(arbo.root()->findChildren<ArboBall*>().size(), 3); // the replaced ones are gone
}

ARBO_TEST_MAIN(TestLattice)
#include "tst_lattice.moc"
