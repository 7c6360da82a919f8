#include "ui/macrosliders.h"

#include "model/arboevent.h"
#include "sound/pdplayer.h"

#include <QLabel>
#include <QSlider>
#include <QWidget>

MacroSliders::MacroSliders(QWidget* window, PdPlayer* player)
    : QObject(window), mWindow(window), mPlayer(player)
{
    for (int n = 1; n <= COUNT; ++n) {
        connect(slider(n), &QSlider::valueChanged, this, &MacroSliders::onSliderValueChanged);
    }
    connect(player, &PdPlayer::macroValueChanged, this, &MacroSliders::onMacroValueChanged,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::macroNamesReceived, this, &MacroSliders::onMacroNamesReceived,
            Qt::QueuedConnection);
}

QSlider* MacroSliders::slider(int number) const
{
    return mWindow->findChild<QSlider*>(QStringLiteral("macroSlider%1").arg(number));
}

QLabel* MacroSliders::label(int number) const
{
    return mWindow->findChild<QLabel*>(QStringLiteral("macroLabel%1").arg(number));
}

float MacroSliders::normalised(const QSlider* slider, float value)
{
    return (value - float(slider->minimum())) / float(slider->maximum() - slider->minimum());
}

int MacroSliders::sliderPosition(const QSlider* slider, float value)
{
    return qRound(value * float(slider->maximum() - slider->minimum()) + float(slider->minimum()));
}

void MacroSliders::setMacro(int index, float value)
{
    // All sliders share the first one's range. The ring copies the event.
    const ArboEvent event(static_cast<ArboEvent::Type>(ArboEvent::Macro1 + index),
                          normalised(slider(1), value));
    mPlayer->queueEventGui(&event);
}

void MacroSliders::onSliderValueChanged(int value)
{
    const QString name = sender()->objectName();
    const int index = name.at(name.size() - 1).digitValue() - 1;
    setMacro(index, float(value));
}

void MacroSliders::onMacroValueChanged(int macro, float value)
{
    // The player reports macro n for its command Macro<n>, counting from 1
    // like the slider names: "macroSlider<n>" is the slider that sent it (or
    // the one a wand's macro n belongs to).
    QSlider* target = slider(macro);
    if (!target) {
        return;
    }
    const QSignalBlocker blocker(target);
    target->setValue(sliderPosition(target, value));
}

void MacroSliders::onMacroNamesReceived(const QStringList& names)
{
    for (int n = 1; n <= COUNT; ++n) {
        QLabel* text = label(n);
        const bool used = n <= names.size();
        if (used) {
            const QString& name = names.at(n - 1);
            text->setText(name.left(1).toUpper() + name.mid(1).toLower());
        } else {
            text->setText(QStringLiteral("Unused"));
        }
        text->setEnabled(used);
        slider(n)->setEnabled(used);
    }
}
