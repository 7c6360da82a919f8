#include "model/arboconstants.h"
#include "model/arbopath.h"
#include "model/arboratio.h"
#include "testsupport.h"

#include <boost/rational.hpp>

#include <climits>
#include <cstring>

using U64 = unsigned long long;

class TestRatioPath : public QObject
{
    Q_OBJECT
private slots:
    void primeTables()
    {
        // The float table must agree with the exact one, and every index that
        // is no prime (of any sign, far out of range included) must be refused.
        using namespace ArboConstants;
        const QList<int> primes{2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31};
        QVERIFY(!isValidPrime(INT_MIN));
        for (int step = -130; step <= 130; ++step) {
            const int index = std::abs(step);
            QCOMPARE(isValidPrime(step), primes.contains(index));
            if (primes.contains(index)) {
                QCOMPARE(double(PRIME_RATIOS[index]),
                         boost::rational_cast<double>(PRIME_RATIONALS[index]));
            }
        }
    }

    void parsing_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("printed"); // empty: the text is no path

        // Parts beyond the sixth are dropped without a word, even invalid ones.
        const char* const valid[][2] = {{"/", "/"},
                                        {"", "/"},
                                        {"2//-3/", "/2/-3"},
                                        {"/31/-29/23/-19/17/-13", "/31/-29/23/-19/17/-13"},
                                        {"/3/3/3/3/3/3/3/x", "/3/3/3/3/3/3"}};
        for (const auto& row : valid) {
            QTest::newRow(row[0]) << row[0] << row[1];
        }
        for (const char* text : {"/4", "/1", "/0", "/-1", "/37", "/x", "/3/x/3", "/3.0", "/0x3",
                                 "/127", "/-128", "/256", "/259", "/99999999999999999999"}) {
            QTest::newRow(text) << text << QString();
        }
    }

    void parsing()
    {
        QFETCH(QString, text);
        QFETCH(QString, printed);

        for (int parse = 0; parse < 2 && printed.isEmpty(); ++parse) {
            QTest::ignoreMessage(QtDebugMsg, qPrintable("Invalid path: \"" + text + '"'));
        }
        const ArboPath path(text);
        QCOMPARE(path.isValid(), !printed.isEmpty());
        if (printed.isEmpty()) {
            QCOMPARE(path.toList(), QList<int>{ArboPath::INVALID_STEP});
        } else {
            QCOMPARE(path.toString(), printed);
            QCOMPARE(ArboPath(printed), path);
        }
        // Parsing over a longer path leaves none of its bytes behind: the
        // command records copy paths byte for byte.
        ArboPath reused(QStringLiteral("/2/3/5/7/11/13"));
        reused.storeFromString(text);
        QCOMPARE(std::memcmp(&reused, &path, sizeof(ArboPath)), 0);
    }

    void leavesAndConcatenation()
    {
        ArboPath path;
        path.removeLeaf(); // an empty path stays empty
        for (int step : {3, -5, 2, 7, -11, 13, 3}) {
            path.addLeaf(static_cast<signed char>(step));
        }
        QCOMPARE(path.toString(), QStringLiteral("/3/-5/2/7/-11/13")); // six at most
        path.removeLeaf();
        QCOMPARE(path.toString(), QStringLiteral("/3/-5/2/7/-11"));

        // Concatenation may fill all seven step bytes (transposition plus a
        // six-step path), and every step counts.
        const ArboPath a(QStringLiteral("/2/3/5/7"));
        ArboPath seven = a + ArboPath(QStringLiteral("/-3/-5/-7/-11"));
        QCOMPARE(seven.toString(), QStringLiteral("/2/3/5/7/-3/-5/-7"));
        QCOMPARE(ArboRatio::pathRatio(seven).toString(), QStringLiteral("2/1"));
        QVERIFY(seven != seven); // names no node, so equals no path
        seven.removeLeaf();      // left alone on purpose
        seven.addLeaf(2);
        QCOMPARE(seven.length(), 7);
        QCOMPARE((ArboPath(QStringLiteral("/3/3/3/3/3/3")) + a).toString(),
                 QStringLiteral("/3/3/3/3/3/3/2"));

        QVERIFY(ArboPath(QStringLiteral("/2/-3")) != ArboPath(QStringLiteral("/-3/2")));
        QVERIFY(ArboPath(QStringLiteral("/2/-3")) != ArboPath(QStringLiteral("/2")));
        QCOMPARE(qHash(ArboPath(QStringLiteral("/2/-3"))), qHash(ArboPath(QStringLiteral("2/-3"))));
    }

    void pathRatios()
    {
        // No octave folding afterwards: steps of 2 place the octave. No
        // lattice is registered, so the absolute ratio is the ratio.
        const char* const ratios[][2] = {{"/", "1/1"},
                                         {"/-2/-3/-5", "4/15"},
                                         {"/2/2/2/2/2/2", "64/1"},
                                         {"/5/7/11/13/17/19", "1616615/262144"},
                                         {"/23/-29/31", "713/464"},
                                         {"/31/31/31/31/31/31", "887503681/16777216"}};
        for (const auto& row : ratios) {
            const ArboRatio ratio(ArboPath(QString::fromLatin1(row[0])), {});
            QCOMPARE(ratio.toString(), QString::fromLatin1(row[1]));
            QCOMPARE(ratio.toStringAbs(), QString::fromLatin1(row[1]));
        }

        // Raw steps can name any index: a negative step at a hole of the table
        // would divide by zero. Such a path has no pitch instead.
        for (int step : {4, -4, 1, -1, 32, -32, 127, -128}) {
            const ArboPath path(static_cast<signed char>(step));
            QCOMPARE(ArboRatio::pathRatio(path).toString(), QStringLiteral("0/1"));
            QCOMPARE(ArboRatio(ArboPath(QStringLiteral("/3")) + path, {}).toStringAbs(),
                     QStringLiteral("0/1"));
        }
        QVERIFY_EXCEPTION_THROWN(ArboRatio(1, 0), boost::bad_rational);
    }

    void multiplication_data()
    {
        QTest::addColumn<ArboRatio>("a");
        QTest::addColumn<ArboRatio>("b");
        QTest::addColumn<bool>("fits");  // multiplyIfExact
        QTest::addColumn<bool>("exact"); // canMultiplyWith

        const U64 max = ~0ULL;
        const U64 two32 = 1ULL << 32;
        const U64 two62 = 1ULL << 62;
        auto row = [](const char* name, ArboRatio a, ArboRatio b, bool fits, bool exact) {
            QTest::newRow(name) << a << b << fits << exact;
        };
        row("zero", {0, 1}, {max, 1}, true, true);
        row("max cancels", {max, 1}, {1, max}, true, true);
        row("cross-cancelled", {2 * two62, 3}, {3, two62}, true, true);
        // (2^32 + 1)(2^32 - 1) = 2^64 - 1: the largest product that fits.
        row("edge fits", {two32 + 1, 1}, {two32 - 1, 1}, true, true);
        row("edge + 1", {two32 + 1, 1}, {two32, 1}, false, false);
        row("numerator wraps to 0", {2 * two62, 1}, {2, 1}, false, false);
        row("denominator wraps to 0", {1, 2 * two62}, {1, 2}, false, false);
        // Wraps to 1/2^63 instead of 1/(3 * 2^63): a difference far below the
        // floating-point tolerance, caught by the exact test.
        row("tiny wrap", {1, 3 * two62}, {1, 2}, false, false);
        // Exact in 64 bits but far above any pitch: the absolute tolerance
        // refuses it on purpose (the float product is 4 off).
        row("large exact", {(1ULL << 53) + 1, 1}, {3, 1}, true, false);
    }

    void multiplication()
    {
        QFETCH(ArboRatio, a);
        QFETCH(ArboRatio, b);
        QFETCH(bool, fits);
        QFETCH(bool, exact);

        if (!exact) {
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression("^canMultiply fail on "));
        }
        QCOMPARE(a.canMultiplyWith(b), exact);
        ArboRatio product = a;
        QCOMPARE(product.multiplyIfExact(b), fits);
        // Without overflow the plain product agrees; with it, nothing changes.
        QCOMPARE(product, fits ? a * b : a);
    }

    void cancelOppositeSteps()
    {
        const QList<QPair<QList<int>, QList<int>>> cases{
            {{3, 3, -3}, {3}},
            {{5, 3, -5, -3, 7}, {7}},
            {{7, 3, -2, 5, 2, -11}, {7, 3, 5, -11}}, // order kept
        };
        for (QPair<QList<int>, QList<int>> steps : cases) {
            ArboConstants::cancelOppositeSteps(steps.first);
            QCOMPARE(steps.first, steps.second);
        }
    }
};

ARBO_TEST_MAIN(TestRatioPath)
#include "tst_ratio_path.moc"
