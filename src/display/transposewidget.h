#pragma once

#include "model/arboevent.h"

#include <QWidget>

class Arbo;
class PdPlayer;
class PrimeToggleButton;
class TransposeButton;

// The strip of small buttons beside the lattice: for each prime a step down,
// the prime's on/off switch and a step up, each step with its count label;
// the first row holds only the "1" switch (the whole lattice, not switchable)
// and a last row the reset "=" button, enabled only while the lattice is
// transposed.
//
// The buttons never change the lattice: each queues an event on the player,
// and the strip follows the lattice's transposeOrBaseFrequencyChanged().
//
// GUI thread only.
class TransposeWidget : public QWidget
{
    Q_OBJECT
public:
    explicit TransposeWidget(QWidget* parent = nullptr);

    // Builds the strip once: one column per prime when horizontal, one row per
    // prime otherwise.
    // `lattice` and `player` outlive the strip.
    void init(Qt::Orientation orientation, const Arbo& lattice, PdPlayer* player);

    Qt::Orientation orientation() const { return mOrientation; }
    PrimeToggleButton* resetButton() const { return mResetButton; }

public slots:
    void onResetClicked();
    void onTransposeChanged();

private:
    Qt::Orientation mOrientation = Qt::Vertical;
    PrimeToggleButton* mResetButton = nullptr;
    const Arbo* mLattice = nullptr;
    PdPlayer* mPlayer = nullptr;
    ArboEvent mResetEvent;
};
