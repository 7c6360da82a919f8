#pragma once

#include "display/cardglyphcache.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QWidget>

#include <array>

class ArboBall;
class ArboBallWidget;
class ArboView;
class CardConnectorOverlay;
class CardWidget;

// The column of note cards beside the lattice: one card per sounding ball,
// level with it, joined to it by a line that the overlay draws.
//
// The stack reads the music symbols once, at init, and keeps them, with the
// pixmaps the cards draw of them, in one cache. A ball is only a key here: a
// card is found, raised and removed by its ball, and a ball that is
// destroyed (the scene is rebuilt) takes its card with it.
//
// Cards change incrementally: a note on or off makes, removes or moves only
// its own card; updateCards() rewrites the existing cards in place. When a
// ball stops while its note sounds on (a transposition or a rebuilt scene
// moves every sounding note to another ball, one after the other), its card
// waits, hidden, for the ball its note arrives at and is handed to it; a
// card that no ball takes is deleted when control returns to the event
// loop, or at the next updateCards().
//
// GUI thread only.
class CardStackWidget : public QWidget
{
    Q_OBJECT
public:
    // The symbols, in the order they are loaded.
    enum Symbol
    {
        TrebleClef,
        BassClef,
        DoubleFlat,
        Flat,
        Sharp,
        DoubleSharp,
        NoteHead
    };
    static constexpr int SYMBOL_COUNT = NoteHead + 1;

    explicit CardStackWidget(QWidget* parent = nullptr);

    // Stores the overlay and the view, follows the view's resizes and reads
    // the symbols' SVG files from the resource folder.
    void init(CardConnectorOverlay* overlay, const ArboView* view);

    // Reads the whole file `name` in the application's folder into `bytes`;
    // a file that cannot be read leaves `bytes` empty, logs "Failed to load
    // %1." critically and returns false.
    static bool loadSvgFile(const QString& name, QByteArray& bytes);
    static QString symbolFileName(Symbol symbol);
    const QByteArray& svg(Symbol symbol) const { return mSvgs[size_t(symbol)]; }
    // The SMuFL glyph `name` (SmuflGlyphs), read from the resource folder the
    // first time a card asks for it; empty (and logged once as above) when
    // the file cannot be read.
    const QByteArray& smuflSvg(const QString& name);
    // The same symbols as the cards draw them.
    CardGlyphCache* glyphCache() { return &mGlyphCache; }
    const CardGlyphCache::Source* glyph(Symbol symbol);
    const CardGlyphCache::Source* smuflGlyph(const QString& name);

    // The ball's card, level with it: a new one, the card that waits for
    // the ball's note, or the ball's own card brought up to date. Then the
    // pile is ordered by height, the lowest card in front; cards of the same
    // height keep their order. Only the cards out of order are moved.
    void showCardForBall(const ArboBallWidget* ball);
    void hideCardForBall(const ArboBallWidget* ball);
    // Brings the ball's card to the front.
    void raiseCardForBall(const ArboBallWidget* ball);
    void raiseCard(CardWidget* card);
    // Brings every card up to date in place (after a change of base
    // frequency, transposition, readout mode or notation), keeping their
    // widgets and their order front to back.
    void updateCards();

    CardWidget* cardForBall(const ArboBallWidget* ball) const { return mCards.value(ball); }
    const QHash<const ArboBallWidget*, CardWidget*>& cards() const { return mCards; }

    // How far cards keep from the bottom of the view.
    void setBottomMargin(int margin) { mBottomMargin = margin; }
    int bottomMargin() const { return mBottomMargin; }

    // Level with the ball, kept inside the view; whether the card moved.
    bool updatePosition(const ArboBallWidget* ball, CardWidget* card);

public slots:
    // Keeps every card level with its ball.
    void updatePositions();

private slots:
    void onBallDestroyed(QObject* ball);

private:
    void stackByPosition();
    // Takes the card away from `ball`; `ballAlive` is false while the ball
    // is being destroyed, when it may only be compared.
    void removeCard(const ArboBallWidget* ball, bool ballAlive);
    // The card waiting for the note `node` sounds now, taken from the
    // waiting ones; null when none is.
    CardWidget* takeWaitingCard(const ArboBall* node);
    void dropWaitingCards();

    QHash<const ArboBallWidget*, CardWidget*> mCards;
    QList<CardWidget*> mWaiting;
    CardConnectorOverlay* mOverlay = nullptr;
    const ArboView* mView = nullptr;
    int mBottomMargin = 0;
    std::array<QByteArray, SYMBOL_COUNT> mSvgs;
    // Only the Helmholtz-Ellis notation uses them, and a chord only a few of
    // the fifty: read on demand rather than all at start-up.
    QHash<QString, QByteArray> mSmuflSvgs;
    CardGlyphCache mGlyphCache;
};
