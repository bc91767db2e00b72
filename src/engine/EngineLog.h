#pragma once

#include "SecretMask.h" // what the engine logs of the access token

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcEngine)
