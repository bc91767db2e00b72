#include "CommandLine.h"
#include "DesktopLog.h"
#include "FrameAllocator.h"
#include "LinuxPlatform.h"
#include "LogOutput.h"
#include "ProcessArguments.h"
#include "Translations.h"
#include "ViewController.h"

#include <QApplication>

#include <csignal>
#include <vector>

int main(int argc, char *argv[])
{
    // Before the toolkit: --help must answer where no display is.
    if (const std::optional<int> status = CommandLine::handle(argc, argv))
        return *status;
    kx::keepFrameBuffersMapped();
    kx::installStdoutLogHandler();
    // A write past a file size limit fails with EFBIG, which the paste reports, rather than
    // killing the companion.
    std::signal(SIGXFSZ, SIG_IGN);
    // Under Wayland the desktop side runs through XWayland where there is one: there a
    // copy made in any application is still seen. Without a display at all the process
    // still connects and serves; it must not die in the toolkit's start-up.
    const DesktopSession session = DesktopSession::detect();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", session.qtPlatform());
    // Qt takes its own options out of argv; every launch value is blanked, whatever it became.
    const std::vector<char *> launchArguments(argv, argv + argc);
    QApplication app(argc, argv);
    kx::installTranslations(QLocale());
    qCInfo(lcDesktop).noquote() << session.summary();
    // A background agent: closing the progress window, the chooser or an alert must
    // never end it; it ends when the host application is gone.
    app.setQuitOnLastWindowClosed(false);

    Platform platform = makeLinuxPlatform(session);
    installQtFileDialogs();
    ViewController window(platform, EngineContext::shared(*platform.pasteboard), QStringLiteral(KX_HOST_APP_ID));
    window.show();
    // A copy: on Linux arguments() reads the strings that are blanked next.
    const QStringList arguments = app.arguments();
    kx::blankArgumentValues(launchArguments);
    window.viewDidLoad(arguments);
    return app.exec();
}
