#include "ui/diagnosticsdialog.h"

#include "ui_diagnosticsdialog.h"

#include <QCoreApplication>
#include <QPlainTextEdit>

DiagnosticsDialog::DiagnosticsDialog(QWidget* parent)
    : QDialog(parent), mUi(new Ui::DiagnosticsDialog)
{
    mUi->setupUi(this);
    resize(600, 500);
    setWindowFlags(windowFlags() | Qt::WindowMaximizeButtonHint);
    // Never trimmed: 0 means no limit on the number of paragraphs.
    mUi->plainTextEdit->setMaximumBlockCount(0);
    connect(mUi->buttonBox, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(mUi->buttonBox, &QDialogButtonBox::rejected, this, &QDialog::reject);

    mFlushTimer.setSingleShot(true);
    mFlushTimer.setInterval(FLUSH_INTERVAL_MS);
    connect(&mFlushTimer, &QTimer::timeout, this, &DiagnosticsDialog::flush);
}

DiagnosticsDialog::~DiagnosticsDialog() = default;

QPlainTextEdit* DiagnosticsDialog::textBox() const
{
    return mUi->plainTextEdit;
}

QString DiagnosticsDialog::text()
{
    flush();
    return mUi->plainTextEdit->toPlainText();
}

void DiagnosticsDialog::onMessage(const QString& text)
{
    if (text.endsWith(QLatin1Char('\n'))) {
        mPending << text.left(text.size() - 1);
    } else {
        mPending << text;
    }
    if (!mFlushTimer.isActive()) {
        mFlushTimer.start();
    }
}

void DiagnosticsDialog::flush()
{
    mFlushTimer.stop();
    if (mPending.isEmpty()) {
        return;
    }
    mUi->plainTextEdit->appendPlainText(mPending.join(QLatin1Char('\n')));
    mPending.clear();
}
