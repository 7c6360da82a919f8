#pragma once

#include "display/cardglyphcache.h"

#include <QSvgWidget>

// One music symbol on a note card (the clef, an accidental, the note head, a
// Helmholtz-Ellis sign). It stays a QSvgWidget, the type a card's drawn
// symbols have always had and are looked up by, but it neither parses nor
// renders SVG itself: it draws the pixmap the cache made of its symbol, in
// its colour and at its size, and a card changes its symbol in place.
//
// GUI thread only.
class CardGlyph : public QSvgWidget
{
    Q_OBJECT
public:
    CardGlyph(const QString& objectName, CardGlyphCache* cache, QWidget* parent);

    // The symbol to draw, every black in `color` (invalid: as drawn); null
    // for none. Takes effect at the next place().
    void setGlyph(const CardGlyphCache::Source* source, const QColor& color);
    // Where the symbol draws, in staff spaces; empty when there is none.
    QRectF viewBox() const;
    // Shows the symbol over `rect`, or hides it when there is none.
    void place(const QRect& rect);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void takePixmap();

    CardGlyphCache* mCache;
    const CardGlyphCache::Source* mSource = nullptr;
    QColor mColor;
    bool mChanged = true;
    QPixmap mPixmap;
};
