#include "ui/scenetriggersdialog.h"

#include "scenes/scenebook.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QKeySequenceEdit>
#include <QSpinBox>

namespace {

QSpinBox* controllerBox(const char* name, int value)
{
    auto* box = new QSpinBox;
    box->setObjectName(QLatin1String(name));
    box->setRange(-1, 127);
    // -1 reads as a word: a controller number nobody has to look up.
    box->setSpecialValueText(QObject::tr("none"));
    box->setValue(value);
    return box;
}

} // namespace

SceneTriggersDialog::SceneTriggersDialog(SceneBook* book, QWidget* parent)
    : QDialog(parent), mBook(book)
{
    setObjectName(QStringLiteral("sceneTriggersDialog"));
    setWindowTitle(tr("Scene triggers"));
    const SceneBook::Triggers& triggers = book->triggers();
    mNext = new QKeySequenceEdit(QKeySequence(triggers.nextKey, QKeySequence::PortableText));
    mNext->setObjectName(QStringLiteral("nextKeyEdit"));
    mPrevious =
        new QKeySequenceEdit(QKeySequence(triggers.previousKey, QKeySequence::PortableText));
    mPrevious->setObjectName(QStringLiteral("previousKeyEdit"));
    mModifier = new QComboBox;
    mModifier->setObjectName(QStringLiteral("recallModifierBox"));
    mModifier->addItem(tr("none"), QString());
    for (const char* modifier : {"Alt", "Ctrl+Alt", "Ctrl+Shift", "Meta"}) {
        mModifier->addItem(QString::fromLatin1(modifier), QString::fromLatin1(modifier));
    }
    mModifier->setCurrentIndex(std::max(0, mModifier->findData(triggers.recallModifier)));
    mNextController = controllerBox("nextControllerBox", triggers.nextController);
    mPreviousController = controllerBox("previousControllerBox", triggers.previousController);
    mProgramChange = new QCheckBox(tr("Program Change n recalls scene n + 1"));
    mProgramChange->setObjectName(QStringLiteral("programChangeBox"));
    mProgramChange->setChecked(triggers.programChange);

    auto* form = new QFormLayout(this);
    form->addRow(tr("Next scene key:"), mNext);
    form->addRow(tr("Previous scene key:"), mPrevious);
    form->addRow(tr("Scenes 1 to 10: this with 1 … 9, 0:"), mModifier);
    form->addRow(tr("MIDI controller for the next scene:"), mNextController);
    form->addRow(tr("MIDI controller for the previous scene:"), mPreviousController);
    form->addRow(QString(), mProgramChange);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    form->addRow(buttons);
}

void SceneTriggersDialog::accept()
{
    SceneBook::Triggers triggers;
    triggers.nextKey = mNext->keySequence().toString(QKeySequence::PortableText);
    triggers.previousKey = mPrevious->keySequence().toString(QKeySequence::PortableText);
    triggers.recallModifier = mModifier->currentData().toString();
    triggers.nextController = mNextController->value();
    triggers.previousController = mPreviousController->value();
    triggers.programChange = mProgramChange->isChecked();
    mBook->setTriggers(triggers);
    QDialog::accept();
}
