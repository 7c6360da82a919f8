#pragma once

#include "model/arbonoteevent.h"

#include <QBrush>
#include <QGraphicsItemGroup>
#include <QList>
#include <QObject>
#include <QPen>

class ArboBall;
class ArboStrutWidget;
class ArboWidget;
class Settings;
class QGraphicsEllipseItem;

// One node of the lattice on screen: a coloured disc with an outline and,
// while its note sounds, a white glow behind it. A marked node (a degree of
// the imported scale) has a thin gold ring around the disc as well: outside
// the disc and its playing outline, so the fill, the outline and the glow
// still show whether the note sounds.
//
// The ball draws the node; it never changes it. A left click queues the
// node's note toggle on the player (the same command a wand sends); the ball
// lights up when the player's answer has marked the node playing, so a note
// started by a wand lights it just the same. A disabled node's ball is hidden
// with every strut that ends at it.
//
// GUI thread only.
class ArboBallWidget : public QObject, public QGraphicsItemGroup
{
    Q_OBJECT
public:
    ArboBallWidget(const ArboBall* node, ArboWidget* owner, int diameter,
                   QGraphicsItem* parent = nullptr);

    // Recomputes the colour from the node, the readout mode and the
    // transposition, and repaints.
    void updateBall();
    // The node's own colour, no emphasis.
    void updateColor();
    void updateColor(const QColor& color, bool emphasised);

    // The radius of a playing ball including its outline: where connector
    // lines to the note card end.
    double playingRadius() const;

    // The options the drawing shows it by (readout mode, pitch reference).
    const Settings& options() const;
    const ArboBall* node() const { return mNode; }
    int diameter() const { return mDiameter; }
    QList<ArboStrutWidget*>& struts() { return mStruts; }
    // The disc and the glow, for the display's tests and hover diagnosis.
    const QGraphicsEllipseItem* disc() const { return mDisc; }
    const QGraphicsEllipseItem* glow() const { return mGlow; }
    const QGraphicsEllipseItem* mark() const { return mMark; }

    QRectF boundingRect() const override;

public slots:
    void onPlayingChanged();
    void onEnabledChanged(bool enabled);
    void onMarkedChanged(bool marked);

protected:
    void mousePressEvent(QGraphicsSceneMouseEvent* event) override;
    // Swallowed, so that a double click is not a second toggle.
    void mouseDoubleClickEvent(QGraphicsSceneMouseEvent* event) override;
    void hoverEnterEvent(QGraphicsSceneHoverEvent* event) override;
    bool sceneEventFilter(QGraphicsItem* watched, QEvent* event) override;
    void hoverLeaveEvent(QGraphicsSceneHoverEvent* event) override;

private:
    // A part drawn around the ball's centre, `size` across, at depth `z`
    // (the disc is at 20).
    QGraphicsEllipseItem* addPart(double size, qreal z);
    void raiseCard();
    void onHoverLeft();

    const ArboBall* mNode;
    ArboWidget* mOwner;
    QGraphicsEllipseItem* mDisc;
    QGraphicsEllipseItem* mGlow;
    QGraphicsEllipseItem* mMark;
    QList<ArboStrutWidget*> mStruts;
    const ArboNoteEvent mNoteEvent;
    const int mDiameter;
};
