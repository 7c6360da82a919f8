#pragma once

#include <QColor>
#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>

// The output level: a bar for the RMS, a line for the peak (held a moment,
// as meters do), on a scale from -60 dB to full scale, and a clip light that
// comes on when a sample reaches full scale and stays on until it is clicked.
//
// Fed from the player's levelMeasured() signal, which the engine reports
// through its result queue: the GUI thread never reads the audio itself. A
// meter that hears nothing falls to silence.
//
// Its colours come from the style sheet (qproperty-barColor and the others).
//
// GUI thread.
class LevelMeter : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(QColor barColor MEMBER mBarColor)
    Q_PROPERTY(QColor peakColor MEMBER mPeakColor)
    Q_PROPERTY(QColor troughColor MEMBER mTroughColor)
    Q_PROPERTY(QColor clipColor MEMBER mClipColor)
public:
    // The bottom of the scale, and how long a peak is held.
    static constexpr double FLOOR_DB = -60.0;
    static constexpr int PEAK_HOLD_MS = 1500;
    // With no level for this long the meter falls to silence.
    static constexpr int SILENCE_AFTER_MS = 300;

    explicit LevelMeter(QWidget* parent = nullptr);

    // Decibels of full scale of the level shown: the RMS, and the peak held.
    double rmsDb() const { return mRmsDb; }
    double peakDb() const { return mPeakDb; }
    bool isClipped() const { return mClipped; }
    // 20 log10 of `level`, FLOOR_DB at most as low.
    static double toDb(float level);

    QSize sizeHint() const override;

public slots:
    void setLevel(float peak, float rms, bool clipped);
    // Puts the clip light out.
    void resetClip();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;

private:
    void fallSilent();
    // The x coordinate of `db` on the bar.
    int xOf(double db, int width) const;

    double mRmsDb = FLOOR_DB;
    double mPeakDb = FLOOR_DB;
    bool mClipped = false;
    QElapsedTimer mPeakAge;
    QTimer mSilence;
    QColor mBarColor{0x6c, 0xb4, 0x6c};
    QColor mPeakColor{0xe6, 0xe6, 0xdc};
    QColor mTroughColor{0x1f, 0x20, 0x22};
    QColor mClipColor{0xd2, 0x32, 0x28};
};
