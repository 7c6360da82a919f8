#include "display/transposewidget.h"

#include "display/primetogglebutton.h"
#include "display/transposebutton.h"
#include "model/arbo.h"
#include "model/arboconstants.h"
#include "sound/pdplayer.h"

#include <QBoxLayout>
#include <QLabel>

namespace {

constexpr int OUTER_SPACING = 6;
constexpr int PRIME_SPACING = 1;
constexpr int RESET_SPACING = 2;

QBoxLayout* newBox(QBoxLayout::Direction direction, int spacing)
{
    auto* box = new QBoxLayout(direction);
    box->setSpacing(spacing);
    box->setContentsMargins(0, 0, 0, 0);
    return box;
}

} // namespace

TransposeWidget::TransposeWidget(QWidget* parent)
    : QWidget(parent), mResetEvent(ArboEvent::Transpose, 0.0f)
{
}

void TransposeWidget::init(Qt::Orientation orientation, const Arbo& lattice, PdPlayer* player)
{
    mOrientation = orientation;
    mLattice = &lattice;
    mPlayer = player;
    const bool horizontal = orientation == Qt::Horizontal;
    // A horizontal strip is a row of columns, a vertical one a column of rows.
    QBoxLayout* outer =
        newBox(horizontal ? QBoxLayout::LeftToRight : QBoxLayout::TopToBottom, OUTER_SPACING);
    setLayout(outer);
    const QBoxLayout::Direction inner =
        horizontal ? QBoxLayout::TopToBottom : QBoxLayout::LeftToRight;

    for (int prime : ArboConstants::PRIMES) {
        QBoxLayout* box = newBox(inner, PRIME_SPACING);
        if (prime == 1) {
            box->addWidget(new PrimeToggleButton(1, lattice, player, this), 0, Qt::AlignCenter);
        } else {
            auto* downLabel = new QLabel(this);
            downLabel->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
            auto* down = new TransposeButton(-prime, downLabel, lattice, player, this);
            auto* toggle = new PrimeToggleButton(prime, lattice, player, this);
            auto* upLabel = new QLabel(this);
            auto* up = new TransposeButton(prime, upLabel, lattice, player, this);
            if (horizontal) {
                // Each count label at the far end from its own button: kept
                // so, the column reads the same as before.
                box->addWidget(downLabel);
                box->addWidget(up);
                box->addWidget(toggle);
                box->addWidget(down);
                box->addWidget(upLabel);
            } else {
                box->addWidget(downLabel);
                box->addWidget(down);
                box->addWidget(toggle);
                box->addWidget(up);
                box->addWidget(upLabel);
            }
        }
        outer->addLayout(box);
    }

    QBoxLayout* resetBox = newBox(inner, RESET_SPACING);
    mResetButton = new PrimeToggleButton(1, lattice, player, this);
    mResetButton->setObjectName(QStringLiteral("resetButton"));
    mResetButton->setText(QStringLiteral("="));
    mResetButton->setToolTip(QStringLiteral("Reset transpose"));
    mResetButton->setEnabled(!lattice.transposeSteps().isEmpty());
    resetBox->addWidget(mResetButton, 0, Qt::AlignCenter);
    outer->addLayout(resetBox);

    connect(mResetButton, &QToolButton::clicked, this, &TransposeWidget::onResetClicked);
    connect(&lattice, &Arbo::transposeOrBaseFrequencyChanged, this,
            &TransposeWidget::onTransposeChanged);
}

void TransposeWidget::onResetClicked()
{
    mPlayer->queueEventGui(&mResetEvent);
}

void TransposeWidget::onTransposeChanged()
{
    mResetButton->setEnabled(!mLattice->transposeSteps().isEmpty());
}
