#pragma once

#include "model/arboevent.h"
#include "model/arboratio.h"

#include <QToolButton>

class Arbo;
class PdPlayer;
class QLabel;

// One step of the transpose strip: transposes the whole lattice by its signed
// prime step (-5 one step down along 5, +5 one up). Beside it a label counts
// the steps the lattice is transposed along its prime, on the side of the
// transposition only ("+2" beside the up button, "-1" beside the down one).
//
// A step the lattice refuses (the 1/1 would leave the audible range, or a
// ratio would no longer be exact) disables the button, and a disabled button
// paints nothing: it vanishes from the strip but keeps its place.
//
// The button paints itself completely: a triangle pointing the way of the
// step, in the prime's colour while the lattice is transposed that way.
//
// GUI thread only.
class TransposeButton : public QToolButton
{
    Q_OBJECT
public:
    TransposeButton(int step, QLabel* label, const Arbo& lattice, PdPlayer* player,
                    QWidget* parent = nullptr);

    int step() const { return mStep; }
    // Net steps of the lattice's transposition along this prime (positive up).
    int count() const { return mCount; }

public slots:
    void onTransposeClicked();
    void onTransposeChanged();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int mStep;
    int mCount = 0;
    QLabel* mLabel; // owned by the strip's layout
    const Arbo& mLattice;
    PdPlayer* mPlayer;
    ArboEvent mEvent;
    ArboRatio mStepRatio;
};
