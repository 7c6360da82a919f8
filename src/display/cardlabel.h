#pragma once

#include <QLabel>
#include <QPixmap>

// One line of text on a note card (the letter, octave, cents, ratio,
// frequency and the small marks). A QLabel, whose text and object name say
// what the card reads, but it lays its text out and draws it into a pixmap
// only when the text, the font, the colours or the size change; a paint
// copies that pixmap. Plain text, one line, no frame.
//
// GUI thread only.
class CardLabel : public QLabel
{
    Q_OBJECT
public:
    CardLabel(const QString& objectName, Qt::Alignment alignment, QWidget* parent);

    // Changes the text, and the pixmap with it, when it differs.
    void setCardText(const QString& text);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    // Draws the text as QLabel would, into mPixmap; a hidden label waits
    // until it is shown.
    void drawText();

    QPixmap mPixmap;
    bool mStale = true;
    bool mPolishing = false;
};
