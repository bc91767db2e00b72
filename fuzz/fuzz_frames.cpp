// Received frames, and the user's actions between them, into the real engine: no input
// may crash it, hang it or make it write outside the chosen folder. An input is a list of
// steps, each one byte of kind and, for a frame, two bytes of length and the frame; the
// kind byte of the first step also chooses the window, 1 or 4. Each run gets an engine
// and a scratch folder of its own (the tests' harness), so a crash replays alone.
#include "EngineHarness.h"

#include <QCoreApplication>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    new QCoreApplication(*argc, *argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}); // the lines are still made
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    EngineHarness h(size && (data[0] & 0x80) ? 4 : 1);
    const QString served = h.root.filePath(QStringLiteral("source.txt"));
    writeFile(served, "local file served to the remote side");
    std::size_t at = 0;
    while (at < size) {
        const std::uint8_t kind = data[at++] % 5;
        switch (kind) {
        case 0: {
            if (at + 2 > size)
                return 0;
            const std::size_t length = std::min<std::size_t>((std::size_t(data[at]) << 8) | data[at + 1], size - at - 2);
            at += 2;
            h.engine->socketDidReceive(QByteArray(reinterpret_cast<const char *>(data + at), qsizetype(length)));
            at += length;
            break;
        }
        case 1:
            h.paste();
            break;
        case 2:
            h.engine->setPasteStatus(ClipBoardManager::PasteStatus::cancel);
            break;
        case 3:
            h.engine->copiedFiles({QUrl::fromLocalFile(served), QUrl::fromLocalFile(h.dest)});
            break;
        case 4:
            h.sink.lose();
            h.reopen();
            break;
        }
    }
    QCoreApplication::processEvents();
    // Nothing but the chosen folder and the served file may ever appear in the root.
    if (treeOf(h.root.path()).filter(QRegularExpression(QStringLiteral("^(?!inner/dest/.)")))
        != QStringList{QStringLiteral("inner/"), QStringLiteral("inner/dest/"), QStringLiteral("source.txt 36")})
        std::abort();
    return 0;
}
