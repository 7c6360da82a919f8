#pragma once

#include "model/arbopath.h"
#include "tuning/tuningexport.h"

#include <QDialog>
#include <QList>
#include <QString>

class Arbo;
class Settings;
class QComboBox;
class QRadioButton;

// The dialog of "Export tuning…": which nodes (every node of the lattice,
// the nodes whose primes are switched on, or the chord that sounds now) in
// which format (Scala .scl or .kbm, AnaMark .tun, MIDI tuning dump .syx).
// "Export…" then asks where, in a file dialog, and writes the file as
// arbo-tuning would from the same lattice and options, with the lattice's
// transposition of the moment.
//
// The outcome goes to whoever shows it: exported() with a line for the
// status bar, and the dialog closes; or exportFailed() with the same text
// arbo-tuning prints ("FILE: why"), and the dialog stays open.
//
// GUI thread only. The lattice and the options outlive it.
class ExportTuningDialog : public QDialog
{
    Q_OBJECT
public:
    enum class Nodes
    {
        Every,
        PrimesEnabled,
        SoundingChord
    };

    ExportTuningDialog(const Arbo* lattice, const Settings* options, QWidget* parent = nullptr);

    Nodes nodes() const;
    TuningExport::Format format() const;

    // Writes the chosen nodes in the chosen format to `path`. False, with
    // the reason in `error`, writing nothing.
    bool exportTo(const QString& path, QString& error) const;

    // The paths of the notes that sound on `lattice`, without its
    // transposition: a node's own path, or for a note played off the tree
    // (a wand's path, a scale's degree), a path of the same ratio.
    static QList<ArboPath> soundingPaths(const Arbo& lattice);

signals:
    void exported(const QString& message);
    void exportFailed(const QString& error);

private:
    // "Export…": asks where, in a file dialog of its own.
    void chooseFile();
    void onFileChosen(const QString& path);
    QString suffix() const;

    const Arbo* mLattice;
    const Settings* mOptions;
    QRadioButton* mEvery;
    QRadioButton* mPrimesEnabled;
    QRadioButton* mSoundingChord;
    QComboBox* mFormat;
    QString mLastFolder;
};
