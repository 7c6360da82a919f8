#include "ui/recordpanel.h"

#include "recording/recorder.h"
#include "recording/recordingsettings.h"
#include "sound/pdplayer.h"
#include "ui/levelmeter.h"
#include "ui/renderlogdialog.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QShortcut>
#include <QStyle>
#include <QVBoxLayout>

RecordPanel::RecordPanel(const InstrumentParts& parts, QWidget* window)
    : QWidget(window), mParts(parts), mButton(new QPushButton(tr("Record"))), mStatus(new QLabel),
      mRenderButton(new QPushButton(tr("Render a log…"))), mMeter(new LevelMeter)
{
    setObjectName(QStringLiteral("recordPanel"));
    mButton->setObjectName(QStringLiteral("recordButton"));
    mButton->setCheckable(true);
    mButton->setToolTip(tr("Record what is heard, with a performance log beside it (Ctrl+R)"));
    mStatus->setObjectName(QStringLiteral("recordStatus"));
    mRenderButton->setObjectName(QStringLiteral("renderLogButton"));
    mRenderButton->setToolTip(tr("Render a performance log again, with its voice or another"));

    auto* column = new QVBoxLayout;
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(2);
    column->addWidget(mStatus);
    column->addWidget(mMeter);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(mButton);
    layout->addLayout(column);
    layout->addWidget(mRenderButton);

    Recorder* recorder = mParts.recorder;
    // The click decides; the button's state follows the recorder.
    connect(mButton, &QPushButton::clicked, recorder, &Recorder::toggle);
    auto* shortcut = new QShortcut(QKeySequence(QStringLiteral("Ctrl+R")), window);
    connect(shortcut, &QShortcut::activated, recorder, &Recorder::toggle);
    connect(recorder, &Recorder::recordingChanged, this, &RecordPanel::onRecordingChanged);
    connect(recorder, &Recorder::finished, this, &RecordPanel::onFinished);
    connect(mRenderButton, &QPushButton::clicked, this, &RecordPanel::openRenderDialog);
    connect(mParts.player, &PdPlayer::levelMeasured, mMeter, &LevelMeter::setLevel);
    mTimer.setInterval(STATUS_INTERVAL_MS);
    connect(&mTimer, &QTimer::timeout, this, &RecordPanel::updateStatus);
    onRecordingChanged(recorder->isRecording());
}

void RecordPanel::onRecordingChanged(bool recording)
{
    mButton->setChecked(recording);
    mButton->setText(recording ? tr("Stop") : tr("Record"));
    // The style sheet colours the button by this property.
    mButton->setProperty("recording", recording);
    mButton->style()->unpolish(mButton);
    mButton->style()->polish(mButton);
    if (recording) {
        mStatus->setToolTip(mParts.recorder->audioPath().isEmpty() ? mParts.recorder->logPath()
                                                                   : mParts.recorder->audioPath());
        mTimer.start();
        updateStatus();
    } else {
        mTimer.stop();
    }
}

void RecordPanel::updateStatus()
{
    const Recorder* recorder = mParts.recorder;
    QString text =
        QStringLiteral("%1  %2").arg(Recorder::formatDuration(recorder->elapsedSeconds()),
                                     QLocale().formattedDataSize(recorder->bytesWritten()));
    if (const quint64 lost = recorder->lostFrames()) {
        text += tr("  %1 frames lost").arg(lost);
    }
    mStatus->setText(text);
}

void RecordPanel::onFinished(const QString& message, bool failed)
{
    mStatus->setText(failed ? tr("Not recorded in full") : tr("Saved"));
    mStatus->setToolTip(message);
    if (failed) {
        // Not modal: the instrument stays playable while it is open.
        auto* box = new QMessageBox(QMessageBox::Warning, QCoreApplication::applicationName(),
                                    message, QMessageBox::Ok, window());
        box->setObjectName(QStringLiteral("recordingMessage"));
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->setWindowModality(Qt::NonModal);
        box->show();
    }
}

RenderLogDialog* RecordPanel::renderDialog()
{
    if (!mRenderDialog) {
        mRenderDialog = new RenderLogDialog(mParts.recordingSettings->folder(), window());
    }
    return mRenderDialog;
}

void RecordPanel::openRenderDialog()
{
    RenderLogDialog* dialog = renderDialog();
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
}
