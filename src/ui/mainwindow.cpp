#include "ui/mainwindow.h"

#include "display/arbolayer.h"
#include "display/arboview.h"
#include "model/arbo.h"
#include "settings/appcontext.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "ui_mainwindow.h"

#include <QComboBox>
#include <QDebug>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QStyle>

namespace {
const QString NONE_LOADED = QStringLiteral("None loaded");

constexpr int CIRCLES_PAGE = 0;
constexpr int GRAPES_PAGE = 1;

// The same text whichever drawing is shown.
const QString VIEW_SWITCHER_TEXT = QStringLiteral(
    "<style type='text/css'>a { text-decoration: none; }a:link { color: #b4b4aa; }a:hover { "
    "color: #c4c4ba; }</style><a href='grapes'>Grapes</a> | <a href='circles'>Flowers</a>");
const QPoint VIEW_SWITCHER_POS(108, 124);
} // namespace

MainWindow::MainWindow(Arbo* lattice, QWidget* parent)
    : QMainWindow(parent), mUi(std::make_unique<Ui::MainWindow>()), mLattice(lattice)
{
    mUi->setupUi(this);
    setWindowTitle(QString::fromLatin1(AppContext::APP_NAME));
    mUi->patchDecButton->setIcon(style()->standardIcon(QStyle::SP_ArrowLeft));
    mUi->patchIncButton->setIcon(style()->standardIcon(QStyle::SP_ArrowRight));

    Settings* settings = AppContext::settings();
    mUi->circleLayer->init(ArboLeavesWidget::Circles, lattice);
    mUi->grapeLayer->init(ArboLeavesWidget::Grapes, lattice);
    mUi->centralStack->setCurrentIndex(settings->mCirclesView ? CIRCLES_PAGE : GRAPES_PAGE);

    mViewSwitcher = new QLabel(mUi->centralWidget);
    mViewSwitcher->setObjectName(QStringLiteral("viewSwitcher"));
    mViewSwitcher->setTextFormat(Qt::RichText);
    mViewSwitcher->setTextInteractionFlags(Qt::LinksAccessibleByMouse);
    mViewSwitcher->setText(VIEW_SWITCHER_TEXT);
    mViewSwitcher->move(VIEW_SWITCHER_POS);
    mViewSwitcher->adjustSize();
    mViewSwitcher->raise();
    mAbsRelSwitcher = new QLabel(mUi->centralWidget);
    mAbsRelSwitcher->setObjectName(QStringLiteral("absRelSwitcher"));

    // Every start shows relative readouts; the stored mode is deliberately
    // not restored.
    settings->mAbsRelView = 0;

    connect(mViewSwitcher, &QLabel::linkActivated, this, &MainWindow::onSwitcherClicked);
    connect(mAbsRelSwitcher, &QLabel::linkActivated, this, &MainWindow::onAbsRelSwitcherClicked);
    connect(lattice, &Arbo::transposeOrBaseFrequencyChanged, this, &MainWindow::onTransposeChanged);
    PdPlayer* player = AppContext::player();
    connect(player, &PdPlayer::patchDecRequested, this, &MainWindow::onPatchDecRequested,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::patchIncRequested, this, &MainWindow::onPatchIncRequested,
            Qt::QueuedConnection);

    initPatchMenu();
    loadDefaultPatch();
    onTransposeChanged();
}

MainWindow::~MainWindow() = default;

ArboView* MainWindow::arboView() const
{
    return static_cast<ArboLayer*>(mUi->centralStack->currentWidget())->view();
}

bool MainWindow::isCirclesViewShown() const
{
    return mUi->centralStack->currentIndex() == CIRCLES_PAGE;
}

void MainWindow::onSwitcherClicked(const QString& link)
{
    if (link == QLatin1String("circles")) {
        mUi->centralStack->setCurrentIndex(CIRCLES_PAGE);
    } else if (link == QLatin1String("grapes")) {
        mUi->centralStack->setCurrentIndex(GRAPES_PAGE);
    }
    arboView()->updateArboBalls();
}

void MainWindow::onAbsRelSwitcherClicked(const QString& link)
{
    Settings* settings = AppContext::settings();
    if (link == QLatin1String("absolute")) {
        settings->mAbsRelView = 1;
    } else if (link == QLatin1String("absolute2")) {
        settings->mAbsRelView = 2;
    } else if (link == QLatin1String("relative")) {
        settings->mAbsRelView = 0;
    }
    arboView()->updateArboBalls();
    arboView()->updateCardStack();
}

void MainWindow::onTransposeChanged()
{
    arboView()->updateArboBalls();
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
    if (mUi->patchMenu->findData(absolute, Qt::UserRole,
                                 Qt::MatchExactly | Qt::MatchCaseSensitive) < 0) {
        mUi->patchMenu->addItem(name, absolute);
    }
}

void MainWindow::setNoPatchLoaded(bool noPatch)
{
    const int index = mUi->patchMenu->findText(NONE_LOADED);
    if (noPatch) {
        if (index < 0) {
            mUi->patchMenu->addItem(NONE_LOADED, QString());
            mUi->patchMenu->setCurrentIndex(mUi->patchMenu->count() - 1);
        }
    } else if (index >= 0) {
        mUi->patchMenu->removeItem(index);
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
    PdPlayer* player = AppContext::player();
    if (!PatchLoader::loadVoice(player, absolute)) {
        QMessageBox::critical(this, QString::fromLatin1(AppContext::APP_NAME),
                              tr("Failed to load patch %1.").arg(absolute), QMessageBox::Ok);
        // The engine stays without a patch; the menu shows the last good one.
        if (mLastLoadedPatch >= 0 && mLastLoadedPatch < mUi->patchMenu->count()) {
            mUi->patchMenu->setCurrentIndex(mLastLoadedPatch);
        } else {
            setNoPatchLoaded(true);
        }
        return;
    }
    setNoPatchLoaded(false);
    addPatchToMenu(absolute);
    mLastLoadedPatch =
        mUi->patchMenu->findData(absolute, Qt::UserRole, Qt::MatchExactly | Qt::MatchCaseSensitive);
    mUi->patchMenu->setCurrentIndex(mLastLoadedPatch);
}

void MainWindow::stepPatch(int step)
{
    const int count = mUi->patchMenu->count();
    if (count == 0) {
        return; // nothing to step through
    }
    const int index = (mUi->patchMenu->currentIndex() + step + count) % count;
    mUi->patchMenu->setCurrentIndex(index);
    loadPatch(mUi->patchMenu->itemData(index).toString());
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
    loadPatch(mUi->patchMenu->itemData(index).toString());
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
