#include "input/inputmap.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonObject>
#include <QKeySequence>

#include <algorithm>
#include <cmath>
#include <cstdlib>

const QString InputMap::FILE_NAME = QStringLiteral("input_map.json");

namespace {

const QString LATCH_KEY = QStringLiteral("latch");
const QString VELOCITY_KEY = QStringLiteral("midiVelocity");
const QString PORTS_KEY = QStringLiteral("midiPorts");
const QString OSC_PORT_KEY = QStringLiteral("oscPort");
const QString KEYS_KEY = QStringLiteral("keys");
const QString NOTES_KEY = QStringLiteral("midiNotes");
const QString CONTROLLERS_KEY = QStringLiteral("midiControllers");
const QString OSC_KEY = QStringLiteral("osc");

// The letter rows lay out the lattice for two hands. Steps are not folded
// into an octave (/3 is 3/2 above, /-3 is 3/2 below), so the home row is a
// chain of fifths climbing from A to H with the 1/1 under the left index
// finger (F). The row above sounds a just major third (5/4) above the key
// below and to its right, the row below a major third under the key above
// and to its right: three neighbouring keys such as F, G and T are a major
// triad, F, G and V a minor one. J to ; add octaves, I to P and Q the
// higher primes, N to . the octave below. Every path is a ball of the
// default lattice.
const char* const DEFAULT_KEYS[][2] = {
    {"A", "/-3/-3/-3"},   {"S", "/-3/-3"},    {"D", "/-3"},       {"F", "/"},
    {"G", "/3"},          {"H", "/3/3"},      {"W", "/-3/-3/-3/5"}, {"E", "/-3/-3/5"},
    {"R", "/-3/5"},       {"T", "/5"},        {"Y", "/3/5"},      {"U", "/3/3/5"},
    {"Z", "/-3/-3/-5"},   {"X", "/-3/-5"},    {"C", "/-5"},       {"V", "/3/-5"},
    {"B", "/3/3/-5"},     {"J", "/2"},        {"K", "/2/3"},      {"L", "/2/3/3"},
    {";", "/2/-3"},       {"I", "/7"},        {"O", "/3/7"},      {"P", "/11"},
    {"Q", "/13"},         {"N", "/-2"},       {"M", "/-2/3"},     {",", "/-2/3/3"},
    {".", "/-2/-3"},
};

// The letter rows from the bottom, each from the left: the order in which
// defaultNoteKeys() lists the keys above.
const char* const ROWS_FROM_THE_BOTTOM = "ZXCVBNM,./ASDFGHJKL;'QWERTYUIOP[]";

// The digits move the whole lattice: odd digits down, even digits up, by a
// fifth, a third, a seventh and an octave; 0 returns home. 9 stays the main
// window's.
const struct
{
    const char* key;
    int step;
} DEFAULT_TRANSPOSE_KEYS[] = {{"1", -3}, {"2", 3}, {"3", -5}, {"4", 5},
                              {"5", -7}, {"6", 7}, {"7", -2}, {"8", 2}, {"0", 0}};

// One octave of a keyboard from A (MIDI 69, the 1/1) upwards: on each key
// the nearest just interval of the default lattice, as octaves to add and
// the rest of the path (16/15, 9/8, 6/5, 5/4, 4/3, 45/32, 3/2, 8/5, 5/3,
// 9/5, 15/8). Other octaves add 2s.
const struct
{
    int octaves;
    const char* rest;
} DEFAULT_OCTAVE[12] = {{0, ""},      {1, "/-3/-5"}, {-1, "/3/3"},   {0, "/3/-5"},
                        {0, "/5"},    {1, "/-3"},    {-1, "/3/3/5"}, {0, "/3"},
                        {1, "/-5"},   {1, "/-3/5"},  {0, "/3/3/-5"}, {0, "/3/5"}};
const int ROOT_NOTE = 69;

QString octavePath(int note)
{
    const int offset = note - ROOT_NOTE;
    const int degree = ((offset % 12) + 12) % 12;
    const int octaves = (offset - degree) / 12 + DEFAULT_OCTAVE[degree].octaves;
    QString path;
    for (int i = 0; i < std::abs(octaves); ++i) {
        path += octaves > 0 ? QStringLiteral("/2") : QStringLiteral("/-2");
    }
    path += QLatin1String(DEFAULT_OCTAVE[degree].rest);
    return path.isEmpty() ? QStringLiteral("/") : path;
}

// The number a JSON member's name stands for, 0..127; -1 otherwise.
int midiNumber(const QString& text)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    return ok && number >= 0 && number <= 127 ? number : -1;
}

void warnSkipped(const QString& table, const QString& name, const QString& why)
{
    qWarning().noquote() << QStringLiteral("%1 entry \"%2\" in %3 %4. Ignoring.")
                                .arg(table, name, InputMap::FILE_NAME, why);
}

template <typename Insert>
void readTable(const QJsonObject& json, const QString& table, Insert insert)
{
    const QJsonValue value = json.value(table);
    if (value.isUndefined()) {
        return;
    }
    if (!value.isObject()) {
        warnSkipped(QStringLiteral("The"), table, QStringLiteral("is not an object"));
        return;
    }
    const QJsonObject object = value.toObject();
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        QString why;
        const InputBinding binding = InputBinding::fromJson(it.value(), &why);
        if (!binding.isBound()) {
            warnSkipped(table, it.key(), why);
            continue;
        }
        if (!insert(it.key(), binding)) {
            warnSkipped(table, it.key(), QStringLiteral("names nothing that can be played"));
        }
    }
}

} // namespace

InputMap::InputMap(QObject* parent) : SerializableRoot(parent)
{
    setSaveOnTerm(false);
}

InputMap::~InputMap() = default;

bool InputMap::init()
{
    return SerializableRoot::init(FILE_NAME);
}

QString InputMap::keyName(int key)
{
    return QKeySequence(key).toString(QKeySequence::PortableText);
}

QVector<InputMap::NoteKey> InputMap::defaultNoteKeys()
{
    QVector<NoteKey> keys;
    for (const auto& entry : DEFAULT_KEYS) {
        keys.append({QLatin1String(entry[0]), ArboPath(QLatin1String(entry[1]))});
    }
    const QString rows = QLatin1String(ROWS_FROM_THE_BOTTOM);
    std::stable_sort(keys.begin(), keys.end(), [&rows](const NoteKey& a, const NoteKey& b) {
        return rows.indexOf(a.name) < rows.indexOf(b.name);
    });
    return keys;
}

void InputMap::initWithDefaults()
{
    mBindings = Bindings();
    for (const auto& entry : DEFAULT_KEYS) {
        mBindings.keys.insert(QLatin1String(entry[0]),
                              InputBinding(ArboPath(QLatin1String(entry[1]))));
    }
    for (const auto& entry : DEFAULT_TRANSPOSE_KEYS) {
        mBindings.keys.insert(QLatin1String(entry.key),
                              InputBinding(ArboEvent::Transpose, float(entry.step)));
    }
    mBindings.keys.insert(QStringLiteral("Space"), InputBinding(ArboEvent::AllNotesOff, 0.0f));
    // Four octaves around the 1/1, from A2 (45) to G#6 (92).
    for (int note = ROOT_NOTE - 24; note < ROOT_NOTE + 24; ++note) {
        mBindings.midiNotes[note] = InputBinding(ArboPath(octavePath(note)));
    }
    // Channel volume, and the sound controllers 1 to 8 for the macros.
    mBindings.midiControllers[7] = InputBinding::ranged(ArboEvent::MasterVolume, 0.0f, 1.0f);
    for (int macro = 0; macro < 8; ++macro) {
        mBindings.midiControllers[70 + macro] = InputBinding::ranged(
            static_cast<ArboEvent::Type>(ArboEvent::Macro1 + macro), 0.0f, 1.0f);
    }
}

void InputMap::read(const QJsonObject& json)
{
    Bindings bindings;
    bindings.latch = json.value(LATCH_KEY).toBool(false);
    bindings.midiVelocity = json.value(VELOCITY_KEY).toBool(false);
    const double port = json.value(OSC_PORT_KEY).toDouble(0.0);
    if (port >= 0.0 && port <= 65535.0 && port == std::floor(port)) {
        bindings.oscPort = int(port);
    } else {
        qWarning().noquote() << QStringLiteral("\"oscPort\" in %1 is no port number; OSC is off.")
                                    .arg(FILE_NAME);
    }
    for (const QJsonValue& name : json.value(PORTS_KEY).toArray()) {
        if (!name.toString().isEmpty()) {
            bindings.midiPorts.append(name.toString());
        }
    }
    readTable(json, KEYS_KEY, [&](const QString& name, const InputBinding& binding) {
        const QKeySequence sequence = QKeySequence::fromString(name, QKeySequence::PortableText);
        // One plain key: a chord such as "Ctrl+A" belongs to the window.
        if (sequence.count() != 1 || (sequence[0] & Qt::KeyboardModifierMask) != 0 ||
            sequence[0] == Qt::Key_unknown) {
            return false;
        }
        bindings.keys.insert(keyName(sequence[0]), binding);
        return true;
    });
    readTable(json, NOTES_KEY, [&](const QString& name, const InputBinding& binding) {
        const int note = midiNumber(name);
        if (note >= 0) {
            bindings.midiNotes[note] = binding;
        }
        return note >= 0;
    });
    readTable(json, CONTROLLERS_KEY, [&](const QString& name, const InputBinding& binding) {
        const int controller = midiNumber(name);
        if (controller >= 0) {
            bindings.midiControllers[controller] = binding;
        }
        return controller >= 0;
    });
    readTable(json, OSC_KEY, [&](const QString& name, const InputBinding& binding) {
        if (!name.startsWith(QLatin1Char('/'))) {
            return false;
        }
        bindings.osc.insert(name, binding);
        return true;
    });
    mBindings = std::move(bindings);
}

void InputMap::write(QJsonObject& json) const
{
    json.insert(LATCH_KEY, mBindings.latch);
    json.insert(VELOCITY_KEY, mBindings.midiVelocity);
    json.insert(PORTS_KEY, QJsonArray::fromStringList(mBindings.midiPorts));
    json.insert(OSC_PORT_KEY, mBindings.oscPort);
    QJsonObject keys;
    for (auto it = mBindings.keys.constBegin(); it != mBindings.keys.constEnd(); ++it) {
        keys.insert(it.key(), it.value().toJson());
    }
    json.insert(KEYS_KEY, keys);
    QJsonObject notes;
    QJsonObject controllers;
    for (int i = 0; i < 128; ++i) {
        if (mBindings.midiNotes[i].isBound()) {
            notes.insert(QString::number(i), mBindings.midiNotes[i].toJson());
        }
        if (mBindings.midiControllers[i].isBound()) {
            controllers.insert(QString::number(i), mBindings.midiControllers[i].toJson());
        }
    }
    json.insert(NOTES_KEY, notes);
    json.insert(CONTROLLERS_KEY, controllers);
    QJsonObject osc;
    for (auto it = mBindings.osc.constBegin(); it != mBindings.osc.constEnd(); ++it) {
        osc.insert(it.key(), it.value().toJson());
    }
    json.insert(OSC_KEY, osc);
}
