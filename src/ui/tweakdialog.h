#pragma once

#include <QDialog>
#include <QString>

#include <utility>
#include <vector>

class QPushButton;
class QSpinBox;
class QVBoxLayout;

// A developer's dialog for tuning the look of the lattice while the program
// runs: one row per registered int (its name and a spin box from -1000 to
// 1000), and an "Update" button last.
//
// A spin box writes its value into the int at once, but nothing is redrawn
// until "Update" is pressed, which emits updateRequested; the main window
// connects it to its updateTweaks(), which rebuilds the display from the
// constants. The ints are not owned; they must outlive the dialog.
//
// GUI thread only.
class TweakDialog : public QDialog
{
    Q_OBJECT
public:
    static constexpr int MIN_VALUE = -1000;
    static constexpr int MAX_VALUE = 1000;

    explicit TweakDialog(QWidget* parent = nullptr);

    // Adds a row above "Update": a label `name` and a spin box showing
    // *value (held to the range). The spin box is named `name`.
    void addInt(const QString& name, int* value);
    // Adds every layout constant of the lattice display, in the order of
    // their list (LayoutConstants::all()).
    void addLayoutConstants();

    int tweakCount() const { return int(mTweaks.size()); }
    QSpinBox* spinBox(int index) const { return mTweaks.at(size_t(index)).first; }
    QPushButton* updateButton() const { return mUpdateButton; }

signals:
    // "Update" was pressed: the display is to be rebuilt from the constants.
    void updateRequested();

public slots:
    // Writes the spin box of tweak `index` into its int. Redraws nothing.
    void valueChanged(int index);
    // What "Update" does: emits updateRequested.
    void updateTweaks();

private:
    QVBoxLayout* mLayout;
    QPushButton* mUpdateButton;
    // (spin box, the int it edits), in the order of the rows.
    std::vector<std::pair<QSpinBox*, int*>> mTweaks;
};
