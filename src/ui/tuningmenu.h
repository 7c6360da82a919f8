#pragma once

#include "ui/instrumentparts.h"

#include <QMessageBox>
#include <QObject>
#include <QPointer>

class ExportTuningDialog;
class ImportedScale;
class ImportScaleDialog;
class QAction;
class QLabel;
class QMainWindow;
class QMenu;
class QPushButton;

// The main window's tuning files: the "Tuning" button's menu ("Import
// scale…", "Clear scale", "Export tuning…"), the label beside the button that
// names the scale in play, and the boxes that say how an import went.
//
// An import that worked says how many degrees were placed, on how many
// marked balls, and lists the lines that were not placed with their reasons;
// one that did not shows "FILE:LINE: what was expected" and changes nothing.
// An export that worked says where in the status bar; one that did not shows
// the text arbo-tuning prints. The boxes never wait for a click: the music
// goes on while they are open.
//
// GUI thread only.
class TuningMenu : public QObject
{
    Q_OBJECT
public:
    // `button` and `label` belong to `window`.
    TuningMenu(QPushButton* button, QLabel* label, const InstrumentParts& parts,
               QMainWindow* window);

    ImportedScale* scale() const { return mScale; }
    QMenu* menu() const { return mMenu; }
    // Made on first use, and kept, with what was chosen, until the window
    // goes.
    ImportScaleDialog* importDialog();
    ExportTuningDialog* exportDialog();

public slots:
    void openImportDialog();
    void openExportDialog();
    void clearScale();
    // What "Import" of the dialog does: imports, and on success closes the
    // dialog. Returns whether it worked.
    bool importScale(const QString& scaleFile, const QString& mappingFile, double tolerance);

private:
    void onScaleChanged();
    void reportImport();
    QMessageBox* tell(QWidget* over, QMessageBox::Icon icon, const QString& text,
                      const QString& details = QString());

    QMainWindow* mWindow;
    QLabel* mLabel;
    InstrumentParts mParts;
    QMenu* mMenu;
    QAction* mClearAction;
    ImportedScale* mScale;
    QPointer<ImportScaleDialog> mImportDialog;
    QPointer<ExportTuningDialog> mExportDialog;
};
