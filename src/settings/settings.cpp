#include "settings/settings.h"

#include "settings/jsonread.h"

#include <QDebug>
#include <QJsonValue>
#include <QStringList>

#include <cmath>
#include <limits>

namespace {

const QString AUDIO_DEVICE = QStringLiteral("audioDevice");
const QString FRAMES_PER_BUFFER = QStringLiteral("framesPerBuffer");
const QString BASE_FREQUENCY = QStringLiteral("baseFrequency");
const QString CALIBRATION_FREQUENCY = QStringLiteral("calibrationFrequency");
const QString BASE_NOTE = QStringLiteral("baseNote");
const QString MASTER_VOLUME = QStringLiteral("masterVolume");
const QString MONOPHONIC = QStringLiteral("monophonic");
const QString DEFAULT_PATCH = QStringLiteral("defaultPatch");
const QString UDP_PORT = QStringLiteral("udpPort");
const QString CIRCLES_VIEW = QStringLiteral("circlesView");
const QString ABS_REL_VIEW = QStringLiteral("absRelView");
const QString NOTATION = QStringLiteral("notation");
const QString NOTATION_CONVENTIONAL = QStringLiteral("conventional");
const QString NOTATION_HELMHOLTZ_ELLIS = QStringLiteral("helmholtz-ellis");
const QString UPDATE_CHECK_INTERVAL = QStringLiteral("updateCheckInterval");
const QString T_SYS_LAST_UPDATE_CHECK = QStringLiteral("tSysLastUpdateCheck");
const QString WINDOW_SIZE = QStringLiteral("windowSize");
const QString WINDOW_POS = QStringLiteral("windowPos");
const QString WINDOW_MAXIMIZED = QStringLiteral("windowMaximized");

// Numbers through the one careful reader: truncated ints and floats that
// saturate instead of overflowing.
void readInt(const QJsonObject& json, const QString& key, int& field)
{
    JsonRead::saturatedInt(json.value(key), &field);
}

void readFloat(const QJsonObject& json, const QString& key, float& field)
{
    JsonRead::saturatedFloat(json.value(key), &field);
}

void readBool(const QJsonObject& json, const QString& key, bool& field)
{
    const QJsonValue value = json.value(key);
    if (value.isBool()) {
        field = value.toBool();
    }
}

void readString(const QJsonObject& json, const QString& key, QString& field)
{
    const QJsonValue value = json.value(key);
    if (value.isString()) {
        field = value.toString();
    }
}

// The "%1,%2" form of sizes and positions. Fewer than two parts leave the
// pair as it was; a part that is not a decimal integer counts as 0.
bool readPair(const QJsonObject& json, const QString& key, int& first, int& second)
{
    const QStringList parts = json.value(key).toString().split(QLatin1Char(','));
    if (parts.size() < 2) {
        return false;
    }
    first = parts.at(0).toInt();
    second = parts.at(1).toInt();
    return true;
}

// Floats are written with the fewest digits that read back as the same float,
// so a hand-edited 0.8 stays 0.8 in the file rather than 0.800000011920929.
double jsonFloat(float value)
{
    for (int precision = 1; precision < 9; ++precision) {
        const double candidate = QString::number(double(value), 'g', precision).toDouble();
        if (float(candidate) == value) {
            return candidate;
        }
    }
    return double(value);
}

QString pairText(int first, int second)
{
    return QStringLiteral("%1,%2").arg(first).arg(second);
}

// A float option in the warnings, with every digit it has.
QString numberText(float value)
{
    return QString::number(double(value), 'g', 9);
}

// Says that the option `key` had the unusable `value` and now has `instead`,
// and adds it to the `replaced` keys.
void replaceValue(QStringList& replaced, const QString& key, const QString& value,
                  const QString& instead)
{
    qWarning().noquote() << QStringLiteral("Option %1 has the unusable value %2; using %3 instead.")
                                .arg(key, value, instead);
    replaced << key;
}

} // namespace

const QString Settings::FILE_NAME = QStringLiteral("options.json");

Settings::Settings(QObject* parent) : SerializableRoot(parent) {}

bool Settings::init()
{
    return SerializableRoot::init(FILE_NAME);
}

void Settings::read(const QJsonObject& json)
{
    readInt(json, AUDIO_DEVICE, mAudioDevice);
    readInt(json, FRAMES_PER_BUFFER, mFramesPerBuffer);
    readFloat(json, BASE_FREQUENCY, mBaseFrequency);
    readInt(json, CALIBRATION_FREQUENCY, mCalibrationFrequency);
    readString(json, BASE_NOTE, mBaseNote);
    readFloat(json, MASTER_VOLUME, mMasterVolume);
    readBool(json, MONOPHONIC, mMonophonic);
    readString(json, DEFAULT_PATCH, mDefaultPatch);
    readInt(json, UDP_PORT, mUdpPort);
    readBool(json, CIRCLES_VIEW, mCirclesView);
    readInt(json, ABS_REL_VIEW, mAbsRelView);
    const QString notation = json.value(NOTATION).toString();
    if (notation == NOTATION_HELMHOLTZ_ELLIS) {
        mNotation = Notation::HelmholtzEllis;
    } else if (notation == NOTATION_CONVENTIONAL) {
        mNotation = Notation::Conventional;
    }
    readInt(json, UPDATE_CHECK_INTERVAL, mUpdateCheckInterval);
    readString(json, T_SYS_LAST_UPDATE_CHECK, mTSysLastUpdateCheck);

    int width = 0;
    int height = 0;
    if (readPair(json, WINDOW_SIZE, width, height)) {
        mWindowSize = QSize(width, height);
    }
    int x = 0;
    int y = 0;
    if (readPair(json, WINDOW_POS, x, y)) {
        mWindowPos = QPoint(x, y);
    }
    readBool(json, WINDOW_MAXIMIZED, mWindowMaximized);
}

void Settings::write(QJsonObject& json) const
{
    json.insert(AUDIO_DEVICE, mAudioDevice);
    json.insert(FRAMES_PER_BUFFER, mFramesPerBuffer);
    json.insert(BASE_FREQUENCY, jsonFloat(mBaseFrequency));
    json.insert(CALIBRATION_FREQUENCY, mCalibrationFrequency);
    json.insert(BASE_NOTE, mBaseNote);
    json.insert(MASTER_VOLUME, jsonFloat(mMasterVolume));
    json.insert(MONOPHONIC, mMonophonic);
    json.insert(DEFAULT_PATCH, mDefaultPatch);
    json.insert(UDP_PORT, mUdpPort);
    json.insert(CIRCLES_VIEW, mCirclesView);
    json.insert(ABS_REL_VIEW, mAbsRelView);
    json.insert(NOTATION, mNotation == Notation::HelmholtzEllis ? NOTATION_HELMHOLTZ_ELLIS
                                                               : NOTATION_CONVENTIONAL);
    json.insert(UPDATE_CHECK_INTERVAL, mUpdateCheckInterval);
    json.insert(T_SYS_LAST_UPDATE_CHECK, mTSysLastUpdateCheck);
    json.insert(WINDOW_SIZE, pairText(mWindowSize.width(), mWindowSize.height()));
    json.insert(WINDOW_POS, pairText(mWindowPos.x(), mWindowPos.y()));
    json.insert(WINDOW_MAXIMIZED, mWindowMaximized);
}

QStringList Settings::replaceUnusableValues(const QList<QRect>& screens)
{
    QStringList replaced;
    replaceUnusableSoundValues(replaced);
    if (!screens.isEmpty()) {
        replaceUnusableWindowGeometry(screens, replaced);
    }
    return replaced;
}

void Settings::replaceUnusableSoundValues(QStringList& replaced)
{
    const Settings defaults;
    // Comparisons written so that NaN fails them.
    if (!(std::isfinite(mBaseFrequency) && mBaseFrequency >= FREQUENCY_MIN &&
          mBaseFrequency <= FREQUENCY_MAX)) {
        replaceValue(replaced, BASE_FREQUENCY, numberText(mBaseFrequency),
                     numberText(defaults.mBaseFrequency));
        mBaseFrequency = defaults.mBaseFrequency;
    }
    if (!(std::isfinite(mMasterVolume) && mMasterVolume >= VOLUME_MIN &&
          mMasterVolume <= VOLUME_MAX)) {
        replaceValue(replaced, MASTER_VOLUME, numberText(mMasterVolume),
                     numberText(defaults.mMasterVolume));
        mMasterVolume = defaults.mMasterVolume;
    }
    if (mFramesPerBuffer < FRAMES_MIN || mFramesPerBuffer > FRAMES_MAX) {
        replaceValue(replaced, FRAMES_PER_BUFFER, QString::number(mFramesPerBuffer),
                     QString::number(defaults.mFramesPerBuffer));
        mFramesPerBuffer = defaults.mFramesPerBuffer;
    }
    // A voice patch is a file of the resource folder's "patches", named
    // without any folder: "../../etc/passwd" must not be copied in as a voice.
    // An empty name is left to the window, which falls back to "Sine.pd".
    if (mDefaultPatch.contains(QLatin1Char('/')) || mDefaultPatch.contains(QLatin1Char('\\')) ||
        mDefaultPatch == QLatin1String(".") || mDefaultPatch == QLatin1String("..")) {
        replaceValue(replaced, DEFAULT_PATCH, mDefaultPatch, defaults.mDefaultPatch);
        mDefaultPatch = defaults.mDefaultPatch;
    }
}

void Settings::replaceUnusableWindowGeometry(const QList<QRect>& screens, QStringList& replaced)
{
    const QSize unset(-1, -1);
    if (mWindowSize != unset) {
        bool fits = false;
        for (const QRect& screen : screens) {
            fits = fits || (mWindowSize.width() > 0 && mWindowSize.height() > 0 &&
                            mWindowSize.width() <= screen.width() &&
                            mWindowSize.height() <= screen.height());
        }
        if (!fits) {
            replaceValue(replaced, WINDOW_SIZE, pairText(mWindowSize.width(), mWindowSize.height()),
                         pairText(unset.width(), unset.height()));
            mWindowSize = unset;
        }
    }
    if (mWindowPos != QPoint(-1, -1)) {
        // The corner where the title bar starts must be on a screen, or the
        // window could not even be dragged back.
        const QRect corner(mWindowPos, QSize(100, 30));
        bool onScreen = false;
        for (const QRect& screen : screens) {
            onScreen = onScreen || screen.intersects(corner);
        }
        if (!onScreen) {
            replaceValue(replaced, WINDOW_POS, pairText(mWindowPos.x(), mWindowPos.y()),
                         pairText(unset.width(), unset.height()));
            mWindowPos = QPoint(-1, -1);
        }
    }
}

void Settings::onAudioDeviceChanged(int device)
{
    if (device != mAudioDevice) {
        mAudioDevice = device;
    }
}

void Settings::onFramesPerBufferChanged(int frames)
{
    if (frames != mFramesPerBuffer) {
        mFramesPerBuffer = frames;
    }
}

void Settings::onBaseFrequencyChanged(float frequency)
{
    if (frequency != mBaseFrequency) {
        mBaseFrequency = frequency;
    }
}

void Settings::onCalibrationFrequencyChanged(int frequency)
{
    if (frequency != mCalibrationFrequency) {
        mCalibrationFrequency = frequency;
    }
}

void Settings::onBaseNoteChanged(QString note)
{
    if (note != mBaseNote) {
        mBaseNote = note;
    }
}

void Settings::onMasterVolumeChanged(float volume)
{
    if (volume != mMasterVolume) {
        mMasterVolume = volume;
    }
}

void Settings::onMonophonicChanged(bool monophonic)
{
    if (monophonic != mMonophonic) {
        mMonophonic = monophonic;
    }
}
