// Received frames, and the user's actions between them, into the real engine: no input
// may crash it, hang it or make it write outside the chosen folder. An input is a list of
// steps, each one byte of kind and, for a frame, two bytes of length and the frame; the
// kind byte of the first step also chooses the window, 1 or 4.
#include "FuzzEngine.h"

#include <cstdint>
#include <cstdlib>

namespace {

FuzzEngine *fuzz = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz = new FuzzEngine(argc, argv);
    QDir(fuzz->root.path()).mkpath(QStringLiteral("chosen"));
    writeFile(fuzz->root.filePath(QStringLiteral("source.txt")), "local file served to the remote side");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto engine = fuzz->makeEngine(size && (data[0] & 0x80) ? 4 : 1);
    std::size_t at = 0;
    while (at < size) {
        const std::uint8_t kind = data[at++] % 5;
        switch (kind) {
        case 0: {
            if (at + 2 > size)
                return 0;
            const std::size_t length = std::min<std::size_t>((std::size_t(data[at]) << 8) | data[at + 1], size - at - 2);
            at += 2;
            engine->socketDidReceive(QByteArray(reinterpret_cast<const char *>(data + at), qsizetype(length)));
            at += length;
            break;
        }
        case 1:
            engine->startPaste([](double) {}, [](bool, PastedError) {});
            break;
        case 2:
            engine->setPasteStatus(ClipBoardManager::PasteStatus::cancel);
            break;
        case 3:
            engine->copiedFiles({QUrl::fromLocalFile(fuzz->root.filePath(QStringLiteral("source.txt"))),
                                 QUrl::fromLocalFile(fuzz->root.filePath(QStringLiteral("chosen")))});
            break;
        case 4:
            fuzz->sink.lose();
            fuzz->sink.open();
            break;
        }
    }
    QCoreApplication::processEvents();
    // Nothing but the chosen folder and the served file may ever appear in the root.
    const QStringList top = QDir(fuzz->root.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    if (top != QStringList{QStringLiteral("chosen"), QStringLiteral("source.txt")})
        std::abort();
    QDir(fuzz->chooser->folder).removeRecursively();
    QDir().mkpath(fuzz->chooser->folder);
    return 0;
}
