#include "scenes/scenebook.h"

#include <QDebug>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>

#include <algorithm>

const QString SceneBook::FILE_NAME = QStringLiteral("scenes.json");

namespace {

const QStringList ROOT_KEYS = {"format", "active", "lists", "triggers", "panelVisible"};
const QStringList LIST_KEYS = {"name", "scenes"};
const QStringList TRIGGER_KEYS = {"nextKey",        "previousKey",    "recallModifier",
                                  "programChange", "nextController", "previousController"};

QJsonObject unknownKeys(const QJsonObject& json, const QStringList& known)
{
    QJsonObject unknown;
    for (auto it = json.begin(); it != json.end(); ++it) {
        if (!known.contains(it.key())) {
            unknown.insert(it.key(), it.value());
        }
    }
    return unknown;
}

int controller(const QJsonObject& json, const char* key, int fallback)
{
    const QJsonValue value = json.value(QLatin1String(key));
    if (value.isUndefined()) {
        return fallback;
    }
    const int number = value.toInt(-2);
    return number >= -1 && number < 128 ? number : fallback;
}

} // namespace

SceneBook::SceneBook(QObject* parent) : SerializableRoot(parent)
{
    initWithDefaults();
}

SceneBook::~SceneBook() = default;

bool SceneBook::init()
{
    mTooNew = false;
    if (SerializableRoot::init(FILE_NAME) && !mTooNew) {
        return true;
    }
    // A show must still start: the old file is kept for repair or for the
    // newer version, and the book begins empty.
    const QString aside = mTooNew ? keepAside(path(), "scene file of a newer version")
                                  : setDamagedFileAside();
    mProblem = mTooNew ? QStringLiteral("The scenes file was written by a newer version of the "
                                        "program and cannot be read.")
                       : QStringLiteral("The scenes file is damaged and cannot be read.");
    mProblem += aside.isEmpty()
                    ? QStringLiteral(" A new one was started.")
                    : QStringLiteral(" It was kept as %1 and a new one was started.").arg(aside);
    qWarning().noquote() << mProblem;
    initWithDefaults();
    save();
    return false;
}

void SceneBook::initWithDefaults()
{
    mLists = {CueList{QStringLiteral("Set list 1"), {}, {}}};
    mActive = 0;
    mTriggers = Triggers();
    mPanelVisible = true;
    mUnknown = QJsonObject();
    mUnknownTriggers = QJsonObject();
    mDeleted = Deleted();
}

void SceneBook::read(const QJsonObject& json)
{
    if (json.value(QLatin1String("format")).toInt(FORMAT) > FORMAT) {
        mTooNew = true;
        return;
    }
    QStringList warnings;
    QList<CueList> lists = readLists(json, &warnings);
    for (const QString& warning : warnings) {
        qWarning().noquote() << "scenes.json:" << warning;
    }
    initWithDefaults();
    if (!lists.isEmpty()) {
        mLists = lists;
    }
    mActive = std::clamp(json.value(QLatin1String("active")).toInt(0), 0, mLists.size() - 1);
    mPanelVisible = json.value(QLatin1String("panelVisible")).toBool(true);
    const QJsonObject triggers = json.value(QLatin1String("triggers")).toObject();
    mTriggers.nextKey = triggers.value(QLatin1String("nextKey")).toString(mTriggers.nextKey);
    mTriggers.previousKey =
        triggers.value(QLatin1String("previousKey")).toString(mTriggers.previousKey);
    mTriggers.recallModifier =
        triggers.value(QLatin1String("recallModifier")).toString(mTriggers.recallModifier);
    mTriggers.programChange = triggers.value(QLatin1String("programChange")).toBool(true);
    mTriggers.nextController = controller(triggers, "nextController", mTriggers.nextController);
    mTriggers.previousController =
        controller(triggers, "previousController", mTriggers.previousController);
    mUnknownTriggers = unknownKeys(triggers, TRIGGER_KEYS);
    mUnknown = unknownKeys(json, ROOT_KEYS);
}

QList<SceneBook::CueList> SceneBook::readLists(const QJsonObject& json, QStringList* warnings)
{
    QList<CueList> lists;
    for (const QJsonValue value : json.value(QLatin1String("lists")).toArray()) {
        const QJsonObject object = value.toObject();
        CueList list;
        list.name = object.value(QLatin1String("name")).toString();
        if (list.name.isEmpty()) {
            list.name = QStringLiteral("Set list %1").arg(lists.size() + 1);
        }
        list.unknown = unknownKeys(object, LIST_KEYS);
        const QJsonArray scenes = object.value(QLatin1String("scenes")).toArray();
        for (int i = 0; i < scenes.size(); ++i) {
            QStringList problems;
            Scene scene = Scene::fromJson(scenes[i].toObject(), &problems);
            for (const QString& problem : problems) {
                *warnings << QStringLiteral("list \"%1\", scene %2: %3 (left out)")
                                 .arg(list.name)
                                 .arg(i + 1)
                                 .arg(problem);
            }
            giveId(scene);
            list.scenes << scene;
        }
        lists << list;
    }
    return lists;
}

QJsonObject SceneBook::listToJson(const CueList& list)
{
    QJsonObject json = list.unknown;
    json.insert(QStringLiteral("name"), list.name);
    QJsonArray scenes;
    for (const Scene& scene : list.scenes) {
        scenes.append(scene.toJson());
    }
    json.insert(QStringLiteral("scenes"), scenes);
    return json;
}

void SceneBook::write(QJsonObject& json) const
{
    json = mUnknown;
    json.insert(QStringLiteral("format"), FORMAT);
    json.insert(QStringLiteral("active"), mActive);
    QJsonArray lists;
    for (const CueList& list : mLists) {
        lists.append(listToJson(list));
    }
    json.insert(QStringLiteral("lists"), lists);
    QJsonObject triggers = mUnknownTriggers;
    triggers.insert(QStringLiteral("nextKey"), mTriggers.nextKey);
    triggers.insert(QStringLiteral("previousKey"), mTriggers.previousKey);
    triggers.insert(QStringLiteral("recallModifier"), mTriggers.recallModifier);
    triggers.insert(QStringLiteral("programChange"), mTriggers.programChange);
    triggers.insert(QStringLiteral("nextController"), mTriggers.nextController);
    triggers.insert(QStringLiteral("previousController"), mTriggers.previousController);
    json.insert(QStringLiteral("triggers"), triggers);
    json.insert(QStringLiteral("panelVisible"), mPanelVisible);
}

void SceneBook::commit()
{
    if (!save()) {
        emit saveFailed(lastSaveError());
    }
    emit changed();
}

void SceneBook::setActive(int index)
{
    if (index >= 0 && index < mLists.size() && index != mActive) {
        mActive = index;
        commit();
    }
}

void SceneBook::addList(const QString& name)
{
    mLists << CueList{uniqueListName(name), {}, {}};
    mActive = mLists.size() - 1;
    commit();
}

void SceneBook::renameList(int index, const QString& name)
{
    if (index >= 0 && index < mLists.size() && !name.trimmed().isEmpty()) {
        mLists[index].name = name.trimmed();
        commit();
    }
}

void SceneBook::removeList(int index)
{
    if (index < 0 || index >= mLists.size() || mLists.size() == 1) {
        return;
    }
    mLists.removeAt(index);
    if (mActive >= index && mActive > 0) {
        --mActive;
    }
    // The undo would put a scene into another list than its own.
    mDeleted = Deleted();
    commit();
}

void SceneBook::append(Scene scene)
{
    giveId(scene);
    mLists[mActive].scenes << scene;
    commit();
}

void SceneBook::rename(int index, const QString& name)
{
    QList<Scene>& scenes = mLists[mActive].scenes;
    if (index >= 0 && index < scenes.size() && !name.trimmed().isEmpty()) {
        scenes[index].name = name.trimmed();
        commit();
    }
}

void SceneBook::duplicate(int index)
{
    QList<Scene>& scenes = mLists[mActive].scenes;
    if (index >= 0 && index < scenes.size()) {
        Scene copy = scenes[index];
        giveId(copy);
        scenes.insert(index + 1, copy);
        commit();
    }
}

void SceneBook::remove(int index)
{
    QList<Scene>& scenes = mLists[mActive].scenes;
    if (index >= 0 && index < scenes.size()) {
        mDeleted = Deleted{true, mActive, index, scenes.takeAt(index)};
        commit();
    }
}

bool SceneBook::undoRemove()
{
    if (!mDeleted.has || mDeleted.list >= mLists.size()) {
        return false;
    }
    QList<Scene>& scenes = mLists[mDeleted.list].scenes;
    scenes.insert(std::min(mDeleted.index, int(scenes.size())), mDeleted.scene);
    mDeleted = Deleted();
    commit();
    return true;
}

void SceneBook::move(int from, int to)
{
    QList<Scene>& scenes = mLists[mActive].scenes;
    if (from >= 0 && from < scenes.size() && to >= 0 && to < scenes.size() && from != to) {
        scenes.move(from, to);
        commit();
    }
}

const Scene* SceneBook::sceneById(quint32 id) const
{
    for (const Scene& scene : active().scenes) {
        if (scene.sound.id == id) {
            return &scene;
        }
    }
    return nullptr;
}

void SceneBook::setTriggers(const Triggers& triggers)
{
    mTriggers = triggers;
    commit();
}

void SceneBook::setPanelVisible(bool visible)
{
    if (visible != mPanelVisible) {
        mPanelVisible = visible;
        if (!save()) {
            emit saveFailed(lastSaveError());
        }
    }
}

bool SceneBook::exportList(int index, const QString& file, QString* error) const
{
    QJsonObject json{{"format", FORMAT}, {"lists", QJsonArray{listToJson(mLists[index])}}};
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly) ||
        out.write(QJsonDocument(json).toJson(QJsonDocument::Indented)) < 0 || !out.commit()) {
        *error = out.errorString();
        return false;
    }
    return true;
}

bool SceneBook::importLists(const QString& file, QStringList* warnings, QString* error)
{
    QFile in(file);
    if (isUnreadableEntry(file) || !in.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1 cannot be read").arg(file);
        return false;
    }
    QJsonParseError parse;
    const QJsonDocument document = QJsonDocument::fromJson(in.readAll(), &parse);
    if (!document.isObject()) {
        *error = QStringLiteral("%1 is no cue list: %2").arg(file, parse.errorString());
        return false;
    }
    const QJsonObject json = document.object();
    if (json.value(QLatin1String("format")).toInt(FORMAT) > FORMAT) {
        *error = QStringLiteral("%1 was written by a newer version of the program").arg(file);
        return false;
    }
    QList<CueList> lists = readLists(json, warnings);
    if (lists.isEmpty()) {
        *error = QStringLiteral("%1 holds no cue list").arg(file);
        return false;
    }
    mActive = mLists.size();
    for (CueList& list : lists) {
        list.name = uniqueListName(list.name);
        mLists << list;
    }
    commit();
    return true;
}

QString SceneBook::uniqueListName(const QString& name) const
{
    const QString base = name.trimmed().isEmpty() ? QStringLiteral("Set list") : name.trimmed();
    auto taken = [this](const QString& candidate) {
        return std::any_of(mLists.begin(), mLists.end(),
                           [&candidate](const CueList& list) { return list.name == candidate; });
    };
    QString candidate = base;
    for (int n = 2; taken(candidate); ++n) {
        candidate = QStringLiteral("%1 (%2)").arg(base).arg(n);
    }
    return candidate;
}

std::unique_ptr<SceneTable> SceneBook::table() const
{
    auto table = std::make_unique<SceneTable>();
    for (const Scene& scene : active().scenes) {
        table->append(scene.sound, scene.notes);
    }
    return table;
}
