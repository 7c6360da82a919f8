// arbo-tuning: the lattice as tuning files for other instruments, and
// published scales placed on the lattice. See "Tuning files" in the README.
//
//   arbo-tuning export --format scl|kbm|tun|syx [--paths /,/3,/5] [--primes-enabled] -o FILE
//   arbo-tuning import FILE.scl [--kbm FILE.kbm] [--tolerance CENTS]
//
// It reads the instrument's own configuration folder and never writes there,
// so it may run beside the instrument. It needs no display and no sound.

#include "model/arbo.h"
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

#include <cstdio>

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
        "\n"
        "Examples:\n"
        "  arbo-tuning export --format scl -o lattice.scl\n"
        "  arbo-tuning export --format tun --paths /,/3,/5,/3/5 -o chord.tun\n"
        "  arbo-tuning import partch_43.scl --tolerance 0.5"));
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
    });
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("export or import."),
                                 QStringLiteral("export|import"));
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
    if (exporting ? arguments.size() != 1
                  : command != QLatin1String("import") || arguments.size() != 2) {
        return usage(QStringLiteral("expected \"export\" with its options or \"import FILE.scl\""));
    }
    // The options of the other command.
    const QStringList foreign = exporting ? QStringList{"kbm", "tolerance"}
                                          : QStringList{"format", "paths", "primes-enabled", "o"};
    for (const QString& option : foreign) {
        if (parser.isSet(option)) {
            return usage(QStringLiteral("--%1 is not an option of %2").arg(option, command));
        }
    }
    return exporting ? exportLattice(parser) : importScale(parser, arguments.at(1));
}
