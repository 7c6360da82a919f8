#pragma once

#include <QBrush>
#include <QGraphicsEllipseItem>
#include <QPen>
#include <QRectF>

// One drawn part of a lattice ball: its disc, its glow or its ring. It is an
// ordinary ellipse item (rectangle, pen and brush say what it shows), but it
// paints a picture of itself taken from a cache that all parts share.
//
// A full repaint of the lattice draws hundreds of antialiased discs, rings
// and gradient glows, and most of them look alike: every leaf of one prime in
// one state, every glow of one size. Stroking and filling each of them anew
// took most of a frame; copying a ready picture takes a few microseconds.
// Pictures are made at the view's scale in device pixels, for the item's
// position within a pixel rounded to a quarter pixel, so a part lands where
// it would have been drawn (at most an eighth of a pixel off) and its edges
// stay as sharp. A changed pen, brush or rectangle simply finds (or makes)
// another picture; old ones leave the cache when it is full, least recently
// used first, so its size depends on how many looks there are, not on how
// many balls.
//
// Under a rotation or a shear (no view of the lattice uses one) the part is
// drawn directly.
//
// GUI thread only: the shared cache has no lock.
class ArboBallPart : public QGraphicsEllipseItem
{
public:
    ArboBallPart(const QRectF& rect, QGraphicsItem* parent);

    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;

    // The size of the shared cache, in kilobytes, and the pictures in it.
    static int cachedKilobytes();
    static int cachedPictures();

private:
    // Takes the current pen, brush and rectangle as the look to find
    // pictures by, if any of them changed since the last paint.
    void refreshLook();

    QPen mLookPen;
    QBrush mLookBrush;
    QRectF mLookRect;
    uint mLookHash = 0;
};
