#pragma once

#include <QWidget>

class ArboBallWidget;
class ArboView;
class CardWidget;

// A transparent layer over the whole lattice layer that draws a line from
// each sounding ball to its note card. It never takes the mouse: clicks fall
// through to the lattice beneath.
//
// For now it is the connection point the lattice layer sets up; it draws no
// lines yet.
//
// GUI thread only.
class CardConnectorOverlay : public QWidget
{
    Q_OBJECT
public:
    explicit CardConnectorOverlay(QWidget* parent = nullptr);

    // Repaints whenever the view is resized, as the balls move with it.
    void init(const ArboView* view);

    void addConnector(const ArboBallWidget* ball, CardWidget* card);
    void removeConnector(const ArboBallWidget* ball);

private:
    const ArboView* mView = nullptr;
};
