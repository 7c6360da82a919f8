#include "display/cardlabel.h"

#include <QEvent>
#include <QPainter>
#include <QStyle>

CardLabel::CardLabel(const QString& objectName, Qt::Alignment alignment, QWidget* parent)
    : QLabel(parent)
{
    setObjectName(objectName);
    setTextFormat(Qt::PlainText);
    setAlignment(alignment);
    setAttribute(Qt::WA_TransparentForMouseEvents);
}

void CardLabel::setCardText(const QString& text)
{
    if (text == this->text()) {
        return;
    }
    setText(text);
    mStale = true;
    drawText();
}

void CardLabel::drawText()
{
    if (isHidden() || mPolishing) {
        mStale = true;
        return;
    }
    // The style sheet gives the label its font and colour when it is
    // polished; the font change that follows comes back here, and waits.
    mPolishing = true;
    ensurePolished();
    mPolishing = false;
    mStale = false;
    const QString shown = text();
    if (shown.isEmpty() || size().isEmpty()) {
        mPixmap = QPixmap();
        update();
        return;
    }
    const qreal ratio = devicePixelRatioF();
    mPixmap = QPixmap(size() * ratio);
    mPixmap.setDevicePixelRatio(ratio);
    mPixmap.fill(Qt::transparent);
    QPainter painter(&mPixmap);
    painter.setFont(font());
    // What QLabel's own paint does for a plain text without frame, margin
    // or indent.
    painter.setPen(QPen(palette().brush(foregroundRole()), 0));
    painter.drawText(rect(), int(QStyle::visualAlignment(layoutDirection(), alignment())), shown);
    update();
}

void CardLabel::paintEvent(QPaintEvent*)
{
    if (mPixmap.isNull()) {
        return;
    }
    if (mPixmap.devicePixelRatio() != devicePixelRatioF()) {
        // Moved to a screen of another pixel density: drawn anew, once.
        drawText();
    }
    QPainter painter(this);
    painter.drawPixmap(0, 0, mPixmap);
}

void CardLabel::resizeEvent(QResizeEvent* event)
{
    QLabel::resizeEvent(event);
    if (mPixmap.isNull() || mPixmap.size() / mPixmap.devicePixelRatio() != size()) {
        drawText();
    }
}

void CardLabel::showEvent(QShowEvent* event)
{
    QLabel::showEvent(event);
    if (mStale) {
        drawText();
    }
}

void CardLabel::changeEvent(QEvent* event)
{
    QLabel::changeEvent(event);
    switch (event->type()) {
    case QEvent::FontChange:
    case QEvent::PaletteChange:
    case QEvent::StyleChange:
    case QEvent::LayoutDirectionChange:
        mStale = true;
        drawText();
        break;
    default:
        break;
    }
}
