#include "ui/scenecontroller.h"

#include "model/arbo.h"
#include "model/arboevent.h"
#include "notation/cardnote.h"
#include "scenes/scenebook.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/commanddispatcher.h"
#include "sound/pdplayer.h"
#include "ui/patchchooser.h"

#include <QDir>
#include <QFileInfo>
#include <QKeySequence>
#include <QShortcut>
#include <QTimer>
#include <QWidget>

namespace {

// Names come from the network too: what is shown and saved is one short
// line without control characters.
QString cleanName(const QString& name)
{
    QString clean;
    for (const QChar c : name) {
        clean += c.isPrint() ? c : QLatin1Char(' ');
    }
    return clean.simplified().left(80);
}

QString patchFolder()
{
    return Paths::resourceDir() + QStringLiteral("/patches/");
}

} // namespace

SceneController::SceneController(PdPlayer* player, Arbo* lattice, const Settings* options,
                                 SceneBook* book, PatchChooser* patches, QWidget* window)
    : QObject(window), mPlayer(player), mLattice(lattice), mOptions(options), mBook(book),
      mPatches(patches), mWindow(window)
{
    connect(mBook, &SceneBook::changed, this, [this] {
        mPlayer->publishScenes(mBook->table());
        installShortcuts();
    });
    connect(mPlayer, &PdPlayer::sceneStored, this, &SceneController::onStored);
    connect(mPlayer, &PdPlayer::sceneRecalled, this, &SceneController::onRecalled);
    connect(mPlayer, &PdPlayer::patchLoaded, this, &SceneController::onPatchLoaded);
    mPlayer->publishScenes(mBook->table());
    installShortcuts();
}

SceneController::~SceneController() = default;

void SceneController::queue(int type, float value)
{
    const ArboEvent event(ArboEvent::Type(type), value);
    mPlayer->queueEventGui(&event);
}

void SceneController::store(const QString& name)
{
    // The snapshot is taken on the audio thread, after every command queued
    // before it: a chord clicked just before "Store" is in the scene.
    mTicket = mTicket >= 1000000 ? 1 : mTicket + 1;
    mNames.insert(mTicket, cleanName(name));
    queue(ArboEvent::SceneStore, float(mTicket));
}

void SceneController::recall(int index)
{
    queue(ArboEvent::SceneRecall, float(index + 1));
}

void SceneController::step(int direction)
{
    queue(ArboEvent::SceneStep, direction > 0 ? 1.0f : -1.0f);
}

void SceneController::onStored(int source, float ticket, bool taken)
{
    QString name;
    if (source == CommandDispatcher::FromWindow) {
        name = mNames.take(int(ticket));
    } else if (source == CommandDispatcher::FromOsc) {
        name = cleanName(mPlayer->takeOscSceneName(ticket));
    }
    SceneTable::Snapshot snapshot;
    if (!taken || !mPlayer->takeSceneSnapshot(snapshot)) {
        emit message(tr("Too many scenes stored at once: one was not stored."));
        return;
    }
    Scene scene = Scene::fromSnapshot(snapshot);
    // The notes a key did not hold have no path on the audio thread; the
    // lattice knows where they are shown (it follows the same results).
    for (SceneTable::Note& note : scene.notes) {
        if (!note.held) {
            if (const ArboBall* ball = mLattice->ballFromRatio(note.ratio)) {
                note.path = ball->path();
            }
        }
    }
    scene.patch = patchName(mPatches->currentPath());
    scene.name = name.isEmpty() ? defaultName(scene) : name;
    mBook->append(scene);
    emit message(tr("Stored scene \"%1\".").arg(scene.name));
}

QString SceneController::defaultName(const Scene& scene) const
{
    QStringList names;
    for (const SceneTable::Note& note : scene.notes) {
        if (const ArboBall* ball = mLattice->ballFromRatio(note.ratio)) {
            names << CardNote::noteForBall(ball, *mOptions, CardNote::justFrequency(ball))
                         .noteSpelling();
        }
    }
    return names.isEmpty() ? tr("Scene %1").arg(mBook->active().scenes.size() + 1)
                           : names.join(QLatin1Char(' '));
}

void SceneController::onRecalled(int, quint32 id)
{
    mCurrentId = id;
    emit currentChanged(id);
    if (!mPatchChangeQueued) {
        mPatchChangeQueued = true;
        QTimer::singleShot(0, this, &SceneController::applyScenePatch);
    }
}

void SceneController::applyScenePatch()
{
    mPatchChangeQueued = false;
    const Scene* scene = mBook->sceneById(mCurrentId);
    if (!scene || scene->patch.isEmpty()) {
        return;
    }
    const QString file = patchFile(scene->patch);
    if (!QFileInfo(file).isFile()) {
        emit message(tr("Scene \"%1\": the patch %2 is missing; the rest was recalled.")
                         .arg(scene->name, scene->patch));
        return;
    }
    if (QFileInfo(file).absoluteFilePath() == mPatches->currentPath()) {
        return;
    }
    // The patch change keeps the chord; the macros go to the new patch once
    // it is in, since a patch with other macros would take its defaults.
    mMacrosFor = scene->sound.id;
    mMacrosPatch = QFileInfo(file).absoluteFilePath();
    mPatches->load(file);
}

void SceneController::onPatchLoaded(const QString& path)
{
    const Scene* scene = mBook->sceneById(mMacrosFor);
    if (!scene || QFileInfo(path).absoluteFilePath() != mMacrosPatch) {
        return;
    }
    mMacrosFor = 0;
    for (int macro = 0; macro < SceneTable::MACRO_COUNT; ++macro) {
        if (scene->sound.macros[macro] >= 0.0f) {
            queue(ArboEvent::Macro1 + macro, scene->sound.macros[macro]);
        }
    }
}

QString SceneController::patchName(const QString& path)
{
    if (path.isEmpty()) {
        return QString();
    }
    const QFileInfo file(path);
    return QDir::cleanPath(file.absolutePath()) == QDir::cleanPath(QFileInfo(patchFolder()).absoluteFilePath())
               ? file.fileName()
               : file.absoluteFilePath();
}

QString SceneController::patchFile(const QString& name)
{
    return QFileInfo(name).isAbsolute() ? name : patchFolder() + name;
}

void SceneController::installShortcuts()
{
    qDeleteAll(mShortcuts);
    mShortcuts.clear();
    const SceneBook::Triggers& triggers = mBook->triggers();
    auto add = [this](const QString& keys, auto action) {
        const QKeySequence sequence(keys, QKeySequence::PortableText);
        if (sequence.isEmpty()) {
            return;
        }
        auto* shortcut = new QShortcut(sequence, mWindow);
        connect(shortcut, &QShortcut::activated, this, action);
        mShortcuts << shortcut;
    };
    add(triggers.nextKey, [this] { step(1); });
    add(triggers.previousKey, [this] { step(-1); });
    if (!triggers.recallModifier.isEmpty()) {
        for (int n = 1; n <= 10; ++n) {
            add(triggers.recallModifier + QLatin1Char('+') + QString::number(n % 10),
                [this, n] { recall(n - 1); });
        }
    }
}
