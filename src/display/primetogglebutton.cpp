#include "display/primetogglebutton.h"

#include "display/layoutconstants.h"
#include "model/arbo.h"
#include "sound/pdplayer.h"

namespace {

// Primes below this carry the lattice (1 the whole of it, 2 and 3 its axes).
constexpr int FIRST_SWITCHABLE_PRIME = 4;
constexpr int PRIME_19 = 19;
constexpr int PRIME_19_DARKER = 120;
constexpr int HOVER_ON_LIGHTER = 116;
constexpr int HOVER_OFF_LIGHTER = 140;

QString withColor(const char* rule, const QColor& colour)
{
    return QString::fromLatin1(rule).arg(colour.red()).arg(colour.green()).arg(colour.blue());
}

} // namespace

PrimeToggleButton::PrimeToggleButton(int prime, const Arbo& lattice, PdPlayer* player,
                                     QWidget* parent)
    : QToolButton(parent), mPrime(prime), mPlayer(player),
      mEvent(ArboEvent::PrimeToggle, float(prime))
{
    setText(QString::number(prime));
    if (prime >= FIRST_SWITCHABLE_PRIME) {
        setCheckable(true);
        setChecked(true);
    } else {
        setEnabled(false);
    }
    setStyleSheet(styleSheetFor(baseColor(lattice, prime)));
    connect(this, &QToolButton::clicked, this, &PrimeToggleButton::onPrimeToggled);
}

QColor PrimeToggleButton::baseColor(const Arbo& lattice, int prime)
{
    const QColor colour = lattice.lookupColor(prime);
    return prime == PRIME_19 ? colour.darker(PRIME_19_DARKER) : colour;
}

QString PrimeToggleButton::styleSheetFor(const QColor& base)
{
    const QColor dim = base.darker(PRIME_DISABLED_DIM_FACTOR);
    const QColor hoverOn = base.lighter(HOVER_ON_LIGHTER);
    const QColor hoverOff = dim.lighter(HOVER_OFF_LIGHTER);
    return withColor("PrimeToggleButton:checked { background-color: rgb(%1, %2, %3); }", base) +
           withColor("PrimeToggleButton { background-color: rgb(%1, %2, %3); }", dim) +
           withColor("PrimeToggleButton:checked:hover:!pressed { background-color: rgb(%1, %2, "
                     "%3); }",
                     hoverOn) +
           withColor("PrimeToggleButton:!checked:hover:!pressed { background-color: rgb(%1, %2, "
                     "%3); }",
                     hoverOff) +
           QStringLiteral("PrimeToggleButton:pressed, PrimeToggleButton:checked:pressed { "
                          "background-color: #c4c4bb; }") +
           withColor("PrimeToggleButton:disabled { background-color: rgb(%1, %2, %3); }", base);
}

void PrimeToggleButton::onPrimeToggled()
{
    if (mPrime >= FIRST_SWITCHABLE_PRIME) {
        mPlayer->queueEventGui(&mEvent);
    }
}
