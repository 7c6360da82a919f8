#include "tuning/tuningfilelines.h"

#include "settings/serializableroot.h"

#include <QFile>
#include <QTextCodec>

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

} // namespace

TuningFileLines::TuningFileLines(const QByteArray& bytes, const QString& fileName)
    : mBytes(bytes), mFileName(fileName)
{
    if (mBytes.startsWith("\xEF\xBB\xBF")) {
        mPos = 3;
    }
}

bool TuningFileLines::readFile(const QString& path, QByteArray& bytes, QString& error)
{
    QFile file(path);
    if (!file.exists()) {
        error = QStringLiteral("%1: no such file").arg(path);
        return false;
    }
    // A folder, a pipe (whose reading would never end) or a huge file is
    // refused before anything is read.
    if (SerializableRoot::isUnreadableEntry(path) || file.size() > MAX_FILE_BYTES) {
        error = QStringLiteral("%1: expected a readable file of at most %2 MB")
                    .arg(path)
                    .arg(MAX_FILE_BYTES / (1024 * 1024));
        return false;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    bytes = file.readAll();
    return true;
}

void TuningFileLines::lineAt(int pos, int& end, int& nextStart) const
{
    const char* data = mBytes.constData();
    const int size = mBytes.size();
    end = pos;
    while (end < size && data[end] != '\n' && data[end] != '\r') {
        ++end;
    }
    nextStart = end;
    if (nextStart < size) {
        // CRLF is one line end; a lone CR or LF is one too.
        nextStart += (data[end] == '\r' && end + 1 < size && data[end + 1] == '\n') ? 2 : 1;
    }
}

bool TuningFileLines::next(QByteArray& line, int& number)
{
    while (mPos < mBytes.size()) {
        int end = 0;
        int nextStart = 0;
        lineAt(mPos, end, nextStart);
        const int start = mPos;
        mPos = nextStart;
        ++mLine;
        if (end > start && mBytes.at(start) == '!') {
            continue;
        }
        line = mBytes.mid(start, end - start);
        number = mLine;
        return true;
    }
    return false;
}

bool TuningFileLines::restIsBlank() const
{
    int pos = mPos;
    while (pos < mBytes.size()) {
        int end = 0;
        int nextStart = 0;
        lineAt(pos, end, nextStart);
        if (end > pos && mBytes.at(pos) != '!') {
            for (int i = pos; i < end; ++i) {
                if (!isBlank(mBytes.at(i))) {
                    return false;
                }
            }
        }
        pos = nextStart;
    }
    return true;
}

int TuningFileLines::endLine() const
{
    // Counts the lines still to come, so that the answer holds wherever the
    // reading stopped.
    int lines = mLine;
    int pos = mPos;
    while (pos < mBytes.size()) {
        int end = 0;
        lineAt(pos, end, pos);
        ++lines;
    }
    return lines + 1;
}

QString TuningFileLines::error(int line, const QString& what) const
{
    return QStringLiteral("%1:%2: %3").arg(mFileName).arg(line).arg(what);
}

QByteArray TuningFileLines::firstWord(const QByteArray& line)
{
    int start = 0;
    while (start < line.size() && isBlank(line.at(start))) {
        ++start;
    }
    int end = start;
    while (end < line.size() && !isBlank(line.at(end))) {
        ++end;
    }
    return line.mid(start, end - start);
}

QByteArray TuningFileLines::trimmed(const QByteArray& line)
{
    int start = 0;
    int end = line.size();
    while (start < end && isBlank(line.at(start))) {
        ++start;
    }
    while (end > start && isBlank(line.at(end - 1))) {
        --end;
    }
    return line.mid(start, end - start);
}

QString TuningFileLines::text(const QByteArray& bytes)
{
    QTextCodec::ConverterState state;
    const QString utf8 =
        QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    return state.invalidChars == 0 ? utf8 : QString::fromLatin1(bytes);
}

QString TuningFileLines::quoted(const QByteArray& word)
{
    constexpr int LONGEST = 40;
    QString shown = text(word.left(LONGEST));
    // Garbage may hold control characters that would upset a terminal.
    for (QChar& c : shown) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f) {
            c = QLatin1Char('?');
        }
    }
    return QStringLiteral("\"%1%2\"")
        .arg(shown, word.size() > LONGEST ? QStringLiteral("...") : QString());
}
