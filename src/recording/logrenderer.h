#pragma once

#include "recording/audiofilewriter.h"
#include "recording/performancelog.h"

#include <QString>

#include <functional>

// Renders a performance log offline, as fast as the machine allows: a player
// of its own runs the log's patch (or another one), is put into the state the
// log began in, and its render entry, the one the audio callback uses, is
// driven buffer by buffer with the logged commands at their sample positions
// and the buffer size of the recording. So the same log always gives the same
// samples, and with the patch it was played with, the samples of the live
// recording (apart from its first buffer, where the live patch had a past).
//
// At another sample rate the commands keep their times in seconds; each
// takes effect at its own sample, the buffers being cut there.
//
// libpd's hooks reach one player per process: nothing else in the process may
// play while a render runs (the program runs the arbo-render tool for it).
// Threads: the calling thread is the render's audio thread.
namespace LogRenderer {

struct Options
{
    // A voice patch to render with instead of the log's (its changes of
    // patch are then left out); empty: the log's own.
    QString patch;
    // 0: the log's.
    int sampleRate = 0;
    AudioFileWriter::Format format = AudioFileWriter::WavFloat;
};

// Silence rendered and thrown away before the first sample, once the
// patch is open and the controls are set: as long as a patch that has been
// playing, the new one has glided to its master volume and settled.
constexpr int WARM_UP_FRAMES = 8192;
// How long a log without an end line (its recording was not finished) is
// rendered past its last event.
constexpr double TAIL_SECONDS = 2.0;

// Called now and then with the part done (0 to 1); returning false cancels.
using Progress = std::function<bool(double done)>;

// The voice patch `name` means: the file, if there is one, else the voice of
// that name (".pd" may be left out) in the resource folder's "patches";
// empty when there is neither.
QString findVoice(const QString& name);

// Renders `log` into the sound file `outPath`. False, with the reason in
// `error` and no file left behind, on failure or when cancelled.
bool render(const PerformanceLog::Log& log, const QString& outPath, const Options& options,
            const Progress& progress, QString* error);

} // namespace LogRenderer
