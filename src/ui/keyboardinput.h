#pragma once

#include "input/inputmap.h"

#include <QHash>
#include <QObject>
#include <QPointer>

class PdPlayer;
class QKeyEvent;
class QWidget;

// Plays the lattice from the computer keyboard, through the input map's
// "keys" table: a note key sounds its note while held (or toggles it with
// latch on), an event key sends its event on the press. Key repeat never
// strikes again.
//
// The keys work wherever the window has focus, except in text fields (a
// patch name or a frequency being typed is not music), and never with Ctrl,
// Alt or Meta held, which belong to shortcuts. The 9 key and Ctrl+9 stay the
// window's. When the window loses focus, every held key is let go, since its
// release would never arrive.
//
// Threads: GUI thread. Commands go into the player's GUI ring.
class KeyboardInput : public QObject
{
    Q_OBJECT
public:
    // Watches the keys of `window` (and its children) from now on.
    KeyboardInput(PdPlayer* player, QWidget* window, QObject* parent = nullptr);
    ~KeyboardInput() override;

    void setBindings(const InputMap::Bindings& bindings);
    // How many keys hold a note or wait for their release.
    int heldKeyCount() const { return mHeld.size(); }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    bool onKey(QObject* watched, QKeyEvent* event);
    void releaseAll();
    void send(const ArboEvent* event);

    PdPlayer* mPlayer;
    QPointer<QWidget> mWindow;
    QHash<QString, InputBinding> mKeys;
    bool mLatch = false;
    // Pressed keys by their physical code (the key code when the platform
    // gives none), so that a release is paired with its press even when
    // Shift changed the key's symbol meanwhile.
    QHash<quint32, InputBinding> mHeld;
};
