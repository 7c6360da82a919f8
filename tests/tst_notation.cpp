// Ratios, paths and the notes spelled from them. The paths and ratios are
// checked against exact fractions (and the 64-bit limits of the command
// records); the notes against spellings a musician names and cents worked out
// apart from the code; the note cards, which are what the player reads, along
// whole lattice paths.

#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboconstants.h"
#include "model/arbopath.h"
#include "model/arboratio.h"
#include "notation/cardnote.h"
#include "notation/note.h"
#include "settings/settings.h"
#include "testsupport.h"

#include <QLoggingCategory>

#include <boost/rational.hpp>

#include <climits>
#include <cmath>
#include <cstring>

using U64 = unsigned long long;

class TestNotation : public QObject
{
    Q_OBJECT

    Settings mOptions;
    Arbo* mLattice = nullptr;

    void setPitchReference(float baseFrequency, const QString& baseNote, int calibration)
    {
        // The application keeps the options' base frequency and the lattice's
        // in step (both follow the player); so does the test.
        mOptions.mBaseFrequency = baseFrequency;
        mOptions.mBaseNote = baseNote;
        mOptions.mCalibrationFrequency = calibration;
        mLattice->onBaseFrequencyChanged(baseFrequency);
    }

private slots:
    void initTestCase() { mLattice = new Arbo(this); }

    void init()
    {
        // Every step of a note writes a debug line for the diagnostics
        // dialog; only the tests of paths and ratios look for theirs.
        const QByteArray test = QTest::currentTestFunction();
        QLoggingCategory::setFilterRules(test == "parsing" || test == "multiplication"
                                             ? QString()
                                             : QStringLiteral("default.debug=false"));
        // Every test starts from the pitch reference a new user has.
        setPitchReference(440.0f, QStringLiteral("A 4"), 440);
        mLattice->onTransposed(ArboRatio(1, 1), 0);
    }

    // Spellings a musician names after an interval of a prime, never a cent
    // off: the starting note, the prime, the spelling ("~" when it gives up).
    void addInterval()
    {
        const auto check = [this](const char* start, int prime, const char* expected) {
            Note note(QString::fromLatin1(start), 0);
            note.addInterval(prime, mOptions);
            const QString got = note.noteSpelling() + (note.isEnharmonic() ? "~" : "");
            QCOMPARE(QStringLiteral("%1 %2: ").arg(start).arg(prime) + got,
                     QStringLiteral("%1 %2: ").arg(start).arg(prime) + expected);
            QCOMPARE(note.cents(), 0.0f);
        };
        check("g4", 3, "D5"); // fifth above G crosses the octave
        check("c4", -3, "F3"); // fifth below C
        check("e5#", 5, "G##5"); // third above E#
        check("d5##", 5, "G#5~"); // third above D## gives up
        check("d4bb", -5, "G#3~"); // third below Dbb gives up
        // Around and below octave 0 the octave must still be the floor.
        check("c0", -3, "F-1"); // fifth below C0
        check("a0", -2, "A-1"); // octave below A0
        check("g-1", 3, "D0"); // fifth above G-1
        check("d-1", -3, "G-2"); // fifth below D-1
        check("b-1", 17, "C0"); // second above B-1
        check("c0", -17, "B-1"); // second below C0
        check("c1", -2, "C0"); // octave below C1
        // No prime of the lattice: the letter moves, the pitch stays.
        check("c4", 37, "B#3"); // 37 above C
        check("d4#", 37, "Eb4~"); // 37 above D# gives up
        check("c4", -37, "Dbb4"); // 37 below C
        check("c4", INT_MIN, "Dbb4"); // most negative int
    }

    // A pitch in semitones above C0 spelled as the nearest note and the
    // cents from it.
    void noteFromSemitone()
    {
        const auto check = [](float semitone, const char* spelling, float cents) {
            Note note;
            note.storeFromSemitone(semitone);
            QCOMPARE(QString::number(semitone) + ": " + note.noteSpelling(),
                     QString::number(semitone) + ": " + spelling);
            QVERIFY2(std::fabs(note.cents() - cents) < 1e-3f,
                     qPrintable(QString::number(note.cents())));
        };
        check(61.6f, "D5", -40.0f); // 61.6 goes up
        check(61.4f, "C#5", 40.0f); // 61.4 stays
        // The window is (-49.5, 50.5]: half-way keeps the lower spelling.
        check(56.5f, "G#4", 50.0f); // half-way stays low
        check(56.504f, "G#4", 50.4f); // past half-way within the slack
        check(51.0f, "Eb4", 0.0f); // Eb, not D#
        check(58.0f, "Bb4", 0.0f); // Bb, not A#
        check(-0.3f, "C0", -30.0f); // just below C0
        check(-0.7f, "B-1", 30.0f); // B-1 up
        check(-0.5f, "B-1", 50.0f); // half-way below C0
        check(-13.7f, "Bb-2", 30.0f); // Bb-2 up
    }

    // A note at exactly the base frequency is spelled as the base note says.
    void baseNoteOverridesSpelling()
    {
        const auto check = [this](float base, const char* name, float frequency, const char* spelling) {
            mOptions.mBaseFrequency = base;
            mOptions.mBaseNote = QString::fromLatin1(name);
            const QString at = QStringLiteral("%1 at %2: ").arg(name).arg(frequency);
            QCOMPARE(at + Note(frequency, mOptions).noteSpelling(), at + spelling);
        };
        const float aFlat4 = 415.304698f;
        // Exactly the base frequency only: a note a schisma away is no base.
        check(aFlat4, "Ab 4", 415.31f, "G#4"); // only at the base frequency
        check(311.126984f, "D# 4", 311.126984f, "D#4"); // D# instead of Eb
        // The octave always comes from the pitch: B4 named "Cb 5" reads Cb4.
        check(493.883301f, "Cb 5", 493.883301f, "Cb4"); // Cb keeps B's octave
        // Hand-edited names.
        check(aFlat4, "Gx4", aFlat4, "G#4"); // unknown sign keeps accidental
        check(aFlat4, "", aFlat4, "G#4"); // empty
    }

    void addCents()
    {
        // +50.5 is the last deviation the spelling keeps.
        Note note(QStringLiteral("a4"), 0);
        note.addCents(50.5f);
        QCOMPARE(note.noteSpelling(), QStringLiteral("A4"));
        QVERIFY(!note.isEnharmonic());
        note.addCents(1.0f);
        QCOMPARE(note.noteSpelling(), QStringLiteral("Bb4"));
        QVERIFY(std::fabs(note.cents() + 48.5f) < 1e-3f);
        QVERIFY(note.isEnharmonic());

        Note low(QStringLiteral("c4"), 0);
        low.addCents(-60.0f);
        QCOMPARE(low.noteSpelling(), QStringLiteral("B3"));
        QVERIFY(std::fabs(low.cents() - 40.0f) < 1e-3f);
    }

    void pitchReference()
    {
        // A note's frequency is its spelled pitch at A4 = 440 Hz whatever the
        // calibration; deliberately so (see Note::toFrequency()).
        mOptions.mCalibrationFrequency = 442;
        QCOMPARE(Note(QStringLiteral("a4"), 0).toFrequency(), 440.0f);
        // The options are taken as read, so a calibration of 0 can reach here;
        // the pitch is then infinite or NaN and must not reach an int.
        mOptions.mCalibrationFrequency = 0;
        QCOMPARE(Note(440.0f, mOptions).noteSpelling(), QStringLiteral("C0"));
        mOptions.mCalibrationFrequency = 440;
        QCOMPARE(Note(0.0f, mOptions).noteSpelling(), QStringLiteral("C0"));
        QCOMPARE(Note(-440.0f, mOptions).noteSpelling(), QStringLiteral("C0"));
    }

    // The note cards along whole lattice paths. The cents are 1200 *
    // log2(base * ratio / calibration) + 5700 minus 100 times the semitone of
    // the spelling (C0 = 0), worked out in exact fractions and double
    // precision apart from this program.
    void cardSpelling()
    {
        auto row = [this](const char* baseNote, float base, int calibration, const QList<int>& steps,
                          const char* path, const char* spelling, double cents, bool enh = false) {
            setPitchReference(base, QString::fromLatin1(baseNote), calibration);
            mLattice->onTransposed(ArboRatio(1, 1), 0);
            // As the sound engine reports it: the whole new transposition and the step.
            ArboRatio ratio(1, 1);
            for (int step : steps) {
                ratio *= ArboRatio::pathRatio(ArboPath(static_cast<signed char>(step)));
                mLattice->onTransposed(ratio, step);
            }
            // A node of the lattice, as the cards show them.
            const ArboBall node(ArboPath(QString::fromLatin1(path)), Arbo::WHITE, mLattice->root());
            const Note note = CardNote::noteForBall(&node, mOptions, CardNote::justFrequency(&node));
            QVERIFY2(note.noteSpelling() == spelling && note.isEnharmonic() == enh &&
                         std::fabs(note.cents() - cents) < 0.01,
                     qPrintable(QString::asprintf("%s %d %s: %s%s %+.3f", baseNote, calibration, path,
                                                  qPrintable(note.noteSpelling()),
                                                  note.isEnharmonic() ? " (enharmonic)" : "",
                                                  double(note.cents()))));
        };
        const QList<int> none;
        auto a440 = [&](const QList<int>& steps, const char* path, const char* spelling,
                        double cents, bool enh = false) {
            row("A 4", 440.0f, 440, steps, path, spelling, cents, enh);
        };
        a440(none, "/", "A4", 0.0);
        a440(none, "/3", "E5", 1.955);
        a440(none, "/2/2", "A6", 0.0);
        a440(none, "/5", "C#5", -13.686);
        a440(none, "/7", "G5", -31.174);
        a440(none, "/11", "D#5", -48.682);
        a440(none, "/13", "F5", 40.528);
        a440(none, "/17", "Bb4", 4.955);
        a440(none, "/-17", "G#4", -4.955);
        a440(none, "/19", "C5", -2.487);
        a440(none, "/31", "G#5", 45.036);
        a440(none, "/5/-3", "F#4", -15.641);
        a440(none, "/7/-3", "C5", -33.129);
        a440(none, "/17/17", "Cb5", 9.911);
        a440(none, "/19/19/19", "Gb5", -7.461);
        // Chains of fifths: the Pythagorean comma grows by 1.955 cents a fifth.
        a440(none, "/3/3/3/3/3/3", "D#8", 11.730);
        a440(none, "/-3/-3/-3/-3/-3/-3", "Eb1", -11.730);
        // The transposition's steps are walked first.
        a440({3}, "/3/3/3/3/3/3", "A#8", 13.685);
        a440({-3}, "/3", "A4", 0.0);
        // Chains of thirds run into double sharps and flats and then give up.
        a440(none, "/5/5", "E#5", -27.373);
        a440(none, "/5/5/5", "G##5", -41.059);
        a440(none, "/5/5/5/5", "C6", 45.255, true); // B## would be 55 cents off
        a440({5}, "/5/5/5", "C6", 45.255, true);
        a440(none, "/5/5/5/5/5/5", "G#6", 17.882, true);
        a440(none, "/7/7", "E6", 37.652, true);
        // A base note named with a flat (tempered Ab4): the walk starts from Ab.
        row("Ab 4", 415.304688f, 440, none, "/", "Ab4", 0.0);
        row("Ab 4", 415.304688f, 440, none, "/-5", "Fb4", 13.686);
        row("Ab 4", 415.304688f, 440, none, "/-5/-5", "Dbb4", 27.373);
        row("Ab 4", 415.304688f, 440, none, "/7", "Gb5", -31.174);
        // Calibration 442 with the base at 440: every reading 7.85 cents lower.
        row("A 4", 440.0f, 442, none, "/", "A4", -7.851);
        row("A 4", 440.0f, 442, none, "/11", "D5", 43.467, true);
        row("A 4", 440.0f, 442, none, "/5/5/5/5/5/5", "G#6", 10.031, true);
        row("A 4", 442.0f, 442, none, "/3", "E5", 1.955);
        // Below octave 0.
        row("A 0", 27.5f, 440, none, "/-3/-2/-2", "D-2", -1.955);
        row("A 0", 27.5f, 440, none, "/5/-2/-2", "C#-1", -13.686);
    }

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

    // Paths as text. Parts beyond the sixth are dropped without a word, even
    // invalid ones; a text that is no path leaves the one invalid step.
    // Parsing over a longer path leaves none of its bytes behind: the command
    // records copy paths byte for byte.
    void parsing()
    {
        const auto check = [](const QString& text, const QString& printed) { // empty: no path
            for (int parse = 0; parse < 2 && printed.isEmpty(); ++parse) {
                QTest::ignoreMessage(QtDebugMsg, qPrintable("Invalid path: \"" + text + '"'));
            }
            const ArboPath path(text);
            ArboPath reused(QStringLiteral("/2/3/5/7/11/13"));
            reused.storeFromString(text);
            const bool parsed =
                printed.isEmpty()
                    ? !path.isValid() && path.toList() == QList<int>{ArboPath::INVALID_STEP}
                    : path.isValid() && path.toString() == printed && ArboPath(printed) == path;
            QVERIFY2(parsed && std::memcmp(&reused, &path, sizeof(ArboPath)) == 0, qPrintable(text));
        };
        check("/", "/");
        check("", "/");
        check("2//-3/", "/2/-3");
        check("/31/-29/23/-19/17/-13", "/31/-29/23/-19/17/-13");
        check("/3/3/3/3/3/3/3/x", "/3/3/3/3/3/3");
        for (const char* text : {"/4", "/1", "/0", "/-1", "/37", "/x", "/3/x/3", "/3.0", "/0x3",
                                 "/127", "/-128", "/256", "/259", "/99999999999999999999"}) {
            check(QString::fromLatin1(text), QString());
        }
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

    // Products of 64-bit ratios: whether the product fits (multiplyIfExact)
    // and whether it is exact (canMultiplyWith). Without overflow the plain
    // product agrees; with it, nothing changes.
    void multiplication()
    {
        auto row = [](const char* name, ArboRatio a, ArboRatio b, bool fits, bool exact) {
            if (!exact) {
                QTest::ignoreMessage(QtDebugMsg, QRegularExpression("^canMultiply fail on "));
            }
            ArboRatio product = a;
            const bool fitted = product.multiplyIfExact(b);
            QVERIFY2(a.canMultiplyWith(b) == exact && fitted == fits &&
                         product == (fits ? a * b : a),
                     name);
        };
        const U64 max = ~0ULL;
        const U64 two32 = 1ULL << 32;
        const U64 two62 = 1ULL << 62;
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

ARBO_TEST_MAIN(TestNotation)
#include "tst_notation.moc"
