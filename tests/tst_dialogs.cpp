// The tweak dialog on the real layout constants, and the diagnostics dialog
// fed by the application's real message handler from several threads.

#include "app/tuningarboapplication.h"
#include "display/layoutconstants.h"
#include "testsupport.h"
#include "ui/diagnosticsdialog.h"
#include "ui/tweakdialog.h"

#include <QLoggingCategory>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QThread>

#include <thread>

namespace {

const QString STAMP = QStringLiteral("\\[\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d\\] ");

// Logs `text` at debug level on a thread of its own and waits for it: a
// QThread as the wand listener runs on, or a plain thread as the sound
// library's audio callback runs on.
void logOnQThread(const QString& text)
{
    QThread* thread = QThread::create([text] { qDebug().noquote() << text; });
    thread->start();
    thread->wait();
    delete thread;
}

void logOnPlainThread(const QString& text)
{
    std::thread thread([text] { qDebug().noquote() << text; });
    thread.join();
}

} // namespace

class TestDialogs : public QObject
{
    Q_OBJECT

public:
    explicit TestDialogs(TuningArboApplication* app) : mApp(app) {}

private slots:
    void initTestCase() { QVERIFY(mApp->mLog.open(mDir.filePath("log.txt"))); }
    void cleanup()
    {
        LayoutConstants::resetToDefaults();
        setFlags({});
    }

    // A change goes into the constant at once, but only "Update" asks for a
    // redraw; typed values beyond ±1000 are held to the range.
    void tweakWritesAtOnceAndUpdatesOnlyOnTheButton()
    {
        TweakDialog dialog;
        dialog.addLayoutConstants();
        dialog.show();
        QSignalSpy update(&dialog, &TweakDialog::updateRequested);
        QSpinBox* strut = dialog.findChild<QSpinBox*>("STRUT_3_LENGTH");
        QVERIFY(strut);
        strut->setValue(100);
        QCOMPARE(STRUT_3_LENGTH, 100);
        QCOMPARE(STRUT_2_LENGTH, 113); // the other constants stay
        QCOMPARE(update.count(), 0);
        QTest::mouseClick(dialog.updateButton(), Qt::LeftButton);
        QCOMPARE(update.count(), 1);

        // Enter in a spin box does not press "Update".
        QSpinBox* angle = dialog.findChild<QSpinBox*>("ANGLE_2_PLUS");
        angle->setFocus();
        angle->selectAll();
        QTest::keyClicks(angle, "5000");
        QTest::keyClick(angle, Qt::Key_Enter);
        QVERIFY(angle->value() <= 1000);
        QCOMPARE(ANGLE_2_PLUS, angle->value());
        angle->setValue(-3000);
        QCOMPARE(ANGLE_2_PLUS, -1000);
        QCOMPARE(update.count(), 1);

        // An int out of range is shown held, but left as it is until edited.
        int outside = 1500;
        dialog.addInt("OUTSIDE", &outside);
        QCOMPARE(dialog.spinBox(22)->value(), 1000);
        QCOMPARE(outside, 1500);
        dialog.spinBox(22)->setValue(999);
        QCOMPARE(outside, 999);
    }

    // With "all", lines logged in turn by the GUI thread, a QThread and a
    // plain thread arrive in the order they were logged, each a paragraph of
    // its own, whether the dialog is shown or not; nothing logged before the
    // dialog existed. A line of the GUI thread does not overtake the other
    // threads' lines that are still on their way.
    void linesFromEveryThreadArriveInOrder()
    {
        setFlags({"all"});
        qDebug("before the dialog");
        DiagnosticsDialog dialog;
        connect(mApp, &TuningArboApplication::diagnosticMessage, &dialog,
                &DiagnosticsDialog::onMessage, Qt::QueuedConnection);
        QStringList expected;
        for (int round = 0; round < 3; ++round) {
            const QString gui = QStringLiteral("gui %1").arg(round);
            const QString listener = QStringLiteral("listener %1").arg(round);
            const QString audio = QStringLiteral("audio %1").arg(round);
            qDebug().noquote() << gui;
            logOnQThread(listener);
            logOnPlainThread(audio);
            expected << gui << listener << audio;
            if (round == 1) {
                dialog.show();
            }
        }
        qWarning("last from the gui");
        expected << "last from the gui";

        QTRY_COMPARE(dialog.textBox()->blockCount(), expected.size());
        const QStringList lines = dialog.textBox()->toPlainText().split('\n');
        QCOMPARE(lines.size(), expected.size());
        for (int i = 0; i < lines.size(); ++i) {
            QVERIFY2(QRegularExpression("^" + STAMP + " " +
                                        QRegularExpression::escape(expected.at(i)) + "$")
                         .match(lines.at(i))
                         .hasMatch(),
                     qPrintable(lines.at(i)));
        }

        // Many lines at once from a worker: every one is kept.
        QThread* flood = QThread::create([] {
            for (int i = 0; i < 5000; ++i) {
                qDebug("flood %d", i);
            }
        });
        flood->start();
        QVERIFY(flood->wait(30000));
        delete flood;
        QTRY_COMPARE(dialog.textBox()->blockCount(), expected.size() + 5000);
        QVERIFY(dialog.text().endsWith(" flood 4999"));
    }

private:
    // As if the words had been given on the command line.
    void setFlags(const QSet<QString>& flags)
    {
        mApp->mLog.mFlags = flags;
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, !flags.isEmpty());
    }

    TuningArboApplication* mApp;
    QTemporaryDir mDir;
};

int main(int argc, char** argv)
{
    TestSupport::isolateHome();
    qputenv("QT_QPA_PLATFORM", "offscreen");
    int count = 1;
    TuningArboApplication app(count, argv);
    TestDialogs test(&app);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_dialogs.moc"
