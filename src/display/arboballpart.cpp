#include "display/arboballpart.h"

#include <QCache>
#include <QGradient>
#include <QHash>
#include <QImage>
#include <QPaintDevice>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace {

// Room for every look of the default lattice, in both drawings, at every
// quarter-pixel phase, on a screen twice as large each way as 1200x800. A
// larger window, or a resize, only makes some pictures again.
constexpr int CACHE_KILOBYTES = 24 * 1024;

// A part's position within a device pixel is rounded to 1/PHASES of a pixel.
constexpr int PHASES = 4;

// What a picture shows: the part's look, the view's scale and the part's
// position within a device pixel. Not the render hints: every lattice view
// draws with the same.
struct PictureKey
{
    uint lookHash;
    QRectF rect;
    QPen pen;
    QBrush brush;
    qreal scaleX;
    qreal scaleY;
    int phaseX;
    int phaseY;

    bool operator==(const PictureKey& other) const
    {
        return lookHash == other.lookHash && scaleX == other.scaleX && scaleY == other.scaleY &&
               phaseX == other.phaseX && phaseY == other.phaseY && rect == other.rect &&
               pen == other.pen && brush == other.brush;
    }
};

uint qHash(const PictureKey& key, uint seed = 0)
{
    uint hash = seed ^ key.lookHash;
    hash = 31 * hash + ::qHash(key.scaleX);
    hash = 31 * hash + ::qHash(key.scaleY);
    return 31 * hash + uint(key.phaseX * PHASES + key.phaseY);
}

// A picture and where its top left pixel lies, relative to the whole device
// pixel in which the part's origin falls.
struct Picture
{
    QImage image;
    QPoint topLeft;
};

QCache<PictureKey, Picture>& pictures()
{
    // Images, not pixmaps: the cache outlives the application object, and an
    // image needs none to be freed.
    static QCache<PictureKey, Picture> cache(CACHE_KILOBYTES);
    return cache;
}

int kilobytes(const QImage& image)
{
    return std::max(1, int(image.sizeInBytes() / 1024));
}

// Splits a device coordinate into a whole pixel (rounded down) and a phase
// in [0, PHASES).
void split(qreal coordinate, int& whole, int& phase)
{
    const qint64 steps = qRound64(coordinate * PHASES);
    whole = int(std::floor(double(steps) / PHASES));
    phase = int(steps - qint64(whole) * PHASES);
}

uint hashOf(const QRectF& rect, const QPen& pen, const QBrush& brush)
{
    uint hash = ::qHash(rect.x()) ^ 3 * ::qHash(rect.y()) ^ 5 * ::qHash(rect.width()) ^
                7 * ::qHash(rect.height());
    hash = 31 * hash + uint(pen.color().rgba()) + 11 * ::qHash(pen.widthF()) + uint(pen.style());
    hash = 31 * hash + uint(brush.color().rgba()) + uint(brush.style());
    if (const QGradient* gradient = brush.gradient()) {
        for (const QGradientStop& stop : gradient->stops()) {
            hash = 31 * hash + ::qHash(stop.first) + uint(stop.second.rgba());
        }
    }
    return hash;
}

} // namespace

ArboBallPart::ArboBallPart(const QRectF& rect, QGraphicsItem* parent)
    : QGraphicsEllipseItem(rect, parent)
{
}

void ArboBallPart::refreshLook()
{
    const QPen pen = this->pen();
    const QBrush brush = this->brush();
    const QRectF rect = this->rect();
    if (pen == mLookPen && brush == mLookBrush && rect == mLookRect && mLookHash != 0) {
        return;
    }
    mLookPen = pen;
    mLookBrush = brush;
    mLookRect = rect;
    mLookHash = hashOf(rect, pen, brush) | 1; // never 0, the mark of "not yet"
}

void ArboBallPart::paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget)
{
    const QTransform world = painter->worldTransform();
    const qreal ratio = painter->device()->devicePixelRatioF();
    const QTransform device = world * QTransform::fromScale(ratio, ratio);
    if (device.type() > QTransform::TxScale) {
        QGraphicsEllipseItem::paint(painter, option, widget);
        return;
    }
    refreshLook();
    int wholeX = 0;
    int wholeY = 0;
    PictureKey key{mLookHash, mLookRect, mLookPen, mLookBrush, device.m11(), device.m22(), 0, 0};
    split(device.dx(), wholeX, key.phaseX);
    split(device.dy(), wholeY, key.phaseY);

    QCache<PictureKey, Picture>& cache = pictures();
    Picture* picture = cache.object(key);
    if (!picture) {
        // The part drawn as the view would draw it, with its origin at the
        // phase's point of the picture's pixel grid.
        const QTransform place(key.scaleX, 0.0, 0.0, key.scaleY, qreal(key.phaseX) / PHASES,
                               qreal(key.phaseY) / PHASES);
        const QRect pixels = place.mapRect(boundingRect()).toAlignedRect().adjusted(-1, -1, 1, 1);
        QImage image(pixels.size(), QImage::Format_ARGB32_Premultiplied);
        if (image.isNull() || kilobytes(image) > cache.maxCost()) {
            QGraphicsEllipseItem::paint(painter, option, widget);
            return;
        }
        image.fill(Qt::transparent);
        {
            QPainter imagePainter(&image);
            imagePainter.setRenderHints(painter->renderHints());
            imagePainter.setTransform(place * QTransform::fromTranslate(-pixels.x(), -pixels.y()));
            QGraphicsEllipseItem::paint(&imagePainter, option, widget);
        }
        image.setDevicePixelRatio(ratio);
        const int cost = kilobytes(image);
        picture = new Picture{std::move(image), pixels.topLeft()};
        cache.insert(key, picture, cost);
    }
    painter->setWorldTransform(QTransform());
    painter->drawImage(QPointF(wholeX + picture->topLeft.x(), wholeY + picture->topLeft.y()) /
                           ratio,
                       picture->image);
    painter->setWorldTransform(world);
}

int ArboBallPart::cachedKilobytes()
{
    return pictures().totalCost();
}

int ArboBallPart::cachedPictures()
{
    return pictures().count();
}
