#pragma once

#include <QHash>
#include <QPen>
#include <QWidget>

class ArboBallWidget;
class ArboView;
class CardWidget;

// A transparent layer over the whole lattice layer that draws a line from
// each sounding ball to its note card. It never takes the mouse: clicks fall
// through to the lattice beneath.
//
// GUI thread only.
class CardConnectorOverlay : public QWidget
{
    Q_OBJECT
public:
    explicit CardConnectorOverlay(QWidget* parent = nullptr);

    // Repaints whenever the view is resized, as the balls move with it.
    void init(const ArboView* view);

    // Each repaints only where its line runs.
    void addConnector(const ArboBallWidget* ball, const CardWidget* card);
    void removeConnector(const ArboBallWidget* ball);
    // For a ball being destroyed, which may only be compared: repaints all.
    void forgetConnector(const ArboBallWidget* ball);

    // The line drawn for `ball`, in the overlay's coordinates: from the rim
    // of the playing ball to the middle of the card's left edge. Null when
    // the ball has no card or the card lies over the ball.
    QLineF connectorLine(const ArboBallWidget* ball) const;
    int connectorCount() const { return mConnectors.size(); }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    // Marks the ball's line for repainting.
    void updateLine(const ArboBallWidget* ball);

    const ArboView* mView = nullptr;
    // Made once: a pen made in each paint would allocate.
    const QPen mPen;
    QHash<const ArboBallWidget*, const CardWidget*> mConnectors;
};
