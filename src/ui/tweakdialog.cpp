#include "ui/tweakdialog.h"

#include "display/layoutconstants.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

TweakDialog::TweakDialog(QWidget* parent)
    : QDialog(parent), mLayout(new QVBoxLayout(this)),
      mUpdateButton(new QPushButton(QStringLiteral("Update"), this))
{
    setWindowTitle(QStringLiteral("Tweak Dialog"));
    mUpdateButton->setObjectName(QStringLiteral("updateButton"));
    // Enter in a spin box only confirms the typed value: a dialog's push
    // buttons are pressed by Enter by default, and a redraw must come from a
    // deliberate press of "Update".
    mUpdateButton->setAutoDefault(false);
    mUpdateButton->setDefault(false);
    mLayout->addWidget(mUpdateButton);
    connect(mUpdateButton, &QPushButton::clicked, this, &TweakDialog::updateTweaks);
}

void TweakDialog::addInt(const QString& name, int* value)
{
    auto* row = new QHBoxLayout;
    auto* label = new QLabel(name, this);
    auto* spinBox = new QSpinBox(this);
    spinBox->setObjectName(name);
    spinBox->setRange(MIN_VALUE, MAX_VALUE);
    spinBox->setValue(*value);
    row->addWidget(label);
    row->addWidget(spinBox);
    // Above the "Update" button, which stays last.
    mLayout->insertLayout(mLayout->count() - 1, row);

    const int index = int(mTweaks.size());
    mTweaks.emplace_back(spinBox, value);
    // A lambda that carries the row number (QSignalMapper is deprecated).
    connect(spinBox, QOverload<int>::of(&QSpinBox::valueChanged), this,
            [this, index] { valueChanged(index); });
}

void TweakDialog::addLayoutConstants()
{
    for (const LayoutConstants::Entry& entry : LayoutConstants::all()) {
        addInt(QString::fromLatin1(entry.name), entry.value);
    }
}

void TweakDialog::valueChanged(int index)
{
    if (index < 0 || index >= tweakCount()) {
        return;
    }
    const auto& tweak = mTweaks[size_t(index)];
    *tweak.second = tweak.first->value();
}

void TweakDialog::updateTweaks()
{
    emit updateRequested();
}
