#include "display/cardwidget.h"

#include "display/cardglyph.h"
#include "display/cardlabel.h"
#include "display/cardstackwidget.h"
#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboratio.h"
#include "notation/cardnote.h"
#include "settings/settings.h"

#include <QEvent>
#include <QPainter>
#include <QStyleOption>

#include <algorithm>
#include <cmath>

namespace {

// Where the symbols sit on the staff, in pixels from the contents' left
// edge: the clef's origin, the note head's origin, and the gap between an
// accidental and its note head.
constexpr qreal CLEF_X = 2;
constexpr qreal NOTE_X = 40;
constexpr qreal ACCIDENTAL_GAP = 2;
// Between two Helmholtz-Ellis signs, and between the first and the clef, in
// line spacings.
constexpr qreal SIGN_GAP = 0.15;
// The text column right of the staff, in pixels: the letter's box (the
// octave follows it), and the heights of the three rows (letter, octave and
// cents; ratio; frequency). Placed by hand rather than by a layout: every
// card has the same size, and asking each label for its size hint costs a
// good share of rebuilding all cards at once.
constexpr int TEXT_GAP = 8;
constexpr int LETTER_WIDTH = 16;
constexpr int OCTAVE_WIDTH = 14;
constexpr int FIRST_ROW_HEIGHT = 21;
// The text starts this far above the staff's field: the first row is what
// shows of a card half covered by the next one.
constexpr int TEXT_RAISE = 2;
constexpr int ROW_HEIGHT = 16;
constexpr int ENHARMONIC_WIDTH = 24;
constexpr int OCTAVE_MARK_SIZE = 14;
// Ledger lines reach this far past the note head on each side.
constexpr int LEDGER_OVERHANG = 4;
// The staff is drawn in a field eight spacings high: two above the top line,
// two below the bottom line, where the ledger lines go.
constexpr int FIELD_SPACINGS = 8;
constexpr int FIELD_TOP_TO_STAFF = 2;
// A note head further from the staff than this (in line spacings, past the
// top line or past the bottom line) is drawn an octave nearer, with an octave
// mark: more ledger lines would leave the card.
constexpr float HIGHEST_DRAWN = -1.5f;
constexpr float LOWEST_DRAWN = 5.5f;
constexpr float OCTAVE_SPACINGS = 3.5f;
// The lines the clefs sit on: G on the second line from the bottom, F on the
// second from the top.
constexpr float TREBLE_CLEF_LINE = 3.0f;
constexpr float BASS_CLEF_LINE = 1.0f;
// Staff and ledger lines, one pixel wide.
const QPen& staffPen()
{
    static const QPen PEN(QColor(170, 170, 170), 1, Qt::SolidLine);
    return PEN;
}

CardStackWidget::Symbol accidentalSymbol(int accidental)
{
    switch (accidental) {
    case -2:
        return CardStackWidget::DoubleFlat;
    case -1:
        return CardStackWidget::Flat;
    case 1:
        return CardStackWidget::Sharp;
    default:
        return CardStackWidget::DoubleSharp;
    }
}

} // namespace

CardWidget::CardWidget(const ArboBall* node, const Settings& options, CardStackWidget* stack)
    : QWidget(stack), mNode(node), mStack(stack), mOptions(options)
{
    // One size for every card, so that a column of them lines up and each
    // staff has the same spacing.
    setContentsMargins(4, 4, 6, 4);
    setFixedSize(CARD_WIDTH, FIELD_SPACINGS * LINE_SPACING + 8);
    const auto label = [this](const char* name, Qt::Alignment alignment) {
        return new CardLabel(QString::fromLatin1(name), alignment, this);
    };
    mNoteLabel = label("noteLabel", Qt::AlignRight | Qt::AlignBottom);
    mOctaveLabel = label("octaveLabel", Qt::AlignLeft | Qt::AlignBottom);
    mCentsLabel = label("centsLabel", Qt::AlignRight | Qt::AlignBottom);
    mRatioLabel = label("ratioLabel", Qt::AlignLeft | Qt::AlignVCenter);
    mFreqLabel = label("freqLabel", Qt::AlignLeft | Qt::AlignVCenter);
    mEnharmonicLabel = label("enharmonicLabel", Qt::AlignRight | Qt::AlignVCenter);
    // Not in the text column: it sits beside the note head (updateCard).
    mOctaveShiftLabel = label("octaveShiftLabel", Qt::AlignCenter);
    placeText();
    mEnharmonicLabel->hide(); // until a note needs it
    mEnharmonicLabel->setCardText(QStringLiteral("enh"));

    CardGlyphCache* glyphs = stack->glyphCache();
    mClefSvg = new CardGlyph(QStringLiteral("clefSvg"), glyphs, this);
    mAccidentalSvg = new CardGlyph(QStringLiteral("accidentalSvg"), glyphs, this);
    mNoteSvg = new CardGlyph(QStringLiteral("noteSvg"), glyphs, this);
    // The style sheet's fonts and colours first: the panel and the texts are
    // drawn with them.
    ensurePolished();
    drawPanel();
    refresh();
}

void CardWidget::setNode(const ArboBall* node)
{
    mNode = node;
    refresh();
}

ArboRatio CardWidget::soundingRatioOf(const ArboBall* node)
{
    // The way the lattice keys its nodes by the ratios that sound.
    ArboRatio ratio = node->lattice()->transposition();
    return ratio.multiplyIfExact(node->ratio()) ? ratio : ArboRatio();
}

void CardWidget::refresh()
{
    mSounding = soundingRatioOf(mNode);
    mFrequency = CardNote::justFrequency(mNode);
    mHeji = HejiSpelling();
    mShowsHeji = false;
    if (mOptions.mNotation == Settings::Notation::HelmholtzEllis) {
        mHeji = CardNote::hejiForBall(mNode, mOptions);
        mShowsHeji = mHeji.isWritable();
    }
    if (mShowsHeji) {
        takeHejiSpelling();
    } else {
        mNote = CardNote::noteForBall(mNode, mOptions, mFrequency);
        mCents = mNote.cents();
    }
    mTreble = mNote.octave() >= 4;
    placeNoteHead();
    setTexts();
    setSymbols();
    updateCard();
}

void CardWidget::setTexts()
{
    const int cents = int(std::lround(mCents));
    mNoteLabel->setCardText(QString(mNote.noteLetter()));
    mOctaveLabel->setCardText(QString::number(mNote.octave()));
    mCentsLabel->setCardText(cents > 0 ? QStringLiteral("+%1").arg(cents) : QString::number(cents));
    const ArboRatio ratio(mNode->path(), mNode->lattice()->transposeSteps());
    mRatioLabel->setCardText(absoluteReadout() ? ratio.toStringAbs() : ratio.toString());
    mFreqLabel->setCardText(QString::number(double(mFrequency), 'f', 3) + QStringLiteral(" Hz"));
    mEnharmonicLabel->setVisible(mNote.isEnharmonic());
    mOctaveShiftLabel->setCardText(
        mOctaveShift == 0 ? QString() : QString::number(std::abs(mOctaveShift) * 7 + 1));
    mOctaveShiftLabel->setVisible(mOctaveShift != 0);
}

void CardWidget::takeHejiSpelling()
{
    static const char* const ACCIDENTALS[5] = {"bb", "b", "", "#", "##"};
    mNote = Note(QStringLiteral("%1%2%3")
                     .arg(mHeji.letterText().toLower())
                     .arg(mHeji.octave())
                     .arg(QLatin1String(ACCIDENTALS[mHeji.accidental() + 2])),
                 0);
    // Semitones above C0 against the calibration of A4 (semitone 57), as
    // the conventional card measures its cents: the card shows where the
    // pitch actually sounds, whatever base frequency the player was given.
    const double semitone =
        12.0 * std::log2(double(mFrequency) / double(mOptions.mCalibrationFrequency)) + 57.0;
    mCents = float((semitone - double(mNote.toSemitonePitch())) * 100.0);
}

void CardWidget::placeNoteHead()
{
    mOctaveShift = 0;
    mStaffPosition = getStaffLineForNote(mTreble, mNote);
    while (mStaffPosition < HIGHEST_DRAWN) {
        mStaffPosition += OCTAVE_SPACINGS;
        ++mOctaveShift;
    }
    while (mStaffPosition > LOWEST_DRAWN) {
        mStaffPosition -= OCTAVE_SPACINGS;
        --mOctaveShift;
    }
}

void CardWidget::setSymbols()
{
    mClefSvg->setGlyph(
        mStack->glyph(mTreble ? CardStackWidget::TrebleClef : CardStackWidget::BassClef), QColor());
    const QColor color = symbolColor(mNode, absoluteReadout());
    mAccidentalSvg->setGlyph(!mShowsHeji && mNote.accidental() != 0
                                 ? mStack->glyph(accidentalSymbol(mNote.accidental()))
                                 : nullptr,
                             color);
    mNoteSvg->setGlyph(mStack->glyph(CardStackWidget::NoteHead), color);
    setHejiSigns();
}

void CardWidget::setHejiSigns()
{
    const QVector<HejiSpelling::Sign> signs =
        mShowsHeji ? mHeji.signs() : QVector<HejiSpelling::Sign>();
    // The signs a spelling no longer has go at once: whatever looks at the
    // card's symbols sees only the ones it draws.
    while (mHejiSvgs.size() > signs.size()) {
        delete mHejiSvgs.takeLast();
    }
    for (int i = 0; i < signs.size(); ++i) {
        const HejiSpelling::Sign& sign = signs[i];
        if (i == mHejiSvgs.size()) {
            mHejiSvgs.append(
                new CardGlyph(QStringLiteral("hejiSignSvg"), mStack->glyphCache(), this));
        }
        CardGlyph* svg = mHejiSvgs[i];
        svg->setProperty("glyph", sign.glyph);
        svg->setGlyph(mStack->smuflGlyph(sign.glyph), mNode->lattice()->lookupColor(sign.prime));
    }
}

bool CardWidget::absoluteReadout() const
{
    return mOptions.mAbsRelView != 0;
}

QColor CardWidget::symbolColor(const ArboBall* node, bool absolute)
{
    const Arbo* lattice = node->lattice();
    if (!lattice) {
        return QColor();
    }
    QList<int> steps = lattice->transposeSteps();
    steps += node->path().toList();
    int p = 1;
    for (int step : qAsConst(steps)) {
        p = std::max(p, std::abs(step));
    }
    // In the absolute readouts the root keeps the root's colour however far
    // the lattice is transposed.
    if (absolute && ArboRatio::pathRatio(node->path()) == ArboRatio(1, 1)) {
        p = 1;
    }
    return lattice->lookupColor(p);
}

void CardWidget::changeSvgColor(QByteArray* bytes, const ArboBall* node, bool absolute)
{
    const QColor color = symbolColor(node, absolute);
    if (bytes && color.isValid()) {
        CardGlyphCache::recolor(bytes, color);
    }
}

float CardWidget::getStaffLineForNote(bool treble, const Note& note)
{
    // Counted from the top line: in the treble clef F5 is 0 and E4 is 4, in
    // the bass clef A3 is 0 and G2 is 4.
    return ((treble ? 2 : 0) + 3 - note.octave()) * OCTAVE_SPACINGS + (treble ? 1.5f : 2.5f) -
           0.5f * note.note();
}

void CardWidget::placeSymbol(CardGlyph* symbol, qreal originX, qreal baselineY, bool rightAligned)
{
    // The symbols are drawn in staff spaces with the glyph's baseline at
    // y = 0, so the view box says where and how large each one goes.
    const QRectF box = symbol->viewBox();
    const qreal s = mLineSpacing;
    const qreal width = box.width() * s;
    const qreal left = rightAligned ? originX - width : originX + box.left() * s;
    symbol->place(QRectF(left, baselineY + box.top() * s, width, box.height() * s).toRect());
}

qreal CardWidget::noteX() const
{
    if (mHejiSvgs.isEmpty()) {
        return NOTE_X;
    }
    const qreal s = mLineSpacing;
    const auto widthOf = [s](const CardGlyph* svg) { return svg->viewBox().width() * s; };
    qreal signs = 0.0;
    for (const CardGlyph* svg : mHejiSvgs) {
        signs += widthOf(svg) + SIGN_GAP * s;
    }
    // Between the clef and the note head; when the signs need more, the
    // head moves right as far as the staff allows, and beyond that the signs
    // reach over the clef rather than off the card.
    const qreal clefRight =
        mClefSvg->isHidden() ? CLEF_X : mClefSvg->geometry().right() + 1 - contentsRect().left();
    const qreal room = NOTE_X - ACCIDENTAL_GAP - clefRight;
    const qreal furthest = STAFF_WIDTH - widthOf(mNoteSvg) - LEDGER_OVERHANG;
    return std::clamp(NOTE_X + signs - room, NOTE_X, std::max(NOTE_X, furthest));
}

QPointF CardWidget::noteHeadCentre() const
{
    const QRect field = contentsRect();
    const qreal y = field.top() + (mStaffPosition + FIELD_TOP_TO_STAFF) * mLineSpacing;
    const QRect head = mNoteSvg->geometry();
    return QPointF(!mNoteSvg->isHidden() ? head.center().x() : field.left() + NOTE_X, y);
}

void CardWidget::updateCard()
{
    const qreal left = contentsRect().left();
    const qreal s = mLineSpacing;
    const qreal staffTop = contentsRect().top();
    const qreal clefLine = mTreble ? TREBLE_CLEF_LINE : BASS_CLEF_LINE;
    placeSymbol(mClefSvg, left + CLEF_X, staffTop + (clefLine + FIELD_TOP_TO_STAFF) * s, false);
    const qreal noteY = staffTop + (mStaffPosition + FIELD_TOP_TO_STAFF) * s;
    const qreal headX = left + noteX();
    placeSymbol(mNoteSvg, headX, noteY, false);
    placeSymbol(mAccidentalSvg, headX - ACCIDENTAL_GAP, noteY, true);
    // The signs from the note head leftwards, the accidental nearest.
    qreal signRight = headX - ACCIDENTAL_GAP;
    for (auto it = mHejiSvgs.crbegin(); it != mHejiSvgs.crend(); ++it) {
        placeSymbol(*it, signRight, noteY, true);
        if (!(*it)->isHidden()) {
            signRight = (*it)->geometry().left() - SIGN_GAP * s;
        }
    }

    if (mOctaveShift != 0) {
        // Beside the note head, above it when the note sounds higher than
        // drawn, below when lower.
        const qreal x = headX + 1.5 * s;
        const qreal centreY = mOctaveShift > 0 ? noteY - 1.2 * s : noteY + 1.2 * s;
        const int y = std::clamp(int(std::lround(centreY - OCTAVE_MARK_SIZE / 2.0)), 0,
                                 std::max(0, height() - OCTAVE_MARK_SIZE));
        mOctaveShiftLabel->setGeometry(int(std::lround(x)), y, OCTAVE_MARK_SIZE, OCTAVE_MARK_SIZE);
    }

    // The ledger lines reach past the note head on both sides.
    const QList<int> ledgers = ledgerLines();
    const QRect head = mNoteSvg->geometry();
    const int from = head.isValid() ? head.left() - LEDGER_OVERHANG : int(left + NOTE_X);
    const int to = head.isValid() ? head.right() + 1 + LEDGER_OVERHANG : from;
    QVector<QLine> lines;
    lines.reserve(ledgers.size());
    for (int y : ledgers) {
        lines.append(QLine(from, y, to, y));
    }
    if (lines != mLedgers) {
        mLedgers = lines;
        update();
    }
}

void CardWidget::placeText()
{
    const QRect field = contentsRect();
    const int textLeft = field.left() + STAFF_WIDTH + TEXT_GAP;
    const int textWidth = field.right() + 1 - textLeft;
    const int top = field.top() - TEXT_RAISE;
    mNoteLabel->setGeometry(textLeft, top, LETTER_WIDTH, FIRST_ROW_HEIGHT);
    mOctaveLabel->setGeometry(textLeft + LETTER_WIDTH + 1, top, OCTAVE_WIDTH, FIRST_ROW_HEIGHT - 2);
    const int centsLeft = textLeft + LETTER_WIDTH + 1 + OCTAVE_WIDTH;
    mCentsLabel->setGeometry(centsLeft, top, textLeft + textWidth - centsLeft,
                             FIRST_ROW_HEIGHT - 2);
    const int ratioTop = top + FIRST_ROW_HEIGHT;
    mRatioLabel->setGeometry(textLeft, ratioTop, textWidth - ENHARMONIC_WIDTH, ROW_HEIGHT);
    mEnharmonicLabel->setGeometry(textLeft + textWidth - ENHARMONIC_WIDTH, ratioTop,
                                  ENHARMONIC_WIDTH, ROW_HEIGHT);
    mFreqLabel->setGeometry(textLeft, ratioTop + ROW_HEIGHT, textWidth, ROW_HEIGHT);
}

QList<int> CardWidget::staffLines() const
{
    QList<int> lines;
    const qreal top = contentsRect().top();
    for (int k = FIELD_TOP_TO_STAFF; k <= FIELD_TOP_TO_STAFF + 4; ++k) {
        lines.append(int(std::lround(top + k * mLineSpacing)));
    }
    return lines;
}

QList<int> CardWidget::ledgerLines() const
{
    QList<int> lines;
    const qreal top = contentsRect().top();
    auto lineAt = [&](int position) {
        lines.append(int(std::lround(top + (position + FIELD_TOP_TO_STAFF) * mLineSpacing)));
    };
    if (mStaffPosition < -0.5f) {
        for (int q = -1; q >= mStaffPosition; --q) {
            lineAt(q);
        }
    } else if (mStaffPosition > 4.5f) {
        for (int q = 5; q <= mStaffPosition; ++q) {
            lineAt(q);
        }
    }
    return lines;
}

void CardWidget::drawPanel()
{
    const qreal ratio = devicePixelRatioF();
    mPanel = QPixmap(size() * ratio);
    mPanel.setDevicePixelRatio(ratio);
    mPanel.fill(Qt::transparent);
    QPainter painter(&mPanel);
    // The panel as the style sheet draws it. Every card has the same rule
    // (it has no states such as :hover), so the panel changes only with the
    // size and the style.
    QStyleOption option;
    option.initFrom(this);
    style()->drawPrimitive(QStyle::PE_Widget, &option, &painter, this);
    painter.setPen(staffPen());
    const int left = contentsRect().left();
    for (int y : staffLines()) {
        painter.drawLine(left, y, left + STAFF_WIDTH, y);
    }
    update();
}

void CardWidget::enterEvent(QEvent* event)
{
    QWidget::enterEvent(event);
    mStack->raiseCard(this);
}

void CardWidget::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    const float spacing = contentsRect().height() / float(FIELD_SPACINGS);
    if (spacing != mLineSpacing || mPanel.size() / mPanel.devicePixelRatio() != size()) {
        mLineSpacing = spacing;
        placeText();
        updateCard();
        drawPanel();
    }
}

void CardWidget::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    // Not before the constructor drew the panel for the first time.
    if ((event->type() == QEvent::StyleChange || event->type() == QEvent::PaletteChange) &&
        !mPanel.isNull()) {
        drawPanel();
    }
}

void CardWidget::paintEvent(QPaintEvent*)
{
    if (mPanel.devicePixelRatio() != devicePixelRatioF()) {
        // Moved to a screen of another pixel density: drawn anew, once.
        drawPanel();
    }
    QPainter painter(this);
    painter.drawPixmap(0, 0, mPanel);
    if (!mLedgers.isEmpty()) {
        painter.setPen(staffPen());
        painter.drawLines(mLedgers.constData(), mLedgers.size());
    }
}
