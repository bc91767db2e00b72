#pragma once

#include <QStringList>

// Records every line our code logs while it is alive, so tests can check the exact texts
// a user or an operator reads. KX_TEST_ECHO_LOG=1 prints them as well.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList lines() const { return captured; }
    int count(const QString &line) const { return int(captured.count(line)); }
    bool contains(const QString &line) const { return captured.contains(line); }
    bool containsPrefix(const QString &prefix) const;
    void clear() { captured.clear(); }

    static inline QStringList captured;
};
