#include "display/arbolayer.h"

#include "display/arboview.h"
#include "display/cardconnectoroverlay.h"
#include "display/cardstackwidget.h"

#include <QFrame>
#include <QHBoxLayout>

namespace {

// Cards keep this far from the bottom of the view.
constexpr int CARD_BOTTOM_MARGIN = 12;

QHBoxLayout* bareRow(QWidget* parent)
{
    auto* row = new QHBoxLayout(parent);
    row->setSpacing(0);
    row->setContentsMargins(0, 0, 0, 0);
    return row;
}

} // namespace

ArboLayer::ArboLayer(QWidget* parent) : QWidget(parent)
{
    QHBoxLayout* row = bareRow(this);

    auto* centralFrame = new QFrame(this);
    centralFrame->setObjectName(QStringLiteral("centralFrame"));
    centralFrame->setContentsMargins(0, 6, 0, 6);
    mView = new ArboView(centralFrame);
    bareRow(centralFrame)->addWidget(mView);

    auto* rightFrame = new QFrame(this);
    rightFrame->setObjectName(QStringLiteral("rightFrame"));
    rightFrame->setContentsMargins(12, 12, 12, 12);
    mCardStack = new CardStackWidget(rightFrame);
    bareRow(rightFrame)->addWidget(mCardStack);

    row->addWidget(centralFrame, 1);
    row->addWidget(rightFrame);

    // Last, so that it lies over both frames.
    mOverlay = new CardConnectorOverlay(this);
}

void ArboLayer::init(ArboLeavesWidget::View view, Arbo* lattice, PdPlayer* player,
                     const Settings& options)
{
    mOverlay->init(mView);
    mCardStack->init(mOverlay, mView);
    mView->init(view, lattice, mCardStack, player, options);
    mCardStack->setBottomMargin(CARD_BOTTOM_MARGIN);
}

void ArboLayer::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    mOverlay->move(0, 0);
    mOverlay->resize(size());
    mOverlay->raise();
}
