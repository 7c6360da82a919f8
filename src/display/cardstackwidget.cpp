#include "display/cardstackwidget.h"

#include "display/arboballwidget.h"
#include "display/arboview.h"
#include "display/cardconnectoroverlay.h"
#include "display/cardwidget.h"
#include "model/arbo.h"
#include "model/arboball.h"
#include "notation/smuflglyphs.h"
#include "settings/paths.h"

#include <QFile>
#include <QVarLengthArray>

#include <algorithm>

CardStackWidget::CardStackWidget(QWidget* parent) : QWidget(parent)
{
    setFixedWidth(CardWidget::CARD_WIDTH);
}

void CardStackWidget::init(CardConnectorOverlay* overlay, const ArboView* view)
{
    mOverlay = overlay;
    mView = view;
    connect(view, &ArboView::resized, this, &CardStackWidget::updatePositions);
    for (int s = 0; s < SYMBOL_COUNT; ++s) {
        loadSvgFile(symbolFileName(Symbol(s)), mSvgs[size_t(s)]);
    }
}

QString CardStackWidget::symbolFileName(Symbol symbol)
{
    static const char* const NAMES[SYMBOL_COUNT] = {
        "trebleclef.svg", "bassclef.svg",    "doubleflat.svg", "flat.svg",
        "sharp.svg",      "doublesharp.svg", "note.svg"};
    return QString::fromLatin1(NAMES[symbol]);
}

bool CardStackWidget::loadSvgFile(const QString& name, QByteArray& bytes)
{
    const QString path = Paths::resourceDir() + QLatin1Char('/') + name;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qCritical("%s", qPrintable(QStringLiteral("Failed to load %1.").arg(path)));
        bytes.clear();
        return false;
    }
    bytes = file.readAll();
    return true;
}

const QByteArray& CardStackWidget::smuflSvg(const QString& name)
{
    auto it = mSmuflSvgs.find(name);
    if (it == mSmuflSvgs.end()) {
        it = mSmuflSvgs.insert(name, QByteArray());
        loadSvgFile(SmuflGlyphs::fileName(name), *it);
    }
    return *it;
}

const CardGlyphCache::Source* CardStackWidget::glyph(Symbol symbol)
{
    return mGlyphCache.source(symbolFileName(symbol), mSvgs[size_t(symbol)]);
}

const CardGlyphCache::Source* CardStackWidget::smuflGlyph(const QString& name)
{
    return mGlyphCache.source(name, smuflSvg(name));
}

void CardStackWidget::showCardForBall(const ArboBallWidget* ball)
{
    CardWidget* card = mCards.value(ball);
    if (card) {
        // A ball has one card: a second start (a note enabled while already
        // shown) brings it up to date.
        if (mOverlay) {
            mOverlay->removeConnector(ball);
        }
        card->refresh();
    } else if ((card = takeWaitingCard(ball->node()))) {
        card->setNode(ball->node());
    } else {
        // The card takes its natural size itself, when it is made: one size
        // for every card.
        card = new CardWidget(ball->node(), ball->options(), this);
    }
    mCards.insert(ball, card);
    connect(ball, &QObject::destroyed, this, &CardStackWidget::onBallDestroyed,
            Qt::UniqueConnection);
    updatePosition(ball, card);
    card->show();
    if (mOverlay) {
        mOverlay->addConnector(ball, card);
    }
    stackByPosition();
}

CardWidget* CardStackWidget::takeWaitingCard(const ArboBall* node)
{
    if (mWaiting.isEmpty()) {
        return nullptr;
    }
    const ArboRatio sounding = CardWidget::soundingRatioOf(node);
    for (int i = 0; i < mWaiting.size(); ++i) {
        if (mWaiting[i]->soundingRatio() == sounding) {
            return mWaiting.takeAt(i);
        }
    }
    return nullptr;
}

void CardStackWidget::stackByPosition()
{
    // Cards of neighbouring balls overlap. Piled with the lower ones in
    // front, each card keeps its top row (letter, octave, cents) in sight
    // above the next one; the mouse brings any card wholly to the front.
    //
    // The pile as it stands, back to front, and as it should be.
    const QObjectList& stacked = children();
    QVarLengthArray<CardWidget*, 64> pile;
    for (CardWidget* card : qAsConst(mCards)) {
        pile.append(card);
    }
    std::sort(pile.begin(), pile.end(), [&stacked](CardWidget* a, CardWidget* b) {
        return stacked.indexOf(a) < stacked.indexOf(b);
    });
    QVarLengthArray<CardWidget*, 64> wanted = pile;
    std::stable_sort(wanted.begin(), wanted.end(),
                     [](const CardWidget* a, const CardWidget* b) { return a->y() < b->y(); });
    const int n = wanted.size();
    QHash<const CardWidget*, int> rank;
    rank.reserve(n);
    for (int i = 0; i < n; ++i) {
        rank.insert(wanted[i], i);
        wanted[i]->setCardHirarchy(n - 1 - i);
    }
    // Restacking a card repaints it, so only the cards out of order move:
    // the longest run of cards already in the right order, back to front,
    // stays where it is (a longest increasing subsequence of the ranks).
    QVarLengthArray<int, 64> tails;    // the pile index ending each run length
    QVarLengthArray<int, 64> previous; // per pile index, the one before it
    previous.resize(pile.size());
    for (int i = 0; i < pile.size(); ++i) {
        const int r = rank.value(pile[i]);
        const auto at = std::lower_bound(tails.begin(), tails.end(), r, [&](int index, int value) {
            return rank.value(pile[index]) < value;
        });
        const int length = int(at - tails.begin());
        previous[i] = length > 0 ? tails[length - 1] : -1;
        if (at == tails.end()) {
            tails.append(i);
        } else {
            *at = i;
        }
    }
    QVarLengthArray<bool, 64> stays(n);
    std::fill(stays.begin(), stays.end(), false);
    for (int i = tails.isEmpty() ? -1 : tails.last(); i >= 0; i = previous[i]) {
        stays[rank.value(pile[i])] = true;
    }
    // From the front backwards, each card that moves goes right under the
    // one that belongs in front of it, which is in place by then.
    for (int i = n - 1; i >= 0; --i) {
        if (stays[i]) {
            continue;
        }
        if (i == n - 1) {
            wanted[i]->raise();
        } else {
            wanted[i]->stackUnder(wanted[i + 1]);
        }
    }
}

void CardStackWidget::hideCardForBall(const ArboBallWidget* ball)
{
    removeCard(ball, true);
}

void CardStackWidget::removeCard(const ArboBallWidget* ball, bool ballAlive)
{
    CardWidget* card = mCards.take(ball);
    if (!card) {
        return;
    }
    if (mOverlay) {
        if (ballAlive) {
            mOverlay->removeConnector(ball);
        } else {
            mOverlay->forgetConnector(ball);
        }
    }
    card->hide();
    // The node is the lattice's, alive even when the ball is not. Its note
    // sounds on while the ball stops only when the note is moving to another
    // ball; a card whose node was switched off (its prime hidden) goes.
    const ArboBall* node = card->node();
    const Arbo* lattice = node->lattice();
    if (node->isEnabled() && lattice && lattice->playingRatios().contains(card->soundingRatio())) {
        if (mWaiting.isEmpty()) {
            QMetaObject::invokeMethod(this, &CardStackWidget::dropWaitingCards,
                                      Qt::QueuedConnection);
        }
        mWaiting.append(card);
        return;
    }
    delete card;
}

void CardStackWidget::dropWaitingCards()
{
    qDeleteAll(mWaiting);
    mWaiting.clear();
}

void CardStackWidget::raiseCardForBall(const ArboBallWidget* ball)
{
    if (CardWidget* card = mCards.value(ball)) {
        raiseCard(card);
    }
}

void CardStackWidget::raiseCard(CardWidget* card)
{
    for (CardWidget* other : qAsConst(mCards)) {
        if (other != card && other->cardHirarchy() <= card->cardHirarchy()) {
            other->decreaseCardHirarchy();
        }
    }
    card->raise();
    card->setCardHirarchy(0);
}

void CardStackWidget::updateCards()
{
    // Whatever waited for a ball has not found one by now.
    dropWaitingCards();
    bool moved = false;
    for (auto it = mCards.constBegin(); it != mCards.constEnd(); ++it) {
        it.value()->refresh();
        moved |= updatePosition(it.key(), it.value());
    }
    if (moved && mOverlay) {
        mOverlay->update();
    }
}

bool CardStackWidget::updatePosition(const ArboBallWidget* ball, CardWidget* card)
{
    if (!mView) {
        return false;
    }
    const QPoint atBall = mView->mapFromScene(ball->scenePos());
    int y = std::max(atBall.y() - card->height() / 2, 0);
    const int lowest = mView->height() - mBottomMargin - card->height();
    if (y + card->height() > mView->height() - mBottomMargin) {
        y = lowest;
    }
    if (card->pos() == QPoint(0, y)) {
        return false;
    }
    card->move(0, y);
    return true;
}

void CardStackWidget::updatePositions()
{
    for (auto it = mCards.constBegin(); it != mCards.constEnd(); ++it) {
        updatePosition(it.key(), it.value());
    }
    if (mOverlay) {
        mOverlay->update();
    }
}

void CardStackWidget::onBallDestroyed(QObject* object)
{
    // The ball is half destroyed: it is only compared, never used.
    for (auto it = mCards.constBegin(); it != mCards.constEnd(); ++it) {
        if (static_cast<const QObject*>(it.key()) == object) {
            removeCard(it.key(), false);
            return;
        }
    }
}
