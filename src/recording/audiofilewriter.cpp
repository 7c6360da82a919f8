#include "recording/audiofilewriter.h"

#include <QFile>

#include <sndfile.h>

#include <algorithm>
#include <iterator>
#include <vector>

namespace {

struct FormatInfo
{
    const char* name;
    const char* label;
    const char* extension;
    int sndfileFormat;
};

const FormatInfo FORMATS[] = {
    {"wav24", "WAV, 24-bit", "wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24},
    {"wav32f", "WAV, 32-bit float", "wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT},
    {"flac24", "FLAC, 24-bit", "flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
};

} // namespace

QString AudioFileWriter::formatName(Format format)
{
    return QLatin1String(FORMATS[format].name);
}

bool AudioFileWriter::formatFromName(const QString& name, Format* format)
{
    for (int i = 0; i < int(std::size(FORMATS)); ++i) {
        if (name == QLatin1String(FORMATS[i].name)) {
            *format = Format(i);
            return true;
        }
    }
    return false;
}

QStringList AudioFileWriter::formatNames()
{
    QStringList names;
    for (const FormatInfo& info : FORMATS) {
        names << QLatin1String(info.name);
    }
    return names;
}

QString AudioFileWriter::formatLabel(Format format)
{
    return QLatin1String(FORMATS[format].label);
}

QString AudioFileWriter::extension(Format format)
{
    return QLatin1String(FORMATS[format].extension);
}

AudioFileWriter::~AudioFileWriter()
{
    close();
}

bool AudioFileWriter::fail(const QString& what)
{
    // libsndfile reports the system's reason ("No space left on device") in
    // its error text.
    const char* reason = sf_strerror(mFile);
    mError = QStringLiteral("%1 %2: %3").arg(what, mPath, QString::fromLocal8Bit(reason));
    return false;
}

bool AudioFileWriter::open(const QString& path, Format format, int sampleRate, int channels)
{
    close();
    mPath = path;
    mError.clear();
    mFrames = 0;
    mChannels = channels;
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = channels;
    info.format = FORMATS[format].sndfileFormat;
    mFile = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!mFile) {
        return fail(QStringLiteral("Cannot create"));
    }
    // Integer samples: clip what goes past full scale rather than wrap it
    // round into a crack.
    sf_command(mFile, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    // Float WAV files get a PEAK chunk with the time of writing: the same
    // log rendered twice must give the same bytes.
    sf_command(mFile, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    if ((info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV) {
        // A header that always matches the data: a valid file at any moment.
        sf_command(mFile, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
    }
    return true;
}

bool AudioFileWriter::write(const float* samples, std::int64_t frames)
{
    if (!mFile) {
        mError = QStringLiteral("No file is open");
        return false;
    }
    const sf_count_t written = sf_writef_float(mFile, samples, sf_count_t(frames));
    mFrames += std::max<sf_count_t>(written, 0);
    if (written != sf_count_t(frames)) {
        return fail(QStringLiteral("Cannot write to"));
    }
    return true;
}

bool AudioFileWriter::writeSilence(std::int64_t frames)
{
    const std::vector<float> silence(std::size_t(4096 * mChannels), 0.0f);
    for (std::int64_t done = 0; done < frames;) {
        const std::int64_t piece = std::min<std::int64_t>(4096, frames - done);
        if (!write(silence.data(), piece)) {
            return false;
        }
        done += piece;
    }
    return true;
}

bool AudioFileWriter::close()
{
    if (!mFile) {
        return mError.isEmpty();
    }
    const int result = sf_close(mFile);
    mFile = nullptr;
    if (result != 0 && mError.isEmpty()) {
        mError = QStringLiteral("Cannot finish %1: %2")
                     .arg(mPath, QString::fromLocal8Bit(sf_error_number(result)));
    }
    return result == 0;
}
