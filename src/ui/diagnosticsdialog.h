#pragma once

#include <QDialog>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <memory>

class QPlainTextEdit;

namespace Ui {
class DiagnosticsDialog;
}

// Shows every log line that the logging handler passes on (the words given on
// the command line choose which), from the moment the dialog exists, whether
// it is shown or not. The text is never trimmed.
//
// A performer may leave the program running for hours with every file's
// messages switched on, so the lines are not put into the text box one by
// one: they are collected and appended together at most once per frame,
// which keeps the GUI thread's share small whatever the rate.
//
// Threads: the handler emits on whichever thread logs; the connection is
// queued (also for the GUI thread's own messages), so every line arrives on
// the GUI thread in the order it was logged. Everything here runs on the
// GUI thread.
class DiagnosticsDialog : public QDialog
{
    Q_OBJECT
public:
    // How long lines wait before they go into the text box together.
    static constexpr int FLUSH_INTERVAL_MS = 16;

    // Shows the lines given to onMessage(). Whoever logs connects it, queued
    // even from the GUI thread, so that a line logged there does not overtake
    // lines of other threads that are already on their way.
    explicit DiagnosticsDialog(QWidget* parent = nullptr);
    ~DiagnosticsDialog() override;

    QPlainTextEdit* textBox() const;
    // Everything received so far, lines still waiting included, one line per
    // message.
    QString text();

public slots:
    // Appends `text` as a new paragraph (one trailing line end, which every
    // logged line carries, is dropped: the paragraph ends the line).
    void onMessage(const QString& text);

private:
    void flush();

    std::unique_ptr<Ui::DiagnosticsDialog> mUi;
    QStringList mPending;
    QTimer mFlushTimer;
};
