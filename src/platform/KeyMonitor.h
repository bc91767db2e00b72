#pragma once

#include <QString>

#include <functional>

// One key press seen anywhere on the desktop: whether the primary shortcut modifier
// was held, and the key's text with no modifier but Shift applied.
struct KeyEvent
{
    bool command = false;
    QString charactersIgnoringModifiers;
};

// A global key-down monitor: it observes key presses meant for other applications and
// never consumes or changes them.
class KeyMonitor
{
public:
    virtual ~KeyMonitor() = default;
    virtual bool install(std::function<void(const KeyEvent &)> handler) = 0;
    virtual void remove() = 0;
};
