#include "osc/oscreceiver.h"

#include "input/inputbinding.h"
#include "osc/oscinput.h"
#include "settings/debuglog.h"
#include "settings/paths.h"
#include "sound/pdplayer.h"

#include <QDebug>
#include <QFile>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

// Text from the network is quoted in the log up to this many characters.
constexpr int MAX_QUOTED = 120;

const char* const TOGGLE_ADDRESS = "/arbo/toggle";
const char* const EVENT_ADDRESS = "/arbo/event";
const char* const TAG_ADDRESS = "/arbo/tag";
const char* const NOTE_ADDRESS = "/arbo/note";
const char* const SCENE_PREFIX = "/arbo/scene/";
const char* const RECORD_ADDRESS = "/arbo/record";

// Network text for the log: cut short, and control characters written as
// \xNN, so that a sender cannot put line breaks or terminal controls into
// the log.
QString quoted(const QString& text)
{
    QString out;
    for (const QChar c : text.left(MAX_QUOTED)) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f) {
            out += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        } else {
            out += c;
        }
    }
    return text.size() > MAX_QUOTED ? out + QStringLiteral("...") : out;
}

// The number an argument holds: a 32- or 64-bit integer, a float or a double,
// and, with `booleans`, true and false as 1 and 0. False for anything else
// and for numbers that are not finite.
bool numberArg(char type, const lo_arg* arg, bool booleans, double* out)
{
    switch (type) {
    case LO_INT32:
        *out = arg->i;
        break;
    case LO_INT64:
        *out = double(arg->h);
        break;
    case LO_FLOAT:
        *out = arg->f;
        break;
    case LO_DOUBLE:
        *out = arg->d;
        break;
    case LO_TRUE: // no data: `arg` is not read
    case LO_FALSE:
        if (!booleans) {
            return false;
        }
        *out = type == LO_TRUE ? 1.0 : 0.0;
        break;
    default:
        return false;
    }
    return std::isfinite(*out);
}

// The text of a string or symbol argument; null for anything else. liblo
// has checked that it ends within the packet.
const char* textArg(char type, const lo_arg* arg)
{
    return type == LO_STRING || type == LO_SYMBOL ? &arg->s : nullptr;
}

} // namespace

void OscReceiver::loadTags()
{
    // The wands' tag map, when the user has one. Without the file nothing is
    // written: its presence is what switches the wand listener on.
    if (!QFile::exists(Paths::configDir() + QLatin1Char('/') + RfidMap::FILE_NAME)) {
        return;
    }
    if (!mTags.init()) {
        qWarning() << "Failed to load the RFID mapping file; OSC tags are not played";
    }
}

void OscReceiver::malformed(const char* message, const char* where)
{
    mMalformed.warn(
        QStringLiteral("Discarding a malformed OSC packet (%1%2)")
            .arg(QString::fromLatin1(message),
                 where ? QStringLiteral(" at ") + quoted(QString::fromUtf8(where)) : QString()));
}

void OscReceiver::summariseIfDue()
{
    mMalformed.summariseIfDue();
    mUnknownAddress.summariseIfDue();
    mUnfit.summariseIfDue();
    mUnknownTag.summariseIfDue();
}

void OscReceiver::summarise()
{
    mMalformed.summarise();
    mUnknownAddress.summarise();
    mUnfit.summarise();
    mUnknownTag.summarise();
}

const char* OscReceiver::Message::text(int i) const
{
    return argc > i ? textArg(types[i], argv[i]) : nullptr;
}

bool OscReceiver::Message::number(int i, bool booleans, double* out) const
{
    return argc > i && numberArg(types[i], argv[i], booleans, out);
}

void OscReceiver::play(const ArboEvent* event)
{
    if (event) {
        mInput.player()->queueEventOsc(event);
    }
}

void OscReceiver::unfit(const Message& m, const QString& why)
{
    mUnfit.warn(QStringLiteral("Ignoring OSC message %1 ,%2: %3")
                    .arg(quoted(QString::fromUtf8(m.address)), quoted(QString::fromUtf8(m.types)),
                         quoted(why)));
}

InputBinding OscReceiver::noteAt(const Message& m, const char* text)
{
    QString why;
    const InputBinding note =
        InputBinding::fromJson(QJsonObject{{"value", QString::fromUtf8(text)}}, &why);
    if (!note.isBound()) {
        unfit(m, why);
    }
    return note;
}

void OscReceiver::handle(const char* address, const char* types, lo_arg** argv, int argc)
{
    ARBO_DEBUG().noquote() << "OSC" << quoted(QString::fromUtf8(address)) << types;
    const Message m{address, types, argv, argc};
    // Held for the whole message: a new set of bindings published meanwhile
    // does not free the one whose event is being played.
    const std::shared_ptr<const InputMap::Bindings> bindings = mInput.bindings();
    if (std::strcmp(address, TOGGLE_ADDRESS) == 0) {
        toggle(m);
    } else if (std::strcmp(address, EVENT_ADDRESS) == 0) {
        event(m, *bindings);
    } else if (std::strcmp(address, TAG_ADDRESS) == 0) {
        tag(m);
    } else if (std::strcmp(address, NOTE_ADDRESS) == 0) {
        note(m);
    } else if (std::strcmp(address, RECORD_ADDRESS) == 0) {
        record(m);
    } else if (std::strncmp(address, SCENE_PREFIX, std::strlen(SCENE_PREFIX)) == 0) {
        scene(m, address + std::strlen(SCENE_PREFIX));
    } else {
        mapped(m, *bindings);
    }
}

void OscReceiver::scene(const Message& m, const char* verb)
{
    if (std::strcmp(verb, "next") == 0 || std::strcmp(verb, "previous") == 0) {
        const ArboEvent step(ArboEvent::SceneStep, verb[0] == 'n' ? 1.0f : -1.0f);
        play(&step);
    } else if (std::strcmp(verb, "recall") == 0) {
        // By the same rule as every other source: a whole number from 1.
        double number = 0.0;
        const bool given = m.argc == 1 && m.number(0, false, &number);
        const char* why = given ? ArboEvent::refusal(ArboEvent::SceneRecall, float(number))
                                : "needs the scene's number, from 1";
        if (why) {
            unfit(m, QString::fromLatin1(why));
            return;
        }
        const ArboEvent recall(ArboEvent::SceneRecall, float(number));
        play(&recall);
    } else if (std::strcmp(verb, "store") == 0) {
        // The name is the sender's text: the window makes it safe to show.
        const char* name = m.argc == 0 ? "" : m.text(0);
        if (m.argc > 1 || !name) {
            unfit(m, QStringLiteral("takes at most one name text"));
        } else if (!mInput.player()->queueSceneStoreOsc(name)) {
            unfit(m, QStringLiteral("too many scene stores at once"));
        }
    } else {
        mUnknownAddress.warn(QStringLiteral("OSC address %1 is not in the input map. Ignoring.")
                                 .arg(quoted(QString::fromUtf8(m.address))));
    }
}

void OscReceiver::toggle(const Message& m)
{
    if (m.argc != 1 || !m.text(0)) {
        unfit(m, QStringLiteral("needs one path text"));
        return;
    }
    play(noteAt(m, m.text(0)).press(true)); // a toggle, as a wand does
}

void OscReceiver::event(const Message& m, const InputMap::Bindings& bindings)
{
    double type = 0.0;
    double value = 0.0;
    if (m.argc != 2 || !m.number(0, false, &type) || !m.number(1, false, &value)) {
        unfit(m, QStringLiteral("needs an event number and a value"));
        return;
    }
    // Exactly what an entry of the input map may ask for: the events that
    // need a path or are the program's own are refused there too.
    QString why;
    const InputBinding event =
        InputBinding::fromJson(QJsonObject{{"event", type}, {"value", value}}, &why);
    if (!event.isBound()) {
        unfit(m, QStringLiteral("event %1, value %2 %3").arg(type).arg(value).arg(why));
        return;
    }
    play(event.press(bindings.latch));
}

void OscReceiver::tag(const Message& m)
{
    const char* tag = m.text(0);
    if (m.argc != 1 || !tag) {
        unfit(m, QStringLiteral("needs one tag text"));
        return;
    }
    const QString name = QString::fromUtf8(tag);
    if (const ArboEvent* event = mTags.lookup(name)) {
        play(event);
    } else {
        mUnknownTag.warn(
            QStringLiteral("OSC tag %1 not found in mapping table. Ignoring.").arg(quoted(name)));
    }
}

void OscReceiver::note(const Message& m)
{
    double on = 0.0;
    if (m.argc != 2 || !m.text(0) || !m.number(1, true, &on)) {
        unfit(m, QStringLiteral("needs a path text and a number"));
        return;
    }
    // Held, whatever the map's latch says: that is what this address is for.
    const InputBinding note = noteAt(m, m.text(0));
    play(on != 0.0 ? note.press(false) : note.release(false));
}

void OscReceiver::record(const Message& m)
{
    double on = 0.0;
    if (m.argc > 1 || (m.argc == 1 && !m.number(0, true, &on))) {
        unfit(m, QStringLiteral("needs no argument, or a number or boolean"));
        return;
    }
    // Without an argument a press of a record button: it toggles.
    const ArboEvent event(ArboEvent::Record, m.argc == 0 ? -1.0f : on != 0.0 ? 1.0f : 0.0f);
    play(&event);
}

void OscReceiver::mapped(const Message& m, const InputMap::Bindings& bindings)
{
    const auto binding = bindings.osc.constFind(QString::fromUtf8(m.address));
    if (binding == bindings.osc.constEnd()) {
        mUnknownAddress.warn(QStringLiteral("OSC address %1 is not in the input map. Ignoring.")
                                 .arg(quoted(QString::fromUtf8(m.address))));
        return;
    }
    if (m.argc == 0) {
        play(binding->press(bindings.latch));
        return;
    }
    double position = 0.0;
    if (!m.number(0, true, &position)) {
        unfit(m, QStringLiteral("needs no argument, or a number or boolean first"));
        return;
    }
    // A double beyond the float range does not convert.
    constexpr double LIMIT = std::numeric_limits<float>::max();
    play(binding->control(float(std::clamp(position, -LIMIT, LIMIT)), bindings.latch, mScratch));
}
