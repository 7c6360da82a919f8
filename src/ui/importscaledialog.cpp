#include "ui/importscaledialog.h"

#include "tuning/scaleplacement.h"

#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>

ImportScaleDialog::ImportScaleDialog(QWidget* parent)
    : QDialog(parent), mScaleEdit(new QLineEdit(this)), mMappingEdit(new QLineEdit(this)),
      mTolerance(new QDoubleSpinBox(this))
{
    setWindowTitle(tr("Import scale"));
    mScaleEdit->setObjectName(QStringLiteral("scaleFileEdit"));
    mMappingEdit->setObjectName(QStringLiteral("mappingFileEdit"));
    mMappingEdit->setPlaceholderText(tr("optional"));
    mMappingEdit->setToolTip(tr("Without a mapping, the key of the 1/1 Note plays the 1/1 and "
                                "each key above it the next degree"));
    mTolerance->setObjectName(QStringLiteral("toleranceBox"));
    mTolerance->setRange(0.0, ScalePlacement::MAX_TOLERANCE);
    mTolerance->setDecimals(2);
    mTolerance->setSingleStep(0.5);
    mTolerance->setValue(ScalePlacement::DEFAULT_TOLERANCE);
    mTolerance->setSuffix(tr(" cents"));
    mTolerance->setToolTip(tr("How far a degree written in cents may lie from the lattice ratio "
                              "it is played at"));

    auto* form = new QFormLayout;
    form->addRow(tr("Scale (.scl):"),
                 fileRow(mScaleEdit, tr("Open Scala Scale"), tr("Scala scales (*.scl)")));
    form->addRow(tr("Keyboard mapping (.kbm):"), fileRow(mMappingEdit, tr("Open Keyboard Mapping"),
                                                         tr("Scala keyboard mappings (*.kbm)")));
    form->addRow(tr("Cents tolerance:"), mTolerance);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    mImportButton = buttons->addButton(tr("Import"), QDialogButtonBox::AcceptRole);
    mImportButton->setObjectName(QStringLiteral("importButton"));
    mImportButton->setEnabled(false);
    connect(mScaleEdit, &QLineEdit::textChanged, this,
            [this](const QString& text) { mImportButton->setEnabled(!text.trimmed().isEmpty()); });
    connect(buttons, &QDialogButtonBox::accepted, this, &ImportScaleDialog::importRequested);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(buttons);
    setMinimumWidth(560);
}

QWidget* ImportScaleDialog::fileRow(QLineEdit* edit, const QString& caption, const QString& filter)
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(edit, 1);
    auto* browse = new QPushButton(tr("Browse…"), row);
    layout->addWidget(browse);
    connect(browse, &QPushButton::clicked, this, [=] {
        const QString start = edit->text().isEmpty() ? mLastFolder : edit->text();
        const QString file = QFileDialog::getOpenFileName(
            this, caption, start, filter + QStringLiteral(";;") + tr("All files (*)"));
        if (!file.isEmpty()) {
            mLastFolder = QFileInfo(file).absolutePath();
            edit->setText(file);
        }
    });
    return row;
}

QString ImportScaleDialog::scaleFile() const
{
    return mScaleEdit->text().trimmed();
}

QString ImportScaleDialog::mappingFile() const
{
    return mMappingEdit->text().trimmed();
}

double ImportScaleDialog::tolerance() const
{
    return mTolerance->value();
}
