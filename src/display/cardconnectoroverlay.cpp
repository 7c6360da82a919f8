#include "display/cardconnectoroverlay.h"

#include "display/arboballwidget.h"
#include "display/arboview.h"
#include "display/cardwidget.h"

#include <QPainter>

namespace {

// Faint enough not to compete with the struts, light enough to show on the
// dark stage.
const QColor CONNECTOR_COLOR(235, 230, 215, 150);
// A cosmetic hairline: the raster engine draws those directly, where a
// wider pen goes through the general stroker, which costs a frame's worth
// of time for a few dozen lines across the whole window.
constexpr qreal CONNECTOR_WIDTH = 1.0;

} // namespace

namespace {

QPen connectorPen()
{
    QPen pen(CONNECTOR_COLOR, CONNECTOR_WIDTH, Qt::SolidLine, Qt::RoundCap);
    pen.setCosmetic(true);
    return pen;
}

} // namespace

CardConnectorOverlay::CardConnectorOverlay(QWidget* parent) : QWidget(parent), mPen(connectorPen())
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_NoSystemBackground);
}

void CardConnectorOverlay::init(const ArboView* view)
{
    mView = view;
    connect(view, &ArboView::resized, this, QOverload<>::of(&QWidget::update));
}

void CardConnectorOverlay::addConnector(const ArboBallWidget* ball, const CardWidget* card)
{
    mConnectors.insert(ball, card);
    updateLine(ball);
}

void CardConnectorOverlay::removeConnector(const ArboBallWidget* ball)
{
    updateLine(ball);
    mConnectors.remove(ball);
}

void CardConnectorOverlay::forgetConnector(const ArboBallWidget* ball)
{
    if (mConnectors.remove(ball) > 0) {
        update();
    }
}

void CardConnectorOverlay::updateLine(const ArboBallWidget* ball)
{
    // The overlay lies over the whole lattice and is transparent: a repaint
    // of all of it redraws the lattice beneath, where the line's own box
    // (with a pixel around it for the antialiased ends) redraws only that.
    const QLineF line = connectorLine(ball);
    if (!line.isNull()) {
        update(QRectF(line.p1(), line.p2()).normalized().toAlignedRect().adjusted(-2, -2, 2, 2));
    }
}

QLineF CardConnectorOverlay::connectorLine(const ArboBallWidget* ball) const
{
    const CardWidget* card = mConnectors.value(ball);
    if (!card || !mView) {
        return QLineF();
    }
    // Both ends through the window that holds the overlay, the view and the
    // cards: plain widget arithmetic, the same on every platform.
    const QWidget* top = window();
    const QPoint inViewport = mView->mapFromScene(ball->scenePos());
    const QPointF centre = mapFrom(top, mView->viewport()->mapTo(top, inViewport));
    const QPointF end = mapFrom(top, card->mapTo(top, QPoint(0, card->height() / 2)));
    const QLineF whole(centre, end);
    // The ball's radius in pixels: the view scales the scene uniformly.
    const qreal radius = ball->playingRadius() * mView->transform().m11();
    if (whole.length() <= radius) {
        return QLineF();
    }
    return QLineF(whole.pointAt(radius / whole.length()), end);
}

void CardConnectorOverlay::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(mPen);
    for (auto it = mConnectors.constBegin(); it != mConnectors.constEnd(); ++it) {
        if (it.value()->isHidden()) {
            continue;
        }
        const QLineF line = connectorLine(it.key());
        if (!line.isNull()) {
            painter.drawLine(line);
        }
    }
}
