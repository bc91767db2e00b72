// The watcher and the shell on the scripted platform, with the real engine on the
// loopback connection: launch arguments, the clipboard poll, Ctrl+V, the permission
// flow, the host's liveness, and what the window and the alerts tell the user.
#include "EngineHarness.h"
#include "FakePlatform.h"
#include "LaunchArguments.h"
#include "LogCapture.h"
#include "PasteEndText.h"
#include "Translations.h"
#include "TransferRate.h"
#include "ViewController.h"

#include "linux/AnnouncementFile.h"
#include "linux/NotificationTrigger.h"
#include "linux/DesktopSession.h"
#include "qt/QtConflictAsker.h"
#include "qt/QtFolderChooser.h"
#include "qt/QtPasteboard.h"
#include "qt/TrayTrigger.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QMimeData>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QFileDialog>
#include <QMessageBox>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTimer>

Q_DECLARE_METATYPE(RemoteOffer)

class NotificationService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QList<QStringList> actions, texts; // of each Notify, in order: actions; summary and body
    QList<uint> replaced, closed, dismissed;
    QVariantMap hints; // and time-out, of the last
    int timeout = -2;
public slots:
    uint Notify(const QString &, uint replaces, const QString &, const QString &summary, const QString &body,
                const QStringList &actionList, const QVariantMap &hintMap, int expireTimeout)
    {
        actions.append(actionList);
        texts.append({summary, body});
        replaced.append(replaces);
        hints = hintMap;
        timeout = expireTimeout;
        return replaces ? replaces : 41 + uint(actions.size());
    }
    void CloseNotification(uint id) { closed.append(id); }
    void dismissedSeen(uint id, uint) { dismissed.append(id); }
};

// A session bus of the test's own, with the notification service played here.
struct SessionBus
{
    QProcess daemon;
    QString address;
    QDBusConnection serviceBus{QString()};
    NotificationService service;

    bool up()
    {
        daemon.start("dbus-daemon", {"--session", "--nofork", "--print-address=1"});
        if (!daemon.waitForReadyRead(10000))
            return false;
        address = QString::fromUtf8(daemon.readLine()).trimmed();
        serviceBus = QDBusConnection::connectToBus(address, "service");
        return serviceBus.registerObject("/org/freedesktop/Notifications", &service, QDBusConnection::ExportAllSlots)
            && serviceBus.registerService("org.freedesktop.Notifications");
    }
    QDBusConnection client() { return QDBusConnection::connectToBus(address, "client"); }
    ~SessionBus()
    {
        QDBusConnection::disconnectFromBus("client");
        QDBusConnection::disconnectFromBus("service");
        daemon.kill();
        daemon.waitForFinished();
    }
};

Q_DECLARE_METATYPE(PasteReport)

class TestDesktop : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup() { controller.reset(); }
    void launchArguments_data();
    void launchArguments();
    void commandLine_data();
    void commandLine();
    void clipboardPoll();
    void keyChords_data();
    void keyChords();
    void pasteFiles_data();
    void pasteFiles();
    void lastAnnounced_data();
    void lastAnnounced();
    void hostAndPermission();
    void windowAndAlerts();
    void alertHeadline_data();
    void alertHeadline();
    void pasteThroughCtrlV();
    void strayCtrlV();
    void chooseAnotherFolder();
    void endTexts_data();
    void endTexts();
    void conflictQuestion_data();
    void conflictQuestion();
    void pasteFromTheNotification();
    void copyNotifications();
    void trayMenu_data();
    void trayMenu();
    void clipboardBackend();
    void desktopSession();
    void typedFolder_data();
    void typedFolder();

private:
    void start(const QStringList &extra = {});
    void chooseFolder(const QTemporaryDir &dest);
    void serve(const QTemporaryDir &dest, int files, const QString &stem, int closing = 0);
    QString lines() const;
    bool fits() const;
    QStringList shown; // the window's lines at each report of a paste, then with the end alert up
    FakePlatformState state;
    std::unique_ptr<Platform> platform;
    LoopbackFrameSink sink;
    KXFileManager files;
    std::unique_ptr<ViewController> controller;
};

void TestDesktop::init()
{
    state = FakePlatformState{};
    platform = std::make_unique<Platform>(makeFakePlatform(state));
    sink = LoopbackFrameSink{};
}

void TestDesktop::start(const QStringList &extra)
{
    controller = std::make_unique<ViewController>(*platform, EngineContext{sink, files, *platform->pasteboard}, "host-app");
    controller->viewDidLoad(QStringList{"/usr/bin/kx-clipboard", "ip,ws://127.0.0.1", "port,9", "token,tok", "cid,7"} + extra);
    QCOMPARE(sink.urlStr, QStringLiteral("ws://127.0.0.1:9/tok"));
    sink.open();
    QCOMPARE(sink.sent, QList<QByteArray>{hex("00")});
    sink.sent.clear();
}

void TestDesktop::launchArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("expected"); // ip, port, token, cid, window, pin
    QTest::addColumn<QStringList>("logged");   // among the lines, exactly

    const QString pin = QStringList(32, "0F").join(':');
    QTest::newRow("the four values") << QStringList{"/app", "ip,ws://192.0.2.8", "port,9000", "token,abc", "cid,7"}
                                     << QStringList{"ws://192.0.2.8", "9000", "abc", "7", "1", ""}
                                     << QStringList{"Argument 3: token,…", "逗号后面的内容为: …", "开始连接url:ws://192.0.2.8:9000/…"};
    QTest::newRow("white space trimmed, line break kept") << QStringList{"ip, 192.0.2.8\t", "cid,7 \n"}
                                                          << QStringList{"192.0.2.8", "", "", "7 \n", "1", ""} << QStringList{};
    QTest::newRow("last comma piece wins") << QStringList{"port,80,81", "token,,x,"} << QStringList{"", "81", "x", "", "1", ""}
                                           << QStringList{"Argument 1: token,,…,"};
    QTest::newRow("no comma: the argument itself") << QStringList{"ip"} << QStringList{"ip", "", "", "", "1", ""} << QStringList{};
    QTest::newRow("ip is found inside token") << QStringList{"token,zip9"} << QStringList{"zip9", "", "", "", "1", ""}
                                              << QStringList{"Argument 0: token,zip9"};
    QTest::newRow("a key and commas only") << QStringList{"cid,,,", "port"} << QStringList{"", "port", "", "cid", "1", ""} << QStringList{};
    QTest::newRow("windows at the edges") << QStringList{"window,1", "window,64"} << QStringList{"", "", "", "", "64", ""} << QStringList{};
    QTest::newRow("windows out of range") << QStringList{"window,8", "window,65"} << QStringList{"", "", "", "", "1", ""} << QStringList{};
    // The token shows its first four characters only when as many stay hidden.
    QTest::newRow("a token masked") << QStringList{"/app", "ip,ws://192.0.2.8", "port,9000", "token,abcdefgh", "cid,7"}
                                    << QStringList{"ws://192.0.2.8", "9000", "abcdefgh", "7", "1", ""}
                                    << QStringList{"Argument 3: token,abcd…", "逗号后面的内容为: abcd…",
                                                   "开始连接url:ws://192.0.2.8:9000/abcd…"};
    QTest::newRow("a short token masked whole") << QStringList{"/app", "token, abcdefg "} << QStringList{"", "", "abcdefg", "", "1", ""}
                                                << QStringList{"Argument 1: token, … ", "逗号后面的内容为: …", "开始连接url::/…"};
    QTest::newRow("a pin in small letters with colons") << QStringList{"pin," + pin.toLower()} << QStringList{"", "", "", "", "1", pin}
                                                        << QStringList{"逗号后面的内容为: " + pin.toLower()};
    QTest::newRow("a pin in capitals, no colons") << QStringList{"pin," + QString(pin).remove(':'), "/home/pinto/app"}
                                                  << QStringList{"", "", "", "", "1", pin} << QStringList{};
    const QString short63 = QString(pin).remove(':').chopped(1);
    QTest::newRow("malformed pins refuse everything") << QStringList{"pin," + short63, "pin,"} << QStringList{"", "", "", "", "1", "pin"}
        << QStringList{"pin must be the SHA-256 of the agent's certificate, 64 hex digits (colons allowed), not " + short63
                           + "; no certificate will be accepted",
                       "pin must be the SHA-256 of the agent's certificate, 64 hex digits (colons allowed), not pin"
                       "; no certificate will be accepted"};
}

// Through the window's start-up: the values reach the engine and the connection, and the
// log shows the token masked in each of its lines.
void TestDesktop::launchArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, expected);
    QFETCH(QStringList, logged);
    LogCapture log;
    controller = std::make_unique<ViewController>(*platform, EngineContext{sink, files, *platform->pasteboard}, "host-app");
    controller->viewDidLoad(arguments);
    const ViewController &values = *controller;
    QCOMPARE((QStringList{values.ipAdress(), values.port(), values.token(), values.cid(), QString::number(values.window()),
                          sink.pin.expected()}),
             expected);
    QVERIFY(values.pin().isSet() == !expected.last().isEmpty());
    QCOMPARE(log.lines().first(), QStringLiteral("Number of arguments: %1").arg(arguments.size()));
    for (const QString &line : logged)
        QVERIFY2(log.contains(line), qPrintable(line + "\n is not among\n" + log.lines().join('\n')));
    QVERIFY(log.contains(kx::escapedName("Argument 0: " + arguments.first()))); // a line break never splits a line
    for (const QString &line : log.lines())
        QVERIFY2(values.token().size() < 2 || !line.contains(values.token()), qPrintable(line));
    QCOMPARE(LaunchArguments::valueAfterComma(",,,") + LaunchArguments::valueAfterComma(""), QString());
    QCOMPARE(log.count("未找到逗号后面的内容"), 2);
}

void TestDesktop::commandLine_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status"); // -1: still running once it has read its arguments
    QTest::addColumn<QStringList>("out");  // lines of standard output, each the start of one
    QTest::addColumn<QString>("err");      // the first line of standard error; "" while running: not looked at

    QTest::newRow("help") << QStringList{"--help"} << 0
                          << QStringList{"Usage: kx-clipboard ip,… port,… token,… cid,… [window,N] [pin,SHA256]",
                                         "  ip,SCHEME://HOST  ", "  port,PORT  ", "  token,TOKEN  ", "  cid,ID  ",
                                         "  window,N          optional: ", "  pin,SHA256        optional: "}
                          << "";
    QTest::newRow("help among launch values") << QStringList{"ip,ws://192.0.2.8", "-h"} << 0 << QStringList{"Usage: "} << "";
    QTest::newRow("version") << QStringList{"--version"} << 0 << QStringList{"kx-clipboard " KX_VERSION "\n"} << "";
    QTest::newRow("nothing at all") << QStringList{} << -1 << QStringList{"Number of arguments: 1"}
        << "kx-clipboard: no launch arguments; the host application passes ip,… port,… token,… cid,… "
           "(kx-clipboard --help says more)";
    QTest::newRow("an unknown argument") << QStringList{"ip,ws://192.0.2.8", "--bogus"} << -1 << QStringList{"Argument 2: --bogus"}
        << "kx-clipboard: “--bogus” is no launch argument, and is ignored; the host application passes ip,… port,… token,… "
           "cid,… (kx-clipboard --help says more)";
    QTest::newRow("a line break in a value") << QStringList{"cid,7\n所有文件粘贴成功"} << -1 << QStringList{"Argument 1: cid,7\\n所有文件粘贴成功"} << "";
}

// The real executable. Help and version come without a display: an X11 toolkit started
// here would end the process for want of one.
void TestDesktop::commandLine()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, status);
    QFETCH(QStringList, out);
    QFETCH(QString, err);
    QProcess app;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove("DISPLAY");
    environment.remove("WAYLAND_DISPLAY");
    environment.insert("QT_QPA_PLATFORM", status < 0 ? "offscreen" : "xcb");
    app.setProcessEnvironment(environment);
    app.start(KX_CLIPBOARD, arguments);
    QByteArray printed;
    const auto shown = [&] {
        printed += app.readAllStandardOutput();
        return std::all_of(out.begin(), out.end(), [&](const QString &line) { return ("\n" + printed).contains("\n" + line.toUtf8()); });
    };
    (void)QTest::qWaitFor([&] { return shown() || app.state() == QProcess::NotRunning; }, 10000);
    QVERIFY2(shown(), printed.constData());
    if (status < 0) {
        QVERIFY(app.state() == QProcess::Running);
        app.kill();
    }
    QVERIFY(app.waitForFinished(10000) || app.state() == QProcess::NotRunning);
    QCOMPARE(app.exitStatus() == QProcess::NormalExit ? app.exitCode() : -1, status);
    if (status >= 0 || !err.isEmpty()) // what a running toolkit says there depends on the machine
        QCOMPARE(QString::fromUtf8(app.readAllStandardError()).section('\n', 0, 0), err);
}

void TestDesktop::clipboardPoll()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath("a"), "a") && writeFile(dir.filePath("b"), "b"));
    state.changeCount = 41; // whatever is on the board at start is never announced
    state.urls = QList<QUrl>{QUrl::fromLocalFile(dir.filePath("a"))};
    start();
    ClipboardWatcher *watcher = controller->watcher();
    for (int tick = 0; tick < 3; ++tick)
        watcher->checkPasteboard();
    QCOMPARE(state.reads, 0);
    state.copy({}); // a change with no URLs: handed over, and nothing goes out
    watcher->checkPasteboard();
    QVERIFY(sink.sent.isEmpty());
    const QList<QUrl> copied{QUrl::fromLocalFile(dir.filePath("a")), QUrl::fromLocalFile(dir.filePath("b"))};
    state.copy(copied);
    LogCapture log;
    watcher->checkPasteboard();
    watcher->checkPasteboard(); // once for the change
    QVERIFY(sink.sent.size() == 1 && log.contains("list:[" + copied[0].toString() + ", " + copied[1].toString() + "]"));
    sink.deliver(hex("03"));
    const auto list = kx::parseMessage<FileSDK::MacCliprdrFormatDataResponse>(sink.sent.last().chopped(1));
    QCOMPARE(list->filedes_size(), 2);
    QCOMPARE(list->filedes(1).cfilename(), std::string("b/"));
    state.urls.reset(); // a read error consumes the change: it is not read again
    ++state.changeCount;
    const int reads = state.reads;
    watcher->checkPasteboard();
    watcher->checkPasteboard();
    QCOMPARE(state.reads, reads + 1);
}

void TestDesktop::keyChords_data()
{
    QTest::addColumn<bool>("command");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("pastes");
    QTest::newRow("Ctrl+V") << true << "v" << true;
    QTest::newRow("V alone") << false << "v" << false;
    QTest::newRow("Ctrl+Shift+V") << true << "V" << false;
}

void TestDesktop::keyChords()
{
    QFETCH(bool, command);
    QFETCH(QString, text);
    QFETCH(bool, pastes);
    start();
    sink.deliver(kx::encodeFrame(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList));
    LogCapture log;
    state.press(command, text);
    QVERIFY(log.contains("Command + V 按下") == pastes && sink.sent.size() == (pastes ? 1 : 0));
}

// paste,files: where remote files can be served, a remote copy's list is asked for at once
// and Ctrl+V asks for nothing; elsewhere the paste is as without it, and the log says why.
void TestDesktop::pasteFiles_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("hasFileSystem");
    QTest::addColumn<QString>("refusal");
    QTest::addColumn<bool>("served");
    QTest::addColumn<QString>("logged");

    const QString instead = " - Ctrl+V opens the folder chooser instead";
    QTest::newRow("served") << QStringList{"paste,files"} << true << "" << true
                            << "the file manager pastes the remote files; no folder is asked for";
    QTest::newRow("not asked for") << QStringList{} << true << "" << false << "Command + V 按下";
    QTest::newRow("another value") << QStringList{"paste,folders"} << true << "" << false << "Command + V 按下";
    QTest::newRow("a path holding the key") << QStringList{"/home/me/paste,files"} << true << "" << false << "Command + V 按下";
    QTest::newRow("no mount possible") << QStringList{"paste,files"} << true << "/dev/fuse cannot be opened (Permission denied)" << false
                                       << "remote files cannot be pasted from the file manager: /dev/fuse cannot be opened (Permission denied)" + instead;
    QTest::newRow("no file system at all") << QStringList{"paste,files"} << false << "" << false
                                           << "remote files cannot be pasted from the file manager: this desktop has no file system for them" + instead;
}

void TestDesktop::pasteFiles()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, hasFileSystem);
    QFETCH(QString, refusal);
    QFETCH(bool, served);
    QFETCH(QString, logged);
    state.hasFileSystem = hasFileSystem;
    state.fileSystemRefusal = refusal;
    platform = std::make_unique<Platform>(makeFakePlatform(state));
    LogCapture log;
    start(arguments);
    QCOMPARE(state.filesServedTold, int(served));
    sink.deliver(kx::encodeFrame(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList));
    QCOMPARE(sink.sent.size(), int(served)); // the list, asked for at once
    state.press(true, "v");
    QCOMPARE(sink.sent.size(), 1);
    QCOMPARE(sink.sent.first().back(), char(FrameType::formatDataRequest));
    QVERIFY2(log.lines().contains(logged), qPrintable(log.lines().join('\n')));
    // The served files copied locally (as the file manager's Ctrl+C of them would) are
    // left out of what is announced back to the remote side; a copy of nothing else is not.
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath("a"), "a"));
    state.copy({QUrl::fromLocalFile("/fake/files/1/a"), QUrl::fromLocalFile(dir.filePath("a"))});
    controller->watcher()->checkPasteboard();
    QCOMPARE(sink.sent.size(), 2);
    QCOMPARE(log.contains("Skipping /fake/files/1/a: one of the remote files themselves"), served);
    state.copy({QUrl::fromLocalFile("/fake/files/1/b")});
    controller->watcher()->checkPasteboard();
    QCOMPARE(sink.sent.size(), served ? 2 : 3);
    QCOMPARE(log.contains("a local copy of the remote files themselves is not offered back"), served);
    if (!served)
        return;
    // Once laid out, the file manager pastes them; once something else took the clipboard
    // (a clipboard manager does), Ctrl+V opens the chooser.
    FileSDK::MacCliprdrFormatDataResponse list;
    *list.add_filedes() = descriptor("r.txt", 1);
    sink.deliver(kx::encodeFrame(list, FrameType::formatDataResponse));
    QTRY_VERIFY(state.holdsOffered);
    sink.sent.clear();
    state.press(true, "v");
    QVERIFY(sink.sent.isEmpty());
    state.copy({});
    state.press(true, "v");
    QVERIFY(sink.sent.size() == 1 && log.contains("the clipboard no longer holds the remote files; the folder chooser opens"));
}

void TestDesktop::lastAnnounced_data()
{
    QTest::addColumn<QStringList>("moves"); // after this companion's remote copy
    QTest::addColumn<bool>("acts");
    QTest::newRow("alone") << QStringList{} << true;
    QTest::newRow("another's copy came later") << QStringList{"other"} << false;
    QTest::newRow("ours came later again") << QStringList{"other", "ours"} << true;
    QTest::newRow("the record gone") << QStringList{"other", "gone"} << true;
    QTest::newRow("the record unreadable") << QStringList{"other", "garbled"} << true;
    QTest::newRow("the other has ended") << QStringList{"other", "ended"} << true;
    QTest::newRow("another display's copy came later") << QStringList{"elsewhere"} << true;
}

// Every companion of the user's (one per remote desktop) sees Ctrl+V: only the one whose
// remote files were announced last pastes; the others say so and send nothing. The tray's
// paste is a choice made for this companion: it is never left to another.
void TestDesktop::lastAnnounced()
{
    QFETCH(QStringList, moves);
    QFETCH(bool, acts);
    QTemporaryDir runtime;
    platform->latestAnnouncement = std::make_unique<AnnouncementFile>(runtime.path(), ":7");
    AnnouncementFile other(runtime.path(), ":7.1"), elsewhere(runtime.path(), ":8");
    start();
    const QByteArray copy = kx::encodeFrame(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList);
    sink.deliver(copy);
    for (const QString &move : moves) {
        if (move == "other" || move == "elsewhere")
            (move == "other" ? other : elsewhere).claim();
        else if (move == "ours")
            sink.deliver(copy);
        else
            QVERIFY(move == "gone" ? QFile::remove(other.path()) : writeFile(other.path(), move == "garbled" ? "x" : "2147483647 1f\n"));
    }
    LogCapture log;
    state.press(true, "v");
    QCOMPARE(sink.sent.size(), int(acts));
    QCOMPARE(log.contains("remote files were announced later to another companion; this Ctrl+V is left to it"), !acts);
    if (!acts)
        state.choosePaste();
    QCOMPARE(sink.sent.size(), 1);
}

void TestDesktop::hostAndPermission()
{
    LogCapture log;
    state.trusted = false;
    state.grantable = false; // as under Wayland: nothing could be granted, nobody is asked
    start();
    QCOMPARE(state.eventTaps, 0);
    controller.reset();
    state.grantable = true;
    start();
    ClipboardWatcher *watcher = controller->watcher();
    watcher->checkHostApplication();
    QVERIFY(state.hostQueries == QStringList{"host-app"} && log.contains("此程序在运行中") && state.exits.isEmpty()
            && watcher->progressTimer()->interval() == 60000);
    state.hostRunning = false;
    watcher->progressTimer()->setInterval(10); // the minute, shortened
    QTRY_VERIFY(!state.exits.isEmpty());
    watcher->progressTimer()->stop();
    QVERIFY(state.exits.first() == 0 && log.contains("此程序已经不存在"));
    state.exits.clear();

    // Missing at start: one alert of our own a second later; its first button opens the
    // settings and does not end the process.
    QVERIFY(state.trustedPrompts == (QList<bool>{true, true}) && log.contains("未获得辅助功能权限") && state.eventTaps == 1);
    QTRY_COMPARE_WITH_TIMEOUT(state.alerts.size(), 1, 3000);
    QCOMPARE(state.alerts.first().message, QStringLiteral("使用复制粘贴功能，请授权TestApp应用"));
    QCOMPARE(state.alerts.first().buttons, (QStringList{"授权成功后，点此按钮重启应用", "暂不使用复制粘贴"}));
    QCOMPARE(state.openedUrls, QList<QUrl>{QUrl("settings:accessibility")});
    state.alertAnswers = {1001}; // "not now" opens nothing
    watcher->showAccessibilityAlert();
    QCOMPARE(state.openedUrls.size(), 1);
    // Still not granted: a log line only. Granted later: the restart alert; "现在重启" ends.
    state.permissionChanged();
    QVERIFY(log.contains("用户未授权辅助功能") && state.alerts.size() == 2);
    state.trusted = true;
    state.alertAnswers = {1001, 1000};
    state.permissionChanged();
    QCOMPARE(state.alerts.last().message, QStringLiteral("重启后才可使用复制粘贴功能"));
    QVERIFY(state.alerts.last().buttons == (QStringList{"现在重启", "先不使用"}) && state.exits.isEmpty());
    state.permissionChanged();
    QVERIFY(state.exits == QList<int>{0} && log.contains("用户已授权辅助功能"));
}

void TestDesktop::windowAndAlerts()
{
    LogCapture log;
    start();
    QVERIFY(controller->stopBtn()->isHidden() && controller->progressIndicator()->isHidden());
    QCOMPARE(controller->progressIndicator()->value(), 0);
    QTRY_VERIFY(!controller->isVisible()); // hidden half a second after loading
    controller->handlePasteProgress(0.8738133333333333);
    QTRY_VERIFY(controller->isVisible());
    const QString none = QLocale().formattedDataSize(0);
    QCOMPARE(lines(), "87% — Receiving files|87%|||File 0 of 0 — " + none + " of " + none); // no paste: nothing named
    QVERIFY(controller->size().expandedTo({400, 200}) == controller->size() && fits());
    QCOMPARE(controller->progressIndicator()->value(), 8738);
    QVERIFY(log.contains("Progress: 0.8738133333333333")); // every digit, as a double reads back
    QVERIFY(controller->detailLabels().last()->text() != "Waiting for the remote desktop…"); // no bytes for a while: said
    QTRY_COMPARE_WITH_TIMEOUT(controller->detailLabels().last()->text(), "Waiting for the remote desktop…", 15000);
    // The speed of the last five seconds, from one second on: 10 MB/s, then 1 MB/s alone.
    TransferRate rate;
    for (std::int64_t ms = 0; ms <= 10000; ms += 500) {
        rate.add(ms, ms <= 5000 ? ms * 10000 : 50000000 + (ms - 5000) * 1000);
        QCOMPARE(rate.bytesPerSecond().has_value(), ms >= 1000);
    }
    QCOMPARE(rate.bytesPerSecond(), std::optional(1000000.0));
    // The window's ×: asked first; kept pasting, then stopped.
    state.alertAnswers = {1001, 1000};
    for (const bool stops : {false, true}) {
        QVERIFY(!controller->close() && controller->isVisible() != stops && log.contains("click stop") == stops);
        QVERIFY(state.alerts.takeLast().buttons == (QStringList{"Stop", "Keep pasting"}) && state.alerts.isEmpty());
    }
    controller->handlePasteFinished(false, ClipBoardError::cancelDownload);
    QVERIFY(log.contains("eror:cancelDownload"));
    QTRY_COMPARE(state.alerts.size(), 1);
    QCOMPARE(state.alerts.first().message, QStringLiteral("下载失败错误原因：cancelDownload"));
    QCOMPARE(state.alerts.first().buttons, QStringList{"ok"});
    QVERIFY(controller->stopBtn()->isHidden() && controller->progressIndicator()->isHidden());
    // Every other end in its own words; a raw value that no case has is none of them.
    const QStringList names{"noError", "pastAlreadyRunning", "formListResposeError", "saveError", "unKonwnError", "", "websoketDisconnect"};
    for (int raw : {1, 2, 3, 4, 6}) {
        controller->handlePasteFinished(false, clipBoardErrorFromRaw(raw).value());
        QTRY_COMPARE(state.alerts.last().message, "下载失败错误原因：" + names[raw]);
    }
    QVERIFY(!clipBoardErrorFromRaw(-1) && !clipBoardErrorFromRaw(7));
    controller->handlePasteProgress(0.5);
    controller->handlePasteFinished(true, ClipBoardError::noError);
    QTRY_COMPARE(state.alerts.size(), 7);
    QCOMPARE(state.alerts.last().reference, QStringLiteral("下载成功"));
    QVERIFY(log.contains("所有文件粘贴成功") && !controller->isVisible() && controller->progressIndicator()->value() == 0
            && controller->stopBtn()->isHidden() && controller->progressIndicator()->isHidden());
    // Stopped, the watcher holds no key monitor: one installed since is not its to remove.
    controller->watcher()->stopWatching();
    QVERIFY(!state.keyMonitorInstalled && platform->keyMonitor->install([](const KeyEvent &) {}));
    controller.reset();
    QVERIFY(state.keyMonitorInstalled);
}

// The remote side's part of a paste of these files, each of 300000 bytes, into dest:
// the list offered, every query answered. closing: the answer to the window's × at the
// first report (0: not pressed).
// The folder chooser answers with this folder from now on.
void TestDesktop::chooseFolder(const QTemporaryDir &dest)
{
    auto *chooser = new ScriptedChooser;
    chooser->answer = FolderChoice{true, QUrl::fromLocalFile(dest.path())};
    files.setFolderChooser(std::unique_ptr<FolderChooser>(chooser));
}

void TestDesktop::serve(const QTemporaryDir &dest, int files, const QString &stem, int closing)
{
    chooseFolder(dest);
    FileSDK::MacCliprdrFormatDataResponse list;
    for (int i = 0; i < files; ++i)
        *list.add_filedes() = descriptor(stem + QString::number(i), 300000);
    sink.deliver(kx::encodeFrame(list, FrameType::formatDataResponse));
    QTRY_COMPARE(sink.sent.size(), std::min(files, controller->window())); // the sizes asked for (the list read in slices of time)
    controller->handlePasteProgress(0.0);
    QTRY_VERIFY(controller->isVisible());
    shown = QStringList{lines()};
    state.alerts.clear();
    bool closed = !closing;
    state.alertAnswers = closing ? QList<int>{closing, 1001} : QList<int>{1001}; // the end alert: Open folder
    state.duringAlert = [this] { shown.append(lines() + "|" + controller->detailLabels().last()->text()); };
    while (!sink.sent.isEmpty()) {
        const Query q = kx::parseMessage<Query>(sink.sent.takeFirst().chopped(1)).value();
        const QByteArray answer = answerFor(q, pattern(300000, int(q.listindex())));
        sink.deliver(kx::encodeFrame(kx::makeContentsAnswer(q.streamid(), answer.toStdString()), FrameType::fileContentsResponse));
        // The window takes its figures in a queued call: run it now, however busy the
        // machine is, rather than whenever one pass of the loop gets to it.
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents();
        if (controller->isVisible()) { // else it has ended, its alert answered
            QVERIFY(fits());
            shown.append(lines());
        }
        if (!std::exchange(closed, true))
            QVERIFY(!controller->close());
    }
    const bool stopped = closing == 1000;
    QTRY_COMPARE(state.alerts.last().reference, stopped ? "下载失败错误原因：cancelDownload" : "下载成功");
    state.duringAlert = nullptr;
    for (int i = 0; i < files && !stopped; ++i)
        QCOMPARE(readFile(dest.filePath(QString(stem).replace('\\', '/') + QString::number(i))), pattern(300000, i));
    QVERIFY(!stopped || treeOf(dest.path()).isEmpty());
}

// The progress window's title, bar and lines, the speed's aside: what a paste shows at a moment.
QString TestDesktop::lines() const
{
    const QProgressBar *bar = controller->progressIndicator();
    QStringList texts{controller->windowTitle(), bar->isVisible() ? bar->text() : "no bar"};
    for (const QLabel *label : controller->detailLabels().first(3))
        texts.append(label->text());
    return texts.join('|');
}

// Each text whole within the window, in its font at this scale.
bool TestDesktop::fits() const
{
    for (const QLabel *label : controller->detailLabels())
        if (label->fontMetrics().horizontalAdvance(label->text()) > label->contentsRect().width()
            || label->height() < label->fontMetrics().height() || !controller->rect().contains(label->geometry()))
            return false;
    const QPushButton *stop = controller->stopBtn();
    return stop->size().expandedTo(stop->sizeHint()) == stop->size() && controller->rect().contains(stop->geometry());
}

// Ctrl+V to the alert, through the watcher's wrappers and the window argument.
void TestDesktop::pasteThroughCtrlV()
{
    QTemporaryDir dest;
    start({"window,4"});
    sink.deliver(kx::encodeFrame(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList));
    LogCapture log;
    state.press(true, "v");
    QCOMPARE(sink.sent.size(), 1);
    sink.sent.clear();
    serve(dest, 3, QString(120, 'n'), 1001); // the × at the first report: asked, and the paste went on
    QVERIFY(log.contains("当前的百分比：1.0") && log.contains("Progress: 1.0") && state.alerts.first().message == "Stop this paste?"
            && state.alerts.first().defaultButton == 1); // Return keeps the paste going
    QVERIFY(controller->detailLabels().first()->toolTip().startsWith(QString(120, 'n'))); // cut, and whole in its tooltip
    QVERIFY2(shown.at(1).section('|', 2, 2).startsWith("nnnn") && shown.at(1).contains(QChar(0x2026))
             && shown.last().contains("|File 3 of 3 — "), qPrintable(shown.join('\n')));
    // The alert says what was saved and where, and opens the folder on request.
    QCOMPARE(state.alerts.last().message,
             QStringLiteral("3 files (%1) were saved in “%2”.").arg(QLocale().formattedDataSize(900000), QDir(dest.path()).dirName()));
    QVERIFY(state.alerts.last().buttons == QStringList({"ok", "Open folder"})
            && state.openedUrls == QList<QUrl>{QUrl::fromLocalFile(dest.path())});
    // What a tray is told: the connection, the copy and, once a paste has read its list,
    // what it holds; and when it can be pasted.
    QCOMPARE(state.offers, (QList<RemoteOffer>{{true, {}}, {true, PasteContents{3, 900000}}}));
    QVERIFY(state.connected == QList<bool>{true} && state.offered == (QList<bool>{true, false, true}));
    QTemporaryDir again; // the same remote copy, stopped by the ×: nothing is left
    state.press(true, "v");
    sink.sent.clear();
    serve(again, 3, QString(120, 'n'), 1000);
    // Quit while a paste runs: the paste ends as Stop ends it, and its half-written file goes.
    state.choosePaste();
    FileSDK::MacCliprdrFormatDataResponse list;
    *list.add_filedes() = descriptor("q", 300000);
    sink.sent.clear();
    sink.deliver(kx::encodeFrame(list, FrameType::formatDataResponse));
    for (int answers = 0; answers < 2; ++answers) { // its size, then its first range
        const Query q = kx::parseMessage<Query>(sink.sent.takeFirst().chopped(1)).value();
        sink.deliver(kx::encodeFrame(kx::makeContentsAnswer(q.streamid(), answerFor(q, pattern(300000, 9)).toStdString()),
                                     FrameType::fileContentsResponse));
    }
    const QDir::Filters hidden = QDir::Files | QDir::Hidden;
    QCOMPARE(QDir(again.path()).entryList(hidden).size(), 1);
    state.chooseQuit();
    QVERIFY(state.quits == 1 && log.contains("Quit chosen") && log.contains("eror:cancelDownload"));
    QCOMPARE(state.offered, (QList<bool>{true, false, true, false, true, false, true})); // on offer again after each Stop
    QCOMPARE(QDir(again.path()).entryList(hidden).size(), 0);
    sink.lose();
    QVERIFY(state.connected == (QList<bool>{true, false}) && state.offers.last() == RemoteOffer{});
}

// Ctrl+V while a paste runs, meant for another program: for the same remote copy nothing
// at all; for a newer one a question whose default (Return) keeps the running paste.
void TestDesktop::strayCtrlV()
{
    QTemporaryDir dest;
    start({});
    chooseFolder(dest);
    const auto remoteCopy = [&] { sink.deliver(kx::encodeFrame(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList)); };
    FileSDK::MacCliprdrFormatDataResponse list;
    *list.add_filedes() = descriptor("big", 3 * 262144);
    remoteCopy();
    state.press(true, "v");
    sink.deliver(kx::encodeFrame(list, FrameType::formatDataResponse));
    QTRY_COMPARE(sink.sent.size(), 2); // the list, then the file's size
    sink.sent.clear();
    LogCapture log;
    state.press(true, "v");
    QVERIFY(sink.sent.isEmpty() && state.alerts.isEmpty() && log.contains("a paste of this remote copy runs already; Ctrl+V does nothing"));
    remoteCopy(); // the same file copied again: compared, and the paste goes on
    QCOMPARE(sink.sent.size(), 1);
    sink.sent.clear();
    sink.deliver(kx::encodeFrame(list, FrameType::formatDataResponse));
    for (const QList<int> &answers : {QList<int>{}, QList<int>{1001}}) {
        state.alertAnswers = answers;
        state.press(true, "v");
        QCOMPARE(state.alerts.size(), 1);
        const FakePlatformState::Alert asked = state.alerts.takeFirst();
        QVERIFY(asked.message == "Stop the running paste and paste the new files?" && asked.defaultButton == 0
                && asked.buttons == (QStringList{"Keep pasting", "Stop and paste the new files"}));
        QCOMPARE(sink.sent.size(), answers.isEmpty() ? 0 : 1); // the newer copy's list, asked for a paste
        QCOMPARE(controller->watcher()->clipManager()->runningPaste(), ClipBoardManager::RunningPaste::olderCopy);
    }
}

// A paste that does not fit: its alert offers another folder, which pastes the same copy.
void TestDesktop::chooseAnotherFolder()
{
    QTemporaryDir dest;
    start({});
    chooseFolder(dest);
    files.freeSpaceQuery = [](const QString &) { return std::optional<std::uint64_t>(5); };
    const auto room = qScopeGuard([this] { files.freeSpaceQuery = nullptr; });
    sink.deliver(kx::encodeFrame(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList));
    FileSDK::MacCliprdrFormatDataResponse list;
    *list.add_filedes() = descriptor("big", 300000);
    state.alertAnswers = {1001};
    state.press(true, "v");
    sink.deliver(kx::encodeFrame(list, FrameType::formatDataResponse));
    QTRY_COMPARE(state.alerts.size(), 1);
    QCOMPARE(state.alerts.first().buttons, (QStringList{"ok", "Choose another folder…"}));
    QTRY_COMPARE(sink.sent.size(), 2); // the list asked for again, for the folder chosen next
    QCOMPARE(sink.sent.last().back(), char(FrameType::formatDataRequest));
}

// The end alert's headline: the words under any locale but Chinese, with the described
// message below them as a small reference; the described message under a Chinese locale.
// An end with no words to say keeps the described message; a failure warns.
void TestDesktop::alertHeadline_data()
{
    QTest::addColumn<bool>("chinese");
    QTest::newRow("English") << false;
    QTest::newRow("Chinese") << true;
}

void TestDesktop::alertHeadline()
{
    QFETCH(bool, chinese);
    const QLocale before;
    if (chinese)
        QLocale::setDefault(QLocale(QLocale::Chinese, QLocale::China)), kx::installTranslations(QLocale());
    const auto restore = qScopeGuard([&] { QLocale::setDefault(before), kx::installTranslations(QLocale(QLocale::English)); });
    start();
    controller->handlePasteFinished(true, ClipBoardError::noError);
    controller->handlePasteFinished(false, ClipBoardError::cancelDownload);
    QTRY_COMPARE(state.alerts.size(), 2);
    const QString words = PasteEndText::text(true, PasteReport());
    const Alert done = state.alerts.first(), failed = state.alerts.last();
    QCOMPARE((QStringList{done.message, done.informative, done.reference}),
             chinese ? QStringList({"下载成功", words, ""}) : QStringList({words, "", "下载成功"}));
    QVERIFY(done.kind == Alert::Kind::information && failed.kind == Alert::Kind::warning
            && failed.message == "下载失败错误原因：cancelDownload" && failed.reference.isEmpty());
}

// The words of an alert, below its described message, for each way a paste ends.
void TestDesktop::endTexts_data()
{
    QTest::addColumn<bool>("success");
    QTest::addColumn<PasteReport>("report");
    QTest::addColumn<QString>("text");
    using Why = PasteReport::Why;
    const auto report = [](Why why, std::uint64_t saved, QString file = "Project/big.mp4", QString folder = "/home/u/Downloads") {
        PasteReport r;
        r.why = why, r.file = file, r.folder = folder, r.filesSaved = saved, r.bytesSaved = saved * 2000;
        r.bytesNeeded = 3000000, r.bytesFree = 1000000, r.detail = "File too large";
        return r;
    };
    PasteReport renamed = report(Why::none, 1);
    renamed.filesRenamed = 1, renamed.filesSkipped = 2;
    const QString kB = QLocale().formattedDataSize(2000);
    QTest::newRow("success, one renamed, two skipped") << true << renamed
        << "1 file (" + kB + ") was saved in “Downloads”.\nOne got a new name, as a file of the same name was already there.\n"
           "2 files were skipped: the ones you had stay as they were.";
    PasteReport replaced = report(Why::none, 3);
    replaced.filesReplaced = 2;
    QTest::newRow("success, two replaced") << true << replaced << "3 files (" + QLocale().formattedDataSize(6000) + ") were saved in “Downloads”.\n"
        "2 replaced the files of the same names that were there.";
    PasteReport skipped = report(Why::none, 0);
    skipped.filesSkipped = 3;
    QTest::newRow("success, every name taken and skipped") << true << skipped << "Nothing new was saved in “Downloads”: every name was "
        "already taken there.\n3 files were skipped: the ones you had stay as they were.";
    QTest::newRow("stopped") << false << report(Why::stopped, 2)
        << "You stopped the paste while “Project/big.mp4” was being received.\n2 files were saved in “Downloads” before the paste "
           "ended; no half-written file was left.";
    QTest::newRow("no space") << false << report(Why::notEnoughSpace, 0)
        << "The paste needs " + QLocale().formattedDataSize(3000000) + ", and only " + QLocale().formattedDataSize(1000000)
               + " are free on the disk of “Downloads”. Free some space, or choose another folder.";
    QTest::newRow("a write that failed") << false << report(Why::cannotWrite, 1)
        << "“Project/big.mp4” could not be written: File too large.\n1 file was saved in “Downloads” before the paste ended; "
           "no half-written file was left.";
    QTest::newRow("no answer") << false << report(Why::noAnswer, 0) << "The remote desktop stopped answering for a minute while "
        "“Project/big.mp4” was being received.\nNo file was saved, and no half-written file was left.";
    QTest::newRow("other files copied meanwhile") << false << report(Why::remoteCopyChanged, 1) << "Something else was copied "
        "on the remote desktop while “Project/big.mp4” was being received, so the paste stopped rather than mix the two copies.\n"
        "1 file was saved in “Downloads” before the paste ended; no half-written file was left.";
    QTest::newRow("a list that does not decode") << false << report(Why::unreadable, 0, "", "") << "The remote desktop sent data that could not be read.";
    QTest::newRow("lost before a folder was chosen") << false << report(Why::connectionLost, 0, "", "")
        << "The connection to the remote desktop was lost. It comes back by itself: paste again once the remote desktop offers "
           "the files again.";
}

void TestDesktop::endTexts()
{
    QFETCH(bool, success);
    QFETCH(PasteReport, report);
    QFETCH(QString, text);
    QCOMPARE(PasteEndText::text(success, report), text);
    // Under a Chinese locale every line is in Chinese, with the same names and figures.
    kx::installTranslations(QLocale(QLocale::Chinese, QLocale::China));
    const QString chinese = PasteEndText::text(success, report);
    kx::installTranslations(QLocale(QLocale::English));
    QVERIFY2(chinese.count('\n') == text.count('\n') && chinese.contains(QRegularExpression("[\\x{4e00}-\\x{9fff}]")), qPrintable(chinese));
    for (const QString &kept : {report.file, report.folder.section('/', -1)})
        QVERIFY(!text.contains("“" + kept + "”") || chinese.contains(kept));
}

void TestDesktop::conflictQuestion_data()
{
    QTest::addColumn<QString>("press"); // a key, or a button by its text
    QTest::addColumn<int>("choice");
    QTest::newRow("Return: Keep both") << "Return" << int(ConflictChoice::keepBoth);
    QTest::newRow("Escape: Cancel") << "Escape" << int(ConflictChoice::cancel);
    QTest::newRow("Replace") << "Replace" << int(ConflictChoice::replace);
    QTest::newRow("Skip") << "Skip" << int(ConflictChoice::skip);
}

// The one question about taken names: how many, the first few, and what each answer means.
void TestDesktop::conflictQuestion()
{
    QFETCH(QString, press);
    QFETCH(int, choice);
    QString asked;
    QTimer::singleShot(0, [&] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        asked = box->text();
        QAbstractButton *named = nullptr;
        for (QAbstractButton *button : box->buttons())
            named = button->text() == press ? button : named;
        named ? named->click() : QTest::keyClick(box, press == "Return" ? Qt::Key_Return : Qt::Key_Escape);
    });
    QCOMPARE(int(QtConflictAsker().ask({"/home/u/Downloads", 7, {"notes.txt", "Reports/q1.pdf"}})), choice);
    QCOMPARE(asked, "7 of the pasted items already exist in “Downloads”:\n\nnotes.txt\nReports/q1.pdf\n…");
}

// The notification's Paste…, for sessions where no key can be watched: on a session bus
// of the test's own, with the notification service played here.
void TestDesktop::pasteFromTheNotification()
{
    SessionBus bus;
    QVERIFY2(bus.up(), "dbus-daemon did not start");
    QDBusConnection &serviceBus = bus.serviceBus;
    NotificationService &service = bus.service;
    platform->pasteTriggers.push_back(std::make_unique<NotificationTrigger>(true, bus.client()));
    QTemporaryDir dest;
    start();

    const QByteArray copy = kx::encodeFrame(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList);
    sink.deliver(copy);
    QTRY_COMPARE(service.actions, (QList<QStringList>{{"paste", "Paste…"}}));
    QVERIFY(service.timeout == 0 && service.hints.value("resident").toBool() && service.hints.value("urgency").toInt() == 1);
    sink.deliver(copy); // a newer remote copy replaces it
    QTRY_COMPARE(service.replaced, (QList<uint>{0, 42}));
    // Dismissed by the user: the next copy brings a notification of its own.
    QDBusConnection("client").connect({}, "/org/freedesktop/Notifications", "org.freedesktop.Notifications", "NotificationClosed",
                                      &service, SLOT(dismissedSeen(uint, uint)));
    QVERIFY(serviceBus.send(QDBusMessage::createSignal("/org/freedesktop/Notifications", "org.freedesktop.Notifications",
                                                       "NotificationClosed") << 42u << 2u));
    QTRY_COMPARE(service.dismissed, QList<uint>{42});
    sink.deliver(copy);
    QTRY_COMPARE(service.replaced, (QList<uint>{0, 42, 0}));
    QDBusMessage invoked = QDBusMessage::createSignal("/org/freedesktop/Notifications", "org.freedesktop.Notifications", "ActionInvoked");
    invoked << 44u << QStringLiteral("paste");
    QVERIFY(serviceBus.send(invoked));
    QTRY_COMPARE(sink.sent.size(), 1); // the format data request, as Ctrl+V sends it
    QCOMPARE(sink.sent.takeFirst().back(), char(3));
    QTRY_COMPARE(service.closed, QList<uint>{44}); // withdrawn as the paste starts
    serve(dest, 3, "Project Files\\f");
    const auto at = [&](int percent, int file, qint64 saved) {
        return QString("%1% — Receiving files|%1%|Project Files/f%2|to %3|File %4 of 3 — %5 of %6").arg(percent).arg(file).arg(dest.path())
            .arg(file + 1).arg(QLocale().formattedDataSize(saved), QLocale().formattedDataSize(900000));
    };
    QVERIFY2(shown.contains(at(29, 0, 262144)) && shown.contains(at(62, 1, 562144)), qPrintable(shown.join('\n')));
    QCOMPARE(shown.last(), at(100, 2, 900000) + "|Done"); // the end alert up
}

// A local copy fetched by the remote side: one notification for the copy, replaced when
// its last byte has gone, also when that comes before the service has answered. Where
// Ctrl+V works, remote copies bring no notification.
void TestDesktop::copyNotifications()
{
    SessionBus bus;
    QVERIFY2(bus.up(), "dbus-daemon did not start");
    NotificationTrigger trigger(false, bus.client());
    trigger.setOffered(true);
    const QString what = "3 items (" + QLocale().formattedDataSize(12 << 20) + ")";
    const QStringList sending{"Sending to the remote desktop…", "The remote desktop is fetching " + what + " of your copy."};
    const QStringList sent{"Sent to the remote desktop", "The remote desktop has received " + what + " of your copy."};
    // Two copies, each sent whole, all before the service has answered anything.
    for (bool done : {false, true, false, true})
        trigger.setCopySending(CopySending{done, 3, 12 << 20});
    QTRY_COMPARE(bus.service.texts, (QList<QStringList>{sending, sent, sending, sent}));
    QCOMPARE(bus.service.replaced, (QList<uint>{0, 42, 0, 44}));
    QVERIFY(bus.service.actions == QList<QStringList>(4) && bus.service.closed.isEmpty());
    // Where the file manager pastes, remote copies bring the folder chooser's way.
    trigger.setFilesServed();
    trigger.setOffered(true);
    QTRY_COMPARE(bus.service.actions.size(), 5);
    QCOMPARE(bus.service.actions.last(), (QStringList{"paste", "Paste to folder…"}));
}

void TestDesktop::trayMenu_data()
{
    QTest::addColumn<QList<bool>>("connections"); // what the tray was told, in order
    QTest::addColumn<RemoteOffer>("offer");
    QTest::addColumn<bool>("offered");
    QTest::addColumn<QStringList>("menu"); // the two lines that inform, then the rest of the menu

    const QStringList rest{"", "Paste to folder…", "", "Quit"};
    QTest::newRow("at start") << QList<bool>{} << RemoteOffer{} << false
                              << QStringList{"Connecting to the remote desktop…", "No files on the remote clipboard"} + rest;
    QTest::newRow("attempts failed, then a copy") << QList<bool>{false, false, true} << RemoteOffer{true, {}} << true
                                                  << QStringList{"Connected to the remote desktop", "Files on the remote clipboard"} + rest;
    QTest::newRow("its list read, a paste running") << QList<bool>{true} << RemoteOffer{true, PasteContents{3, 12 << 20}} << false
        << QStringList{"Connected to the remote desktop", "3 items, " + QLocale().formattedDataSize(12 << 20) + " on the remote clipboard"} + rest;
    QTest::newRow("one item of a size not told") << QList<bool>{true} << RemoteOffer{true, PasteContents{1, {}}} << true
                                                 << QStringList{"Connected to the remote desktop", "1 item on the remote clipboard"} + rest;
    QTest::newRow("the connection lost") << QList<bool>{true, false} << RemoteOffer{} << false
                                         << QStringList{"Connection lost; reconnecting…", "No files on the remote clipboard"} + rest;
}

// The tray icon's menu: what it tells, and Paste to folder… only while remote files are on offer.
void TestDesktop::trayMenu()
{
    QFETCH(QList<bool>, connections);
    QFETCH(RemoteOffer, offer);
    QFETCH(bool, offered);
    QFETCH(QStringList, menu);
    TrayTrigger tray;
    int pastes = 0, quits = 0;
    tray.onPaste([&] { ++pastes; });
    tray.onQuit([&] { ++quits; });
    for (bool connected : connections)
        tray.setConnected(connected);
    tray.setRemoteOffer(offer);
    tray.setOffered(offered);
    const QSystemTrayIcon *icon = tray.findChild<QSystemTrayIcon *>();
    const auto shown = [&] {
        QList<QAction *> visible = icon->contextMenu()->actions();
        visible.removeIf([](const QAction *action) { return !action->isVisible(); });
        return visible;
    };
    const QList<QAction *> actions = shown();
    QStringList texts;
    for (const QAction *action : actions)
        texts.append(action->text());
    QCOMPARE(texts, menu);
    QVERIFY(!actions[0]->isEnabled() && !actions[1]->isEnabled() && actions[3]->isEnabled() == offered && actions[5]->isEnabled());
    QCOMPARE(icon->toolTip(), "KXClipboard\n" + menu[0] + "\n" + menu[1]);
    actions[3]->trigger();
    actions[5]->trigger();
    QVERIFY(pastes == int(offered) && quits == 1);
    // A local copy fetched by the remote side: a third line, and the tooltip, say so.
    const QString what = "3 items (" + QLocale().formattedDataSize(12 << 20) + ")";
    for (bool done : {false, true}) {
        tray.setCopySending(CopySending{done, 3, 12 << 20});
        const QString line = done ? what + " sent to the remote desktop" : "Sending " + what + " to the remote desktop…";
        QVERIFY(shown().at(2)->text() == line && !shown().at(2)->isEnabled() && icon->toolTip().endsWith("\n" + line));
    }
}

// The clipboard in this process: file URLs, and where a compositor hands a copy over as
// text, lines of local file URLs and nothing else.
void TestDesktop::clipboardBackend()
{
    QtPasteboard board(true), strict;
    auto *text = new QMimeData;
    text->setText("file:///tmp/a%20b\r\nfile:///tmp/c\n");
    QGuiApplication::clipboard()->setMimeData(text);
    QCOMPARE(board.readUrls(), std::optional(QList<QUrl>{QUrl::fromLocalFile("/tmp/a b"), QUrl::fromLocalFile("/tmp/c")}));
    QCOMPARE(strict.readUrls(), std::optional(QList<QUrl>{}));
    auto *both = new QMimeData;
    both->setUrls({QUrl::fromLocalFile("/tmp/d")});
    both->setText("file:///tmp/e\nhttp://example.org/");
    QGuiApplication::clipboard()->setMimeData(both);
    QCOMPARE(board.readUrls(), std::optional(QList<QUrl>{QUrl::fromLocalFile("/tmp/d")}));
}

// The session told by the environment: the Qt platform the desktop side runs on, and
// how the log line that tells the user begins.
void TestDesktop::desktopSession()
{
    for (const auto &[environment, platform, told] : QList<std::tuple<QStringList, QByteArray, QString>>{
             {{"DISPLAY=:0"}, "xcb", "desktop session: X11;"},
             {{"WAYLAND_DISPLAY=wayland-0", "DISPLAY=:1"}, "xcb", "desktop session: Wayland, desktop side through XWayland;"},
             {{"XDG_SESSION_TYPE=wayland"}, "wayland;offscreen", "desktop session: Wayland without XWayland;"},
             {{"XDG_SESSION_TYPE=tty"}, "offscreen", "no graphical display:"}}) {
        QProcessEnvironment variables;
        for (const QString &pair : environment)
            variables.insert(pair.section('=', 0, 0), pair.section('=', 1));
        const DesktopSession session = DesktopSession::detect(variables);
        QVERIFY2(session.qtPlatform() == platform && session.summary().startsWith(told), qPrintable(session.summary()));
    }
}

// A folder typed into the chooser and Return at once, before the chooser has listed the
// folders on the way: the answer is the typed folder, whole, as typed.
void TestDesktop::typedFolder_data()
{
    QTest::addColumn<QString>("typed"); // beneath the start folder, or "/" and all
    QTest::addColumn<QString>("answer");
    QTest::newRow("a full path") << "/a/b/pasted" << "a/b/pasted";
    QTest::newRow("a full path, a slash at its end") << "/a/b/pasted/" << "a/b/pasted";
    QTest::newRow("a name in the start folder") << "a" << "a";
    QTest::newRow("a path from the start folder") << "a/b" << "a/b";
    QTest::newRow("a folder not made yet, made") << "/a/new/deeper" << "a/new/deeper";
}

void TestDesktop::typedFolder()
{
    QFETCH(QString, typed);
    QFETCH(QString, answer);
    QTemporaryDir root;
    for (int i = 0; i < 200; ++i) // much to list on the way
        QVERIFY(QDir().mkpath(root.filePath(QStringLiteral("a/b/pa%1").arg(i))));
    QVERIFY(QDir().mkpath(root.filePath("a/b/pasted")));
    if (typed.startsWith('/'))
        typed.prepend(root.path());
    QTimer::singleShot(0, [&] {
        auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        auto *field = dialog ? dialog->findChild<QLineEdit *>("fileNameEdit") : nullptr;
        QVERIFY(field && dialog->labelText(QFileDialog::Accept) == "Paste here"
                && dialog->sidebarUrls().value(0) == QUrl::fromLocalFile(QDir::homePath()));
        QTest::keyClicks(field, typed);
        QTimer::singleShot(0, [] { // asked whether to make it: its default, Make the folder
            if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget()))
                box->defaultButton()->click();
        });
        QTest::keyClick(field, Qt::Key_Return);
    });
    QtFolderChooser chooser;
    const FolderChoice choice = chooser.runModal(FolderRequest{{}, root.path()});
    QVERIFY(choice.confirmed && choice.url);
    QCOMPARE(QDir::cleanPath(choice.url->toLocalFile()), root.filePath(answer));
}

QTEST_MAIN(TestDesktop)
#include "tst_desktop.moc"
