#pragma once

#include "model/arbopath.h"
#include "model/arboratio.h"

#include <QSet>
#include <QString>

#include <vector>

// `voices` (128: a full pool) different notes between 20 Hz and 20 kHz above
// 440 Hz: paths of up to three prime steps, each ratio once. The benchmarks'
// full chord.
inline std::vector<ArboPath> chordPaths(int voices = 128)
{
    const signed char primes[] = {2, 3, 5, 7, 11, 13};
    std::vector<ArboPath> paths;
    QSet<QString> ratios;
    auto consider = [&](const ArboPath& path) {
        if (int(paths.size()) >= voices) {
            return;
        }
        const ArboRatio ratio = ArboRatio::pathRatio(path);
        const double frequency = ratio.toDouble() * 440.0;
        const QString key = QStringLiteral("%1/%2").arg(ratio.numerator()).arg(ratio.denominator());
        if (frequency > 40.0 && frequency < 8000.0 && !ratios.contains(key)) {
            ratios.insert(key);
            paths.push_back(path);
        }
    };
    consider(ArboPath());
    for (signed char a : primes) {
        for (int sa : {1, -1}) {
            consider(ArboPath(static_cast<signed char>(sa * a)));
        }
    }
    for (signed char a : primes) {
        for (signed char b : primes) {
            for (int sa : {1, -1}) {
                for (int sb : {1, -1}) {
                    ArboPath path(static_cast<signed char>(sa * a));
                    path.addLeaf(static_cast<signed char>(sb * b));
                    consider(path);
                    for (signed char c : primes) {
                        ArboPath longer = path;
                        longer.addLeaf(static_cast<signed char>(sa * c));
                        consider(longer);
                    }
                }
            }
        }
    }
    return paths;
}
