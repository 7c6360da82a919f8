// arbo-tuning: the lattice as tuning files for other instruments, published
// scales placed on the lattice, and ratios in Helmholtz-Ellis notation. See
// "Tuning files" and "Helmholtz-Ellis notation" in the README.
//
//   arbo-tuning export --format scl|kbm|tun|syx [--paths /,/3,/5] [--primes-enabled] -o FILE
//   arbo-tuning import FILE.scl [--kbm FILE.kbm] [--tolerance CENTS]
//   arbo-tuning notate RATIO... [--reference NOTE]
//
// It reads the instrument's own configuration folder and never writes there,
// so it may run beside the instrument. It needs no display and no sound.

#include "model/arbo.h"
#include "notation/hejispelling.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "tuning/keyboardmapping.h"
#include "tuning/keytuning.h"
#include "tuning/scalascale.h"
#include "tuning/scaleplacement.h"
#include "tuning/tuningexport.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QLoggingCategory>

#include <cmath>
#include <cstdio>
#include <numeric>

namespace {

// Exit codes: a file that cannot be read, parsed or written gives 1, as the
// manual page says; a command line that makes no sense gives 2.
constexpr int FAILED = 1;
constexpr int BAD_ARGUMENTS = 2;

int fail(const QString& text, int code)
{
    std::fprintf(stderr, "%s\n", qPrintable(text));
    return code;
}

int usage(const QString& text)
{
    return fail(QStringLiteral("arbo-tuning: %1 (see --help)").arg(text), BAD_ARGUMENTS);
}

void describe(QCommandLineParser& parser)
{
    parser.setApplicationDescription(QStringLiteral(
        "Writes the lattice as tuning files for other instruments, and places published\n"
        "Scala scales on the lattice.\n"
        "\n"
        "  export  writes the lattice of the configuration folder (arbo_v15.json, with\n"
        "          the base frequency and 1/1 Note of options.json) as a Scala scale\n"
        "          (scl), its keyboard mapping (kbm), an AnaMark tuning (tun) or a MIDI\n"
        "          Tuning Standard bulk dump (syx). The same key sounds the same\n"
        "          frequency in all four.\n"
        "  import  reads a .scl (and a .kbm) and prints, for each degree, its number,\n"
        "          its text and the lattice path it sounds at, or - and why not.\n"
        "  notate  prints each ratio above the 1/1 Note in Helmholtz-Ellis notation:\n"
        "          the ratio, the letter with its octave, the SMuFL names of its\n"
        "          accidental and signs joined by +, and the cents from the written\n"
        "          note's equal-tempered pitch, separated by tabs.\n"
        "\n"
        "Examples:\n"
        "  arbo-tuning export --format scl -o lattice.scl\n"
        "  arbo-tuning export --format tun --paths /,/3,/5,/3/5 -o chord.tun\n"
        "  arbo-tuning import partch_43.scl --tolerance 0.5\n"
        "  arbo-tuning notate 5/4 7/4 11/8 --reference C4"));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOptions({
        {QStringLiteral("format"), QStringLiteral("export: scl, kbm, tun or syx."),
         QStringLiteral("format")},
        {QStringLiteral("paths"),
         QStringLiteral("export: only these paths, separated by commas (/,/3,/5)."),
         QStringLiteral("paths")},
        {QStringLiteral("primes-enabled"),
         QStringLiteral("export: only the nodes whose primes are switched on.")},
        {QStringLiteral("o"), QStringLiteral("export: the file to write."), QStringLiteral("file")},
        {QStringLiteral("kbm"), QStringLiteral("import: a keyboard mapping to check with it."),
         QStringLiteral("file")},
        {QStringLiteral("tolerance"),
         QStringLiteral("import: cents a cents line may lie from its lattice ratio (default 1)."),
         QStringLiteral("cents"), QStringLiteral("1")},
        {QStringLiteral("reference"),
         QStringLiteral("notate: the note of the 1/1, such as A4 or Bb3 (default: the 1/1 "
                        "Note of options.json)."),
         QStringLiteral("note")},
    });
    parser.addPositionalArgument(QStringLiteral("command"),
                                 QStringLiteral("export, import or notate."),
                                 QStringLiteral("export|import|notate"));
}

// The lattice and options as the instrument would find them, read without
// writing anything. Debug lines of the lattice's loading stay out of the
// tool's output.
bool loadInstrument(Arbo& lattice, Settings& options, TuningExport::Reference& reference,
                    QString& error)
{
    QCoreApplication::setApplicationName(QString::fromLatin1(Paths::APP_NAME));
    if (!options.initReadOnly(Settings::FILE_NAME) || !lattice.initReadOnly(Arbo::FILE_NAME)) {
        error = QStringLiteral("arbo-tuning: cannot read the configuration in %1")
                    .arg(Paths::configDir());
        return false;
    }
    options.replaceUnusableValues({});
    return TuningExport::referenceOf(options, lattice, reference, error);
}

int exportLattice(const QCommandLineParser& parser)
{
    TuningExport::Format format;
    if (!TuningExport::formatFromName(parser.value(QStringLiteral("format")), format)) {
        return usage(QStringLiteral("export needs --format scl, kbm, tun or syx"));
    }
    const QString output = parser.value(QStringLiteral("o"));
    if (output.isEmpty()) {
        return usage(QStringLiteral("export needs -o FILE"));
    }
    QList<ArboPath> paths;
    if (parser.isSet(QStringLiteral("paths"))) {
        for (const QString& text : parser.value(QStringLiteral("paths")).split(QLatin1Char(','))) {
            const ArboPath path(text.trimmed());
            if (!path.isValid() || !text.trimmed().startsWith(QLatin1Char('/'))) {
                return usage(QStringLiteral("\"%1\" is no lattice path such as /3/-5").arg(text));
            }
            paths.append(path);
        }
    }
    Arbo lattice;
    Settings options;
    TuningExport::Reference reference;
    QString error;
    if (!loadInstrument(lattice, options, reference, error)) {
        return fail(error, FAILED);
    }
    if (!parser.isSet(QStringLiteral("paths"))) {
        paths = TuningExport::nodePaths(lattice, parser.isSet(QStringLiteral("primes-enabled")));
    }
    const TuningExport tuning(paths, reference);
    const QByteArray bytes = tuning.toBytes(format, QFileInfo(output).fileName());
    return TuningExport::writeFile(output, bytes, error) ? 0 : fail(error, FAILED);
}

int importScale(const QCommandLineParser& parser, const QString& file)
{
    bool ok = false;
    const double tolerance = parser.value(QStringLiteral("tolerance")).toDouble(&ok);
    if (!ok || !(tolerance >= 0.0) || tolerance > ScalePlacement::MAX_TOLERANCE) {
        return usage(QStringLiteral("--tolerance takes cents from 0 to %1")
                         .arg(ScalePlacement::MAX_TOLERANCE));
    }
    ScalaScale scale;
    QString error;
    if (!ScalaScale::load(file, scale, error)) {
        return fail(error, FAILED);
    }
    if (parser.isSet(QStringLiteral("kbm"))) {
        KeyboardMapping mapping;
        KeyTuning tuning;
        if (!KeyboardMapping::load(parser.value(QStringLiteral("kbm")), mapping, error) ||
            !KeyTuning::make(scale, mapping, tuning, error)) {
            return fail(error, FAILED);
        }
    }
    Arbo lattice;
    Settings options;
    TuningExport::Reference reference;
    if (!loadInstrument(lattice, options, reference, error)) {
        return fail(error, FAILED);
    }
    ScalePlacement placement(tolerance);
    placement.preferNodesOf(lattice);
    const QVector<ScalePlacement::Place> places = placement.placeScale(scale);
    int placed = 0;
    QString text;
    for (int i = 0; i < places.size(); ++i) {
        // Tabs separate the fields, so none may stand inside the scale's text.
        QString own = scale.pitches.at(i).text;
        own.replace(QLatin1Char('\t'), QLatin1Char(' '));
        text += QStringLiteral("%1\t%2\t%3\n").arg(i + 1).arg(own, places.at(i).text());
        placed += places.at(i).placed ? 1 : 0;
    }
    text += QStringLiteral("placed %1 of %2 degrees\n").arg(placed).arg(places.size());
    std::fputs(text.toUtf8().constData(), stdout);
    return 0;
}

// "5/4", "3" or "81/80": a positive ratio of two 64-bit numbers, reduced.
bool parseRatio(const QString& text, unsigned long long& numerator, unsigned long long& denominator)
{
    const QStringList parts = text.split(QLatin1Char('/'));
    bool ok = parts.size() <= 2;
    numerator = ok ? parts.at(0).toULongLong(&ok, 10) : 0;
    denominator = 1;
    if (ok && parts.size() == 2) {
        denominator = parts.at(1).toULongLong(&ok, 10);
    }
    if (!ok || numerator == 0 || denominator == 0) {
        return false;
    }
    const unsigned long long common = std::gcd(numerator, denominator);
    numerator /= common;
    denominator /= common;
    return true;
}

int notate(const QCommandLineParser& parser, const QStringList& ratios)
{
    QString reference = parser.value(QStringLiteral("reference"));
    int letter = 0;
    int accidental = 0;
    int octave = 0;
    if (parser.isSet(QStringLiteral("reference"))) {
        if (!HejiSpelling::parseNoteName(reference, letter, accidental, octave)) {
            return usage(QStringLiteral("--reference takes a note such as A4, C#5 or Bb3"));
        }
    } else {
        QCoreApplication::setApplicationName(QString::fromLatin1(Paths::APP_NAME));
        Settings options;
        if (!options.initReadOnly(Settings::FILE_NAME)) {
            return fail(QStringLiteral("arbo-tuning: cannot read the options in %1")
                            .arg(Paths::configDir()),
                        FAILED);
        }
        reference = options.mBaseNote;
        if (!HejiSpelling::parseNoteName(reference, letter, accidental, octave)) {
            return fail(QStringLiteral("arbo-tuning: the 1/1 Note \"%1\" of %2 is no note name")
                            .arg(reference, Settings::FILE_NAME),
                        FAILED);
        }
    }
    struct Ratio
    {
        unsigned long long numerator;
        unsigned long long denominator;
    };
    QVector<Ratio> parsed;
    for (const QString& text : ratios) {
        Ratio ratio{};
        if (!parseRatio(text, ratio.numerator, ratio.denominator)) {
            return usage(QStringLiteral("\"%1\" is no ratio such as 5/4").arg(text));
        }
        parsed.append(ratio);
    }
    QString out;
    bool allWritten = true;
    for (const Ratio& ratio : parsed) {
        const HejiSpelling spelling(ratio.numerator, ratio.denominator, reference);
        const QString text = QStringLiteral("%1/%2").arg(ratio.numerator).arg(ratio.denominator);
        if (!spelling.isWritable()) {
            // Primes above 31, or further from the 1/1 than the signs reach.
            out += QStringLiteral("%1\t-\t-\t-\n").arg(text);
            std::fprintf(stderr, "arbo-tuning: %s has no Helmholtz-Ellis spelling here%s\n",
                         qPrintable(text),
                         spelling.isValid() ? " (more accidentals or arrows than there are signs)"
                                            : " (a prime above 31)");
            allWritten = false;
            continue;
        }
        // Rounded and signed as the card shows them.
        const long cents = std::lround(spelling.cents());
        out +=
            QStringLiteral("%1\t%2\t%3\t%4\n")
                .arg(text, spelling.letterAndOctave(), spelling.glyphNames().join(QLatin1Char('+')),
                     cents > 0 ? QStringLiteral("+%1").arg(cents) : QString::number(cents));
    }
    std::fputs(out.toUtf8().constData(), stdout);
    return allWritten ? 0 : FAILED;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("arbo-tuning"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ARBO_VERSION));
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));

    QCommandLineParser parser;
    describe(parser);
    parser.process(app);
    const QStringList arguments = parser.positionalArguments();
    const QString command = arguments.value(0);
    const bool exporting = command == QLatin1String("export");
    const bool notating = command == QLatin1String("notate");
    if (exporting  ? arguments.size() != 1
        : notating ? arguments.size() < 2
                   : command != QLatin1String("import") || arguments.size() != 2) {
        return usage(QStringLiteral("expected \"export\" with its options, \"import FILE.scl\" "
                                    "or \"notate RATIO...\""));
    }
    // The options of the other commands.
    const QStringList exportOptions{"format", "paths", "primes-enabled", "o"};
    const QStringList importOptions{"kbm", "tolerance"};
    QStringList foreign = QStringList{"reference"} + exportOptions + importOptions;
    for (const QString& own : exporting  ? exportOptions
                              : notating ? QStringList{"reference"}
                                         : importOptions) {
        foreign.removeAll(own);
    }
    for (const QString& option : qAsConst(foreign)) {
        if (parser.isSet(option)) {
            return usage(QStringLiteral("--%1 is not an option of %2").arg(option, command));
        }
    }
    if (notating) {
        return notate(parser, arguments.mid(1));
    }
    return exporting ? exportLattice(parser) : importScale(parser, arguments.at(1));
}
