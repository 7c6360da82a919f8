// The diagnostics dialog under a flood of log lines, as in a long
// performance with every file's messages switched on ("-all"): one million
// debug lines logged by a worker thread through the real message handler,
// into a shown dialog on the offscreen platform.
//
// - diagnostics/1M_lines/dialog: the dialog as it ships (lines archived
//   compressed as they come, the newest listed, taken in once per frame).
//   Counters: gui_cpu_s, the GUI thread's CPU time from the first line until
//   every line is taken in; gui_us_per_line; max_stall_ms, the longest the
//   GUI thread's event loop went without running a 16 ms timer (how sluggish
//   the window gets); rss_growth_MB and bytes_per_line, resident memory
//   after the flood against before it (what the hours cost); peak_rss_MB.
// - diagnostics/take_in_a_full_frame: the worst frame of a flood, without
//   the flood: 20,000 new lines (as many as the list shows) taken into a
//   shown dialog that already lists 20,000, laid out and painted. This is
//   the GUI thread's own part of the stall above, which on a busy machine
//   also holds the time the thread waits for a core.
// - diagnostics/100k_lines/append_per_line: for comparison, the same flood
//   into a plain text box that appends each line as it comes (one paragraph
//   per queued signal), a tenth of the lines.

#include "app/tuningarboapplication.h"
#include "testsupport.h"
#include "ui/diagnosticsdialog.h"
#include "ui/diagnosticslinemodel.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QListView>
#include <QLoggingCategory>
#include <QPlainTextEdit>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>

namespace {

TuningArboApplication* sApp = nullptr;

double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// A "Vm...:" figure of /proc/self/status, in bytes.
double procStatusBytes(const char* key)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return 0.0;
    }
    const QList<QByteArray> lines = status.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith(key)) {
            return line.mid(int(std::strlen(key))).trimmed().split(' ').first().toDouble() * 1024.0;
        }
    }
    return 0.0;
}

struct FloodResult
{
    double guiCpuSeconds = 0.0;
    double wallSeconds = 0.0;
    double maxStallMs = 0.0;
};

// Logs `lines` debug lines on a worker thread and runs the GUI thread's event
// loop until `arrived()` reports them all.
FloodResult flood(int lines, const std::function<int()>& arrived)
{
    FloodResult result;
    QElapsedTimer sinceTick;
    QTimer tick;
    tick.setInterval(16);
    // The loop sleeps while nothing is to be done, as the program's does, so
    // that the GUI thread's CPU time is what the lines cost.
    QEventLoop loop;
    QObject::connect(&tick, &QTimer::timeout, [&] {
        result.maxStallMs = std::max(result.maxStallMs, double(sinceTick.nsecsElapsed()) * 1e-6);
        sinceTick.restart();
        if (arrived() >= lines) {
            loop.quit();
        }
    });

    QThread* worker = QThread::create([lines] {
        for (int i = 0; i < lines; ++i) {
            qDebug("flood line %d from the worker thread", i);
        }
    });
    QElapsedTimer wall;
    wall.start();
    const double cpuStart = threadCpuSeconds();
    sinceTick.start();
    tick.start();
    worker->start();
    loop.exec();
    result.guiCpuSeconds = threadCpuSeconds() - cpuStart;
    result.wallSeconds = double(wall.nsecsElapsed()) * 1e-9;
    tick.stop();
    worker->wait();
    delete worker;
    return result;
}

void report(benchmark::State& state, const FloodResult& result, int lines, double rssBefore)
{
    state.SetIterationTime(result.wallSeconds);
    const double growth = procStatusBytes("VmRSS:") - rssBefore;
    state.counters["gui_cpu_s"] = result.guiCpuSeconds;
    state.counters["gui_us_per_line"] = result.guiCpuSeconds * 1e6 / lines;
    state.counters["max_stall_ms"] = result.maxStallMs;
    // How much later than its 16 ms the timer ran at worst.
    state.counters["max_late_ms"] = result.maxStallMs - 16.0;
    state.counters["rss_growth_MB"] = growth / (1024.0 * 1024.0);
    state.counters["bytes_per_line"] = growth / lines;
    state.counters["peak_rss_MB"] = procStatusBytes("VmHWM:") / (1024.0 * 1024.0);
}

void dialog(benchmark::State& state)
{
    const int lines = int(state.range(0));
    for (auto _ : state) {
        const double rssBefore = procStatusBytes("VmRSS:");
        auto* dialog = new DiagnosticsDialog;
        dialog->listenTo(sApp, &TuningArboApplication::diagnosticMessage);
        dialog->show();
        // The dialog's own timer takes the lines in; this only watches.
        const FloodResult result = flood(lines, [dialog] {
            return int(dialog->archive().lineCount());
        });
        const DiagnosticsLineModel& shown = dialog->shownLines();
        report(state, result, lines, rssBefore);
        state.counters["archive_MB"] = double(dialog->archive().archiveBytes()) / (1024.0 * 1024.0);
        if (shown.rowCount() + shown.droppedCount() != lines ||
            !shown.lines().last().endsWith(
                QStringLiteral("flood line %1 from the worker thread").arg(lines - 1))) {
            state.SkipWithError("the last line is missing");
        }
        delete dialog;
    }
}

void takeInAFullFrame(benchmark::State& state)
{
    DiagnosticsDialog dialog;
    dialog.show();
    const auto give = [&dialog](int round) {
        for (int i = 0; i < DiagnosticsDialog::SHOWN_LINES; ++i) {
            dialog.onMessage(
                QStringLiteral("[12:00:00.000]  round %1 line %2 of the flood\n").arg(round).arg(i));
        }
    };
    give(0);
    dialog.shownLines();
    QCoreApplication::processEvents();
    int round = 1;
    for (auto _ : state) {
        state.PauseTiming();
        give(round++);
        state.ResumeTiming();
        dialog.shownLines();
        QCoreApplication::processEvents();
        dialog.lineView()->viewport()->repaint();
    }
}

void appendPerLine(benchmark::State& state)
{
    const int lines = int(state.range(0));
    for (auto _ : state) {
        const double rssBefore = procStatusBytes("VmRSS:");
        auto* box = new QPlainTextEdit;
        box->setReadOnly(true);
        box->resize(600, 500);
        box->show();
        int received = 0;
        QObject::connect(
            sApp, &TuningArboApplication::diagnosticMessage, box,
            [box, &received](const QString& text) {
                box->appendPlainText(text);
                ++received;
            },
            Qt::QueuedConnection);
        const FloodResult result = flood(lines, [&received] { return received; });
        report(state, result, lines, rssBefore);
        delete box;
    }
}

} // namespace

int main(int argc, char** argv)
{
    TestSupport::isolateHome();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    int count = 1;
    TuningArboApplication app(count, argv);
    sApp = &app;
    QTemporaryDir dir;
    // "-all": every line of every file reaches the diagnostics.
    app.mLog.mFlags = {QStringLiteral("all")};
    if (!app.mLog.open(dir.filePath(QStringLiteral("log.txt")))) {
        std::fprintf(stderr, "the log file did not open\n");
        return 1;
    }
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);

    benchmark::RegisterBenchmark("diagnostics/1M_lines/dialog", dialog)
        ->Arg(1000000)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("diagnostics/take_in_a_full_frame", takeInAFullFrame)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("diagnostics/100k_lines/append_per_line", appendPerLine)
        ->Arg(100000)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
