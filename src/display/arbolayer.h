#pragma once

#include "display/arboleaveswidget.h"

#include <QWidget>

class Arbo;
class PdPlayer;
class Settings;
class ArboView;
class CardConnectorOverlay;
class CardStackWidget;

// One complete lattice drawing as the main window shows it: the view on the
// left, the column of note cards on the right, and the overlay that joins
// cards to balls over both.
//
// GUI thread only.
class ArboLayer : public QWidget
{
    Q_OBJECT
public:
    explicit ArboLayer(QWidget* parent = nullptr);

    // See ArboView::init.
    void init(ArboLeavesWidget::View view, Arbo* lattice, PdPlayer* player,
              const Settings& options);

    ArboView* view() const { return mView; }
    CardStackWidget* cardStack() const { return mCardStack; }

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    ArboView* mView;
    CardStackWidget* mCardStack;
    CardConnectorOverlay* mOverlay;
};
