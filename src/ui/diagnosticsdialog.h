#pragma once

#include "ui/diagnosticsbuffer.h"

#include <QDialog>
#include <QString>
#include <QTimer>

#include <memory>

class DiagnosticsLineModel;
class QListView;

namespace Ui {
class DiagnosticsDialog;
}

// Shows every log line that the logging handler passes on (the words given on
// the command line choose which), from the moment the dialog exists, whether
// it is shown or not. The text is never trimmed: text() returns every line.
//
// A performer may leave the program running for hours with every file's
// messages switched on, so the dialog is built to stay small and smooth
// under a flood: the lines are archived compressed as they come (see
// DiagnosticsBuffer), the list shows only the newest SHOWN_LINES of them
// (and says how many earlier ones it no longer shows), and the window takes
// new lines in at most once per frame, only while it is shown.
//
// Threads: onMessage() may be called on any thread, directly by whoever
// logs: every line lands in order of logging, without a queued signal per
// line piling up on the GUI thread (see listenTo()).
// Everything else runs on the GUI thread.
class DiagnosticsDialog : public QDialog
{
    Q_OBJECT
public:
    // How long lines wait before the list takes them in together.
    static constexpr int FLUSH_INTERVAL_MS = 16;
    // The most lines the list shows.
    static constexpr int SHOWN_LINES = 20000;

    explicit DiagnosticsDialog(QWidget* parent = nullptr);
    ~DiagnosticsDialog() override;

    // Connects `signal` of `sender`, emitted on whichever thread logs, to the
    // dialog's buffer directly. The functor holds the buffer, not the dialog:
    // a line on its way while the dialog is destroyed still lands somewhere
    // (Qt keeps a connection's functor alive while a call is under way).
    template <typename Sender>
    void listenTo(const Sender* sender, void (Sender::*signal)(const QString&))
    {
        connect(
            sender, signal, this,
            [buffer = mBuffer](const QString& line) { buffer->append(line); },
            Qt::DirectConnection);
    }

    QListView* lineView() const;
    // The rows shown: the newest lines, at most SHOWN_LINES.
    const DiagnosticsLineModel& shownLines();
    // Everything received so far, one line per message.
    QString text() const;
    const DiagnosticsBuffer& archive() const { return *mBuffer; }

public slots:
    // Adds `text` as a new line. Thread-safe.
    void onMessage(const QString& text);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void flush(DiagnosticsBuffer::Wait wait);

    std::unique_ptr<Ui::DiagnosticsDialog> mUi;
    std::shared_ptr<DiagnosticsBuffer> mBuffer;
    DiagnosticsLineModel* mModel;
    QTimer mFlushTimer;
};
