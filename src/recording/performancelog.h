#pragma once

#include "sound/pdmessagebuffer.h"
#include "sound/playerstate.h"

#include <QByteArray>
#include <QString>

#include <vector>

// The performance log: every command the engine carried out, with the
// sample position at which it took effect, as JSON Lines (one JSON object per
// line, UTF-8, each line ending in "\n"), so that a performance can be
// rendered again, offline, with the same or another patch.
//
// The first line is the header:
//
//   {"format": 1, "program": "Merrow Tuning Arbo 1.5.0",
//    "recorded": "2026-11-25T20:15:03", "sampleRate": 44100,
//    "bufferFrames": 256, "baseFrequency": 440,
//    "patch": {"file": "arbo_main.pd", "voice": "Sine.pd", "voiceText": "#N canvas ..."},
//    "options": {"builtInSound": true, "monophonic": false, "disabledPrimes": [7]},
//    "state": {"transposition": "3/2", "masterVolume": 0.75, "voiceVolume": 1,
//              "macros": [0.1, 0.3, null, null, null, null, null, null],
//              "sequence": 12, "monoVoice": -1,
//              "notes": [{"voice": 0, "seq": 11, "ratio": "9/4", "frequency": 990,
//                         "volume": 1, "sounding": true, "held": [3, 3]}]}}
//
// "state" is the player's state at the first sample (see PlayerState): the
// notes sounding then (their voice, the frequency and volume the patch was
// given, whether a key holds them, by the path it pressed), so a log begun in
// the middle of a chord sounds that chord. "patch" carries the text of the
// patch itself: the voice patch played in the engine's main patch, or
// ("file", "text") a patch opened on its own; null for none.
//
// Then one line per event, in the order the engine carried them out:
//
//   {"at": 25600, "event": 0, "path": [3, -5], "value": 1}   a command: its type
//                        (ArboEvent::Type), the note's path as its signed
//                        steps (left out when empty) and its value (null when
//                        not a finite number)
//   {"at": 51200, "patch": {...}}   a patch change taken up (null: closed)
//   {"at": 76800, "lost": 256}      frames the writer could not keep: silence
//                                   in the recording, in their place
//   {"end": 441000, "lostFrames": 0, "lostCommands": 0}   the last line of a
//                                   finished recording: its length in frames
//
// "at" counts frames from the first sample of the recording; an event takes
// effect at the start of the buffer that begins there.
//
// A log whose "format" is newer than FORMAT is refused, as is a line that is
// not what it should be: with the file name, the line number and what was
// expected.
namespace PerformanceLog {

// The version this program writes and the newest it reads.
constexpr int FORMAT = 1;

struct Patch
{
    bool none = true; // no patch: silence
    // The name the patch was opened under ("arbo_main.pd" for the engine's).
    QString file;
    // Its text, for a patch opened on its own.
    QString text;
    // For the engine's main patch: the voice patch in it, by file name, and
    // its text.
    QString voice;
    QString voiceText;
};

struct Header
{
    int format = FORMAT;
    QString program;
    QString recorded; // local time, ISO 8601
    int sampleRate = 44100;
    int bufferFrames = 256;
    Patch patch;
    PlayerState state;
};

struct Entry
{
    enum Kind
    {
        Command,
        PatchChange,
        Gap,
    };
    qint64 at = 0;
    Kind kind = Command;
    PdMessageBuffer::Chunk command;
    Patch patch;
    qint64 frames = 0; // Gap
};

struct Log
{
    Header header;
    std::vector<Entry> entries;
    // The recording's length in frames; -1 when the log has no end line
    // (the program did not finish it).
    qint64 end = -1;
    quint64 lostFrames = 0;
    quint64 lostCommands = 0;
};

// The lines, each with its "\n".
QByteArray headerLine(const Header& header);
QByteArray commandLine(qint64 at, const PdMessageBuffer::Chunk& command);
QByteArray patchLine(qint64 at, const Patch& patch);
QByteArray gapLine(qint64 at, qint64 frames);
QByteArray endLine(qint64 at, quint64 lostFrames, quint64 lostCommands);

// Reads a whole log. False, with "FILE:LINE: what is wrong" (or why the file
// cannot be read) in `error`, for anything but a well-formed log of a format
// this program knows.
bool read(const QString& path, Log& log, QString* error);
// The same for the bytes of a log called `name` in the messages.
bool parse(const QByteArray& bytes, const QString& name, Log& log, QString* error);

} // namespace PerformanceLog
