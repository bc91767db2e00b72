#include "LogOutput.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <cstdio>
#include <cstring>

namespace kx {

namespace {

void writeLine(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const QByteArray text = message.toUtf8();
    const bool ours = context.category && std::strncmp(context.category, "kx.", 3) == 0;
    if (ours && (type == QtInfoMsg || type == QtDebugMsg)) {
        std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
        std::fputc('\n', stdout);
        return;
    }
    std::fprintf(stderr, "%s: %s\n", context.category ? context.category : "qt", text.constData());
    if (type == QtFatalMsg)
        std::abort();
}

} // namespace

void installStdoutLogHandler()
{
    // Line buffering keeps our lines in order with a reader on a pipe without a flush per line.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    qInstallMessageHandler(writeLine);
}

} // namespace kx
