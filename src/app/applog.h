#pragma once

#include <QFile>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>

// The program's log: the file "log.txt" in the configuration folder, which
// grows across runs, and the diagnostics feed of the messages the
// command-line words ask for.
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
    // Whether the message comes from a source file the words name.
    bool isAskedFor(const QMessageLogContext& context) const;

    QFile mFile;
    QMutex mMutex;
    bool mInstalled = false;
};
