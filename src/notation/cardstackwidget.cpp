#include "notation/cardstackwidget.h"

#include "display/arboview.h"

CardStackWidget::CardStackWidget(QWidget* parent) : QWidget(parent) {}

void CardStackWidget::init(CardConnectorOverlay* overlay, const ArboView* view)
{
    mOverlay = overlay;
    mView = view;
    connect(view, &ArboView::resized, this, &CardStackWidget::updatePositions);
}

void CardStackWidget::showCardForBall(const ArboBallWidget* ball)
{
    showCardForBall(ball, 0);
}

void CardStackWidget::showCardForBall(const ArboBallWidget*, int) {}

void CardStackWidget::hideCardForBall(const ArboBallWidget*) {}

void CardStackWidget::raiseCardForBall(const ArboBallWidget*) {}

void CardStackWidget::updateCards() {}

void CardStackWidget::updatePositions() {}
