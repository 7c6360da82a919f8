#include "display/cardglyph.h"

#include <QPainter>

CardGlyph::CardGlyph(const QString& objectName, CardGlyphCache* cache, QWidget* parent)
    : QSvgWidget(parent), mCache(cache)
{
    setObjectName(objectName);
    // Clicks and hovers belong to the card.
    setAttribute(Qt::WA_TransparentForMouseEvents);
}

void CardGlyph::setGlyph(const CardGlyphCache::Source* source, const QColor& color)
{
    if (source != mSource || color != mColor) {
        mSource = source;
        mColor = color;
        mChanged = true;
    }
}

QRectF CardGlyph::viewBox() const
{
    return mSource ? mSource->viewBox : QRectF();
}

void CardGlyph::place(const QRect& rect)
{
    if (viewBox().isEmpty()) {
        hide();
        return;
    }
    if (rect.size() != size()) {
        mChanged = true;
    }
    setGeometry(rect);
    if (mChanged) {
        takePixmap();
    }
    show();
}

void CardGlyph::takePixmap()
{
    mPixmap = mCache->pixmap(mSource, mColor, size(), devicePixelRatioF());
    mChanged = false;
    update();
}

void CardGlyph::paintEvent(QPaintEvent*)
{
    if (mPixmap.devicePixelRatio() != devicePixelRatioF()) {
        // Moved to a screen of another pixel density: drawn anew, once.
        takePixmap();
    }
    QPainter painter(this);
    painter.drawPixmap(0, 0, mPixmap);
}
