#pragma once

#include "display/arboleaveswidget.h"

#include <QGraphicsView>

class Arbo;
class PdPlayer;
class Settings;
class ArboWidget;
class CardStackWidget;
class QGraphicsScene;

// The view of one lattice drawing. It owns its scene, builds the lattice into
// it and keeps the whole lattice fitted into the widget at every size. Its
// balls and cards reach the player (for clicks) and the options (readout
// mode, pitch reference) through it.
//
// GUI thread only.
class ArboView : public QGraphicsView
{
    Q_OBJECT
public:
    explicit ArboView(QWidget* parent = nullptr);

    // `cardStack` and `player` may be null: a view without cards, or one that
    // only shows (a click then plays nothing). `options` outlives the view.
    void init(ArboLeavesWidget::View view, Arbo* lattice, CardStackWidget* cardStack,
              PdPlayer* player, const Settings& options);
    // Replaces the scene's lattice by a fresh build (after the layout
    // constants or the lattice changed).
    void buildScene(ArboLeavesWidget::View view);

    void updateArboBalls();
    void updateCardStack();

    // Writes which ball lies under `point` (view coordinates) to the debug
    // log; changes nothing.
    void detectBallMouseOver(const QPoint& point);

    const Arbo* lattice() const { return mLattice; }
    ArboWidget* arboWidget() const { return mArboWidget; }
    CardStackWidget* cardStack() const { return mCardStack; }
    PdPlayer* player() const { return mPlayer; }
    const Settings& options() const { return *mOptions; }

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
    PdPlayer* mPlayer = nullptr;
    const Settings* mOptions = nullptr;
};
