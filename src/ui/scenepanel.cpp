#include "ui/scenepanel.h"

#include "scenes/scenebook.h"
#include "ui/scenecontroller.h"

#include <QAbstractItemModel>
#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

QPushButton* button(const QString& name, const QString& text, const QString& tip)
{
    auto* b = new QPushButton(text);
    b->setObjectName(name);
    b->setToolTip(tip);
    return b;
}

} // namespace

ScenePanel::ScenePanel(SceneBook* book, SceneController* scenes, QWidget* parent)
    : QDockWidget(tr("Scenes"), parent), mBook(book), mScenes(scenes)
{
    setObjectName(QStringLiteral("scenePanel"));
    toggleViewAction()->setToolTip(tr("Show or hide the scenes panel"));
    auto* body = new QWidget(this);
    auto* layout = new QVBoxLayout(body);

    auto* listRow = new QHBoxLayout;
    mListMenu = new QComboBox;
    mListMenu->setObjectName(QStringLiteral("setListMenu"));
    mListMenu->setToolTip(tr("The set list the scenes come from and go to"));
    mListButton = new QToolButton;
    mListButton->setObjectName(QStringLiteral("setListButton"));
    mListButton->setText(tr("Lists"));
    mListButton->setToolTip(tr("New, rename, delete, export or import set lists"));
    mListButton->setPopupMode(QToolButton::InstantPopup);
    mListButton->setMenu(makeListMenu());
    listRow->addWidget(mListMenu, 1);
    listRow->addWidget(mListButton);
    layout->addLayout(listRow);

    mCurrentLabel = new QLabel;
    mCurrentLabel->setObjectName(QStringLiteral("currentSceneLabel"));
    mCurrentLabel->setToolTip(tr("The scene recalled last"));
    mCurrentLabel->setWordWrap(true);
    QFont big = mCurrentLabel->font();
    big.setPointSizeF(big.pointSizeF() * 1.8);
    big.setBold(true);
    mCurrentLabel->setFont(big);
    layout->addWidget(mCurrentLabel);

    mList = new QListWidget;
    mList->setObjectName(QStringLiteral("sceneList"));
    mList->setToolTip(tr("Enter recalls, F2 renames, Ctrl+D duplicates, Delete deletes, Ctrl+Z "
                         "undoes the deletion, Ctrl+Up/Down or dragging reorders"));
    mList->setDragDropMode(QAbstractItemView::InternalMove);
    mList->setDefaultDropAction(Qt::MoveAction);
    mList->setUniformItemSizes(true);
    mList->installEventFilter(this);
    layout->addWidget(mList, 1);

    // Two columns, so the panel stays narrow beside the lattice.
    auto* buttons = new QGridLayout;
    auto* previous = button(QStringLiteral("previousSceneButton"), tr("Previous"),
                            tr("Recall the scene before the current one"));
    auto* next = button(QStringLiteral("nextSceneButton"), tr("Next"),
                        tr("Recall the scene after the current one"));
    auto* recall = button(QStringLiteral("recallSceneButton"), tr("Recall"),
                          tr("Recall the selected scene"));
    auto* store = button(QStringLiteral("storeSceneButton"), tr("Store"),
                         tr("Keep what sounds now as a new scene at the end of the list"));
    mNameEdit = new QLineEdit;
    mNameEdit->setObjectName(QStringLiteral("sceneNameEdit"));
    mNameEdit->setPlaceholderText(tr("Name (default: the notes)"));
    mNameEdit->setToolTip(tr("The name of the next scene stored"));
    auto* duplicate = button(QStringLiteral("duplicateSceneButton"), tr("Duplicate"),
                             tr("Copy the selected scene (Ctrl+D)"));
    auto* remove = button(QStringLiteral("deleteSceneButton"), tr("Delete"),
                          tr("Delete the selected scene (Delete)"));
    mUndoButton = button(QStringLiteral("undoDeleteButton"), tr("Undo delete"),
                         tr("Bring back the scene deleted last (Ctrl+Z)"));
    buttons->addWidget(previous, 0, 0);
    buttons->addWidget(next, 0, 1);
    buttons->addWidget(recall, 1, 0);
    buttons->addWidget(store, 1, 1);
    buttons->addWidget(mNameEdit, 2, 0, 1, 2);
    buttons->addWidget(duplicate, 3, 0);
    buttons->addWidget(remove, 3, 1);
    buttons->addWidget(mUndoButton, 4, 0, 1, 2);
    layout->addLayout(buttons);

    mStatus = new QLabel;
    mStatus->setObjectName(QStringLiteral("sceneStatusLabel"));
    mStatus->setWordWrap(true);
    layout->addWidget(mStatus);
    setWidget(body);

    connect(previous, &QPushButton::clicked, this, [this] { mScenes->step(-1); });
    connect(next, &QPushButton::clicked, this, [this] { mScenes->step(1); });
    connect(recall, &QPushButton::clicked, this, [this] {
        if (selectedIndex() >= 0) {
            mScenes->recall(selectedIndex());
        }
    });
    auto storeNow = [this] {
        mScenes->store(mNameEdit->text());
        mNameEdit->clear();
    };
    connect(store, &QPushButton::clicked, this, storeNow);
    connect(mNameEdit, &QLineEdit::returnPressed, this, storeNow);
    connect(duplicate, &QPushButton::clicked, this,
            [this] { mBook->duplicate(selectedIndex()); });
    connect(remove, &QPushButton::clicked, this, &ScenePanel::deleteSelected);
    connect(mUndoButton, &QPushButton::clicked, this, [this] { mBook->undoRemove(); });
    connect(mList, &QListWidget::itemActivated, this,
            [this](QListWidgetItem* item) { mScenes->recall(mList->row(item)); });
    connect(mList->model(), &QAbstractItemModel::rowsMoved, this,
            [this](const QModelIndex&, int start, int, const QModelIndex&, int row) {
                onRowsMoved(start, row > start ? row - 1 : row);
            });
    connect(mListMenu, QOverload<int>::of(&QComboBox::activated), mBook, &SceneBook::setActive);
    connect(mBook, &SceneBook::changed, this, &ScenePanel::rebuild);
    connect(mBook, &SceneBook::saveFailed, this,
            [this](const QString& error) { say(tr("The scenes could not be saved: %1").arg(error)); });
    connect(mScenes, &SceneController::currentChanged, this, &ScenePanel::markCurrent);
    connect(mScenes, &SceneController::message, this, &ScenePanel::say);
    // The user's choice only, not the hiding of the whole window at quit.
    connect(toggleViewAction(), &QAction::triggered, mBook, &SceneBook::setPanelVisible);
    rebuild();
}

ScenePanel::~ScenePanel() = default;

QMenu* ScenePanel::makeListMenu()
{
    auto* menu = new QMenu(this);
    menu->addAction(tr("New set list…"), this, [this] {
        bool ok = false;
        const QString name = QInputDialog::getText(this, tr("New set list"), tr("Name:"),
                                                   QLineEdit::Normal, QString(), &ok);
        if (ok) {
            mBook->addList(name);
        }
    });
    menu->addAction(tr("Rename set list…"), this, [this] {
        bool ok = false;
        const QString name =
            QInputDialog::getText(this, tr("Rename set list"), tr("Name:"), QLineEdit::Normal,
                                  mBook->active().name, &ok);
        if (ok) {
            mBook->renameList(mBook->activeIndex(), name);
        }
    });
    menu->addAction(tr("Delete set list"), this, [this] {
        if (QMessageBox::question(this, tr("Delete set list"),
                                  tr("Delete the set list \"%1\" and its %2 scenes?")
                                      .arg(mBook->active().name)
                                      .arg(mBook->active().scenes.size())) ==
            QMessageBox::Yes) {
            mBook->removeList(mBook->activeIndex());
        }
    });
    menu->addSeparator();
    menu->addAction(tr("Export set list…"), this, &ScenePanel::exportList);
    menu->addAction(tr("Import set lists…"), this, &ScenePanel::importLists);
    return menu;
}

void ScenePanel::exportList()
{
    const QString file = QFileDialog::getSaveFileName(this, tr("Export set list"),
                                                      mBook->active().name + QStringLiteral(".json"),
                                                      tr("Set lists (*.json)"));
    QString error;
    if (!file.isEmpty() && !mBook->exportList(mBook->activeIndex(), file, &error)) {
        say(tr("The set list could not be exported: %1").arg(error));
    }
}

void ScenePanel::importLists()
{
    const QString file =
        QFileDialog::getOpenFileName(this, tr("Import set lists"), QString(), tr("Set lists (*.json)"));
    if (file.isEmpty()) {
        return;
    }
    QStringList warnings;
    QString error;
    if (!mBook->importLists(file, &warnings, &error)) {
        say(tr("Nothing was imported: %1").arg(error));
        return;
    }
    QStringList missing;
    for (const Scene& scene : mBook->active().scenes) {
        if (!scene.patch.isEmpty() && !QFileInfo(SceneController::patchFile(scene.patch)).isFile() &&
            !missing.contains(scene.patch)) {
            missing << scene.patch;
        }
    }
    QString text = tr("Imported \"%1\".").arg(mBook->active().name);
    if (!missing.isEmpty()) {
        text += QLatin1Char(' ') + tr("Missing patches (the rest of those scenes will be "
                                      "recalled): %1.")
                                       .arg(missing.join(QStringLiteral(", ")));
    }
    if (!warnings.isEmpty()) {
        text += QLatin1Char(' ') + tr("%n value(s) were left out (see the log).", nullptr,
                                      warnings.size());
    }
    say(text);
}

void ScenePanel::say(const QString& text)
{
    mStatus->setText(text);
}

int ScenePanel::selectedIndex() const
{
    return mList->currentRow();
}

void ScenePanel::selectIndex(int index)
{
    mList->setCurrentRow(index);
}

void ScenePanel::rebuild()
{
    mRebuilding = true;
    const int selected = mList->currentRow();
    mListMenu->clear();
    for (int i = 0; i < mBook->listCount(); ++i) {
        mListMenu->addItem(mBook->list(i).name);
    }
    mListMenu->setCurrentIndex(mBook->activeIndex());
    mList->clear();
    const QList<Scene>& scenes = mBook->active().scenes;
    for (int i = 0; i < scenes.size(); ++i) {
        auto* item = new QListWidgetItem(QStringLiteral("%1. %2").arg(i + 1).arg(scenes[i].name));
        item->setData(Qt::UserRole, scenes[i].sound.id);
        mList->addItem(item);
    }
    mList->setCurrentRow(std::min(selected, int(scenes.size()) - 1));
    mUndoButton->setEnabled(mBook->canUndoRemove());
    mRebuilding = false;
    markCurrent();
}

void ScenePanel::markCurrent()
{
    const quint32 current = mScenes->currentId();
    const Scene* scene = mBook->sceneById(current);
    mCurrentLabel->setText(scene ? scene->name : tr("No scene"));
    for (int i = 0; i < mList->count(); ++i) {
        QListWidgetItem* item = mList->item(i);
        QFont font = item->font();
        const bool isCurrent = item->data(Qt::UserRole).toUInt() == current && current != 0;
        font.setBold(isCurrent);
        item->setFont(font);
        item->setData(Qt::AccessibleDescriptionRole,
                      isCurrent ? tr("current scene") : QString());
        if (isCurrent) {
            mList->scrollToItem(item);
        }
    }
}

void ScenePanel::renameSelected()
{
    const int index = selectedIndex();
    if (index < 0) {
        return;
    }
    bool ok = false;
    const QString name =
        QInputDialog::getText(this, tr("Rename scene"), tr("Name:"), QLineEdit::Normal,
                              mBook->active().scenes[index].name, &ok);
    if (ok) {
        mBook->rename(index, name);
    }
}

void ScenePanel::deleteSelected()
{
    const int index = selectedIndex();
    if (index >= 0) {
        mBook->remove(index);
        say(tr("Deleted a scene; Undo brings it back."));
    }
}

void ScenePanel::moveSelected(int by)
{
    const int from = selectedIndex();
    const int to = from + by;
    if (from >= 0 && to >= 0 && to < mList->count()) {
        mBook->move(from, to);
        mList->setCurrentRow(to);
    }
}

void ScenePanel::onRowsMoved(int from, int to)
{
    if (!mRebuilding) {
        // The list rebuilds itself from the book on the change, with the
        // numbers in their new order; after the drop has finished.
        QMetaObject::invokeMethod(
            this, [this, from, to] {
                mBook->move(from, to);
                mList->setCurrentRow(to);
            },
            Qt::QueuedConnection);
    }
}

bool ScenePanel::eventFilter(QObject* watched, QEvent* event)
{
    if (watched != mList || event->type() != QEvent::KeyPress) {
        return QDockWidget::eventFilter(watched, event);
    }
    const auto* key = static_cast<QKeyEvent*>(event);
    const bool ctrl = key->modifiers() & Qt::ControlModifier;
    if (key->key() == Qt::Key_F2) {
        renameSelected();
    } else if (key->key() == Qt::Key_Delete) {
        deleteSelected();
    } else if (ctrl && key->key() == Qt::Key_D) {
        mBook->duplicate(selectedIndex());
    } else if (ctrl && key->key() == Qt::Key_Z) {
        mBook->undoRemove();
    } else if (ctrl && (key->key() == Qt::Key_Up || key->key() == Qt::Key_Down)) {
        moveSelected(key->key() == Qt::Key_Up ? -1 : 1);
    } else {
        return QDockWidget::eventFilter(watched, event);
    }
    return true;
}
