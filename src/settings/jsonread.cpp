#include "settings/jsonread.h"

#include <QJsonValue>

#include <algorithm>
#include <cmath>
#include <limits>

namespace JsonRead {

bool saturatedInt(const QJsonValue& json, int* out)
{
    return clampedInt(json, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), out);
}

bool clampedInt(const QJsonValue& json, int low, int high, int* out)
{
    const double number = json.isDouble() ? json.toDouble() : std::nan("");
    if (!std::isfinite(number)) {
        return false;
    }
    *out = int(std::clamp(std::trunc(number), double(low), double(high)));
    return true;
}

bool saturatedFloat(const QJsonValue& json, float* out)
{
    const double number = json.isDouble() ? json.toDouble() : std::nan("");
    if (!std::isfinite(number)) {
        return false;
    }
    constexpr double LIMIT = std::numeric_limits<float>::max();
    *out = float(std::clamp(number, -LIMIT, LIMIT));
    return true;
}

bool exactFloat(const QJsonValue& json, float* out)
{
    const double number = json.isDouble() ? json.toDouble() : std::nan("");
    if (!std::isfinite(number) || std::fabs(number) > double(std::numeric_limits<float>::max())) {
        return false;
    }
    *out = float(number);
    return true;
}

} // namespace JsonRead
