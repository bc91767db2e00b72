#include "EngineSession.h"
#include "FakePlatform.h"
#include "LaunchArguments.h"
#include "LogCapture.h"
#include "ViewController.h"

#include <QApplication>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>
#include <QTimer>

Q_DECLARE_METATYPE(ClipBoardError)

// The watcher and the shell on the scripted platform, with the real engine connected
// to the in-process agent.
class TestDesktop : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void launchArguments_data();
    void launchArguments();
    void emptyArgumentLogsNoValue();
    void pasteboardChanges();
    void keyChords_data();
    void keyChords();
    void completionWrapperMapsRawValues();
    void hostGoneEndsTheProcess();
    void permissionFlow();
    void stopWithoutEngineOnlyHides();
    void progressShowsTheWindow();
    void failureAlertNamesTheError();
    void pasteThroughCtrlV();

private:
    void startController(const QStringList &arguments);
    FakePlatformState state;
    std::unique_ptr<Platform> platform;
    std::unique_ptr<ViewController> controller;
    std::unique_ptr<TestAgent> agent;
};

void TestDesktop::init()
{
    state = FakePlatformState{};
    platform = std::make_unique<Platform>(makeFakePlatform(state));
    agent = std::make_unique<TestAgent>();
    QVERIFY(agent->listen());
}

void TestDesktop::cleanup()
{
    controller.reset();
    platform.reset();
    agent.reset();
}

void TestDesktop::startController(const QStringList &extra)
{
    controller = std::make_unique<ViewController>(*platform, QStringLiteral("host-app"));
    controller->viewDidLoad(QStringList{QStringLiteral("/usr/bin/kx-clipboard"), "ip," + agent->ip(),
                                        "port," + agent->port(), QStringLiteral("token,tok"), QStringLiteral("cid,7")}
                            + extra);
    QVERIFY(agent->waitForClient());
    QVERIFY(agent->nextFrame()); // the client type frame
}

void TestDesktop::launchArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("expected"); // ip, port, token, cid

    QTest::newRow("the four values") << QStringList{"/app", "ip,ws://192.0.2.8", "port,9000", "token,abc", "cid,7"}
                                     << QStringList{"ws://192.0.2.8", "9000", "abc", "7"};
    QTest::newRow("white space trimmed") << QStringList{"ip, 192.0.2.8\t"} << QStringList{"192.0.2.8", "", "", ""};
    QTest::newRow("last comma piece wins") << QStringList{"port,80,81", "token,,x,"} << QStringList{"", "81", "x", ""};
    QTest::newRow("no comma: the argument itself") << QStringList{"ip"} << QStringList{"ip", "", "", ""};
    QTest::newRow("ip is found inside token") << QStringList{"token,zip9"} << QStringList{"zip9", "", "", ""};
    QTest::newRow("later argument wins") << QStringList{"cid,1", "cid,2"} << QStringList{"", "", "", "2"};
    QTest::newRow("no keys at all") << QStringList{"/app", "--verbose"} << QStringList{"", "", "", ""};
    QTest::newRow("line break kept") << QStringList{"cid,7\n"} << QStringList{"", "", "", "7\n"};
}

void TestDesktop::launchArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, expected);
    LogCapture log;
    const LaunchArguments values = LaunchArguments::read(arguments);
    QCOMPARE((QStringList{values.ipAdress, values.port, values.token, values.cid}), expected);
    QCOMPARE(log.lines().first(), QStringLiteral("Number of arguments: %1").arg(arguments.size()));
    QVERIFY(log.contains(QStringLiteral("Argument 0: ") + arguments.first()));
}

void TestDesktop::emptyArgumentLogsNoValue()
{
    LogCapture log;
    QCOMPARE(LaunchArguments::valueAfterComma(QStringLiteral(",,,")), QString());
    QCOMPARE(LaunchArguments::valueAfterComma(QString()), QString());
    QCOMPARE(log.count(QStringLiteral("未找到逗号后面的内容")), 2);
}

void TestDesktop::pasteboardChanges()
{
    QTemporaryDir dir;
    QVERIFY(writeFile(dir.filePath("a"), "a"));
    QVERIFY(writeFile(dir.filePath("b"), "b"));
    state.changeCount = 41; // whatever is on the board at start is never announced
    state.urls = QList<QUrl>{QUrl::fromLocalFile(dir.filePath("a"))};
    startController({});
    ClipboardWatcher *watcher = controller->watcher();
    QCOMPARE(watcher->lastChangeCount(), 41);
    QCOMPARE(watcher->clipTimer()->interval(), 1000);

    for (int tick = 0; tick < 5; ++tick)
        watcher->checkPasteboard();
    QVERIFY(!agent->nextFrame(200));

    // A change with no URLs hands over an empty list: nothing goes out.
    state.copy({});
    watcher->checkPasteboard();
    QCOMPARE(watcher->lastChangeCount(), 42);
    QVERIFY(!agent->nextFrame(200));

    // Two URLs in order, once for the change.
    state.copy({QUrl::fromLocalFile(dir.filePath("a")), QUrl::fromLocalFile(dir.filePath("b"))});
    watcher->checkPasteboard();
    watcher->checkPasteboard();
    QVERIFY(agent->next<FileSDK::CliprdrFormatList>(FrameType::formatList));
    QVERIFY(!agent->nextFrame(200));
    FileSDK::CliprdrFormatDataRequest request;
    agent->sendMessage(request, FrameType::formatDataRequest);
    const auto list = agent->next<FileSDK::MacCliprdrFormatDataResponse>(FrameType::formatDataResponse);
    QVERIFY(list);
    QCOMPARE(list->filedes_size(), 2);
    QCOMPARE(list->filedes(0).cfilename(), std::string("a/"));
    QCOMPARE(list->filedes(1).cfilename(), std::string("b/"));

    // A read error consumes the change without a call.
    state.urls.reset();
    ++state.changeCount;
    watcher->checkPasteboard();
    QCOMPARE(watcher->lastChangeCount(), state.changeCount);
}

void TestDesktop::keyChords_data()
{
    QTest::addColumn<bool>("command");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("pastes");
    QTest::newRow("Ctrl+V") << true << "v" << true;
    QTest::newRow("Ctrl+Alt+V and Ctrl+Super+V give v too") << true << "v" << true;
    QTest::newRow("V alone") << false << "v" << false;
    QTest::newRow("Ctrl+Shift+V") << true << "V" << false;
    QTest::newRow("Ctrl+C") << true << "c" << false;
    QTest::newRow("no characters") << true << "" << false;
}

void TestDesktop::keyChords()
{
    QFETCH(bool, command);
    QFETCH(QString, text);
    QFETCH(bool, pastes);
    startController({});
    QVERIFY(state.keyMonitorInstalled);
    agent->sendMessage(TestAgent::remoteFormatList(), FrameType::formatList);
    QTRY_VERIFY(controller->watcher()->clipManager()->hasFormList());
    LogCapture log;
    state.press(command, text);
    QCOMPARE(log.contains(QStringLiteral("Command + V 按下")), pastes);
    const auto request = agent->next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest, pastes ? 10000 : 300);
    QCOMPARE(bool(request), pastes);
}

void TestDesktop::completionWrapperMapsRawValues()
{
    QCOMPARE(clipBoardErrorFromRaw(5), std::optional(ClipBoardError::cancelDownload));
    QCOMPARE(clipBoardErrorFromRaw(0), std::optional(ClipBoardError::noError));
    QVERIFY(!clipBoardErrorFromRaw(7));
    QVERIFY(!clipBoardErrorFromRaw(-1));
    QCOMPARE(clipBoardErrorName(ClipBoardError::websoketDisconnect), QStringLiteral("websoketDisconnect"));
}

void TestDesktop::hostGoneEndsTheProcess()
{
    startController({});
    ClipboardWatcher *watcher = controller->watcher();
    QCOMPARE(watcher->progressTimer()->interval(), 60000);
    LogCapture log;
    watcher->checkHostApplication();
    QCOMPARE(state.hostQueries, QStringList{QStringLiteral("host-app")});
    QVERIFY(state.exits.isEmpty());
    QVERIFY(log.contains(QStringLiteral("此程序在运行中")));
    state.hostRunning = false;
    // Drive the timer rather than wait a minute.
    watcher->progressTimer()->setInterval(10);
    QTRY_VERIFY(!state.exits.isEmpty());
    watcher->progressTimer()->stop();
    QCOMPARE(state.exits.first(), 0);
    QVERIFY(log.contains(QStringLiteral("此程序已经不存在")));
}

void TestDesktop::permissionFlow()
{
    LogCapture log;
    state.trusted = true;
    startController({});
    QCOMPARE(state.trustedPrompts, QList<bool>{true});
    QVERIFY(log.contains(QStringLiteral("已获得辅助功能权限")));
    QVERIFY(!QTest::qWaitFor([&] { return !state.alerts.isEmpty(); }, 1300));
    QCOMPARE(state.eventTaps, 0);
    controller.reset();

    // Missing at start: one alert of our own a second later; its first button opens the
    // settings and does not end the process.
    state = FakePlatformState{};
    state.trusted = false;
    platform = std::make_unique<Platform>(makeFakePlatform(state));
    log.clear();
    startController({});
    QVERIFY(log.contains(QStringLiteral("未获得辅助功能权限")));
    QCOMPARE(state.eventTaps, 1);
    QTRY_COMPARE_WITH_TIMEOUT(state.alerts.size(), 1, 3000);
    QCOMPARE(state.alerts.first().message, QStringLiteral("使用复制粘贴功能，请授权TestApp应用"));
    QCOMPARE(state.alerts.first().buttons,
             (QStringList{QStringLiteral("授权成功后，点此按钮重启应用"), QStringLiteral("暂不使用复制粘贴")}));
    QCOMPARE(state.openedUrls, QList<QUrl>{QUrl(QStringLiteral("settings:accessibility"))});
    QVERIFY(state.exits.isEmpty());

    // Still not granted: a log line only. Granted later: the restart alert; "现在重启" ends.
    state.permissionChanged();
    QVERIFY(log.contains(QStringLiteral("用户未授权辅助功能")));
    QCOMPARE(state.alerts.size(), 1);
    state.trusted = true;
    state.alertAnswers = {1001};
    state.permissionChanged();
    QVERIFY(log.contains(QStringLiteral("用户已授权辅助功能")));
    QCOMPARE(state.alerts.last().message, QStringLiteral("重启后才可使用复制粘贴功能"));
    QCOMPARE(state.alerts.last().buttons, (QStringList{QStringLiteral("现在重启"), QStringLiteral("先不使用")}));
    QVERIFY(state.exits.isEmpty());
    state.alertAnswers = {1000};
    state.permissionChanged();
    QCOMPARE(state.exits, QList<int>{0});
}

void TestDesktop::stopWithoutEngineOnlyHides()
{
    ViewController view(*platform, QStringLiteral("host-app"));
    view.show();
    LogCapture log;
    view.clickStopPasteBtn();
    QCOMPARE(log.lines(), QStringList{QStringLiteral("click stop")});
    QVERIFY(!view.isVisible());
}

void TestDesktop::progressShowsTheWindow()
{
    startController({});
    QTRY_VERIFY(!controller->isVisible()); // hidden half a second after loading
    LogCapture log;
    controller->handlePasteProgress(0.25);
    QTRY_VERIFY(controller->isVisible());
    QCOMPARE(controller->size(), QSize(400, 200));
    QVERIFY(!controller->progressIndicator()->isHidden());
    QVERIFY(!controller->stopBtn()->isHidden());
    const QProgressBar *bar = controller->progressIndicator();
    QCOMPARE(double(bar->value() - bar->minimum()) / double(bar->maximum() - bar->minimum()), 0.25);
    QVERIFY(log.contains(QStringLiteral("Progress: 0.25")));
}

void TestDesktop::failureAlertNamesTheError()
{
    startController({});
    LogCapture log;
    controller->handlePasteFinished(false, ClipBoardError::cancelDownload);
    QVERIFY(log.contains(QStringLiteral("eror:cancelDownload")));
    QTRY_COMPARE(state.alerts.size(), 1);
    QCOMPARE(state.alerts.first().message, QStringLiteral("下载失败错误原因：cancelDownload"));
    QCOMPARE(state.alerts.first().buttons, QStringList{QStringLiteral("ok")});
    controller->handlePasteFinished(true, ClipBoardError::noError);
    QTRY_COMPARE(state.alerts.size(), 2);
    QCOMPARE(state.alerts.last().message, QStringLiteral("下载成功"));
    QVERIFY(log.contains(QStringLiteral("所有文件粘贴成功")));
    QVERIFY(!controller->isVisible());
}

void TestDesktop::pasteThroughCtrlV()
{
    QTemporaryDir dest;
    auto *chooser = new ScriptedChooser;
    chooser->answer = ScriptedChooser::choose(dest.path());
    KXFileManager::shared()->setFolderChooser(std::unique_ptr<FolderChooser>(chooser));
    startController({});
    const QByteArray data = pattern(700000, 3);
    agent->serveContents({{0, data}});
    agent->sendMessage(TestAgent::remoteFormatList(), FrameType::formatList);
    QTRY_VERIFY(controller->watcher()->clipManager()->hasFormList());
    QCOMPARE(state.clears, 1); // a remote copy empties the local board
    LogCapture log;
    state.press(true, QStringLiteral("v"));
    QVERIFY(agent->next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
    FileSDK::MacCliprdrFormatDataResponse response;
    *response.add_filedes() = TestAgent::fileDescriptor(QStringLiteral("film.bin"), std::uint64_t(data.size()));
    agent->sendMessage(response, FrameType::formatDataResponse);
    QTRY_COMPARE_WITH_TIMEOUT(state.alerts.size(), 1, 20000);
    QCOMPARE(state.alerts.first().message, QStringLiteral("下载成功"));
    QCOMPARE(readFile(dest.filePath(QStringLiteral("film.bin"))), data);
    QVERIFY(log.containsPrefix(QStringLiteral("当前的百分比：")));
    QVERIFY(log.contains(QStringLiteral("Progress: 1")));
}

QTEST_MAIN(TestDesktop)
#include "tst_desktop.moc"
