#pragma once

#include <QGraphicsLineItem>
#include <QPainterPath>

class ArboBallWidget;

// A straight line between two lattice balls: a strut along prime 2 or 3, or a
// link strut that a node lists as an extra connection. It registers with both
// ends, so disabling either end hides it.
//
// Its line and pen are set once, when it is built: the lattice is rebuilt,
// never edited. So its outline is computed once too; a line item would
// otherwise stroke its path anew each time the scene asks for its bounds,
// twice per strut in every repaint.
//
// GUI thread only.
class ArboStrutWidget : public QGraphicsLineItem
{
public:
    // Both ends are required. `colour` null: the colour of `to`'s node.
    ArboStrutWidget(ArboBallWidget* from, ArboBallWidget* to, int width, const QColor* colour,
                    QGraphicsItem* parent = nullptr);

    QRectF boundingRect() const override;
    QPainterPath shape() const override;

private:
    QPainterPath mShape;
    QRectF mBoundingRect;
};
