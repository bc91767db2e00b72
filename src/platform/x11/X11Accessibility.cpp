#include "X11Accessibility.h"

#include "X11KeyMonitor.h"

#include <QGuiApplication>

bool X11Accessibility::isProcessTrusted(bool prompt)
{
    Q_UNUSED(prompt);
    return X11KeyMonitor::available();
}

QString X11Accessibility::missingCapability() const
{
    return QStringLiteral("global Ctrl+V needs an X11 display with the XInput2 extension (platform here: %1); "
                          "local copies are still announced wherever the clipboard can be read")
        .arg(QGuiApplication::platformName());
}
