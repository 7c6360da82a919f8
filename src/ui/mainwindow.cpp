#include "ui/mainwindow.h"

#include "app/tuningarboapplication.h"
#include "settings/appcontext.h"
#include "sound/patchloader.h"

#include <QComboBox>
#include <QDebug>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QMessageBox>
#include <QPushButton>
#include <QStyle>

namespace {
const QString NONE_LOADED = QStringLiteral("None loaded");
}

MainWindow::MainWindow(Arbo* lattice, QWidget* parent) : QMainWindow(parent), mLattice(lattice)
{
    setWindowTitle(QString::fromLatin1(AppContext::APP_NAME));

    auto* central = new QWidget(this);
    central->setObjectName(QStringLiteral("centralWidget"));
    auto* row = new QHBoxLayout(central);
    mPatchDecButton = new QPushButton(central);
    mPatchDecButton->setObjectName(QStringLiteral("patchDecButton"));
    mPatchDecButton->setIcon(style()->standardIcon(QStyle::SP_ArrowLeft));
    mPatchDecButton->setFlat(true);
    mPatchIncButton = new QPushButton(central);
    mPatchIncButton->setObjectName(QStringLiteral("patchIncButton"));
    mPatchIncButton->setIcon(style()->standardIcon(QStyle::SP_ArrowRight));
    mPatchIncButton->setFlat(true);
    mPatchMenu = new QComboBox(central);
    mPatchMenu->setObjectName(QStringLiteral("patchMenu"));
    mPatchMenu->setFrame(false);
    mPatchMenu->setMinimumWidth(200);
    mLoadPatchButton = new QPushButton(tr("Load"), central);
    mLoadPatchButton->setObjectName(QStringLiteral("loadPatchButton"));
    row->addWidget(mPatchDecButton);
    row->addWidget(mPatchIncButton);
    row->addWidget(mPatchMenu, 1);
    row->addWidget(mLoadPatchButton);
    setCentralWidget(central);
    QMetaObject::connectSlotsByName(this);

    PdPlayer* player = &TuningArboApplication::instance()->mPlayer;
    connect(player, &PdPlayer::patchDecRequested, this, &MainWindow::onPatchDecRequested,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::patchIncRequested, this, &MainWindow::onPatchIncRequested,
            Qt::QueuedConnection);

    initPatchMenu();
    loadDefaultPatch();
}

void MainWindow::initPatchMenu()
{
    const QString folder = AppContext::resourceDir() + QStringLiteral("/patches");
    const QFileInfoList files = QDir(folder).entryInfoList(QDir::Files, QDir::Name);
    if (files.isEmpty()) {
        qCritical() << "Found no presets in patch dir" << folder;
    }
    for (const QFileInfo& file : files) {
        addPatchToMenu(file.absoluteFilePath());
    }
}

void MainWindow::addPatchToMenu(const QString& path)
{
    const QString absolute = QFileInfo(path).absoluteFilePath();
    QString name = absolute.mid(absolute.lastIndexOf(QLatin1Char('/')) + 1);
    if (name.endsWith(QLatin1String(".pd"))) {
        name.chop(3);
    }
    if (mPatchMenu->findData(absolute, Qt::UserRole, Qt::MatchExactly | Qt::MatchCaseSensitive) <
        0) {
        mPatchMenu->addItem(name, absolute);
    }
}

void MainWindow::setNoPatchLoaded(bool noPatch)
{
    const int index = mPatchMenu->findText(NONE_LOADED);
    if (noPatch) {
        if (index < 0) {
            mPatchMenu->addItem(NONE_LOADED, QString());
            mPatchMenu->setCurrentIndex(mPatchMenu->count() - 1);
        }
    } else if (index >= 0) {
        mPatchMenu->removeItem(index);
    }
}

void MainWindow::loadDefaultPatch()
{
    const QString patches = AppContext::resourceDir() + QStringLiteral("/patches/");
    const QString name = AppContext::settings()->mDefaultPatch;
    if (!name.isEmpty() && QFile::exists(patches + name)) {
        loadPatch(patches + name);
        return;
    }
    qWarning() << "No default patch name found, use Sine.";
    if (QFile::exists(patches + QStringLiteral("Sine.pd"))) {
        loadPatch(patches + QStringLiteral("Sine.pd"));
    } else {
        qWarning() << "Sine patch not found, set None loaded.";
        setNoPatchLoaded(true);
    }
}

void MainWindow::loadPatch(const QString& path)
{
    const QString absolute = path.isEmpty() ? QString() : QFileInfo(path).absoluteFilePath();
    qWarning() << "Loading voice patch" << absolute;
    PdPlayer* player = &TuningArboApplication::instance()->mPlayer;
    if (!PatchLoader::loadVoice(player, absolute)) {
        QMessageBox::critical(this, QString::fromLatin1(AppContext::APP_NAME),
                              tr("Failed to load patch %1.").arg(absolute), QMessageBox::Ok);
        // The engine stays without a patch; the menu shows the last good one.
        if (mLastLoadedPatch >= 0 && mLastLoadedPatch < mPatchMenu->count()) {
            mPatchMenu->setCurrentIndex(mLastLoadedPatch);
        } else {
            setNoPatchLoaded(true);
        }
        return;
    }
    setNoPatchLoaded(false);
    addPatchToMenu(absolute);
    mLastLoadedPatch =
        mPatchMenu->findData(absolute, Qt::UserRole, Qt::MatchExactly | Qt::MatchCaseSensitive);
    mPatchMenu->setCurrentIndex(mLastLoadedPatch);
}

void MainWindow::stepPatch(int step)
{
    const int count = mPatchMenu->count();
    if (count == 0) {
        return; // nothing to step through
    }
    const int index = (mPatchMenu->currentIndex() + step + count) % count;
    mPatchMenu->setCurrentIndex(index);
    loadPatch(mPatchMenu->itemData(index).toString());
}

void MainWindow::onPatchDecRequested()
{
    stepPatch(-1);
}

void MainWindow::onPatchIncRequested()
{
    stepPatch(1);
}

void MainWindow::on_patchMenu_activated(int index)
{
    loadPatch(mPatchMenu->itemData(index).toString());
}

void MainWindow::on_patchDecButton_clicked()
{
    stepPatch(-1);
}

void MainWindow::on_patchIncButton_clicked()
{
    stepPatch(1);
}

void MainWindow::on_loadPatchButton_clicked()
{
    const QString file = QFileDialog::getOpenFileName(this, tr("Open Patch"), mLastPatchFolder,
                                                      tr("PD Patches (*.pd)"));
    if (file.isEmpty()) {
        return;
    }
    mLastPatchFolder = QFileInfo(file).absolutePath();
    loadPatch(file);
}
