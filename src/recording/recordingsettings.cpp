#include "recording/recordingsettings.h"

#include "settings/jsonread.h"
#include "settings/paths.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QStandardPaths>

namespace {

const QString FORMAT = QStringLiteral("format");
const QString FOLDER = QStringLiteral("folder");
const QString AUDIO = QStringLiteral("audio");
const QString CONTROLLER = QStringLiteral("controller");

} // namespace

RecordingSettings::RecordingSettings(QObject* parent) : SerializableRoot(parent) {}

bool RecordingSettings::init()
{
    return SerializableRoot::init(QStringLiteral("recording.json"));
}

QString RecordingSettings::defaultFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::MusicLocation) + QLatin1Char('/') +
           QLatin1String(Paths::APP_NAME);
}

QString RecordingSettings::folder() const
{
    return mFolder.isEmpty() ? defaultFolder() : mFolder;
}

void RecordingSettings::read(const QJsonObject& json)
{
    AudioFileWriter::formatFromName(json.value(FORMAT).toString(), &mFormat);
    if (json.value(FOLDER).isString()) {
        mFolder = json.value(FOLDER).toString();
    }
    if (json.value(AUDIO).isBool()) {
        mAudio = json.value(AUDIO).toBool();
    }
    int controller = mController;
    if (JsonRead::saturatedInt(json.value(CONTROLLER), &controller) && controller >= -1 &&
        controller <= 127) {
        mController = controller;
    }
}

void RecordingSettings::write(QJsonObject& json) const
{
    json[FORMAT] = AudioFileWriter::formatName(mFormat);
    json[FOLDER] = mFolder;
    json[AUDIO] = mAudio;
    json[CONTROLLER] = mController;
}
