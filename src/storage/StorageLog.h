#pragma once

#include <QLoggingCategory>

// File streams, and the file manager (folder chooser and attributes).
Q_DECLARE_LOGGING_CATEGORY(lcStream)
Q_DECLARE_LOGGING_CATEGORY(lcFileManager)
