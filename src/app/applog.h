#pragma once

#include <QFile>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>

#include <atomic>

// The program's log: the file "log.txt" in the configuration folder, which
// grows across runs, and the diagnostics feed of the messages the
// command-line words ask for.
//
// A program left running for days (or a flood of warnings) must not fill the
// disk: once the file reaches ROTATE_BYTES it becomes "log.txt.1" (replacing
// the one before) and a new "log.txt" begins, so the log never takes more
// than about twice that.
//
// Once open() has installed it, the process's one message handler writes
// every message but debug ones to the file, each in a single write() so that
// messages of several threads never interleave, and emits diagnosticMessage
// for the messages of the source files named by the words in mFlags ("all"
// for every file).
//
// Threads: open() and remove() on the GUI thread, while no other thread logs;
// the handler runs on whichever thread logs.
class AppLog : public QObject
{
    Q_OBJECT
public:
    explicit AppLog(QObject* parent = nullptr);
    // Removes the handler if it is still installed.
    ~AppLog() override;

    // Opens the file at `path` in append mode, installs the message handler
    // and writes the start-up banner. Without it, messages go to Qt's default
    // output. Returns whether the file opened.
    bool open(const QString& path);
    static constexpr qint64 ROTATE_BYTES = 10 * 1024 * 1024;
    // The size at which the file is set aside; any thread.
    void setRotateBytes(qint64 bytes) { mRotateBytes.store(bytes); }
    // Gives messages back to Qt's default output.
    void remove();

    // The one message handler of the process. Safe to call from any thread.
    static void messageHandler(QtMsgType type, const QMessageLogContext& context,
                               const QString& message);

    // Lower-cased command-line words, each without one leading "-"; they
    // choose which source files' messages reach the diagnostics dialog. Set
    // before open().
    QSet<QString> mFlags;

signals:
    // Emitted on the thread that logged. Connect it queued.
    void diagnosticMessage(const QString& message);

private:
    void write(const QByteArray& bytes);
    // Renames the file to "<file>.1" and points the descriptor every writer
    // uses at a new file, in one dup2(): a message written meanwhile lands
    // whole in one file or the other.
    void rotate();
    // Whether the message comes from a source file the words name.
    bool isAskedFor(const QMessageLogContext& context) const;

    QFile mFile;
    QMutex mMutex;
    bool mInstalled = false;
    std::atomic<qint64> mSize{0};
    std::atomic<qint64> mRotateBytes{ROTATE_BYTES};
    std::atomic<bool> mRotating{false};
};
