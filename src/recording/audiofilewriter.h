#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>

struct sf_private_tag;

// A sound file being written through libsndfile: WAV with 24-bit integer or
// 32-bit float samples, or FLAC with 24-bit samples, interleaved stereo (or
// any channel count).
//
// A WAV file's header is brought up to date after every write, so that the
// file is a valid, playable one however the program ends; FLAC's is written
// when the file is closed. Samples beyond full scale are clipped in the
// integer formats, not wrapped.
//
// Threads: one thread at a time (the recorder's writer thread, or the offline
// render's).
class AudioFileWriter
{
public:
    enum Format
    {
        Wav24,
        WavFloat,
        Flac24,
    };
    static constexpr Format DEFAULT_FORMAT = Wav24;

    // Names for the options and the command line: "wav24", "wav32f",
    // "flac24"; the one the name stands for, false for an unknown name.
    static QString formatName(Format format);
    static bool formatFromName(const QString& name, Format* format);
    static QStringList formatNames();
    // What the options dialog shows.
    static QString formatLabel(Format format);
    // "wav" or "flac".
    static QString extension(Format format);

    AudioFileWriter() = default;
    // Closes the file if it is still open.
    ~AudioFileWriter();
    AudioFileWriter(const AudioFileWriter&) = delete;
    AudioFileWriter& operator=(const AudioFileWriter&) = delete;

    // Creates the file at `path` (replacing one that is there). False, with
    // the reason in error(), when it cannot.
    bool open(const QString& path, Format format, int sampleRate, int channels);
    // Appends `frames` interleaved frames; writeSilence() as many frames of
    // silence. False when not all of them could be written (a full disk, a
    // file system gone), with the reason in error(); the file then holds
    // what was written before and stays valid once closed.
    bool write(const float* samples, std::int64_t frames);
    bool writeSilence(std::int64_t frames);
    // Finishes the file. False when that failed, with the reason in error().
    bool close();

    bool isOpen() const { return mFile != nullptr; }
    QString path() const { return mPath; }
    QString error() const { return mError; }
    std::int64_t framesWritten() const { return mFrames; }

private:
    bool fail(const QString& what);

    sf_private_tag* mFile = nullptr;
    QString mPath;
    QString mError;
    int mChannels = 2;
    std::int64_t mFrames = 0;
};
