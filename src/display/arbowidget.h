#pragma once

#include "display/arboleaveswidget.h"
#include "model/arbopath.h"

#include <QGraphicsItemGroup>
#include <QHash>
#include <QList>

class Arbo;
class ArboBall;
class ArboBallWidget;
class ArboView;
class CardStackWidget;

// The whole lattice as one item of the scene: a ball per node of the trunk
// (the steps of 2 and 3 from the root), the struts between them, the leaf
// clusters of the higher primes around each ball, and the link struts.
//
// Built once, in the constructor, from the lattice's current tree and the
// layout constants; a change of either needs a new ArboWidget (the view's
// buildScene). The items follow the nodes' signals from then on.
//
// GUI thread only.
class ArboWidget : public QGraphicsItemGroup
{
public:
    ArboWidget(ArboLeavesWidget::View view, const ArboView* arboView, CardStackWidget* cardStack);

    void buildArbo();
    // Builds the ball of `node` at `pos` and, recursively, its branches;
    // returns the ball.
    ArboBallWidget* buildArboFrom(const ArboBall& node, const QPointF& pos,
                                  QHash<ArboPath, ArboBallWidget*>& balls);
    // Recolours every ball (after a change of readout mode or transposition).
    void updateBalls();

    ArboLeavesWidget::View view() const { return mView; }
    const Arbo* lattice() const { return mLattice; }
    const ArboView* arboView() const { return mArboView; }
    CardStackWidget* cardStack() const { return mCardStack; }
    // Every ball built, main balls and leaves, in build order: a node's
    // leaves before the node, deeper nodes of a branch before their parent.
    const QList<ArboBallWidget*>& balls() const { return mBalls; }

    // The children's bounding rectangle, as it was when built.
    QRectF boundingRect() const override;

protected:
    bool sceneEventFilter(QGraphicsItem* watched, QEvent* event) override;

private:
    ArboLeavesWidget::View mView;
    const Arbo* mLattice;
    const ArboView* mArboView;
    CardStackWidget* mCardStack;
    QList<ArboBallWidget*> mBalls;
    QRectF mBoundingRect;
};
