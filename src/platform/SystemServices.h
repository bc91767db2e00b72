#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

// Modal alerts: the buttons in order, the result 1000 for the first, 1001 for the second;
// Return presses the default one.
class Alerts
{
public:
    virtual ~Alerts() = default;
    virtual int runModal(const QString &message, const QString &informative, const QStringList &buttons,
                         int defaultButton = 0) = 0;
};

// The rest of the desktop the watcher and the shell need.
class SystemServices
{
public:
    virtual ~SystemServices() = default;
    virtual void openUrl(const QUrl &url) = 0;
    virtual bool isApplicationRunning(const QString &id) = 0;
    virtual QString applicationName() const = 0;
    virtual void exitProcess(int status) = 0;
    // Ends the event loop: the process then ends as after any normal run, with status 0.
    virtual void quit() = 0;
};
