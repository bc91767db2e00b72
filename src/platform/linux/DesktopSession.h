#pragma once

#include <QProcessEnvironment>
#include <QString>

// Which desktop session the companion runs in, and what follows from it. Under Wayland
// no program may watch keys globally and a native client reads the clipboard only while
// it has focus; through XWayland a copy made in any application is still seen.
struct DesktopSession
{
    enum class Kind { x11, wayland, none };

    Kind kind = Kind::none;
    bool xwayland = false; // an X display beside the Wayland one

    static DesktopSession detect(const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment());
    // The Qt platform to run the desktop side on, unless the user chose one.
    QByteArray qtPlatform() const;
    // One line for the log: the session, and how a paste is started in it.
    QString summary() const;
};
