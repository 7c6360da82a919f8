#pragma once

#include <benchmark/benchmark.h>

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
