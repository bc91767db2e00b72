#pragma once

#include "SystemServices.h"

class QtAlerts : public Alerts
{
public:
    int runModal(const QString &message, const QString &informative, const QStringList &buttons, int defaultButton) override;
};
