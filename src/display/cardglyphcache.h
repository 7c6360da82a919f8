#pragma once

#include <QByteArray>
#include <QColor>
#include <QHash>
#include <QPixmap>
#include <QRectF>
#include <QSize>
#include <QString>

#include <map>

// The music symbols of the note cards as the cards draw them: each SVG
// parsed once, for its view box, and drawn once per colour and size into a
// pixmap that every card showing it shares. A card's paint then only copies
// pixmaps; parsing and rendering an SVG costs more than all the rest of a
// card together.
//
// GUI thread only.
class CardGlyphCache
{
public:
    // One symbol: its black SVG and where it draws, in staff spaces with the
    // glyph's baseline at y = 0.
    struct Source
    {
        QByteArray svg;
        QRectF viewBox; // empty when `svg` is no drawing
    };

    // The symbol known as `name` (a file name or a SMuFL glyph name), its
    // `svg` parsed the first time it is asked for. The address stays valid as
    // long as the cache.
    const Source* source(const QString& name, const QByteArray& svg);

    // `source` drawn over `size` pixels at the device pixel ratio `ratio`,
    // every black fill and stroke in `color` (an invalid colour keeps the
    // drawing's own); a null pixmap when there is nothing to draw.
    QPixmap pixmap(const Source* source, const QColor& color, const QSize& size, qreal ratio);

    // Writes `color` over every black fill and stroke of an SVG document;
    // anything else in it stays as it is.
    static void recolor(QByteArray* svg, const QColor& color);

private:
    struct Key
    {
        const Source* source;
        QRgb color;
        bool recoloured;
        QSize size;
        qreal ratio;
        bool operator==(const Key& other) const
        {
            return source == other.source && color == other.color &&
                   recoloured == other.recoloured && size == other.size && ratio == other.ratio;
        }
    };
    friend uint qHash(const Key& key, uint seed);

    // A card keeps its size and a lattice has a few dozen colours; the limit
    // only stops a window resized for long from growing the cache forever.
    static constexpr int MAX_PIXMAPS = 512;

    std::map<QString, Source> mSources;
    QHash<Key, QPixmap> mPixmaps;
};
