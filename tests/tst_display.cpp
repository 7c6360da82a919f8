// The lattice display and its note cards with real widgets (offscreen) in a
// real lattice layer, the real lattice, and the real player with the Sine
// patch driven offline: the test thread drains the player's command buffers
// and runs libpd as the audio callback would, so notes start and stop exactly
// as in the program.

#include "display/arboballwidget.h"
#include "display/arbolayer.h"
#include "display/arbostrutwidget.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "display/cardconnectoroverlay.h"
#include "display/cardstackwidget.h"
#include "display/cardwidget.h"
#include "display/layoutconstants.h"
#include "model/arbo.h"
#include "model/arboball.h"
#include "model/arboevent.h"
#include "model/arbonoteevent.h"
#include "offlineplayer.h"
#include "settings/paths.h"
#include "settings/settings.h"
#include "sound/pdplayer.h"
#include "testsupport.h"
#include "ui/mainwindow.h"

#include <QGraphicsEllipseItem>
#include <QLabel>
#include <QStackedWidget>
#include <QSvgRenderer>
#include <QSvgWidget>

#include <cmath>
#include <memory>

namespace {

using TestSupport::ballAt;

#define COMPARE_POINT(actual, expected)                                                            \
    QVERIFY2(QLineF(actual, expected).length() < 0.01,                                             \
             qPrintable(QStringLiteral("(%1, %2)").arg((actual).x()).arg((actual).y())))

QString label(const CardWidget* card, const char* name)
{
    auto* found = card->findChild<QLabel*>(QString::fromLatin1(name));
    return found ? found->text() : QStringLiteral("<no %1>").arg(QLatin1String(name));
}

// What a card reads: note, octave, cents, frequency and ratio.
QString readout(const CardWidget* card)
{
    QStringList parts;
    for (const char* name : {"noteLabel", "octaveLabel", "centsLabel", "freqLabel", "ratioLabel"}) {
        parts << label(card, name);
    }
    return parts.join(QLatin1Char(' '));
}

bool labelShown(const CardWidget* card, const char* name)
{
    auto* found = card->findChild<QLabel*>(QString::fromLatin1(name));
    return found && !found->isHidden();
}

QString hex(const QColor& color)
{
    return color.name(QColor::HexRgb);
}

} // namespace

class TestDisplay : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        OfflinePlayer::setUp(mPlayer, mArbo, "Sine.pd");
        QVERIFY(!QTest::currentTestFailed());
        connect(&mPlayer, &PdPlayer::noteToggled, this, [this](const ArboRatio& ratio, bool on) {
            mToggles << ratio.toString() + (on ? " on" : " off");
        });
    }

    void init()
    {
        LayoutConstants::resetToDefaults();
        ArboLeavesWidget::clearPositionTables();
        mSettings.mAbsRelView = 0;
        buildView(ArboLeavesWidget::Grapes);
        mToggles.clear();
    }

    void cleanup()
    {
        queue(ArboEvent(ArboEvent::AllNotesOff, 1.0f));
        queue(ArboEvent(ArboEvent::Transpose, 0.0f));
        queue(ArboEvent(ArboEvent::BaseFrequency, 440.0f));
        QTRY_VERIFY(mArbo.playingRatios().isEmpty() && mArbo.transposeSteps().isEmpty() &&
                    mArbo.baseFrequency() == 440.0f);
        QTRY_VERIFY(stack()->cards().isEmpty());
        mLayer.reset();
    }

    void rootAndFifthReadAsNotes()
    {
        ArboBallWidget* rootBall = ballAt(view(), "/");
        ArboBallWidget* fifthBall = ballAt(view(), "/3");
        click(rootBall);
        click(fifthBall);
        QTRY_COMPARE(stack()->cards().size(), 2);

        // The root at 440 Hz, named "A 4".
        CardWidget* root = stack()->cardForBall(rootBall);
        QVERIFY(root && root->isVisible());
        QCOMPARE(readout(root), QStringLiteral("A 4 0 440.000 Hz 1/1"));
        QVERIFY(!labelShown(root, "enharmonicLabel") && !labelShown(root, "octaveShiftLabel"));
        // No accidental for a natural; clef and note head drawn.
        const auto drawn = [root](const char* name) {
            return root->findChild<QSvgWidget*>(name)->isVisible();
        };
        QVERIFY(!drawn("accidentalSvg") && drawn("clefSvg") && drawn("noteSvg"));

        // The just fifth, 1.955 cents above E5 (the spelling and cents of
        // whole lattice paths are checked in the notation test).
        QCOMPARE(readout(stack()->cardForBall(fifthBall)), QStringLiteral("E 5 +2 660.000 Hz 3/2"));

        // Transposed a fifth up, the cards hang on the balls that now stand for
        // the sounding pitches (followed through in playerStartsStopsAndRespellsCards);
        // the readout mode chooses the ratio's form, once the cards are rebuilt.
        queue(ArboEvent(ArboEvent::Transpose, 3.0f));
        QTRY_VERIFY(cardOf("/-3") && cardOf("/"));
        QCOMPARE(label(cardOf("/-3"), "ratioLabel"), QStringLiteral("2/3"));
        mSettings.mAbsRelView = 1;
        view()->updateCardStack();
        QCOMPARE(label(cardOf("/-3"), "ratioLabel"), QStringLiteral("1/1"));
        QCOMPARE(label(cardOf("/"), "ratioLabel"), QStringLiteral("3/2"));
        mSettings.mAbsRelView = 0;
        view()->updateCardStack();
        QCOMPARE(label(cardOf("/"), "ratioLabel"), QStringLiteral("1/1"));
    }

    void staffClefsLedgersAndOctaveMarks()
    {
        // A card for a node made here, of the test's lattice, as words: the
        // clef, the note head's position (half a spacing per step down from
        // the top line, where the head is drawn), the note, the ledger lines
        // (in spacings from the top line) and the octave mark.
        auto staff = [this](const char* path) {
            ArboBall node(ArboPath(QString::fromLatin1(path)), QColor(Qt::red), mArbo.root());
            CardWidget card(&node, mSettings, stack());
            card.adjustSize();
            card.show();
            const QList<int> lines = card.staffLines();
            const qreal spacing = CardWidget::LINE_SPACING;
            QStringList ledgers;
            for (int y : card.ledgerLines()) {
                ledgers << QString::number((y - lines[0]) / spacing);
            }
            const bool headPlaced =
                card.noteHeadCentre().y() == lines[0] + card.staffPosition() * spacing;
            return QStringLiteral("%1 %2%3 %4 [%5] %6")
                .arg(card.isTreble() ? "treble" : "bass")
                .arg(card.staffPosition())
                .arg(headPlaced ? "" : " (head elsewhere)")
                .arg(label(&card, "noteLabel"), ledgers.join(' '),
                     labelShown(&card, "octaveShiftLabel") ? label(&card, "octaveShiftLabel") : "");
        };
        // A3 takes the bass clef, A4 the treble.
        QCOMPARE(staff("/-2"), QStringLiteral("bass 0 A [] "));
        QCOMPARE(staff("/"), QStringLiteral("treble 2.5 A [] "));
        // 55 Hz (A1) lies further below than the card has room for and is
        // drawn an octave up, in the bass staff's lowest space.
        QCOMPARE(staff("/-2/-2/-2"), QStringLiteral("bass 3.5 A [] 8"));
        // Three fifths down and an octave up from A4 (260.7 Hz, C4 -6 cents)
        // sits on one ledger line below the treble staff.
        QCOMPARE(staff("/-3/-3/-3/2"), QStringLiteral("treble 5 C [5] "));
        // Two octaves above A5 (A7, 3520 Hz) is drawn two octaves down: "15".
        QCOMPARE(staff("/2/2/2"), QStringLiteral("treble -1 A [-1] 15"));

        // An accidental is drawn left of the note head: 5/4 above A4 is C#5.
        ArboBall node(ArboPath(QStringLiteral("/5")), QColor(Qt::red), mArbo.root());
        CardWidget cSharp(&node, mSettings, stack());
        cSharp.adjustSize();
        cSharp.show();
        QCOMPARE(cSharp.note().accidental(), 1);
        const QSvgWidget* sharp = cSharp.findChild<QSvgWidget*>("accidentalSvg");
        const QRect head = cSharp.findChild<QSvgWidget*>("noteSvg")->geometry();
        QVERIFY(!sharp->isHidden() && sharp->geometry().right() < head.left());
        QVERIFY(std::abs(sharp->geometry().center().y() - head.center().y()) <= 1);
    }

    void cardsFollowTheirBallsAndStayInsideTheView()
    {
        // The highest, a middle and the lowest ball.
        const QList<ArboBallWidget*>& balls = view()->arboWidget()->balls();
        const auto byHeight = std::minmax_element(balls.begin(), balls.end(), [](auto* a, auto* b) {
            return a->scenePos().y() < b->scenePos().y();
        });
        ArboBallWidget* top = *byHeight.first;
        ArboBallWidget* bottom = *byHeight.second;
        ArboBallWidget* middle = ballAt(view(), "/");
        for (ArboBallWidget* ball : {top, middle, bottom}) {
            click(ball);
        }
        QTRY_COMPARE(stack()->cards().size(), 3);

        auto check = [this, top, middle, bottom]() {
            const int viewHeight = view()->height();
            // Level with the ball where there is room.
            const CardWidget* card = stack()->cardForBall(middle);
            const int ballY = view()->mapFromScene(middle->scenePos()).y();
            QCOMPARE(card->y(), ballY - card->height() / 2);
            // Near the bottom: held 12 units above the view's bottom edge.
            card = stack()->cardForBall(bottom);
            const int lowY = view()->mapFromScene(bottom->scenePos()).y();
            QVERIFY(lowY + card->height() / 2 > viewHeight - 12);
            QCOMPARE(card->y() + card->height(), viewHeight - 12);
            // Near the top: not above the view.
            card = stack()->cardForBall(top);
            QVERIFY(view()->mapFromScene(top->scenePos()).y() - card->height() / 2 < 0);
            QCOMPARE(card->y(), 0);

            // Each connector runs from the rim of its playing ball to the middle
            // of its card's left edge.
            const CardConnectorOverlay* overlay =
                mLayer->findChild<CardConnectorOverlay*>(QString(), Qt::FindDirectChildrenOnly);
            QVERIFY(overlay);
            QCOMPARE(overlay->geometry(), mLayer->rect());
            QCOMPARE(overlay->connectorCount(), 3);
            const qreal scale = view()->transform().m11();
            const auto onOverlay = [&](const QWidget* widget, const QPoint& point) {
                return QPointF(overlay->mapFrom(mLayer.get(), widget->mapTo(mLayer.get(), point)));
            };
            for (ArboBallWidget* ball : {top, middle, bottom}) {
                const QLineF line = overlay->connectorLine(ball);
                const QPointF centre =
                    onOverlay(view()->viewport(), view()->mapFromScene(ball->scenePos()));
                const double fromCentre = QLineF(centre, line.p1()).length();
                QVERIFY2(!line.isNull() && std::abs(fromCentre - ball->playingRadius() * scale) < 0.01,
                         qPrintable(QString::number(fromCentre)));
                const CardWidget* c = stack()->cardForBall(ball);
                QCOMPARE(line.p2(), onOverlay(c, QPoint(0, c->height() / 2)));
            }
        };
        check();
        // Resized, the lattice is fitted anew; cards and lines follow.
        mLayer->resize(900, 520);
        QTRY_COMPARE(view()->height(), 520 - 12);
        check();
    }

    void playerStartsStopsAndRespellsCards()
    {
        // A click starts the note and its card; a second click removes both.
        ArboBallWidget* fifth = ballAt(view(), "/3");
        click(fifth);
        QTRY_VERIFY(stack()->cardForBall(fifth));
        click(fifth);
        QTRY_VERIFY(!fifth->node()->isPlaying());
        QVERIFY(!stack()->cardForBall(fifth));
        QCOMPARE(stack()->findChildren<CardWidget*>().size(), 0);

        // A wand's toggle arrives on the other ring, the same way.
        const ArboNoteEvent wandThird{ArboPath(QStringLiteral("/5"))};
        mPlayer.queueEventSerial(&wandThird);
        render();
        QTRY_VERIFY(cardOf("/5"));
        QCOMPARE(readout(cardOf("/5")), QStringLiteral("C 5 -14 550.000 Hz 5/4"));

        // Transposed a fifth down, the C# goes on sounding as 15/8 of the new
        // root: its card now hangs on that ball, spelled by the walk A, D, A, C#.
        queue(ArboEvent(ArboEvent::Transpose, -3.0f));
        QTRY_VERIFY(cardOf("/3/5"));
        QVERIFY(!cardOf("/5"));
        QCOMPARE(stack()->findChildren<CardWidget*>().size(), 1);
        QCOMPARE(readout(cardOf("/3/5")), QStringLiteral("C 5 -14 550.000 Hz 15/8"));
        QCOMPARE(cardOf("/3/5")->note().accidental(), 1);

        // A new base frequency: the rebuilt card tells the new pitch,
        // 432 × 2/3 × 15/8 = 540 Hz, 45 cents below C#5.
        queue(ArboEvent(ArboEvent::BaseFrequency, 432.0f));
        QTRY_COMPARE(mArbo.baseFrequency(), 432.0f);
        view()->updateCardStack();
        QCOMPARE(stack()->findChildren<CardWidget*>().size(), 1);
        QCOMPARE(readout(cardOf("/3/5")), QStringLiteral("C 5 -45 540.000 Hz 15/8"));

        // Prime 5 switched off: the note's card goes while the note plays on;
        // switched on again, it comes back.
        click(ballAt(view(), "/"));
        QTRY_COMPARE(stack()->cards().size(), 2);
        queue(ArboEvent(ArboEvent::PrimeToggle, 5.0f));
        QTRY_VERIFY(!cardOf("/3/5"));
        QVERIFY(ballAt(view(), "/3/5")->node()->isPlaying());
        QVERIFY(cardOf("/"));
        QCOMPARE(stack()->findChildren<CardWidget*>().size(), 1);
        queue(ArboEvent(ArboEvent::PrimeToggle, 5.0f));
        QTRY_VERIFY(cardOf("/3/5"));
        // Prime 3 switched off: the ball of 3 goes with all of its struts,
        // even the one whose other end (the root) stays, and takes no click.
        // (Which balls stay is the main window test's.)
        ArboBallWidget* three = ballAt(view(), "/3");
        const auto strutsShown = [three] {
            const QList<ArboStrutWidget*> struts = three->struts();
            return std::count_if(struts.begin(), struts.end(), [](auto* s) { return s->isVisible(); });
        };
        queue(ArboEvent(ArboEvent::PrimeToggle, 3.0f));
        QTRY_VERIFY(!three->isVisible());
        QVERIFY(three->struts().size() >= 2 && strutsShown() == 0);
        const int toggles = mToggles.size();
        click(three);
        QCOMPARE(mToggles.size(), toggles);
        queue(ArboEvent(ArboEvent::PrimeToggle, 3.0f));
        QTRY_VERIFY(three->isVisible());
        QCOMPARE(strutsShown(), three->struts().size());

        // Rebuilding the scene (after a tweak) keeps the sounding notes' cards,
        // joined to the new balls; the old ones leave nothing behind.
        view()->buildScene(ArboLeavesWidget::Grapes);
        QCOMPARE(stack()->cards().size(), 2);
        QVERIFY(cardOf("/3/5") && cardOf("/"));
        QCOMPARE(stack()->findChildren<CardWidget*>().size(), 2);
    }

    void hoverRaisesAndRebuildKeepsTheOrder()
    {
        for (const char* path : {"/", "/3", "/2"}) {
            click(ballAt(view(), QString::fromLatin1(path)));
        }
        QTRY_COMPARE(stack()->cards().size(), 3);
        auto frontmost = [this] {
            return stack()->findChildren<CardWidget*>(QString(), Qt::FindDirectChildrenOnly).last();
        };
        // The cards' paths, front to back.
        auto order = [this] {
            QMap<int, QString> paths;
            for (auto it = stack()->cards().constBegin(); it != stack()->cards().constEnd(); ++it) {
                paths.insert(it.value()->cardHirarchy(), it.key()->node()->path().toString());
            }
            return QStringList(paths.values()).join(QLatin1Char(' '));
        };
        // Piled by height, the lowest in front: the root's card lies lowest,
        // the octave's highest.
        QVERIFY(cardOf("/2")->y() < cardOf("/3")->y() && cardOf("/3")->y() < cardOf("/")->y());
        QCOMPARE(order(), QStringLiteral("/ /3 /2"));
        QCOMPARE(frontmost(), cardOf("/"));

        // The mouse entering a card brings it to the front.
        QEvent enter(QEvent::Enter);
        QCoreApplication::sendEvent(cardOf("/2"), &enter);
        QCOMPARE(frontmost(), cardOf("/2"));
        QCOMPARE(order(), QStringLiteral("/2 / /3"));

        // A ball's hover raises its card through the stack.
        click(ballAt(view(), "/3/5"));
        QTRY_VERIFY(cardOf("/3/5"));
        QCOMPARE(stack()->cards().size(), 4);
        stack()->raiseCardForBall(ballAt(view(), "/3"));
        QCOMPARE(frontmost(), cardOf("/3"));

        // A rebuild keeps the order front to back.
        const QString before = order();
        view()->updateCardStack();
        QCOMPARE(frontmost(), cardOf("/3"));
        QCOMPARE(order(), before);
    }

    void cardsChangeInPlace()
    {
        // The cards by their balls' paths, with where they stand.
        const auto cards = [this] {
            QMap<QString, QPair<const CardWidget*, QRect>> shown;
            for (auto it = stack()->cards().constBegin(); it != stack()->cards().constEnd(); ++it) {
                shown.insert(it.key()->node()->path().toString(),
                             {it.value(), it.value()->geometry()});
            }
            return shown;
        };
        for (const char* path : {"/", "/3", "/3/5"}) {
            click(ballAt(view(), QString::fromLatin1(path)));
        }
        QTRY_COMPARE(stack()->cards().size(), 3);
        const auto chord = cards();

        // A note on and off among them makes and removes its own card only:
        // the others stay the same widgets in the same places.
        click(ballAt(view(), "/5"));
        QTRY_VERIFY(cardOf("/5"));
        auto withThird = cards();
        withThird.remove("/5");
        QCOMPARE(withThird, chord);
        click(ballAt(view(), "/5"));
        QTRY_VERIFY(!cardOf("/5"));
        QCOMPARE(cards(), chord);

        // Transposed a fifth up, each card goes with its note to the ball
        // that now stands for it, the same widget with the same labels, and
        // reads the new ratio; a new base frequency rewrites it in place.
        const CardWidget* root = chord["/"].first;
        const QList<QLabel*> labels = root->findChildren<QLabel*>();
        queue(ArboEvent(ArboEvent::Transpose, 3.0f));
        QTRY_COMPARE(cardOf("/-3"), root);
        QVERIFY(cardOf("/") == chord["/3"].first && cardOf("/5") == chord["/3/5"].first);
        QCOMPARE(root->findChildren<QLabel*>(), labels);
        QCOMPARE(label(root, "ratioLabel"), QStringLiteral("2/3"));
        queue(ArboEvent(ArboEvent::BaseFrequency, 432.0f));
        QTRY_COMPARE(mArbo.baseFrequency(), 432.0f);
        view()->updateCardStack();
        QCOMPARE(cardOf("/-3"), root);
        QCOMPARE(label(root, "freqLabel"), QStringLiteral("432.000 Hz"));
        QCOMPARE(stack()->findChildren<CardWidget*>().size(), 3);
    }

    void symbolsAreRecolouredAndMissingOnesAreSurvived()
    {
        // The seven symbols the build drew from the engraving font: each a
        // valid SVG in black, ready to be recoloured.
        for (int s = 0; s < CardStackWidget::SYMBOL_COUNT; ++s) {
            const QByteArray& bytes = stack()->svg(CardStackWidget::Symbol(s));
            QVERIFY2(bytes.contains("fill:#000000"),
                     qPrintable(CardStackWidget::symbolFileName(CardStackWidget::Symbol(s))));
            QSvgRenderer renderer(bytes);
            QVERIFY(renderer.isValid() && !renderer.viewBoxF().isEmpty());
        }

        // Black fills and strokes take the node's colour: a leaf of 7 the
        // colour of 7, the root the root's.
        const ArboBall* leaf = ballAt(view(), "/3/7")->node();
        const auto recoloured = [](QByteArray bytes, const ArboBall* node, bool absolute) {
            CardWidget::changeSvgColor(&bytes, node, absolute);
            return QString::fromLatin1(bytes);
        };
        const QString drawing("<path style=\"fill:%1;stroke:%1\"/><path style=\"stroke:%1;fill:%1\"/>");
        const QByteArray black = drawing.arg("#000000").toLatin1();
        const QString seven = hex(mArbo.lookupColor(7));
        QCOMPARE(recoloured(black, leaf, false), drawing.arg(seven));
        QCOMPARE(recoloured(black, mArbo.root(), false), drawing.arg(hex(mArbo.lookupColor(1))));
        // Transposed by 5, the largest step of the walk counts; in an absolute
        // readout the root keeps the root's colour.
        queue(ArboEvent(ArboEvent::Transpose, 5.0f));
        QTRY_COMPARE(mArbo.transposeSteps().size(), 1);
        QCOMPARE(recoloured(black, mArbo.root(), false), drawing.arg(hex(mArbo.lookupColor(5))));
        QCOMPARE(recoloured(black, mArbo.root(), true), drawing.arg(hex(mArbo.lookupColor(1))));
        // Without black, byte for byte the same.
        const QByteArray coloured("<path style=\"fill:#00000a;stroke:#ff0000\" d=\"M0 0\"/>");
        QCOMPARE(recoloured(coloured, leaf, false), QString::fromLatin1(coloured));

        // The note head of a played card is drawn in its colour.
        click(ballAt(view(), "/3/7"));
        QTRY_VERIFY(cardOf("/3/7"));
        const QImage head = cardOf("/3/7")->findChild<QSvgWidget*>("noteSvg")->grab().toImage();
        QCOMPARE(hex(head.pixelColor(head.width() / 2, head.height() / 2)), seven);

        // A missing symbol is reported and left empty...
        const QString missing = QStringLiteral("no-such-symbol.svg");
        QTest::ignoreMessage(QtCriticalMsg, qPrintable("Failed to load " + Paths::resourceDir() +
                                                       "/" + missing + "."));
        QByteArray empty("stale");
        QVERIFY(!CardStackWidget::loadSvgFile(missing, empty));
        QVERIFY(empty.isEmpty());
        // ...and a stack without any symbols still shows its cards, words only.
        CardStackWidget bare;
        bare.show();
        const ArboBallWidget* ball = ballAt(view(), "/3/7");
        bare.showCardForBall(ball);
        CardWidget* card = bare.cardForBall(ball);
        QVERIFY(card && card->isVisible());
        QCOMPARE(label(card, "noteLabel"), QString(cardOf("/3/7")->note().noteLetter()));
        QVERIFY(card->findChild<QSvgWidget*>("noteSvg")->isHidden());
        QVERIFY(card->findChild<QSvgWidget*>("clefSvg")->isHidden());
        bare.hideCardForBall(ball);
        QVERIFY(bare.cards().isEmpty());
    }

    void latticeFitsTheViewAndFollowsItsConstants()
    {
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
        // once the leaf tables are cleared: the flowers 50 units above and
        // below, a ring of radius 20 (5 at 140°). (A longer strut is the main
        // window test's.)
        buildView(ArboLeavesWidget::Circles);
        LEAVES_PLUS_OFFSET_Y = -50;
        LEAVES_RADIUS = 20;
        ArboLeavesWidget::clearPositionTables();
        mView->buildScene(ArboLeavesWidget::Circles);
        COMPARE_POINT(ballAt(mView, "/23")->scenePos(), QPointF(0, -50));
        const double a = 140 * M_PI / 180;
        COMPARE_POINT(ballAt(mView, "/-5")->scenePos(),
                      QPointF(0, 50) + QPointF(20 * std::cos(a), -20 * std::sin(a)));
    }

    void clickPlaysTheBallsNoteAndClickAgainStopsIt()
    {
        // A click on the main ball plays its ratio (the player's tests measure
        // the pitch of a ratio); the engine's answer lights the ball. A leaf
        // inside its cluster: 3/2 × 5/4. Right and middle clicks toggle
        // nothing; clicked again, both stop.
        ArboBallWidget* fifth = ballAt(mView, "/3");
        ArboBallWidget* leaf = ballAt(mView, "/3/5");
        click(fifth);
        QTRY_VERIFY(fifth->node()->isPlaying() && fifth->glow()->isVisible());
        click(leaf);
        QTRY_VERIFY(leaf->node()->isPlaying());
        click(fifth, Qt::RightButton);
        click(fifth, Qt::MiddleButton);
        QCOMPARE(mToggles, (QStringList{"3/2 on", "15/8 on"}));
        click(fifth);
        click(leaf);
        QCOMPARE(mToggles, (QStringList{"3/2 on", "15/8 on", "3/2 off", "15/8 off"}));
        QTRY_VERIFY(!fifth->node()->isPlaying() && !leaf->node()->isPlaying());
        QVERIFY(!fifth->glow()->isVisible());

        // A double click is one toggle, not two.
        QTest::mouseDClick(mView->viewport(), Qt::LeftButton, Qt::NoModifier,
                           mView->mapFromScene(fifth->scenePos()));
        render();
        QCOMPARE(mToggles.size(), 5);
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
        queue(ArboEvent(ArboEvent::Transpose, 5.0f));
        QTRY_COMPARE(mArbo.transposeSteps().size(), 1);
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
        queue(ArboEvent(ArboEvent::Transpose, 7.0f));
        QTRY_COMPARE(mArbo.transposeSteps().size(), 2);
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

    void drawnBallsFollowTheirState()
    {
        // Balls are painted from cached pictures: the pixel at a leaf's centre
        // is its disc's current fill as it starts and stops, at any scale.
        buildView(ArboLeavesWidget::Grapes);
        ArboBallWidget* leaf = ballAt(mView, "/3/7");
        auto* node = const_cast<ArboBall*>(leaf->node());
        QList<QRgb> fills;
        for (bool playing : {false, true, false}) {
            node->setPlaying(playing);
            mView->scale(0.8, 0.8);
            const QImage drawn = mView->viewport()->grab().toImage();
            fills << leaf->disc()->brush().color().rgb();
            QCOMPARE(drawn.pixel(mView->mapFromScene(leaf->scenePos())), fills.last());
        }
        QVERIFY(fills[0] != fills[1] && fills[0] == fills[2]);
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
        QTRY_VERIFY(fifth->glow()->isVisible());
        auto* grapes = stack->widget(1)->findChild<ArboView*>();
        QVERIFY(ballAt(grapes, "/3")->glow()->isVisible());
    }

private:
    // A lattice layer (the view and its cards) drawn in `style`.
    void buildView(ArboLeavesWidget::View style)
    {
        mLayer = std::make_unique<ArboLayer>();
        mLayer->init(style, &mArbo, &mPlayer, mSettings);
        mLayer->resize(1100, 700);
        mLayer->show();
        QVERIFY(QTest::qWaitForWindowExposed(mLayer.get()));
        mView = mLayer->view();
    }
    // Runs a buffer of the player as the audio callback would.
    void render() { OfflinePlayer::runBuffer(mPlayer); }
    void queue(const ArboEvent& event)
    {
        mPlayer.queueEventGui(&event);
        render();
    }
    void click(ArboBallWidget* ball, Qt::MouseButton button = Qt::LeftButton)
    {
        QVERIFY(ball);
        QTest::mouseClick(mView->viewport(), button, Qt::NoModifier,
                          mView->mapFromScene(ball->scenePos()));
        render();
    }
    CardStackWidget* stack() const { return mLayer->cardStack(); }
    ArboView* view() const { return mView; }
    CardWidget* cardOf(const QString& path) const { return stack()->cardForBall(ballAt(mView, path)); }

    PdPlayer mPlayer;
    Arbo mArbo;
    Settings mSettings;
    std::unique_ptr<ArboLayer> mLayer;
    ArboView* mView = nullptr; // the layer's, or a window's
    QStringList mToggles;      // "3/2 on", as the player reported them
};

ARBO_TEST_MAIN(TestDisplay)
#include "tst_display.moc"
