#include "LogCapture.h"
#include "SocketManager.h"
#include "TestAgent.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTest>
#include <QWebSocket>

namespace {

class RecordingDelegate : public QObject, public SocketManagerDelegate
{
public:
    int connects = 0;
    int disconnects = 0;
    QList<QByteArray> data;
    QStringList texts;
    bool reconnectOnLoss = false;
    QElapsedTimer sinceLoss;

    void socketDidConnect() override { ++connects; }
    void socketDidDisconnect() override
    {
        ++disconnects;
        sinceLoss.start();
        if (reconnectOnLoss)
            SocketManager::shared()->reconnect();
    }
    void socketDidReceive(const QByteArray &bytes) override { data.append(bytes); }
    void socketDidReceive(const QString &text) override { texts.append(text); }
};

// A port on which nothing listens: bound once, then released.
quint16 closedPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost, 0);
    return server.serverPort();
}

} // namespace

class TestSocketManager : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void stateBeforeAnyConnection();
    void connects_data();
    void connects();
    void gracefulCloseIsLoggedWithReasonAndCode();
    void lossLeadsToReconnectionAfterTwoSeconds();
    void reconnectWhileConnectingSchedulesNothing();
    void errorReportsDisconnectTwice();
    void replacedClientCannotTouchNewConnection();
    void unparsableUrlChangesNothing();
    void largeMessagesArriveWhole();
    void textMessagesReachTheDelegate();

private:
    void connectTo(TestAgent &agent);
    RecordingDelegate *delegate = nullptr;
};

void TestSocketManager::init()
{
    delegate = new RecordingDelegate;
    SocketManager::shared()->setDelegate(delegate);
}

void TestSocketManager::cleanup()
{
    delete delegate; // the manager must not call a destroyed delegate afterwards
    delegate = nullptr;
}

void TestSocketManager::connectTo(TestAgent &agent)
{
    QVERIFY(agent.listen());
    SocketManager::shared()->connect(agent.url(QStringLiteral("tok")));
    // isConnected may still be true from the previous client; the state tells the new one.
    QTRY_COMPARE_WITH_TIMEOUT(SocketManager::shared()->websoketStatus(), WebsoketStatus::connected, 10000);
    QVERIFY(agent.waitForClient());
}

void TestSocketManager::stateBeforeAnyConnection()
{
    SocketManager *manager = SocketManager::shared();
    QCOMPARE(manager->websoketStatus(), WebsoketStatus::create);
    QVERIFY(!manager->isConnected());
    QVERIFY(!manager->socket());
    bool completed = false;
    manager->write(QByteArray(1, '\0'), [&] { completed = true; });
    QCoreApplication::processEvents();
    QVERIFY(!completed);
}

void TestSocketManager::connects_data()
{
    QTest::addColumn<bool>("secure");
    QTest::newRow("ws") << false;
    QTest::newRow("wss with a self-signed certificate") << true;
}

void TestSocketManager::connects()
{
    QFETCH(bool, secure);
    LogCapture log;
    TestAgent agent(secure);
    QVERIFY(agent.listen());
    SocketManager *manager = SocketManager::shared();
    manager->connect(agent.url(QStringLiteral("abc")));
    QCOMPARE(manager->websoketStatus(), WebsoketStatus::connecting);
    QCOMPARE(manager->urlStr(), agent.url(QStringLiteral("abc")));
    QTRY_COMPARE_WITH_TIMEOUT(delegate->connects, 1, 15000);
    QVERIFY(manager->isConnected());
    QCOMPARE(manager->websoketStatus(), WebsoketStatus::connected);
    QVERIFY(log.contains(QStringLiteral("websocket is connected: [:]")));

    bool completed = false;
    manager->write(QByteArray::fromHex("0a0001"), [&] { completed = true; });
    const auto frame = agent.nextFrame();
    QVERIFY(frame);
    QCOMPARE(frame->toHex(), QByteArray("0a0001"));
    QTRY_VERIFY(completed);
}

void TestSocketManager::gracefulCloseIsLoggedWithReasonAndCode()
{
    TestAgent agent;
    connectTo(agent);
    LogCapture log;
    agent.closeClientGracefully(1000, QStringLiteral("bye"));
    QTRY_COMPARE_WITH_TIMEOUT(delegate->disconnects, 1, 10000);
    QVERIFY(!SocketManager::shared()->isConnected());
    QCOMPARE(SocketManager::shared()->websoketStatus(), WebsoketStatus::disconnect);
    QVERIFY2(log.contains(QStringLiteral("websocket is disconnected: bye with code: 1000")), qPrintable(log.lines().join('\n')));
}

void TestSocketManager::lossLeadsToReconnectionAfterTwoSeconds()
{
    TestAgent agent;
    connectTo(agent);
    delegate->reconnectOnLoss = true;
    LogCapture log;
    agent.closeClient();
    QTRY_VERIFY_WITH_TIMEOUT(delegate->disconnects >= 1, 10000);
    QCOMPARE(SocketManager::shared()->websoketStatus(), WebsoketStatus::connecting);
    QTRY_COMPARE_WITH_TIMEOUT(agent.connections(), 2, 10000);
    const qint64 elapsed = delegate->sinceLoss.elapsed();
    QVERIFY2(elapsed >= 1800, qPrintable(QString::number(elapsed)));
    QVERIFY2(elapsed < 4000, qPrintable(QString::number(elapsed)));
    QVERIFY(log.contains(QStringLiteral("再次重连self.urlStr:") + agent.url(QStringLiteral("tok"))));
    QTRY_VERIFY(SocketManager::shared()->isConnected());
}

void TestSocketManager::reconnectWhileConnectingSchedulesNothing()
{
    TestAgent agent;
    connectTo(agent);
    LogCapture log;
    agent.closeClient();
    QTRY_VERIFY_WITH_TIMEOUT(delegate->disconnects >= 1, 10000);
    SocketManager::shared()->reconnect();
    SocketManager::shared()->reconnect();
    QCOMPARE(log.count(QStringLiteral("重连中无需再次重连")), 1);
    QTRY_COMPARE_WITH_TIMEOUT(agent.connections(), 2, 10000);
    // A second scheduled reconnection would replace the client about now.
    QVERIFY(!QTest::qWaitFor([&] { return agent.connections() > 2; }, 2500));
    QCOMPARE(log.count(QStringLiteral("再次重连self.urlStr:") + agent.url(QStringLiteral("tok"))), 1);
}

void TestSocketManager::errorReportsDisconnectTwice()
{
    LogCapture log;
    SocketManager::shared()->connect(QStringLiteral("ws://127.0.0.1:%1/tok").arg(closedPort()));
    QTRY_COMPARE_WITH_TIMEOUT(delegate->disconnects, 2, 10000);
    QVERIFY(!QTest::qWaitFor([&] { return delegate->disconnects > 2; }, 300));
    QCOMPARE(SocketManager::shared()->websoketStatus(), WebsoketStatus::disconnect);
    QVERIFY2(log.containsPrefix(QStringLiteral("websocket encountered an error: ")), qPrintable(log.lines().join('\n')));
}

void TestSocketManager::replacedClientCannotTouchNewConnection()
{
    TestAgent first;
    connectTo(first);
    QPointer<QWebSocket> oldClient = SocketManager::shared()->socket();
    TestAgent second;
    QVERIFY(second.listen());
    SocketManager::shared()->connect(second.url(QStringLiteral("tok")));
    QCOMPARE(SocketManager::shared()->websoketStatus(), WebsoketStatus::connecting);
    QTRY_VERIFY_WITH_TIMEOUT(second.hasClient(), 10000);
    QTRY_VERIFY(!first.hasClient());
    QTRY_VERIFY(!oldClient); // aborted and deleted, its events gone with it
    QTRY_COMPARE(SocketManager::shared()->websoketStatus(), WebsoketStatus::connected);
    QCOMPARE(delegate->disconnects, 0);
    QVERIFY(SocketManager::shared()->isConnected());
}

void TestSocketManager::unparsableUrlChangesNothing()
{
    TestAgent agent;
    connectTo(agent);
    QWebSocket *before = SocketManager::shared()->socket();
    SocketManager::shared()->connect(QStringLiteral("ws://bad host:port/x y"));
    QCOMPARE(SocketManager::shared()->socket(), before);
    QCOMPARE(SocketManager::shared()->websoketStatus(), WebsoketStatus::connected);
    QCOMPARE(SocketManager::shared()->urlStr(), QStringLiteral("ws://bad host:port/x y"));
}

void TestSocketManager::largeMessagesArriveWhole()
{
    TestAgent agent;
    connectTo(agent);
    LogCapture log;
    QByteArray big(4 * 1024 * 1024, Qt::Uninitialized);
    for (qsizetype i = 0; i < big.size(); ++i)
        big[i] = char(i * 7 + i / 4096);
    agent.send(big);
    QTRY_COMPARE_WITH_TIMEOUT(delegate->data.size(), 1, 20000);
    QCOMPARE(delegate->data.first().size(), big.size());
    QVERIFY(delegate->data.first() == big);
    QVERIFY(log.contains(QStringLiteral("websocket is Received data: 4194304")));
}

void TestSocketManager::textMessagesReachTheDelegate()
{
    TestAgent agent;
    connectTo(agent);
    LogCapture log;
    // The agent's client socket is private; a text frame is sent through a second route.
    QWebSocket *server = agent.findChild<QWebSocket *>();
    QVERIFY(server);
    server->sendTextMessage(QStringLiteral("hello"));
    QTRY_COMPARE(delegate->texts, QStringList{QStringLiteral("hello")});
    QVERIFY(log.contains(QStringLiteral("websocket is Received text: hello")));
    QVERIFY(delegate->data.isEmpty());
}

QTEST_GUILESS_MAIN(TestSocketManager)
#include "tst_socketmanager.moc"
