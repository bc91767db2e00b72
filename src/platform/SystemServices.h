#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

// One alert: its headline, what it says below, a small reference line under that, the
// buttons in order, the one Return presses, and its icon.
struct Alert
{
    enum class Kind { information, warning, question };
    QString message{};
    QString informative{};
    QStringList buttons{};
    int defaultButton = 0;
    QString reference{};
    Kind kind = Kind::information;
};

// Alerts that wait for their answer: 1000 for the first button, 1001 for the second.
class Alerts
{
public:
    virtual ~Alerts() = default;
    virtual int runModal(const Alert &alert) = 0;
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
