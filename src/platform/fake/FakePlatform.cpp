#include "FakePlatform.h"

#include "RemoteFiles.h"

namespace {

class FakePasteboard : public Pasteboard
{
public:
    explicit FakePasteboard(FakePlatformState &s) : s(s) {}
    std::int64_t changeCount() const override { return s.changeCount; }
    std::optional<QList<QUrl>> readUrls() const override
    {
        ++s.reads;
        return s.urls;
    }
    void clearContents() override
    {
        ++s.clears;
        s.urls = QList<QUrl>{};
        ++s.changeCount;
        s.holdsOffered = false;
    }
    void offerFiles(const QList<QUrl> &urls) override { s.urls = urls, ++s.changeCount, s.holdsOffered = true; }
    bool holdsOfferedFiles() const override { return s.holdsOffered; }
    FakePlatformState &s;
};

class FakeKeyMonitor : public KeyMonitor
{
public:
    explicit FakeKeyMonitor(FakePlatformState &s) : s(s) {}
    bool install(std::function<void(const KeyEvent &)> handler) override
    {
        s.keyHandler = std::move(handler);
        s.keyMonitorInstalled = true;
        return true;
    }
    void remove() override
    {
        s.keyHandler = nullptr;
        s.keyMonitorInstalled = false;
    }
    FakePlatformState &s;
};

class FakeAccessibility : public Accessibility
{
public:
    explicit FakeAccessibility(FakePlatformState &s) : s(s) {}
    bool isProcessTrusted(bool prompt) override
    {
        s.trustedPrompts.append(prompt);
        return s.trusted;
    }
    void onPermissionChanged(std::function<void()> handler) override { s.permissionChanged = std::move(handler); }
    bool createEventTap() override
    {
        ++s.eventTaps;
        return true;
    }
    QUrl settingsUrl() const override { return QUrl(QStringLiteral("settings:accessibility")); }
    bool canBeGranted() const override { return s.grantable; }
    FakePlatformState &s;
};

class FakeAlerts : public Alerts
{
public:
    explicit FakeAlerts(FakePlatformState &s) : s(s) {}
    int runModal(const Alert &alert) override
    {
        s.alerts.append(alert);
        if (s.duringAlert)
            s.duringAlert();
        return s.alertAnswers.isEmpty() ? 1000 + alert.defaultButton : s.alertAnswers.takeFirst();
    }
    FakePlatformState &s;
};

class FakeServices : public SystemServices
{
public:
    explicit FakeServices(FakePlatformState &s) : s(s) {}
    void openUrl(const QUrl &url) override { s.openedUrls.append(url); }
    bool isApplicationRunning(const QString &id) override
    {
        s.hostQueries.append(id);
        return s.hostRunning;
    }
    QString applicationName() const override { return QStringLiteral("TestApp"); }
    void exitProcess(int status) override { s.exits.append(status); }
    void quit() override { ++s.quits; }
    FakePlatformState &s;
};

class FakeTrigger : public PasteTrigger
{
public:
    explicit FakeTrigger(FakePlatformState &s) : s(s) {}
    void setOffered(bool offered) override { s.offered.append(offered); }
    void onPaste(std::function<void()> paste) override { s.choosePaste = std::move(paste); }
    void setConnected(bool connected) override { s.connected.append(connected); }
    void setRemoteOffer(const RemoteOffer &offer) override { s.offers.append(offer); }
    void setCopySending(const CopySending &sending) override { s.sendings.append(sending); }
    void onQuit(std::function<void()> quit) override { s.chooseQuit = std::move(quit); }
    void setFilesServed() override { ++s.filesServedTold; }
    FakePlatformState &s;
};

class FakeFileSystem : public FileSystemHost
{
public:
    explicit FakeFileSystem(FakePlatformState &s) : s(s) {}
    bool serve(RemoteFiles &files, QString &whyNot) override
    {
        if (!s.fileSystemRefusal.isEmpty())
            return whyNot = s.fileSystemRefusal, false;
        files.setMountPath(QStringLiteral("/fake/files"));
        return true;
    }
    QString path() const override { return QStringLiteral("/fake/files"); }
    FakePlatformState &s;
};

} // namespace

Platform makeFakePlatform(FakePlatformState &state)
{
    Platform platform;
    platform.pasteboard = std::make_unique<FakePasteboard>(state);
    platform.keyMonitor = std::make_unique<FakeKeyMonitor>(state);
    platform.accessibility = std::make_unique<FakeAccessibility>(state);
    platform.alerts = std::make_unique<FakeAlerts>(state);
    platform.services = std::make_unique<FakeServices>(state);
    platform.pasteTriggers.push_back(std::make_unique<FakeTrigger>(state));
    if (state.hasFileSystem)
        platform.fileSystem = std::make_unique<FakeFileSystem>(state);
    return platform;
}
