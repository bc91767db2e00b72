#include "DesktopSession.h"

DesktopSession DesktopSession::detect(const QProcessEnvironment &environment)
{
    DesktopSession session;
    const bool x = !environment.value(QStringLiteral("DISPLAY")).isEmpty();
    const bool wayland = !environment.value(QStringLiteral("WAYLAND_DISPLAY")).isEmpty()
        || environment.value(QStringLiteral("XDG_SESSION_TYPE")) == QLatin1String("wayland");
    session.kind = wayland ? Kind::wayland : x ? Kind::x11 : Kind::none;
    session.xwayland = wayland && x;
    return session;
}

QByteArray DesktopSession::qtPlatform() const
{
    if (kind == Kind::x11 || xwayland)
        return "xcb";
    // A Wayland client if Qt's plugin is there; the engine serves and pastes regardless.
    return kind == Kind::wayland ? "wayland;offscreen" : "offscreen";
}

QString DesktopSession::summary() const
{
    switch (kind) {
    case Kind::x11:
        return QStringLiteral("desktop session: X11; paste with Ctrl+V, or the tray menu's Paste…");
    case Kind::wayland:
        return xwayland ? QStringLiteral("desktop session: Wayland, desktop side through XWayland; paste with the "
                                         "notification's Paste… or the tray menu (Ctrl+V only in X11 applications)")
                        : QStringLiteral("desktop session: Wayland without XWayland; local copies cannot be seen, "
                                         "paste with the notification's Paste… or the tray menu");
    case Kind::none:
        break;
    }
    return QStringLiteral("no graphical display: the clipboard and Ctrl+V cannot be watched; files are still served");
}
