// The descriptor list of a paste, any list with any sizes and names, played to its end:
// the target answers every size and range query the way the remote side would (bytes up
// to the declared size, capped per run). The chosen folder starts with links in it: to a
// folder outside, to a file outside, and to nothing. Whatever the list, nothing outside
// the chosen folder may change, and no file inside it may grow past its declared size.
// The input is one byte choosing the window (1 to 8), then the encoded list as it comes
// off the wire. Each run gets an engine and a scratch folder of its own (the tests'
// harness), so a crash replays alone.
#include "EngineHarness.h"

#include <QCoreApplication>

#include <cstdint>
#include <cstdlib>

namespace {

constexpr std::uint64_t bytesPerRun = 1 << 20;

// Answers what the engine asked for; false once nothing is asked or the byte cap is hit.
bool answerQueries(EngineHarness &h, const FileSDK::MacCliprdrFormatDataResponse &list, std::uint64_t &served)
{
    bool asked = false;
    for (const QByteArray &frame : std::exchange(h.sink.sent, {})) {
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
        h.reply(query->streamid(), QByteArray::fromStdString(data));
        asked = true;
    }
    return asked;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    new QCoreApplication(*argc, *argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {}); // the lines are still made
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray payload(reinterpret_cast<const char *>(data + 1), qsizetype(size - 1));
    FileSDK::MacCliprdrFormatDataResponse list;
    const bool parsed = list.ParseFromArray(payload.constData(), int(payload.size()));
    EngineHarness h(1 + data[0] % 8);
    const QString outside = h.root.filePath(QStringLiteral("inner/outside"));
    writeFile(outside + QStringLiteral("/victim.txt"), "not to be touched");
    QFile::link(outside, h.dest + QStringLiteral("/up"));
    QFile::link(outside + QStringLiteral("/victim.txt"), h.dest + QStringLiteral("/file"));
    QFile::link(h.root.filePath(QStringLiteral("nowhere")), h.dest + QStringLiteral("/dangling"));

    h.remoteCopy();
    h.paste();
    h.sink.deliver(payload + char(FrameType::formatDataResponse));
    std::uint64_t served = 0;
    for (int turn = 0; turn < 10000; ++turn) {
        QCoreApplication::processEvents();
        if (!answerQueries(h, list, served))
            break;
    }
    h.sink.lose(); // ends whatever is still running, as a dropped connection would

    // Beside the chosen folder: the folder outside and its one file, untouched.
    if (treeOf(h.root.path()).filter(QRegularExpression(QStringLiteral("^(?!inner/dest)")))
        != QStringList{QStringLiteral("inner/"), QStringLiteral("inner/outside/"), QStringLiteral("inner/outside/victim.txt 17")})
        std::abort();
    if (!parsed)
        return 0;
    // A written file is never longer than the largest size the list declares for any entry.
    std::uint64_t largest = 0;
    for (const auto &d : list.filedes())
        largest = std::max(largest, kx::descriptorSize(d));
    QDirIterator it(h.dest, QDir::Files | QDir::Hidden | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        if (std::uint64_t(QFileInfo(it.next()).size()) > largest)
            std::abort();
    }
    return 0;
}
