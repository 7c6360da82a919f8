#pragma once

#include <QGraphicsLineItem>

class ArboBallWidget;

// A straight line between two lattice balls: a strut along prime 2 or 3, or a
// link strut that a node lists as an extra connection. It registers with both
// ends, so disabling either end hides it.
//
// GUI thread only.
class ArboStrutWidget : public QGraphicsLineItem
{
public:
    // Both ends are required. `colour` null: the colour of `to`'s node.
    ArboStrutWidget(ArboBallWidget* from, ArboBallWidget* to, int width, const QColor* colour,
                    QGraphicsItem* parent = nullptr);
};
