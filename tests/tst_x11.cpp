#include "LinuxPlatform.h"
#include "LogCapture.h"

#include <QGuiApplication>
#include <QProcess>
#include <QTest>

// The real Qt and X11 backends under a virtual X server: what xclip puts on the
// clipboard and what xdotool types reach us as they would from any application.
class TestX11 : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void clipboardUrls();
    void keyMonitor_data();
    void keyMonitor();
    void ownClearRaisesTheChangeCount();

private:
    static bool run(const QString &program, const QStringList &arguments, const QByteArray &input = {});
    Platform platform;
};

bool TestX11::run(const QString &program, const QStringList &arguments, const QByteArray &input)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForStarted(10000))
        return false;
    if (!input.isEmpty())
        process.write(input);
    process.closeWriteChannel();
    return process.waitForFinished(10000) && process.exitCode() == 0;
}

void TestX11::initTestCase()
{
    if (QGuiApplication::platformName() != QLatin1String("xcb"))
        QSKIP("needs an X11 display (run under xvfb-run)");
    platform = makeLinuxPlatform();
    QVERIFY(platform.accessibility->isProcessTrusted(false));
}

void TestX11::clipboardUrls()
{
    const std::int64_t before = platform.pasteboard->changeCount();
    QVERIFY(run(QStringLiteral("xclip"), {"-selection", "clipboard", "-t", "text/uri-list"},
                "file:///tmp/first%20file.txt\r\nfile:///tmp/second\r\n"));
    QTRY_VERIFY_WITH_TIMEOUT(platform.pasteboard->changeCount() > before, 5000);
    const auto urls = platform.pasteboard->readUrls();
    QVERIFY(urls);
    QCOMPARE(*urls, (QList<QUrl>{QUrl::fromLocalFile("/tmp/first file.txt"), QUrl::fromLocalFile("/tmp/second")}));
}

void TestX11::keyMonitor_data()
{
    QTest::addColumn<QString>("chord");
    QTest::addColumn<bool>("command");
    QTest::addColumn<QString>("text");
    QTest::newRow("ctrl+v") << "ctrl+v" << true << "v";
    QTest::newRow("ctrl+alt+v") << "ctrl+alt+v" << true << "v";
    QTest::newRow("v") << "v" << false << "v";
    QTest::newRow("ctrl+shift+v") << "ctrl+shift+v" << true << "V";
}

void TestX11::keyMonitor()
{
    QFETCH(QString, chord);
    QFETCH(bool, command);
    QFETCH(QString, text);
    QList<KeyEvent> seen;
    QVERIFY(platform.keyMonitor->install([&](const KeyEvent &event) { seen.append(event); }));
    QVERIFY(run(QStringLiteral("xdotool"), {"key", chord}));
    QTRY_VERIFY_WITH_TIMEOUT(!seen.isEmpty(), 5000);
    QCOMPARE(seen.first().command, command);
    QCOMPARE(seen.first().charactersIgnoringModifiers, text);
    platform.keyMonitor->remove();
}

void TestX11::ownClearRaisesTheChangeCount()
{
    QVERIFY(run(QStringLiteral("xclip"), {"-selection", "clipboard", "-t", "text/uri-list"}, "file:///tmp/x\r\n"));
    // xclip takes the board from a child process; wait until it really holds it.
    QTRY_COMPARE_WITH_TIMEOUT(platform.pasteboard->readUrls().value_or(QList<QUrl>{}),
                              QList<QUrl>{QUrl::fromLocalFile("/tmp/x")}, 5000);
    const std::int64_t before = platform.pasteboard->changeCount();
    platform.pasteboard->clearContents();
    QTRY_VERIFY_WITH_TIMEOUT(platform.pasteboard->changeCount() > before, 5000);
    // Whether the X server hands us the board depends on the age of Qt's last event
    // timestamp, which a window-less process does not control; the counter is what
    // the watcher relies on.
}

QTEST_MAIN(TestX11)
#include "tst_x11.moc"
