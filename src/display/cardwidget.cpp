#include "display/cardwidget.h"

#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboratio.h"
#include "notation/cardnote.h"
#include "display/cardstackwidget.h"
#include "settings/settings.h"

#include <QLabel>
#include <QPainter>
#include <QStyleOption>
#include <QSvgRenderer>
#include <QSvgWidget>

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
const QColor STAFF_GREY(170, 170, 170);

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
    : QWidget(stack), mNode(node), mStack(stack), mOptions(options), mFrequency(CardNote::justFrequency(node))
{
    if (options.mNotation == Settings::Notation::HelmholtzEllis) {
        mHeji = CardNote::hejiForBall(node, options);
        mShowsHeji = mHeji.isWritable();
    }
    if (mShowsHeji) {
        takeHejiSpelling();
    } else {
        mNote = CardNote::noteForBall(node, options, mFrequency);
        mCents = mNote.cents();
    }
    mTreble = mNote.octave() >= 4;
    placeNoteHead();

    // One size for every card, so that a column of them lines up and each
    // staff has the same spacing.
    setContentsMargins(4, 4, 6, 4);
    setFixedSize(CARD_WIDTH, FIELD_SPACINGS * LINE_SPACING + 8);
    const int cents = int(std::lround(mCents));
    mNoteLabel = addLabel(QStringLiteral("noteLabel"), QString(mNote.noteLetter()));
    mOctaveLabel = addLabel(QStringLiteral("octaveLabel"), QString::number(mNote.octave()));
    mCentsLabel = addLabel(QStringLiteral("centsLabel"),
                           cents > 0 ? QStringLiteral("+%1").arg(cents) : QString::number(cents));
    const ArboRatio ratio(node->path(), node->lattice()->transposeSteps());
    mRatioLabel = addLabel(QStringLiteral("ratioLabel"),
                           absoluteReadout() ? ratio.toStringAbs() : ratio.toString());
    mFreqLabel = addLabel(QStringLiteral("freqLabel"),
                          QString::number(double(mFrequency), 'f', 3) + QStringLiteral(" Hz"));
    mEnharmonicLabel = addLabel(QStringLiteral("enharmonicLabel"), QStringLiteral("enh"));
    mEnharmonicLabel->setVisible(mNote.isEnharmonic());
    mOctaveShiftLabel =
        addLabel(QStringLiteral("octaveShiftLabel"),
                 mOctaveShift == 0 ? QString() : QString::number(std::abs(mOctaveShift) * 7 + 1));
    // Not in the text column: it sits beside the note head (updateCard).
    mOctaveShiftLabel->setVisible(mOctaveShift != 0);
    mNoteLabel->setAlignment(Qt::AlignRight | Qt::AlignBottom);
    mOctaveLabel->setAlignment(Qt::AlignLeft | Qt::AlignBottom);
    mCentsLabel->setAlignment(Qt::AlignRight | Qt::AlignBottom);
    mRatioLabel->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    mEnharmonicLabel->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    mFreqLabel->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    mOctaveShiftLabel->setAlignment(Qt::AlignCenter);

    addSymbols();
    updateCard();
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

void CardWidget::addSymbols()
{
    const CardStackWidget::Symbol clef =
        mTreble ? CardStackWidget::TrebleClef : CardStackWidget::BassClef;
    mClefSvg = new QSvgWidget(this);
    mClefSvg->setObjectName(QStringLiteral("clefSvg"));
    mClefSvg->load(mStack->svg(clef));

    mAccidentalSvg = new QSvgWidget(this);
    mAccidentalSvg->setObjectName(QStringLiteral("accidentalSvg"));
    if (!mShowsHeji && mNote.accidental() != 0) {
        QByteArray accidental = mStack->svg(accidentalSymbol(mNote.accidental()));
        changeSvgColor(&accidental, mNode, absoluteReadout());
        mAccidentalSvg->load(accidental);
    }

    QByteArray head = mStack->svg(CardStackWidget::NoteHead);
    changeSvgColor(&head, mNode, absoluteReadout());
    mNoteSvg = new QSvgWidget(this);
    mNoteSvg->setObjectName(QStringLiteral("noteSvg"));
    mNoteSvg->load(head);

    for (QSvgWidget* symbol : {mClefSvg, mAccidentalSvg, mNoteSvg}) {
        // Clicks and hovers belong to the card.
        symbol->setAttribute(Qt::WA_TransparentForMouseEvents);
    }
    if (mShowsHeji) {
        addHejiSigns();
    }
}

void CardWidget::addHejiSigns()
{
    for (const HejiSpelling::Sign& sign : mHeji.signs()) {
        QByteArray bytes = mStack->smuflSvg(sign.glyph);
        recolorSvg(&bytes, mNode->lattice()->lookupColor(sign.prime));
        auto* svg = new QSvgWidget(this);
        svg->setObjectName(QStringLiteral("hejiSignSvg"));
        svg->setProperty("glyph", sign.glyph);
        svg->setAttribute(Qt::WA_TransparentForMouseEvents);
        svg->load(bytes);
        mHejiSvgs.append(svg);
    }
}

QLabel* CardWidget::addLabel(const QString& objectName, const QString& text)
{
    auto* label = new QLabel(text, this);
    label->setObjectName(objectName);
    label->setAttribute(Qt::WA_TransparentForMouseEvents);
    return label;
}

bool CardWidget::absoluteReadout() const
{
    return mOptions.mAbsRelView != 0;
}

void CardWidget::changeSvgColor(QByteArray* bytes, const ArboBall* node, bool absolute)
{
    const Arbo* lattice = node->lattice();
    if (!lattice || !bytes) {
        return;
    }
    QList<int> steps = lattice->transposeSteps();
    steps += node->path().toList();
    int p = 1;
    for (int step : qAsConst(steps)) {
        p = std::max(p, std::abs(step));
    }
    // In the absolute readouts the root keeps the root's colour however far
    // the lattice is transposed.
    if (absolute &&
        ArboRatio::pathRatio(node->path()) == ArboRatio(1, 1)) {
        p = 1;
    }
    recolorSvg(bytes, lattice->lookupColor(p));
}

void CardWidget::recolorSvg(QByteArray* bytes, const QColor& color)
{
    const QByteArray hex = QStringLiteral("#%1%2%3")
                               .arg(color.red(), 2, 16, QLatin1Char('0'))
                               .arg(color.green(), 2, 16, QLatin1Char('0'))
                               .arg(color.blue(), 2, 16, QLatin1Char('0'))
                               .toLatin1();
    bytes->replace(QByteArrayLiteral("fill:#000000"), QByteArrayLiteral("fill:") + hex);
    bytes->replace(QByteArrayLiteral("stroke:#000000"), QByteArrayLiteral("stroke:") + hex);
}

float CardWidget::getStaffLineForNote(bool treble, const Note& note)
{
    // Counted from the top line: in the treble clef F5 is 0 and E4 is 4, in
    // the bass clef A3 is 0 and G2 is 4.
    return ((treble ? 2 : 0) + 3 - note.octave()) * OCTAVE_SPACINGS + (treble ? 1.5f : 2.5f) -
           0.5f * note.note();
}

void CardWidget::placeSymbol(QSvgWidget* symbol, qreal originX, qreal baselineY, bool rightAligned)
{
    // The symbols are drawn in staff spaces with the glyph's baseline at
    // y = 0, so the view box says where and how large each one goes.
    const QRectF box = symbol->renderer()->isValid() ? symbol->renderer()->viewBoxF() : QRectF();
    if (box.isEmpty()) {
        symbol->hide();
        return;
    }
    const qreal s = mLineSpacing;
    const qreal width = box.width() * s;
    const qreal left = rightAligned ? originX - width : originX + box.left() * s;
    symbol->setGeometry(QRectF(left, baselineY + box.top() * s, width, box.height() * s).toRect());
    symbol->show();
}

qreal CardWidget::noteX() const
{
    if (mHejiSvgs.isEmpty()) {
        return NOTE_X;
    }
    const qreal s = mLineSpacing;
    const auto widthOf = [s](const QSvgWidget* svg) {
        return svg->renderer()->isValid() ? svg->renderer()->viewBoxF().width() * s : 0.0;
    };
    qreal signs = 0.0;
    for (const QSvgWidget* svg : mHejiSvgs) {
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

void CardWidget::drawLines(QPainter& painter) const
{
    painter.setPen(QPen(STAFF_GREY, 1, Qt::SolidLine));
    const int left = contentsRect().left();
    for (int y : staffLines()) {
        painter.drawLine(left, y, left + STAFF_WIDTH, y);
    }
    const QList<int> ledgers = ledgerLines();
    if (ledgers.isEmpty()) {
        return;
    }
    const QRect head = mNoteSvg->geometry();
    const int from = head.isValid() ? head.left() - LEDGER_OVERHANG : left + int(NOTE_X);
    const int to = head.isValid() ? head.right() + 1 + LEDGER_OVERHANG : from;
    for (int y : ledgers) {
        painter.drawLine(from, y, to, y);
    }
}

void CardWidget::enterEvent(QEvent* event)
{
    QWidget::enterEvent(event);
    mStack->raiseCard(this);
}

void CardWidget::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    mLineSpacing = contentsRect().height() / float(FIELD_SPACINGS);
    updateCard();
}

void CardWidget::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    // The panel as the style sheet draws it.
    QStyleOption option;
    option.initFrom(this);
    style()->drawPrimitive(QStyle::PE_Widget, &option, &painter, this);
    drawLines(painter);
}
