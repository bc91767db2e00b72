#pragma once

#include "Platform.h"

#include <QList>
#include <QStringList>

// Scripted platform for tests: a pasteboard the test writes, keys the test presses,
// alerts answered from a script, and an exit that is recorded instead of taken.
struct FakePlatformState
{
    std::int64_t changeCount = 0;
    std::optional<QList<QUrl>> urls = QList<QUrl>{};
    int reads = 0;
    int clears = 0;
    std::function<void(const KeyEvent &)> keyHandler;
    bool keyMonitorInstalled = false;
    bool trusted = true;
    bool grantable = true;
    QList<bool> trustedPrompts;
    std::function<void()> permissionChanged;
    int eventTaps = 0;
    using Alert = ::Alert;
    QList<Alert> alerts;
    QList<int> alertAnswers; // taken in order; the default button's (Return) when empty
    std::function<void()> duringAlert; // runs while an alert is up, as a modal one lets events run
    QList<QUrl> openedUrls;
    bool hostRunning = true;
    QStringList hostQueries;
    QList<int> exits;
    int quits = 0;
    // What a tray is told, in order, and its menu items chosen by the test.
    QList<bool> offered, connected;
    QList<RemoteOffer> offers;
    QList<CopySending> sendings;
    std::function<void()> choosePaste, chooseQuit;
    int filesServedTold = 0;
    // The file system for remote files: none, one that refuses with these words, or (empty
    // words) one that serves at /fake/files.
    bool hasFileSystem = false;
    QString fileSystemRefusal;

    void copy(const QList<QUrl> &newUrls) { urls = newUrls, ++changeCount, holdsOffered = false; }
    bool holdsOffered = false; // what the board holds is the remote files the companion offered
    void press(bool command, const QString &text) { if (keyHandler) keyHandler(KeyEvent{command, text}); }
};

Platform makeFakePlatform(FakePlatformState &state);
