#pragma once

class QJsonValue;

// Numbers from JSON files that people write by hand, read without undefined
// behaviour: JSON numbers are doubles, and converting a double that does not
// fit into an int or a float is undefined in C++. Every reader of the
// program's files takes its numbers through these.
namespace JsonRead {

// A number truncated toward zero, saturating at the ends of int; false (and
// `out` untouched) for anything that is not a finite number.
bool saturatedInt(const QJsonValue& json, int* out);
// The same, clamped into low..high.
bool clampedInt(const QJsonValue& json, int low, int high, int* out);
// A finite number, saturating at the ends of the float range; false for
// anything else.
bool saturatedFloat(const QJsonValue& json, float* out);
// A finite number inside the float range; false for anything else
// (a number beyond it is refused rather than saturated).
bool exactFloat(const QJsonValue& json, float* out);

} // namespace JsonRead
