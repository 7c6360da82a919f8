#pragma once

#include "model/arboratio.h"
#include "notation/hejispelling.h"
#include "notation/note.h"

#include <QPixmap>
#include <QVector>
#include <QWidget>

class ArboBall;
class CardGlyph;
class CardLabel;
class CardStackWidget;
class Settings;

// One note card: the sounding note of a node on a small staff (clef,
// accidental, note head, ledger lines), its letter and octave, the deviation
// in cents from equal temperament, the node's ratio and its frequency.
//
// When the options choose the Helmholtz-Ellis notation, the staff shows the
// exact pitch instead: the Pythagorean letter and accidental with the signs
// of the note's primes in front of the note head, each in its prime's
// colour, and the cents measured from the written note's equal-tempered
// pitch. A pitch those signs cannot write (further than three syntonic
// commas or a double sharp) keeps the conventional spelling.
//
// A card is made once for a sounding note and then changed in place: when
// the base frequency, the transposition, the readout mode or the notation
// changes, refresh() rewrites its text and symbols; when a transposition
// moves its note to another node, the stack hands it that node. Its parts
// (labels and symbols) keep their widgets; only the Helmholtz-Ellis signs
// come and go with the spelling. Everything it draws is prepared when its
// content or size changes (the panel with its staff as a pixmap, the text
// and symbols as pixmaps of their own), so a repaint only copies pixmaps.
//
// Staff positions count in line spacings from the top line downwards: 0 is
// the top line, 4 the bottom line, one diatonic step half a spacing, one
// octave 3.5 spacings; notes above the staff are negative.
//
// GUI thread only (it reads the lattice and the options).
class CardWidget : public QWidget
{
    Q_OBJECT
public:
    // `node` belongs to a lattice; `options` outlive the card.
    CardWidget(const ArboBall* node, const Settings& options, CardStackWidget* stack);

    // Shows `node` (which belongs to a lattice) from now on, refreshed.
    void setNode(const ArboBall* node);
    // Reads the node, its lattice and the options again and changes what
    // differs: texts, symbols, their places.
    void refresh();
    // The ratio the note sounded at when the card was last refreshed (the
    // transposition times the node's); 0/1 when it could not be formed.
    const ArboRatio& soundingRatio() const { return mSounding; }
    // The ratio `node` sounds at now, as above.
    static ArboRatio soundingRatioOf(const ArboBall* node);

    // Writes the node's display colour over every black fill and stroke of
    // an SVG document; anything else in it stays as it is. In an `absolute`
    // readout the root keeps the root's colour however far it is transposed.
    static void changeSvgColor(QByteArray* bytes, const ArboBall* node, bool absolute);
    // The note's staff position in the treble clef (E4 on the bottom line) or
    // the bass clef (G2 on the bottom line).
    static float getStaffLineForNote(bool treble, const Note& note);

    // Places the clef, accidental, note head and octave-shift mark for the
    // current line spacing, and works out the ledger lines.
    void updateCard();

    // 0 is the front card; every card put in front of this one adds 1.
    void setCardHirarchy(int hierarchy) { mCardHierarchy = hierarchy; }
    void decreaseCardHirarchy() { ++mCardHierarchy; }
    int cardHirarchy() const { return mCardHierarchy; }

    const ArboBall* node() const { return mNode; }
    // The note as the staff shows it (for the Helmholtz-Ellis notation, its
    // letter, accidental and octave), and the cents its label shows.
    const Note& note() const { return mNote; }
    float cents() const { return mCents; }
    // Whether the card writes the Helmholtz-Ellis signs, and their spelling.
    bool showsHeji() const { return mShowsHeji; }
    const HejiSpelling& heji() const { return mHeji; }
    float frequency() const { return mFrequency; }
    // Where the note head is drawn, after any octave shift.
    float staffPosition() const { return mStaffPosition; }
    float lineSpacing() const { return mLineSpacing; }
    bool isTreble() const { return mTreble; }
    // Octaves the note is drawn below (positive) or above (negative) its
    // pitch, to keep it near the staff.
    int octaveShift() const { return mOctaveShift; }
    // The note head's centre and the y of every ledger line, in card
    // coordinates, as drawn.
    QPointF noteHeadCentre() const;
    QList<int> ledgerLines() const;
    QList<int> staffLines() const;

    // The staff's share of the card: its lines run this far from the
    // contents' left edge.
    static constexpr int STAFF_WIDTH = 64;
    // The line spacing of a card at its natural size.
    static constexpr int LINE_SPACING = 7;
    // Every card is this wide; the stack is as wide as one card.
    static constexpr int CARD_WIDTH = 168;

protected:
    void enterEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    // Whether the options ask for absolute ratios (transposition included).
    bool absoluteReadout() const;
    // The node's display colour for its symbols (see changeSvgColor());
    // invalid when the node has no lattice, and the symbols keep theirs.
    static QColor symbolColor(const ArboBall* node, bool absolute);
    // Takes the note's staff position, moved by octaves (counted in
    // mOctaveShift) until the card can draw it.
    void placeNoteHead();
    // The letter, accidental and octave of mHeji on the staff, and the
    // cents from the sounding frequency as the conventional card measures
    // them.
    void takeHejiSpelling();
    // The texts of the labels for the current note.
    void setTexts();
    // Chooses the clef, the accidental (when there is one) and the note
    // head, the latter two in the node's colour; for the Helmholtz-Ellis
    // notation the signs instead of the accidental, one widget each.
    void setSymbols();
    void setHejiSigns();
    // Where the note head goes: NOTE_X, or further right when the signs in
    // front of it need the room.
    qreal noteX() const;
    // Places the labels of the text column: the same for every note.
    void placeText();
    void placeSymbol(CardGlyph* symbol, qreal originX, qreal baselineY, bool rightAligned);
    // The card's background as the style sheet draws it, with the staff
    // lines, for the current size.
    void drawPanel();

    const ArboBall* mNode;
    CardStackWidget* mStack;
    const Settings& mOptions;
    ArboRatio mSounding;
    Note mNote;
    float mFrequency = 0.0f;
    float mCents = 0.0f;
    HejiSpelling mHeji;
    bool mShowsHeji = false;

    CardLabel* mNoteLabel;
    CardLabel* mOctaveLabel;
    CardLabel* mCentsLabel;
    CardLabel* mRatioLabel;
    CardLabel* mFreqLabel;
    CardLabel* mOctaveShiftLabel;
    CardLabel* mEnharmonicLabel;
    CardGlyph* mClefSvg;
    CardGlyph* mAccidentalSvg;
    CardGlyph* mNoteSvg;
    QList<CardGlyph*> mHejiSvgs; // left to right

    bool mTreble = true;
    int mOctaveShift = 0;
    float mLineSpacing = LINE_SPACING;
    float mStaffPosition = 0.0f;
    int mCardHierarchy = 0;

    // What paintEvent() draws: the panel, and the ledger lines of the note.
    QPixmap mPanel;
    QVector<QLine> mLedgers;
};
