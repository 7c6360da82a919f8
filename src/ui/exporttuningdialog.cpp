#include "ui/exporttuningdialog.h"

#include "model/arbo.h"
#include "tuning/scaleplacement.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

namespace {

struct FormatChoice
{
    const char* label;
    const char* suffix;
};
const FormatChoice FORMATS[] = {
    {"Scala scale (.scl)", "scl"},
    {"Scala keyboard mapping (.kbm)", "kbm"},
    {"AnaMark tuning (.tun)", "tun"},
    {"MIDI Tuning Standard bulk dump (.syx)", "syx"},
};

QRadioButton* radio(const QString& text, const char* name, QWidget* parent)
{
    auto* button = new QRadioButton(text, parent);
    button->setObjectName(QLatin1String(name));
    return button;
}

} // namespace

ExportTuningDialog::ExportTuningDialog(const Arbo* lattice, const Settings* options,
                                       QWidget* parent)
    : QDialog(parent), mLattice(lattice), mOptions(options),
      mEvery(radio(tr("Every node of the lattice"), "everyNodeButton", this)),
      mPrimesEnabled(
          radio(tr("The nodes whose primes are switched on"), "primesEnabledButton", this)),
      mSoundingChord(radio(tr("The chord that sounds now"), "soundingChordButton", this)),
      mFormat(new QComboBox(this)), mLastFolder(QDir::homePath())
{
    setWindowTitle(tr("Export tuning"));
    mEvery->setChecked(true);
    mFormat->setObjectName(QStringLiteral("formatBox"));
    for (const FormatChoice& choice : FORMATS) {
        mFormat->addItem(tr(choice.label), QLatin1String(choice.suffix));
    }

    auto* nodes = new QVBoxLayout;
    for (QRadioButton* button : {mEvery, mPrimesEnabled, mSoundingChord}) {
        nodes->addWidget(button);
    }
    auto* form = new QFormLayout;
    form->addRow(tr("Export:"), nodes);
    form->addRow(tr("Format:"), mFormat);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    QPushButton* exportButton = buttons->addButton(tr("Export…"), QDialogButtonBox::AcceptRole);
    exportButton->setObjectName(QStringLiteral("exportButton"));
    connect(buttons, &QDialogButtonBox::accepted, this, &ExportTuningDialog::chooseFile);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(buttons);
}

ExportTuningDialog::Nodes ExportTuningDialog::nodes() const
{
    return mSoundingChord->isChecked()   ? Nodes::SoundingChord
           : mPrimesEnabled->isChecked() ? Nodes::PrimesEnabled
                                         : Nodes::Every;
}

QString ExportTuningDialog::suffix() const
{
    return mFormat->currentData().toString();
}

TuningExport::Format ExportTuningDialog::format() const
{
    TuningExport::Format format = TuningExport::Format::Scala;
    TuningExport::formatFromName(suffix(), format);
    return format;
}

QList<ArboPath> ExportTuningDialog::soundingPaths(const Arbo& lattice)
{
    QList<ArboPath> paths;
    const ScalePlacement placement;
    for (const ArboRatio& sounding : lattice.playingRatios()) {
        if (const ArboBall* node = lattice.ballFromRatio(sounding)) {
            paths << node->path();
            continue;
        }
        const ScalePlacement::Place place =
            placement.placeRatio(sounding.ratio() / lattice.transposition().ratio());
        if (place.placed) {
            paths << place.playPath;
        }
    }
    return paths;
}

bool ExportTuningDialog::exportTo(const QString& path, QString& error) const
{
    TuningExport::Reference reference;
    if (!TuningExport::referenceOf(*mOptions, *mLattice, reference, error)) {
        return false;
    }
    const Nodes chosen = nodes();
    const QList<ArboPath> paths =
        chosen == Nodes::SoundingChord
            ? soundingPaths(*mLattice)
            : TuningExport::nodePaths(*mLattice, chosen == Nodes::PrimesEnabled);
    if (chosen == Nodes::SoundingChord && paths.isEmpty()) {
        error = tr("%1: no note sounds, so there is no chord to export").arg(path);
        return false;
    }
    const TuningExport tuning(paths, reference);
    return TuningExport::writeFile(path, tuning.toBytes(format(), QFileInfo(path).fileName()),
                                   error);
}

void ExportTuningDialog::chooseFile()
{
    auto* files = new QFileDialog(this, tr("Export Tuning"), mLastFolder);
    files->setObjectName(QStringLiteral("exportFileDialog"));
    files->setAttribute(Qt::WA_DeleteOnClose);
    files->setAcceptMode(QFileDialog::AcceptSave);
    files->setNameFilter(
        mFormat->currentText().replace(QStringLiteral("(."), QStringLiteral("(*.")));
    files->setDefaultSuffix(suffix());
    const QString name =
        nodes() == Nodes::SoundingChord ? QStringLiteral("chord") : QStringLiteral("lattice");
    files->selectFile(name + QLatin1Char('.') + suffix());
    connect(files, &QFileDialog::fileSelected, this, &ExportTuningDialog::onFileChosen);
    files->open();
}

void ExportTuningDialog::onFileChosen(const QString& path)
{
    mLastFolder = QFileInfo(path).absolutePath();
    QString error;
    if (!exportTo(path, error)) {
        emit exportFailed(error);
        return;
    }
    emit exported(tr("Tuning exported to %1").arg(path));
    accept();
}
