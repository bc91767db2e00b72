#pragma once

#include "KeyMonitor.h"

#include <QObject>
#include <QSet>

class QSocketNotifier;
class QTimer;
struct _XDisplay;

// Global key presses from XInput2 raw events on the root window of a connection of our
// own. Raw events are copies: nothing is grabbed, every application still gets its keys.
// Modifier state comes from the raw presses and releases themselves, because the
// server's idea of it lags behind the raw stream.
class X11KeyMonitor : public QObject, public KeyMonitor
{
public:
    X11KeyMonitor() = default;
    ~X11KeyMonitor() override;

    bool install(std::function<void(const KeyEvent &)> handler) override;
    void remove() override;

    // Whether a display with XInput 2.2 or newer can be opened here.
    static bool available();
    // Whether the server's key map, as XQueryKeymap fills it, has this key down.
    static bool keyIsDown(const char (&keys)[32], unsigned char keycode);

private:
    void readEvents();
    void dropReleasedModifiers();
    bool heldModifier(unsigned long keysymLeft, unsigned long keysymRight) const;

    _XDisplay *m_display = nullptr;
    int m_xiOpcode = 0;
    QSocketNotifier *m_notifier = nullptr;
    QTimer *m_resync = nullptr;
    std::function<void(const KeyEvent &)> m_handler;
    QSet<int> m_held;
};
