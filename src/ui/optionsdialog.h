#pragma once

#include "ui/instrumentparts.h"

#include <QDialog>
#include <QList>
#include <QPoint>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <memory>

class QCloseEvent;

namespace Ui {
class OptionsDialog;
}

// The options window: the tabs "Options" (audio device, calibration of A4,
// the note of the 1/1, the notation of the cards), "Update" (how often to look for a new version, and a
// button to look now) and "About", with a single Close button.
//
// Every control acts at once; there is no Apply or Cancel. Changes go
// straight into the options record (the application writes the file), to the
// audio output and, as commands, to the player (its GUI command ring), all
// handed in as InstrumentParts.
// The main window owns the dialog and makes a fresh one each time it is
// opened (toggle()); the position where it was closed is handed back through
// positionStored.
//
// GUI thread only.
class OptionsDialog : public QDialog
{
    Q_OBJECT
public:
    // The range of the calibration (the frequency of A4), Hz.
    static constexpr int MIN_CALIBRATION = 349;
    static constexpr int MAX_CALIBRATION = 499;
    // The frequency of A4 that the note frequencies are tuned to.
    static constexpr float REFERENCE_A4 = 440.0f;

    explicit OptionsDialog(const InstrumentParts& parts, QWidget* parent = nullptr);
    ~OptionsDialog() override;

    // The 137 names of the "1/1 Note" choice, "A 0" to "A 8" by semitone,
    // every black key twice (sharp first, then flat), and their equal-tempered
    // frequencies with A4 = 440 Hz, index for index.
    static const QStringList& noteNames();
    static const QList<float>& noteFrequencies();
    // calibration × (the frequency of `note`) ÷ 440. A note that is not among
    // the names counts as the first one.
    static float baseFrequencyFor(int calibration, const QString& note);

    // Refills the Options and About pages from the options and the audio
    // output, polishes the style again, repaints, and shows the dialog.
    void updateAll();
    void selectTab(int index);
    // Moves to the stored position; the second form stores `position` first.
    void rePosition();
    void rePosition(QPoint position);

    // What the main window's options button does: when `dialog` is shown,
    // its position goes into `position` and it closes; otherwise any old
    // dialog is deleted and a new one, parented to `parent`, is shown at
    // `position` (left where it opens when that is (0, 0), never stored).
    // Every later close of the new dialog also updates `position`, which
    // must therefore live as long as `parent` (a member of it).
    static void toggle(QPointer<OptionsDialog>& dialog, const InstrumentParts& parts,
                       QWidget* parent, QPoint& position);

signals:
    // The dialog closed at `position` (its top-left corner on the screen).
    void positionStored(QPoint position);
    // The options now ask for another notation: the cards must be made anew.
    void notationChanged();

public slots:
    // Opens the device at `index` of the list; when that fails, says so and
    // goes back to the device that played before.
    void onAudioDeviceMenuActivated(int index);
    void onCalibrationFreqEditValueChanged(int hz);
    void onOneOneNoteChanged(int index);
    // Sends `value` (Hz) to the player as the base frequency, without
    // touching the options.
    void onOneOneFreqEditValueChanged(double value);
    // 0 conventional, 1 Helmholtz-Ellis, as the choice lists them.
    void onNotationChanged(int index);
    void onUpdateCheckFrequencyActivated(int index);
    void onUpdateButtonClicked();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void fillOptionsPage();
    void fillAboutPage();
    void sendBaseFrequency(float frequency);

    std::unique_ptr<Ui::OptionsDialog> mUi;
    InstrumentParts mParts;
    QPoint mStoredPosition;
};
