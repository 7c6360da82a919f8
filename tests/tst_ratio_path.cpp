#include "model/arboconstants.h"
#include "model/arbopath.h"
#include "model/arboratio.h"
#include "testsupport.h"

#include <QThread>
#include <QVariant>

#include <boost/rational.hpp>

#include <cstring>
#include <limits>

Q_DECLARE_METATYPE(QList<int>)

namespace {

// Collects the messages logged while it lives, so a test can tell that
// something was (or was not) logged.
class MessageCatcher
{
public:
    MessageCatcher() { sPrevious = qInstallMessageHandler(&MessageCatcher::handler); }
    ~MessageCatcher() { qInstallMessageHandler(sPrevious); }
    static QStringList sMessages;

private:
    static void handler(QtMsgType, const QMessageLogContext&, const QString& message)
    {
        sMessages.append(message);
    }
    static QtMessageHandler sPrevious;
};
QStringList MessageCatcher::sMessages;
QtMessageHandler MessageCatcher::sPrevious = nullptr;

constexpr unsigned long long U64_MAX = std::numeric_limits<unsigned long long>::max();
constexpr unsigned long long TWO_POW_32 = 1ULL << 32;
constexpr unsigned long long TWO_POW_53 = 1ULL << 53;
constexpr unsigned long long TWO_POW_62 = 1ULL << 62;
constexpr unsigned long long TWO_POW_63 = 1ULL << 63;

} // namespace

// Receives values through queued calls, as the lattice receives the player's.
class Receiver : public QObject
{
    Q_OBJECT
public:
    ArboPath mPath;
    ArboRatio mRatio;
public slots:
    void onValues(const ArboPath& path, ArboRatio ratio)
    {
        mPath = path;
        mRatio = ratio;
    }
};

class TestRatioPath : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();

    void primeTables();
    void parsing_data();
    void parsing();
    void invalidPathsAreLogged_data();
    void invalidPathsAreLogged();
    void leavesAndConcatenation();
    void equalityAndHash();
    void byteLayout();
    void queuedSignals();

    void pathRatios_data();
    void pathRatios();
    void invalidStepsHaveNoPitch();
    void constructionAndText();
    void canMultiplyWith_data();
    void canMultiplyWith();
    void cancelOppositeSteps_data();
    void cancelOppositeSteps();
};

void TestRatioPath::initTestCase()
{
    qRegisterMetaType<ArboPath>("ArboPath");
    qRegisterMetaType<ArboRatio>("ArboRatio");
}

void TestRatioPath::primeTables()
{
    using namespace ArboConstants;
    const int primes[] = {2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31};
    QCOMPARE(int(sizeof(PRIMES) / sizeof(PRIMES[0])), 12);
    QCOMPARE(PRIMES[0], 1);
    for (int i = 0; i < 11; ++i) {
        QCOMPARE(PRIMES[i + 1], primes[i]);
    }
    for (int index = 0; index < PRIME_TABLE_SIZE; ++index) {
        const bool prime =
            std::find(std::begin(primes), std::end(primes), index) != std::end(primes);
        QCOMPARE(isValidPrime(index), prime);
        QCOMPARE(isValidPrime(-index), prime);
        if (!prime) {
            QCOMPARE(PRIME_RATIONALS[index], Rational(0));
            QCOMPARE(PRIME_RATIOS[index], -1.0f);
            continue;
        }
        const Rational& ratio = PRIME_RATIONALS[index];
        // The numerator is the prime itself and the denominator a power of two
        // that brings it into [1, 2) (2 itself excepted).
        QCOMPARE(ratio.numerator(), (unsigned long long)index);
        QVERIFY((ratio.denominator() & (ratio.denominator() - 1)) == 0);
        const double value = boost::rational_cast<double>(ratio);
        QVERIFY(index == 2 ? value == 2.0 : (value >= 1.0 && value < 2.0));
        QCOMPARE(double(PRIME_RATIOS[index]), value);
    }
    QVERIFY(!isValidPrime(32) && !isValidPrime(127) && !isValidPrime(-128) && !isValidPrime(1000));
}

void TestRatioPath::parsing_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QList<int>>("steps");
    QTest::addColumn<QString>("printed");

    QTest::newRow("root") << "/" << QList<int>() << "/";
    QTest::newRow("empty") << "" << QList<int>() << "/";
    QTest::newRow("slashes only") << "///" << QList<int>() << "/";
    QTest::newRow("three steps") << "/2/-3/3" << QList<int>{2, -3, 3} << "/2/-3/3";
    QTest::newRow("no leading slash") << "2/-3" << QList<int>{2, -3} << "/2/-3";
    QTest::newRow("empty parts") << "//2//-3/" << QList<int>{2, -3} << "/2/-3";
    QTest::newRow("every prime") << "/31/-29/23/-19/17/-13" << QList<int>{31, -29, 23, -19, 17, -13}
                                 << "/31/-29/23/-19/17/-13";
    // Parts beyond the sixth are dropped without a word, even invalid ones.
    QTest::newRow("eight parts") << "/3/3/3/3/3/3/3/3" << QList<int>{3, 3, 3, 3, 3, 3}
                                 << "/3/3/3/3/3/3";
    QTest::newRow("invalid seventh")
        << "/3/3/3/3/3/3/x" << QList<int>{3, 3, 3, 3, 3, 3} << "/3/3/3/3/3/3";
}

void TestRatioPath::parsing()
{
    QFETCH(QString, text);
    QFETCH(QList<int>, steps);
    QFETCH(QString, printed);

    MessageCatcher catcher;
    MessageCatcher::sMessages.clear();
    const ArboPath path(text);
    QVERIFY(path.isValid());
    QVERIFY(path.hasValidSteps());
    QCOMPARE(path.toList(), steps);
    QCOMPARE(path.length(), steps.size());
    QCOMPARE(path.toString(), printed);
    QCOMPARE(path.parseToString(), printed);
    QCOMPARE(ArboPath(printed), path);
    QVERIFY(MessageCatcher::sMessages.isEmpty());
}

void TestRatioPath::invalidPathsAreLogged_data()
{
    QTest::addColumn<QString>("text");
    const char* texts[] = {"/4",
                           "/1",
                           "/0",
                           "/-1",
                           "/37",
                           "/x",
                           "/3/-33",
                           "/3/x/3",
                           "/3.0",
                           "/127",
                           "/-128",
                           "/256",
                           "/99999999999999999999",
                           "/0x3"};
    for (const char* text : texts) {
        QTest::newRow(text) << QString::fromLatin1(text);
    }
}

void TestRatioPath::invalidPathsAreLogged()
{
    QFETCH(QString, text);
    QTest::ignoreMessage(QtDebugMsg, qPrintable(QStringLiteral("Invalid path: \"%1\"").arg(text)));
    const ArboPath path(text);
    QVERIFY(!path.isValid());
    QVERIFY(!path.hasValidSteps());
    QCOMPARE(path.toList(), QList<int>{ArboPath::INVALID_STEP});
    QCOMPARE(path.toCharArray()[1], (signed char)0);

    // Parsing again over a longer path leaves nothing of it behind.
    ArboPath reused(QStringLiteral("/2/3/5/7/11/13"));
    QTest::ignoreMessage(QtDebugMsg, qPrintable(QStringLiteral("Invalid path: \"%1\"").arg(text)));
    reused.storeFromString(text);
    QCOMPARE(reused, path);
    QCOMPARE(std::memcmp(&reused, &path, sizeof(ArboPath)), 0);
}

void TestRatioPath::leavesAndConcatenation()
{
    ArboPath path;
    path.removeLeaf(); // an empty path stays empty
    QCOMPARE(path, ArboPath());
    for (int step : {3, -5, 2, 7, -11, 13}) {
        path.addLeaf(static_cast<signed char>(step));
    }
    QCOMPARE(path.toString(), QStringLiteral("/3/-5/2/7/-11/13"));
    path.addLeaf(3); // six steps: full for addLeaf
    QCOMPARE(path.length(), 6);
    path.addLeaf(0); // a zero step lands on the terminator
    path.removeLeaf();
    QCOMPARE(path.toString(), QStringLiteral("/3/-5/2/7/-11"));
    path.addLeaf(0);
    QCOMPARE(path.toString(), QStringLiteral("/3/-5/2/7/-11"));

    const ArboPath a(QStringLiteral("/2/3/5/7"));
    const ArboPath b(QStringLiteral("/-3/-5/-7/-11"));
    QCOMPARE((a + ArboPath()).toString(), a.toString());
    QCOMPARE((ArboPath() + b).toString(), b.toString());
    QCOMPARE((ArboPath(QStringLiteral("/2")) + ArboPath(QStringLiteral("/-3/3"))).toString(),
             QStringLiteral("/2/-3/3"));

    // Concatenation may fill all seven step bytes; the terminator stays.
    ArboPath seven = a + b;
    QCOMPARE(seven.length(), 7);
    QCOMPARE(seven.toList(), (QList<int>{2, 3, 5, 7, -3, -5, -7}));
    QCOMPARE(seven.toString(), QStringLiteral("/2/3/5/7/-3/-5/-7"));
    QCOMPARE(seven.toCharArray()[7], (signed char)0);
    QVERIFY(seven != seven); // deliberately equal to no path, itself included
    const ArboPath copy = seven;
    QVERIFY(!(copy == seven));
    seven.removeLeaf(); // left alone on purpose
    QCOMPARE(seven.length(), 7);
    seven.addLeaf(2);
    QCOMPARE(seven.length(), 7);
    QCOMPARE((seven + a).length(), 7);
    // All seven steps count: 2 * (3/2 * 2/3) * (5/4 * 4/5) * (7/4 * 4/7).
    QCOMPARE(ArboRatio::pathRatio(seven).toString(), QStringLiteral("2/1"));
    QCOMPARE(ArboRatio::pathRatio(a + ArboPath(QStringLiteral("/-3/-5/11"))).toString(),
             QStringLiteral("77/16"));

    // Six steps plus one: the seventh byte is used, the six-step prefix is kept.
    const ArboPath six(QStringLiteral("/3/3/3/3/3/3"));
    QCOMPARE((six + ArboPath(QStringLiteral("/5/7"))).toString(), QStringLiteral("/3/3/3/3/3/3/5"));
}

void TestRatioPath::equalityAndHash()
{
    const ArboPath a(QStringLiteral("/2/-3"));
    QCOMPARE(a, ArboPath(QStringLiteral("2/-3")));
    QCOMPARE(qHash(a), qHash(ArboPath(QStringLiteral("2/-3"))));
    QVERIFY(a != ArboPath(QStringLiteral("/-3/2")));
    QVERIFY(a != ArboPath(QStringLiteral("/2")));
    QVERIFY(a != ArboPath(QStringLiteral("/2/-3/5")));
    QVERIFY(ArboPath() == ArboPath(QStringLiteral("/")));
    const ArboPath six(QStringLiteral("/2/3/5/7/11/13"));
    QCOMPARE(six, ArboPath(QStringLiteral("/2/3/5/7/11/13/17")));

    // 32-bit unsigned arithmetic, steps sign-extended.
    QCOMPARE(qHash(ArboPath(), 7u), 7u);
    QCOMPARE(qHash(a, 5u), (5u * 31u + 2u) * 31u + uint(-3));
    uint expected = 0xdeadbeefu;
    for (int step : six.toList()) {
        expected = expected * 31u + uint(step);
    }
    QCOMPARE(qHash(six, 0xdeadbeefu), expected);

    QHash<ArboPath, int> hash;
    hash.insert(a, 1);
    hash.insert(ArboPath(QStringLiteral("/-3/2")), 2);
    hash.insert(ArboPath(QStringLiteral("//2/-3")), 3);
    QCOMPARE(hash.size(), 2);
    QCOMPARE(hash.value(a), 3);
}

void TestRatioPath::byteLayout()
{
    const signed char expected[8] = {2, -3, 31, 0, 0, 0, 0, 0};
    const ArboPath path(QStringLiteral("/2/-3/31"));
    QCOMPARE(std::memcmp(&path, expected, 8), 0);
    QCOMPARE(std::memcmp(path.toCharArray(), expected, 8), 0);

    const signed char zeros[8] = {};
    const ArboPath root;
    QCOMPARE(std::memcmp(&root, zeros, 8), 0);

    // Copied byte for byte into a record and back, as the command rings do.
    unsigned char record[16] = {};
    std::memcpy(record + 4, &path, sizeof(ArboPath));
    ArboPath back;
    std::memcpy(&back, record + 4, sizeof(ArboPath));
    QCOMPARE(back, path);

    const ArboPath one(static_cast<signed char>(-7));
    QCOMPARE(one.toString(), QStringLiteral("/-7"));
    QCOMPARE(ArboPath(static_cast<signed char>(0)), ArboPath());
}

void TestRatioPath::queuedSignals()
{
    const ArboPath path(QStringLiteral("/3/-5"));
    const QVariant variant = QVariant::fromValue(path);
    QCOMPARE(variant.value<ArboPath>(), path);
    QCOMPARE(QVariant::fromValue(ArboRatio(3, 2)).value<ArboRatio>(), ArboRatio(3, 2));

    // A queued call from another thread carries both types by value.
    Receiver receiver;
    QThread thread;
    QObject sender;
    sender.moveToThread(&thread);
    QObject::connect(&thread, &QThread::started, &sender, [&] {
        QMetaObject::invokeMethod(&receiver, "onValues", Qt::QueuedConnection,
                                  Q_ARG(ArboPath, path), Q_ARG(ArboRatio, ArboRatio(15, 8)));
    });
    thread.start();
    QTRY_COMPARE(receiver.mPath, path);
    QCOMPARE(receiver.mRatio, ArboRatio(15, 8));
    thread.quit();
    thread.wait();
}

void TestRatioPath::pathRatios_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<unsigned long long>("numerator");
    QTest::addColumn<unsigned long long>("denominator");

    QTest::newRow("root") << "/" << 1ULL << 1ULL;
    QTest::newRow("/2") << "/2" << 2ULL << 1ULL;
    QTest::newRow("/-2") << "/-2" << 1ULL << 2ULL;
    QTest::newRow("/3/5") << "/3/5" << 15ULL << 8ULL;
    QTest::newRow("/5/-3") << "/5/-3" << 5ULL << 6ULL;
    QTest::newRow("/3/3") << "/3/3" << 9ULL << 4ULL;
    QTest::newRow("/3/-2") << "/3/-2" << 3ULL << 4ULL;
    QTest::newRow("/-3") << "/-3" << 2ULL << 3ULL;
    QTest::newRow("/3/-3") << "/3/-3" << 1ULL << 1ULL;
    QTest::newRow("/7/-2/-2") << "/7/-2/-2" << 7ULL << 16ULL;
    // No octave folding afterwards: steps of 2 place the octave.
    QTest::newRow("/2/2/2/2/2/2") << "/2/2/2/2/2/2" << 64ULL << 1ULL;
    QTest::newRow("largest") << "/31/31/31/31/31/31" << 887503681ULL << 16777216ULL;
    QTest::newRow("smallest") << "/-31/-31/-31/-31/-31/-31" << 16777216ULL << 887503681ULL;
}

void TestRatioPath::pathRatios()
{
    QFETCH(QString, path);
    QFETCH(unsigned long long, numerator);
    QFETCH(unsigned long long, denominator);

    const ArboPath parsed(path);
    const ArboRatio ratio(parsed);
    QCOMPARE(ratio.numerator(), numerator);
    QCOMPARE(ratio.denominator(), denominator);
    // No lattice registered: no transposition.
    QCOMPARE(ratio.absNumerator(), numerator);
    QCOMPARE(ratio.absDenominator(), denominator);
    QCOMPARE(parsed.toRatio(), ratio);
    QCOMPARE(ArboRatio::pathRatio(parsed), ratio);
    QCOMPARE(ArboRatio::pathRatio(parsed).absRatio(), ArboRatio::Rational(0));
    QCOMPARE(ratio.toString(), QStringLiteral("%1/%2").arg(numerator).arg(denominator));
    QCOMPARE(ratio.toStringAbs(), ratio.toString());

    ArboRatio stored(7, 5);
    stored.storeFromAbsolutePath(parsed); // the ratio field stays
    QCOMPARE(stored.toString(), QStringLiteral("7/5"));
    QCOMPARE(stored.toStringAbs(), ratio.toString());
}

void TestRatioPath::invalidStepsHaveNoPitch()
{
    // Paths from text are validated, but raw steps can name any index: a
    // negative step at a hole of the table would divide by zero. Such a path
    // has no pitch instead, and nothing throws.
    QTest::ignoreMessage(QtDebugMsg, "Invalid path: \"/4\"");
    const ArboPath invalid(QStringLiteral("/4"));
    for (int step : {4, -4, 1, -1, 32, -32, 127, -128, -31 * 4}) {
        const ArboPath path(static_cast<signed char>(step));
        QVERIFY(!path.hasValidSteps());
        QCOMPARE(ArboRatio::pathRatio(path).toString(), QStringLiteral("0/1"));
        const ArboRatio ratio(path);
        QCOMPARE(ratio.toString(), QStringLiteral("0/1"));
        QCOMPARE(ratio.toStringAbs(), QStringLiteral("0/1"));
        QCOMPARE((ArboPath(QStringLiteral("/3")) + path).toRatio().toString(),
                 QStringLiteral("0/1"));
    }
    QCOMPARE(invalid.toRatio().toString(), QStringLiteral("0/1"));
    QCOMPARE((invalid + ArboPath(QStringLiteral("/3"))).toRatio().toString(),
             QStringLiteral("0/1"));
}

void TestRatioPath::constructionAndText()
{
    const ArboRatio zero;
    QCOMPARE(zero.toString(), QStringLiteral("0/1"));
    QCOMPARE(zero.toStringAbs(), QStringLiteral("0/1"));
    QCOMPARE(ArboRatio(6, 4).toString(), QStringLiteral("3/2"));
    QCOMPARE(ArboRatio(6, 4).toStringAbs(), QStringLiteral("0/1"));
    QCOMPARE(ArboRatio(0, 5).toString(), QStringLiteral("0/1"));
    QCOMPARE(ArboRatio(U64_MAX, 1).toString(), QStringLiteral("18446744073709551615/1"));

    try {
        ArboRatio broken(1, 0);
        QFAIL("a zero denominator was accepted");
    } catch (const boost::bad_rational& error) {
        QCOMPARE(QString::fromLatin1(error.what()),
                 QStringLiteral("bad rational: zero denominator"));
    }

    // Equality and hashing look at the ratio only.
    ArboRatio a(5, 4);
    ArboRatio b(a);
    b.storeFromAbsolutePath(ArboPath(QStringLiteral("/3/5")));
    QCOMPARE(b.toStringAbs(), QStringLiteral("15/8"));
    QCOMPARE(a, b);
    QCOMPARE(qHash(a, 3u), qHash(b, 3u));
    QVERIFY(ArboRatio(5, 4) != ArboRatio(4, 5));
    QCOMPARE(qHash(ArboRatio(5, 4), 3u), (3u * 31u + 5u) * 31u + 4u);
    // The 64-bit parts are truncated to 32 bits by the arithmetic.
    QCOMPARE(qHash(ArboRatio(TWO_POW_32 + 3, 1), 0u), 3u * 31u + 1u);

    // *= multiplies the ratio field only.
    ArboRatio product(3, 2);
    product.storeFromAbsolutePath(ArboPath(QStringLiteral("/5")));
    product *= ArboRatio(4, 3);
    QCOMPARE(product.toString(), QStringLiteral("2/1"));
    QCOMPARE(product.toStringAbs(), QStringLiteral("5/4"));
    QCOMPARE((ArboRatio(3, 2) * ArboRatio(5, 4)).toString(), QStringLiteral("15/8"));
}

void TestRatioPath::canMultiplyWith_data()
{
    QTest::addColumn<unsigned long long>("aNum");
    QTest::addColumn<unsigned long long>("aDen");
    QTest::addColumn<unsigned long long>("bNum");
    QTest::addColumn<unsigned long long>("bDen");
    QTest::addColumn<bool>("exact");

    QTest::newRow("3/2 * 4/3") << 3ULL << 2ULL << 4ULL << 3ULL << true;
    QTest::newRow("zero") << 0ULL << 1ULL << U64_MAX << 1ULL << true;
    QTest::newRow("max * 1") << U64_MAX << 1ULL << 1ULL << 1ULL << true;
    QTest::newRow("max cancels") << U64_MAX << 1ULL << 1ULL << U64_MAX << true;
    QTest::newRow("cross-cancelled") << TWO_POW_63 << 3ULL << 3ULL << TWO_POW_62 << true;
    // (2^32 + 1)(2^32 - 1) = 2^64 - 1: the largest product that fits.
    QTest::newRow("edge fits") << TWO_POW_32 + 1 << 1ULL << TWO_POW_32 - 1 << 1ULL << true;
    QTest::newRow("edge + 1") << TWO_POW_32 + 1 << 1ULL << TWO_POW_32 << 1ULL << false;
    QTest::newRow("numerator wraps to 0") << TWO_POW_63 << 1ULL << 2ULL << 1ULL << false;
    QTest::newRow("denominator wraps to 0") << 1ULL << TWO_POW_63 << 1ULL << 2ULL << false;
    // Wraps to 1/2^63 instead of 1/(3 * 2^63): a difference far below the
    // floating-point tolerance, caught by the exact test.
    QTest::newRow("tiny wrap") << 1ULL << 3 * TWO_POW_62 << 1ULL << 2ULL << false;
    QTest::newRow("3^40 * 3") << 12157665459056928801ULL << 1ULL << 3ULL << 2ULL << false;
    // Exact in 64 bits, but far above any pitch: the absolute tolerance
    // refuses it on purpose (the float product is 4 off).
    QTest::newRow("large exact") << TWO_POW_53 + 1 << 1ULL << 3ULL << 1ULL << false;
}

void TestRatioPath::canMultiplyWith()
{
    QFETCH(unsigned long long, aNum);
    QFETCH(unsigned long long, aDen);
    QFETCH(unsigned long long, bNum);
    QFETCH(unsigned long long, bDen);
    QFETCH(bool, exact);

    const ArboRatio a(aNum, aDen);
    const ArboRatio b(bNum, bDen);
    if (!exact) {
        QTest::ignoreMessage(
            QtDebugMsg,
            QRegularExpression(QStringLiteral("^canMultiply fail on %1 \\* %2:\n  test product: "
                                              "\\S+, real product: \\S+$")
                                   .arg(a.toString(), b.toString())));
    }
    QCOMPARE(a.canMultiplyWith(b), exact);

    ArboRatio product = a;
    const bool fits = product.multiplyIfExact(b);
    if (fits) {
        QCOMPARE(product, a * b);
        QVERIFY(boost::rational_cast<long double>(product.ratio()) ==
                    boost::rational_cast<long double>(a.ratio()) *
                        boost::rational_cast<long double>(b.ratio()) ||
                aNum == 0 || aNum > TWO_POW_53 || bNum > TWO_POW_53);
    } else {
        QCOMPARE(product, a); // untouched
        QVERIFY(!exact);
    }
}

void TestRatioPath::cancelOppositeSteps_data()
{
    QTest::addColumn<QList<int>>("steps");
    QTest::addColumn<QList<int>>("expected");

    QTest::newRow("empty") << QList<int>() << QList<int>();
    QTest::newRow("pair") << QList<int>{3, -3} << QList<int>();
    QTest::newRow("between") << QList<int>{3, 5, -3} << QList<int>{5};
    QTest::newRow("one of two") << QList<int>{3, 3, -3} << QList<int>{3};
    QTest::newRow("last match") << QList<int>{3, -3, -3} << QList<int>{-3};
    QTest::newRow("nested") << QList<int>{2, -3, 3, -2, 5} << QList<int>{5};
    QTest::newRow("crossed") << QList<int>{5, 3, -5, -3, 7} << QList<int>{7};
    QTest::newRow("order kept") << QList<int>{7, 3, -2, 5, 2, -11} << QList<int>{7, 3, 5, -11};
    QTest::newRow("no pairs") << QList<int>{3, 3, 5} << QList<int>{3, 3, 5};
}

void TestRatioPath::cancelOppositeSteps()
{
    QFETCH(QList<int>, steps);
    QFETCH(QList<int>, expected);
    ArboConstants::cancelOppositeSteps(steps);
    QCOMPARE(steps, expected);
}

ARBO_TEST_MAIN(TestRatioPath)
#include "tst_ratio_path.moc"
