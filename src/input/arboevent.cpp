#include "input/arboevent.h"

ArboEvent::ArboEvent(Type type, float value) : mType(type), mValue(value) {}

// Out of line so the class's virtual table lives in exactly one object file.
ArboEvent::~ArboEvent() = default;
