// The paste offered through the desktop notification service, for sessions where no key
// can be watched: on a session bus of the test's own, with the service played here.
#include "ClipboardWatcher.h"
#include "EngineHarness.h"
#include "FakePlatform.h"
#include "linux/NotificationTrigger.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>

class NotificationService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QList<QStringList> actions; // of each Notify, in order
    QList<uint> replaced, closed;
public slots:
    uint Notify(const QString &, uint replaces, const QString &, const QString &, const QString &,
                const QStringList &actionList, const QVariantMap &, int)
    {
        actions.append(actionList);
        replaced.append(replaces);
        return replaces ? replaces : 41 + uint(actions.size());
    }
    void CloseNotification(uint id) { closed.append(id); }
};

class TestNotification : public QObject
{
    Q_OBJECT
private slots:
    void pasteFromTheNotification();
};

void TestNotification::pasteFromTheNotification()
{
    QProcess bus;
    bus.start("dbus-daemon", {"--session", "--nofork", "--print-address=1"});
    QVERIFY2(bus.waitForReadyRead(10000), "dbus-daemon did not start");
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();
    QDBusConnection serviceBus = QDBusConnection::connectToBus(address, "service");
    NotificationService service;
    QVERIFY(serviceBus.registerObject("/org/freedesktop/Notifications", &service, QDBusConnection::ExportAllSlots));
    QVERIFY(serviceBus.registerService("org.freedesktop.Notifications"));

    FakePlatformState state;
    Platform platform = makeFakePlatform(state);
    platform.pasteTriggers.push_back(std::make_unique<NotificationTrigger>(QDBusConnection::connectToBus(address, "client")));
    EngineHarness h; // its sink and files; the watcher makes the engine
    ClipboardWatcher watcher(platform, EngineContext{h.sink, h.files, *platform.pasteboard}, "host");
    QList<std::pair<bool, ClipBoardError>> ends;
    watcher.startWatching("ws://agent", "1", "tok", "7", {}, [&](bool ok, ClipBoardError e) { ends.append({ok, e}); });
    h.sink.open();
    h.sink.sent.clear();

    const QByteArray copy = kx::encodeFrame(kx::makeFileFormatList(kx::makeHeader(3, 2, 0, 7)), FrameType::formatList);
    h.sink.deliver(copy);
    QTRY_COMPARE(service.actions, (QList<QStringList>{{"paste", "Paste…"}}));
    h.sink.deliver(copy); // a newer remote copy replaces it
    QTRY_COMPARE(service.replaced, (QList<uint>{0, 42}));

    QDBusMessage invoked = QDBusMessage::createSignal("/org/freedesktop/Notifications", "org.freedesktop.Notifications", "ActionInvoked");
    invoked << 42u << QStringLiteral("paste");
    QVERIFY(serviceBus.send(invoked));
    QTRY_COMPARE(h.sink.sent.size(), 1); // the format data request, as Ctrl+V sends it
    QCOMPARE(h.sink.sent.takeFirst().back(), char(3));
    QTRY_COMPARE(service.closed, QList<uint>{42}); // withdrawn as the paste starts
    h.offer({descriptor("film.bin", 700000)});
    while (auto q = h.nextQuery(0))
        h.reply(q->streamid(), q->dwflags() == 1 ? QByteArray(8, 0) : pattern(700000, 7).mid(q->npositionlow(), q->cbrequested()));
    QTRY_COMPARE(ends, (QList<std::pair<bool, ClipBoardError>>{{true, ClipBoardError::noError}}));
    QCOMPARE(readFile(h.dest + "/film.bin"), pattern(700000, 7));
    bus.kill();
    bus.waitForFinished();
}

QTEST_GUILESS_MAIN(TestNotification)
#include "tst_notification.moc"
