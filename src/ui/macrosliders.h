#pragma once

#include <QObject>
#include <QStringList>

class PdPlayer;
class QLabel;
class QSlider;
class QWidget;

// The eight macro sliders of the main window ("macroSlider1" to
// "macroSlider8", each with its label "macroLabel<n>"): a move sends the
// player the slider's position from 0 to 1, and the player's reports (a
// value, the names a new patch gives its macros) set the sliders without
// sending anything again.
//
// GUI thread only.
class MacroSliders : public QObject
{
    Q_OBJECT
public:
    static constexpr int COUNT = 8;

    // Finds the sliders and labels among `window`'s children; `player`
    // outlives the window.
    MacroSliders(QWidget* window, PdPlayer* player);

    // Sends macro `index` (0..7) the slider position `value`, normalised to
    // 0..1 by the sliders' range.
    void setMacro(int index, float value);

    // A slider's position as a number from 0 to 1, and back.
    static float normalised(const QSlider* slider, float value);
    static int sliderPosition(const QSlider* slider, float value);

public slots:
    void onMacroValueChanged(int macro, float value);
    void onMacroNamesReceived(const QStringList& names);

private slots:
    void onSliderValueChanged(int value);

private:
    // Slider and label `number`, counted from 1 as in their names.
    QSlider* slider(int number) const;
    QLabel* label(int number) const;

    QWidget* mWindow;
    PdPlayer* mPlayer;
};
