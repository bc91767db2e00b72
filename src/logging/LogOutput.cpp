#include "LogOutput.h"

#include "LogText.h"

#include <QByteArray>
#include <QString>
#include <QStringEncoder>
#include <QtGlobal>

#include <cstdio>
#include <cstring>

namespace kx {

namespace {

void writeLine(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const bool ours = context.category && std::strncmp(context.category, "kx.", 3) == 0;
    if (ours && (type == QtInfoMsg || type == QtDebugMsg)) {
        // Encoded piece by piece: one line may list a whole offer of tens of thousands of
        // files, and a second full copy of it in UTF-8 would be held only to be written.
        // Names from the remote side are in many lines: none may break a line in two.
        QStringEncoder toUtf8(QStringEncoder::Utf8);
        constexpr qsizetype piece = 1 << 16;
        for (qsizetype at = 0; at < message.size(); at += piece) {
            const QByteArray bytes = toUtf8(escapedName(QStringView(message).mid(at, piece)));
            std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
        }
        std::fputc('\n', stdout);
        return;
    }
    std::fprintf(stderr, "%s: %s\n", context.category ? context.category : "qt", message.toUtf8().constData());
    if (type == QtFatalMsg)
        std::abort();
}

} // namespace

void installStdoutLogHandler()
{
    // Line buffering keeps our lines in order with a reader on a pipe without a flush per line.
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    qInstallMessageHandler(writeLine);
}

} // namespace kx
