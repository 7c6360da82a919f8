#include "display/cardglyphcache.h"

#include <QPainter>
#include <QSvgRenderer>

uint qHash(const CardGlyphCache::Key& key, uint seed)
{
    QtPrivate::QHashCombine combine;
    seed = combine(seed, quintptr(key.source));
    seed = combine(seed, key.color);
    seed = combine(seed, key.recoloured);
    seed = combine(seed, key.size.width());
    seed = combine(seed, key.size.height());
    return combine(seed, key.ratio);
}

const CardGlyphCache::Source* CardGlyphCache::source(const QString& name, const QByteArray& svg)
{
    auto it = mSources.find(name);
    if (it == mSources.end()) {
        Source parsed{svg, QRectF()};
        if (!svg.isEmpty()) {
            const QSvgRenderer renderer(svg);
            if (renderer.isValid()) {
                parsed.viewBox = renderer.viewBoxF();
            }
        }
        it = mSources.emplace(name, parsed).first;
    }
    return &it->second;
}

QPixmap CardGlyphCache::pixmap(const Source* source, const QColor& color, const QSize& size,
                               qreal ratio)
{
    if (!source || source->viewBox.isEmpty() || size.isEmpty()) {
        return QPixmap();
    }
    const Key key{source, color.rgba(), color.isValid(), size, ratio};
    auto it = mPixmaps.constFind(key);
    if (it != mPixmaps.constEnd()) {
        return *it;
    }
    QByteArray svg = source->svg;
    if (color.isValid()) {
        recolor(&svg, color);
    }
    QSvgRenderer renderer(svg);
    QPixmap drawn(size * ratio);
    drawn.setDevicePixelRatio(ratio);
    drawn.fill(Qt::transparent);
    {
        QPainter painter(&drawn);
        // The whole view box over the whole pixmap, as a QSvgWidget of that
        // size draws it.
        renderer.render(&painter, QRectF(QPointF(0, 0), QSizeF(size)));
    }
    if (mPixmaps.size() >= MAX_PIXMAPS) {
        mPixmaps.clear();
    }
    mPixmaps.insert(key, drawn);
    return drawn;
}

void CardGlyphCache::recolor(QByteArray* svg, const QColor& color)
{
    const QByteArray hex = QStringLiteral("#%1%2%3")
                               .arg(color.red(), 2, 16, QLatin1Char('0'))
                               .arg(color.green(), 2, 16, QLatin1Char('0'))
                               .arg(color.blue(), 2, 16, QLatin1Char('0'))
                               .toLatin1();
    svg->replace(QByteArrayLiteral("fill:#000000"), QByteArrayLiteral("fill:") + hex);
    svg->replace(QByteArrayLiteral("stroke:#000000"), QByteArrayLiteral("stroke:") + hex);
}
