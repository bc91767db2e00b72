// The real Qt and X11 backends under a virtual X server, with real X clients: what xclip
// puts on the clipboard, what xdotool types, another client's keyboard grab, and the
// progress window beside an application the user types into.
#include "EngineHarness.h"
#include "FakePlatform.h"
#include "LinuxPlatform.h"
#include "LogCapture.h"
#include "qt/QtAlerts.h"
#include "ViewController.h"
#include "x11/X11KeyMonitor.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QApplication>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QProcess>
#include <QSignalSpy>
#include <QTimer>

#include <X11/Xlib.h>
#include <X11/keysym.h>

class TestX11 : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void clipboard();
    void keyMonitor_data();
    void keyMonitor();
    void ctrlReleasedDuringAnotherClientsGrab();
    void progressWindowLeavesTheKeyboardAlone();
    void alertLeavesTheKeyboardAlone();

private:
    static bool run(const QStringList &command) { return QProcess::execute(command.first(), command.mid(1)) == 0; }
    Platform platform;
};

void TestX11::initTestCase()
{
    if (QGuiApplication::platformName() != "xcb")
        QSKIP("needs an X11 display (run under xvfb-run)");
    platform = makeLinuxPlatform();
    QVERIFY(platform.accessibility->isProcessTrusted(false));
    QVERIFY(platform.services->isApplicationRunning("tst_x11") && !platform.services->isApplicationRunning("no-such-program"));
    // A host whose executable was replaced while it runs is still the host; another program
    // whose name begins the same, as the kernel's fifteen characters would have it, is not.
    QTemporaryDir dir;
    QProcess host, other;
    QVERIFY(QFile::copy("/bin/sleep", dir.filePath("a-host-of-long-other")));
    other.start(dir.filePath("a-host-of-long-other"), {"30"});
    QVERIFY(other.waitForStarted() && !platform.services->isApplicationRunning("a-host-of-long-name"));
    QVERIFY(QFile::copy("/bin/sleep", dir.filePath("a-host-of-long-name")));
    host.start(dir.filePath("a-host-of-long-name"), {"30"});
    QVERIFY(host.waitForStarted() && QFile::remove(dir.filePath("a-host-of-long-name")));
    QTRY_VERIFY(platform.services->isApplicationRunning("a-host-of-long-name"));
    host.kill();
    other.kill();
}

void TestX11::clipboard()
{
    Pasteboard &board = *platform.pasteboard;
    QSignalSpy changes(QGuiApplication::clipboard(), &QClipboard::dataChanged);
    std::int64_t count = board.changeCount();
    // xclip in the foreground stays the board's owner until it is killed.
    QProcess owner;
    owner.start("xclip", {"-quiet", "-selection", "clipboard", "-t", "text/uri-list"});
    owner.write("file:///tmp/first%20file.txt\r\nfile:///tmp/second\r\n");
    owner.closeWriteChannel();
    QTRY_COMPARE_WITH_TIMEOUT(board.changeCount(), count + 1, 5000);
    QCOMPARE(board.readUrls(), std::optional(QList<QUrl>{QUrl::fromLocalFile("/tmp/first file.txt"), QUrl::fromLocalFile("/tmp/second")}));

    // The application that copied quits: the board empties, but nothing was written,
    // so the copy stays announced.
    changes.clear();
    owner.kill();
    owner.waitForFinished();
    QTRY_VERIFY_WITH_TIMEOUT(!changes.isEmpty(), 5000);
    QCOMPARE(board.changeCount(), count + 1);

    // Our own clearing is a change, as on any pasteboard.
    board.clearContents();
    QTRY_COMPARE_WITH_TIMEOUT(board.changeCount(), count + 2, 5000);
}

void TestX11::keyMonitor_data()
{
    QTest::addColumn<QString>("chord");
    QTest::addColumn<bool>("command");
    QTest::addColumn<QString>("text");
    QTest::newRow("ctrl+v") << "ctrl+v" << true << "v";
    QTest::newRow("v") << "v" << false << "v";
    QTest::newRow("ctrl+shift+v") << "ctrl+shift+v" << true << "V";
    QTest::newRow("space, the first Latin-1 text") << "space" << false << " ";
    QTest::newRow("no text") << "F5" << false << "";
}

void TestX11::keyMonitor()
{
    QFETCH(QString, chord);
    QFETCH(bool, command);
    QFETCH(QString, text);
    QList<KeyEvent> seen;
    QVERIFY(platform.keyMonitor->install([&](const KeyEvent &event) { seen.append(event); }));
    QVERIFY(run({"xdotool", "key", chord}));
    QTRY_VERIFY_WITH_TIMEOUT(!seen.isEmpty(), 5000);
    QCOMPARE(seen.first().command, command);
    QCOMPARE(seen.first().charactersIgnoringModifiers, text);
    platform.keyMonitor->remove();
}

// Ctrl goes down, a menu or a lock screen grabs the keyboard, Ctrl comes up during the
// grab: afterwards a plain v is a plain v, not a paste.
void TestX11::ctrlReleasedDuringAnotherClientsGrab()
{
    QList<KeyEvent> seen;
    QVERIFY(platform.keyMonitor->install([&](const KeyEvent &event) { seen.append(event); }));
    Display *grabber = XOpenDisplay(nullptr);
    QVERIFY(grabber);
    const Window window = XCreateSimpleWindow(grabber, DefaultRootWindow(grabber), 0, 0, 10, 10, 0, 0, 0);
    XMapWindow(grabber, window);
    XSync(grabber, False);
    QVERIFY(run({"xdotool", "keydown", "ctrl"}));
    const auto ctrlDown = [&] {
        char keys[32] = {};
        XQueryKeymap(grabber, keys);
        return X11KeyMonitor::keyIsDown(keys, XKeysymToKeycode(grabber, XK_Control_L));
    };
    QTRY_VERIFY_WITH_TIMEOUT(ctrlDown(), 5000); // the key map the monitor falls back on when a release is missed
    QVERIFY(QTest::qWaitFor([&] { return XGrabKeyboard(grabber, window, False, GrabModeAsync, GrabModeAsync, CurrentTime) == GrabSuccess; }, 5000));
    XSync(grabber, False);
    QVERIFY(run({"xdotool", "keyup", "ctrl"}));
    QTRY_VERIFY_WITH_TIMEOUT(!ctrlDown(), 5000);
    XUngrabKeyboard(grabber, CurrentTime);
    XCloseDisplay(grabber);
    QVERIFY(run({"xdotool", "key", "v"}));
    QTRY_VERIFY_WITH_TIMEOUT(!seen.isEmpty(), 5000);
    QCOMPARE(seen.last().command, false);
    platform.keyMonitor->remove();
}

// Progress reports come in while the user types into another application: the keyboard
// stays there, and no key typed there presses Stop.
void TestX11::progressWindowLeavesTheKeyboardAlone()
{
    FakePlatformState state;
    Platform fake = makeFakePlatform(state);
    LoopbackFrameSink sink;
    KXFileManager files;
    ViewController progress(fake, EngineContext{sink, files, *fake.pasteboard}, "host-app");
    progress.viewDidLoad({"kx-clipboard"});
    QLineEdit editor;
    editor.show();
    editor.activateWindow();
    QTRY_VERIFY_WITH_TIMEOUT(editor.hasFocus(), 5000);
    QTimer reports;
    connect(&reports, &QTimer::timeout, &progress, [&] { progress.handlePasteProgress(0.5); });
    reports.start(30);
    QTRY_VERIFY(progress.isVisible());
    LogCapture log;
    QVERIFY(run({"xdotool", "type", "--delay", "40", "go on typing \n"}));
    QTRY_COMPARE_WITH_TIMEOUT(editor.text(), QStringLiteral("go on typing "), 5000);
    QVERIFY(editor.hasFocus());
    QVERIFY(!log.contains("click stop"));
    // Switched to, it has the keyboard: Stop is reached with Tab and pressed with space.
    progress.activateWindow();
    QTRY_VERIFY_WITH_TIMEOUT(progress.isActiveWindow(), 5000);
    for (int tabs = 0; tabs < 8 && !progress.stopBtn()->hasFocus(); ++tabs) {
        QVERIFY(run({"xdotool", "key", "Tab"}));
        QTest::qWait(0);
    }
    QTRY_VERIFY_WITH_TIMEOUT(progress.stopBtn()->hasFocus(), 5000);
    QVERIFY(run({"xdotool", "key", "space"}));
    QTRY_VERIFY_WITH_TIMEOUT(log.contains("click stop"), 5000);
}

// An alert comes up while the user types elsewhere: the keys stay there, and Return does
// not answer it. Switched to, Return presses its default button.
void TestX11::alertLeavesTheKeyboardAlone()
{
    QLineEdit editor;
    editor.show();
    editor.activateWindow();
    QTRY_VERIFY_WITH_TIMEOUT(editor.hasFocus(), 5000);
    QtAlerts alerts;
    int step = 0, ticks = 0;
    QTimer driver;
    connect(&driver, &QTimer::timeout, this, [&] {
        QMessageBox *box = nullptr;
        for (QWidget *top : QApplication::topLevelWidgets())
            box = box ? box : qobject_cast<QMessageBox *>(top);
        if (!box || !box->isVisible())
            return;
        if (++ticks > 1500) // given up on: no hang, a failure
            return box->reject();
        if (step == 0 && ++step)
            run({"xdotool", "type", "--delay", "40", "abc\n"});
        else if (step == 1 && editor.text() == "abc" && ++step)
            box->activateWindow();
        else if (step == 2 && box->isActiveWindow() && ++step)
            run({"xdotool", "key", "Return"});
    });
    driver.start(20);
    QCOMPARE(alerts.runModal({.message = "message", .buttons = {"Stop", "Keep pasting"}, .defaultButton = 1}), 1001);
    QVERIFY(step == 3 && editor.text() == "abc");
}

QTEST_MAIN(TestX11)
#include "tst_x11.moc"
