#pragma once

#include <QDockWidget>

class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QMenu;
class QPushButton;
class QToolButton;
class SceneBook;
class SceneController;

// The scenes panel, a dock of the main window that can be hidden (the book
// remembers whether it is shown; the window shows it that way): the set lists, the active list's scenes in
// performance order with the current one marked, the current scene's name
// large enough to read from a stage, and the buttons to step, recall, store,
// duplicate, delete and undo.
//
// In the list: Enter recalls, F2 renames, Ctrl+D duplicates, Delete deletes,
// Ctrl+Z brings the last deleted scene back, Ctrl+Up and Ctrl+Down move a
// scene; scenes can also be dragged into another order. Every widget has its
// object name ("sceneList", "storeSceneButton", ...) for tests and the style
// sheet.
//
// GUI thread.
class ScenePanel : public QDockWidget
{
    Q_OBJECT
public:
    ScenePanel(SceneBook* book, SceneController* scenes, QWidget* parent = nullptr);
    ~ScenePanel() override;

    // The index of the selected scene in the active list, or -1.
    int selectedIndex() const;
    void selectIndex(int index);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void rebuild();
    void markCurrent();
    void renameSelected();
    void deleteSelected();
    void moveSelected(int by);
    void onRowsMoved(int from, int to);
    QMenu* makeListMenu();
    void exportList();
    void importLists();
    void say(const QString& text);

    SceneBook* mBook;
    SceneController* mScenes;
    QComboBox* mListMenu;
    QToolButton* mListButton;
    QLabel* mCurrentLabel;
    QListWidget* mList;
    QLineEdit* mNameEdit;
    QPushButton* mUndoButton;
    QLabel* mStatus;
    bool mRebuilding = false;
};
