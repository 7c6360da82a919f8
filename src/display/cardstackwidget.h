#pragma once

#include <QByteArray>
#include <QHash>
#include <QWidget>

#include <array>

class ArboBallWidget;
class ArboView;
class CardConnectorOverlay;
class CardWidget;

// The column of note cards beside the lattice: one card per sounding ball,
// level with it, joined to it by a line that the overlay draws.
//
// The stack reads the music symbols once, at init, and hands each card the
// sources to draw (recoloured where the card wants). A ball is only a key
// here: a card is found, raised and removed by its ball, and a ball that is
// destroyed (the scene is rebuilt) takes its card with it.
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

    // A new card; then the whole pile is ordered by height, the lowest card
    // in front.
    void showCardForBall(const ArboBallWidget* ball);
    // A new card with the given rank; the other cards keep theirs.
    void showCardForBall(const ArboBallWidget* ball, int hierarchy);
    void hideCardForBall(const ArboBallWidget* ball);
    // Brings the ball's card to the front.
    void raiseCardForBall(const ArboBallWidget* ball);
    void raiseCard(CardWidget* card);
    // Rebuilds every card (after a change of base frequency, transposition or
    // readout mode), keeping their order front to back.
    void updateCards();

    CardWidget* cardForBall(const ArboBallWidget* ball) const { return mCards.value(ball); }
    const QHash<const ArboBallWidget*, CardWidget*>& cards() const { return mCards; }

    // How far cards keep from the bottom of the view.
    void setBottomMargin(int margin) { mBottomMargin = margin; }
    int bottomMargin() const { return mBottomMargin; }

    // Level with the ball, kept inside the view.
    void updatePosition(const ArboBallWidget* ball, CardWidget* card);

public slots:
    // Keeps every card level with its ball.
    void updatePositions();

private slots:
    void onBallDestroyed(QObject* ball);

private:
    void stackByPosition();

    QHash<const ArboBallWidget*, CardWidget*> mCards;
    CardConnectorOverlay* mOverlay = nullptr;
    const ArboView* mView = nullptr;
    int mBottomMargin = 0;
    std::array<QByteArray, SYMBOL_COUNT> mSvgs;
    // Only the Helmholtz-Ellis notation uses them, and a chord only a few of
    // the fifty: read on demand rather than all at start-up.
    QHash<QString, QByteArray> mSmuflSvgs;
};
