#pragma once

#include "ui/instrumentparts.h"

#include <QPointer>
#include <QTimer>
#include <QWidget>

class LevelMeter;
class QLabel;
class QPushButton;
class RenderLogDialog;

// The main window's recording controls, at the end of its lower row: the
// Record button (Ctrl+R; it reads "Stop" and turns red while recording), the
// time and size recorded so far, "Render a log…" and the output level meter.
//
// Recordings also start and stop from the keys, MIDI and OSC (the Record
// command reaches the recorder through the player); the button follows
// whatever started them. How a recording ended is shown beside it; one that
// stopped on an error says why in a box that does not stop the music.
//
// GUI thread only.
class RecordPanel : public QWidget
{
    Q_OBJECT
public:
    static constexpr int STATUS_INTERVAL_MS = 250;

    // `parts` has the recorder and its options; `window` takes the shortcut.
    RecordPanel(const InstrumentParts& parts, QWidget* window);

    LevelMeter* meter() const { return mMeter; }
    // Made on first use and kept.
    RenderLogDialog* renderDialog();

public slots:
    void openRenderDialog();

private:
    void onRecordingChanged(bool recording);
    void onFinished(const QString& message, bool failed);
    void updateStatus();

    InstrumentParts mParts;
    QPushButton* mButton;
    QLabel* mStatus;
    QPushButton* mRenderButton;
    LevelMeter* mMeter;
    QTimer mTimer;
    QPointer<RenderLogDialog> mRenderDialog;
};
