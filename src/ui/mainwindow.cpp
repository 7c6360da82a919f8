#include "ui/mainwindow.h"

#include "display/arbolayer.h"
#include "display/arboview.h"
#include "display/transposewidget.h"
#include "model/arbo.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"
#include "ui/diagnosticsdialog.h"
#include "ui/macrosliders.h"
#include "ui/optionsdialog.h"
#include "ui/patchchooser.h"
#include "scenes/scenebook.h"
#include "ui/scenecontroller.h"
#include "ui/scenepanel.h"
#include "ui/importedscale.h"
#include "ui/recordpanel.h"
#include "ui/stylesheetloader.h"
#include "ui/tuningmenu.h"
#include "ui/tweakdialog.h"
#include "ui_mainwindow.h"
#include "updater/updatedialog.h"

#include <QComboBox>
#include <QDebug>
#include <QFileInfo>
#include <QFontMetrics>
#include <QIcon>
#include <QKeyEvent>
#include <QLabel>
#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QShortcut>
#include <QThread>
#include <QToolButton>
#include <QSlider>
#include <QSvgRenderer>


namespace {

constexpr int CIRCLES_PAGE = 0;
constexpr int GRAPES_PAGE = 1;

// The same text whichever drawing is shown.
const QString VIEW_SWITCHER_TEXT = QStringLiteral(
    "<style type='text/css'>a { text-decoration: none; }a:link { color: #b4b4aa; }a:hover { "
    "color: #c4c4ba; }</style><a href='grapes'>Grapes</a> | <a href='circles'>Flowers</a>");
const QPoint VIEW_SWITCHER_POS(108, 124);


const QString STEPS_CAPTION = QStringLiteral("Shifted prime steps: ");
// Between the two frequencies of the readout.
const QString READOUT_GAP(8, QLatin1Char(' '));

constexpr int LOGO_HEIGHT = 64;

// An icon of the desktop's theme, or the one shipped in the resource folder's
// "icons" when the theme has none (or there is no theme, as on a bare X
// server).
QIcon themeIcon(const QString& name)
{
    return QIcon::fromTheme(
        name, QIcon(Paths::resourceDir() + QStringLiteral("/icons/%1.svg").arg(name)));
}
} // namespace

MainWindow::MainWindow(const InstrumentParts& parts, QWidget* parent)
    : QMainWindow(parent), mUi(std::make_unique<Ui::MainWindow>()), mParts(parts),
      mLattice(parts.lattice), mPlayer(parts.player), mOptions(parts.options),
      mStopAllEvent(ArboEvent::AllNotesOff, 1.0f)
{
    mUi->setupUi(this);
    mPatches = new PatchChooser(mUi->patchMenu, mPlayer, this);
    // First, so that it collects the messages of everything that follows.
    mDiagnosticsDialog = new DiagnosticsDialog(this);
    setWindowTitle(QString::fromLatin1(Paths::APP_NAME));
    setIcons();
    mUi->transposeWidget->init(Qt::Vertical, *mLattice, mPlayer);

    Settings* settings = mOptions;
    mUi->circleLayer->init(ArboLeavesWidget::Circles, mLattice, mPlayer, *mOptions);
    mUi->grapeLayer->init(ArboLeavesWidget::Grapes, mLattice, mPlayer, *mOptions);
    mUi->centralStack->setCurrentIndex(settings->mCirclesView ? CIRCLES_PAGE : GRAPES_PAGE);

    addSwitchers();

    // Every start shows relative readouts; the stored mode is deliberately
    // not restored.
    settings->mAbsRelView = 0;

    // Presets are not offered yet; the row is kept for when they are.
    mUi->presetDecButton->hide();
    mUi->presetIncButton->hide();
    mUi->presetMenu->hide();
    mUi->savePresetButton->hide();

    mMacros = new MacroSliders(this, mPlayer);
    mTuning = new TuningMenu(mUi->tuningButton, mUi->scaleLabel, mParts, this);
    addScenes();
    // Recording, at the end of the lower row, where the program records.
    if (mParts.recorder) {
        mUi->lowerLayout->addWidget(new RecordPanel(mParts, this));
    }

    connect(mViewSwitcher, &QLabel::linkActivated, this, &MainWindow::onSwitcherClicked);
    connect(mAbsRelSwitcher, &QLabel::linkActivated, this, &MainWindow::onAbsRelSwitcherClicked);
    connect(mLattice, &Arbo::transposeOrBaseFrequencyChanged, this,
            &MainWindow::onTransposeChanged);
    PdPlayer* player = mPlayer;
    connect(player, &PdPlayer::volumeChanged, this, &MainWindow::onVolumeChanged,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::monophonicChanged, this, &MainWindow::onMonophonicChanged,
            Qt::QueuedConnection);
    // Either way the player has summed the steps: see takeRequestedSteps().
    connect(player, &PdPlayer::patchDecRequested, mPatches, &PatchChooser::takeRequestedSteps,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::patchIncRequested, mPatches, &PatchChooser::takeRequestedSteps,
            Qt::QueuedConnection);

    mPatches->initMenu();
    mPatches->loadDefault(mOptions->mDefaultPatch);
    onTransposeChanged();

    addTweakDialog();
    applicationUpdateCheck();
}

MainWindow::~MainWindow() = default;

void MainWindow::addScenes()
{
    if (!mParts.scenes) {
        return;
    }
    mScenes = new SceneController(mPlayer, mLattice, mOptions, mParts.scenes, mPatches, this);
    mScenePanel = new ScenePanel(mParts.scenes, mScenes, this);
    addDockWidget(Qt::RightDockWidgetArea, mScenePanel);
    mScenePanel->setVisible(mParts.scenes->panelVisible());
    auto* toggle = new QToolButton(this);
    toggle->setObjectName(QStringLiteral("scenesButton"));
    toggle->setDefaultAction(mScenePanel->toggleViewAction());
    toggle->setText(tr("Scenes"));
    mUi->tuningRow->insertWidget(1, toggle);
}

void MainWindow::addTweakDialog()
{
    // The tweak dialog edits the lattice's layout constants; Ctrl+T shows
    // and hides it. (The options dialog is made fresh each time it opens.)
    mTweakDialog = new TweakDialog(this);
    mTweakDialog->addLayoutConstants();
    connect(mTweakDialog, &TweakDialog::updateRequested, this, &MainWindow::updateTweaks);
    auto* tweakShortcut = new QShortcut(QKeySequence(QStringLiteral("Ctrl+T")), this);
    connect(tweakShortcut, &QShortcut::activated, this,
            [this] { mTweakDialog->setVisible(!mTweakDialog->isVisible()); });
}

void MainWindow::addSwitchers()
{
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
}

void MainWindow::setIcons()
{
    mUi->patchDecButton->setIcon(themeIcon(QStringLiteral("go-previous")));
    mUi->patchIncButton->setIcon(themeIcon(QStringLiteral("go-next")));
    mUi->optionsButton->setIcon(themeIcon(QStringLiteral("preferences-system")));

    // Drawn at the screen's pixel density, so the logo stays sharp on a
    // high-density screen.
    QSvgRenderer logo(Paths::resourceDir() + QStringLiteral("/logo.svg"));
    if (logo.isValid()) {
        const qreal ratio = devicePixelRatioF();
        const QSize size =
            logo.defaultSize().scaled(QSize(4 * LOGO_HEIGHT, LOGO_HEIGHT), Qt::KeepAspectRatio);
        QPixmap pixmap(size * ratio);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        logo.render(&painter);
        painter.end();
        pixmap.setDevicePixelRatio(ratio);
        mUi->logoLabel->setPixmap(pixmap);
    } else {
        qWarning() << "Logo not found in" << Paths::resourceDir();
    }
}

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
    // The drawing that was hidden did not follow the changes of pitch made
    // meanwhile: its cards are brought up to date as it comes into view.
    arboView()->updateCardStack();
}

void MainWindow::onAbsRelSwitcherClicked(const QString& link)
{
    Settings* settings = mOptions;
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
    updateReadout();
    arboView()->updateArboBalls();
    arboView()->updateCardStack();
}

void MainWindow::updateReadout()
{
    const double base = mLattice->baseFrequency();
    const double central = mLattice->transposition().toDouble() * base;

    QString steps;
    for (int step : mLattice->transposeSteps()) {
        steps += QLatin1Char('/') + QString::number(step);
    }
    if (steps.isEmpty()) {
        steps = QStringLiteral("/");
    }
    const QFontMetrics metrics = mUi->infoLabel1->fontMetrics();
    const int room = mUi->infoLabel1->width() - metrics.horizontalAdvance(STEPS_CAPTION);
    mUi->infoLabel1->setText(QStringLiteral("%1%2").arg(
        STEPS_CAPTION, metrics.elidedText(steps, Qt::ElideMiddle, room)));

    if (central != base) {
        mUi->infoLabel2->setText(
            QStringLiteral("Frequency of central node: %1 Hz").arg(central, 0, 'f', 3) +
            READOUT_GAP + QStringLiteral("1/1 Frequency: %1 Hz").arg(base, 0, 'f', 3));
    } else {
        mUi->infoLabel2->setText(
            QStringLiteral("Frequency of central node [= 1/1 Frequency]: %1 Hz")
                .arg(base, 0, 'f', 3));
    }
}

void MainWindow::resizeEvent(QResizeEvent* event)
{
    QMainWindow::resizeEvent(event);
    // The steps are elided to the label's width: a wider window shows more
    // of them. Only the readout is redone; the balls need nothing.
    updateReadout();
}

void MainWindow::paintEvent(QPaintEvent* event)
{
    QMainWindow::paintEvent(event);
    if (!mFirstPaintLogged) {
        // Start-up time is measured from the program's start to this line.
        mFirstPaintLogged = true;
        qInfo() << "Main window painted";
    }
}

void MainWindow::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_9) {
        // Ctrl+9 is the diagnostics dialog; a plain 9 is swallowed, so that
        // a stray press while aiming for Ctrl+9 does nothing anywhere.
        if (event->modifiers() & Qt::ControlModifier) {
            toggleDiagnostics();
        }
        event->accept();
        return;
    }
    QMainWindow::keyPressEvent(event);
}

void MainWindow::toggleDiagnostics()
{
    mDiagnosticsDialog->setVisible(!mDiagnosticsDialog->isVisible());
}

void MainWindow::applicationUpdateCheck()
{
    Settings* settings = mOptions;
    UpdateDialog::checkAtStartup(this, settings->mUpdateCheckInterval,
                                 settings->mTSysLastUpdateCheck);
}

void MainWindow::updateTweaks()
{
    queue(ArboEvent::AllNotesOff, 1.0f);
    QThread::msleep(100);
    QCoreApplication::processEvents();
    StyleSheetLoader::load();
    mLattice->load();
    mTuning->scale()->latticeReloaded();
    ArboLeavesWidget::clearPositionTables();
    // Both drawings, not only the one shown: reloading the lattice replaced
    // the nodes that the hidden one still points at.
    mUi->circleLayer->view()->buildScene(ArboLeavesWidget::Circles);
    mUi->grapeLayer->view()->buildScene(ArboLeavesWidget::Grapes);
}

void MainWindow::attachInputs(const InputMap::Bindings& own, KeyboardInput* keys, MidiInput* midi)
{
    mTuning->scale()->attachInputs(own, keys, midi);
}

OptionsDialog* MainWindow::optionsDialog() const
{
    return mOptionsDialog;
}

void MainWindow::on_optionsButton_clicked()
{
    OptionsDialog::toggle(mOptionsDialog, mParts, this, mOptionsDialogPosition);
    if (mOptionsDialog) {
        connect(mOptionsDialog.data(), &OptionsDialog::notationChanged, this,
                &MainWindow::onNotationChanged, Qt::UniqueConnection);
    }
}

void MainWindow::onNotationChanged()
{
    arboView()->updateCardStack();
}

void MainWindow::queue(ArboEvent::Type type, float value)
{
    const ArboEvent event(type, value);
    mPlayer->queueEventGui(&event);
}

void MainWindow::on_volumeSlider_valueChanged(int value)
{
    queue(ArboEvent::MasterVolume, MacroSliders::normalised(mUi->volumeSlider, float(value)));
}

void MainWindow::onVolumeChanged(float volume)
{
    const QSignalBlocker blocker(mUi->volumeSlider);
    mUi->volumeSlider->setValue(MacroSliders::sliderPosition(mUi->volumeSlider, volume));
}

void MainWindow::on_monoButton_clicked()
{
    queue(ArboEvent::Monophonic, mUi->monoButton->isChecked() ? 1.0f : 0.0f);
}

void MainWindow::on_polyButton_clicked()
{
    queue(ArboEvent::Monophonic, mUi->polyButton->isChecked() ? 0.0f : 1.0f);
}

void MainWindow::onMonophonicChanged(bool monophonic)
{
    if (monophonic) {
        mUi->monoButton->setChecked(true);
    } else {
        mUi->polyButton->setChecked(true);
    }
}

void MainWindow::on_stopAllButton_clicked()
{
    mPlayer->queueEventGui(&mStopAllEvent);
}

void MainWindow::on_presetDecButton_clicked() {}

void MainWindow::on_presetIncButton_clicked() {}

void MainWindow::on_patchMenu_activated(int index)
{
    mPatches->load(mUi->patchMenu->itemData(index).toString());
}

void MainWindow::on_patchDecButton_clicked()
{
    mPatches->step(-1);
}

void MainWindow::on_patchIncButton_clicked()
{
    mPatches->step(1);
}

void MainWindow::on_loadPatchButton_clicked()
{
    mPatches->openFile();
}
