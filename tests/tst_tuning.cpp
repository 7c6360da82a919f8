// Tuning files in and out: the lattice exported for other instruments and
// read back, published scales (the shared archive files) imported, bad files
// refused at their line, and an imported degree played through the engine.
// The frequencies the files hold are checked against the engine's own rule,
// worked out here: base frequency × transposition × the node's path ratio.

#include "audioanalysis.h"
#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "tuning/keyboardmapping.h"
#include "tuning/keytuning.h"
#include "tuning/scalascale.h"
#include "tuning/scaleplacement.h"
#include "tuning/tuningexport.h"

#include <QDirIterator>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cmath>
#include <map>

namespace {

using Rational = ArboConstants::Rational;

double value(const Rational& ratio)
{
    return double(ratio.numerator()) / double(ratio.denominator());
}

// The lattice's pitch classes, sorted, each with one node's path ratio.
std::map<Rational, Rational> pitchClasses(const Arbo& lattice)
{
    std::map<Rational, Rational> classes;
    QList<const ArboBall*> todo{lattice.root()};
    while (!todo.isEmpty()) {
        const ArboBall* node = todo.takeLast();
        classes.emplace(TestSupport::pitchClass(node->ratio().ratio()), node->ratio().ratio());
        for (const ArboBall* child : node->children()) {
            todo.append(child);
        }
    }
    return classes;
}

// What the engine sounds for each key when the 1/1 lies on `oneOneKey` and
// key after key plays the next pitch class: a node of that class played at
// base × transposition × its path ratio, moved by whole octaves.
QVector<double> engineFrequencies(const Arbo& lattice, double base, int oneOneKey)
{
    const auto classes = pitchClasses(lattice);
    const int size = int(classes.size());
    QVector<double> frequencies;
    for (int key = 0; key < 128; ++key) {
        const int degree = key - oneOneKey;
        const int octaves = int(std::floor(double(degree) / size));
        auto it = classes.begin();
        std::advance(it, degree - octaves * size);
        const double node = base * value(lattice.transposition().ratio()) * value(it->second);
        frequencies << node * value(it->first / it->second) * std::exp2(octaves);
    }
    return frequencies;
}

// The frequencies of an AnaMark file's [Exact Tuning].
QVector<double> tunFrequencies(const QByteArray& bytes)
{
    QVector<double> frequencies(128, 0.0);
    double base = 0.0;
    bool exact = false;
    for (const QByteArray& raw : bytes.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith('[')) {
            exact = line == "[Exact Tuning]";
        } else if (exact && line.startsWith("BaseFreq")) {
            base = line.mid(line.indexOf('=') + 1).trimmed().toDouble();
        } else if (exact && line.startsWith("note ")) {
            const QList<QByteArray> parts = line.mid(5).split('=');
            frequencies[parts.at(0).trimmed().toInt()] =
                base * std::exp2(parts.at(1).trimmed().toDouble() / 1200.0);
        }
    }
    return frequencies;
}

// The frequencies of a bulk tuning dump, after its frame and checksum hold.
QVector<double> syxFrequencies(const QByteArray& dump)
{
    QVector<double> frequencies;
    if (dump.size() != 408 || !dump.startsWith("\xF0\x7E\x7F\x08\x01") || !dump.endsWith('\xF7')) {
        return frequencies;
    }
    char checksum = 0;
    for (int i = 1; i < 406; ++i) {
        checksum = char(checksum ^ dump.at(i));
    }
    if ((checksum & 0x7f) != dump.at(406)) {
        return frequencies;
    }
    for (int key = 0; key < 128; ++key) {
        const char* word = dump.constData() + 22 + 3 * key;
        const double cents = 100.0 * word[0] + (word[1] * 128 + word[2]) * 100.0 / 16384.0;
        frequencies << 440.0 * std::exp2((cents - 6900.0) / 1200.0);
    }
    return frequencies;
}

struct Run
{
    int code = -1;
    QString out;
    QString err;
};

// Runs arbo-tuning with its own configuration folder `home` (XDG_DATA_HOME).
Run tool(const QStringList& arguments, const QString& home)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_DATA_HOME"), home);
    process.setProcessEnvironment(environment);
    process.start(TestSupport::binDir() + QStringLiteral("/arbo-tuning"), arguments);
    Run run;
    if (process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit) {
        run.code = process.exitCode();
    }
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

// A published-style just scale: comments, cents and ratios mixed, a bare
// integer, labels after values, tabs and indentation.
const char* const JUST_12 = "! just12.scl\n!\n Ptolemy's intense diatonic, chromatic filled in\n"
                            " 12\n!\n16/15\n\t9/8\t! D\n 6/5 Eb\n386.3137 E\n 4/3\n 45/32\n"
                            "701.955 ! G\n 8/5\n 5/3\n! a comment among the pitches\n 9/5\n"
                            " 15/8\n2\n";

} // namespace

class TestTuning : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void exportThenImportGivesTheSameRatios();
    void tunAndSyxSoundTheEnginesFrequencies();
    void publishedScaleLoadsWithAnyLineEnds_data();
    void publishedScaleLoadsWithAnyLineEnds();
    void badFilesAreRefusedAtTheirLine_data();
    void badFilesAreRefusedAtTheirLine();
    void everySharedFileLoadsOrIsRefusedCleanly();
    void commandLineRefusesAndWritesNothing();
    void degreeFourOfASevenLimitScaleSoundsItsRatio();

private:
    QTemporaryDir mTemp;
};

void TestTuning::initTestCase()
{
    const QString missing = TestSupport::missingTuningFiles();
    QVERIFY2(missing.isEmpty(), qPrintable(missing));
    QVERIFY(mTemp.isValid());
}

void TestTuning::exportThenImportGivesTheSameRatios()
{
    // The tool exports the default lattice of an empty configuration folder,
    // and the import places each degree back on a path of the same pitch.
    const QString scl = mTemp.filePath("lattice.scl");
    const Run exported = tool({"export", "--format", "scl", "-o", scl}, mTemp.filePath("home1"));
    QCOMPARE(exported.code, 0);
    Arbo lattice;
    lattice.initWithDefaults();
    const auto classes = pitchClasses(lattice);
    ScalaScale scale;
    QString error;
    QVERIFY2(ScalaScale::load(scl, scale, error), qPrintable(error));
    QCOMPARE(scale.pitches.size(), int(classes.size()));
    auto it = std::next(classes.begin());
    for (int i = 0; i + 1 < scale.pitches.size(); ++i, ++it) {
        const ScalaScale::Pitch& pitch = scale.pitches.at(i);
        QVERIFY(pitch.isRatio);
        QCOMPARE(pitch.valueText(),
                 QStringLiteral("%1/%2").arg(it->first.numerator()).arg(it->first.denominator()));
    }
    QCOMPARE(scale.pitches.last().valueText(), QStringLiteral("2/1"));

    const Run imported = tool({"import", scl}, mTemp.filePath("home1"));
    QCOMPARE(imported.code, 0);
    const QStringList lines = imported.out.split('\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), scale.pitches.size() + 1);
    for (int i = 0; i < scale.pitches.size(); ++i) {
        const QStringList fields = lines.at(i).split('\t');
        QCOMPARE(fields.size(), 3);
        QCOMPARE(fields.at(0), QString::number(i + 1));
        QCOMPARE(fields.at(1), scale.pitches.at(i).text);
        const ScalaScale::Pitch& pitch = scale.pitches.at(i);
        const Rational own(pitch.numerator.convert_to<unsigned long long>(),
                           pitch.denominator.convert_to<unsigned long long>());
        QVERIFY2(TestSupport::pitchClass(ArboRatio::pathRatio(ArboPath(fields.at(2))).ratio()) ==
                     TestSupport::pitchClass(own),
                 qPrintable(lines.at(i)));
    }
    QCOMPARE(lines.last(), QStringLiteral("placed %1 of %1 degrees").arg(scale.pitches.size()));
    QVERIFY(!QFileInfo::exists(mTemp.filePath("home1/Merrow Tuning Arbo/arbo_v15.json")));
}

void TestTuning::tunAndSyxSoundTheEnginesFrequencies()
{
    // From the tool, with the 1/1 Note C 4 at 261.6256 Hz in options.json;
    // and from the library, under a transposition by a fifth.
    const QString home = mTemp.filePath("home2");
    QVERIFY(TestSupport::writeFile(home + "/Merrow Tuning Arbo/options.json",
                                   R"({"baseFrequency": 261.6256, "baseNote": "C 4"})"));
    QMap<QString, QByteArray> files;
    for (const QString format : {"tun", "syx", "kbm"}) {
        const QString file = mTemp.filePath("c4." + format);
        QCOMPARE(tool({"export", "--format", format, "-o", file}, home).code, 0);
        files[format] = TestSupport::readFile(file);
    }
    Arbo lattice;
    lattice.initWithDefaults();
    Arbo transposed;
    transposed.initWithDefaults();
    transposed.onTransposed(ArboRatio(3, 2), 3);
    Settings options;
    TuningExport::Reference reference;
    QString error;
    QVERIFY(TuningExport::referenceOf(options, transposed, reference, error));
    const TuningExport library(TuningExport::nodePaths(transposed, false), reference);

    struct Case
    {
        QByteArray tun, syx;
        QVector<double> engine;
    };
    const double c4 = double(261.6256f);
    for (const Case& c : {Case{files["tun"], files["syx"], engineFrequencies(lattice, c4, 60)},
                          Case{library.toBytes(TuningExport::Format::AnaMark, "t.tun"),
                               library.toBytes(TuningExport::Format::MidiTuningDump, "t.syx"),
                               engineFrequencies(transposed, 440.0, 69)}}) {
        const QVector<double> tun = tunFrequencies(c.tun);
        const QVector<double> syx = syxFrequencies(c.syx);
        QCOMPARE(syx.size(), 128);
        for (int key = 0; key < 128; ++key) {
            QVERIFY2(std::fabs(AudioAnalysis::cents(tun[key], c.engine[key])) < 0.01,
                     qPrintable(QString("tun key %1: %2 Hz, engine %3 Hz")
                                    .arg(key)
                                    .arg(tun[key], 0, 'f', 6)
                                    .arg(c.engine[key], 0, 'f', 6)));
            // The dump's words reach from key 0 to 13289.73 Hz.
            if (c.engine[key] >= 8.1758 && c.engine[key] <= 13289.7) {
                QVERIFY2(std::fabs(AudioAnalysis::cents(syx[key], c.engine[key])) < 0.01,
                         qPrintable(QString("syx key %1").arg(key)));
            }
        }
    }
    // The mapping tunes the same key the same way: C 4 is the 1/1.
    KeyboardMapping mapping;
    QVERIFY(KeyboardMapping::parse(files["kbm"], "c4.kbm", mapping, error));
    QCOMPARE(mapping.referenceKey, 60);
    QCOMPARE(mapping.middleKey, 60);
    QCOMPARE(mapping.referenceFrequency, c4);
    QCOMPARE(mapping.size, int(pitchClasses(lattice).size()));
    QCOMPARE(mapping.entries.last(), mapping.size - 1);
}

void TestTuning::publishedScaleLoadsWithAnyLineEnds_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray lf(JUST_12);
    QTest::newRow("LF") << lf;
    QTest::newRow("BOM, CRLF") << "\xEF\xBB\xBF" + QByteArray(lf).replace("\n", "\r\n");
    QTest::newRow("old Mac CR") << QByteArray(lf).replace('\n', '\r');
}

void TestTuning::publishedScaleLoadsWithAnyLineEnds()
{
    QFETCH(QByteArray, bytes);
    ScalaScale scale;
    QString error;
    QVERIFY2(ScalaScale::parse(bytes, "just12.scl", scale, error), qPrintable(error));
    QCOMPARE(scale.description, QStringLiteral("Ptolemy's intense diatonic, chromatic filled in"));
    QCOMPARE(scale.pitches.size(), 12);
    QCOMPARE(scale.pitches.at(1).text, QStringLiteral("9/8\t! D"));
    QCOMPARE(scale.pitches.at(1).line, 7);
    QVERIFY(!scale.pitches.at(3).isRatio);
    QCOMPARE(scale.pitches.at(3).cents, 386.3137);
    QCOMPARE(scale.pitches.at(11).valueText(), QStringLiteral("2/1"));
    // Ratios sound exactly on their paths; cents take the simplest lattice
    // ratio within a cent (386.3137 is 5/4, 701.955 is 3/2).
    const QVector<ScalePlacement::Place> places = ScalePlacement().placeScale(scale);
    for (int i = 0; i < 12; ++i) {
        const ScalaScale::Pitch& pitch = scale.pitches.at(i);
        const Rational own = pitch.isRatio
                                 ? Rational(pitch.numerator.convert_to<unsigned long long>(),
                                            pitch.denominator.convert_to<unsigned long long>())
                             : i == 3 ? Rational(5, 4)
                                      : Rational(3, 2);
        QCOMPARE(ArboRatio::pathRatio(places.at(i).path).ratio(), own);
    }
    QCOMPARE(places.at(0).text(), QStringLiteral("/2/-3/-5"));
    QCOMPARE(places.at(6).text(), QStringLiteral("/3"));
}

void TestTuning::badFilesAreRefusedAtTheirLine_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error");
    const QString bad = TestSupport::tuningDataDir() + "/scl-tuning-library-tests/bad/";
    const QString kbm = TestSupport::tuningDataDir() + "/kbm/bad/";
    QTest::newRow("text for a pitch")
        << bad + "badnote.scl" << QByteArray() << ":12: expected a pitch";
    QTest::newRow("blank pitch") << bad + "blanknote.scl" << QByteArray()
                                 << ":12: expected a pitch";
    QTest::newRow("count too high") << bad + "missingnote.scl" << QByteArray()
                                    << ":4: the count says 17 pitches, the file has 16";
    QTest::newRow("garbage entry")
        << kbm + "garbage-key.kbm" << QByteArray() << ":26: expected a scale degree";
    QTest::newRow("blank entry") << kbm + "blank-line.kbm" << QByteArray()
                                 << ":27: expected a scale degree";
    QTest::newRow("header cut short") << kbm + "empty-bad.kbm" << QByteArray()
                                      << ":16: expected the scale degree of the formal octave";
    QTest::newRow("empty") << "e.scl" << QByteArray() << ":1: expected the description";
    QTest::newRow("no count") << "c.scl" << QByteArray("! c\nonly\n") << ":3: expected the number";
    QTest::newRow("text count") << "t.scl" << QByteArray("d\ntwelve\n")
                                << ":2: expected the number";
    QTest::newRow("zero") << "z.scl" << QByteArray("d\n2\n3/2\n0/1\n")
                          << ":4: expected a ratio above 0";
    QTest::newRow("over zero") << "o.scl" << QByteArray("d\n1\r\n3/0")
                               << ":3: expected a ratio above 0";
    QTest::newRow("negative") << "n.scl" << QByteArray("d\n1\n-5/4\n")
                              << ":3: expected a ratio above 0";
    QTest::newRow("huge term") << "h.scl"
                               << "d\n1\n" + QByteArray(101, '7') + "/3\n"
                               << ":3: expected a ratio whose terms have at most 100 digits";
    QTest::newRow("two points") << "p.scl" << QByteArray("d\n1\n12.3.4\n")
                                << ":3: expected a pitch";
    QTest::newRow("key 200") << "k.kbm" << QByteArray("0\n0\n127\n200\n")
                             << ":4: expected the middle key";
    QTest::newRow("no frequency") << "f.kbm" << QByteArray("0\n0\n127\n60\n69\nA4\n0\n")
                                  << ":6: expected the reference frequency";
    QByteArray garbage(10 * 1024 * 1024, '\0');
    QRandomGenerator random(30);
    random.fillRange(reinterpret_cast<quint32*>(garbage.data()), garbage.size() / 4);
    QTest::newRow("10 MB of garbage")
        << "g.scl"
        << "!\ngarbage\n" + garbage << ":3: expected the number of pitches";
}

void TestTuning::badFilesAreRefusedAtTheirLine()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);
    if (!QFileInfo(file).isAbsolute()) {
        file = mTemp.filePath(file);
        QVERIFY(TestSupport::writeFile(file, bytes));
    }
    ScalaScale scale;
    KeyboardMapping mapping;
    QString message;
    const bool loaded = file.endsWith(".kbm") ? KeyboardMapping::load(file, mapping, message)
                                              : ScalaScale::load(file, scale, message);
    QVERIFY(!loaded);
    QVERIFY2(message.startsWith(file + error), qPrintable(message));
    QCOMPARE(scale.pitches.size(), 0); // nothing partial
    QCOMPARE(mapping.entries.size(), 0);
}

void TestTuning::everySharedFileLoadsOrIsRefusedCleanly()
{
    // The manifest says how many pitches each archive file has, and which
    // need a prime above 31 (those cannot all be placed).
    const QStringList manifest =
        QString::fromUtf8(TestSupport::readFile(TestSupport::tuningDataDir() + "/scl-MANIFEST.csv"))
            .split('\n');
    int loaded = 0;
    for (const QString& row : manifest.mid(1)) {
        const QStringList fields = row.split(',');
        if (fields.size() < 4) {
            continue;
        }
        ScalaScale scale;
        QString error;
        QVERIFY2(
            ScalaScale::load(TestSupport::tuningDataDir() + "/scl/" + fields.at(0), scale, error),
            qPrintable(error));
        QCOMPARE(scale.pitches.size(), fields.at(1).toInt());
        bool allPlaced = true;
        for (const ScalePlacement::Place& place : ScalePlacement().placeScale(scale)) {
            allPlaced = allPlaced && place.placed;
        }
        QVERIFY2(fields.at(3).toInt() <= 31 || !allPlaced, qPrintable(fields.at(0)));
        ++loaded;
    }
    QCOMPARE(loaded, 337);

    // Every mapping with every scale of the library's tests: loaded and
    // tuned, or refused with "FILE:LINE: ...".
    const QRegularExpression clean("^/.+:[0-9]+: (expected|the count says)");
    QDirIterator kbms(TestSupport::tuningDataDir() + "/kbm", {"*.kbm"}, QDir::Files,
                      QDirIterator::Subdirectories);
    while (kbms.hasNext()) {
        KeyboardMapping mapping;
        QString error;
        const bool mapped = KeyboardMapping::load(kbms.next(), mapping, error);
        QVERIFY2(mapped || clean.match(error).hasMatch(), qPrintable(error));
        QDirIterator scls(TestSupport::tuningDataDir() + "/scl-tuning-library-tests", {"*.scl"},
                          QDir::Files, QDirIterator::Subdirectories);
        while (mapped && scls.hasNext()) {
            ScalaScale scale;
            KeyTuning tuning;
            if (!ScalaScale::load(scls.next(), scale, error) ||
                !KeyTuning::make(scale, mapping, tuning, error)) {
                QVERIFY2(clean.match(error).hasMatch(), qPrintable(error));
                continue;
            }
            for (int key = 0; key < 128; ++key) {
                QVERIFY(std::isfinite(tuning.frequencyOfKey(key)) &&
                        tuning.frequencyOfKey(key) >= 0);
            }
        }
    }
}

void TestTuning::commandLineRefusesAndWritesNothing()
{
    const QString home = mTemp.filePath("home3");
    const QString out = mTemp.filePath("chord.scl");
    // Only the listed paths; bad arguments exit 2, bad files 1.
    QCOMPARE(tool({"export", "--format", "scl", "--paths", "/,/3,/5,/3/5", "-o", out}, home).code,
             0);
    ScalaScale chord;
    QString error;
    QVERIFY(ScalaScale::load(out, chord, error));
    QStringList ratios;
    for (const ScalaScale::Pitch& pitch : chord.pitches) {
        ratios << pitch.valueText();
    }
    QCOMPARE(ratios, (QStringList{"5/4", "3/2", "15/8", "2/1"}));
    QCOMPARE(tool({"export", "--format", "wav", "-o", out}, home).code, 2);
    QCOMPARE(tool({"export", "--format", "scl", "--paths", "/4", "-o", out}, home).code, 2);
    QCOMPARE(tool({"import", out, "--format", "scl"}, home).code, 2);
    const Run bad =
        tool({"import", TestSupport::tuningDataDir() + "/scl-tuning-library-tests/bad/badnote.scl"},
             home);
    QCOMPARE(bad.code, 1);
    QVERIFY(bad.out.isEmpty());
    QVERIFY2(bad.err.startsWith(TestSupport::tuningDataDir() +
                                "/scl-tuning-library-tests/bad/badnote.scl:12: "),
             qPrintable(bad.err));
    const Run unmapped =
        tool({"import", TestSupport::tuningDataDir() + "/scl-tuning-library-tests/12-intune.scl",
              "--kbm", TestSupport::tuningDataDir() + "/kbm/mapping-whitekeysalt-from-59-a440.kbm"},
             home);
    QCOMPARE(unmapped.code, 1);
    QVERIFY2(unmapped.err.contains(".kbm:11: expected a reference key"), qPrintable(unmapped.err));
    // A 1/1 Note that names no key: no file at all.
    QVERIFY(TestSupport::writeFile(home + "/Merrow Tuning Arbo/options.json",
                                   R"({"baseNote": "H 4"})"));
    const QString never = mTemp.filePath("never.tun");
    const Run note = tool({"export", "--format", "tun", "-o", never}, home);
    QCOMPARE(note.code, 1);
    QVERIFY2(note.err.contains("expected a 1/1 Note such as \"A 4\""), qPrintable(note.err));
    QVERIFY(!QFileInfo::exists(never));
    QCOMPARE(QDir(home + "/Merrow Tuning Arbo").entryList(QDir::Files),
             QStringList{"options.json"});
    // Import reports what it cannot place, and why.
    QVERIFY(TestSupport::writeFile(out, "x\n 3\n 11/8\tundecimal\n 37/32\n 100.0\n"));
    const Run mixed = tool({"import", out, "--tolerance", "0"}, mTemp.filePath("home4"));
    QCOMPARE(mixed.out, QStringLiteral("1\t11/8 undecimal\t/11\n2\t37/32\t- needs the prime 37, "
                                       "above 31\n3\t100.0\t- no lattice ratio within 0 cents\n"
                                       "placed 1 of 3 degrees\n"));
}

void TestTuning::degreeFourOfASevenLimitScaleSoundsItsRatio()
{
    // corner7.scl: 35/32 9/8 5/4 21/16 ...; key 64 plays degree 4 when the
    // 1/1 lies on key 60.
    ScalaScale scale;
    QString error;
    QVERIFY2(ScalaScale::load(TestSupport::tuningDataDir() + "/scl/corner7.scl", scale, error),
             qPrintable(error));
    KeyTuning tuning;
    QVERIFY(KeyTuning::make(scale, KeyboardMapping::linear(60, 440.0, 10), tuning, error));
    const QVector<ScalePlacement::Place> places = ScalePlacement().placeScale(scale);
    ArboPath path;
    QVERIFY(tuning.pathOfKey(74, places, path)); // a period up
    QCOMPARE(ArboRatio::pathRatio(path).ratio(), Rational(21, 8));
    QVERIFY(tuning.pathOfKey(64, places, path));
    QCOMPARE(ArboRatio::pathRatio(path).ratio(), Rational(21, 16));

    PdPlayer player;
    Arbo lattice;
    OfflinePlayer::setUp(player, lattice);
    QVERIFY(!QTest::currentTestFailed());
    QVERIFY(PatchLoader::loadVoice(&player, TestSupport::binDir() + "/patches/Sine.pd"));
    const ArboEvent base(ArboEvent::BaseFrequency, 440.0f);
    player.queueEventGui(&base);
    const ArboNoteEvent note(path);
    player.queueEventGui(&note);
    const std::vector<float> left = OfflinePlayer::render(player, 3.0);
    const double nominal = 440.0 * 21.0 / 16.0;
    const AudioAnalysis::ToneEstimate tone =
        AudioAnalysis::measureTone(left.data(), OfflinePlayer::SAMPLE_RATE / 2, long(left.size()),
                                   nominal, OfflinePlayer::SAMPLE_RATE);
    QVERIFY(tone.minAmplitude > 0.01);
    QVERIFY2(std::fabs(AudioAnalysis::cents(tone.frequency, nominal)) < 0.1,
             qPrintable(QString::number(tone.frequency, 'f', 6)));
}

ARBO_TEST_MAIN(TestTuning)
#include "tst_tuning.moc"
