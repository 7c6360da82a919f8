#include "input/inputbinding.h"

#include "settings/jsonread.h"

#include <QJsonValue>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

const QString EVENT_KEY = QStringLiteral("event");
const QString VALUE_KEY = QStringLiteral("value");
const QString MIN_KEY = QStringLiteral("min");
const QString MAX_KEY = QStringLiteral("max");

// A finite JSON number within the float range, or nothing.
bool toFloat(const QJsonValue& json, float* out)
{
    return JsonRead::exactFloat(json, out);
}

// The note at the path `text`, which must begin with "/" and have only
// prime steps.
InputBinding pathBinding(const QString& text, QString* error)
{
    const ArboPath path(text);
    if (!text.startsWith(QLatin1Char('/')) || !path.isValid() || !path.hasValidSteps()) {
        *error = QStringLiteral("has the invalid path %1").arg(text);
        return {};
    }
    return InputBinding(path);
}

// The controller's event of `type` over the range "min" to "max" of `entry`
// (0 to 1 by default).
InputBinding rangedBinding(const QJsonObject& entry, ArboEvent::Type type, QString* error)
{
    float min = 0.0f;
    float max = 1.0f;
    if ((entry.contains(MIN_KEY) && !toFloat(entry.value(MIN_KEY), &min)) ||
        (entry.contains(MAX_KEY) && !toFloat(entry.value(MAX_KEY), &max))) {
        *error = QStringLiteral("has a \"min\" or \"max\" that is not a number");
        return {};
    }
    // Every position scales to a value between the two ends, so both ends
    // being sane makes every value sane.
    for (const float end : {min, max}) {
        if (const char* why = ArboEvent::refusal(type, end)) {
            *error = QStringLiteral("asks for event %1 up to the value %2, which %3")
                         .arg(int(type))
                         .arg(double(end))
                         .arg(QLatin1String(why));
            return {};
        }
    }
    return InputBinding::ranged(type, min, max);
}

} // namespace

InputBinding::InputBinding(const ArboPath& path)
    : mKind(Note), mToggle(path, ArboEvent::NoteToggle), mStart(path, ArboEvent::NoteStart),
      mEnd(path, ArboEvent::NoteEnd)
{
}

InputBinding::InputBinding(ArboEvent::Type type, float value) : mKind(Fixed), mEvent(type, value)
{
}

InputBinding InputBinding::ranged(ArboEvent::Type type, float min, float max)
{
    InputBinding binding(type, 0.0f);
    binding.mKind = Ranged;
    binding.mMin = min;
    binding.mMax = max;
    return binding;
}

InputBinding InputBinding::fromJson(const QJsonValue& json, QString* error)
{
    if (!json.isObject()) {
        *error = QStringLiteral("is not an object with \"event\" and \"value\"");
        return {};
    }
    const QJsonObject entry = json.toObject();
    const QJsonValue value = entry.value(VALUE_KEY);
    if (value.isString()) {
        return pathBinding(value.toString(), error);
    }
    float type = 0.0f;
    if (!toFloat(entry.value(EVENT_KEY), &type) || type != std::floor(type) ||
        std::fabs(type) > 1e6f) {
        *error = QStringLiteral("has no known \"event\" number");
        return {};
    }
    if (const char* why = ArboEvent::bareRefusal(int(type))) {
        *error = QStringLiteral("asks for event %1, which %2").arg(int(type)).arg(QLatin1String(why));
        return {};
    }
    const auto eventType = static_cast<ArboEvent::Type>(int(type));
    float fixed = 0.0f;
    if (toFloat(value, &fixed)) {
        if (const char* why = ArboEvent::refusal(eventType, fixed)) {
            *error = QStringLiteral("asks for event %1 with the value %2, which %3")
                         .arg(int(type))
                         .arg(double(fixed))
                         .arg(QLatin1String(why));
            return {};
        }
        return InputBinding(eventType, fixed);
    }
    if (!value.isUndefined() && !value.isNull()) {
        *error = QStringLiteral("has a \"value\" that is neither a number nor a path");
        return {};
    }
    return rangedBinding(entry, eventType, error);
}

QJsonObject InputBinding::toJson() const
{
    QJsonObject entry;
    switch (mKind) {
    case Note:
        entry.insert(VALUE_KEY, path().toString());
        break;
    case Fixed:
        entry.insert(EVENT_KEY, int(mEvent.type()));
        entry.insert(VALUE_KEY, double(mEvent.value()));
        break;
    case Ranged:
        entry.insert(EVENT_KEY, int(mEvent.type()));
        entry.insert(MIN_KEY, double(mMin));
        entry.insert(MAX_KEY, double(mMax));
        break;
    case None:
        break;
    }
    return entry;
}

const ArboEvent* InputBinding::press(bool latch) const
{
    switch (mKind) {
    case Note:
        return latch ? &mToggle : &mStart;
    case Fixed:
        return &mEvent;
    case Ranged: // needs a position: see control()
        return nullptr;
    case None:
        break;
    }
    return nullptr;
}

const ArboEvent* InputBinding::release(bool latch) const
{
    return mKind == Note && !latch ? &mEnd : nullptr;
}

const ArboEvent* InputBinding::control(float position, bool latch, ArboEvent& scratch) const
{
    // NaN counts as the bottom: input from the network can be anything.
    const bool high = position >= 0.5f;
    switch (mKind) {
    case Note:
        return high ? press(latch) : release(latch);
    case Fixed:
        return high ? &mEvent : nullptr;
    case Ranged: {
        const float clamped = std::isnan(position) ? 0.0f : std::clamp(position, 0.0f, 1.0f);
        scratch = ArboEvent(mEvent.type(), mMin + (mMax - mMin) * clamped);
        return &scratch;
    }
    case None:
        break;
    }
    return nullptr;
}
