#include "ui/keyboardinput.h"

#include "sound/pdplayer.h"

#include <QAbstractSpinBox>
#include <QApplication>
#include <QComboBox>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTextEdit>

namespace {

bool isTextField(const QObject* object)
{
    if (qobject_cast<const QLineEdit*>(object) || qobject_cast<const QAbstractSpinBox*>(object)) {
        return true;
    }
    if (const auto* box = qobject_cast<const QComboBox*>(object)) {
        return box->isEditable();
    }
    // Read-only text views (the about page, the log) take no typing; the
    // keys play there.
    if (const auto* edit = qobject_cast<const QTextEdit*>(object)) {
        return !edit->isReadOnly();
    }
    if (const auto* edit = qobject_cast<const QPlainTextEdit*>(object)) {
        return !edit->isReadOnly();
    }
    return false;
}

// Keys that the window keeps whatever the map says.
bool isReserved(int key)
{
    return key == Qt::Key_9;
}

} // namespace

KeyboardInput::KeyboardInput(PdPlayer* player, QWidget* window, QObject* parent)
    : QObject(parent), mPlayer(player), mWindow(window)
{
    // On the application: key events go to the focused child first, and a
    // filter on the window alone would see only the ones its children pass
    // up. Those the children use (Space on a button) would never play.
    qApp->installEventFilter(this);
}

KeyboardInput::~KeyboardInput()
{
    releaseAll();
}

void KeyboardInput::setBindings(const InputMap::Bindings& bindings)
{
    releaseAll();
    mKeys = bindings.keys;
    mLatch = bindings.latch;
}

bool KeyboardInput::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::KeyPress:
    case QEvent::KeyRelease:
        return onKey(watched, static_cast<QKeyEvent*>(event));
    case QEvent::WindowDeactivate:
        if (watched == mWindow) {
            releaseAll();
        }
        break;
    default:
        break;
    }
    return false;
}

bool KeyboardInput::onKey(QObject* watched, QKeyEvent* event)
{
    const auto* widget = qobject_cast<const QWidget*>(watched);
    if (!widget || !mWindow || widget->window() != mWindow) {
        return false;
    }
    const quint32 code = event->nativeScanCode() ? event->nativeScanCode() : quint32(event->key());
    if (event->type() == QEvent::KeyRelease) {
        if (event->isAutoRepeat()) {
            return mHeld.contains(code);
        }
        const auto held = mHeld.constFind(code);
        if (held == mHeld.constEnd()) {
            return false;
        }
        send(held->release(mLatch));
        mHeld.erase(held);
        return true;
    }
    // The focus widget too: a key a field ignores (a letter in a number
    // box) travels up to its parents, and must not play from there.
    if (isReserved(event->key()) || isTextField(watched) ||
        isTextField(QApplication::focusWidget()) ||
        (event->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier))) {
        return false;
    }
    const auto binding = mKeys.constFind(InputMap::keyName(event->key()));
    if (binding == mKeys.constEnd()) {
        return false;
    }
    // Repeats of a held key, and a second press without a release between
    // (some platforms repeat without the flag), are swallowed.
    if (!event->isAutoRepeat() && !mHeld.contains(code)) {
        mHeld.insert(code, *binding);
        send(binding->press(mLatch));
    }
    return true;
}

void KeyboardInput::releaseAll()
{
    for (const InputBinding& binding : qAsConst(mHeld)) {
        send(binding.release(mLatch));
    }
    mHeld.clear();
}

void KeyboardInput::send(const ArboEvent* event)
{
    if (event && mPlayer) {
        mPlayer->queueEventGui(event);
    }
}
