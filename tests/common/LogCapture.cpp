#include "LogCapture.h"

#include <QMutex>
#include <QtGlobal>

#include <cstring>

namespace {

QMutex mutex;
QStringList captured;
QtMessageHandler previous = nullptr;
bool echo = qEnvironmentVariableIsSet("KX_TEST_ECHO_LOG");

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (context.category && std::strncmp(context.category, "kx.", 3) == 0) {
        QMutexLocker locker(&mutex);
        captured.append(message);
        if (!echo)
            return;
    }
    if (previous)
        previous(type, context, message);
}

} // namespace

LogCapture::LogCapture()
{
    QMutexLocker locker(&mutex);
    captured.clear();
    previous = qInstallMessageHandler(capture);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous);
}

QStringList LogCapture::lines() const
{
    QMutexLocker locker(&mutex);
    return captured;
}

int LogCapture::count(const QString &line) const
{
    QMutexLocker locker(&mutex);
    return int(captured.count(line));
}

bool LogCapture::containsPrefix(const QString &prefix) const
{
    QMutexLocker locker(&mutex);
    for (const QString &line : std::as_const(captured)) {
        if (line.startsWith(prefix))
            return true;
    }
    return false;
}

void LogCapture::clear()
{
    QMutexLocker locker(&mutex);
    captured.clear();
}
