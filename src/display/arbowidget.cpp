#include "display/arbowidget.h"

#include "display/arboballwidget.h"
#include "display/arbostrutwidget.h"
#include "display/arboview.h"
#include "display/layoutconstants.h"
#include "model/arbo.h"
#include "model/arboball.h"

#include <cmath>

namespace {

constexpr double PI = 3.14159265;
// An angle of this value means "no direction": the step becomes a leaf.
constexpr int NO_ANGLE = -1;

constexpr qreal STRUT_Z = 10;
constexpr qreal BALL_Z = 20;
constexpr qreal LEAVES_Z = 30;

int angleOfStep(int step)
{
    switch (step) {
    case -3:
        return ANGLE_3_PLUS + 180;
    case -2:
        return ANGLE_2_PLUS + 180;
    case 2:
        return ANGLE_2_PLUS;
    case 3:
        return ANGLE_3_PLUS;
    default:
        return NO_ANGLE;
    }
}

} // namespace

ArboWidget::ArboWidget(ArboLeavesWidget::View view, const ArboView* arboView,
                       CardStackWidget* cardStack)
    : mView(view), mLattice(arboView->lattice()), mArboView(arboView), mCardStack(cardStack)
{
    setHandlesChildEvents(false);
    // Only a container: its balls and struts draw (see ArboBallWidget).
    setFlag(QGraphicsItem::ItemHasNoContents);
    buildArbo();
}

void ArboWidget::buildArbo()
{
    mBalls.clear();
    if (!mLattice || !mLattice->root()) {
        mBoundingRect = QRectF();
        return;
    }
    QHash<ArboPath, ArboBallWidget*> balls;
    buildArboFrom(*mLattice->root(), QPointF(0.0, 0.0), balls);
    for (auto it = balls.constBegin(); it != balls.constEnd(); ++it) {
        const QMap<int, ArboBall::Link>& links = it.value()->node()->links();
        for (const ArboBall::Link& link : links) {
            ArboBallWidget* target = balls.value(link.mPath, nullptr);
            // A strut needs two ends; a link to a node without a ball (a
            // leaf's child, or a path not in the tree) has nothing to join.
            if (!target) {
                continue;
            }
            auto* strut = new ArboStrutWidget(it.value(), target, LINK_WIDTH, &link.mColor, this);
            strut->setZValue(STRUT_Z);
        }
    }
    // Nothing moves once built. Computing the rectangle on every call would
    // walk the whole tree each time the scene asks, which it does for every
    // item it removes: clearing the scene would take quadratic time.
    prepareGeometryChange();
    mBoundingRect = childrenBoundingRect();
}

ArboBallWidget* ArboWidget::buildArboFrom(const ArboBall& node, const QPointF& pos,
                                          QHash<ArboPath, ArboBallWidget*>& balls)
{
    auto* ball = new ArboBallWidget(&node, this, BALL_DIAMETER, this);
    ball->setPos(pos);
    ball->setZValue(BALL_Z);

    auto* negative = new ArboLeavesWidget(mView, -1, ball);
    auto* positive = new ArboLeavesWidget(mView, +1, ball);
    negative->setZValue(LEAVES_Z);
    positive->setZValue(LEAVES_Z);
    if (mView == ArboLeavesWidget::Circles) {
        negative->setPos(-LEAVES_PLUS_OFFSET_X, -LEAVES_PLUS_OFFSET_Y);
        positive->setPos(LEAVES_PLUS_OFFSET_X, LEAVES_PLUS_OFFSET_Y);
    }

    const QMap<int, ArboBall*>& children = node.children();
    for (auto it = children.constBegin(); it != children.constEnd(); ++it) {
        const int step = it.key();
        const ArboBall* child = it.value();
        const int angle = angleOfStep(step);
        if (angle != NO_ANGLE) {
            const double length = std::abs(step) == 2 ? STRUT_2_LENGTH : STRUT_3_LENGTH;
            const double radians = angle * PI / 180.0;
            const QPointF childPos(pos.x() + length * std::cos(radians),
                                   pos.y() - length * std::sin(radians));
            ArboBallWidget* childBall = buildArboFrom(*child, childPos, balls);
            auto* strut = new ArboStrutWidget(ball, childBall, STRUT_WIDTH, nullptr, this);
            strut->setZValue(STRUT_Z);
        } else {
            ArboLeavesWidget* cluster = step < 0 ? negative : positive;
            auto* leaf = new ArboBallWidget(child, this, LEAF_DIAMETER, cluster);
            cluster->addPrime(step, leaf);
            mBalls.append(leaf);
        }
    }

    balls.insert(node.path(), ball);
    mBalls.append(ball);
    return ball;
}

void ArboWidget::updateBalls()
{
    for (ArboBallWidget* ball : qAsConst(mBalls)) {
        ball->updateBall();
    }
}

QRectF ArboWidget::boundingRect() const
{
    return mBoundingRect;
}

bool ArboWidget::sceneEventFilter(QGraphicsItem*, QEvent*)
{
    return false;
}
