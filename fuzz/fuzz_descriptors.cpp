// The descriptor list of a paste, any list with any sizes and names, played to its end:
// the harness answers every size and range query the way the remote side would (bytes up
// to the declared size, capped per run). The chosen folder starts with links in it: to a
// folder outside, to a file outside, and to nothing. Whatever the list, nothing outside
// the chosen folder may change, and no file inside it may grow past its declared size.
// The input is one byte choosing the window (1 to 8), then the encoded list as it comes
// off the wire.
#include "FuzzEngine.h"
#include "Frame.h"
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

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
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
    descriptor(odd, "up\\victim.txt", 0x80, 4);
    descriptor(odd, "file", 0x80, 4);
    descriptor(odd, "dangling\\x", 0x80, 4);
    int n = 0;
    for (const auto *list : {&tree, &big, &odd}) {
        QFile out(QStringLiteral("%1/seed-%2").arg(dir).arg(n++));
        if (out.open(QIODevice::WriteOnly))
            out.write(QByteArray(1, char(n * 3)) + kx::serialize(*list));
    }
}

void deliver(const google::protobuf::MessageLite &message, FrameType type)
{
    fuzz->sink.deliver(kx::encodeFrame(message, type));
}

// What lies beside the chosen folder, and must stay exactly so.
QStringList outsideTree()
{
    QStringList tree;
    QDirIterator it(fuzz->root.path(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        if (!info.filePath().startsWith(fuzz->chooser->folder))
            tree.append(info.filePath() + QLatin1Char(' ') + QString::number(info.isSymLink() ? -1 : info.size()));
    }
    tree.sort();
    return tree;
}

// Answers what the engine asked for; false once nothing is asked or the byte cap is hit.
bool answerQueries(const FileSDK::MacCliprdrFormatDataResponse &list, std::uint64_t &served)
{
    QList<QByteArray> frames;
    frames.swap(fuzz->sink.sent);
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
    QDir(fuzz->root.path()).mkpath(QStringLiteral("outside"));
    QFile victim(fuzz->root.filePath(QStringLiteral("outside/victim.txt")));
    if (victim.open(QIODevice::WriteOnly))
        victim.write("not to be touched");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray payload(reinterpret_cast<const char *>(data + 1), qsizetype(size - 1));
    FileSDK::MacCliprdrFormatDataResponse list;
    const bool parsed = list.ParseFromArray(payload.constData(), int(payload.size()));
    const QString chosen = fuzz->chooser->folder;
    QDir(chosen).removeRecursively();
    QDir().mkpath(chosen);
    QFile::link(fuzz->root.filePath(QStringLiteral("outside")), chosen + QStringLiteral("/up"));
    QFile::link(fuzz->root.filePath(QStringLiteral("outside/victim.txt")), chosen + QStringLiteral("/file"));
    QFile::link(fuzz->root.filePath(QStringLiteral("nowhere")), chosen + QStringLiteral("/dangling"));
    static const QStringList outside = outsideTree();

    const auto engine = fuzz->makeEngine(1 + data[0] % 8);
    deliver(kx::makeFileFormatList(kx::formatListHeader()), FrameType::formatList);
    engine->startPaste([](double) {}, [](bool, PastedError) {});
    fuzz->sink.deliver(payload + char(FrameType::formatDataResponse));
    std::uint64_t served = 0;
    for (int turn = 0; turn < 10000; ++turn) {
        QCoreApplication::processEvents();
        if (!answerQueries(list, served))
            break;
    }
    fuzz->sink.lose(); // ends whatever is still running, as a dropped connection would

    if (outsideTree() != outside || readFile(fuzz->root.filePath(QStringLiteral("outside/victim.txt"))) != "not to be touched")
        std::abort();
    if (!parsed)
        return 0;
    // A written file is never longer than the largest size the list declares for any entry.
    std::uint64_t largest = 0;
    for (const auto &d : list.filedes())
        largest = std::max(largest, kx::descriptorSize(d));
    QDirIterator it(chosen, QDir::Files | QDir::Hidden | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        if (std::uint64_t(QFileInfo(it.next()).size()) > largest)
            std::abort();
    }
    return 0;
}
