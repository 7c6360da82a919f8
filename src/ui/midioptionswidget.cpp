#include "ui/midioptionswidget.h"

#include "midi/midioutput.h"
#include "midi/midisettings.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>

MidiOptionsWidget::MidiOptionsWidget(MidiSettings* settings, MidiOutput* output, QWidget* parent)
    : QWidget(parent), mSettings(settings), mOutput(output)
{
    auto* form = new QFormLayout(this);
    mEnabled = new QCheckBox(tr("Send the notes as MIDI"), this);
    mEnabled->setObjectName(QStringLiteral("midiEnabled"));
    form->addRow(mEnabled);

    mPort = new QComboBox(this);
    mPort->setObjectName(QStringLiteral("midiPort"));
    auto* refreshPorts = new QPushButton(tr("Look again"), this);
    refreshPorts->setObjectName(QStringLiteral("midiRefreshPorts"));
    auto* portRow = new QHBoxLayout;
    portRow->addWidget(mPort, 1);
    portRow->addWidget(refreshPorts);
    form->addRow(tr("Port:"), portRow);

    mMethod = new QComboBox(this);
    mMethod->setObjectName(QStringLiteral("midiMethod"));
    mMethod->addItem(tr("MPE (a pitch bend per note)"), MidiSettings::METHOD_MPE);
    mMethod->addItem(tr("MIDI Tuning Standard (retuned keys)"), MidiSettings::METHOD_MTS);
    form->addRow(tr("Tuning:"), mMethod);

    mBendRange = new QSpinBox(this);
    mBendRange->setObjectName(QStringLiteral("midiBendRange"));
    mBendRange->setRange(1, 96);
    mBendRange->setSuffix(tr(" semitones"));
    mBendRange->setToolTip(tr("±2 gives the finest steps; many MPE synthesizers expect ±48."));
    form->addRow(tr("Bend range (MPE):"), mBendRange);

    mMemberChannels = new QSpinBox(this);
    mMemberChannels->setObjectName(QStringLiteral("midiMemberChannels"));
    mMemberChannels->setRange(1, 15);
    form->addRow(tr("Member channels (MPE):"), mMemberChannels);

    mBuiltInSound = new QCheckBox(tr("Play the built-in sound too"), this);
    mBuiltInSound->setObjectName(QStringLiteral("midiBuiltInSound"));
    form->addRow(mBuiltInSound);

    mStatus = new QLabel(this);
    mStatus->setObjectName(QStringLiteral("midiStatus"));
    mStatus->setWordWrap(true);
    form->addRow(mStatus);

    refresh();

    connect(mEnabled, &QCheckBox::toggled, this, &MidiOptionsWidget::onEdited);
    connect(mBuiltInSound, &QCheckBox::toggled, this, &MidiOptionsWidget::onEdited);
    connect(mPort, QOverload<int>::of(&QComboBox::activated), this, &MidiOptionsWidget::onEdited);
    connect(mMethod, QOverload<int>::of(&QComboBox::activated), this, &MidiOptionsWidget::onEdited);
    connect(mBendRange, &QSpinBox::editingFinished, this, &MidiOptionsWidget::onEdited);
    connect(mMemberChannels, &QSpinBox::editingFinished, this, &MidiOptionsWidget::onEdited);
    connect(refreshPorts, &QPushButton::clicked, this, &MidiOptionsWidget::refresh);
    connect(mOutput, &MidiOutput::statusChanged, this, &MidiOptionsWidget::onStatusChanged);
}

void MidiOptionsWidget::refresh()
{
    mFilling = true;
    mEnabled->setChecked(mSettings->mEnabled);
    fillPorts();
    mMethod->setCurrentIndex(qMax(0, mMethod->findData(mSettings->mMethod)));
    mBendRange->setValue(mSettings->mBendRange);
    mMemberChannels->setValue(mSettings->mMemberChannels);
    mBuiltInSound->setChecked(mSettings->mBuiltInSound);
    mStatus->setText(mOutput->status());
    updateEnabled();
    mFilling = false;
}

void MidiOptionsWidget::fillPorts()
{
    mPort->clear();
    mPort->addItem(tr("Own virtual port \"%1\"").arg(QLatin1String(MidiOutput::PORT_NAME)),
                   QString());
    const QStringList names = mOutput->portNames();
    for (const QString& name : names) {
        mPort->addItem(name, name);
    }
    // A chosen port that is not there now stays listed, so the choice is kept.
    if (!mSettings->mPort.isEmpty() && mPort->findData(mSettings->mPort) < 0) {
        mPort->addItem(tr("%1 (not found)").arg(mSettings->mPort), mSettings->mPort);
    }
    mPort->setCurrentIndex(qMax(0, mPort->findData(mSettings->mPort)));
}

void MidiOptionsWidget::updateEnabled()
{
    const bool on = mEnabled->isChecked();
    const bool mpe = mMethod->currentData().toString() == MidiSettings::METHOD_MPE;
    mPort->setEnabled(on);
    mMethod->setEnabled(on);
    mBendRange->setEnabled(on && mpe);
    mMemberChannels->setEnabled(on && mpe);
    mBuiltInSound->setEnabled(on);
}

void MidiOptionsWidget::onEdited()
{
    if (mFilling) {
        return;
    }
    updateEnabled();
    MidiSettings edited;
    edited.mEnabled = mEnabled->isChecked();
    edited.mPort = mPort->currentData().toString();
    edited.mMethod = mMethod->currentData().toString();
    edited.mBendRange = mBendRange->value();
    edited.mMemberChannels = mMemberChannels->value();
    edited.mBuiltInSound = mBuiltInSound->isChecked();
    if (edited == *mSettings) {
        return;
    }
    mSettings->copyValues(edited);
    emit mSettings->changed();
}

void MidiOptionsWidget::onStatusChanged(const QString& status)
{
    mStatus->setText(status);
}
