#include "ui/levelmeter.h"

#include <QMouseEvent>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace {

constexpr int CLIP_LIGHT = 10; // the light's side, pixels
constexpr int GAP = 4;

} // namespace

LevelMeter::LevelMeter(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("levelMeter"));
    setToolTip(tr("Output level: RMS and peak. The light shows a sample at full scale; "
                  "click it to put it out."));
    mSilence.setSingleShot(true);
    mSilence.setInterval(SILENCE_AFTER_MS);
    connect(&mSilence, &QTimer::timeout, this, &LevelMeter::fallSilent);
    mPeakAge.start();
}

QSize LevelMeter::sizeHint() const
{
    return QSize(140, 14);
}

double LevelMeter::toDb(float level)
{
    return level > 0.0f ? std::max(FLOOR_DB, 20.0 * std::log10(double(level))) : FLOOR_DB;
}

void LevelMeter::setLevel(float peak, float rms, bool clipped)
{
    mRmsDb = toDb(rms);
    const double peakDb = toDb(peak);
    if (peakDb >= mPeakDb || mPeakAge.elapsed() > PEAK_HOLD_MS) {
        mPeakDb = peakDb;
        mPeakAge.restart();
    }
    mClipped = mClipped || clipped;
    mSilence.start();
    update();
}

void LevelMeter::resetClip()
{
    mClipped = false;
    update();
}

void LevelMeter::fallSilent()
{
    mRmsDb = FLOOR_DB;
    mPeakDb = FLOOR_DB;
    update();
}

int LevelMeter::xOf(double db, int width) const
{
    return int(std::lround((db - FLOOR_DB) / -FLOOR_DB * width));
}

void LevelMeter::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    const int barWidth = std::max(0, width() - CLIP_LIGHT - GAP);
    const int light = (height() - CLIP_LIGHT) / 2;
    painter.fillRect(0, 0, barWidth, height(), mTroughColor);
    painter.fillRect(0, 0, xOf(mRmsDb, barWidth), height(), mBarColor);
    if (mPeakDb > FLOOR_DB) {
        painter.fillRect(std::max(0, xOf(mPeakDb, barWidth) - 2), 0, 2, height(), mPeakColor);
    }
    painter.fillRect(barWidth + GAP, light, CLIP_LIGHT, CLIP_LIGHT,
                     mClipped ? mClipColor : mTroughColor);
}

void LevelMeter::mousePressEvent(QMouseEvent* event)
{
    resetClip();
    event->accept();
}
