#pragma once

#include <QStringList>

// Records every line our code logs while it is alive, so tests can check the exact texts
// a user or an operator reads.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList lines() const;
    int count(const QString &line) const;
    bool contains(const QString &line) const { return count(line) > 0; }
    bool containsPrefix(const QString &prefix) const;
    void clear();
};
