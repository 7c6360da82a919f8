#include "ui/tuningmenu.h"

#include "ui/exporttuningdialog.h"
#include "ui/importedscale.h"
#include "ui/importscaledialog.h"
#include "ui/scalebindings.h"

#include <QAction>
#include <QCoreApplication>
#include <QFileInfo>
#include <QLabel>
#include <QMainWindow>
#include <QMenu>
#include <QPushButton>
#include <QStatusBar>

namespace {

// An import's box lists at most this many lines that were not placed; its
// details hold them all.
constexpr int LISTED_LINES = 12;
constexpr int STATUS_MS = 10000;

// Which computer keys play which degrees, for the import's box.
QString keysText()
{
    using ScaleBindings::keyOfDegree;
    return QCoreApplication::translate(
               "TuningMenu", "Keys: %1 plays the 1/1, %2, %3, %4, … the degrees above it and "
                             "%5, %6, %7, … those below. MIDI notes play the degrees through "
                             "the keyboard mapping.")
        .arg(keyOfDegree(0), keyOfDegree(1), keyOfDegree(2), keyOfDegree(3), keyOfDegree(-1),
             keyOfDegree(-2), keyOfDegree(-3));
}

} // namespace

TuningMenu::TuningMenu(QPushButton* button, QLabel* label, const InstrumentParts& parts,
                       QMainWindow* window)
    : QObject(window), mWindow(window), mLabel(label), mParts(parts), mMenu(new QMenu(button)),
      mScale(new ImportedScale(parts.lattice, parts.options, this))
{
    mMenu->setObjectName(QStringLiteral("tuningMenu"));
    mMenu->addAction(tr("Import scale…"), this, &TuningMenu::openImportDialog)
        ->setObjectName(QStringLiteral("importScaleAction"));
    mClearAction = mMenu->addAction(tr("Clear scale"), this, &TuningMenu::clearScale);
    mClearAction->setObjectName(QStringLiteral("clearScaleAction"));
    mMenu->addSeparator();
    mMenu->addAction(tr("Export tuning…"), this, &TuningMenu::openExportDialog)
        ->setObjectName(QStringLiteral("exportTuningAction"));
    button->setMenu(mMenu);
    connect(mScale, &ImportedScale::changed, this, &TuningMenu::onScaleChanged);
    onScaleChanged();
}

ImportScaleDialog* TuningMenu::importDialog()
{
    if (!mImportDialog) {
        mImportDialog = new ImportScaleDialog(mWindow);
        connect(mImportDialog, &ImportScaleDialog::importRequested, this, [this] {
            importScale(mImportDialog->scaleFile(), mImportDialog->mappingFile(),
                        mImportDialog->tolerance());
        });
    }
    return mImportDialog;
}

ExportTuningDialog* TuningMenu::exportDialog()
{
    if (!mExportDialog) {
        mExportDialog = new ExportTuningDialog(mParts.lattice, mParts.options, mWindow);
        connect(mExportDialog, &ExportTuningDialog::exported, this, [this](const QString& message) {
            mWindow->statusBar()->showMessage(message, STATUS_MS);
        });
        connect(
            mExportDialog, &ExportTuningDialog::exportFailed, this,
            [this](const QString& error) { tell(mExportDialog, QMessageBox::Critical, error); });
    }
    return mExportDialog;
}

void TuningMenu::openImportDialog()
{
    importDialog()->show();
    mImportDialog->raise();
    mImportDialog->activateWindow();
}

void TuningMenu::openExportDialog()
{
    exportDialog()->show();
    mExportDialog->raise();
    mExportDialog->activateWindow();
}

void TuningMenu::clearScale()
{
    mScale->clear();
    mWindow->statusBar()->showMessage(
        tr("Scale cleared: the keys and MIDI notes play the input map again"), STATUS_MS);
}

bool TuningMenu::importScale(const QString& scaleFile, const QString& mappingFile, double tolerance)
{
    QString error;
    if (!mScale->load(scaleFile, mappingFile, tolerance, error)) {
        tell(mImportDialog ? static_cast<QWidget*>(mImportDialog) : mWindow, QMessageBox::Critical,
             error);
        return false;
    }
    if (mImportDialog) {
        mImportDialog->accept();
    }
    reportImport();
    return true;
}

void TuningMenu::reportImport()
{
    const QString text = tr("Placed %1 of %2 degrees of %3 on the lattice; %4 balls are marked.")
                             .arg(mScale->placedCount())
                             .arg(mScale->places().size())
                             .arg(QFileInfo(mScale->scale().fileName).fileName())
                             .arg(mScale->markedCount());
    const QStringList unplaced = mScale->unplacedLines();
    QString details;
    if (!unplaced.isEmpty()) {
        details = tr("Not placed (degree, its line: why):") + QLatin1Char('\n') +
                  unplaced.mid(0, LISTED_LINES).join(QLatin1Char('\n'));
        if (unplaced.size() > LISTED_LINES) {
            details += QLatin1Char('\n') +
                       tr("… and %1 more (see the details)").arg(unplaced.size() - LISTED_LINES);
        }
        details += QStringLiteral("\n\n");
    }
    QMessageBox* box = tell(mWindow, QMessageBox::Information, text, details + keysText());
    if (unplaced.size() > LISTED_LINES) {
        box->setDetailedText(unplaced.join(QLatin1Char('\n')));
    }
}

void TuningMenu::onScaleChanged()
{
    const bool active = mScale->isActive();
    mClearAction->setEnabled(active);
    const QString name = QFileInfo(mScale->scale().fileName).fileName();
    mLabel->setText(active ? name : QString());
    mLabel->setToolTip(active ? tr("%1: %2 of %3 degrees placed, played by the keys and MIDI notes")
                                    .arg(mScale->scale().fileName)
                                    .arg(mScale->placedCount())
                                    .arg(mScale->places().size())
                              : QString());
}

QMessageBox* TuningMenu::tell(QWidget* over, QMessageBox::Icon icon, const QString& text,
                              const QString& details)
{
    auto* box =
        new QMessageBox(icon, QCoreApplication::applicationName(), text, QMessageBox::Ok, over);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setInformativeText(details);
    // Not modal: the instrument stays playable while the box is open.
    box->setWindowModality(Qt::NonModal);
    box->show();
    return box;
}
