#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arbopath.h"
#include "model/arboratio.h"
#include "notation/cardnote.h"
#include "notation/note.h"
#include "notation/noteinterval.h"
#include "settings/appcontext.h"
#include "settings/settings.h"

#include "testsupport.h"

#include <QtTest>

#include <climits>
#include <cmath>
#include <memory>

namespace {

// Every step of a note writes a debug line. The test keeps them out of its
// output and records them, so that the lines which tell behaviour can be
// checked; everything but debug messages goes on to QtTest.
QtMessageHandler sPreviousHandler = nullptr;
QStringList sDebugLines;

void captureDebug(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtDebugMsg) {
        sDebugLines.append(message);
        return;
    }
    sPreviousHandler(type, context, message);
}

bool debugLineContains(const QString& text)
{
    for (const QString& line : qAsConst(sDebugLines)) {
        if (line.contains(text)) {
            return true;
        }
    }
    return false;
}

// The semitone (C0 = 0) of a spelling such as "G#5", "Bbb3" or "C-1", read the
// way a musician reads it. Kept apart from Note so that an expectation never
// borrows the code it checks.
double semitoneOfSpelling(const QString& spelling)
{
    static const QHash<QChar, int> LETTERS = {{'C', 0}, {'D', 2}, {'E', 4}, {'F', 5},
                                              {'G', 7}, {'A', 9}, {'B', 11}};
    int semitone = LETTERS.value(spelling.at(0));
    int i = 1;
    for (; i < spelling.size() && (spelling.at(i) == '#' || spelling.at(i) == 'b'); ++i) {
        semitone += spelling.at(i) == '#' ? 1 : -1;
    }
    return semitone + 12 * spelling.mid(i).toInt();
}

// The steps of a path text such as "/3/-2", read without the model's parser.
QList<int> stepsOfPath(const QString& text)
{
    QList<int> steps;
    const QStringList parts = text.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    for (const QString& part : parts) {
        steps.append(part.toInt());
    }
    return steps;
}

// The just ratio of a list of signed prime steps, from the octave-reduced
// ratio of each prime, in double precision.
double ratioOfSteps(const QList<int>& steps)
{
    static const QHash<int, double> RATIOS = {
        {2, 2.0},     {3, 1.5},     {5, 1.25},    {7, 1.75},    {11, 1.375}, {13, 1.625},
        {17, 1.0625}, {19, 1.1875}, {23, 1.4375}, {29, 1.8125}, {31, 1.9375}};
    double ratio = 1.0;
    for (int step : steps) {
        ratio = step > 0 ? ratio * RATIOS.value(step) : ratio / RATIOS.value(-step);
    }
    return ratio;
}

// The letter of a spelling counted in diatonic steps from C0.
int diatonicOfSpelling(const QString& spelling)
{
    const int letter = QStringLiteral("CDEFGAB").indexOf(spelling.at(0));
    int i = 1;
    while (i < spelling.size() && (spelling.at(i) == '#' || spelling.at(i) == 'b')) {
        ++i;
    }
    return letter + 7 * spelling.mid(i).toInt();
}

// How far the letter and the tempered pitch move for a step along each prime,
// as a musician names the interval: the fifth moves four letters and seven
// semitones, the septimal seventh six letters and ten semitones, and so on.
struct IntervalMove
{
    int letters;
    int semitones;
};

IntervalMove moveOfStep(int step)
{
    static const QHash<int, IntervalMove> MOVES = {
        {2, {7, 12}}, {3, {4, 7}},  {5, {2, 4}},  {7, {6, 10}},  {11, {3, 6}}, {13, {5, 8}},
        {17, {1, 1}}, {19, {2, 3}}, {23, {3, 6}}, {29, {6, 10}}, {31, {6, 11}}};
    const IntervalMove move = MOVES.value(step < 0 ? -step : step);
    return step < 0 ? IntervalMove{-move.letters, -move.semitones} : move;
}

} // namespace

class TestNotation : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void intervalOfPrime_data();
    void intervalOfPrime();
    void intervalFromText_data();
    void intervalFromText();
    void intervalKeepsQualityOfUnknownWord();

    void noteFromText_data();
    void noteFromText();
    void noteFromSemitone_data();
    void noteFromSemitone();
    void noteFromSemitoneKeepsPitch();
    void noteFromWholeSemitoneAndCents();
    void noteFromFrequency_data();
    void noteFromFrequency();
    void baseNoteOverridesSpelling_data();
    void baseNoteOverridesSpelling();
    void calibrationMovesReadingButNotFrequency();
    void nonsenseReferenceLeavesNoteDefined();

    void addInterval_data();
    void addInterval();
    void addIntervalToEnharmonicFollowsFrequency();
    void addCents();

    void cardReadings();
    void cardSpelling_data();
    void cardSpelling();
    void everyCardOfTheDefaultLattice_data();
    void everyCardOfTheDefaultLattice();
    void cardWithoutLattice();

private:
    void setPitchReference(float baseFrequency, const QString& baseNote, int calibration);
    void transpose(const QList<int>& steps);
    Note cardNote(const QString& path, float* frequency = nullptr);

    Settings mOptions;
    Arbo* mLattice = nullptr;
};

void TestNotation::initTestCase()
{
    sPreviousHandler = qInstallMessageHandler(captureDebug);
    AppContext::setSettings(&mOptions);
    mLattice = new Arbo(this);
    AppContext::setLattice(mLattice);
}

void TestNotation::init()
{
    // Every test starts from the pitch reference a new user has.
    mOptions.mCalibrationFrequency = 440;
    mOptions.mBaseFrequency = 440.0f;
    mOptions.mBaseNote = QStringLiteral("A 4");
    AppContext::setLattice(mLattice);
    mLattice->onBaseFrequencyChanged(440.0f);
    mLattice->onTransposed(ArboRatio(1, 1), 0);
    sDebugLines.clear();
}

void TestNotation::cleanupTestCase()
{
    AppContext::setLattice(nullptr);
    AppContext::setSettings(nullptr);
    qInstallMessageHandler(sPreviousHandler);
}

void TestNotation::intervalOfPrime_data()
{
    QTest::addColumn<int>("prime");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("semitones");

    QTest::newRow("octave") << 2 << "p8" << 12;
    QTest::newRow("fifth") << 3 << "p5" << 7;
    QTest::newRow("major third") << 5 << "M3" << 4;
    QTest::newRow("septimal seventh") << 7 << "m7" << 10;
    QTest::newRow("11 is a tritone") << 11 << "aug4" << 6;
    QTest::newRow("13 is a minor sixth") << 13 << "m6" << 8;
    QTest::newRow("17 is a minor second") << 17 << "m2" << 1;
    QTest::newRow("19 is a minor third") << 19 << "m3" << 3;
    QTest::newRow("23 is a tritone too") << 23 << "aug4" << 6;
    QTest::newRow("29 is a minor seventh") << 29 << "m7" << 10;
    QTest::newRow("31 is a major seventh") << 31 << "M7" << 11;
    QTest::newRow("fifth down") << -3 << "-p5" << -7;
    QTest::newRow("octave down") << -2 << "-p8" << -12;
    QTest::newRow("third down") << -5 << "-M3" << -4;
    // Numbers outside the table: no word, steps -1, no semitones.
    QTest::newRow("37") << 37 << "0" << 0;
    QTest::newRow("1") << 1 << "0" << 0;
    QTest::newRow("0") << 0 << "0" << 0;
    QTest::newRow("composite 9") << 9 << "0" << 0;
    QTest::newRow("-37") << -37 << "-0" << 0;
    QTest::newRow("most negative int") << INT_MIN << "-0" << 0;
}

void TestNotation::intervalOfPrime()
{
    QFETCH(int, prime);
    QFETCH(QString, text);
    QFETCH(int, semitones);

    const NoteInterval interval(prime);
    QCOMPARE(interval.toString(), text);
    QCOMPARE(interval.toSemitoneDistance(), semitones);
    QCOMPARE(interval.octaves(), 0);
    // The text form reads back as the same interval.
    const NoteInterval reread(text);
    QCOMPARE(reread.toString(), text);
    QCOMPARE(reread.toSemitoneDistance(), semitones);
}

void TestNotation::intervalFromText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("direction");
    QTest::addColumn<int>("steps");
    QTest::addColumn<int>("quality");
    QTest::addColumn<QString>("printed");
    QTest::addColumn<int>("semitones");

    // A perfect interval is diminished by one semitone, an imperfect one by two.
    QTest::newRow("dim5") << "dim5" << 1 << 4 << -1 << "dim5" << 6;
    QTest::newRow("dim3") << "dim3" << 1 << 2 << -2 << "dim3" << 2;
    QTest::newRow("dim8") << "dim8" << 1 << 7 << -1 << "dim8" << 11;
    QTest::newRow("dim7") << "dim7" << 1 << 6 << -2 << "dim7" << 9;
    QTest::newRow("aug2") << "aug2" << 1 << 1 << 1 << "aug2" << 3;
    QTest::newRow("-m6") << "-m6" << -1 << 5 << -1 << "-m6" << -8;
    QTest::newRow("unison") << "p1" << 1 << 0 << 0 << "p1" << 0;
    // The word is not checked against the kind of interval.
    QTest::newRow("p3 is a major third") << "p3" << 1 << 2 << 0 << "M3" << 4;
    QTest::newRow("M5 is a fifth") << "M5" << 1 << 4 << 0 << "p5" << 7;
    // One digit only: "p12" is the word "p1" (unknown) and the number 2.
    QTest::newRow("two digits") << "p12" << 1 << 1 << 0 << "M2" << 2;
    // A ninth has no major/perfect size and no word.
    QTest::newRow("ninth") << "M9" << 1 << 8 << 0 << "9" << 0;
    QTest::newRow("aug ninth") << "aug9" << 1 << 8 << 1 << "aug9" << 1;
    QTest::newRow("no number") << "aug" << 1 << -1 << 0 << "0" << 0;
    QTest::newRow("empty") << "" << 1 << -1 << 0 << "0" << 0;
    QTest::newRow("minus only") << "-" << -1 << -1 << 0 << "-0" << 0;
}

void TestNotation::intervalFromText()
{
    QFETCH(QString, text);
    QFETCH(int, direction);
    QFETCH(int, steps);
    QFETCH(int, quality);
    QFETCH(QString, printed);
    QFETCH(int, semitones);

    const NoteInterval interval(text);
    QCOMPARE(interval.direction(), direction);
    QCOMPARE(interval.steps(), steps);
    QCOMPARE(interval.quality(), quality);
    QCOMPARE(interval.toString(), printed);
    QCOMPARE(interval.toSemitoneDistance(), semitones);
}

void TestNotation::intervalKeepsQualityOfUnknownWord()
{
    NoteInterval interval(QStringLiteral("m3"));
    interval.storeFromString(QStringLiteral("x6"));
    QCOMPARE(interval.toString(), QStringLiteral("m6"));
    QCOMPARE(interval.toSemitoneDistance(), 8);
    // A prime outside the table keeps it as well, and it still counts.
    interval.storeFromPrime(4);
    QCOMPARE(interval.quality(), -1);
    QCOMPARE(interval.steps(), -1);
    QCOMPARE(interval.toSemitoneDistance(), -1);

    interval.init();
    QCOMPARE(interval.toString(), QStringLiteral("p1"));
    QCOMPARE(interval.direction(), 1);
}

void TestNotation::noteFromText_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("letter");
    QTest::addColumn<int>("accidental");
    QTest::addColumn<int>("octave");
    QTest::addColumn<QString>("spelling");

    QTest::newRow("a4") << "a4" << 5 << 0 << 4 << "A4";
    QTest::newRow("B3b") << "B3b" << 6 << -1 << 3 << "Bb3";
    QTest::newRow("f5##") << "f5##" << 3 << 2 << 5 << "F##5";
    QTest::newRow("e2bb") << "e2bb" << 2 << -2 << 2 << "Ebb2";
    QTest::newRow("G1#") << "G1#" << 4 << 1 << 1 << "G#1";
    QTest::newRow("negative octave") << "c-1" << 0 << 0 << -1 << "C-1";
    // The accidental goes after the octave: "Bb4" is a natural B of octave 0.
    QTest::newRow("Bb4") << "Bb4" << 6 << 0 << 0 << "B0";
    QTest::newRow("no octave") << "d#" << 1 << 1 << 0 << "D#0";
    QTest::newRow("triple sharp is no accidental") << "d4###" << 1 << 0 << 4 << "D4";
    QTest::newRow("trailing junk") << "e4x" << 2 << 0 << 4 << "E4";
    QTest::newRow("minus after digits") << "g4-" << 4 << 0 << 0 << "G0";
    // An unknown letter leaves the letter as it was (C after construction).
    QTest::newRow("unknown letter") << "h4" << 0 << 0 << 4 << "C4";
    QTest::newRow("empty") << "" << 0 << 0 << 0 << "C0";
}

void TestNotation::noteFromText()
{
    QFETCH(QString, text);
    QFETCH(int, letter);
    QFETCH(int, accidental);
    QFETCH(int, octave);
    QFETCH(QString, spelling);

    const Note note(text, 12);
    QCOMPARE(note.note(), letter);
    QCOMPARE(note.accidental(), accidental);
    QCOMPARE(note.octave(), octave);
    QCOMPARE(note.cents(), 12.0f);
    QCOMPARE(note.noteSpelling(), spelling);
    QCOMPARE(note.isEnharmonic(), false);
    QVERIFY(debugLineContains(QStringLiteral("Note init 1")));
}

void TestNotation::noteFromSemitone_data()
{
    QTest::addColumn<float>("semitone");
    QTest::addColumn<QString>("spelling");
    QTest::addColumn<float>("cents");

    QTest::newRow("A4") << 57.0f << "A4" << 0.0f;
    QTest::newRow("middle C") << 48.0f << "C4" << 0.0f;
    QTest::newRow("61.6 goes up") << 61.6f << "D5" << -40.0f;
    QTest::newRow("61.4 stays") << 61.4f << "C#5" << 40.0f;
    QTest::newRow("half-way stays low") << 56.5f << "G#4" << 50.0f;
    QTest::newRow("Eb") << 51.0f << "Eb4" << 0.0f;
    QTest::newRow("F#") << 54.0f << "F#4" << 0.0f;
    QTest::newRow("Bb") << 58.0f << "Bb4" << 0.0f;
    QTest::newRow("C0") << 0.0f << "C0" << 0.0f;
    QTest::newRow("just below C0") << -0.3f << "C0" << -30.0f;
    QTest::newRow("B-1") << -1.0f << "B-1" << 0.0f;
    QTest::newRow("B-1 up") << -0.7f << "B-1" << 30.0f;
    QTest::newRow("half-way below C0") << -0.5f << "B-1" << 50.0f;
    QTest::newRow("C-1") << -12.0f << "C-1" << 0.0f;
    QTest::newRow("Bb-2 up") << -13.7f << "Bb-2" << 30.0f;
    QTest::newRow("high") << 127.0f << "G10" << 0.0f;
}

void TestNotation::noteFromSemitone()
{
    QFETCH(float, semitone);
    QFETCH(QString, spelling);
    QFETCH(float, cents);

    Note note;
    note.storeFromSemitone(semitone, false);
    QCOMPARE(note.noteSpelling(), spelling);
    QVERIFY2(std::fabs(note.cents() - cents) < 1e-3f, qPrintable(QString::number(note.cents())));
    QCOMPARE(note.isEnharmonic(), false);
}

void TestNotation::noteFromSemitoneKeepsPitch()
{
    // Whatever the pitch, the spelling plus the cents is the pitch again, the
    // cents stay within the window and only the most common accidentals occur.
    for (int tenth = -300; tenth <= 1300; ++tenth) {
        const float semitone = tenth / 10.0f;
        Note note;
        note.storeFromSemitone(semitone, false);
        const QString what =
            QStringLiteral("%1 -> %2 %3").arg(semitone).arg(note.noteSpelling()).arg(note.cents());
        QVERIFY2(std::fabs(note.toSemitonePitch() - semitone) < 1e-4f, qPrintable(what));
        QVERIFY2(std::fabs(semitoneOfSpelling(note.noteSpelling()) + note.cents() / 100.0 -
                           semitone) < 1e-4,
                 qPrintable(what));
        QVERIFY2(note.cents() > -49.5f && note.cents() <= 50.5f, qPrintable(what));
        QVERIFY2(note.accidental() >= -1 && note.accidental() <= 1, qPrintable(what));
    }
}

void TestNotation::noteFromWholeSemitoneAndCents()
{
    // The cents of this constructor count in whole hundreds only.
    QCOMPARE(Note(57, 0).noteSpelling(), QStringLiteral("A4"));
    QCOMPARE(Note(57, 99).noteSpelling(), QStringLiteral("A4"));
    QCOMPARE(Note(57, 99).cents(), 0.0f);
    QCOMPARE(Note(57, 100).noteSpelling(), QStringLiteral("Bb4"));
    QCOMPARE(Note(60, -250).noteSpelling(), QStringLiteral("Bb4"));
    QCOMPARE(Note(-1, 0).noteSpelling(), QStringLiteral("B-1"));
    QVERIFY(debugLineContains(QStringLiteral("Note init 2")));
}

void TestNotation::noteFromFrequency_data()
{
    QTest::addColumn<float>("frequency");
    QTest::addColumn<QString>("spelling");
    QTest::addColumn<double>("cents");

    QTest::newRow("A4") << 440.0f << "A4" << 0.0;
    QTest::newRow("A0") << 27.5f << "A0" << 0.0;
    QTest::newRow("A7") << 3520.0f << "A7" << 0.0;
    QTest::newRow("middle C") << 261.625565f << "C4" << 0.0;
    QTest::newRow("just fifth") << 660.0f << "E5" << 1.955;
    QTest::newRow("just third") << 550.0f << "C#5" << -13.686;
    QTest::newRow("septimal seventh") << 770.0f << "G5" << -31.174;
    QTest::newRow("quarter tone sharp") << 452.892984f << "A4" << 50.0;
    QTest::newRow("past the window") << 453.2f << "Bb4" << -48.83;
}

void TestNotation::noteFromFrequency()
{
    QFETCH(float, frequency);
    QFETCH(QString, spelling);
    QFETCH(double, cents);

    const Note note(frequency);
    QCOMPARE(note.noteSpelling(), spelling);
    QVERIFY2(std::fabs(note.cents() - cents) < 0.01, qPrintable(QString::number(note.cents())));
    QVERIFY(debugLineContains(QStringLiteral("Note init 3")));
    QVERIFY(debugLineContains(QStringLiteral("storeFromFreq freq")));
    // Back to a frequency from the spelled pitch at A4 = 440 Hz.
    QVERIFY2(std::fabs(note.toFrequency() - frequency) < frequency * 1e-5f,
             qPrintable(QString::number(note.toFrequency())));
}

void TestNotation::baseNoteOverridesSpelling_data()
{
    QTest::addColumn<float>("baseFrequency");
    QTest::addColumn<QString>("baseNote");
    QTest::addColumn<float>("frequency");
    QTest::addColumn<QString>("spelling");

    const float aFlat4 = 415.304698f;
    QTest::newRow("Ab instead of G#") << aFlat4 << "Ab 4" << aFlat4 << "Ab4";
    QTest::newRow("only at the base frequency") << aFlat4 << "Ab 4" << 415.31f << "G#4";
    QTest::newRow("G# as named") << aFlat4 << "G# 4" << aFlat4 << "G#4";
    QTest::newRow("D# instead of Eb") << 311.126984f << "D# 4" << 311.126984f << "D#4";
    QTest::newRow("natural") << 440.0f << "A 4" << 440.0f << "A4";
    // The name is taken even where it is not the pitch, and the octave always
    // comes from the pitch: B4 named "Cb 5" reads Cb4.
    QTest::newRow("Cb keeps B's octave") << 493.883301f << "Cb 5" << 493.883301f << "Cb4";
    QTest::newRow("unknown sign keeps accidental") << aFlat4 << "Gx4" << aFlat4 << "G#4";
    QTest::newRow("letter only") << aFlat4 << "A" << aFlat4 << "A#4";
    QTest::newRow("empty") << aFlat4 << "" << aFlat4 << "G#4";
}

void TestNotation::baseNoteOverridesSpelling()
{
    QFETCH(float, baseFrequency);
    QFETCH(QString, baseNote);
    QFETCH(float, frequency);
    QFETCH(QString, spelling);

    mOptions.mBaseFrequency = baseFrequency;
    mOptions.mBaseNote = baseNote;
    const Note note(frequency);
    QCOMPARE(note.noteSpelling(), spelling);
    QVERIFY(std::fabs(note.cents()) < 0.05f);
    QCOMPARE(debugLineContains(QStringLiteral("Most common spelling overridden")),
             frequency == baseFrequency);
}

void TestNotation::calibrationMovesReadingButNotFrequency()
{
    mOptions.mCalibrationFrequency = 442;
    const Note a(440.0f);
    QCOMPARE(a.noteSpelling(), QStringLiteral("A4"));
    const double expected = 1200.0 * std::log2(440.0 / 442.0); // -7.851
    QVERIFY2(std::fabs(a.cents() - expected) < 0.01, qPrintable(QString::number(a.cents())));
    // The frequency of a note always answers from A4 = 440 Hz: the A4 that
    // reads 7.85 cents flat at 442 is 7.85 cents below 440.
    QVERIFY2(std::fabs(a.toFrequency() - 440.0 * std::pow(2.0, expected / 1200.0)) < 0.01,
             qPrintable(QString::number(a.toFrequency())));
    QVERIFY(std::fabs(Note(442.0f).cents()) < 0.01f);
    QVERIFY(std::fabs(Note(QStringLiteral("a4"), 0).toFrequency() - 440.0f) < 0.001f);
}

void TestNotation::nonsenseReferenceLeavesNoteDefined()
{
    // The options are taken as read, so a calibration of 0 can reach here.
    mOptions.mCalibrationFrequency = 0;
    const Note a(440.0f);
    QCOMPARE(a.noteSpelling(), QStringLiteral("C0"));
    mOptions.mCalibrationFrequency = 440;
    const Note silence(0.0f);
    QCOMPARE(silence.noteSpelling(), QStringLiteral("C0"));
    const Note negative(-440.0f);
    QCOMPARE(negative.noteSpelling(), QStringLiteral("C0"));
}

void TestNotation::addInterval_data()
{
    QTest::addColumn<QString>("start");
    QTest::addColumn<int>("prime");
    QTest::addColumn<QString>("spelling");
    QTest::addColumn<bool>("enharmonic");

    QTest::newRow("fifth above C") << "c4" << 3 << "G4" << false;
    QTest::newRow("fifth above G crosses the octave") << "g4" << 3 << "D5" << false;
    QTest::newRow("fifth below C") << "c4" << -3 << "F3" << false;
    QTest::newRow("fifth below D") << "d4" << -3 << "G3" << false;
    QTest::newRow("third above E") << "e4" << 5 << "G#4" << false;
    QTest::newRow("third above C#") << "c5#" << 5 << "E#5" << false;
    QTest::newRow("third above E#") << "e5#" << 5 << "G##5" << false;
    QTest::newRow("third above D## gives up") << "d5##" << 5 << "G#5" << true;
    QTest::newRow("third below Cb") << "c4b" << -5 << "Abb3" << false;
    QTest::newRow("third below Dbb gives up") << "d4bb" << -5 << "G#3" << true;
    QTest::newRow("octave up") << "c4" << 2 << "C5" << false;
    QTest::newRow("octave down") << "c4" << -2 << "C3" << false;
    QTest::newRow("seventh above A") << "a4" << 7 << "G5" << false;
    QTest::newRow("seventh below A") << "a4" << -7 << "B3" << false;
    QTest::newRow("11 above C") << "c4" << 11 << "F#4" << false;
    QTest::newRow("13 above C") << "c4" << 13 << "Ab4" << false;
    QTest::newRow("17 above C") << "c4" << 17 << "Db4" << false;
    QTest::newRow("19 above C") << "c4" << 19 << "Eb4" << false;
    QTest::newRow("23 above C") << "c4" << 23 << "F#4" << false;
    QTest::newRow("29 above C") << "c4" << 29 << "Bb4" << false;
    QTest::newRow("31 above C") << "c4" << 31 << "B4" << false;
    QTest::newRow("31 below C") << "c4" << -31 << "Db3" << false;
    // Around and below octave 0.
    QTest::newRow("fifth below C0") << "c0" << -3 << "F-1" << false;
    QTest::newRow("octave below C0") << "c0" << -2 << "C-1" << false;
    QTest::newRow("octave below A0") << "a0" << -2 << "A-1" << false;
    QTest::newRow("fifth above G-1") << "g-1" << 3 << "D0" << false;
    QTest::newRow("fifth above C-1") << "c-1" << 3 << "G-1" << false;
    QTest::newRow("fifth below D-1") << "d-1" << -3 << "G-2" << false;
    QTest::newRow("second above B-1") << "b-1" << 17 << "C0" << false;
    QTest::newRow("second below C0") << "c0" << -17 << "B-1" << false;
    QTest::newRow("octave below C1") << "c1" << -2 << "C0" << false;
    // Outside the table: the letter moves, the pitch stays.
    QTest::newRow("37 above C") << "c4" << 37 << "B#3" << false;
    QTest::newRow("37 above B") << "b4" << 37 << "A##4" << false;
    QTest::newRow("37 above D# gives up") << "d4#" << 37 << "Eb4" << true;
    QTest::newRow("37 below C") << "c4" << -37 << "Dbb4" << false;
    QTest::newRow("37 below B") << "b4" << -37 << "Cb5" << false;
}

void TestNotation::addInterval()
{
    QFETCH(QString, start);
    QFETCH(int, prime);
    QFETCH(QString, spelling);
    QFETCH(bool, enharmonic);

    Note note(start, 0);
    const float before = note.toSemitonePitch();
    note.addInterval(prime);
    QCOMPARE(note.noteSpelling(), spelling);
    QCOMPARE(note.isEnharmonic(), enharmonic);
    QCOMPARE(note.cents(), 0.0f);
    // The spelling moves by exactly the interval's tempered size.
    QCOMPARE(note.toSemitonePitch() - before,
             static_cast<float>(NoteInterval(prime).toSemitoneDistance()));
    QCOMPARE(semitoneOfSpelling(spelling), static_cast<double>(note.toSemitonePitch()));
    QCOMPARE(debugLineContains(QStringLiteral("Accidental outside of borders")), enharmonic);
    QVERIFY(debugLineContains(QStringLiteral("addInterval: ")));
}

void TestNotation::addIntervalToEnharmonicFollowsFrequency()
{
    // An enharmonic note moves by the just ratio, not by the interval's
    // tempered size, and is spelled by the most common name of its pitch.
    Note note(QStringLiteral("a4"), 0);
    note.makeEnharmonic();
    note.addInterval(3);
    QCOMPARE(note.noteSpelling(), QStringLiteral("E5"));
    QVERIFY(std::fabs(note.cents() - 1.955f) < 0.01f);
    QVERIFY(note.isEnharmonic());
    QVERIFY(debugLineContains(QStringLiteral("Note is already in enharmonic presentation.")));

    // Eight major thirds up from A: C#, E#, G##, B##, then D### gives up and
    // the rest follow the just ratio, never spelled beyond the most common
    // accidentals.
    Note chain(QStringLiteral("a3"), 0);
    double pitch = 45.0;
    for (int i = 0; i < 8; ++i) {
        const bool wasEnharmonic = chain.isEnharmonic();
        chain.addInterval(5);
        pitch += wasEnharmonic ? 12.0 * std::log2(1.25) : 4.0;
        QVERIFY2(chain.accidental() >= -2 && chain.accidental() <= 2,
                 qPrintable(chain.noteSpelling()));
        QCOMPARE(chain.isEnharmonic(), i >= 4);
        if (chain.isEnharmonic()) {
            QVERIFY2(chain.accidental() >= -1 && chain.accidental() <= 1,
                     qPrintable(chain.noteSpelling()));
        }
        QVERIFY2(std::fabs(chain.toSemitonePitch() - pitch) < 0.001,
                 qPrintable(QString::number(chain.toSemitonePitch())));
    }
    // 65 + 3 just thirds = 76.589: F6 41 cents flat.
    QCOMPARE(chain.noteSpelling(), QStringLiteral("F6"));
}

void TestNotation::addCents()
{
    Note note(QStringLiteral("a4"), 0);
    note.addCents(30.0f);
    QCOMPARE(note.noteSpelling(), QStringLiteral("A4"));
    QCOMPARE(note.cents(), 30.0f);
    QVERIFY(!note.isEnharmonic());

    // Exactly +50.5 is the last deviation the spelling keeps.
    note.addCents(20.5f);
    QCOMPARE(note.noteSpelling(), QStringLiteral("A4"));
    QVERIFY(!note.isEnharmonic());

    note.addCents(4.5f);
    QCOMPARE(note.noteSpelling(), QStringLiteral("Bb4"));
    QVERIFY(std::fabs(note.cents() + 45.0f) < 1e-3f);
    QVERIFY(note.isEnharmonic());
    QVERIFY(debugLineContains(QStringLiteral("breaking out of rule system")));

    // Once given up, the interval logic stays given up even when the cents
    // come back into range.
    note.addCents(10.0f);
    QVERIFY(note.isEnharmonic());

    Note low(QStringLiteral("c4"), 0);
    low.addCents(-60.0f);
    QCOMPARE(low.noteSpelling(), QStringLiteral("B3"));
    QVERIFY(std::fabs(low.cents() - 40.0f) < 1e-3f);
    QVERIFY(low.isEnharmonic());

    // A double sharp that walks out of range takes the most common spelling.
    Note sharp(QStringLiteral("f4##"), 0);
    sharp.addCents(70.0f);
    QCOMPARE(sharp.noteSpelling(), QStringLiteral("G#4"));
    QVERIFY(std::fabs(sharp.cents() + 30.0f) < 1e-3f);
}

void TestNotation::setPitchReference(float baseFrequency, const QString& baseNote, int calibration)
{
    // The application keeps the options' base frequency and the lattice's in
    // step (both follow the player); so does the test.
    mOptions.mBaseFrequency = baseFrequency;
    mOptions.mBaseNote = baseNote;
    mOptions.mCalibrationFrequency = calibration;
    mLattice->onBaseFrequencyChanged(baseFrequency);
}

void TestNotation::transpose(const QList<int>& steps)
{
    // As the sound engine reports it: the whole new transposition and the step.
    ArboRatio transposition(1, 1);
    for (int step : steps) {
        transposition *= ArboRatio::pathRatio(ArboPath(static_cast<signed char>(step)));
        mLattice->onTransposed(transposition, step);
    }
    QCOMPARE(mLattice->transposeSteps(), steps);
}

Note TestNotation::cardNote(const QString& path, float* frequency)
{
    const ArboBall node(ArboPath(path), Arbo::WHITE, nullptr);
    const float f = CardNote::justFrequency(&node);
    if (frequency) {
        *frequency = f;
    }
    return CardNote::noteForBall(&node, f);
}

void TestNotation::cardReadings()
{
    // What the card's labels show, rounded to whole cents.
    Note root = cardNote(QStringLiteral("/"));
    QCOMPARE(root.noteSpelling(), QStringLiteral("A4"));
    QCOMPARE(root.cents(), 0.0f);

    float frequency = 0.0f;
    const Note fifth = cardNote(QStringLiteral("/3"), &frequency);
    QCOMPARE(frequency, 660.0f);
    QCOMPARE(fifth.noteSpelling(), QStringLiteral("E5"));
    QCOMPARE(qRound(fifth.cents()), 2);
    QVERIFY(debugLineContains(QStringLiteral("centsDiff: ")));

    // The just major third lies 13.7 cents below the tempered one.
    const Note third = cardNote(QStringLiteral("/5"));
    QCOMPARE(third.noteSpelling(), QStringLiteral("C#5"));
    QVERIFY2(std::fabs(third.cents() + 13.686f) < 0.01f,
             qPrintable(QString::number(third.cents())));
    QCOMPARE(qRound(third.cents()), -14);

    const Note seventh = cardNote(QStringLiteral("/7"));
    QCOMPARE(seventh.noteSpelling(), QStringLiteral("G5"));
    QCOMPARE(qRound(seventh.cents()), -31);
    QVERIFY(!seventh.isEnharmonic());

    // A4 at 442: the 440 Hz base reads 7.85 cents flat, its fifth 5.9 flat.
    setPitchReference(440.0f, QStringLiteral("A 4"), 442);
    QCOMPARE(qRound(cardNote(QStringLiteral("/")).cents()), -8);
    const Note flatFifth = cardNote(QStringLiteral("/3"));
    QCOMPARE(flatFifth.noteSpelling(), QStringLiteral("E5"));
    QCOMPARE(qRound(flatFifth.cents()), -6);
    // Base and calibration both at 442: in tune again.
    setPitchReference(442.0f, QStringLiteral("A 4"), 442);
    QCOMPARE(cardNote(QStringLiteral("/")).cents(), 0.0f);
    QCOMPARE(qRound(cardNote(QStringLiteral("/3")).cents()), 2);

    // A base note named with a flat: the walk starts from Ab, so the fifth is
    // Eb, not D#.
    setPitchReference(415.304688f, QStringLiteral("Ab 4"), 440);
    QCOMPARE(cardNote(QStringLiteral("/")).noteSpelling(), QStringLiteral("Ab4"));
    const Note flatKeyFifth = cardNote(QStringLiteral("/3"));
    QCOMPARE(flatKeyFifth.noteSpelling(), QStringLiteral("Eb5"));
    QCOMPARE(qRound(flatKeyFifth.cents()), 2);
}

void TestNotation::cardSpelling_data()
{
    QTest::addColumn<QString>("baseNote");
    QTest::addColumn<float>("baseFrequency");
    QTest::addColumn<int>("calibration");
    QTest::addColumn<QList<int>>("transposition");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("spelling");
    QTest::addColumn<bool>("enharmonic");

    const QList<int> none;
    auto row = [&](const char* name, const QList<int>& transposition, const char* path,
                   const char* spelling, bool enharmonic = false) {
        QTest::newRow(name) << "A 4" << 440.0f << 440 << transposition << path << spelling
                            << enharmonic;
    };
    // One step along every prime, up and down.
    row("root", none, "/", "A4");
    row("fifth", none, "/3", "E5");
    row("fifth down", none, "/-3", "D4");
    row("octave", none, "/2", "A5");
    row("octave down", none, "/-2", "A3");
    row("major third", none, "/5", "C#5");
    row("major third down", none, "/-5", "F4");
    row("septimal seventh", none, "/7", "G5");
    row("septimal seventh down", none, "/-7", "B3");
    row("11", none, "/11", "D#5");
    row("13", none, "/13", "F5");
    row("17", none, "/17", "Bb4");
    row("17 down", none, "/-17", "G#4");
    row("19", none, "/19", "C5");
    row("23", none, "/23", "D#5");
    row("29", none, "/29", "G5");
    row("31", none, "/31", "G#5");
    row("31 octave down", none, "/31/-2", "G#4");
    // Chains of fifths: the Pythagorean comma grows by 1.955 cents a fifth.
    row("two fifths", none, "/3/3", "B5");
    row("three fifths", none, "/3/3/3", "F#6");
    row("four fifths", none, "/3/3/3/3", "C#7");
    row("five fifths", none, "/3/3/3/3/3", "G#7");
    row("six fifths", none, "/3/3/3/3/3/3", "D#8");
    row("six fifths down", none, "/-3/-3/-3/-3/-3/-3", "Eb1");
    row("seven fifths", {3}, "/3/3/3/3/3/3", "A#8");
    row("nine fifths, two octaves down", {3, 3, 3, -2, -2}, "/3/3/3/3/3/3", "B#7");
    // Mixed steps.
    row("fourth", none, "/3/-2", "E4");
    row("third an octave down", none, "/5/-2", "C#4");
    row("major seventh", none, "/3/5", "G#5");
    row("minor third", none, "/5/-3", "F#4");
    row("septimal minor third", none, "/7/-3", "C5");
    row("fifth of three octaves", none, "/2/2/2/-3", "D7");
    row("tritone there and back", none, "/11/-11", "A4");
    row("two 17s", none, "/17/17", "Cb5");
    row("two 19s down", none, "/-19/-19", "D#4");
    row("transposed back to the base", {-3}, "/3", "A4");
    row("seventh transposed back", {7}, "/-7", "A4");
    // Chains of thirds run into double sharps and flats and then give up.
    row("two thirds", none, "/5/5", "E#5");
    row("three thirds", none, "/5/5/5", "G##5");
    row("three thirds down", none, "/-5/-5/-5", "Bbb3");
    row("four thirds: B## is 55 cents off", none, "/5/5/5/5", "C6", true);
    row("four thirds by transposition", {5}, "/5/5/5", "C6", true);
    row("five thirds: D### is no spelling", none, "/5/5/5/5/5", "E6", true);
    row("six thirds", none, "/5/5/5/5/5/5", "G#6", true);
    row("four thirds down", none, "/-5/-5/-5/-5", "F#3", true);
    row("two septimal sevenths", none, "/7/7", "E6", true);
    row("two 13s", none, "/13/13", "D6", true);
    row("three 19s: a diminished seventh", none, "/19/19/19", "Gb5");

    // A base note named with a flat, tempered Ab4 from the options' list.
    auto flatRow = [&](const char* name, const char* path, const char* spelling,
                       bool enharmonic = false) {
        QTest::newRow(name) << "Ab 4" << 415.304688f << 440 << none << path << spelling
                            << enharmonic;
    };
    flatRow("Ab root", "/", "Ab4");
    flatRow("Ab fifth", "/3", "Eb5");
    flatRow("Ab fifth down", "/-3", "Db4");
    flatRow("Ab third", "/5", "C5");
    flatRow("Ab third down", "/-5", "Fb4");
    flatRow("Ab two thirds down", "/-5/-5", "Dbb4");
    flatRow("Ab seventh", "/7", "Gb5");
    flatRow("Ab two fifths", "/3/3", "Bb5");

    // Calibration 442 with the base at 440: every reading 7.85 cents lower.
    auto calibratedRow = [&](const char* name, const char* path, const char* spelling,
                             bool enharmonic = false) {
        QTest::newRow(name) << "A 4" << 440.0f << 442 << none << path << spelling << enharmonic;
    };
    calibratedRow("442 root", "/", "A4");
    calibratedRow("442 fifth", "/3", "E5");
    calibratedRow("442 third", "/5", "C#5");
    calibratedRow("442 seventh", "/7", "G5");
    calibratedRow("442 11", "/11", "D5", true);
    calibratedRow("442 six thirds", "/5/5/5/5/5/5", "G#6", true);
}

void TestNotation::cardSpelling()
{
    QFETCH(QString, baseNote);
    QFETCH(float, baseFrequency);
    QFETCH(int, calibration);
    QFETCH(QList<int>, transposition);
    QFETCH(QString, path);
    QFETCH(QString, spelling);
    QFETCH(bool, enharmonic);

    setPitchReference(baseFrequency, baseNote, calibration);
    transpose(transposition);

    float frequency = 0.0f;
    const Note note = cardNote(path, &frequency);
    const double expectedFrequency =
        baseFrequency * ratioOfSteps(transposition + stepsOfPath(path));
    QVERIFY2(std::fabs(frequency - expectedFrequency) <= expectedFrequency * 2e-7,
             qPrintable(QString::number(frequency)));

    QCOMPARE(note.noteSpelling(), spelling);
    QCOMPARE(note.isEnharmonic(), enharmonic);
    // The cents are the just pitch against the tempered pitch of the spelling.
    const double expectedCents = 1200.0 * std::log2(expectedFrequency / calibration) + 5700.0 -
                                 100.0 * semitoneOfSpelling(spelling);
    QVERIFY2(
        std::fabs(note.cents() - expectedCents) < 0.01,
        qPrintable(QStringLiteral("%1 cents, expected %2").arg(note.cents()).arg(expectedCents)));
}

void TestNotation::everyCardOfTheDefaultLattice_data()
{
    QTest::addColumn<QList<int>>("transposition");
    QTest::addColumn<int>("calibration");
    QTest::addColumn<QString>("baseNote");
    QTest::addColumn<QString>("baseSpelling");
    QTest::addColumn<int>("semitonesAboveA4");

    QTest::newRow("untransposed") << QList<int>() << 440 << "A 4"
                                  << "A4" << 0;
    QTest::newRow("up a fifth") << QList<int>{3} << 440 << "A 4"
                                << "A4" << 0;
    QTest::newRow("up two thirds") << QList<int>{5, 5} << 440 << "A 4"
                                   << "A4" << 0;
    QTest::newRow("down a septimal seventh") << QList<int>{-7} << 440 << "A 4"
                                             << "A4" << 0;
    QTest::newRow("baroque pitch, C") << QList<int>{3, 3, 3, -2} << 415 << "C 4"
                                      << "C4" << -9;
    QTest::newRow("442, Gb") << QList<int>{-5} << 442 << "Gb 4"
                             << "Gb4" << -3;
}

void TestNotation::everyCardOfTheDefaultLattice()
{
    QFETCH(QList<int>, transposition);
    QFETCH(int, calibration);
    QFETCH(QString, baseNote);
    QFETCH(QString, baseSpelling);
    QFETCH(int, semitonesAboveA4);

    // The base frequency as the options make it from calibration and name.
    const float baseFrequency =
        static_cast<float>(calibration * (440.0 * std::pow(2.0, semitonesAboveA4 / 12.0)) / 440.0);
    setPitchReference(baseFrequency, baseNote, calibration);
    mLattice->initWithDefaults();
    transpose(transposition);

    QList<const ArboBall*> nodes{mLattice->root()};
    int spelledByIntervals = 0;
    for (int i = 0; i < nodes.size(); ++i) {
        const ArboBall* node = nodes.at(i);
        for (const ArboBall* child : node->children()) {
            nodes.append(child);
        }
        QCOMPARE(node->lattice(), mLattice);

        const float frequency = CardNote::justFrequency(node);
        const Note note = CardNote::noteForBall(node, frequency);
        const QList<int> steps = transposition + node->path().toList();
        const QString what = node->path().toString() + QStringLiteral(" -> ") +
                             note.noteSpelling() + QLatin1Char(' ') + QString::number(note.cents());

        // The spelling and its cents name the pitch that sounds.
        const double pitch =
            12.0 * std::log2(baseFrequency * ratioOfSteps(steps) / calibration) + 57.0;
        QVERIFY2(std::fabs(semitoneOfSpelling(note.noteSpelling()) + note.cents() / 100.0 - pitch) <
                     1e-4,
                 qPrintable(what));
        QVERIFY2(note.cents() > -49.5f && note.cents() <= 50.5f, qPrintable(what));
        QVERIFY2(note.accidental() >= -2 && note.accidental() <= 2, qPrintable(what));

        // A note that kept its intervals has moved by them: as many letters
        // and tempered semitones as a musician counts along the way.
        if (!note.isEnharmonic()) {
            int letters = diatonicOfSpelling(baseSpelling);
            int semitones = static_cast<int>(semitoneOfSpelling(baseSpelling));
            for (int step : steps) {
                letters += moveOfStep(step).letters;
                semitones += moveOfStep(step).semitones;
            }
            QVERIFY2(diatonicOfSpelling(note.noteSpelling()) == letters, qPrintable(what));
            QVERIFY2(semitoneOfSpelling(note.noteSpelling()) == semitones, qPrintable(what));
            ++spelledByIntervals;
        }
    }
    QCOMPARE(nodes.size(), 19 * 19);
    // Most cards keep their intervals, so the check above is not vacuous.
    QVERIFY2(spelledByIntervals > nodes.size() / 2,
             qPrintable(QString::number(spelledByIntervals)));
}

void TestNotation::cardWithoutLattice()
{
    // Before a lattice is registered, the options' base frequency is used and
    // nothing is transposed.
    AppContext::setLattice(nullptr);
    mOptions.mBaseFrequency = 415.304688f;
    mOptions.mBaseNote = QStringLiteral("Ab 4");
    const ArboBall node(ArboPath(QStringLiteral("/3")), Arbo::WHITE, nullptr);
    const float frequency = CardNote::justFrequency(&node);
    AppContext::setLattice(mLattice);
    QVERIFY(std::fabs(frequency - 415.304688f * 1.5f) < 1e-3f);
    AppContext::setLattice(nullptr);
    const Note note = CardNote::noteForBall(&node, frequency);
    AppContext::setLattice(mLattice);
    QCOMPARE(note.noteSpelling(), QStringLiteral("Eb5"));
}

ARBO_TEST_MAIN(TestNotation)
#include "tst_notation.moc"
