#include "AppDelegate.h"
#include "LinuxPlatform.h"
#include "LogOutput.h"
#include "ViewController.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    kx::installStdoutLogHandler();
    QApplication app(argc, argv);
    // A background agent: closing the progress window, the chooser or an alert must
    // never end it; it ends when the host application is gone.
    app.setQuitOnLastWindowClosed(false);
    AppDelegate delegate;

    Platform platform = makeLinuxPlatform();
    installQtFolderChooser();
    ViewController window(platform, QStringLiteral(KX_HOST_APP_ID));
    window.show();
    window.viewDidLoad(app.arguments());
    delegate.applicationDidFinishLaunching();
    const int status = app.exec();
    delegate.applicationWillTerminate();
    return status;
}
