#include "scenes/scene.h"

#include "model/arboevent.h"
#include "sound/scenerecaller.h"

#include <QJsonArray>
#include <QStringList>

#include <limits>

namespace {

const QStringList KNOWN_KEYS = {"name",        "patch",         "notes",     "transposition",
                                "masterVolume", "voiceVolume",  "baseFrequency", "monophonic",
                                "macros",      "disabledPrimes"};

// A number for a command of `type`, or `fallback` with a warning when the
// file's value is no sane one for it.
float checked(const QJsonObject& json, const char* key, ArboEvent::Type type, float fallback,
              QStringList* warnings)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (value.isUndefined()) {
        return fallback;
    }
    const float number = float(value.toDouble(std::numeric_limits<double>::quiet_NaN()));
    if (const char* why = ArboEvent::refusal(type, number)) {
        *warnings << QStringLiteral("%1 %2").arg(QLatin1String(key), QLatin1String(why));
        return fallback;
    }
    return number;
}

} // namespace

Scene Scene::fromSnapshot(const SceneTable::Snapshot& snapshot)
{
    Scene scene;
    scene.sound = snapshot.scene;
    scene.sound.id = 0;
    scene.notes.assign(snapshot.notes, snapshot.notes + snapshot.scene.noteCount);
    return scene;
}

bool Scene::parseRatio(const QString& text, ArboRatio* ratio)
{
    const QStringList parts = text.trimmed().split(QLatin1Char('/'));
    bool okNumerator = false;
    bool okDenominator = parts.size() == 1;
    const qulonglong numerator = parts.value(0).toULongLong(&okNumerator);
    const qulonglong denominator = parts.size() == 2 ? parts[1].toULongLong(&okDenominator) : 1;
    const qulonglong largest = qulonglong(1) << 63;
    if (parts.size() > 2 || !okNumerator || !okDenominator || numerator == 0 ||
        denominator == 0 || numerator > largest || denominator > largest) {
        return false;
    }
    *ratio = ArboRatio(numerator, denominator);
    return true;
}

Scene Scene::fromJson(const QJsonObject& json, QStringList* warnings)
{
    Scene scene;
    scene.name = json.value(QLatin1String("name")).toString();
    scene.patch = json.value(QLatin1String("patch")).toString();
    SceneTable::Scene& sound = scene.sound;
    sound.volume = checked(json, "masterVolume", ArboEvent::MasterVolume, 1.0f, warnings);
    sound.voiceVolume = checked(json, "voiceVolume", ArboEvent::VoiceVolume, 1.0f, warnings);
    sound.baseFrequency = checked(json, "baseFrequency", ArboEvent::BaseFrequency, 440.0f, warnings);
    sound.monophonic = json.value(QLatin1String("monophonic")).toBool();

    const QString transposition = json.value(QLatin1String("transposition")).toString();
    signed char steps[64];
    if (!transposition.isEmpty() &&
        (!parseRatio(transposition, &sound.transposition) ||
         SceneRecaller::transpositionSteps(sound.transposition, steps, 64) < 0)) {
        *warnings << QStringLiteral("transposition %1 is no transposition of the lattice's primes")
                         .arg(transposition);
        sound.transposition = ArboRatio(1, 1);
    }
    // The transpose strip never takes the 1/1 out of hearing; nor does a file.
    if (ArboEvent::refusal(ArboEvent::BaseFrequency,
                           float(sound.transposition.toDouble() * sound.baseFrequency))) {
        *warnings << QStringLiteral("transposition %1 takes the 1/1 out of 20 Hz to 20 kHz")
                         .arg(transposition);
        sound.transposition = ArboRatio(1, 1);
    }

    const QJsonArray macros = json.value(QLatin1String("macros")).toArray();
    for (int i = 0; i < SceneTable::MACRO_COUNT && i < macros.size(); ++i) {
        if (macros[i].isNull()) {
            continue;
        }
        const float value = float(macros[i].toDouble(-1.0));
        if (ArboEvent::refusal(ArboEvent::Macro1, value)) {
            *warnings << QStringLiteral("macro %1 is no value from 0 to 1").arg(i + 1);
        } else {
            sound.macros[i] = value;
        }
    }
    for (const QJsonValue prime : json.value(QLatin1String("disabledPrimes")).toArray()) {
        const int p = prime.toInt(-1);
        if (p >= 0 && p < SceneTable::PRIME_FLAG_COUNT) {
            sound.primeEnabled[p] = false;
        }
    }

    for (const QJsonValue entry : json.value(QLatin1String("notes")).toArray()) {
        const QJsonObject object = entry.toObject();
        SceneTable::Note note;
        const QString ratio = object.value(QLatin1String("ratio")).toString();
        if (!parseRatio(ratio, &note.ratio)) {
            *warnings << QStringLiteral("note ratio \"%1\" is no ratio").arg(ratio.left(40));
            continue;
        }
        if (int(scene.notes.size()) == SceneTable::MAX_NOTES) {
            *warnings << QStringLiteral("more than %1 notes").arg(SceneTable::MAX_NOTES);
            break;
        }
        const QJsonValue path = object.value(QLatin1String("path"));
        note.path = path.isString() ? ArboPath(path.toString()) : ArboPath(ArboPath::INVALID_STEP);
        note.held = object.value(QLatin1String("held")).toBool() && note.path.isValid();
        scene.notes.push_back(note);
    }
    for (auto it = json.begin(); it != json.end(); ++it) {
        if (!KNOWN_KEYS.contains(it.key())) {
            scene.unknown.insert(it.key(), it.value());
        }
    }
    return scene;
}

QJsonObject Scene::toJson() const
{
    QJsonObject json = unknown;
    json.insert(QStringLiteral("name"), name);
    json.insert(QStringLiteral("patch"), patch);
    QJsonArray noteArray;
    for (const SceneTable::Note& note : notes) {
        QJsonObject object{{"ratio", note.ratio.toString()}, {"held", note.held}};
        // A note the lattice does not show has no path to write.
        if (note.path.isValid()) {
            object.insert(QStringLiteral("path"), note.path.toString());
        }
        noteArray.append(object);
    }
    json.insert(QStringLiteral("notes"), noteArray);
    json.insert(QStringLiteral("transposition"), sound.transposition.toString());
    json.insert(QStringLiteral("masterVolume"), double(sound.volume));
    json.insert(QStringLiteral("voiceVolume"), double(sound.voiceVolume));
    json.insert(QStringLiteral("baseFrequency"), double(sound.baseFrequency));
    json.insert(QStringLiteral("monophonic"), sound.monophonic);
    QJsonArray macros;
    for (const float value : sound.macros) {
        macros.append(value < 0.0f ? QJsonValue() : QJsonValue(double(value)));
    }
    json.insert(QStringLiteral("macros"), macros);
    QJsonArray disabled;
    for (int prime = 0; prime < SceneTable::PRIME_FLAG_COUNT; ++prime) {
        if (!sound.primeEnabled[prime]) {
            disabled.append(prime);
        }
    }
    json.insert(QStringLiteral("disabledPrimes"), disabled);
    return json;
}
