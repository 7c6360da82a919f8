#include "display/cardstackwidget.h"

#include "display/arboballwidget.h"
#include "display/arboview.h"
#include "display/cardconnectoroverlay.h"
#include "display/cardwidget.h"
#include "notation/smuflglyphs.h"
#include "settings/paths.h"

#include <QFile>

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

void CardStackWidget::showCardForBall(const ArboBallWidget* ball)
{
    showCardForBall(ball, 0);
    stackByPosition();
}

void CardStackWidget::stackByPosition()
{
    // Cards of neighbouring balls overlap. Piled with the lower ones in
    // front, each card keeps its top row (letter, octave, cents) in sight
    // above the next one; the mouse brings any card wholly to the front.
    QList<CardWidget*> pile = mCards.values();
    std::stable_sort(pile.begin(), pile.end(),
                     [](const CardWidget* a, const CardWidget* b) { return a->y() < b->y(); });
    for (int i = 0; i < pile.size(); ++i) {
        pile[i]->raise();
        pile[i]->setCardHirarchy(pile.size() - 1 - i);
    }
}

void CardStackWidget::showCardForBall(const ArboBallWidget* ball, int hierarchy)
{
    // A ball has one card: a second start (a note enabled while already
    // shown) replaces it rather than leaving an orphan behind.
    hideCardForBall(ball);
    // The card takes its natural size itself, when it is made: one size for
    // every card.
    auto* card = new CardWidget(ball->node(), ball->options(), this);
    updatePosition(ball, card);
    card->show();
    card->setCardHirarchy(hierarchy);
    if (mOverlay) {
        mOverlay->addConnector(ball, card);
    }
    mCards.insert(ball, card);
    connect(ball, &QObject::destroyed, this, &CardStackWidget::onBallDestroyed,
            Qt::UniqueConnection);
}

void CardStackWidget::hideCardForBall(const ArboBallWidget* ball)
{
    CardWidget* card = mCards.take(ball);
    if (!card) {
        return;
    }
    card->hide();
    if (mOverlay) {
        mOverlay->removeConnector(ball);
    }
    delete card;
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
    struct Entry
    {
        const ArboBallWidget* ball;
        int hierarchy;
    };
    std::vector<Entry> entries;
    entries.reserve(size_t(mCards.size()));
    for (auto it = mCards.constBegin(); it != mCards.constEnd(); ++it) {
        entries.push_back({it.key(), it.value()->cardHirarchy()});
    }
    // Back cards first: each new card is made on top of the ones before, so
    // the front card ends up in front again.
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.hierarchy > b.hierarchy; });
    // One repaint for the whole rebuild, not one request per card.
    setUpdatesEnabled(false);
    for (const Entry& entry : entries) {
        hideCardForBall(entry.ball);
        showCardForBall(entry.ball, entry.hierarchy);
    }
    setUpdatesEnabled(true);
}

void CardStackWidget::updatePosition(const ArboBallWidget* ball, CardWidget* card)
{
    if (!mView) {
        return;
    }
    const QPoint atBall = mView->mapFromScene(ball->scenePos());
    int y = std::max(atBall.y() - card->height() / 2, 0);
    const int lowest = mView->height() - mBottomMargin - card->height();
    if (y + card->height() > mView->height() - mBottomMargin) {
        y = lowest;
    }
    card->move(0, y);
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
            hideCardForBall(it.key());
            return;
        }
    }
}
