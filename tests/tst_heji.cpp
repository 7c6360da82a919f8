// The Helmholtz-Ellis notation: ratios of every prime spelled above several
// 1/1 Notes, checked against the legend's commas worked out here; the drawn
// glyphs there for every sign; the sounding cards switching notation from the
// options dialog of a real window; and arbo-tuning's notate lines.

#include "display/arboballwidget.h"
#include "display/arboview.h"
#include "display/cardstackwidget.h"
#include "display/cardwidget.h"
#include "model/arbo.h"
#include "model/arbonoteevent.h"
#include "notation/hejispelling.h"
#include "notation/smuflglyphs.h"
#include "offlineplayer.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/mainwindow.h"
#include "ui/optionsdialog.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QLabel>
#include <QLoggingCategory>
#include <QProcess>
#include <QSet>
#include <QSvgRenderer>
#include <QSvgWidget>

#include <boost/rational.hpp>

#include <cmath>
#include <memory>

namespace {

using Rational = boost::rational<long long>;

Rational parseRatio(const QString& text)
{
    const QStringList parts = text.split('/');
    return Rational(parts.at(0).toLongLong(), parts.value(1, "1").toLongLong());
}

// "80/81*63/64": the commas a ratio carries, multiplied out.
Rational product(const QString& commas)
{
    Rational result(1);
    for (const QString& comma : commas.split('*')) {
        result *= parseRatio(comma);
    }
    return result;
}

// A note name such as "C#5", "Bb2" or "A 4" on the line of fifths (C 0, G 1,
// F -1; a sharp 7 further) and in equal-tempered semitones above C0.
struct NamedNote
{
    int fifths = 0;
    int semitones = 0;
};

NamedNote named(QString text)
{
    text.remove(' ');
    const int letter = QStringLiteral("FCGDAEB").indexOf(text.at(0)) - 1;
    const int accidental = text.count('#') - text.count('b');
    const int octave = text.mid(1 + std::abs(accidental)).toInt();
    const int semitone[7] = {5, 0, 7, 2, 9, 4, 11}; // F C G D A E B
    return {letter + 7 * accidental, 12 * octave + semitone[letter + 1] + accidental};
}

// 2^a * 3^b, exactly.
Rational pythagorean(int fifths, int octaves)
{
    Rational r(1);
    for (int i = 0; i < std::abs(fifths); ++i) {
        r *= fifths > 0 ? Rational(3) : Rational(1, 3);
    }
    for (int i = 0; i < std::abs(octaves); ++i) {
        r *= octaves > 0 ? Rational(2) : Rational(1, 2);
    }
    return r;
}

QString written(const HejiSpelling& s)
{
    const QString accidental =
        s.accidental() >= 0 ? QString(s.accidental(), '#') : QString(-s.accidental(), 'b');
    return s.letterText() + accidental + QString::number(s.octave());
}

QString label(const CardWidget* card, const char* name)
{
    auto* found = card->findChild<QLabel*>(QString::fromLatin1(name));
    return found ? found->text() : QStringLiteral("<no %1>").arg(QLatin1String(name));
}

// Letter, octave and cents, then the Helmholtz-Ellis signs or the
// conventional accidental drawn.
QString cardShows(const CardWidget* card)
{
    QStringList shown{label(card, "noteLabel"), label(card, "octaveLabel"),
                      label(card, "centsLabel")};
    for (const QSvgWidget* sign : card->findChildren<QSvgWidget*>("hejiSignSvg")) {
        shown << sign->property("glyph").toString() + (sign->isVisible() ? "" : "(hidden)");
    }
    if (card->findChild<QSvgWidget*>("accidentalSvg")->isVisible()) {
        shown << "accidental";
    }
    return shown.join(' ');
}

} // namespace

class TestHeji : public QObject
{
    Q_OBJECT

    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;

private slots:
    void initTestCase()
    {
        // The conventional spelling writes a debug line per step; none is
        // looked for here.
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
        OfflinePlayer::setUp(mPlayer, mArbo, "Sine.pd");
    }

    // Each row: the 1/1 Note, the ratio, the note it is written as, the
    // legend's commas that the ratio's primes carry (5: 80/81, 7: 63/64,
    // 11: 33/32, 13: 26/27, 17: 2176/2187, 19: 513/512, 23: 736/729,
    // 29: 261/256, 31: 31/32) and the signs, left to right.
    void spelling_data()
    {
        QTest::addColumn<QString>("reference");
        QTest::addColumn<QString>("ratio");
        QTest::addColumn<QString>("note");
        QTest::addColumn<QString>("commas");
        QTest::addColumn<QString>("signs");
        const auto row = [](const char* reference, const char* ratio, const char* note,
                            const char* commas, const char* signs) {
            QTest::addRow("%s %s", reference, ratio)
                << reference << ratio << note << commas << signs;
        };
        row("A 4", "1/1", "A4", "1", "accidentalNatural");
        row("A 4", "3/2", "E5", "1", "accidentalNatural");
        row("A 4", "5/4", "C#5", "80/81", "accidentalSharpOneArrowDown");
        row("A 4", "7/4", "G5", "63/64", "accidentalLowerOneSeptimalComma");
        row("A 4", "11/8", "D5", "33/32", "accidentalRaiseOneUndecimalQuartertone");
        row("A 4", "13/8", "F#5", "26/27",
            "accidentalLowerOneTridecimalQuartertone accidentalSharp");
        row("A 4", "17/16", "A#4", "2176/2187",
            "accidentalCombiningLower17Schisma accidentalSharp");
        row("A 4", "19/16", "C5", "513/512", "accidentalCombiningRaise19Schisma accidentalNatural");
        row("A 4", "23/16", "D#5", "736/729",
            "accidentalCombiningRaise23Limit29LimitComma accidentalSharp");
        row("A 4", "29/16", "G5", "261/256",
            "accidentalCombiningRaise29LimitComma accidentalNatural");
        row("A 4", "31/16", "A5", "31/32", "accidentalCombiningLower31Schisma accidentalNatural");
        row("A 4", "35/32", "B4", "80/81*63/64",
            "accidentalLowerOneSeptimalComma accidentalNaturalOneArrowDown");
        row("A 4", "25/16", "E#5", "80/81*80/81", "accidentalSharpTwoArrowsDown");
        row("A 4", "45/32", "D#5", "80/81", "accidentalSharpOneArrowDown");
        row("A 4", "77/64", "C5", "63/64*33/32",
            "accidentalRaiseOneUndecimalQuartertone accidentalLowerOneSeptimalComma");
        // Primes below the line turn their signs round; two septimal commas
        // are one sign; three arrows are the most there are.
        row("A 4", "4/5", "F4", "81/80", "accidentalNaturalOneArrowUp");
        row("A 4", "8/7", "B4", "64/63", "accidentalRaiseOneSeptimalComma");
        row("A 4", "49/32", "F5", "63/64*63/64", "accidentalLowerTwoSeptimalCommas");
        row("A 4", "125/64", "G##5", "80/81*80/81*80/81", "accidentalDoubleSharpThreeArrowsDown");
        // Other 1/1 Notes: the letter follows the reference's own spelling.
        row("C 4", "7/4", "Bb4", "63/64", "accidentalLowerOneSeptimalComma accidentalFlat");
        row("C 4", "15/16", "B3", "80/81", "accidentalNaturalOneArrowDown");
        row("Bb 2", "5/4", "D3", "80/81", "accidentalNaturalOneArrowDown");
        row("F# 3", "11/8", "B3", "33/32", "accidentalRaiseOneUndecimalQuartertone");
        row("Eb 4", "13/8", "C5", "26/27", "accidentalLowerOneTridecimalQuartertone");
        row("Db 4", "5/4", "F4", "80/81", "accidentalNaturalOneArrowDown");
        row("C# 4", "5/4", "E#4", "80/81", "accidentalSharpOneArrowDown");
        row("G 3", "19/17", "Bbb3", "513/512*2187/2176",
            "accidentalCombiningRaise19Schisma accidentalCombiningRaise17Schisma "
            "accidentalDoubleFlat");
    }

    void spelling()
    {
        QFETCH(QString, reference);
        QFETCH(QString, ratio);
        QFETCH(QString, note);
        QFETCH(QString, commas);
        QFETCH(QString, signs);

        // The table itself: without its commas the ratio is exactly the
        // Pythagorean interval (fifths and octaves) from the 1/1 to the note.
        const Rational r = parseRatio(ratio);
        const NamedNote from = named(reference);
        const NamedNote to = named(note);
        const int fifths = to.fifths - from.fifths;
        const int semitones = to.semitones - from.semitones;
        // 3 is a twelfth (19 semitones), 2 an octave.
        QVERIFY((semitones - 19 * fifths) % 12 == 0);
        const int octaves = (semitones - 19 * fifths) / 12;
        QCOMPARE(r / product(commas), pythagorean(fifths, octaves));

        const HejiSpelling s(r.numerator(), r.denominator(), reference);
        QVERIFY(s.isWritable());
        QCOMPARE(written(s), note);
        QCOMPARE(s.letterAndOctave(), QString(note).remove('#').remove('b'));
        QCOMPARE(s.glyphNames().join(' '), signs);
        const double cents =
            1200.0 * std::log2(double(r.numerator()) / double(r.denominator())) - 100.0 * semitones;
        QVERIFY2(std::abs(s.cents() - cents) < 1e-9, qPrintable(QString::number(s.cents())));
    }

    // What the signs cannot write, and what is no ratio of the lattice's
    // primes; every sign the spelling can name is a glyph of the table, and
    // the build drew each one from the font.
    void limitsAndGlyphs()
    {
        QVERIFY(HejiSpelling(1594323, 1048576, "A 4").isWritable()); // 13 fifths: D double sharp
        QVERIFY(!HejiSpelling(129140163, 67108864, "A 4").isWritable()); // 17: G triple sharp
        QVERIFY(HejiSpelling(625, 512, "A 4").isValid());
        QVERIFY(!HejiSpelling(625, 512, "A 4").isWritable()); // four arrows
        QVERIFY(!HejiSpelling(37, 32, "A 4").isValid());
        QVERIFY(!HejiSpelling(5, 4, "H 4").isValid());
        QVERIFY(!HejiSpelling(0, 1, "A 4").isValid());

        QSet<QString> named;
        const int primes[] = {3, 5, 7, 11, 13, 17, 19, 23, 29, 31};
        for (int prime : primes) {
            for (int e = -3; e <= 3; ++e) {
                for (int fifths = -26; fifths <= 26; ++fifths) {
                    unsigned long long n = 1;
                    unsigned long long d = 1;
                    for (int i = 0; i < std::abs(e); ++i) {
                        (e > 0 ? n : d) *= prime;
                    }
                    for (int i = 0; i < std::abs(fifths); ++i) {
                        (fifths > 0 ? n : d) *= 3;
                    }
                    const HejiSpelling s(n, d, "C 4");
                    for (const QString& glyph : s.glyphNames()) {
                        named.insert(glyph);
                    }
                }
            }
        }
        QSet<QString> table;
        for (const SmuflGlyphs::Glyph& glyph : SmuflGlyphs::all()) {
            table.insert(glyph.name);
            const QString file = TestSupport::binDir() + '/' + SmuflGlyphs::fileName(glyph.name);
            QVERIFY2(QSvgRenderer(file).isValid(), qPrintable(file));
        }
        const auto sorted = [](const QSet<QString>& set) {
            QStringList list = set.values();
            list.sort();
            return list;
        };
        QCOMPARE(sorted(named - table).join(' '), QString());
        QCOMPARE(sorted(table - named).join(' '), QString()); // and none of the table unused
    }

    // A chord's cards in a real window change notation as soon as the
    // options dialog says so, and return to exactly what they were.
    void cardsFollowTheOption()
    {
        MainWindow window(OfflinePlayer::parts(mPlayer, mArbo, mSettings));
        window.resize(1200, 820);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        CardStackWidget* stack = window.arboView()->cardStack();
        const auto card = [&](const char* path) {
            return stack->cardForBall(TestSupport::ballAt(window.arboView(), path));
        };
        for (const char* path : {"/", "/5", "/7"}) {
            const ArboNoteEvent event{ArboPath(QString::fromLatin1(path))};
            mPlayer.queueEventGui(&event);
        }
        QTRY_VERIFY((OfflinePlayer::runBuffer(mPlayer), stack->cards().size() == 3));
        const QString conventional = cardShows(card("/5")) + " | " + cardShows(card("/7"));
        QCOMPARE(conventional, QStringLiteral("C 5 -14 accidental | G 5 -31"));

        QTest::mouseClick(window.findChild<QAbstractButton*>("optionsButton"), Qt::LeftButton);
        QTRY_VERIFY(window.optionsDialog() && window.optionsDialog()->isVisible());
        auto* notation = window.optionsDialog()->findChild<QComboBox*>("notationBox");
        QCOMPARE(notation->currentText(), QStringLiteral("Conventional"));
        notation->setCurrentIndex(notation->findText("Helmholtz-Ellis"));
        QCOMPARE(mSettings.mNotation, Settings::Notation::HelmholtzEllis);
        QCOMPARE(cardShows(card("/")), QStringLiteral("A 4 0 accidentalNatural"));
        QCOMPARE(cardShows(card("/5")), QStringLiteral("C 5 -14 accidentalSharpOneArrowDown"));
        QCOMPARE(cardShows(card("/7")), QStringLiteral("G 5 -31 accidentalLowerOneSeptimalComma"));
        // Each sign in the colour of its prime.
        const auto drawnIn = [](const CardWidget* c, const QColor& color) {
            const QImage image = c->findChild<QSvgWidget*>("hejiSignSvg")->grab().toImage();
            for (int y = 0; y < image.height(); ++y) {
                for (int x = 0; x < image.width(); ++x) {
                    if (image.pixelColor(x, y) == color) {
                        return true;
                    }
                }
            }
            return false;
        };
        QVERIFY(drawnIn(card("/5"), mArbo.lookupColor(5)));
        QVERIFY(drawnIn(card("/7"), mArbo.lookupColor(7)));

        notation->setCurrentIndex(notation->findText("Conventional"));
        QCOMPARE(cardShows(card("/5")) + " | " + cardShows(card("/7")), conventional);
        window.optionsDialog()->close();
        const ArboEvent off(ArboEvent::AllNotesOff, 1.0f);
        mPlayer.queueEventGui(&off);
        QTRY_VERIFY((OfflinePlayer::runBuffer(mPlayer), stack->cards().isEmpty()));
    }

    // The tool writes the lines of the card, above --reference or the 1/1
    // Note of the options in the configuration folder.
    void toolNotates()
    {
        const auto notate = [](const QStringList& arguments) {
            QProcess tool;
            tool.start(TestSupport::binDir() + "/arbo-tuning", QStringList{"notate"} + arguments);
            return tool.waitForFinished(120000) && tool.exitCode() == 0
                       ? QString::fromUtf8(tool.readAllStandardOutput())
                       : "failed: " + QString::fromUtf8(tool.readAllStandardError());
        };
        QCOMPARE(notate({"5/4", "10/8", "--reference", "A4"}),
                 QStringLiteral("5/4\tC5\taccidentalSharpOneArrowDown\t-14\n"
                                "5/4\tC5\taccidentalSharpOneArrowDown\t-14\n"));
        QVERIFY(TestSupport::writeFile(TestSupport::configDir() + "/options.json",
                                       R"({"baseNote": "C 4"})"));
        QCOMPARE(notate({"7/4", "3/2"}),
                 QStringLiteral("7/4\tB4\taccidentalLowerOneSeptimalComma+accidentalFlat\t-31\n"
                                "3/2\tG4\taccidentalNatural\t+2\n"));
    }
};

ARBO_TEST_MAIN(TestHeji)
#include "tst_heji.moc"
