#include "display/arboleaveswidget.h"

#include "display/arboballwidget.h"
#include "display/layoutconstants.h"
#include "model/arboconstants.h"

#include <cmath>

namespace {

constexpr double PI = 3.14159265;

// The ring of a flower, clockwise from LEAVES_START_ANGLE in steps of 45°;
// prime 23 takes the centre.
constexpr int RING_ORDER[] = {19, 11, 7, 31, 29, 13, 5, 17};
constexpr int FLOWER_CENTRE = 23;

// A grape: column (-0.5 left, +0.5 right) and depth in twelfths of the
// cluster's length, per prime.
struct GrapePlace
{
    int prime;
    float column;
    float depth;
};
constexpr GrapePlace GRAPE_PLACES[] = {
    {5, -0.5f, 3.86f},  {7, -0.5f, 9.69f},  {11, 0.5f, 5.51f},
    {13, 0.5f, 8.41f},  {17, -0.5f, 1.05f}, {19, 0.5f, 2.98f},
    {23, -0.5f, 6.28f}, {29, 0.5f, 10.37f}, {31, -0.5f, 11.5f},
};

} // namespace

QMap<int, QPointF> ArboLeavesWidget::sCirclePositions;
QMap<int, QPointF> ArboLeavesWidget::sGrapePositions;

ArboLeavesWidget::ArboLeavesWidget(View view, int direction, QGraphicsItem* parent)
    : QGraphicsItemGroup(parent), mView(view), mDirection(direction)
{
    setHandlesChildEvents(false);
    // Only a container: its balls and struts draw (see ArboBallWidget).
    setFlag(QGraphicsItem::ItemHasNoContents);
    if (view == Circles && sCirclePositions.isEmpty()) {
        fillCirclePositions();
    } else if (view == Grapes && sGrapePositions.isEmpty()) {
        fillGrapePositions();
    }
}

void ArboLeavesWidget::fillCirclePositions()
{
    sCirclePositions.insert(FLOWER_CENTRE, QPointF(0.0, 0.0));
    int k = 0;
    for (int prime : RING_ORDER) {
        int angle = LEAVES_START_ANGLE - 45 * k++;
        if (angle < 0) {
            angle += 360;
        }
        const double radians = angle * PI / 180.0;
        sCirclePositions.insert(
            prime, QPointF(LEAVES_RADIUS * std::cos(radians), -LEAVES_RADIUS * std::sin(radians)));
    }
}

void ArboLeavesWidget::fillGrapePositions()
{
    for (int prime : ArboConstants::PRIMES) {
        if (prime < 5) {
            continue;
        }
        for (const GrapePlace& place : GRAPE_PLACES) {
            if (place.prime == prime) {
                sGrapePositions.insert(prime,
                                       QPointF(float(GRAPE_LEAVES_WIDTH) * 0.5f * place.column,
                                               place.depth / 12.0f * float(GRAPE_LEAVES_HEIGHT)));
            }
        }
    }
}

void ArboLeavesWidget::clearPositionTables()
{
    sCirclePositions.clear();
    sGrapePositions.clear();
}

void ArboLeavesWidget::addPrime(int step, ArboBallWidget* leaf)
{
    const QMap<int, QPointF>& table = mView == Circles ? sCirclePositions : sGrapePositions;
    QPointF place = table.value(std::abs(step), QPointF(0.0, 0.0));
    if (mDirection > 0) {
        place = -place;
    }
    leaf->setPos(place);
    addToGroup(leaf);
}

bool ArboLeavesWidget::sceneEventFilter(QGraphicsItem*, QEvent*)
{
    return false;
}
