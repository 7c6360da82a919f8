#include "recording/logrenderer.h"

#include "settings/paths.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
#include <vector>

namespace LogRenderer {

namespace {

bool writeText(const QString& path, const QString& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(text.toUtf8()) == text.toUtf8().size();
}

// Puts `patch` into `dir` as the player opens it; `main` is the file to
// open. The engine's shell patches come from this program's resources, the
// voice or the patch itself from the log's text.
bool install(const QString& dir, const PerformanceLog::Patch& patch, QString* main, QString* error)
{
    if (patch.voiceText.isEmpty() && patch.text.isEmpty()) {
        *error = QStringLiteral("the patch \"%1\" has no text").arg(patch.file);
        return false;
    }
    if (!patch.voice.isEmpty() || !patch.voiceText.isEmpty()) {
        const QString shell = Paths::resourceDir() + QStringLiteral("/patches/shell/");
        for (const QString& name : PatchLoader::shellPatches()) {
            QFile::remove(dir + QLatin1Char('/') + name);
            if (!QFile::copy(shell + name, dir + QLatin1Char('/') + name)) {
                *error = QStringLiteral("cannot copy the engine's patch %1").arg(shell + name);
                return false;
            }
        }
        *main = dir + QLatin1Char('/') + QFileInfo(PatchLoader::mainPatchFile()).fileName();
        if (!writeText(dir + QLatin1Char('/') + QFileInfo(PatchLoader::voiceFile()).fileName(),
                       patch.voiceText)) {
            *error = QStringLiteral("cannot write the voice patch into %1").arg(dir);
            return false;
        }
        return true;
    }
    *main = dir + QLatin1Char('/') + QFileInfo(patch.file).fileName();
    if (!writeText(*main, patch.text)) {
        *error = QStringLiteral("cannot write the patch into %1").arg(dir);
        return false;
    }
    return true;
}

// Opens `patch` in `player` (at once while no audio thread is said to run,
// otherwise handed over to the next buffer, as the window does live).
bool load(PdPlayer& player, const QString& dir, const PerformanceLog::Patch& patch, QString* error)
{
    if (patch.none) {
        player.unloadPatch();
        return true;
    }
    QString main;
    if (!install(dir, patch, &main, error)) {
        return false;
    }
    if (!player.loadPatch(QFileInfo(main))) {
        *error = QStringLiteral("libpd cannot open the patch %1")
                     .arg(patch.voice.isEmpty() ? patch.file : patch.voice);
        return false;
    }
    return true;
}

// The log's patch, or the voice the options name instead.
bool chosenPatch(const PerformanceLog::Log& log, const Options& options,
                 PerformanceLog::Patch* patch, QString* error)
{
    if (options.patch.isEmpty()) {
        // None at the start is silence until the log's first patch change.
        *patch = log.header.patch;
        const bool changes = std::any_of(log.entries.begin(), log.entries.end(), [](const auto& e) {
            return e.kind == PerformanceLog::Entry::PatchChange && !e.patch.none;
        });
        if (patch->none && !changes) {
            *error = QStringLiteral("the log names no patch (nothing played); choose one");
            return false;
        }
        return true;
    }
    const QString path = findVoice(options.patch);
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("there is no voice patch %1").arg(options.patch);
        return false;
    }
    patch->none = false;
    patch->file = QFileInfo(PatchLoader::mainPatchFile()).fileName();
    patch->voice = QFileInfo(path).fileName();
    patch->voiceText = QString::fromUtf8(file.readAll());
    return true;
}

// Renders `frames` in pieces of at most `bufferFrames`, discarding them.
void renderSilently(PdPlayer& player, std::vector<float>& buffer, int bufferFrames, int frames)
{
    for (int done = 0; done < frames; done += bufferFrames) {
        player.render(buffer.data(), std::min(bufferFrames, frames - done));
        player.deliverResults();
    }
}

} // namespace

QString findVoice(const QString& name)
{
    if (QFileInfo(name).isFile()) {
        return QFileInfo(name).absoluteFilePath();
    }
    const QString folder = Paths::resourceDir() + QStringLiteral("/patches/");
    for (const QString& candidate : {name, name + QStringLiteral(".pd")}) {
        if (!candidate.contains(QLatin1Char('/')) && QFileInfo(folder + candidate).isFile()) {
            return folder + candidate;
        }
    }
    return QString();
}

bool render(const PerformanceLog::Log& log, const QString& outPath, const Options& options,
            const Progress& progress, QString* error)
{
    const PerformanceLog::Header& header = log.header;
    const int rate = options.sampleRate > 0 ? options.sampleRate : header.sampleRate;
    const int bufferFrames = header.bufferFrames;
    // Positions keep their time in seconds at another rate.
    const auto scaled = [&](qint64 position) {
        return rate == header.sampleRate
                   ? position
                   : qint64(std::llround(double(position) * rate / header.sampleRate));
    };
    const qint64 lastEvent = log.entries.empty() ? 0 : log.entries.back().at;
    const qint64 end =
        log.end >= 0 ? scaled(log.end) : scaled(lastEvent) + qint64(TAIL_SECONDS * rate);

    PerformanceLog::Patch patch;
    if (!chosenPatch(log, options, &patch, error)) {
        return false;
    }
    QTemporaryDir dir;
    if (!dir.isValid()) {
        *error = QStringLiteral("cannot make a temporary folder: %1").arg(dir.errorString());
        return false;
    }

    // The player, as start-up makes it, with nothing but this thread to run
    // it: the patch opens at once, and the state the log began in is put
    // back, the notes last, after the patch has settled.
    PdPlayer player;
    if (!player.init() || player.initAudio(2, rate) != 0) {
        *error = QStringLiteral("libpd does not start");
        return false;
    }
    std::vector<float> buffer(std::size_t(std::max(bufferFrames, 1)) * PdPlayer::CHANNELS);
    if (!load(player, dir.path(), patch, error)) {
        return false;
    }
    PlayerState controls = header.state;
    for (VoicePool::NoteOn& voice : controls.voices) {
        voice = VoicePool::NoteOn();
    }
    player.restoreState(controls);
    renderSilently(player, buffer, bufferFrames, WARM_UP_FRAMES);
    player.restoreState(header.state);
    player.deliverResults();
    // From here on this thread is the audio thread: a patch change of the
    // log is handed over and taken up by the next buffer, as it was live.
    player.setAudioThreadRunning(true);
    player.setReplaying(true);

    AudioFileWriter out;
    if (!out.open(outPath, options.format, rate, PdPlayer::CHANNELS)) {
        *error = out.error();
        return false;
    }
    const auto abandon = [&](const QString& why) {
        out.close();
        QFile::remove(outPath);
        player.setAudioThreadRunning(false);
        *error = why;
        return false;
    };

    std::size_t next = 0;
    qint64 position = 0;
    qint64 reported = -1;
    while (position < end) {
        for (; next < log.entries.size() && scaled(log.entries[next].at) <= position; ++next) {
            const PerformanceLog::Entry& entry = log.entries[next];
            if (entry.kind == PerformanceLog::Entry::Command) {
                if (!player.replayCommand(entry.command)) {
                    return abandon(QStringLiteral("more commands at frame %1 than a buffer "
                                                  "takes")
                                       .arg(entry.at));
                }
            } else if (entry.kind == PerformanceLog::Entry::PatchChange &&
                       options.patch.isEmpty()) {
                QString why;
                if (!load(player, dir.path(), entry.patch, &why)) {
                    return abandon(
                        QStringLiteral("the patch change at frame %1: %2").arg(entry.at).arg(why));
                }
            }
        }
        // Up to the next event, so that each takes effect at its own sample.
        qint64 frames = std::min<qint64>(bufferFrames, end - position);
        if (next < log.entries.size()) {
            frames = std::min(frames, scaled(log.entries[next].at) - position);
        }
        player.render(buffer.data(), int(frames));
        player.deliverResults();
        if (!out.write(buffer.data(), frames)) {
            return abandon(out.error());
        }
        position += frames;
        // About every hundredth of the whole.
        if (progress && position * 100 / std::max<qint64>(end, 1) != reported) {
            reported = position * 100 / std::max<qint64>(end, 1);
            if (!progress(double(position) / double(std::max<qint64>(end, 1)))) {
                return abandon(QStringLiteral("cancelled"));
            }
        }
    }
    player.setAudioThreadRunning(false);
    if (!out.close()) {
        QFile::remove(outPath);
        *error = out.error();
        return false;
    }
    return true;
}

} // namespace LogRenderer
