// Received frames, and the user's actions between them, into the real engine: no input
// may crash it, hang it or make it write outside the chosen folder. An input is a list of
// steps, each one byte of kind and, for a frame, two bytes of length and the frame; the
// kind byte of the first step also chooses the window, 1 or 4.
#include "ClipBoardManager.h"
#include "FuzzEngine.h"
#include "Frame.h"
#include "KXFileManager.h"
#include "Messages.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdlib>

namespace {

FuzzEngine *fuzz = nullptr;

void writeSeeds(const QString &dir)
{
    auto frame = [](const google::protobuf::MessageLite &m, FrameType t) { return kx::encodeFrame(m, t); };
    auto step = [](char kind, const QByteArray &bytes = {}) {
        QByteArray out(1, kind);
        if (kind == 0) {
            out.append(char(bytes.size() >> 8)).append(char(bytes.size() & 0xff));
            out.append(bytes);
        }
        return out;
    };
    FileSDK::MacCliprdrFormatDataResponse list;
    auto *folder = list.add_filedes();
    folder->set_dwfileattributes(0x10);
    folder->set_cfilename("d");
    auto *file = list.add_filedes();
    file->set_dwfileattributes(0x80);
    file->set_nfilesizelow(5);
    file->set_cfilename("d\\a.txt");
    FileSDK::CliprdrFileContentsResponse reply;
    reply.set_cbrequested(5);
    reply.set_requesteddata("hello");
    FileSDK::CliprdrFileContentsRequest query;
    query.set_dwflags(2);
    query.set_cbrequested(100);
    const QByteArray paste = step(0, frame(kx::makeFileFormatList(kx::makeHeader(1, 1, 1, 1)), FrameType::formatList))
        + step(1) + step(0, frame(list, FrameType::formatDataResponse)) + step(0, frame(reply, FrameType::fileContentsResponse))
        + step(0, frame(reply, FrameType::fileContentsResponse));
    const QByteArray copy = step(3) + step(0, QByteArray(1, 3)) + step(0, frame(query, FrameType::fileContentsRequest));
    const QByteArray cancel = paste.left(paste.size() / 2) + step(2) + step(0, frame(reply, FrameType::fileContentsResponse));
    int n = 0;
    for (const QByteArray &seed : {paste, copy, cancel, step(4) + paste}) {
        QFile out(QStringLiteral("%1/seed-%2").arg(dir).arg(n++));
        if (out.open(QIODevice::WriteOnly))
            out.write(seed);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz = startFuzzEngine(argc, argv, writeSeeds);
    QDir(fuzz->root.path()).mkpath(QStringLiteral("chosen"));
    QFile source(fuzz->root.filePath(QStringLiteral("source.txt")));
    source.open(QIODevice::WriteOnly);
    source.write("local file served to the remote side");
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
