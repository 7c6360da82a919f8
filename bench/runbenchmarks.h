#pragma once

#include "settings/paths.h"
#include "testsupport.h"

#include <QGuiApplication>
#include <QLoggingCategory>

#include <benchmark/benchmark.h>

#include <type_traits>

// The application object of a benchmark, the process as a performance runs
// it: a home folder of its own (never the user's files), the program's name,
// no note-by-note debug lines, and widgets drawn offscreen unless a display
// platform is named.
template <typename App> class BenchmarkApp : public App
{
public:
    BenchmarkApp(int& argc, char** argv) : App((prepare(), argc), argv)
    {
        App::setApplicationName(QString::fromLatin1(Paths::APP_NAME));
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    }

private:
    // Before the application exists: both take effect only then.
    static void prepare()
    {
        TestSupport::isolateHome();
        if (std::is_base_of<QGuiApplication, App>::value &&
            qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
    }
};

// Runs `registered` at the two buffer sizes the engine is measured at, 64 and
// 256 frames, passed as its argument.
inline benchmark::internal::Benchmark* atBufferSizes(benchmark::internal::Benchmark* registered)
{
    return registered->ArgName("frames")->Arg(64)->Arg(256);
}

// Runs the benchmarks registered so far, as Google Benchmark's own main()
// would: 1 on an argument it does not know, else 0. For the benchmark
// programs that set up the engine in main() before registering.
inline int runRegisteredBenchmarks(int& argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
