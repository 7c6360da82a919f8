#pragma once

#include <QGraphicsItemGroup>
#include <QMap>
#include <QPointF>

class ArboBallWidget;

// One cluster of leaf balls beside a lattice ball: the steps of the primes 5
// to 31 on one side (direction -1 or +1). The two styles place the leaves
// differently: "grapes" hang them in two columns, "circles" (shown as
// flowers) put them on a ring around a centre leaf.
//
// The places come from two process-wide tables, one per style, filled from
// the layout constants by the first cluster built while its table is empty.
// After the constants change, clearPositionTables() makes the next build fill
// them again.
//
// GUI thread only.
class ArboLeavesWidget : public QGraphicsItemGroup
{
public:
    enum View
    {
        Circles = 0,
        Grapes = 1
    };

    ArboLeavesWidget(View view, int direction, QGraphicsItem* parent = nullptr);

    // Places `leaf` at the table's point for |step|, mirrored for the positive
    // direction, and takes it into the group. A prime without an entry goes
    // to the cluster's origin.
    void addPrime(int step, ArboBallWidget* leaf);

    View view() const { return mView; }
    int direction() const { return mDirection; }

    static void clearPositionTables();

    static QMap<int, QPointF> sCirclePositions;
    static QMap<int, QPointF> sGrapePositions;

protected:
    // Lets every event through to the leaves.
    bool sceneEventFilter(QGraphicsItem* watched, QEvent* event) override;

private:
    static void fillCirclePositions();
    static void fillGrapePositions();

    View mView;
    int mDirection;
};
