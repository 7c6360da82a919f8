#include "display/arboview.h"

#include "display/arboballwidget.h"
#include "display/arbowidget.h"
#include "model/arboball.h"
#include "display/cardstackwidget.h"
#include "settings/debuglog.h"

#include <QGraphicsEllipseItem>
#include <QGraphicsScene>
#include <QResizeEvent>

ArboView::ArboView(QWidget* parent) : QGraphicsView(parent), mScene(new QGraphicsScene(this))
{
    setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing |
                   QPainter::SmoothPixmapTransform);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    // Every item of the lattice sets the pen and brush it paints with, and a
    // ball part puts back the transform it changes: saving and restoring the
    // whole painter state around each of a thousand items was a tenth of a
    // repaint for nothing.
    setOptimizationFlag(QGraphicsView::DontSavePainterState);
    setScene(mScene);
}

void ArboView::init(ArboLeavesWidget::View view, Arbo* lattice, CardStackWidget* cardStack,
                    PdPlayer* player, const Settings& options)
{
    mLattice = lattice;
    mCardStack = cardStack;
    mPlayer = player;
    mOptions = &options;
    buildScene(view);
}

void ArboView::buildScene(ArboLeavesWidget::View view)
{
    mScene->clear();
    mArboWidget = new ArboWidget(view, this, mCardStack);
    mScene->addItem(mArboWidget);
    mArboWidget->setPos(0.0, 0.0);
    mScene->setSceneRect(mArboWidget->sceneBoundingRect());
    fitInView(sceneRect(), Qt::KeepAspectRatio);
    // The old balls took their cards with them; the notes that still sound
    // get theirs back, joined to the new balls.
    if (mCardStack) {
        for (const ArboBallWidget* ball : mArboWidget->balls()) {
            if (ball->node()->isPlaying() && ball->node()->isEnabled()) {
                mCardStack->showCardForBall(ball);
            }
        }
    }
}

void ArboView::updateArboBalls()
{
    if (mArboWidget) {
        mArboWidget->updateBalls();
    }
}

void ArboView::updateCardStack()
{
    if (mCardStack) {
        mCardStack->updateCards();
    }
}

void ArboView::resizeEvent(QResizeEvent* event)
{
    QGraphicsView::resizeEvent(event);
    fitInView(sceneRect(), Qt::KeepAspectRatio);
    emit resized();
}

void ArboView::detectBallMouseOver(const QPoint& point)
{
    QGraphicsItem* item = itemAt(point);
    if (!item) {
        return;
    }
    auto* ball = dynamic_cast<ArboBallWidget*>(item);
    if (!ball && dynamic_cast<QGraphicsEllipseItem*>(item)) {
        ball = dynamic_cast<ArboBallWidget*>(item->group());
    }
    if (ball) {
        ARBO_DEBUG() << "You hovered over ball" << ball->node()->path().toString();
    }
}

void ArboView::drawForeground(QPainter* painter, const QRectF& rect)
{
    QGraphicsView::drawForeground(painter, rect);
}

void ArboView::mouseMoveEvent(QMouseEvent* event)
{
    QGraphicsView::mouseMoveEvent(event);
}
