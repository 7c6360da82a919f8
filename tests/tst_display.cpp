// The lattice display with real widgets (offscreen), the real lattice, and the
// real player and Sine patch. The test thread plays the audio thread: it
// drains the player's command buffers and runs libpd in 256-frame buffers, as
// the audio callback does.

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

namespace {

using TestSupport::ballAt;

#define COMPARE_POINT(actual, expected)                                                            \
    QVERIFY2(QLineF(actual, expected).length() < 0.01,                                             \
             qPrintable(QStringLiteral("(%1, %2)").arg((actual).x()).arg((actual).y())))

} // namespace

class TestDisplay : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        OfflinePlayer::setUp(mPlayer, mArbo, "Sine.pd");
        QVERIFY(!QTest::currentTestFailed());
    }

    void init()
    {
        LayoutConstants::resetToDefaults();
        ArboLeavesWidget::clearPositionTables();
        mSettings.mAbsRelView = 0;
    }

    void cleanup()
    {
        delete mView;
        mView = nullptr;
        const ArboEvent stopAll(ArboEvent::AllNotesOff, 1.0f);
        const ArboEvent untranspose(ArboEvent::Transpose, 0.0f);
        mPlayer.queueEventGui(&stopAll);
        mPlayer.queueEventGui(&untranspose);
        render();
        QTRY_VERIFY(mArbo.playingRatios().isEmpty() && mArbo.transposeSteps().isEmpty());
    }


    void latticeFitsTheViewAndFollowsItsConstants()
    {
        buildView(ArboLeavesWidget::Grapes);
        const QList<ArboBallWidget*>& balls = mView->arboWidget()->balls();
        // The root last, drawn over its branches and leaves.
        QCOMPARE(balls.last()->node(), mArbo.root());
        // The whole lattice fits in the view, glows included: nothing is cut at
        // the edges when an outer ball sounds.
        const QRectF shown = mView->mapToScene(mView->viewport()->rect()).boundingRect();
        QVERIFY(shown.contains(mView->sceneRect().adjusted(1, 1, -1, -1)));
        for (const ArboBallWidget* ball : balls) {
            COMPARE_POINT(ball->disc()->sceneBoundingRect().center(), ball->scenePos());
            QVERIFY(mView->sceneRect().contains(ball->glow()->sceneBoundingRect()));
        }

        // Changed constants (a layout tweak) move the balls after a rebuild,
        // once the leaf tables are cleared: +3 at 45° up, the flowers 50 units
        // above and below, a ring of radius 20 (5 at 140°).
        buildView(ArboLeavesWidget::Circles);
        STRUT_3_LENGTH = 100;
        LEAVES_PLUS_OFFSET_Y = -50;
        LEAVES_RADIUS = 20;
        ArboLeavesWidget::clearPositionTables();
        mView->buildScene(ArboLeavesWidget::Circles);
        COMPARE_POINT(ballAt(mView, "/3")->scenePos(), QPointF(70.711, -70.711));
        COMPARE_POINT(ballAt(mView, "/23")->scenePos(), QPointF(0, -50));
        const double a = 140 * M_PI / 180;
        COMPARE_POINT(ballAt(mView, "/-5")->scenePos(),
                      QPointF(0, 50) + QPointF(20 * std::cos(a), -20 * std::sin(a)));
    }

    void clickPlaysTheBallsNoteAndClickAgainStopsIt()
    {
        buildView(ArboLeavesWidget::Grapes);
        ArboBallWidget* fifth = ballAt(mView, "/3");
        QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);

        // A click on the main ball plays its ratio (the player's tests measure
        // the pitch of a ratio); the engine's answer lights the ball.
        click(fifth);
        render();
        QCOMPARE(toggled.size(), 1);
        QCOMPARE(toggled.at(0).at(0).value<ArboRatio>(), ArboRatio(3, 2));
        QTRY_VERIFY(fifth->node()->isPlaying());
        QVERIFY(fifth->glow()->isVisible());

        // A leaf inside its cluster: 3/2 × 5/4.
        ArboBallWidget* leaf = ballAt(mView, "/3/5");
        click(leaf);
        render();
        QCOMPARE(toggled.size(), 2);
        QCOMPARE(toggled.at(1).at(0).value<ArboRatio>(), ArboRatio(15, 8));
        QTRY_VERIFY(leaf->node()->isPlaying());

        // Right and middle clicks, and the double click's second press, toggle
        // nothing.
        click(fifth, Qt::RightButton);
        click(fifth, Qt::MiddleButton);
        render();
        QCOMPARE(toggled.size(), 2);
        QCOMPARE(mPlayer.soundingNoteCount(), 2);

        // Clicked again, both stop.
        click(fifth);
        click(leaf);
        render();
        QCOMPARE(toggled.size(), 4);
        QCOMPARE(toggled.at(2).at(1).toBool(), false);
        QCOMPARE(toggled.at(3).at(1).toBool(), false);
        QTRY_VERIFY(!fifth->node()->isPlaying() && !leaf->node()->isPlaying());
        QVERIFY(!fifth->glow()->isVisible());

        // A double click is one toggle, not two.
        QTest::mouseDClick(mView->viewport(), Qt::LeftButton, Qt::NoModifier,
                           mView->mapFromScene(fifth->scenePos()));
        render();
        QCOMPARE(toggled.size(), 5);
    }

    void colourRules()
    {
        buildView(ArboLeavesWidget::Circles);
        ArboBallWidget* root = ballAt(mView, "/");
        ArboBallWidget* fifth = ballAt(mView, "/3");
        ArboBall* fifthNode = const_cast<ArboBall*>(fifth->node());
        ArboBall* rootNode = mArbo.root();
        const QColor fifthColour = fifthNode->color();
        auto fill = [](ArboBallWidget* ball) { return ball->disc()->brush().color(); };

        // Playing: brightened, with a glow.
        QVERIFY(!fifth->glow()->isVisible());
        fifthNode->setPlaying(true);
        QCOMPARE(fill(fifth), fifthColour.lighter(BALL_BRIGHTEN_FACTOR));
        QVERIFY(fifth->glow()->isVisible());

        // The root is emphasised: its colour itself.
        rootNode->setPlaying(true);
        QCOMPARE(fill(root), mArbo.lookupColor(1));

        // Transposed, the root turns grey, still emphasised.
        transpose(5);
        mView->updateArboBalls();
        rootNode->setPlaying(true);
        QCOMPARE(fill(root), QColor(158, 158, 158));
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
    }

    void disabledPrimeHidesBallsAndStruts()
    {
        buildView(ArboLeavesWidget::Grapes);
        ArboBallWidget* fifth = ballAt(mView, "/3");
        QList<ArboStrutWidget*> fifthStruts = fifth->struts();
        QVERIFY(fifthStruts.size() >= 2);

        // Prime 3 off: every node reached by a step of 3 goes, with all of its
        // struts, even those whose other end (the root) stays. (Which balls
        // stay is the main window test's.)
        const ArboEvent primeThree(ArboEvent::PrimeToggle, 3.0f);
        mPlayer.queueEventGui(&primeThree);
        render();
        QTRY_VERIFY(!fifth->isVisible());
        for (ArboStrutWidget* strut : fifthStruts) {
            QVERIFY(!strut->isVisible());
        }
        QVERIFY(ballAt(mView, "/")->isVisible() && !ballAt(mView, "/2/3/3")->isVisible());

        // A hidden ball takes no click: the click falls on the empty view.
        QSignalSpy toggled(&mPlayer, &PdPlayer::noteToggled);
        click(fifth);
        render();
        QCOMPARE(toggled.size(), 0);

        mPlayer.queueEventGui(&primeThree);
        render();
        QTRY_VERIFY(fifth->isVisible());
        for (ArboStrutWidget* strut : fifthStruts) {
            QVERIFY(strut->isVisible());
        }
    }

    void mainWindowSwitchesBetweenTheDrawings()
    {
        mSettings.mCirclesView = true;
        MainWindow window(OfflinePlayer::parts(mPlayer, mArbo, mSettings));
        window.resize(1000, 700);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        auto* stack = window.findChild<QStackedWidget*>(QStringLiteral("centralStack"));
        QVERIFY(stack && window.isCirclesViewShown());
        QCOMPARE(window.arboView()->arboWidget()->view(), ArboLeavesWidget::Circles);

        // The link label: "Grapes" first, "Flowers" after the bar.
        auto* switcher = window.findChild<QLabel*>(QStringLiteral("viewSwitcher"));
        QVERIFY(switcher && switcher->isVisible());
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
        QCOMPARE(window.childAt(point), mView->viewport());
        click(fifth);
        render();
        QTRY_VERIFY(fifth->glow()->isVisible());
        auto* grapes = stack->widget(1)->findChild<ArboView*>();
        QVERIFY(ballAt(grapes, "/3")->glow()->isVisible());
        mView = nullptr; // the window's own
    }


private:
    void buildView(ArboLeavesWidget::View style)
    {
        delete mView;
        mView = new ArboView;
        mView->init(style, &mArbo, nullptr, &mPlayer, mSettings);
        mView->resize(900, 700);
        mView->show();
        QVERIFY(QTest::qWaitForWindowExposed(mView));
    }

    // Runs a buffer of the player as the audio callback would.
    void render() { OfflinePlayer::runBuffer(mPlayer); }

    void click(ArboBallWidget* ball, Qt::MouseButton button = Qt::LeftButton)
    {
        QVERIFY(ball);
        const QPoint point = mView->mapFromScene(ball->scenePos());
        QTest::mouseClick(mView->viewport(), button, Qt::NoModifier, point);
    }

    void transpose(int step)
    {
        const ArboEvent event(ArboEvent::Transpose, float(step));
        const int before = mArbo.transposeSteps().size();
        mPlayer.queueEventGui(&event);
        render();
        QTRY_COMPARE(mArbo.transposeSteps().size(), before + 1);
    }


    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    ArboView* mView = nullptr;
};


ARBO_TEST_MAIN(TestDisplay)

#include "tst_display.moc"
