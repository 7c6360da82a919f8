#include "input/rfidmap.h"

#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "settings/jsonread.h"

#include <QDebug>
#include <QJsonObject>
#include <QJsonValue>

#include <algorithm>
#include <cmath>
#include <limits>

const QString RfidMap::FILE_NAME = QStringLiteral("rfid_map.json");

namespace {

const QString EVENT_KEY = QStringLiteral("event");
const QString VALUE_KEY = QStringLiteral("value");

// "event" as an int and "value" as a float, saturating rather than
// overflowing; anything but a number counts as 0.
int toEventType(const QJsonValue& json)
{
    int type = 0;
    JsonRead::saturatedInt(json, &type);
    return type;
}

float toEventValue(const QJsonValue& json)
{
    float value = 0.0f;
    JsonRead::saturatedFloat(json, &value);
    return value;
}

// The note toggle of the tag `rfid` for the path `text`; null, with a
// warning, when the path is no path of prime steps.
std::shared_ptr<const ArboEvent> noteEvent(const QString& rfid, const QString& text)
{
    const ArboPath path(text);
    if (!path.isValid() || !path.hasValidSteps()) {
        qWarning().noquote()
            << QStringLiteral("RFID %1 was assigned invalid path %2. Ignoring.").arg(rfid, text);
        return nullptr;
    }
    auto event = std::make_shared<const ArboNoteEvent>(path);
    qDebug().noquote() << QStringLiteral("RFID %1 mapped to: event %2, value %3")
                              .arg(rfid)
                              .arg(int(event->type()))
                              .arg(path.toString());
    return event;
}

// The plain event of the tag `rfid` that `entry` gives, by "event" and
// "value"; null, with a warning, when the type or the value is refused.
std::shared_ptr<const ArboEvent> plainEvent(const QString& rfid, const QJsonObject& entry)
{
    const int type = toEventType(entry.value(EVENT_KEY));
    // A note command without a path would sound the root, and the
    // program's own commands are not a tag's to send.
    if (const char* why = ArboEvent::bareRefusal(type)) {
        qWarning().noquote() << QStringLiteral("RFID %1 asks for event %2, which %3. "
                                               "Ignoring.")
                                    .arg(rfid)
                                    .arg(type)
                                    .arg(QLatin1String(why));
        return nullptr;
    }
    const float number = toEventValue(entry.value(VALUE_KEY));
    if (const char* why = ArboEvent::refusal(type, number)) {
        qWarning().noquote() << QStringLiteral(
                                    "RFID %1 asks for event %2 with the value %3, which %4. "
                                    "Ignoring.")
                                    .arg(rfid)
                                    .arg(type)
                                    .arg(double(number))
                                    .arg(QLatin1String(why));
        return nullptr;
    }
    auto event = std::make_shared<const ArboEvent>(static_cast<ArboEvent::Type>(type), number);
    qDebug().noquote() << QStringLiteral("RFID %1 mapped to: event %2, value %3")
                              .arg(rfid)
                              .arg(int(event->type()))
                              .arg(double(event->value()));
    return event;
}

} // namespace

RfidMap::RfidMap(QObject* parent) : SerializableRoot(parent)
{
    // The file is the user's: whatever the program made of it is never
    // written back over it.
    setSaveOnTerm(false);
}

RfidMap::~RfidMap() = default;

bool RfidMap::init()
{
    return SerializableRoot::init(FILE_NAME);
}

void RfidMap::initWithDefaults()
{
    mEvents.clear();
}

void RfidMap::read(const QJsonObject& json)
{
    mEvents.clear();
    for (auto it = json.constBegin(); it != json.constEnd(); ++it) {
        // Readers report tags in whatever case they like; lookup() lowers too.
        const QString rfid = it.key().toLower();
        // An entry must be an object. Read by the rules anyway, a slip such
        // as "tag": "/3/5" would become a toggle of the root note, which a
        // player would hear on stage as a wrong note; it is skipped instead.
        if (!it.value().isObject()) {
            qWarning().noquote() << QStringLiteral(
                                        "RFID %1 is not mapped to an object with \"event\" and "
                                        "\"value\". Ignoring.")
                                        .arg(rfid);
            continue;
        }
        const QJsonObject entry = it.value().toObject();
        const QJsonValue value = entry.value(VALUE_KEY);
        const QString text = value.toString();
        // A path makes a note toggle whatever "event" says.
        const bool isPath = value.isString() && text.startsWith(QLatin1Char('/'));
        std::shared_ptr<const ArboEvent> event =
            isPath ? noteEvent(rfid, text) : plainEvent(rfid, entry);
        if (event) {
            mEvents.insert(rfid, std::move(event));
        }
    }
}

void RfidMap::write(QJsonObject& json) const
{
    for (auto it = mEvents.constBegin(); it != mEvents.constEnd(); ++it) {
        const ArboEvent* event = it.value().get();
        QJsonObject entry;
        entry.insert(EVENT_KEY, int(event->type()));
        if (const auto* note = dynamic_cast<const ArboNoteEvent*>(event)) {
            entry.insert(VALUE_KEY, note->path().toString());
        } else {
            entry.insert(VALUE_KEY, double(event->value()));
        }
        json.insert(it.key(), entry);
    }
}

const ArboEvent* RfidMap::lookup(const QString& rfid) const
{
    const auto it = mEvents.constFind(rfid.toLower());
    return it == mEvents.constEnd() ? nullptr : it.value().get();
}
