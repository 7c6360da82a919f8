#pragma once

#include <QDialog>
#include <QString>

class QDoubleSpinBox;
class QLineEdit;
class QPushButton;

// The dialog of "Import scale…": a Scala scale (.scl), optionally its
// keyboard mapping (.kbm), and how many cents a cents line may lie from the
// lattice ratio it is matched to (1 by default). Each file has a field to type
// or paste a path into and a "Browse…" button.
//
// "Import" only asks (importRequested()); whoever carries the import out
// closes the dialog when it worked, and leaves it open, the fields as they
// were, when a file was refused.
//
// GUI thread only.
class ImportScaleDialog : public QDialog
{
    Q_OBJECT
public:
    explicit ImportScaleDialog(QWidget* parent = nullptr);

    QString scaleFile() const;
    QString mappingFile() const;
    double tolerance() const;

signals:
    void importRequested();

private:
    // A row of the form: `edit` and its "Browse..." button, which asks for a
    // file of `filter`.
    QWidget* fileRow(QLineEdit* edit, const QString& caption, const QString& filter);

    QLineEdit* mScaleEdit;
    QLineEdit* mMappingEdit;
    QDoubleSpinBox* mTolerance;
    QPushButton* mImportButton;
    QString mLastFolder;
};
