// The real socket manager and engine against an in-process agent over 127.0.0.1: the
// connection's life, agents with faulty certificates, and a hostile agent that tries to
// write outside the chosen folder, to exhaust our memory or to freeze us.
#include "EngineHarness.h"
#include "LogCapture.h"
#include "ProcessMemory.h"
#include "TestCertificate.h"

#include <QScopeGuard>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QTimer>
#include <QWebSocket>

#include <sys/stat.h>

using Attack = std::function<void(EngineHarness &)>;
Q_DECLARE_METATYPE(Attack)
Q_DECLARE_METATYPE(CertificateFault)

namespace {

struct RecordingDelegate : QObject, SocketManagerDelegate
{
    explicit RecordingDelegate(SocketManager &m) : manager(&m) { m.setDelegate(this); }
    SocketManager *manager = nullptr;
    int connects = 0, disconnects = 0;
    QList<QByteArray> data;
    QStringList texts;
    void socketDidConnect() override { ++connects; }
    void socketDidDisconnect() override { ++disconnects, manager->reconnect(); }
    void socketDidReceive(const QByteArray &bytes) override { data.append(bytes); }
    void socketDidReceive(const QString &text) override { texts.append(text); }
};

// A frame header from the agent announcing a payload of `length` bytes (binary or text).
QByteArray frameHeader(bool text, quint64 length)
{
    QByteArray header = QByteArray(1, char(text ? 0x81 : 0x82)) + char(127);
    for (int shift = 56; shift >= 0; shift -= 8)
        header += char((length >> shift) & 0xff);
    return header;
}

// A small paste, start to end, byte for byte: the companion still works.
bool pasteWorks(EngineHarness &h)
{
    const qsizetype before = h.ends.size();
    h.agent->frames.clear();
    return h.pasteAll({descriptor("next.txt", 5)}, {{0, "fine."}}) && h.ends.size() == before + 1
        && h.lastEnd(true, PastedError::noError) && readFile(h.dest + "/next.txt") == "fine.";
}

bool reconnected(EngineHarness &h)
{
    return QTest::qWaitFor([&] { return h.agent->connections() == 2 && !h.agent->frames.isEmpty(); }, 10000)
        && h.agent->nextFrame(0) == QByteArray(1, 0);
}

} // namespace

class TestIntegration : public QObject
{
    Q_OBJECT
private slots:
    void connectionLife();
    void errorsAndReplacedClients();
    void certificates_data();
    void certificates();
    void hostileAgent_data();
    void hostileAgent();
};

void TestIntegration::connectionLife()
{
    SocketManager manager;
    RecordingDelegate delegate(manager);
    bool written = false;
    manager.write(hex("00"), [&] { written = true; });
    manager.dropConnection("nothing to drop");
    QVERIFY(manager.websoketStatus() == WebsoketStatus::create && delegate.disconnects == 0);

    TestAgent agent;
    LogCapture log;
    manager.connect(agent.ip() + ":" + agent.port() + "/secret-token");
    QTRY_COMPARE(delegate.connects, 1);
    QVERIFY(!written && manager.isConnected() && log.contains("websocket is connected: [:]"));
    for (QAbstractSocket *transport : manager.socket()->findChildren<QAbstractSocket *>()) // each query waits for its answer
        QCOMPARE(transport->socketOption(QAbstractSocket::LowDelayOption).toInt(), 1);
    manager.write(hex("0a 00 01"), [&] { written = true; });
    QCOMPARE(agent.nextFrame(5000), hex("0a 00 01"));
    QTRY_VERIFY(written);

    // A list of 100,000 files with long names is one message well under 64 MiB; it
    // arrives whole. A text message is logged cut to its first 4096 characters.
    FileSDK::MacCliprdrFormatDataResponse list;
    for (int i = 0; i < 100000; ++i)
        *list.add_filedes() = descriptor(QString(200, QChar(0x6587)) + QString::number(i), 1ull << 40, 0x80, ~0ull);
    const QByteArray big = kx::encodeFrame(list, FrameType::formatDataResponse);
    QVERIFY(big.size() > 60'000'000 && big.size() < 64 * 1024 * 1024);
    agent.send(big);
    agent.sendText(QString(5000, 'x'));
    QTRY_COMPARE_WITH_TIMEOUT(delegate.texts.size(), 1, 20000);
    QVERIFY(delegate.data == QList<QByteArray>{big});
    QVERIFY(log.contains("websocket is Received text: " + QString(4096, 'x') + "… (5000 characters in all)"));

    // A close, logged with its reason and code (the token masked, should the agent quote
    // it); the reconnection two seconds later, one only however often it is asked for,
    // its URL masked too.
    agent.closeGracefully("bye secret-token");
    QTRY_VERIFY(log.contains("websocket is disconnected: bye secr… with code: 1000"));
    manager.reconnect();
    QCOMPARE(log.count("重连中无需再次重连"), 1);
    const auto waiting = [&] {
        for (QTimer *timer : manager.findChildren<QTimer *>(Qt::FindDirectChildrenOnly))
            if (timer->isActive() && timer->isSingleShot() && timer->interval() == SocketManager::reconnectDelayMs)
                return true;
        return false;
    };
    QVERIFY(waiting() && delegate.connects == 1);
    for (QTimer *timer : manager.findChildren<QTimer *>(Qt::FindDirectChildrenOnly)) // the wait itself, shortened
        timer->setInterval(timer->interval() == SocketManager::reconnectDelayMs ? 50 : timer->interval());
    QTRY_COMPARE_WITH_TIMEOUT(delegate.connects, 2, 20000);
    QCOMPARE(log.count("再次重连self.urlStr:" + agent.ip() + ":" + agent.port() + "/secr…"), 1);
}

void TestIntegration::errorsAndReplacedClients()
{
    SocketManager manager;
    RecordingDelegate delegate(manager);
    LogCapture log;
    manager.connect("ws://127.0.0.1:1/tok"); // nothing listens there
    QTRY_COMPARE(delegate.disconnects, 2); // an error reports the loss twice, as an agent expects
    QVERIFY(log.containsPrefix("websocket encountered an error: "));
    QCOMPARE(log.count("重连中无需再次重连"), 1);

    for (QTimer *timer : manager.findChildren<QTimer *>(Qt::FindDirectChildrenOnly)) // no reconnection behind the checks' backs
        timer->setInterval(timer->interval() == SocketManager::reconnectDelayMs ? 3600000 : timer->interval());
    TestAgent first, second;
    manager.connect(first.ip() + ":" + first.port() + "/tok"); // before the reconnection waiting to run
    QTRY_VERIFY(first.hasClient() && manager.isConnected());
    for (QTimer *timer : manager.findChildren<QTimer *>(Qt::FindDirectChildrenOnly))
        QVERIFY(!timer->isActive()); // connected: no time-out and no reconnection pending
    QPointer<QWebSocket> old = manager.socket();
    old->abort(); // its end is reported one turn later, by which time a new client replaced it
    manager.connect(second.ip() + ":" + second.port() + "/tok");
    QTRY_VERIFY(second.hasClient() && !first.hasClient() && !old && manager.isConnected());
    QCOMPARE(delegate.disconnects, 2); // the replaced client's end is not the new one's
    QWebSocket *current = manager.socket();
    manager.connect("ws://bad host:port/x y");
    QVERIFY(manager.socket() == current && manager.websoketStatus() == WebsoketStatus::connected);
    manager.dropConnection("enough"); // as for a peer that piles up requests: a loss, told once
    QTRY_VERIFY(!second.hasClient() && !manager.isConnected() && delegate.disconnects == 3);
    QVERIFY(log.contains("websocket is disconnected: enough with code: 1008"));
    SocketManager unusable; // one loss, one reconnection: the wait is no clock that keeps trying
    for (QTimer *timer : unusable.findChildren<QTimer *>(Qt::FindDirectChildrenOnly))
        timer->setInterval(timer->interval() == SocketManager::reconnectDelayMs ? 50 : timer->interval());
    unusable.connect("ws://no host/");
    unusable.reconnect();
    const QString retried = "再次重连self.urlStr:ws://no host/";
    QTRY_COMPARE_WITH_TIMEOUT(log.count(retried), 1, 20000);
    QVERIFY(!QTest::qWaitFor([&] { return log.count(retried) > 1; }, 500)); // ten times the wait
    QTcpServer silent; // takes the connection, never answers: given up at the time-out (shortened here)
    QVERIFY(silent.listen(QHostAddress::LocalHost));
    for (QTimer *timer : manager.findChildren<QTimer *>(Qt::FindDirectChildrenOnly))
        timer->setInterval(timer->interval() == SocketManager::connectTimeoutMs ? 300 : timer->interval());
    manager.connect("ws://127.0.0.1:" + QString::number(silent.serverPort()) + "/tok");
    QTRY_VERIFY(log.contains("websocket encountered an error: The connection timed out") && !manager.isConnected());
    QTcpSocket *peer = silent.nextPendingConnection(); // and the attempt is closed, not left hanging
    QTRY_VERIFY(peer && peer->state() == QAbstractSocket::UnconnectedState);
    QTcpServer quoting; // refuses the upgrade in words that quote the path: Qt's error shows the token masked
    QVERIFY(quoting.listen(QHostAddress::LocalHost));
    QObject::connect(&quoting, &QTcpServer::newConnection, [&] {
        quoting.nextPendingConnection()->write("HTTP/1.1 403 No entry for /secret-token\r\n\r\n");
    });
    log.clear();
    manager.connect("ws://127.0.0.1:" + QString::number(quoting.serverPort()) + "/secret-token");
    QTRY_VERIFY(log.containsPrefix("websocket encountered an error: "));
    const QString error = log.lines().filter("websocket encountered an error: ").first();
    QVERIFY2(error.contains("No entry for /secr…") && !error.contains("secret-token"), qPrintable(error));
}

// An agent's certificate is its own, and its clock may not be ours: every fault is
// accepted, and named once in the log. A pin accepts its one certificate, faults and all,
// and refuses any other before the request, token and all, leaves: also one that an
// authority we trust vouches for, which raises no fault to be looked at.
void TestIntegration::certificates_data()
{
    QTest::addColumn<CertificateFault>("fault");
    QTest::addColumn<QString>("pin");      // "own": the certificate's fingerprint as openssl prints it
    QTest::addColumn<QString>("named");    // in the one line that accepts it; empty: no such line
    QTest::addColumn<QString>("expected"); // refused: the pin as the refusal names it
    const QString other = QString("ab").repeated(32);
    const QString otherShown = QStringList(32, "AB").join(':');
    QTest::newRow("self-signed") << CertificateFault::selfSigned << "" << "self-signed" << "";
    QTest::newRow("expired") << CertificateFault::expired << "" << "expired" << "";
    QTest::newRow("not yet valid") << CertificateFault::notYetValid << "" << "not yet valid" << "";
    QTest::newRow("from a trusted authority") << CertificateFault::none << "" << "" << "";
    QTest::newRow("pinned, self-signed") << CertificateFault::selfSigned << "own" << "self-signed" << "";
    QTest::newRow("pinned, expired") << CertificateFault::expired << "own" << "expired" << "";
    QTest::newRow("another pinned, self-signed") << CertificateFault::selfSigned << other << "" << otherShown;
    QTest::newRow("another pinned, from a trusted authority") << CertificateFault::none << other << "" << otherShown;
    QTest::newRow("a malformed pin") << CertificateFault::selfSigned << "AB:CD" << "" << "AB:CD";
}

void TestIntegration::certificates()
{
    QFETCH(CertificateFault, fault);
    QFETCH(QString, pin);
    QFETCH(QString, named);
    QFETCH(QString, expected);
    const auto tls = makeCertificate(fault);
    QVERIFY2(tls, "openssl could not make the certificate");
    const QSslConfiguration before = QSslConfiguration::defaultConfiguration();
    const auto restore = qScopeGuard([&] { QSslConfiguration::setDefaultConfiguration(before); });
    if (!tls->authority.isNull()) {
        QSslConfiguration trusting = before;
        trusting.addCaCertificate(tls->authority);
        QSslConfiguration::setDefaultConfiguration(trusting);
    }
    LogCapture log;
    EngineHarness h(1, EngineHarness::Link::wss, tls,
                    pin.isEmpty() ? CertificatePin() : CertificatePin(pin == "own" ? tls->fingerprint : pin));
    for (QTimer *timer : h.socket->findChildren<QTimer *>(Qt::FindDirectChildrenOnly)) // the two seconds before a reconnection, shortened
        timer->setInterval(timer->interval() == SocketManager::reconnectDelayMs ? 50 : timer->interval());
    if (!expected.isEmpty()) {
        // Refused, and again at the retry; the agent never saw a request, let alone a frame.
        const QString refusal = "refusing the agent's certificate: its SHA-256 fingerprint is " + tls->fingerprint
            + ", the pin is " + expected;
        const QString failure = "websocket encountered an error: the agent's certificate is not the pinned one";
        QTRY_VERIFY_WITH_TIMEOUT(log.count(refusal) >= 2 && log.count(failure) >= 2, 15000);
        QVERIFY(h.agent->connections() == 0 && h.agent->frames.isEmpty() && !h.socket->isConnected());
        QVERIFY(log.lines().filter("accepting the agent's certificate").isEmpty());
        return;
    }
    QCOMPARE(h.nextFrame(15000), hex("00"));
    const QStringList accepted = log.lines().filter("accepting the agent's certificate despite:");
    if (named.isEmpty())
        QVERIFY2(accepted.isEmpty(), qPrintable(accepted.join('\n')));
    else
        QVERIFY2(accepted.size() == 1 && accepted.first().contains(named), qPrintable(accepted.join('\n')));
    QVERIFY(log.lines().filter("refusing").isEmpty());
    QVERIFY(pasteWorks(h));
}

// One row per attack. Each states what the chosen folder holds afterwards (a link to the
// folder beside it, whose file must stay as it was), the memory the attack may cost where
// memory is the point, and then a normal paste must still work.
void TestIntegration::hostileAgent_data()
{
    QTest::addColumn<Attack>("attack");
    QTest::addColumn<QStringList>("madeInside"); // besides the link
    QTest::addColumn<int>("peakMiB");            // resident memory it may add; 0: not measured
    QTest::addColumn<bool>("secure");            // wss: what waits to be sent is mostly encrypted
    const auto serve = [](EngineHarness &h) { // a local copy of one file of 100 MiB, described to the agent
        QVERIFY(writeFile(h.root.filePath("local/served"), {}) && QFile::resize(h.root.filePath("local/served"), 100 << 20));
        h.engine->copiedFiles({QUrl::fromLocalFile(h.root.filePath("local"))});
        QVERIFY(h.next<FileSDK::CliprdrFormatList>(FrameType::formatList));
        h.send(hex("03"));
        QVERIFY(h.next<FileSDK::MacCliprdrFormatDataResponse>(FrameType::formatDataResponse));
    };
    QTest::newRow("through a link to a folder outside") << Attack([](EngineHarness &h) { // the link's name is taken: both kept
        QVERIFY(h.pasteAll({descriptor("photos", 0, 0x10), descriptor("photos\\.bashrc", 5)}, {{1, "evil!"}}));
        QVERIFY(h.lastEnd(true, PastedError::noError));
    }) << QStringList{"photos (2)/", "photos (2)/.bashrc 5"} << 0 << false;
    QTest::newRow("a reply far past the announced size") << Attack([](EngineHarness &h) {
        QVERIFY(h.pasteOf({descriptor("ten.txt", 10)}));
        h.reply(h.query().streamid(), QByteArray(8, 0));
        h.reply(h.query().streamid(), QByteArray(48 << 20, 'x'));
        QTRY_VERIFY(h.lastEnd(false, PastedError::unKonwnError));
    }) << QStringList{} << 0 << false; // no half file left
    for (bool text : {false, true})
        QTest::addRow("a %s message of 1.9 GiB", text ? "text" : "binary") << Attack([=](EngineHarness &h) {
            h.agent->sendRaw(frameHeader(text, 0x78000000) + QByteArray(1 << 20, 'x'));
            QVERIFY(reconnected(h));
        }) << QStringList{} << 16 << false;
    for (bool secure : {false, true})
        QTest::addRow("40 queries of 2 GiB, never read (%s)", secure ? "wss" : "ws") << Attack([=](EngineHarness &h) {
            serve(h);
            LogCapture log;
            h.agent->stopReading();
            for (std::uint32_t i = 0; i < 40; ++i)
                h.send(kx::makeContentsQuery(i, 1, 2, 0, 0x80000000u), FrameType::fileContentsRequest);
            QTRY_COMPARE(log.lines().filter("websocket is Received data:").size(), 40);
            QVERIFY(!QTest::qWaitFor([&] { return log.count("contentRequest.cbRequested:2147483648") != 1; }, 500)); // the rest wait, also once the first is encrypted
            h.agent->closeClient();
            QVERIFY(reconnected(h));
        }) << QStringList{} << 320 << secure; // one 64 MiB answer in flight, with its copies; forty would be GiBs
    QTest::newRow("a range query for what became a FIFO") << Attack([=](EngineHarness &h) {
        serve(h); // an open() that waited for a writer would freeze the companion here
        QVERIFY(QFile::remove(h.root.filePath("local/served")) && ::mkfifo(QFile::encodeName(h.root.filePath("local/served")), 0600) == 0);
        h.send(kx::makeContentsQuery(5, 1, 2, 0, 4096), FrameType::fileContentsRequest);
        const auto answer = h.next<FileSDK::CliprdrFileContentsResponse>(FrameType::fileContentsResponse);
        QVERIFY(answer && answer->header().msgflags() == 2 && answer->requesteddata().empty());
    }) << QStringList{} << 0 << false;
    QTest::newRow("a list of 64 MiB of empty entries") << Attack([](EngineHarness &h) {
        QByteArray list = QByteArray::fromHex("1200").repeated((32 << 20) - 1) + '\x07';
        h.remoteCopy();
        h.paste();
        QVERIFY(h.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
        TurnWatch turns;
        h.send(std::exchange(list, {}));
        turns.restart();
        QTRY_VERIFY_WITH_TIMEOUT(h.lastEnd(false, PastedError::unKonwnError), 20000);
        qInfo("the longest turn of the event loop took %lld ms of CPU time", turns.longestNow());
        QVERIFY2(turns.longest < TurnWatch::limitMs && h.chooser->runs == 0, qPrintable(QString::number(turns.longest)));
    }) << QStringList{} << 400 << false;
    // Enough files that creating them all in one turn would cost seconds of the main
    // thread's time: most of it is the file system's, counted as the thread's.
    QTest::newRow("25,000 empty files") << Attack([](EngineHarness &h) {
        LogCapture log; // a dozen lines a file
        Descriptors list;
        for (int i = 0; i < 25000; ++i)
            list.append(descriptor(QStringLiteral("many\\e%1").arg(i), 0));
        TurnWatch turns;
        QVERIFY(h.pasteOf(list));
        QTRY_VERIFY_WITH_TIMEOUT(h.lastEnd(true, PastedError::noError), 120000);
        qInfo("the longest turn of the event loop took %lld ms of CPU time", turns.longestNow());
        QVERIFY2(turns.longest < TurnWatch::limitMs, qPrintable(QString::number(turns.longest)));
        QCOMPARE(QDir(h.dest + "/many").count(), 25002u); // with "." and ".."
        QVERIFY(QDir(h.dest + "/many").removeRecursively());
    }) << QStringList{} << 0 << false;
    QTest::newRow("a line break in a name") << Attack([](EngineHarness &h) {
        LogCapture log;
        QVERIFY(h.pasteAll({descriptor("a\n所有文件粘贴成功.txt", 2)}, {{0, "ok"}}));
        QVERIFY(log.contains("正在下载的文件名：self.currentDescriptorw!.cFileName:a\\n所有文件粘贴成功.txt"));
        QVERIFY(QFile::remove(h.dest + "/a\n所有文件粘贴成功.txt")); // written under its own name
    }) << QStringList{} << 0 << false;
    QTest::newRow("a name of 32,000 components") << Attack([](EngineHarness &h) {
        const qint64 before = threadCpuMs();
        QVERIFY(h.pasteOf({descriptor(QString("a\\").repeated(32000) + "x", 4)}));
        QTRY_VERIFY(h.lastEnd(false, PastedError::saveError));
        QVERIFY2(threadCpuMs() - before < 3 * TurnWatch::limitMs, qPrintable(QString::number(threadCpuMs() - before)));
    }) << QStringList{} << 0 << false;
}

void TestIntegration::hostileAgent()
{
    QFETCH(Attack, attack);
    QFETCH(QStringList, madeInside);
    QFETCH(int, peakMiB);
    QFETCH(bool, secure);
    EngineHarness h(1, secure ? EngineHarness::Link::wss : EngineHarness::Link::ws,
                    secure ? makeCertificate(CertificateFault::selfSigned) : std::nullopt);
    QCOMPARE(h.nextFrame(15000), hex("00"));
    QVERIFY(writeFile(h.root.filePath("inner/outside/.bashrc"), "mine"));
    QVERIFY(QFile::link(h.root.filePath("inner/outside"), h.dest + "/photos"));
    kx::resetPeakResident();
    const qint64 before = kx::residentKiB();
    QVERIFY(before > 10000); // a Qt process holds some MiB: the line read is the right one
    for (QTimer *timer : h.socket->findChildren<QTimer *>(Qt::FindDirectChildrenOnly)) // the two seconds before a reconnection, shortened
        timer->setInterval(timer->interval() == SocketManager::reconnectDelayMs ? 50 : timer->interval());
    attack(h);
    if (QTest::currentTestFailed())
        return;
    const qint64 added = (kx::peakResidentKiB() - before) / 1024;
    qInfo("the attack added at most %lld MiB of resident memory", added);
#if defined(__SANITIZE_ADDRESS__) // the sanitizer's quarantine keeps freed memory resident
    peakMiB = 0;
#endif
    QVERIFY2(peakMiB == 0 || added < peakMiB, qPrintable(QString("%1 MiB").arg(added)));
    madeInside.append("photos -> outside");
    madeInside.sort();
    QCOMPARE(treeOf(h.dest), madeInside);
    QCOMPARE(treeOf(h.root.filePath("inner/outside")), QStringList{".bashrc 4"});
    QVERIFY(pasteWorks(h));
}

QTEST_GUILESS_MAIN(TestIntegration)
#include "tst_integration.moc"
