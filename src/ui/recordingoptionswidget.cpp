#include "ui/recordingoptionswidget.h"

#include "recording/recordingsettings.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>

RecordingOptionsWidget::RecordingOptionsWidget(RecordingSettings* settings, QWidget* parent)
    : QWidget(parent), mSettings(settings)
{
    auto* form = new QFormLayout(this);
    mFormat = new QComboBox(this);
    mFormat->setObjectName(QStringLiteral("recordingFormat"));
    for (const QString& name : AudioFileWriter::formatNames()) {
        AudioFileWriter::Format format = AudioFileWriter::DEFAULT_FORMAT;
        AudioFileWriter::formatFromName(name, &format);
        mFormat->addItem(AudioFileWriter::formatLabel(format), name);
    }
    form->addRow(tr("Sound file:"), mFormat);

    mFolder = new QLineEdit(this);
    mFolder->setObjectName(QStringLiteral("recordingFolder"));
    mFolder->setPlaceholderText(RecordingSettings::defaultFolder());
    auto* choose = new QPushButton(tr("Choose…"), this);
    auto* folderRow = new QHBoxLayout;
    folderRow->addWidget(mFolder, 1);
    folderRow->addWidget(choose);
    form->addRow(tr("Folder:"), folderRow);

    mAudio = new QCheckBox(tr("Record the sound (off: the performance log alone)"), this);
    mAudio->setObjectName(QStringLiteral("recordingAudio"));
    form->addRow(mAudio);

    mController = new QSpinBox(this);
    mController->setObjectName(QStringLiteral("recordingController"));
    mController->setRange(-1, 127);
    mController->setSpecialValueText(tr("None"));
    mController->setToolTip(tr("Each press of this MIDI controller starts or stops recording"));
    form->addRow(tr("MIDI controller:"), mController);

    refresh();
    connect(mFormat, QOverload<int>::of(&QComboBox::activated), this,
            &RecordingOptionsWidget::onEdited);
    connect(mFolder, &QLineEdit::editingFinished, this, &RecordingOptionsWidget::onEdited);
    connect(mAudio, &QCheckBox::toggled, this, &RecordingOptionsWidget::onEdited);
    connect(mController, &QSpinBox::editingFinished, this, &RecordingOptionsWidget::onEdited);
    connect(choose, &QPushButton::clicked, this, &RecordingOptionsWidget::chooseFolder);
}

void RecordingOptionsWidget::refresh()
{
    mFilling = true;
    mFormat->setCurrentIndex(int(mSettings->mFormat));
    mFolder->setText(mSettings->mFolder);
    mAudio->setChecked(mSettings->mAudio);
    mController->setValue(mSettings->mController);
    mFilling = false;
}

void RecordingOptionsWidget::chooseFolder()
{
    const QString folder =
        QFileDialog::getExistingDirectory(this, tr("Recordings folder"), mSettings->folder());
    if (!folder.isEmpty()) {
        mFolder->setText(folder);
        onEdited();
    }
}

void RecordingOptionsWidget::onEdited()
{
    if (mFilling) {
        return;
    }
    AudioFileWriter::formatFromName(mFormat->currentData().toString(), &mSettings->mFormat);
    mSettings->mFolder = mFolder->text().trimmed();
    mSettings->mAudio = mAudio->isChecked();
    mSettings->mController = mController->value();
    emit mSettings->changed();
}
