#pragma once

#include "model/arboevent.h"

#include <QColor>
#include <QToolButton>

class Arbo;
class PdPlayer;

// The button in the middle of each prime's row of the transpose strip: it
// switches every node reached by a step of its prime on or off. Primes 1, 2
// and 3 carry the lattice and cannot be switched: their buttons are disabled
// and only show the colour.
//
// The checked state flips with the click and is not read back from the
// lattice: the engine toggles, so the two stay in step as long as nothing else
// toggles the prime (a wand may; the button then shows the opposite).
//
// GUI thread only.
class PrimeToggleButton : public QToolButton
{
    Q_OBJECT
public:
    // `lattice` gives the colours; `player` carries the switch.
    PrimeToggleButton(int prime, const Arbo& lattice, PdPlayer* player, QWidget* parent = nullptr);

    int prime() const { return mPrime; }

    // The style sheet of a prime button: checked in the prime's colour, dimmed
    // when switched off, brighter under the mouse. `base` is the prime's
    // colour as shown (see baseColor).
    static QString styleSheetFor(const QColor& base);
    // The prime's colour, with 19 a little darker: its colour is too light
    // to carry the button's text.
    static QColor baseColor(const Arbo& lattice, int prime);

public slots:
    void onPrimeToggled();

private:
    int mPrime;
    PdPlayer* mPlayer;
    ArboEvent mEvent;
};
