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

#include <QDirIterator>

#include <cstdint>
#include <cstdlib>

namespace {

FuzzEngine *fuzz = nullptr;
constexpr std::uint64_t bytesPerRun = 1 << 20;

// Answers what the engine asked for; false once nothing is asked or the byte cap is hit.
bool answerQueries(const FileSDK::MacCliprdrFormatDataResponse &list, std::uint64_t &served)
{
    bool asked = false;
    for (const QByteArray &frame : std::exchange(fuzz->sink.sent, {})) {
        if (frame.back() != char(FrameType::fileContentsRequest))
            continue;
        const auto query = kx::parseMessage<FileSDK::CliprdrFileContentsRequest>(frame.chopped(1));
        if (!query || query->listindex() >= std::uint32_t(list.filedes_size()))
            std::abort(); // the engine asked for an entry the list does not have
        const std::uint64_t size = kx::descriptorSize(list.filedes(int(query->listindex())));
        std::string data(8, '\0');
        if (query->dwflags() == 2) {
            const std::uint64_t offset = kx::queryOffset(*query);
            if (offset >= size || served >= bytesPerRun)
                return false;
            data.assign(size_t(std::min<std::uint64_t>({query->cbrequested(), size - offset, bytesPerRun - served})),
                        char('a' + offset % 26));
            served += data.size();
        }
        fuzz->sink.deliver(kx::encodeFrame(kx::makeContentsAnswer(query->streamid(), data), FrameType::fileContentsResponse));
        asked = true;
    }
    return asked;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    fuzz = new FuzzEngine(argc, argv);
    writeFile(fuzz->root.filePath(QStringLiteral("outside/victim.txt")), "not to be touched");
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

    const auto engine = fuzz->makeEngine(1 + data[0] % 8);
    fuzz->sink.deliver(kx::encodeFrame(kx::makeFileFormatList(kx::formatListHeader()), FrameType::formatList));
    engine->startPaste([](double) {}, [](bool, PastedError) {});
    fuzz->sink.deliver(payload + char(FrameType::formatDataResponse));
    std::uint64_t served = 0;
    for (int turn = 0; turn < 10000; ++turn) {
        QCoreApplication::processEvents();
        if (!answerQueries(list, served))
            break;
    }
    fuzz->sink.lose(); // ends whatever is still running, as a dropped connection would

    // Beside the chosen folder: the folder outside and its one file, untouched.
    if (treeOf(fuzz->root.path()).filter(QRegularExpression(QStringLiteral("^(?!chosen)")))
        != QStringList{QStringLiteral("outside/"), QStringLiteral("outside/victim.txt 17")})
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
