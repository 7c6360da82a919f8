#include "ui/mainwindow.h"

#include "display/arbolayer.h"
#include "display/arboview.h"
#include "display/transposewidget.h"
#include "model/arbo.h"
#include "settings/appcontext.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "ui/diagnosticsdialog.h"
#include "ui/optionsdialog.h"
#include "ui/stylesheetloader.h"
#include "ui/tweakdialog.h"
#include "ui_mainwindow.h"
#include "updater/updatedialog.h"

#include <QComboBox>
#include <QDebug>
#include <QDir>
#include <QFileDialog>
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
#include <QSlider>
#include <QSvgRenderer>

#include <utility>

namespace {
const QString NONE_LOADED = QStringLiteral("None loaded");

constexpr int CIRCLES_PAGE = 0;
constexpr int GRAPES_PAGE = 1;

// The same text whichever drawing is shown.
const QString VIEW_SWITCHER_TEXT = QStringLiteral(
    "<style type='text/css'>a { text-decoration: none; }a:link { color: #b4b4aa; }a:hover { "
    "color: #c4c4ba; }</style><a href='grapes'>Grapes</a> | <a href='circles'>Flowers</a>");
const QPoint VIEW_SWITCHER_POS(108, 124);

constexpr int MACRO_COUNT = 8;

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
        name, QIcon(AppContext::resourceDir() + QStringLiteral("/icons/%1.svg").arg(name)));
}
} // namespace

MainWindow::MainWindow(Arbo* lattice, QWidget* parent)
    : QMainWindow(parent), mUi(std::make_unique<Ui::MainWindow>()), mLattice(lattice),
      mStopAllEvent(ArboEvent::AllNotesOff, 1.0f)
{
    mUi->setupUi(this);
    // First, so that it collects the messages of everything that follows.
    mDiagnosticsDialog = new DiagnosticsDialog(this);
    setWindowTitle(QString::fromLatin1(AppContext::APP_NAME));
    setIcons();
    mUi->transposeWidget->init(Qt::Vertical);

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

    // Presets are not offered yet; the row is kept for when they are.
    mUi->presetDecButton->hide();
    mUi->presetIncButton->hide();
    mUi->presetMenu->hide();
    mUi->savePresetButton->hide();

    for (int n = 1; n <= MACRO_COUNT; ++n) {
        connect(macroSlider(n), &QSlider::valueChanged, this,
                &MainWindow::onMacroSliderValueChanged);
    }

    connect(mViewSwitcher, &QLabel::linkActivated, this, &MainWindow::onSwitcherClicked);
    connect(mAbsRelSwitcher, &QLabel::linkActivated, this, &MainWindow::onAbsRelSwitcherClicked);
    connect(lattice, &Arbo::transposeOrBaseFrequencyChanged, this, &MainWindow::onTransposeChanged);
    PdPlayer* player = AppContext::player();
    connect(player, &PdPlayer::volumeChanged, this, &MainWindow::onVolumeChanged,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::monophonicChanged, this, &MainWindow::onMonophonicChanged,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::macroValueChanged, this, &MainWindow::onMacroValueChanged,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::macroNamesReceived, this, &MainWindow::onMacroNamesReceived,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::patchDecRequested, this, &MainWindow::onPatchDecRequested,
            Qt::QueuedConnection);
    connect(player, &PdPlayer::patchIncRequested, this, &MainWindow::onPatchIncRequested,
            Qt::QueuedConnection);

    initPatchMenu();
    loadDefaultPatch();
    onTransposeChanged();

    // The tweak dialog edits the lattice's layout constants; Ctrl+T shows
    // and hides it. (The options dialog is made fresh each time it opens.)
    mTweakDialog = new TweakDialog(this);
    mTweakDialog->addLayoutConstants();
    connect(mTweakDialog, &TweakDialog::updateRequested, this, &MainWindow::updateTweaks);
    auto* tweakShortcut = new QShortcut(QKeySequence(QStringLiteral("Ctrl+T")), this);
    connect(tweakShortcut, &QShortcut::activated, this,
            [this] { mTweakDialog->setVisible(!mTweakDialog->isVisible()); });

    applicationUpdateCheck();
}

MainWindow::~MainWindow() = default;

void MainWindow::setIcons()
{
    mUi->patchDecButton->setIcon(themeIcon(QStringLiteral("go-previous")));
    mUi->patchIncButton->setIcon(themeIcon(QStringLiteral("go-next")));
    mUi->optionsButton->setIcon(themeIcon(QStringLiteral("preferences-system")));

    // Drawn at the screen's pixel density, so the logo stays sharp on a
    // high-density screen.
    QSvgRenderer logo(AppContext::resourceDir() + QStringLiteral("/logo.svg"));
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
        qWarning() << "Logo not found in" << AppContext::resourceDir();
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
    Settings* settings = AppContext::settings();
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
    ArboLeavesWidget::clearPositionTables();
    // Both drawings, not only the one shown: reloading the lattice replaced
    // the nodes that the hidden one still points at.
    mUi->circleLayer->view()->buildScene(ArboLeavesWidget::Circles);
    mUi->grapeLayer->view()->buildScene(ArboLeavesWidget::Grapes);
}

OptionsDialog* MainWindow::optionsDialog() const
{
    return mOptionsDialog;
}

void MainWindow::on_optionsButton_clicked()
{
    OptionsDialog::toggle(mOptionsDialog, this, mOptionsDialogPosition);
}

QSlider* MainWindow::macroSlider(int number) const
{
    return findChild<QSlider*>(QStringLiteral("macroSlider%1").arg(number));
}

QLabel* MainWindow::macroLabel(int number) const
{
    return findChild<QLabel*>(QStringLiteral("macroLabel%1").arg(number));
}

float MainWindow::normalised(const QSlider* slider, float value)
{
    return (value - float(slider->minimum())) / float(slider->maximum() - slider->minimum());
}

int MainWindow::sliderPosition(const QSlider* slider, float value)
{
    return qRound(value * float(slider->maximum() - slider->minimum()) + float(slider->minimum()));
}

void MainWindow::queue(ArboEvent::Type type, float value)
{
    const ArboEvent event(type, value);
    AppContext::player()->queueEventGui(&event);
}

void MainWindow::setMacro(int index, float value)
{
    // All sliders share the first one's range.
    queue(static_cast<ArboEvent::Type>(ArboEvent::Macro1 + index),
          normalised(mUi->macroSlider1, value));
}

void MainWindow::onMacroSliderValueChanged(int value)
{
    const QString name = sender()->objectName();
    const int index = name.at(name.size() - 1).digitValue() - 1;
    setMacro(index, float(value));
}

void MainWindow::onMacroValueChanged(int macro, float value)
{
    // The player reports macro n for its command Macro<n>, counting from 1
    // like the slider names: "macroSlider<n>" is the slider that sent it (or
    // the one a wand's macro n belongs to).
    QSlider* slider = macroSlider(macro);
    if (!slider) {
        return;
    }
    const QSignalBlocker blocker(slider);
    slider->setValue(sliderPosition(slider, value));
}

void MainWindow::onMacroNamesReceived(const QStringList& names)
{
    for (int n = 1; n <= MACRO_COUNT; ++n) {
        QLabel* label = macroLabel(n);
        const bool used = n <= names.size();
        if (used) {
            const QString& name = names.at(n - 1);
            label->setText(name.left(1).toUpper() + name.mid(1).toLower());
        } else {
            label->setText(QStringLiteral("Unused"));
        }
        label->setEnabled(used);
        macroSlider(n)->setEnabled(used);
    }
}

void MainWindow::on_volumeSlider_valueChanged(int value)
{
    queue(ArboEvent::MasterVolume, normalised(mUi->volumeSlider, float(value)));
}

void MainWindow::onVolumeChanged(float volume)
{
    const QSignalBlocker blocker(mUi->volumeSlider);
    mUi->volumeSlider->setValue(sliderPosition(mUi->volumeSlider, volume));
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
    AppContext::player()->queueEventGui(&mStopAllEvent);
}

void MainWindow::on_presetDecButton_clicked() {}

void MainWindow::on_presetIncButton_clicked() {}

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
        // The last good patch plays on, and the menu shows it again.
        if (mLastLoadedPatch >= 0 && mLastLoadedPatch < mUi->patchMenu->count()) {
            mUi->patchMenu->setCurrentIndex(mLastLoadedPatch);
        } else {
            setNoPatchLoaded(true);
        }
        return;
    }
    // The player gives the new patch the volume, and the macros where it
    // has one of the same name (its defaults otherwise); the sliders follow
    // what it reports.
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
    const int index = ((mUi->patchMenu->currentIndex() + step % count) % count + count) % count;
    mUi->patchMenu->setCurrentIndex(index);
    loadPatch(mUi->patchMenu->itemData(index).toString());
}

void MainWindow::onPatchDecRequested()
{
    takeRequestedPatchSteps();
}

void MainWindow::onPatchIncRequested()
{
    takeRequestedPatchSteps();
}

void MainWindow::takeRequestedPatchSteps()
{
    // Wands, OSC and MIDI can ask for hundreds of steps a second, and a patch
    // change takes a good part of one. Carried out one by one, a burst would
    // change patches for a minute, silent, with the window deaf to
    // everything else. So the player adds the steps up and signals once; the
    // window goes straight to the patch they add up to. Steps that arrive
    // during the change are signalled again and make at most one more
    // change, after the event loop has had its turn (a quit request is then
    // seen between two changes, however long a flood goes on).
    mRequestedPatchSteps += AppContext::player()->takePatchSteps();
    const int count = mUi->patchMenu->count();
    if (count > 0) {
        mRequestedPatchSteps %= count; // a whole round ends where it began
    }
    if (mPatchChangeUnderWay || mRequestedPatchSteps == 0) {
        return;
    }
    mPatchChangeUnderWay = true;
    stepPatch(std::exchange(mRequestedPatchSteps, 0));
    mPatchChangeUnderWay = false;
    if (mRequestedPatchSteps != 0) {
        // Taken while a failed load's message box was open: they have no
        // signal of their own coming.
        QMetaObject::invokeMethod(this, &MainWindow::takeRequestedPatchSteps, Qt::QueuedConnection);
    }
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
