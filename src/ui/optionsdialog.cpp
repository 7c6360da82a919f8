#include "ui/optionsdialog.h"

#include "model/arboevent.h"
#include "settings/paths.h"
#include "ui/midioptionswidget.h"
#include "ui/recordingoptionswidget.h"
#include "settings/settings.h"
#include "sound/audiooutput.h"
#include "sound/pdplayer.h"
#include "ui_optionsdialog.h"
#include "updater/updatedialog.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QMessageBox>
#include <QStyle>

#include <cmath>

// The About text is compiled into the library, which is static: without a
// reference from code the linker would leave the resource out. (Outside the
// anonymous namespace: the macro declares a global function.)
static void initAboutResource()
{
    Q_INIT_RESOURCE(about);
}

namespace {

const char* const ABOUT_RESOURCE = ":/text/about.html";

// The pitch classes from C, each black key with its sharp and its flat name.
const QStringList PITCH_CLASS_NAMES[12] = {
    {"C"},        {"C#", "Db"}, {"D"},        {"D#", "Eb"}, {"E"},        {"F"},
    {"F#", "Gb"}, {"G"},        {"G#", "Ab"}, {"A"},        {"A#", "Bb"}, {"B"},
};
// The piano's range in MIDI numbers: A 0 to A 8.
constexpr int LOWEST_KEY = 21;
constexpr int HIGHEST_KEY = 117;

struct NoteTable
{
    QStringList names;
    QList<float> frequencies;

    NoteTable()
    {
        for (int key = LOWEST_KEY; key <= HIGHEST_KEY; ++key) {
            const int octave = key / 12 - 1; // changes at C
            const double frequency = 27.5 * std::pow(2.0, double(key - LOWEST_KEY) / 12.0);
            for (const QString& letter : PITCH_CLASS_NAMES[key % 12]) {
                names << QStringLiteral("%1 %2").arg(letter).arg(octave);
                frequencies << float(frequency);
            }
        }
    }
};

const NoteTable& noteTable()
{
    static const NoteTable TABLE;
    return TABLE;
}

} // namespace

OptionsDialog::OptionsDialog(const InstrumentParts& parts, QWidget* parent)
    : QDialog(parent), mUi(new Ui::OptionsDialog), mParts(parts)
{
    initAboutResource();
    mUi->setupUi(this);

    connect(mUi->buttonBox, &QDialogButtonBox::accepted, this, &QDialog::accept);
    // Close goes through close(), not reject(), so that closeEvent stores the
    // position.
    connect(mUi->buttonBox, &QDialogButtonBox::rejected, this, &QWidget::close);

    mUi->calibrationFreqEdit->setRange(MIN_CALIBRATION, MAX_CALIBRATION);
    mUi->oneOneNoteBox->addItems(noteNames());
    mUi->versionLabel->setText(QStringLiteral("The current version is: ") +
                               QStringLiteral(ARBO_VERSION));
    mUi->updateIntervalBox->setCurrentIndex(mParts.options->mUpdateCheckInterval);

    fillOptionsPage();
    fillAboutPage();
    // A fourth tab beside the three of the options: the MIDI output's
    // settings, edited live, for those who play synthesizers with the
    // lattice. Only where the program has a MIDI output.
    if (mParts.midiOutput && mParts.midiSettings) {
        mUi->tabWidget->insertTab(mUi->tabWidget->count() - 1,
                                  new MidiOptionsWidget(mParts.midiSettings, mParts.midiOutput),
                                  QStringLiteral("MIDI"));
    }
    if (mParts.recordingSettings) {
        mUi->tabWidget->insertTab(mUi->tabWidget->count() - 1,
                                  new RecordingOptionsWidget(mParts.recordingSettings),
                                  QStringLiteral("Recording"));
    }

    connect(mUi->audioDeviceBox, QOverload<int>::of(&QComboBox::activated), this,
            &OptionsDialog::onAudioDeviceMenuActivated);
    connect(mUi->calibrationFreqEdit, QOverload<int>::of(&QSpinBox::valueChanged), this,
            &OptionsDialog::onCalibrationFreqEditValueChanged);
    connect(mUi->oneOneNoteBox, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
            &OptionsDialog::onOneOneNoteChanged);
    connect(mUi->notationBox, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
            &OptionsDialog::onNotationChanged);
    connect(mUi->updateIntervalBox, QOverload<int>::of(&QComboBox::activated), this,
            &OptionsDialog::onUpdateCheckFrequencyActivated);
    connect(mUi->updateCheckButton, &QPushButton::clicked, this,
            &OptionsDialog::onUpdateButtonClicked);
}

OptionsDialog::~OptionsDialog() = default;

const QStringList& OptionsDialog::noteNames()
{
    return noteTable().names;
}

const QList<float>& OptionsDialog::noteFrequencies()
{
    return noteTable().frequencies;
}

float OptionsDialog::baseFrequencyFor(int calibration, const QString& note)
{
    const int index = std::max(0, noteNames().indexOf(note));
    return float(calibration) * noteFrequencies().at(index) / REFERENCE_A4;
}

void OptionsDialog::fillOptionsPage()
{
    const Settings* settings = mParts.options;
    const AudioOutput* output = mParts.audioOutput;
    // Filling the controls is no choice of the user's: nothing may reach the
    // player or the options from here.
    const QSignalBlocker blockDevices(mUi->audioDeviceBox);
    const QSignalBlocker blockCalibration(mUi->calibrationFreqEdit);
    const QSignalBlocker blockNote(mUi->oneOneNoteBox);
    const QSignalBlocker blockNotation(mUi->notationBox);

    mUi->audioDeviceBox->clear();
    if (output) {
        mUi->audioDeviceBox->addItems(output->devices());
        mUi->audioDeviceBox->setCurrentIndex(output->selectedDevice());
    }
    mUi->calibrationFreqEdit->setValue(settings->mCalibrationFrequency);
    // An unknown stored note shows the first name, the one the calibration
    // then computes with.
    mUi->oneOneNoteBox->setCurrentIndex(std::max(0, noteNames().indexOf(settings->mBaseNote)));
    mUi->notationBox->setCurrentIndex(
        settings->mNotation == Settings::Notation::HelmholtzEllis ? 1 : 0);
}

void OptionsDialog::fillAboutPage()
{
    QFile file(QString::fromLatin1(ABOUT_RESOURCE));
    QString text;
    if (file.open(QIODevice::ReadOnly)) {
        text = QString::fromUtf8(file.readAll());
    } else {
        qWarning() << "Cannot read" << ABOUT_RESOURCE;
    }
    text.replace(QStringLiteral("<version>"), QStringLiteral(ARBO_VERSION));
    mUi->aboutLabel->setText(text);
}

void OptionsDialog::updateAll()
{
    fillOptionsPage();
    fillAboutPage();
    style()->unpolish(this);
    style()->polish(this);
    for (int i = 0; i < 2; ++i) {
        repaint();
        if (parentWidget()) {
            parentWidget()->repaint();
        }
    }
    show();
}

void OptionsDialog::selectTab(int index)
{
    mUi->tabWidget->setCurrentIndex(index);
}

void OptionsDialog::rePosition()
{
    move(mStoredPosition);
}

void OptionsDialog::rePosition(QPoint position)
{
    mStoredPosition = position;
    rePosition();
}

void OptionsDialog::toggle(QPointer<OptionsDialog>& dialog, const InstrumentParts& parts,
                           QWidget* parent, QPoint& position)
{
    if (dialog && dialog->isVisible()) {
        position = dialog->pos();
        dialog->close();
        return;
    }
    delete dialog.data();
    dialog = new OptionsDialog(parts, parent);
    // Without a parent the dialog itself is the connection's context.
    QObject* context = parent ? static_cast<QObject*>(parent) : dialog.data();
    connect(dialog.data(), &OptionsDialog::positionStored, context,
            [&position](QPoint stored) { position = stored; });
    if (position != QPoint(0, 0)) {
        dialog->rePosition(position);
    }
    dialog->show();
}

void OptionsDialog::closeEvent(QCloseEvent* event)
{
    mStoredPosition = pos();
    emit positionStored(mStoredPosition);
    qDebug() << "Options dialog closed at" << mStoredPosition;
    QDialog::closeEvent(event);
}

void OptionsDialog::onAudioDeviceMenuActivated(int index)
{
    AudioOutput* output = mParts.audioOutput;
    if (!output) {
        return;
    }
    const int previous = output->selectedDevice();
    if (output->selectDevice(index)) {
        return;
    }
    QMessageBox::critical(
        this, QCoreApplication::applicationName(),
        QStringLiteral("Failed to open audio device %1.").arg(mUi->audioDeviceBox->itemText(index)),
        QMessageBox::Ok);
    output->selectDevice(previous);
    mUi->audioDeviceBox->setCurrentIndex(previous);
}

void OptionsDialog::onOneOneNoteChanged(int index)
{
    if (index < 0 || index >= noteNames().size()) {
        return;
    }
    Settings* settings = mParts.options;
    settings->mBaseNote = noteNames().at(index);
    settings->mBaseFrequency =
        baseFrequencyFor(settings->mCalibrationFrequency, settings->mBaseNote);
    sendBaseFrequency(settings->mBaseFrequency);
    qDebug() << "Base frequency" << settings->mBaseFrequency << "from base note"
             << settings->mBaseNote;
}

void OptionsDialog::onCalibrationFreqEditValueChanged(int hz)
{
    Settings* settings = mParts.options;
    settings->mCalibrationFrequency = hz;
    settings->mBaseFrequency = baseFrequencyFor(hz, settings->mBaseNote);
    sendBaseFrequency(settings->mBaseFrequency);
    qDebug() << "Base frequency" << settings->mBaseFrequency << "from calibration" << hz;
}

void OptionsDialog::onOneOneFreqEditValueChanged(double value)
{
    sendBaseFrequency(float(value));
}

void OptionsDialog::onNotationChanged(int index)
{
    const Settings::Notation notation =
        index == 1 ? Settings::Notation::HelmholtzEllis : Settings::Notation::Conventional;
    if (notation == mParts.options->mNotation) {
        return;
    }
    mParts.options->mNotation = notation;
    emit notationChanged();
}

void OptionsDialog::sendBaseFrequency(float frequency)
{
    // The ring copies the event; it need not outlive the call.
    const ArboEvent event(ArboEvent::BaseFrequency, frequency);
    mParts.player->queueEventGui(&event);
}

void OptionsDialog::onUpdateCheckFrequencyActivated(int index)
{
    mParts.options->mUpdateCheckInterval = index;
}

void OptionsDialog::onUpdateButtonClicked()
{
    UpdateDialog::checkNow(this, mParts.options->mTSysLastUpdateCheck);
}
