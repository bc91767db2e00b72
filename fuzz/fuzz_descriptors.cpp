// The descriptor list of a paste, any list with any sizes and names, played to its end:
// the harness answers every size and range query the way the remote side would (bytes up
// to the declared size, capped per run) and then checks that nothing was written beside
// the chosen folder and no file inside it grew past its declared size.
// The input is the encoded list as it comes off the wire.
#include "ClipBoardManager.h"
#include "FuzzEngine.h"
#include "Frame.h"
#include "KXFileManager.h"
#include "LoopbackSocketManager.h"
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
constexpr std::uint64_t bytesPerRun = 1 << 20;

void writeSeeds(const QString &dir)
{
    const auto descriptor = [](FileSDK::MacCliprdrFormatDataResponse &list, const char *name, std::uint32_t attributes,
                               std::uint64_t size) {
        auto *d = list.add_filedes();
        d->set_dwfileattributes(attributes);
        d->set_nfilesizehigh(std::uint32_t(size >> 32));
        d->set_nfilesizelow(std::uint32_t(size & 0xffffffffu));
        d->set_cfilename(name);
    };
    FileSDK::MacCliprdrFormatDataResponse tree, big, odd;
    descriptor(tree, "docs", 0x10, 0);
    descriptor(tree, "docs\\a.txt", 0x80, 5);
    descriptor(tree, "docs\\empty", 0x80, 0);
    descriptor(tree, "b.bin", 0x80, 300000);
    descriptor(big, "huge.bin", 0x80, (std::uint64_t(1) << 32) + 7);
    descriptor(odd, "..\\up.txt", 0x80, 3);
    descriptor(odd, "C:\\abs.txt", 0x80, 3);
    descriptor(odd, "dir\\", 0x10, 0);
    descriptor(odd, "dir\\\xe4\xbd\xa0\xe5\xa5\xbd.txt", 0x80, 2);
    int n = 0;
    for (const auto *list : {&tree, &big, &odd}) {
        QFile out(QStringLiteral("%1/seed-%2").arg(dir).arg(n++));
        if (out.open(QIODevice::WriteOnly))
            out.write(kx::serialize(*list));
    }
}

void deliver(const google::protobuf::MessageLite &message, FrameType type)
{
    fuzz->engine->socketDidReceive(kx::encodeFrame(message, type));
}

// Answers what the engine asked for; false once nothing is asked or the byte cap is hit.
bool answerQueries(const FileSDK::MacCliprdrFormatDataResponse &list, std::uint64_t &served)
{
    QList<QByteArray> frames;
    frames.swap(sentFrames());
    bool asked = false;
    for (const QByteArray &frame : std::as_const(frames)) {
        const auto received = kx::splitFrame(frame);
        if (!received || FrameType(received->type) != FrameType::fileContentsRequest)
            continue;
        const auto query = kx::parseMessage<FileSDK::CliprdrFileContentsRequest>(received->payload);
        if (!query || query->listindex() >= std::uint32_t(list.filedes_size()))
            std::abort(); // the engine asked for an entry the list does not have
        const std::uint64_t size = kx::descriptorSize(list.filedes(int(query->listindex())));
        FileSDK::CliprdrFileContentsResponse reply;
        reply.set_streamid(query->streamid());
        if (query->dwflags() == 1) {
            reply.set_cbrequested(8);
            reply.set_requesteddata(reinterpret_cast<const char *>(&size), 8);
        } else {
            const std::uint64_t offset = kx::joinHalves(query->npositionhigh(), query->npositionlow());
            if (offset >= size || served >= bytesPerRun)
                return false;
            const std::uint64_t length = std::min<std::uint64_t>({query->cbrequested(), size - offset, bytesPerRun - served});
            reply.set_cbrequested(std::uint32_t(length));
            reply.set_requesteddata(std::string(size_t(length), char('a' + offset % 26)));
            served += length;
        }
        deliver(reply, FrameType::fileContentsResponse);
        asked = true;
    }
    return asked;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz = startFuzzEngine(argc, argv, writeSeeds);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray payload(reinterpret_cast<const char *>(data), qsizetype(size));
    FileSDK::MacCliprdrFormatDataResponse list;
    const bool parsed = list.ParseFromArray(payload.constData(), int(payload.size()));
    QDir(fuzz->chooser->folder).removeRecursively();
    QDir().mkpath(fuzz->chooser->folder);
    sentFrames().clear();

    deliver(kx::makeFileFormatList(kx::makeHeader(1, 1, 1, 1)), FrameType::formatList);
    fuzz->engine->startPaste([](double) {}, [](bool, PastedError) {});
    fuzz->engine->socketDidReceive(payload + char(FrameType::formatDataResponse));
    std::uint64_t served = 0;
    for (int turn = 0; turn < 10000; ++turn) {
        QCoreApplication::processEvents();
        if (!answerQueries(list, served))
            break;
    }
    fuzz->engine->socketDidDisconnect(); // ends whatever is still running, as a dropped connection would

    const QStringList top = QDir(fuzz->root.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    if (top != QStringList{QStringLiteral("chosen")})
        std::abort();
    if (!parsed)
        return 0;
    // A written file is never longer than the largest size the list declares for any entry.
    std::uint64_t largest = 0;
    for (const auto &d : list.filedes())
        largest = std::max(largest, kx::descriptorSize(d));
    QDirIterator it(fuzz->chooser->folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        if (std::uint64_t(QFileInfo(it.next()).size()) > largest)
            std::abort();
    }
    return 0;
}
