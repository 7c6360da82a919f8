#pragma once

#include <QByteArray>
#include <QString>

// The lines of a Scala text file (.scl or .kbm), as both formats read them:
// lines end in LF, CRLF or a lone CR (old Mac files); a UTF-8 byte order mark
// at the start is skipped; a line that starts with "!" in its first column is
// a comment, wherever it stands. Values are the first word of a line: leading
// spaces and tabs are skipped and whatever follows the first space or tab is
// a label that readers ignore.
//
// Errors name the file and the line as "FILE:LINE: what was expected", the
// one form every reader of this folder reports in.
//
// A plain value; any thread, one thread per object. Reading is linear in the
// size of the file whatever it holds, so garbage costs no more than a scale.
class TuningFileLines
{
public:
    // Files larger than this are no tuning files (the largest published scale
    // is a few kilobytes); a larger one is refused before it is read.
    static constexpr qint64 MAX_FILE_BYTES = 64 * 1024 * 1024;

    TuningFileLines(const QByteArray& bytes, const QString& fileName);

    // Reads a whole file into `bytes`. False, with "FILE: why" in `error`,
    // when it is missing, no regular readable file, or too large.
    static bool readFile(const QString& path, QByteArray& bytes, QString& error);

    // The next line that is no comment, without its line end, and its number
    // (the first line is 1). False at the end of the file.
    bool next(QByteArray& line, int& number);
    // Whether every line still to come is blank or a comment.
    bool restIsBlank() const;
    // The number a line after the last one would have: where "found the end
    // of the file" is reported.
    int endLine() const;

    // "FILE:LINE: what".
    QString error(int line, const QString& what) const;

    // The first word of `line` (empty for a blank line).
    static QByteArray firstWord(const QByteArray& line);
    // `line` without leading and trailing spaces and tabs.
    static QByteArray trimmed(const QByteArray& line);
    // Text of the file for display: UTF-8 when it is valid UTF-8, otherwise
    // Latin-1 (the archive's older files).
    static QString text(const QByteArray& bytes);
    // The word as it may be quoted in a message: at most 40 characters.
    static QString quoted(const QByteArray& word);

private:
    // The line that starts at `pos`: its end (exclusive) and where the next
    // line starts.
    void lineAt(int pos, int& end, int& nextStart) const;

    QByteArray mBytes;
    QString mFileName;
    int mPos = 0;
    int mLine = 0;
};
