#include "AppDelegate.h"
#include "FrameAllocator.h"
#include "LinuxPlatform.h"
#include "LogOutput.h"
#include "ViewController.h"

#include <QApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    kx::keepFrameBuffersMapped();
    kx::installStdoutLogHandler();
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        // Without a display there is no clipboard or keyboard to watch, but the process
        // still connects and serves; it must not die in the toolkit's start-up.
        std::printf("No graphical display found: the clipboard and Ctrl+V cannot be watched.\n");
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    // A background agent: closing the progress window, the chooser or an alert must
    // never end it; it ends when the host application is gone.
    app.setQuitOnLastWindowClosed(false);
    AppDelegate delegate;

    Platform platform = makeLinuxPlatform();
    installQtFolderChooser();
    ViewController window(platform, EngineContext::shared(*platform.pasteboard), QStringLiteral(KX_HOST_APP_ID));
    window.show();
    window.viewDidLoad(app.arguments());
    delegate.applicationDidFinishLaunching();
    const int status = app.exec();
    delegate.applicationWillTerminate();
    return status;
}
