#include "display/arboballwidget.h"

#include "display/arboballpart.h"
#include "display/arbostrutwidget.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "display/layoutconstants.h"
#include "model/arbo.h"
#include "model/arboball.h"
#include "display/cardstackwidget.h"
#include "settings/debuglog.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"

#include <QGraphicsEllipseItem>
#include <QGraphicsSceneMouseEvent>
#include <QRadialGradient>
#include <QThread>

#include <algorithm>

namespace {

// The root's colour while the lattice is transposed: the root is then no
// longer the 1/1 that sounds, and grey says so.
const QColor TRANSPOSED_ROOT_GREY(158, 158, 158);
const QColor IDLE_OUTLINE(0, 0, 0, 128);
// The ring of a marked ball: a colour no prime has, bright on the dark
// background and on the white glow alike.
const QColor MARK_COLOR(255, 196, 0);

// Hovering a main ball of this exact size raises its card only after a short
// wait, so that sweeping the mouse across the lattice does not reshuffle the
// cards. The number itself is compared, not BALL_DIAMETER: a tweaked ball
// size raises at once, like a leaf.
constexpr int HOVER_DELAYED_DIAMETER = 28;
constexpr unsigned long HOVER_DELAY_MS = 100;

const ArboPath& rootPath()
{
    static const ArboPath ROOT(QStringLiteral("/"));
    return ROOT;
}

} // namespace

ArboBallWidget::ArboBallWidget(const ArboBall* node, ArboWidget* owner, int diameter,
                               QGraphicsItem* parent)
    : QGraphicsItemGroup(parent), mNode(node), mOwner(owner),
      // Made as children first: addToGroup keeps an item's scene position, and
      // a leaf's parents are already placed when it is built.
      mDisc(new ArboBallPart(QRectF(-diameter / 2.0, -diameter / 2.0, diameter, diameter), this)),
      mGlow(nullptr), mMark(nullptr), mNoteEvent(node->path()), mDiameter(diameter)
{
    setHandlesChildEvents(false);
    if (parentItem()) {
        parentItem()->setHandlesChildEvents(false);
    }
    setAcceptHoverEvents(true);

    // The parts only draw; clicks and hovers belong to the ball.
    mDisc->setAcceptedMouseButtons(Qt::NoButton);
    addToGroup(mDisc);
    mDisc->setZValue(20);

    const double glowSize = BALL_GLOW_SIZE_FACTOR / 100.0 * diameter;
    mGlow = addPart(glowSize, 10);
    mGlow->setPen(Qt::NoPen);
    QRadialGradient gradient(QPointF(0.0, 0.0), glowSize / 2);
    gradient.setColorAt(0.0, QColor(255, 255, 255, GLOW_ALPHA_START));
    gradient.setColorAt(1.0, QColor(255, 255, 255, 0));
    mGlow->setBrush(QBrush(gradient));
    mGlow->setVisible(false);

    // Above the glow, below the disc; wider than the playing outline.
    mMark = addPart(MARK_SIZE_FACTOR / 100.0 * diameter, 15);
    mMark->setPen(QPen(MARK_COLOR, std::max(1.0, diameter / 12.0)));
    mMark->setVisible(node->isMarked());

    updateBall();
    setFlag(QGraphicsItem::ItemClipsToShape);
    // The group itself draws nothing, its parts do. Said so, the scene skips
    // it when painting instead of clipping the painter to its shape for an
    // empty paint(), for every ball in every frame.
    setFlag(QGraphicsItem::ItemHasNoContents);

    connect(node, &ArboBall::playingChanged, this, &ArboBallWidget::onPlayingChanged,
            Qt::DirectConnection);
    connect(node, &ArboBall::enabledChanged, this, &ArboBallWidget::onEnabledChanged,
            Qt::DirectConnection);
    connect(node, &ArboBall::markedChanged, this, &ArboBallWidget::onMarkedChanged,
            Qt::DirectConnection);

    // Events of the disc and the glow pass through sceneEventFilter. The
    // ball's own hover leave arrives as hoverLeaveEvent: installing the ball
    // as a scene event filter on itself would do the same, but the scene
    // then walks its whole filter table for every item it removes, and
    // rebuilding the lattice would take about a hundred milliseconds.
    setFiltersChildEvents(true);
}

QGraphicsEllipseItem* ArboBallWidget::addPart(double size, qreal z)
{
    auto* part = new ArboBallPart(QRectF(-size / 2, -size / 2, size, size), this);
    part->setAcceptedMouseButtons(Qt::NoButton);
    addToGroup(part);
    part->setZValue(z);
    return part;
}

QRectF ArboBallWidget::boundingRect() const
{
    return mDisc->boundingRect();
}

double ArboBallWidget::playingRadius() const
{
    const double width = mDisc->rect().width();
    return width / 2 + width / 10;
}

const Settings& ArboBallWidget::options() const
{
    return mOwner->arboView()->options();
}

void ArboBallWidget::updateBall()
{
    const Arbo* lattice = mOwner->lattice();
    const int mode = options().mAbsRelView;
    static const QList<int> NO_STEPS;
    const QList<int>& transpose = lattice ? lattice->transposeSteps() : NO_STEPS;
    auto colorOf = [lattice](int step) {
        return lattice ? lattice->lookupColor(step) : Arbo::WHITE;
    };

    if (mode > 0) {
        const int step = mode == 1 ? mNode->lastAbsStep() : mNode->highestAbsStep();
        if (step == ArboBall::BEYOND_THREE_LIMIT) {
            updateColor();
            return;
        }
        // Transposed by two or more high primes, the high-prime balls of the
        // last-step readout lose their prime colour: which prime "made" them
        // is no longer telling.
        const auto highSteps = std::count_if(transpose.begin(), transpose.end(), [](int s) {
            return std::abs(s) >= ArboBall::HIGH_PRIME_STEP;
        });
        if (mode == 1 && highSteps >= 2 && step >= ArboBall::HIGH_PRIME_STEP) {
            updateColor(colorOf(0), false);
            return;
        }
        updateColor(colorOf(step), step == 1);
        return;
    }
    if (!transpose.isEmpty() && mNode->path() == rootPath()) {
        updateColor(TRANSPOSED_ROOT_GREY, true);
    } else if (lattice && mNode == lattice->root()) {
        updateColor(colorOf(1), true);
    } else {
        updateColor();
    }
}

void ArboBallWidget::updateColor()
{
    updateColor(mNode->color(), false);
}

void ArboBallWidget::updateColor(const QColor& color, bool emphasised)
{
    QPen pen;
    QColor fill;
    if (mNode->isPlaying()) {
        pen = QPen(Qt::SolidLine);
        pen.setWidth(int(mDisc->rect().width() / 10));
        if (emphasised) {
            fill = color.lighter(100);
            pen.setColor(color.lighter(200));
        } else {
            fill = color.lighter(BALL_BRIGHTEN_FACTOR);
            pen.setColor(color.lighter(OUTLINE_BRIGHTEN_FACTOR));
        }
        mGlow->setVisible(true);
    } else {
        fill = color.darker(BALL_DIM_FACTOR);
        pen = QPen(IDLE_OUTLINE, 0); // a translucent hairline
        mGlow->setVisible(false);
    }
    mDisc->setPen(pen);
    mDisc->setBrush(QBrush(fill));
}

void ArboBallWidget::onPlayingChanged()
{
    updateBall();
    if (!mNode->isEnabled()) {
        return;
    }
    if (CardStackWidget* cards = mOwner->cardStack()) {
        if (mNode->isPlaying()) {
            cards->showCardForBall(this);
        } else {
            cards->hideCardForBall(this);
        }
    }
}

void ArboBallWidget::onEnabledChanged(bool enabled)
{
    setVisible(enabled);
    for (ArboStrutWidget* strut : qAsConst(mStruts)) {
        strut->setVisible(enabled);
    }
    if (!mNode->isPlaying()) {
        return;
    }
    if (CardStackWidget* cards = mOwner->cardStack()) {
        if (enabled) {
            cards->showCardForBall(this);
        } else {
            cards->hideCardForBall(this);
        }
    }
}

void ArboBallWidget::onMarkedChanged(bool marked)
{
    mMark->setVisible(marked);
}

void ArboBallWidget::mousePressEvent(QGraphicsSceneMouseEvent* event)
{
    // Only the left button plays; the others are taken and do nothing.
    event->accept();
    if (event->button() != Qt::LeftButton) {
        return;
    }
    if (PdPlayer* player = mOwner->arboView()->player()) {
        player->queueEventGui(&mNoteEvent);
    }
}

void ArboBallWidget::mouseDoubleClickEvent(QGraphicsSceneMouseEvent* event)
{
    event->accept();
}

void ArboBallWidget::raiseCard()
{
    if (CardStackWidget* cards = mOwner->cardStack()) {
        cards->raiseCardForBall(this);
    }
}

void ArboBallWidget::hoverEnterEvent(QGraphicsSceneHoverEvent* event)
{
    QGraphicsItemGroup::hoverEnterEvent(event);
    if (mNode->isPlaying() && mNode->isEnabled()) {
        if (mDiameter == HOVER_DELAYED_DIAMETER) {
            // Deliberately a plain sleep: the mouse position is read again
            // afterwards, and nothing else of the window needs to run
            // meanwhile.
            QThread::msleep(HOVER_DELAY_MS);
            if (isUnderMouse()) {
                raiseCard();
            }
        } else {
            raiseCard();
        }
    }
    ARBO_DEBUG() << "hover over ball with abs path" << mNode->absPathSteps() << mDiameter
                 << (isUnderMouse() ? "true" : "false");
}

void ArboBallWidget::onHoverLeft()
{
    // Leaving the glow or the outline while still over the disc.
    if (mNode->isPlaying() && mNode->isEnabled() && mDisc->isUnderMouse()) {
        raiseCard();
    }
}

void ArboBallWidget::hoverLeaveEvent(QGraphicsSceneHoverEvent* event)
{
    QGraphicsItemGroup::hoverLeaveEvent(event);
    onHoverLeft();
}

bool ArboBallWidget::sceneEventFilter(QGraphicsItem*, QEvent* event)
{
    if (event->type() == QEvent::GraphicsSceneHoverLeave) {
        onHoverLeft();
    }
    return false;
}
