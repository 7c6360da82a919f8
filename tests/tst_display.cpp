// The lattice display with real widgets (offscreen), the real lattice, and the
// real player and Sine patch. The test thread plays the audio thread: it
// drains the player's command buffers and runs libpd in 256-frame buffers, as
// the audio callback does, and measures what comes out.

#include "audioanalysis.h"
#include "display/arboballwidget.h"
#include "display/arbostrutwidget.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "display/layoutconstants.h"
#include "model/arboevent.h"
#include "model/arbo.h"
#include "offlineplayer.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/patchloader.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/mainwindow.h"

#include <QDir>
#include <QGraphicsEllipseItem>
#include <QLabel>
#include <QSignalSpy>
#include <QStackedWidget>

#include <cmath>
#include <vector>

namespace {

using OfflinePlayer::BUFFER_SECONDS;
using OfflinePlayer::SAMPLE_RATE;

using TestSupport::ballAt;

bool near(const QPointF& a, const QPointF& b)
{
    return QLineF(a, b).length() < 0.01;
}

QString text(const QPointF& p)
{
    return QStringLiteral("(%1, %2)").arg(p.x()).arg(p.y());
}

#define COMPARE_POINT(actual, expected)                                                            \
    QVERIFY2(near(actual, expected), qPrintable(text(actual) + " != " + text(expected)))

} // namespace

class TestDisplay : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void geometryOfTheDefaultLattice();
    void clickPlaysTheBallsNoteAndClickAgainStopsIt();
    void colourRules();
    void disabledPrimeHidesBallsAndStruts();
    void mainWindowSwitchesBetweenTheDrawings();

private:
    void buildView(ArboLeavesWidget::View style);
    // Runs the player as the audio callback would for `seconds`; the left
    // channel.
    std::vector<float> render(double seconds);
    void click(ArboBallWidget* ball, Qt::MouseButton button = Qt::LeftButton);
    void transpose(int step);

    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    ArboView* mView = nullptr;
};

void TestDisplay::initTestCase()
{
    OfflinePlayer::setUp(mPlayer, mArbo);
    if (QTest::currentTestFailed()) {
        return;
    }
    QVERIFY(PatchLoader::loadVoice(&mPlayer, TestSupport::binDir() + "/patches/Sine.pd"));
}

void TestDisplay::init()
{
    LayoutConstants::resetToDefaults();
    ArboLeavesWidget::clearPositionTables();
    mSettings.mAbsRelView = 0;
}

void TestDisplay::cleanup()
{
    delete mView;
    mView = nullptr;
    const ArboEvent stopAll(ArboEvent::AllNotesOff, 1.0f);
    const ArboEvent untranspose(ArboEvent::Transpose, 0.0f);
    mPlayer.queueEventGui(&stopAll);
    mPlayer.queueEventGui(&untranspose);
    render(BUFFER_SECONDS);
    QTRY_VERIFY(mArbo.playingRatios().isEmpty() && mArbo.transposeSteps().isEmpty());
}

void TestDisplay::buildView(ArboLeavesWidget::View style)
{
    delete mView;
    mView = new ArboView;
    mView->init(style, &mArbo, nullptr, &mPlayer, mSettings);
    mView->resize(900, 700);
    mView->show();
    QVERIFY(QTest::qWaitForWindowExposed(mView));
}

std::vector<float> TestDisplay::render(double seconds)
{
    return OfflinePlayer::render(mPlayer, seconds);
}

void TestDisplay::click(ArboBallWidget* ball, Qt::MouseButton button)
{
    QVERIFY(ball);
    const QPoint point = mView->mapFromScene(ball->scenePos());
    QTest::mouseClick(mView->viewport(), button, Qt::NoModifier, point);
}

void TestDisplay::transpose(int step)
{
    const ArboEvent event(ArboEvent::Transpose, float(step));
    const int before = mArbo.transposeSteps().size();
    mPlayer.queueEventGui(&event);
    render(BUFFER_SECONDS);
    QTRY_COMPARE(mArbo.transposeSteps().size(), before + 1);
}

void TestDisplay::geometryOfTheDefaultLattice()
{
    buildView(ArboLeavesWidget::Grapes);
    const QList<ArboBallWidget*>& balls = mView->arboWidget()->balls();
    int main = 0;
    for (const ArboBallWidget* ball : balls) {
        main += ball->diameter() == BALL_DIAMETER ? 1 : 0;
    }
    QCOMPARE(main, 19);
    QCOMPARE(balls.size() - main, 19 * 18);
    // The root last: its branches and leaves are built first.
    QCOMPARE(balls.last()->node(), mArbo.root());
    for (const ArboBallWidget* ball : balls) {
        COMPARE_POINT(ball->disc()->sceneBoundingRect().center(), ball->scenePos());
    }

    COMPARE_POINT(ballAt(mView, "/")->scenePos(), QPointF(0, 0));
    // +3: 66 units at 45°; +2: 113 units at 135°; y grows downwards.
    COMPARE_POINT(ballAt(mView, "/3")->scenePos(), QPointF(46.669, -46.669));
    COMPARE_POINT(ballAt(mView, "/2")->scenePos(), QPointF(-79.903, -79.903));
    COMPARE_POINT(ballAt(mView, "/-3")->scenePos(), QPointF(-46.669, 46.669));
    COMPARE_POINT(ballAt(mView, "/2/3")->scenePos(), QPointF(-79.903 + 46.669, -79.903 - 46.669));

    // Grapes: the positive berries rise above the ball, the negative ones
    // hang below it, in two columns 8 units either side.
    const QPointF fifth = ballAt(mView, "/3")->scenePos();
    COMPARE_POINT(ballAt(mView, "/3/5")->scenePos(), fifth + QPointF(8, -3.86 / 12 * 80));
    COMPARE_POINT(ballAt(mView, "/3/-5")->scenePos(), fifth + QPointF(-8, 3.86 / 12 * 80));
    COMPARE_POINT(ballAt(mView, "/3/-31")->scenePos(), fifth + QPointF(-8, 11.5 / 12 * 80));
    COMPARE_POINT(ballAt(mView, "/3/11")->scenePos(), fifth + QPointF(-8, -5.51 / 12 * 80));

    // The whole lattice fits in the view, glows included: nothing is cut at
    // the edges when an outer ball sounds.
    const QRectF shown = mView->mapToScene(mView->viewport()->rect()).boundingRect();
    QVERIFY(shown.contains(mView->sceneRect().adjusted(1, 1, -1, -1)));
    for (const ArboBallWidget* ball : balls) {
        QVERIFY(mView->sceneRect().contains(ball->glow()->sceneBoundingRect()));
    }

    // Flowers: one 35 units above the ball, one below, with 23 at the centre
    // and the ring of radius 14 (5 at 140°, mirrored through the centre).
    buildView(ArboLeavesWidget::Circles);
    const QPointF root(0, 0);
    COMPARE_POINT(ballAt(mView, "/23")->scenePos(), root + QPointF(0, -35));
    COMPARE_POINT(ballAt(mView, "/-23")->scenePos(), root + QPointF(0, 35));
    const double r = 14, a = 140 * M_PI / 180;
    COMPARE_POINT(ballAt(mView, "/-5")->scenePos(),
                  root + QPointF(0, 35) + QPointF(r * std::cos(a), -r * std::sin(a)));
    COMPARE_POINT(ballAt(mView, "/5")->scenePos(),
                  root + QPointF(0, -35) - QPointF(r * std::cos(a), -r * std::sin(a)));
    for (int prime : {7, 11, 13, 17, 19, 29, 31}) {
        const QPointF offset =
            ballAt(mView, QStringLiteral("/%1").arg(prime))->scenePos() - QPointF(0, -35);
        QVERIFY(std::abs(std::hypot(offset.x(), offset.y()) - r) < 0.01);
    }
    // Changed constants move the balls after a rebuild; the leaf tables are
    // refilled only once cleared.
    STRUT_3_LENGTH = 100;
    LEAVES_PLUS_OFFSET_Y = -50;
    LEAVES_RADIUS = 20;
    ArboLeavesWidget::clearPositionTables();
    mView->buildScene(ArboLeavesWidget::Circles);
    COMPARE_POINT(ballAt(mView, "/3")->scenePos(), QPointF(70.711, -70.711));
    COMPARE_POINT(ballAt(mView, "/23")->scenePos(), QPointF(0, -50));
    COMPARE_POINT(ballAt(mView, "/-5")->scenePos(),
                  QPointF(0, 50) + QPointF(20 * std::cos(a), -20 * std::sin(a)));
}

void TestDisplay::clickPlaysTheBallsNoteAndClickAgainStopsIt()
{
    buildView(ArboLeavesWidget::Grapes);
    ArboBallWidget* fifth = ballAt(mView, "/3");
    QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);

    // A click on the main ball plays its ratio (the player's tests measure
    // the pitch of a ratio); the engine's answer lights the ball.
    click(fifth);
    render(BUFFER_SECONDS);
    QCOMPARE(toggled.size(), 1);
    QCOMPARE(toggled.at(0).at(0).value<ArboRatio>(), ArboRatio(3, 2));
    QTRY_VERIFY(fifth->node()->isPlaying());
    QVERIFY(fifth->glow()->isVisible());

    // A leaf inside its cluster: 3/2 × 5/4.
    ArboBallWidget* leaf = ballAt(mView, "/3/5");
    click(leaf);
    render(BUFFER_SECONDS);
    QCOMPARE(toggled.size(), 2);
    QCOMPARE(toggled.at(1).at(0).value<ArboRatio>(), ArboRatio(15, 8));
    QTRY_VERIFY(leaf->node()->isPlaying());

    // Right and middle clicks, and the double click's second press, toggle
    // nothing.
    click(fifth, Qt::RightButton);
    click(fifth, Qt::MiddleButton);
    render(BUFFER_SECONDS);
    QCOMPARE(toggled.size(), 2);
    QCOMPARE(mPlayer.soundingNoteCount(), 2);

    // Clicked again, both stop.
    click(fifth);
    click(leaf);
    render(BUFFER_SECONDS);
    QCOMPARE(toggled.size(), 4);
    QCOMPARE(toggled.at(2).at(1).toBool(), false);
    QCOMPARE(toggled.at(3).at(1).toBool(), false);
    QTRY_VERIFY(!fifth->node()->isPlaying() && !leaf->node()->isPlaying());
    QVERIFY(!fifth->glow()->isVisible());
    const std::vector<float> out = render(2.0);
    QVERIFY(AudioAnalysis::rmsDb(QVector<float>(out.end() - SAMPLE_RATE / 2, out.end())) < -80);

    // A double click is one toggle, not two.
    QTest::mouseDClick(mView->viewport(), Qt::LeftButton, Qt::NoModifier,
                       mView->mapFromScene(fifth->scenePos()));
    render(BUFFER_SECONDS);
    QCOMPARE(toggled.size(), 5);
}

void TestDisplay::colourRules()
{
    buildView(ArboLeavesWidget::Circles);
    ArboBallWidget* root = ballAt(mView, "/");
    ArboBallWidget* fifth = ballAt(mView, "/3");
    ArboBall* fifthNode = const_cast<ArboBall*>(fifth->node());
    ArboBall* rootNode = mArbo.root();
    const QColor fifthColour = fifthNode->color();
    const QColor rootColour = mArbo.lookupColor(1);
    auto fill = [](ArboBallWidget* ball) { return ball->disc()->brush().color(); };
    auto outline = [](ArboBallWidget* ball) { return ball->disc()->pen(); };

    // Idle: dimmed fill, a translucent black hairline, no glow.
    QCOMPARE(fill(fifth), fifthColour.darker(BALL_DIM_FACTOR));
    QCOMPARE(outline(fifth).widthF(), 0.0);
    QCOMPARE(outline(fifth).color(), QColor(0, 0, 0, 128));
    QVERIFY(!fifth->glow()->isVisible());

    // Playing: brightened fill and outline, a pen a tenth of the disc, glow.
    fifthNode->setPlaying(true);
    QCOMPARE(fill(fifth), fifthColour.lighter(BALL_BRIGHTEN_FACTOR));
    QCOMPARE(outline(fifth).color(), fifthColour.lighter(OUTLINE_BRIGHTEN_FACTOR));
    QCOMPARE(outline(fifth).width(), 2);
    QVERIFY(fifth->glow()->isVisible());
    QCOMPARE(fifth->playingRadius(), 0.6 * BALL_DIAMETER);
    QCOMPARE(ballAt(mView, "/3/5")->playingRadius(), 0.6 * LEAF_DIAMETER);

    // The root is emphasised: its colour itself, a strong outline.
    rootNode->setPlaying(true);
    QCOMPARE(fill(root), rootColour);
    QCOMPARE(outline(root).color(), rootColour.lighter(200));

    // Transposed, the root turns grey, still emphasised.
    transpose(5);
    mView->updateArboBalls();
    rootNode->setPlaying(true);
    QCOMPARE(fill(root), QColor(158, 158, 158));
    QCOMPARE(outline(root).color(), QColor(158, 158, 158).lighter(200));
    rootNode->setPlaying(false);
    QCOMPARE(fill(root), QColor(158, 158, 158).darker(BALL_DIM_FACTOR));

    // Absolute readouts colour by the prime that characterises the position
    // including the transposition. One high prime: its colour.
    rootNode->setPlaying(true);
    fifthNode->setPlaying(true);
    mSettings.mAbsRelView = 1;
    mView->updateArboBalls();
    QCOMPARE(fill(root), mArbo.lookupColor(5).lighter(BALL_BRIGHTEN_FACTOR));
    QCOMPARE(fill(fifth), mArbo.lookupColor(3).lighter(BALL_BRIGHTEN_FACTOR));
    // Two high primes: the last-step readout gives up the prime colour...
    transpose(7);
    mView->updateArboBalls();
    rootNode->setPlaying(true);
    QCOMPARE(fill(root), mArbo.lookupColor(0).lighter(BALL_BRIGHTEN_FACTOR));
    // ...the highest-step readout keeps the highest prime's.
    mSettings.mAbsRelView = 2;
    mView->updateArboBalls();
    QCOMPARE(fill(root), mArbo.lookupColor(7).lighter(BALL_BRIGHTEN_FACTOR));
    // A node beyond the 3-limit keeps its own colour in both.
    ArboBallWidget* leaf = ballAt(mView, "/3/7");
    const_cast<ArboBall*>(leaf->node())->setPlaying(true);
    QCOMPARE(fill(leaf), leaf->node()->color().lighter(BALL_BRIGHTEN_FACTOR));
    QCOMPARE(outline(leaf).width(), 1);
}

void TestDisplay::disabledPrimeHidesBallsAndStruts()
{
    buildView(ArboLeavesWidget::Grapes);
    ArboBallWidget* fifth = ballAt(mView, "/3");
    ArboBallWidget* leaf = ballAt(mView, "/-2/5");
    QList<ArboStrutWidget*> fifthStruts = fifth->struts();
    QVERIFY(fifthStruts.size() >= 2);

    // Prime 3 off: every node reached by a step of 3 goes, with all of its
    // struts, even those whose other end (the root) stays.
    const ArboEvent primeThree(ArboEvent::PrimeToggle, 3.0f);
    mPlayer.queueEventGui(&primeThree);
    render(BUFFER_SECONDS);
    QTRY_VERIFY(!fifth->isVisible());
    for (ArboStrutWidget* strut : fifthStruts) {
        QVERIFY(!strut->isVisible());
    }
    QVERIFY(ballAt(mView, "/")->isVisible());
    QVERIFY(!ballAt(mView, "/2/3/3")->isVisible());
    QVERIFY(ballAt(mView, "/-2")->isVisible());
    QVERIFY(leaf->isVisible());

    // A hidden ball takes no click: the click falls on the empty view.
    QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);
    click(fifth);
    render(BUFFER_SECONDS);
    QCOMPARE(toggled.size(), 0);

    mPlayer.queueEventGui(&primeThree);
    render(BUFFER_SECONDS);
    QTRY_VERIFY(fifth->isVisible());
    for (ArboStrutWidget* strut : fifthStruts) {
        QVERIFY(strut->isVisible());
    }
}

void TestDisplay::mainWindowSwitchesBetweenTheDrawings()
{
    mSettings.mCirclesView = true;
    MainWindow window(OfflinePlayer::parts(mPlayer, mArbo, mSettings));
    window.resize(1000, 700);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));

    auto* stack = window.findChild<QStackedWidget*>(QStringLiteral("centralStack"));
    QVERIFY(stack);
    QCOMPARE(stack->widget(0)->objectName(), QStringLiteral("circleLayer"));
    QCOMPARE(stack->widget(1)->objectName(), QStringLiteral("grapeLayer"));
    QCOMPARE(stack->currentIndex(), 0);
    QVERIFY(window.isCirclesViewShown());
    QCOMPARE(window.arboView()->arboWidget()->view(), ArboLeavesWidget::Circles);

    // The link label: "Grapes" first, "Flowers" after the bar.
    auto* switcher = window.findChild<QLabel*>(QStringLiteral("viewSwitcher"));
    QVERIFY(switcher && switcher->isVisible());
    QCOMPARE(switcher->pos(), QPoint(108, 124));
    QTest::mouseClick(switcher, Qt::LeftButton, Qt::NoModifier, QPoint(8, switcher->height() / 2));
    QTRY_COMPARE(stack->currentIndex(), 1);
    QCOMPARE(window.arboView()->arboWidget()->view(), ArboLeavesWidget::Grapes);
    QVERIFY(!window.isCirclesViewShown());
    QTest::mouseClick(switcher, Qt::LeftButton, Qt::NoModifier,
                      QPoint(switcher->width() - 8, switcher->height() / 2));
    QTRY_COMPARE(stack->currentIndex(), 0);
    window.onSwitcherClicked(QStringLiteral("elsewhere"));
    QCOMPARE(stack->currentIndex(), 0);

    // Both drawings follow the lattice: a note played lights its ball in
    // each, and a click in the shown one goes to the player. The card
    // overlay over the layer lets the click through.
    mView = window.arboView();
    ArboBallWidget* fifth = ballAt(mView, "/3");
    const QPoint point = mView->viewport()->mapTo(&window, mView->mapFromScene(fifth->scenePos()));
    QWidget* target = window.childAt(point);
    QCOMPARE(target, mView->viewport());
    click(fifth);
    render(BUFFER_SECONDS);
    QTRY_VERIFY(fifth->glow()->isVisible());
    auto* grapes = stack->widget(1)->findChild<ArboView*>();
    QVERIFY(ballAt(grapes, "/3")->glow()->isVisible());
    mView = nullptr; // the window's own
}

ARBO_TEST_MAIN(TestDisplay)

#include "tst_display.moc"
