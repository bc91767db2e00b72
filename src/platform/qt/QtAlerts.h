#pragma once

#include "SystemServices.h"

class QtAlerts : public Alerts
{
public:
    int runModal(const Alert &alert) override;
};
