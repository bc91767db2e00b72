#include "LogCapture.h"

#include <QtGlobal>

#include <cstring>

namespace {

QtMessageHandler previous = nullptr;
const bool echo = qEnvironmentVariableIsSet("KX_TEST_ECHO_LOG");

void capture(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const bool ours = context.category && std::strncmp(context.category, "kx.", 3) == 0;
    if (ours)
        LogCapture::captured.append(message);
    if ((!ours || echo) && previous)
        previous(type, context, message);
}

} // namespace

LogCapture::LogCapture()
{
    captured.clear();
    previous = qInstallMessageHandler(capture);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous);
}

bool LogCapture::containsPrefix(const QString &prefix) const
{
    return std::any_of(captured.cbegin(), captured.cend(), [&](const QString &line) { return line.startsWith(prefix); });
}
