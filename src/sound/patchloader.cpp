#include "sound/patchloader.h"

#include "settings/paths.h"
#include "settings/serializableroot.h"
#include "sound/pdplayer.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// GUI thread: the source of the runtime voice copy.
QString sCurrentVoice;

// The creation time where the file system records one; otherwise the time
// the file's metadata last changed, which a fresh copy also renews.
QDateTime creationTime(const QFileInfo& info)
{
    const QDateTime birth = info.birthTime();
    return birth.isValid() ? birth : info.metadataChangeTime();
}

} // namespace

const QStringList& PatchLoader::shellPatches()
{
    static const QStringList names = {
        QStringLiteral("arbo_main.pd"),       QStringLiteral("arbo_vprep.pd"),
        QStringLiteral("equal-loudness.pd"),  QStringLiteral("tb_compressor~.pd"),
        QStringLiteral("tb_compressorUI.pd"),
    };
    return names;
}

bool PatchLoader::installShellPatches()
{
    const QString patchDir = Paths::patchDir();
    // The folder is the program's own: a file or link in its place would
    // stop every start, so it is kept aside and the folder made anew.
    const QFileInfo folder(patchDir);
    if ((folder.exists() || folder.isSymLink()) && !folder.isDir()) {
        SerializableRoot::keepAside(patchDir, "entry in the place of the patch folder");
    }
    QDir().mkpath(patchDir); // a failure shows in the copies below
    const QString shellDir = Paths::resourceDir() + QStringLiteral("/patches/shell/");
    bool ok = true;
    for (const QString& name : shellPatches()) {
        ok = copyIfNewer(shellDir + name, patchDir + QLatin1Char('/') + name) && ok;
    }
    return ok;
}

bool PatchLoader::copyIfNewer(const QString& source, const QString& target)
{
    QFileInfo targetInfo(target);
    if ((targetInfo.exists() || targetInfo.isSymLink()) && !targetInfo.isFile()) {
        // A folder or device where the program keeps its own copy.
        SerializableRoot::keepAside(target, "entry in the place of a runtime patch");
        targetInfo.refresh();
    }
    if (targetInfo.exists() && !(creationTime(targetInfo) < creationTime(QFileInfo(source)))) {
        return true; // the runtime copy is current
    }
    if (targetInfo.exists() && !QFile::remove(target)) {
        qCritical() << "Failed to delete" << target << "before copying";
        return false;
    }
    if (!QFile::copy(source, target)) {
        qCritical() << "Failed to copy" << source << "to" << target;
        return false;
    }
    return true;
}

QString PatchLoader::voiceFile()
{
    return Paths::patchDir() + QStringLiteral("/arbo_voice.pd");
}

QString PatchLoader::mainPatchFile()
{
    return Paths::patchDir() + QStringLiteral("/arbo_main.pd");
}

bool PatchLoader::loadVoice(PdPlayer* player, const QString& voicePatch)
{
    // The old patch plays on meanwhile: Pd read the voice file when it
    // opened it, so replacing the file does not touch it.
    const QString voice = voiceFile();
    if (QFile::exists(voice) && !QFile::remove(voice)) {
        qCritical() << "Failed to delete" << voice;
        return false;
    }
    if (!QFile::copy(voicePatch, voice)) {
        qCritical() << "Failed to copy" << voicePatch << "to the runtime patch location";
        return false;
    }
    sCurrentVoice = QFileInfo(voicePatch).absoluteFilePath();
    const QString main = mainPatchFile();
    if (!player->loadPatch(QFileInfo(main))) {
        qCritical() << "Failed to load" << main << "after copying in voice";
        return false;
    }
    return true;
}

QString PatchLoader::currentVoice()
{
    return sCurrentVoice;
}
