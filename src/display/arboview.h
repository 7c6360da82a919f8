#pragma once

#include "display/arboleaveswidget.h"

#include <QGraphicsView>

class Arbo;
class ArboWidget;
class CardStackWidget;
class QGraphicsScene;

// The view of one lattice drawing. It owns its scene, builds the lattice into
// it and keeps the whole lattice fitted into the widget at every size.
//
// GUI thread only.
class ArboView : public QGraphicsView
{
    Q_OBJECT
public:
    explicit ArboView(QWidget* parent = nullptr);

    void init(ArboLeavesWidget::View view, Arbo* lattice, CardStackWidget* cardStack);
    // Replaces the scene's lattice by a fresh build (after the layout
    // constants or the lattice changed).
    void buildScene(ArboLeavesWidget::View view);

    void setAbsRelView(bool absRelView) { mAbsRelView = absRelView; }
    void updateArboBalls();
    void updateCardStack();

    // Writes which ball lies under `point` (view coordinates) to the debug
    // log; changes nothing.
    void detectBallMouseOver(const QPoint& point);

    const Arbo* lattice() const { return mLattice; }
    ArboWidget* arboWidget() const { return mArboWidget; }
    CardStackWidget* cardStack() const { return mCardStack; }

signals:
    // After every resize, once the lattice has been fitted anew.
    void resized();

protected:
    void resizeEvent(QResizeEvent* event) override;
    void drawForeground(QPainter* painter, const QRectF& rect) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    Arbo* mLattice = nullptr;
    QGraphicsScene* mScene;
    ArboWidget* mArboWidget = nullptr;
    CardStackWidget* mCardStack = nullptr;
    bool mAbsRelView = false;
};
