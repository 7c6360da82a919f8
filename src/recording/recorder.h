#pragma once

#include "recording/recordingwriter.h"

#include <QObject>
#include <QString>
#include <QTimer>

#include <memory>

class PdPlayer;
class RecordingSettings;
class RecordTap;

// Records what the instrument plays: the sound it sends to the audio device
// into a WAV or FLAC file, and every command the engine carries out into a
// performance log beside it (same name, ".jsonl"; see PerformanceLog), or
// the log alone when the options say so. Files are named by the date and
// time the recording began, in the recordings folder of the options.
//
// The audio thread only copies into the rings of a RecordTap; a
// RecordingWriter thread writes the files. A write that fails (a full disk,
// a folder gone) ends the recording with a message that says why, and the
// file written so far stays valid. stop() (and so quitting, or a SIGTERM
// through the application's shutdown) finishes both files properly.
//
// Threads: GUI thread.
class Recorder : public QObject
{
    Q_OBJECT
public:
    // How long stop() waits for the audio thread to reach the end of its
    // buffer before it ends the recording itself.
    static constexpr int STOP_TIMEOUT_MS = 3000;
    static constexpr int POLL_INTERVAL_MS = 100;

    // Follows `player`'s patch changes from now on, so that a recording can
    // name the patch it plays: make it before the first patch is loaded.
    Recorder(PdPlayer* player, const RecordingSettings* settings, QObject* parent = nullptr);
    // Stops a recording that runs.
    ~Recorder() override;

    bool isRecording() const { return mTap != nullptr; }
    // Begins a recording (nothing when one runs). False when the files
    // cannot be made; finished() then says why.
    bool start();
    // Ends the recording that runs and finishes its files; finished() says
    // how it went.
    void stop();
    void toggle();

    // Of the recording that runs (or ran last).
    QString audioPath() const { return mAudioPath; }
    QString logPath() const { return mLogPath; }
    double elapsedSeconds() const;
    // Bytes of both files on disk so far.
    qint64 bytesWritten() const;
    quint64 lostFrames() const;
    // The writer's worst lag so far, in frames that waited in the ring.
    qint64 maxLagFrames() const { return mWriter ? mWriter->maxLagFrames() : mLastMaxLag; }

    // "12:03" or "1:02:03".
    static QString formatDuration(double seconds);

public slots:
    // A CommandDispatcher::RecordRequest from the keys, MIDI, OSC or wands.
    void onRecordRequest(int request);

signals:
    void recordingChanged(bool recording);
    // A recording ended or could not begin: where it went and what was
    // lost, or why it stopped (`failed`).
    void finished(const QString& message, bool failed);

private:
    void onPatchHandingOver(quint32 serial, const QString& file);
    // Ends the recording early when the writer failed or the sound card's
    // rate changed under it.
    void poll();
    // Where the files of a recording begun now go: a name not yet taken.
    QString freeBaseName(const QString& folder, const QString& extension) const;
    void report(const QString& message, bool failed);

    PdPlayer* mPlayer;
    const RecordingSettings* mSettings;
    std::shared_ptr<RecordingWriter::PatchBook> mPatches;
    std::unique_ptr<RecordTap> mTap;
    std::unique_ptr<RecordingWriter> mWriter;
    QString mAudioPath;
    QString mLogPath;
    int mSampleRate = 44100;
    quint64 mLastLost = 0;
    qint64 mLastMaxLag = 0;
    double mLastSeconds = 0.0;
    // Why the recording that runs is being ended early; empty otherwise.
    QString mStopReason;
    QTimer mPoll;
};
