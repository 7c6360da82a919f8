#include "ui/diagnosticsdialog.h"

#include "ui/diagnosticsbuffer.h"
#include "ui/diagnosticslinemodel.h"
#include "ui_diagnosticsdialog.h"

#include <QApplication>
#include <QClipboard>
#include <QListView>
#include <QPushButton>
#include <QScrollBar>

DiagnosticsDialog::DiagnosticsDialog(QWidget* parent)
    : QDialog(parent),
      mUi(new Ui::DiagnosticsDialog),
      mBuffer(std::make_shared<DiagnosticsBuffer>(SHOWN_LINES)),
      mModel(new DiagnosticsLineModel(SHOWN_LINES, this))
{
    mUi->setupUi(this);
    resize(600, 500);
    setWindowFlags(windowFlags() | Qt::WindowMaximizeButtonHint);
    // One line a row, all of one height: the view then lays out only the
    // rows it shows.
    mUi->lineView->setUniformItemSizes(true);
    mUi->lineView->setModel(mModel);
    mUi->droppedLabel->hide();

    QPushButton* copyAll = mUi->buttonBox->addButton(tr("Copy all"), QDialogButtonBox::ActionRole);
    copyAll->setToolTip(tr("Copies every line since the start, including those no longer listed"));
    connect(copyAll, &QPushButton::clicked, this,
            [this] { QApplication::clipboard()->setText(text()); });
    connect(mUi->buttonBox, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(mUi->buttonBox, &QDialogButtonBox::rejected, this, &QDialog::reject);

    mFlushTimer.setInterval(FLUSH_INTERVAL_MS);
    connect(&mFlushTimer, &QTimer::timeout, this, [this] { flush(DiagnosticsBuffer::Wait::No); });
}

DiagnosticsDialog::~DiagnosticsDialog() = default;

QListView* DiagnosticsDialog::lineView() const
{
    return mUi->lineView;
}

const DiagnosticsLineModel& DiagnosticsDialog::shownLines()
{
    flush(DiagnosticsBuffer::Wait::Yes);
    return *mModel;
}

QString DiagnosticsDialog::text() const
{
    return mBuffer->text();
}

void DiagnosticsDialog::onMessage(const QString& text)
{
    mBuffer->append(text);
}

void DiagnosticsDialog::showEvent(QShowEvent* event)
{
    flush(DiagnosticsBuffer::Wait::Yes);
    mFlushTimer.start();
    QDialog::showEvent(event);
}

// A hidden dialog costs the GUI thread nothing: its lines wait in the buffer
// (at most SHOWN_LINES of them as strings) until it is shown again.
void DiagnosticsDialog::hideEvent(QHideEvent* event)
{
    mFlushTimer.stop();
    QDialog::hideEvent(event);
}

void DiagnosticsDialog::flush(DiagnosticsBuffer::Wait wait)
{
    if (!mBuffer->hasNew()) {
        return;
    }
    QScrollBar* bar = mUi->lineView->verticalScrollBar();
    // Follow the newest line, unless the reader has scrolled up to read.
    const bool atEnd = bar->value() == bar->maximum();
    const DiagnosticsBuffer::NewLines taken = mBuffer->takeNew(wait);
    mModel->add(taken.lines, taken.skipped);
    if (mModel->droppedCount() > 0) {
        mUi->droppedLabel->setText(
            tr("%L1 earlier lines are no longer listed (Copy all has them).")
                .arg(mModel->droppedCount()));
        mUi->droppedLabel->show();
    }
    if (atEnd) {
        mUi->lineView->scrollToBottom();
    }
}
