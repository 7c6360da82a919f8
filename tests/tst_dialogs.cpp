// The tweak dialog on the real layout constants (that only its "Update"
// redraws the lattice is the main window test's; the diagnostics dialog is
// the logging test's).

#include "display/layoutconstants.h"
#include "testsupport.h"
#include "ui/tweakdialog.h"

#include <QSignalSpy>
#include <QSpinBox>

class TestDialogs : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { LayoutConstants::resetToDefaults(); }

    // A change goes into its constant at once, the others stay; typed values
    // beyond ±1000 are held to the range, and Enter in a spin box does not
    // press "Update". An int out of range is shown held, but left as it is
    // until edited.
    void tweakWritesAtOnceWithinTheRange()
    {
        TweakDialog dialog;
        dialog.addLayoutConstants();
        dialog.show();
        QSignalSpy update(&dialog, &TweakDialog::updateRequested);
        QSpinBox* angle = dialog.findChild<QSpinBox*>("ANGLE_2_PLUS");
        QVERIFY(angle);
        angle->setFocus();
        angle->selectAll();
        QTest::keyClicks(angle, "5000");
        QTest::keyClick(angle, Qt::Key_Enter);
        QVERIFY(angle->value() <= 1000);
        QCOMPARE(ANGLE_2_PLUS, angle->value());
        angle->setValue(-3000);
        QCOMPARE(ANGLE_2_PLUS, -1000);
        QCOMPARE(STRUT_2_LENGTH, 113);
        QCOMPARE(update.count(), 0);

        int outside = 1500;
        dialog.addInt("OUTSIDE", &outside);
        QSpinBox* last = dialog.spinBox(dialog.tweakCount() - 1);
        QCOMPARE(last->value(), 1000);
        QCOMPARE(outside, 1500);
        last->setValue(999);
        QCOMPARE(outside, 999);
    }
};

ARBO_TEST_MAIN(TestDialogs)

#include "tst_dialogs.moc"
