#pragma once

#include "LogText.h"

#include <QStringList>
#include <QtGlobal>

#include <algorithm>
#include <cstring>

// Records every line our code logs while it is alive, so tests can check the exact texts
// a user or an operator reads. KX_TEST_ECHO_LOG=1 prints them as well.
class LogCapture
{
public:
    LogCapture()
    {
        captured.clear();
        previous = qInstallMessageHandler(capture);
    }
    ~LogCapture() { qInstallMessageHandler(previous); }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList lines() const { return captured; }
    int count(const QString &line) const { return int(captured.count(line)); }
    bool contains(const QString &line) const { return captured.contains(line); }
    bool containsPrefix(const QString &prefix) const
    {
        return std::any_of(captured.cbegin(), captured.cend(), [&](const QString &line) { return line.startsWith(prefix); });
    }
    void clear() { captured.clear(); }

private:
    static void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        const bool ours = context.category && std::strncmp(context.category, "kx.", 3) == 0;
        if (ours)
            captured.append(kx::escapedName(message)); // as the log writes it
        if ((!ours || qEnvironmentVariableIsSet("KX_TEST_ECHO_LOG")) && previous)
            previous(type, context, message);
    }

    static inline QStringList captured;
    static inline QtMessageHandler previous = nullptr;
};
