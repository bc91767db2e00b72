#pragma once

#include "SystemServices.h"

class LinuxSystemServices : public SystemServices
{
public:
    void openUrl(const QUrl &url) override;
    // A process whose executable name is the id, found in /proc.
    bool isApplicationRunning(const QString &id) override;
    QString applicationName() const override;
    void exitProcess(int status) override;
    void quit() override;
};
