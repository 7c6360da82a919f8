// arbo-render: a performance log rendered offline into a sound file. See
// "Recording" in the README and the manual page.
//
//   arbo-render LOG OUT.wav [--patch FILE] [--rate N] [--format wav24|wav32f|flac24]
//
// It runs the engine of the instrument through the same render entry as the
// audio device, as fast as the machine allows, with a progress bar on a
// terminal. It needs no display and no sound card, and writes nothing but
// OUT (a temporary folder for the patches aside).

#include "recording/audiofilewriter.h"
#include "recording/logrenderer.h"
#include "recording/performancelog.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QLoggingCategory>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

// Exit codes: a log that cannot be read or rendered gives 1, as the manual
// page says; a command line that makes no sense gives 2.
constexpr int FAILED = 1;
constexpr int BAD_ARGUMENTS = 2;

std::atomic<bool> sInterrupted{false};

void onInterrupt(int)
{
    sInterrupted.store(true);
}

int fail(const QString& text, int code)
{
    std::fprintf(stderr, "arbo-render: %s\n", qPrintable(text));
    return code;
}

int usage(const QString& text)
{
    return fail(QStringLiteral("%1 (see --help)").arg(text), BAD_ARGUMENTS);
}

// The engine's own messages ("Opening PD patch", ...) are for the
// instrument's log; the tool says only what went wrong.
void quietHandler(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtCriticalMsg || type == QtFatalMsg) {
        std::fprintf(stderr, "arbo-render: %s\n", qPrintable(message));
    }
}

void describe(QCommandLineParser& parser)
{
    parser.setApplicationDescription(QStringLiteral(
        "Renders a performance log (the .jsonl file beside a recording) into a sound\n"
        "file, through the engine of the instrument, as fast as the machine allows.\n"
        "Rendered with the patch it was played with, it gives the live recording\n"
        "again, sample for sample; the same log always gives the same file.\n"
        "\n"
        "Examples:\n"
        "  arbo-render 2026-11-25_20-15-03.jsonl again.wav\n"
        "  arbo-render 2026-11-25_20-15-03.jsonl organ.flac --patch Organ.pd\n"
        "  arbo-render 2026-11-25_20-15-03.jsonl hires.wav --rate 96000"));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOptions({
        {QStringLiteral("patch"),
         QStringLiteral("Render with this voice patch (a file, or the name of one of the "
                        "program's voices, such as Organ.pd) instead of the log's."),
         QStringLiteral("file")},
        {QStringLiteral("rate"),
         QStringLiteral("The sample rate to render at (default: the log's)."),
         QStringLiteral("hz")},
        {QStringLiteral("format"),
         QStringLiteral("wav24, wav32f or flac24 (default: flac24 for a .flac file, "
                        "otherwise wav32f)."),
         QStringLiteral("format")},
        {QStringLiteral("quiet"), QStringLiteral("No progress bar.")},
        {QStringLiteral("progress-lines"),
         QStringLiteral("Progress as lines \"progress N\" (N per mille) on standard output, "
                        "for a program that runs this one.")},
    });
    parser.addPositionalArgument(QStringLiteral("log"), QStringLiteral("The performance log."));
    parser.addPositionalArgument(QStringLiteral("out"), QStringLiteral("The sound file to write."));
}

// What the command line asks for, or a usage message.
bool readOptions(const QCommandLineParser& parser, const QString& out,
                 LogRenderer::Options& options, QString& problem)
{
    options.patch = parser.value(QStringLiteral("patch"));
    if (parser.isSet(QStringLiteral("rate"))) {
        bool ok = false;
        options.sampleRate = parser.value(QStringLiteral("rate")).toInt(&ok);
        if (!ok || options.sampleRate < 8000 || options.sampleRate > 384000) {
            problem = QStringLiteral("--rate takes a sample rate from 8000 to 384000");
            return false;
        }
    }
    options.format =
        QFileInfo(out).suffix().compare(QStringLiteral("flac"), Qt::CaseInsensitive) == 0
            ? AudioFileWriter::Flac24
            : AudioFileWriter::WavFloat;
    if (parser.isSet(QStringLiteral("format")) &&
        !AudioFileWriter::formatFromName(parser.value(QStringLiteral("format")), &options.format)) {
        problem = QStringLiteral("--format takes %1")
                      .arg(AudioFileWriter::formatNames().join(QStringLiteral(", ")));
        return false;
    }
    return true;
}

// A bar on a terminal, lines for a program, or nothing.
LogRenderer::Progress progressFor(const QCommandLineParser& parser, double seconds)
{
    if (parser.isSet(QStringLiteral("progress-lines"))) {
        return [](double done) {
            std::printf("progress %d\n", int(done * 1000.0));
            std::fflush(stdout);
            return !sInterrupted.load();
        };
    }
    if (parser.isSet(QStringLiteral("quiet")) || !::isatty(STDERR_FILENO)) {
        return [](double) { return !sInterrupted.load(); };
    }
    return [seconds](double done) {
        constexpr int WIDTH = 40;
        const int filled = int(done * WIDTH);
        std::fprintf(stderr, "\r[%s%s] %3d%%  %.1f of %.1f s", QByteArray(filled, '#').constData(),
                     QByteArray(WIDTH - filled, ' ').constData(), int(done * 100.0), done * seconds,
                     seconds);
        if (done >= 1.0) {
            std::fputc('\n', stderr);
        }
        return !sInterrupted.load();
    };
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("arbo-render"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ARBO_VERSION));
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    qInstallMessageHandler(quietHandler);

    QCommandLineParser parser;
    describe(parser);
    parser.process(app);
    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() != 2) {
        return usage(QStringLiteral("expected a log and the file to write"));
    }
    LogRenderer::Options options;
    QString problem;
    if (!readOptions(parser, arguments.at(1), options, problem)) {
        return usage(problem);
    }
    PerformanceLog::Log log;
    QString error;
    if (!PerformanceLog::read(arguments.at(0), log, &error)) {
        return fail(error, FAILED);
    }
    // Ctrl+C stops the render and removes the half-written file.
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    const qint64 frames = log.end >= 0
                              ? log.end
                              : (log.entries.empty() ? 0 : log.entries.back().at) +
                                    qint64(LogRenderer::TAIL_SECONDS * log.header.sampleRate);
    const double seconds = double(frames) / log.header.sampleRate;
    if (!LogRenderer::render(log, arguments.at(1), options, progressFor(parser, seconds), &error)) {
        return fail(QStringLiteral("%1: %2").arg(arguments.at(0), error), FAILED);
    }
    return 0;
}
