#include "display/arbostrutwidget.h"

#include "display/arboballwidget.h"
#include "display/layoutconstants.h"
#include "model/arboball.h"

#include <QPen>

ArboStrutWidget::ArboStrutWidget(ArboBallWidget* from, ArboBallWidget* to, int width,
                                 const QColor* colour, QGraphicsItem* parent)
    : QGraphicsLineItem(parent)
{
    setHandlesChildEvents(false);
    // A strut only draws; clicks near it belong to the balls.
    setAcceptedMouseButtons(Qt::NoButton);
    // Positions in the common parent. A leaf sits inside its cluster, so its
    // own pos() would be relative to that; mapping covers both cases.
    const QPointF start = parent ? parent->mapFromItem(from, 0.0, 0.0) : from->scenePos();
    const QPointF end = parent ? parent->mapFromItem(to, 0.0, 0.0) : to->scenePos();
    setLine(QLineF(start, end));
    const QColor base = colour ? *colour : to->node()->color();
    setPen(QPen(QBrush(base.darker(BALL_DIM_FACTOR)), width, Qt::SolidLine));
    mShape = QGraphicsLineItem::shape();
    mBoundingRect = QGraphicsLineItem::boundingRect();
    from->struts().append(this);
    to->struts().append(this);
}

QRectF ArboStrutWidget::boundingRect() const
{
    return mBoundingRect;
}

QPainterPath ArboStrutWidget::shape() const
{
    return mShape;
}
