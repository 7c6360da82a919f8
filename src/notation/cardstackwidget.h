#pragma once

#include <QWidget>

class ArboBallWidget;
class ArboView;
class CardConnectorOverlay;

// The column of note cards beside the lattice: one card per sounding ball,
// level with it, joined to it by a line that the overlay draws.
//
// For now this is the connection point the lattice display calls; it holds no
// cards yet, so every call is accepted and does nothing visible.
//
// GUI thread only.
class CardStackWidget : public QWidget
{
    Q_OBJECT
public:
    explicit CardStackWidget(QWidget* parent = nullptr);

    // Stores the overlay and the view; follows the view's resizes.
    void init(CardConnectorOverlay* overlay, const ArboView* view);

    void showCardForBall(const ArboBallWidget* ball);
    void showCardForBall(const ArboBallWidget* ball, int hierarchy);
    void hideCardForBall(const ArboBallWidget* ball);
    void raiseCardForBall(const ArboBallWidget* ball);
    // Rebuilds every card (after a change of base frequency, transposition or
    // readout mode).
    void updateCards();

    // How far cards keep from the bottom of the view.
    void setBottomMargin(int margin) { mBottomMargin = margin; }
    int bottomMargin() const { return mBottomMargin; }

public slots:
    // Keeps every card level with its ball.
    void updatePositions();

private:
    CardConnectorOverlay* mOverlay = nullptr;
    const ArboView* mView = nullptr;
    int mBottomMargin = 0;
};
