#include "notation/cardconnectoroverlay.h"

#include "display/arboview.h"

CardConnectorOverlay::CardConnectorOverlay(QWidget* parent) : QWidget(parent)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_NoSystemBackground);
}

void CardConnectorOverlay::init(const ArboView* view)
{
    mView = view;
    connect(view, &ArboView::resized, this, QOverload<>::of(&QWidget::update));
}

void CardConnectorOverlay::addConnector(const ArboBallWidget*, CardWidget*) {}

void CardConnectorOverlay::removeConnector(const ArboBallWidget*) {}
