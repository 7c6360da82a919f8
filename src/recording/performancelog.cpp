#include "recording/performancelog.h"

#include "model/arboevent.h"
#include "sound/scenerecaller.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QStringList>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>

namespace PerformanceLog {

namespace {

// Integers that a double holds exactly: positions and counts stay below.
constexpr double MAX_EXACT = 9007199254740992.0; // 2^53

QByteArray line(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

// A float as JSON: exact (a float converts to a double exactly, and Qt
// writes doubles in the shortest form that reads back the same); null for
// what JSON cannot hold.
QJsonValue number(float value)
{
    return std::isfinite(value) ? QJsonValue(double(value)) : QJsonValue();
}

QString ratioText(const ArboRatio& ratio)
{
    return QStringLiteral("%1/%2").arg(ratio.numerator()).arg(ratio.denominator());
}

QJsonArray pathSteps(const ArboPath& path)
{
    QJsonArray steps;
    const signed char* raw = path.toCharArray();
    for (int i = 0; i < ArboPath::MAX_STEPS && raw[i] != 0; ++i) {
        steps.append(int(raw[i]));
    }
    return steps;
}

QJsonValue patchJson(const Patch& patch)
{
    if (patch.none) {
        return QJsonValue();
    }
    QJsonObject object{{"file", patch.file}};
    if (!patch.voice.isEmpty() || !patch.voiceText.isEmpty()) {
        object.insert("voice", patch.voice);
        object.insert("voiceText", patch.voiceText);
    } else {
        object.insert("text", patch.text);
    }
    return object;
}

// What a log's lines are read with: each check names the line and says what
// was expected there.
class Reader
{
public:
    Reader(const QString& name, QString* error) : mName(name), mError(error) {}

    int lineNumber = 0;

    bool fail(const QString& what)
    {
        if (mError) {
            *mError = QStringLiteral("%1:%2: %3").arg(mName).arg(lineNumber).arg(what);
        }
        return false;
    }

    bool object(const QByteArray& text, QJsonObject& out)
    {
        QJsonParseError parseError{};
        const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
        if (parseError.error != QJsonParseError::NoError) {
            return fail(QStringLiteral("damaged line (%1 at character %2)")
                            .arg(parseError.errorString())
                            .arg(parseError.offset + 1));
        }
        if (!document.isObject()) {
            return fail(QStringLiteral("damaged line (not a JSON object)"));
        }
        out = document.object();
        return true;
    }

    // A whole number from `low` to `high`.
    bool integer(const QJsonObject& object, const char* key, double low, double high, qint64* out)
    {
        const QJsonValue value = object.value(QLatin1String(key));
        const double number = value.toDouble(std::nan(""));
        if (!value.isDouble() || !(number >= low && number <= high) ||
            number != std::floor(number)) {
            return fail(QStringLiteral("\"%1\" is not a whole number from %2 to %3")
                            .arg(QLatin1String(key))
                            .arg(low, 0, 'f', 0)
                            .arg(high, 0, 'f', 0));
        }
        *out = qint64(number);
        return true;
    }

    bool integer(const QJsonObject& object, const char* key, double low, double high, int* out)
    {
        qint64 wide = 0;
        if (!integer(object, key, low, high, &wide)) {
            return false;
        }
        *out = int(wide);
        return true;
    }

    // A finite number within the float range; null reads as not a number
    // where `nullable`.
    bool real(const QJsonValue& value, const QString& what, float* out, bool nullable = false)
    {
        if (nullable && value.isNull()) {
            *out = std::numeric_limits<float>::quiet_NaN();
            return true;
        }
        const double number = value.toDouble(std::nan(""));
        if (!value.isDouble() || !std::isfinite(number) ||
            std::fabs(number) > double(std::numeric_limits<float>::max())) {
            return fail(QStringLiteral("%1 is not a number").arg(what));
        }
        *out = float(number);
        return true;
    }

    bool real(const QJsonObject& object, const char* key, float* out)
    {
        return real(object.value(QLatin1String(key)), QStringLiteral("\"%1\"").arg(key), out);
    }

    bool boolean(const QJsonObject& object, const char* key, bool* out)
    {
        const QJsonValue value = object.value(QLatin1String(key));
        if (!value.isBool()) {
            return fail(QStringLiteral("\"%1\" is not true or false").arg(QLatin1String(key)));
        }
        *out = value.toBool();
        return true;
    }

    bool ratio(const QJsonValue& value, const QString& what, ArboRatio* out)
    {
        const QStringList parts = value.toString().split(QLatin1Char('/'));
        bool numeratorOk = false;
        bool denominatorOk = false;
        const qulonglong numerator = parts.value(0).toULongLong(&numeratorOk);
        const qulonglong denominator = parts.value(1).toULongLong(&denominatorOk);
        if (!value.isString() || parts.size() != 2 || !numeratorOk || !denominatorOk ||
            numerator == 0 || denominator == 0) {
            return fail(QStringLiteral("%1 is not a ratio such as \"3/2\"").arg(what));
        }
        *out = ArboRatio(numerator, denominator);
        return true;
    }

    // Signed steps of at most ArboPath::MAX_STEPS, none 0.
    bool path(const QJsonValue& value, ArboPath* out)
    {
        const QJsonArray steps = value.toArray();
        if (!value.isArray() || steps.size() > ArboPath::MAX_STEPS) {
            return fail(QStringLiteral("\"path\" is not a list of at most %1 steps")
                            .arg(ArboPath::MAX_STEPS));
        }
        signed char raw[ArboPath::MAX_STEPS + 1] = {};
        for (int i = 0; i < steps.size(); ++i) {
            const double step = steps.at(i).toDouble(0.0);
            if (!steps.at(i).isDouble() || step != std::floor(step) || step == 0.0 ||
                step < -128.0 || step > 127.0) {
                return fail(QStringLiteral("\"path\" step %1 is not a step from -128 to 127 "
                                           "other than 0")
                                .arg(i + 1));
            }
            raw[i] = static_cast<signed char>(step);
        }
        // The path is copied byte for byte, as the command buffers copy it.
        static_assert(sizeof raw == sizeof(ArboPath), "a path is its eight step bytes");
        std::memcpy(static_cast<void*>(out), raw, sizeof raw);
        return true;
    }

    bool patch(const QJsonValue& value, Patch* out)
    {
        *out = Patch();
        if (value.isNull()) {
            return true;
        }
        const QJsonObject object = value.toObject();
        const bool hasVoice = object.contains("voiceText");
        if (!value.isObject() || !object.value("file").isString() ||
            !(hasVoice ? object.value("voiceText").isString() && object.value("voice").isString()
                       : object.value("text").isString())) {
            return fail(QStringLiteral("\"patch\" is neither null nor a patch with its "
                                       "\"file\" and its \"text\" or \"voice\" and "
                                       "\"voiceText\""));
        }
        out->none = false;
        out->file = object.value("file").toString();
        out->text = object.value("text").toString();
        out->voice = object.value("voice").toString();
        out->voiceText = object.value("voiceText").toString();
        return true;
    }

    bool header(const QJsonObject& object, Header& header);
    bool state(const QJsonObject& object, PlayerState& state);
    bool note(const QJsonValue& value, PlayerState& state);
    bool event(const QJsonObject& object, Log& log);

private:
    QString mName;
    QString* mError;
};

bool Reader::header(const QJsonObject& object, Header& header)
{
    const QJsonValue format = object.value("format");
    if (!format.isDouble()) {
        return fail(QStringLiteral("not a performance log (its first line has no \"format\")"));
    }
    if (format.toDouble() > FORMAT) {
        return fail(QStringLiteral("written in log format %1 by a newer version of the program; "
                                   "this one reads format %2 and older")
                        .arg(format.toDouble())
                        .arg(FORMAT));
    }
    if (!integer(object, "format", 1, FORMAT, &header.format) ||
        !integer(object, "sampleRate", 1000, 768000, &header.sampleRate) ||
        !integer(object, "bufferFrames", 1, 1 << 20, &header.bufferFrames) ||
        !real(object, "baseFrequency", &header.state.baseFrequency) ||
        !patch(object.value("patch"), &header.patch)) {
        return false;
    }
    header.program = object.value("program").toString();
    header.recorded = object.value("recorded").toString();
    const QJsonObject options = object.value("options").toObject();
    const QJsonObject state = object.value("state").toObject();
    if (!object.value("options").isObject() || !object.value("state").isObject()) {
        return fail(QStringLiteral("the header has no \"options\" or no \"state\" object"));
    }
    PlayerState& player = header.state;
    if (!boolean(options, "builtInSound", &player.builtInSound) ||
        !boolean(options, "monophonic", &player.monophonic)) {
        return false;
    }
    std::fill(std::begin(player.primeEnabled), std::end(player.primeEnabled), true);
    for (const QJsonValue& prime : options.value("disabledPrimes").toArray()) {
        const double index = prime.toDouble(-1.0);
        if (index < 0.0 || index >= double(PlayerControls::PRIME_FLAG_COUNT)) {
            return fail(QStringLiteral("\"disabledPrimes\" holds something that is no prime"));
        }
        player.primeEnabled[int(index)] = false;
    }
    return this->state(state, player);
}

bool Reader::state(const QJsonObject& object, PlayerState& state)
{
    if (!ratio(object.value("transposition"), QStringLiteral("\"transposition\""),
               &state.transposition) ||
        !real(object, "masterVolume", &state.volume) ||
        !real(object, "voiceVolume", &state.voiceVolume) ||
        !integer(object, "sequence", 0, std::numeric_limits<std::int32_t>::max(),
                 &state.sequence) ||
        !integer(object, "monoVoice", -1, VoicePool::VOICE_COUNT - 1, &state.monoVoice)) {
        return false;
    }
    const QJsonArray macros = object.value("macros").toArray();
    if (macros.size() != PatchMixer::MACRO_COUNT) {
        return fail(
            QStringLiteral("\"macros\" is not a list of %1 values").arg(PatchMixer::MACRO_COUNT));
    }
    for (int i = 0; i < PatchMixer::MACRO_COUNT; ++i) {
        if (!real(macros.at(i), QStringLiteral("macro %1").arg(i + 1), &state.macros[i], true)) {
            return false;
        }
        if (std::isnan(state.macros[i])) {
            state.macros[i] = -1.0f; // never set: the patch's default
        }
    }
    for (int i = 0; i < VoicePool::VOICE_COUNT; ++i) {
        state.voices[i] = VoicePool::NoteOn();
        state.voices[i].voice = i;
    }
    const QJsonValue notes = object.value("notes");
    if (!notes.isArray()) {
        return fail(QStringLiteral("\"notes\" is not a list"));
    }
    for (const QJsonValue& note : notes.toArray()) {
        if (!this->note(note, state)) {
            return false;
        }
    }
    return true;
}

bool Reader::note(const QJsonValue& value, PlayerState& state)
{
    const QJsonObject object = value.toObject();
    int voice = 0;
    qint64 sequence = 0;
    if (!value.isObject()) {
        return fail(QStringLiteral("a note is not an object"));
    }
    if (!integer(object, "voice", 0, VoicePool::VOICE_COUNT - 1, &voice) ||
        !integer(object, "seq", 1, std::numeric_limits<std::int32_t>::max(), &sequence)) {
        return false;
    }
    VoicePool::NoteOn& record = state.voices[voice];
    if (record.seqId != 0) {
        return fail(QStringLiteral("voice %1 holds two notes").arg(voice));
    }
    record.seqId = std::int32_t(sequence);
    if (!ratio(object.value("ratio"), QStringLiteral("\"ratio\""), &record.ratio) ||
        !real(object, "frequency", &record.frequency) || !real(object, "volume", &record.volume) ||
        !boolean(object, "sounding", &record.started)) {
        return false;
    }
    if (object.contains("held")) {
        record.held = true;
        return path(object.value("held"), &record.heldPath);
    }
    return true;
}

bool Reader::event(const QJsonObject& object, Log& log)
{
    if (log.end >= 0) {
        return fail(QStringLiteral("a line after the end line"));
    }
    if (object.contains("end")) {
        qint64 lostFrames = 0;
        qint64 lostCommands = 0;
        if (!integer(object, "end", 0, MAX_EXACT, &log.end) ||
            !integer(object, "lostFrames", 0, MAX_EXACT, &lostFrames) ||
            !integer(object, "lostCommands", 0, MAX_EXACT, &lostCommands)) {
            return false;
        }
        log.lostFrames = quint64(lostFrames);
        log.lostCommands = quint64(lostCommands);
        if (!log.entries.empty() && log.entries.back().at > log.end) {
            return fail(QStringLiteral("the end comes before the last event"));
        }
        return true;
    }
    Entry entry;
    if (!integer(object, "at", 0, MAX_EXACT, &entry.at)) {
        return false;
    }
    if (!log.entries.empty() && entry.at < log.entries.back().at) {
        return fail(QStringLiteral("\"at\" goes back in time (%1 after %2)")
                        .arg(entry.at)
                        .arg(log.entries.back().at));
    }
    if (object.contains("event") && object.value("event").toInt() == ArboEvent::RatioToggle) {
        entry.kind = Entry::Command;
        entry.command.type = ArboEvent::RatioToggle;
        const QStringList parts = object.value("ratio").toString().split(QLatin1Char('/'));
        bool okNumerator = false;
        bool okDenominator = false;
        const qulonglong numerator = parts.value(0).toULongLong(&okNumerator);
        const qulonglong denominator = parts.value(1).toULongLong(&okDenominator);
        if (parts.size() != 2 || !okNumerator || !okDenominator || numerator == 0 ||
            denominator == 0 ||
            !SceneRecaller::ratioCommand(ArboRatio(numerator, denominator), &entry.command)) {
            return fail(QStringLiteral("\"ratio\" is no ratio of the lattice's primes"));
        }
    } else if (object.contains("event")) {
        entry.kind = Entry::Command;
        if (!integer(object, "event", std::numeric_limits<std::int32_t>::min(),
                     std::numeric_limits<std::int32_t>::max(), &entry.command.type) ||
            !real(object.value("value"), QStringLiteral("\"value\""), &entry.command.value, true) ||
            (object.contains("path") && !path(object.value("path"), &entry.command.path))) {
            return false;
        }
    } else if (object.contains("patch")) {
        entry.kind = Entry::PatchChange;
        if (!patch(object.value("patch"), &entry.patch)) {
            return false;
        }
    } else if (object.contains("lost")) {
        entry.kind = Entry::Gap;
        if (!integer(object, "lost", 1, MAX_EXACT, &entry.frames)) {
            return false;
        }
    } else {
        return fail(QStringLiteral("neither a command, a patch change, lost frames nor the end"));
    }
    log.entries.push_back(entry);
    return true;
}

} // namespace

QByteArray headerLine(const Header& header)
{
    const PlayerState& state = header.state;
    QJsonArray disabled;
    for (int prime = 0; prime < PlayerControls::PRIME_FLAG_COUNT; ++prime) {
        if (!state.primeEnabled[prime]) {
            disabled.append(prime);
        }
    }
    QJsonArray macros;
    for (float macro : state.macros) {
        macros.append(macro >= 0.0f ? number(macro) : QJsonValue());
    }
    QJsonArray notes;
    for (const VoicePool::NoteOn& voice : state.voices) {
        // A note in its release is over: it is not carried into the log.
        if (voice.seqId == 0 || voice.released) {
            continue;
        }
        QJsonObject note{{"voice", voice.voice},
                         {"seq", voice.seqId},
                         {"ratio", ratioText(voice.ratio)},
                         {"frequency", number(voice.frequency)},
                         {"volume", number(voice.volume)},
                         {"sounding", voice.started}};
        if (voice.held) {
            note.insert("held", pathSteps(voice.heldPath));
        }
        notes.append(note);
    }
    const QJsonObject options{{"builtInSound", state.builtInSound},
                              {"monophonic", state.monophonic},
                              {"disabledPrimes", disabled}};
    const QJsonObject stateJson{{"transposition", ratioText(state.transposition)},
                                {"masterVolume", number(state.volume)},
                                {"voiceVolume", number(state.voiceVolume)},
                                {"macros", macros},
                                {"sequence", state.sequence},
                                {"monoVoice", state.monoVoice},
                                {"notes", notes}};
    return line(QJsonObject{{"format", header.format},
                            {"program", header.program},
                            {"recorded", header.recorded},
                            {"sampleRate", header.sampleRate},
                            {"bufferFrames", header.bufferFrames},
                            {"baseFrequency", number(state.baseFrequency)},
                            {"patch", patchJson(header.patch)},
                            {"options", options},
                            {"state", stateJson}});
}

QByteArray commandLine(qint64 at, const PdMessageBuffer::Chunk& command)
{
    // A note by its exact ratio (a scene recall's) is written as the ratio.
    ArboRatio ratio;
    if (command.type == ArboEvent::RatioToggle && SceneRecaller::commandRatio(command, &ratio)) {
        return line(QJsonObject{
            {"at", double(at)}, {"event", command.type}, {"ratio", ratioText(ratio)}});
    }
    QJsonObject object{
        {"at", double(at)}, {"event", command.type}, {"value", number(command.value)}};
    const QJsonArray steps = pathSteps(command.path);
    if (!steps.isEmpty()) {
        object.insert("path", steps);
    }
    return line(object);
}

QByteArray patchLine(qint64 at, const Patch& patch)
{
    return line(QJsonObject{{"at", double(at)}, {"patch", patchJson(patch)}});
}

QByteArray gapLine(qint64 at, qint64 frames)
{
    return line(QJsonObject{{"at", double(at)}, {"lost", double(frames)}});
}

QByteArray endLine(qint64 at, quint64 lostFrames, quint64 lostCommands)
{
    return line(QJsonObject{{"end", double(at)},
                            {"lostFrames", double(lostFrames)},
                            {"lostCommands", double(lostCommands)}});
}

bool read(const QString& path, Log& log, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error) {
            *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        }
        return false;
    }
    return parse(file.readAll(), path, log, error);
}

bool parse(const QByteArray& bytes, const QString& name, Log& log, QString* error)
{
    log = Log();
    Reader reader(name, error);
    const QList<QByteArray> lines = bytes.split('\n');
    // Every line ends in "\n", so the text after the last one is empty; a
    // last line without it was cut off.
    const int count = lines.size() - (lines.last().isEmpty() ? 1 : 0);
    if (count == 0) {
        reader.lineNumber = 1;
        return reader.fail(QStringLiteral("empty: not a performance log"));
    }
    for (int i = 0; i < count; ++i) {
        reader.lineNumber = i + 1;
        QByteArray text = lines.at(i);
        if (text.endsWith('\r')) {
            text.chop(1);
        }
        QJsonObject object;
        if (!reader.object(text, object)) {
            return i == 0 ? reader.fail(QStringLiteral("not a performance log (its first line "
                                                       "is not a JSON object)"))
                          : false;
        }
        if (i == 0 ? !reader.header(object, log.header) : !reader.event(object, log)) {
            return false;
        }
    }
    return true;
}

} // namespace PerformanceLog
