#include "midi/midisettings.h"

#include "settings/jsonread.h"

#include <QJsonValue>

#include <algorithm>
#include <cmath>

const QString MidiSettings::METHOD_MPE = QStringLiteral("MPE");
const QString MidiSettings::METHOD_MTS = QStringLiteral("MTS");

namespace {

const QString ENABLED = QStringLiteral("enabled");
const QString PORT = QStringLiteral("port");
const QString METHOD = QStringLiteral("method");
const QString BEND_RANGE = QStringLiteral("bendRange");
const QString MEMBER_CHANNELS = QStringLiteral("memberChannels");
const QString BUILT_IN_SOUND = QStringLiteral("builtInSound");

void readClamped(const QJsonObject& json, const QString& key, int low, int high, int& field)
{
    JsonRead::clampedInt(json.value(key), low, high, &field);
}

} // namespace

MidiSettings::MidiSettings(QObject* parent) : SerializableRoot(parent) {}

bool MidiSettings::init()
{
    return SerializableRoot::init(QStringLiteral("midi.json"));
}

void MidiSettings::read(const QJsonObject& json)
{
    if (json.value(ENABLED).isBool()) {
        mEnabled = json.value(ENABLED).toBool();
    }
    if (json.value(PORT).isString()) {
        mPort = json.value(PORT).toString();
    }
    const QString method = json.value(METHOD).toString();
    if (method == METHOD_MPE || method == METHOD_MTS) {
        mMethod = method;
    }
    readClamped(json, BEND_RANGE, 1, 96, mBendRange);
    readClamped(json, MEMBER_CHANNELS, 1, 15, mMemberChannels);
    if (json.value(BUILT_IN_SOUND).isBool()) {
        mBuiltInSound = json.value(BUILT_IN_SOUND).toBool();
    }
}

void MidiSettings::write(QJsonObject& json) const
{
    json[ENABLED] = mEnabled;
    json[PORT] = mPort;
    json[METHOD] = mMethod;
    json[BEND_RANGE] = mBendRange;
    json[MEMBER_CHANNELS] = mMemberChannels;
    json[BUILT_IN_SOUND] = mBuiltInSound;
}

bool MidiSettings::operator==(const MidiSettings& other) const
{
    return mEnabled == other.mEnabled && mPort == other.mPort && mMethod == other.mMethod &&
           mBendRange == other.mBendRange && mMemberChannels == other.mMemberChannels &&
           mBuiltInSound == other.mBuiltInSound;
}

void MidiSettings::copyValues(const MidiSettings& other)
{
    mEnabled = other.mEnabled;
    mPort = other.mPort;
    mMethod = other.mMethod;
    mBendRange = other.mBendRange;
    mMemberChannels = other.mMemberChannels;
    mBuiltInSound = other.mBuiltInSound;
}
