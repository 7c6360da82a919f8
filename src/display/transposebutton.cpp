#include "display/transposebutton.h"

#include "display/primetogglebutton.h"
#include "model/arbo.h"
#include "model/arbopath.h"
#include "sound/pdplayer.h"

#include <QLabel>
#include <QPainter>
#include <QPainterPath>

#include <cstdlib>

namespace {

constexpr int HOVER_LIGHTER = 116;
constexpr qreal BOX_RADIUS = 3.0;

} // namespace

TransposeButton::TransposeButton(int step, QLabel* label, const Arbo& lattice, PdPlayer* player,
                                 QWidget* parent)
    : QToolButton(parent), mStep(step), mLabel(label), mLattice(lattice), mPlayer(player),
      mEvent(ArboEvent::Transpose, float(step)),
      mStepRatio(ArboRatio::pathRatio(ArboPath(static_cast<signed char>(step))))
{
    // Repainted when the mouse comes and goes: the hover look is our own.
    setAttribute(Qt::WA_Hover);
    connect(this, &QToolButton::clicked, this, &TransposeButton::onTransposeClicked);
    connect(&mLattice, &Arbo::transposeOrBaseFrequencyChanged, this,
            &TransposeButton::onTransposeChanged);
}

void TransposeButton::onTransposeClicked()
{
    // Asked again here, not taken from the enabled state: until the first
    // change nothing has been asked.
    if (mLattice.canTransposeTo(mStepRatio)) {
        mPlayer->queueEventGui(&mEvent);
    }
}

void TransposeButton::onTransposeChanged()
{
    setEnabled(mLattice.canTransposeTo(mStepRatio));

    int sum = 0;
    for (int entry : mLattice.transposeSteps()) {
        if (entry == mStep || entry == -mStep) {
            sum += entry;
        }
    }
    mCount = sum / std::abs(mStep);

    if (mCount > 0 && mStep > 0) {
        mLabel->setText(QStringLiteral("%1%2").arg(QStringLiteral("+")).arg(mCount));
    } else if (mCount < 0 && mStep < 0) {
        mLabel->setText(QStringLiteral("%1").arg(mCount));
    } else {
        mLabel->setText(QString());
    }
    update();
}

void TransposeButton::paintEvent(QPaintEvent* /*event*/)
{
    if (!isEnabled()) {
        return;
    }
    QColor background = palette().color(QPalette::Window);
    QColor foreground = palette().color(QPalette::WindowText);
    QColor outline(QStringLiteral("black"));
    bool drawBox = false;
    if (isDown()) {
        std::swap(background, foreground);
        outline = QColor(QStringLiteral("transparent"));
        drawBox = true;
    } else {
        if ((mCount < 0 && mStep < 0) || (mCount > 0 && mStep > 0)) {
            foreground = PrimeToggleButton::baseColor(mLattice, std::abs(mStep));
        }
        if (underMouse()) {
            foreground = foreground.lighter(HOVER_LIGHTER);
            outline = QColor(QStringLiteral("transparent"));
            drawBox = true;
        }
    }

    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRect r = contentsRect();
    if (drawBox) {
        painter.setPen(QColor(QStringLiteral("transparent")));
        painter.setBrush(background);
        painter.drawRoundedRect(r, BOX_RADIUS, BOX_RADIUS, Qt::AbsoluteSize);
    }
    // The triangle's size follows the width alone, so every button of the
    // strip shows the same triangle whatever its height.
    const qreal w = r.width();
    const qreal h = r.height();
    const qreal t = w / 2;
    const qreal x0 = r.left() + (w - t) / 2;
    const qreal y0 = r.top() + (h - t) / 2;
    QPolygonF triangle;
    if (mStep < 1) {
        triangle << QPointF(x0 + t, y0) << QPointF(x0 + t, y0 + t) << QPointF(x0, y0 + t / 2);
    } else {
        triangle << QPointF(x0, y0) << QPointF(x0 + t, y0 + t / 2) << QPointF(x0, y0 + t);
    }
    painter.setPen(QPen(outline, 1));
    painter.setBrush(foreground);
    painter.drawPolygon(triangle);
}
