#include "ui/patchchooser.h"

#include "settings/paths.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"

#include <QComboBox>
#include <QDebug>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>

#include <utility>

namespace {

const QString NONE_LOADED = QStringLiteral("None loaded");

} // namespace

PatchChooser::PatchChooser(QComboBox* menu, PdPlayer* player, QWidget* window)
    : QObject(window), mMenu(menu), mPlayer(player), mWindow(window)
{
}

void PatchChooser::initMenu()
{
    const QString folder = Paths::resourceDir() + QStringLiteral("/patches");
    const QFileInfoList files = QDir(folder).entryInfoList(QDir::Files, QDir::Name);
    if (files.isEmpty()) {
        qCritical() << "Found no presets in patch dir" << folder;
    }
    for (const QFileInfo& file : files) {
        addToMenu(file.absoluteFilePath());
    }
}

void PatchChooser::addToMenu(const QString& path)
{
    const QString absolute = QFileInfo(path).absoluteFilePath();
    QString name = absolute.mid(absolute.lastIndexOf(QLatin1Char('/')) + 1);
    if (name.endsWith(QLatin1String(".pd"))) {
        name.chop(3);
    }
    if (mMenu->findData(absolute, Qt::UserRole, Qt::MatchExactly | Qt::MatchCaseSensitive) < 0) {
        mMenu->addItem(name, absolute);
    }
}

void PatchChooser::setNoPatchLoaded(bool noPatch)
{
    const int index = mMenu->findText(NONE_LOADED);
    if (noPatch) {
        if (index < 0) {
            mMenu->addItem(NONE_LOADED, QString());
            mMenu->setCurrentIndex(mMenu->count() - 1);
        }
    } else if (index >= 0) {
        mMenu->removeItem(index);
    }
}

void PatchChooser::loadDefault(const QString& name)
{
    const QString patches = Paths::resourceDir() + QStringLiteral("/patches/");
    if (!name.isEmpty() && QFile::exists(patches + name)) {
        load(patches + name);
        return;
    }
    qWarning() << "No default patch name found, use Sine.";
    if (QFile::exists(patches + QStringLiteral("Sine.pd"))) {
        load(patches + QStringLiteral("Sine.pd"));
    } else {
        qWarning() << "Sine patch not found, set None loaded.";
        setNoPatchLoaded(true);
    }
}

void PatchChooser::load(const QString& path)
{
    const QString absolute = path.isEmpty() ? QString() : QFileInfo(path).absoluteFilePath();
    qWarning() << "Loading voice patch" << absolute;
    if (!PatchLoader::loadVoice(mPlayer, absolute)) {
        QMessageBox::critical(mWindow, QString::fromLatin1(Paths::APP_NAME),
                              tr("Failed to load patch %1.").arg(absolute), QMessageBox::Ok);
        // The last good patch plays on, and the menu shows it again.
        if (mLastLoaded >= 0 && mLastLoaded < mMenu->count()) {
            mMenu->setCurrentIndex(mLastLoaded);
        } else {
            setNoPatchLoaded(true);
        }
        return;
    }
    // The player gives the new patch the volume, and the macros where it
    // has one of the same name (its defaults otherwise); the sliders follow
    // what it reports.
    setNoPatchLoaded(false);
    addToMenu(absolute);
    mLastLoaded =
        mMenu->findData(absolute, Qt::UserRole, Qt::MatchExactly | Qt::MatchCaseSensitive);
    mMenu->setCurrentIndex(mLastLoaded);
}

QString PatchChooser::currentPath() const
{
    return mLastLoaded >= 0 && mLastLoaded < mMenu->count()
               ? mMenu->itemData(mLastLoaded).toString()
               : QString();
}

void PatchChooser::step(int step)
{
    const int count = mMenu->count();
    if (count == 0) {
        return; // nothing to step through
    }
    const int index = ((mMenu->currentIndex() + step % count) % count + count) % count;
    mMenu->setCurrentIndex(index);
    load(mMenu->itemData(index).toString());
}

void PatchChooser::takeRequestedSteps()
{
    // Wands, OSC and MIDI can ask for hundreds of steps a second, and a patch
    // change takes a good part of one. Carried out one by one, a burst would
    // change patches for a minute, silent, with the window deaf to
    // everything else. So the player adds the steps up and signals once; the
    // window goes straight to the patch they add up to. Steps that arrive
    // during the change are signalled again and make at most one more
    // change, after the event loop has had its turn (a quit request is then
    // seen between two changes, however long a flood goes on).
    mRequestedSteps += mPlayer->takePatchSteps();
    const int count = mMenu->count();
    if (count > 0) {
        mRequestedSteps %= count; // a whole round ends where it began
    }
    if (mChangeUnderWay || mRequestedSteps == 0) {
        return;
    }
    mChangeUnderWay = true;
    step(std::exchange(mRequestedSteps, 0));
    mChangeUnderWay = false;
    if (mRequestedSteps != 0) {
        // Taken while a failed load's message box was open: they have no
        // signal of their own coming.
        QMetaObject::invokeMethod(this, &PatchChooser::takeRequestedSteps, Qt::QueuedConnection);
    }
}

bool PatchChooser::loadAny()
{
    const QString folder = Paths::resourceDir() + QStringLiteral("/patches");
    for (const QFileInfo& voice : QDir(folder).entryInfoList(QDir::Files, QDir::Name)) {
        if (PatchLoader::loadVoice(mPlayer, voice.absoluteFilePath())) {
            qWarning().noquote() << QStringLiteral("Playing voice patch %1 instead of the default.")
                                        .arg(voice.absoluteFilePath());
            load(voice.absoluteFilePath());
            return true;
        }
    }
    return false;
}

void PatchChooser::openFile()
{
    const QString file = QFileDialog::getOpenFileName(mWindow, tr("Open Patch"), mLastFolder,
                                                      tr("PD Patches (*.pd)"));
    if (file.isEmpty()) {
        return;
    }
    mLastFolder = QFileInfo(file).absolutePath();
    load(file);
}
