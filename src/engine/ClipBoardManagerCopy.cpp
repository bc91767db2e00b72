// Local-to-remote copy: announce the copied files, describe them on request, and serve
// every size and range query from the local files. The remote side drives it all.
#include "ClipBoardManager.h"

#include "FileTime.h"
#include "KXFileManager.h"
#include "Messages.h"

#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>

#include <google/protobuf/text_format.h>

Q_DECLARE_LOGGING_CATEGORY(lcEngine)

namespace {

constexpr std::uint32_t descriptorFlags = 0x4024; // progress UI, write time, attributes
constexpr std::uint32_t normalAttributes = 0x80;
constexpr std::uint32_t directoryAttributes = 0x10;
constexpr std::uint32_t responseFailedFlags = 2;
const char *const zeroClsid = "{00000000-0000-0000-0000-000000000000}";

// The offer's log lines hold every entry on one line; for tens of thousands of entries
// that text is the largest thing the copy allocates, so it is built in place, once.
QString printed(const QList<QUrl> &urls)
{
    QString text = QStringLiteral("[");
    for (const QUrl &url : urls) {
        if (text.size() > 1)
            text += QStringLiteral(", ");
        text += url.toString();
    }
    return text += QLatin1Char(']');
}

// Kept in UTF-8, the form the log line is written in, at half the size of a QString.
std::string printed(const QList<FileSDK::FileDescriptorw> &descriptors)
{
    google::protobuf::TextFormat::Printer printer;
    printer.SetSingleLineMode(true);
    printer.SetUseUtf8StringEscaping(true);
    std::string text = "[";
    text.reserve(size_t(descriptors.size()) * 360 + 32); // about one entry's length
    std::string entry;
    for (const FileSDK::FileDescriptorw &descriptor : descriptors) {
        printer.PrintToString(descriptor, &entry);
        while (!entry.empty() && entry.back() == ' ')
            entry.pop_back();
        if (text.size() > 1)
            text += ", ";
        text += entry;
    }
    return text += ']';
}

QString joinPath(const QString &folder, const QString &name)
{
    return folder.endsWith(QLatin1Char('/')) ? folder + name : folder + QLatin1Char('/') + name;
}

QString withoutTrailingSlash(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

} // namespace

void ClipBoardManager::copiedFiles(const QList<QUrl> &urls)
{
    m_fileList = urls;
    if (urls.isEmpty())
        return;
    qCInfo(lcEngine).noquote().nospace() << "list:" << printed(urls);
    send(kx::makeFileFormatList(kx::makeHeader(1, 1, 1, 1)), FrameType::formatList, "send success");
}

void ClipBoardManager::handleDataRequest(const QByteArray &payload)
{
    Q_UNUSED(payload); // any requested format gets the file list
    if (m_fileList.isEmpty())
        return;
    qCInfo(lcEngine).noquote().nospace() << "收到widows 发出control + v指令fileList:" << printed(m_fileList);
    m_uploadCopyQueue.clear();
    m_uploadCopyUrlList.clear();
    m_uploadQueueNum = 0;
    m_uploadStreamer.reset();
    m_uploadStreamerIndex.reset();

    // One walk both counts and describes: an entry that vanished while the folder was
    // listed is counted but not described, so cItems may exceed the descriptors.
    for (const QUrl &url : std::as_const(m_fileList)) {
        m_rootDirectory = url;
        const QFileInfo item(url.toLocalFile());
        if (!item.exists())
            continue;
        ++m_uploadQueueNum;
        if (item.isDir()) {
            appendRootFolderDescriptor(url);
            QStringList walk;
            if (enterFolder(item.absoluteFilePath(), walk))
                appendDirectoryDescriptors(url.toLocalFile(), walk);
        } else {
            appendRootFileDescriptor(url);
        }
    }
    // Every descriptor of one offer carries the offer's total count.
    for (FileSDK::FileDescriptorw &descriptor : m_uploadCopyQueue)
        descriptor.set_citems(std::uint32_t(m_uploadQueueNum));

    qCInfo(lcEngine).noquote().nospace() << "所有文件个数:" << m_uploadQueueNum;
    if (lcEngine().isInfoEnabled()) {
        // Handed to the log handler as it is: a QDebug stream or printf formatting would
        // copy a text of tens of MiB for a big offer, and grow it step by step on the way.
        const QMessageLogContext context(__FILE__, __LINE__, Q_FUNC_INFO, lcEngine().categoryName());
        qt_message_output(QtInfoMsg, context, QString::fromUtf8("上传des数组:" + printed(m_uploadCopyQueue)));
    }
    qCInfo(lcEngine).noquote().nospace() << "所有文件路径:" << printed(m_uploadCopyUrlList);

    FileSDK::MacCliprdrFormatDataResponse response;
    *response.mutable_header() = kx::makeHeader(1, 0, 1, 1);
    // The descriptors are lent to the message for its encoding rather than copied: a big
    // offer would otherwise be held twice at once.
    response.mutable_filedes()->Reserve(int(m_uploadCopyQueue.size()));
    for (FileSDK::FileDescriptorw &descriptor : m_uploadCopyQueue)
        response.add_filedes()->Swap(&descriptor);
    send(response, FrameType::formatDataResponse, "send DataResponse success");
    for (qsizetype i = 0; i < m_uploadCopyQueue.size(); ++i)
        m_uploadCopyQueue[i].Swap(response.mutable_filedes(int(i)));
}

// Symbolic links are followed, so a link back to a folder being walked would never end:
// a folder already on the walk path is listed but not entered again.
bool ClipBoardManager::enterFolder(const QString &path, QStringList &walk)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    if (walk.contains(canonical)) {
        qCInfo(lcEngine).noquote().nospace() << "Skipping a folder already on the walk path (link cycle): " << path;
        return false;
    }
    walk.append(canonical);
    return true;
}

std::optional<QStringList> ClipBoardManager::listFolder(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        qCInfo(lcEngine).noquote().nospace() << "Directory not found: " << path;
        return std::nullopt;
    }
    if (!info.isDir()) {
        qCInfo(lcEngine).noquote().nospace() << "Path is not a directory: " << path;
        return std::nullopt;
    }
    QDir folder(path);
    if (!folder.isReadable()) {
        qCInfo(lcEngine).noquote().nospace() << "Error listing contents of directory: " << "cannot read " << path;
        return std::nullopt;
    }
    return folder.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
}

QString ClipBoardManager::relativePath(const QString &from, const QString &to)
{
    const QStringList fromParts = from.split(QLatin1Char('/'));
    const QStringList toParts = to.split(QLatin1Char('/'));
    qsizetype common = 0;
    while (common < fromParts.size() && common < toParts.size() && fromParts.at(common) == toParts.at(common))
        ++common;
    QStringList result;
    for (qsizetype i = common; i < fromParts.size(); ++i)
        result.append(QStringLiteral(".."));
    result.append(toParts.mid(common));
    return result.join(QStringLiteral("//"));
}

QString ClipBoardManager::remoteName(const QString &itemPath) const
{
    const QString rootPath = withoutTrailingSlash(m_rootDirectory ? m_rootDirectory->toLocalFile() : QString());
    const QString relative = relativePath(rootPath, withoutTrailingSlash(itemPath));
    qCInfo(lcEngine).noquote().nospace() << "Directoryrela:" << relative;
    QString name = QFileInfo(rootPath).fileName() + QStringLiteral("//") + relative;
    while (name.endsWith(QLatin1String("//")))
        name.chop(1);
    return name;
}

FileSDK::FileDescriptorw ClipBoardManager::makeDescriptor(const QString &path, bool folder, bool topLevel)
{
    KXFileManager *files = KXFileManager::shared();
    const std::uint64_t size = folder ? 0 : files->fileSizeAtPath(path);
    const std::uint64_t created = kx::fileTime(files->creationDateAtPath(path));
    const std::uint64_t modified = kx::fileTime(files->modificationDateAtPath(path));

    FileSDK::FileDescriptorw descriptor;
    descriptor.set_dwflags(descriptorFlags);
    descriptor.set_clsid(zeroClsid);
    descriptor.set_dwfileattributes(folder ? directoryAttributes : normalAttributes);
    descriptor.set_ftcreationtimelow(std::uint32_t(created & 0xffffffffu));
    descriptor.set_ftcreationtimehigh(std::uint32_t(created >> 32));
    descriptor.set_ftlastaccesstimelow(std::uint32_t(modified & 0xffffffffu));
    descriptor.set_ftlastaccesstimehigh(std::uint32_t(modified >> 32));
    descriptor.set_ftlastwritetimelow(std::uint32_t(modified & 0xffffffffu));
    descriptor.set_ftlastwritetimehigh(std::uint32_t(modified >> 32));
    if (folder) {
        // A folder carries no size; these are the constants the remote side expects.
        descriptor.set_nfilesizehigh(16);
        descriptor.set_nfilesizelow(topLevel ? 16 : 0);
    } else {
        descriptor.set_nfilesizehigh(std::uint32_t(size >> 32));
        descriptor.set_nfilesizelow(std::uint32_t(size & 0xffffffffu));
        qCInfo(lcEngine).noquote().nospace() << "fileSize:" << size;
        qCInfo(lcEngine).noquote().nospace() << "fileName:" << QFileInfo(path).fileName();
        qCInfo(lcEngine).noquote().nospace() << "fileCreateTime:" << created;
        qCInfo(lcEngine).noquote().nospace() << "fileCreateTime:" << modified;
        qCInfo(lcEngine).noquote().nospace() << "lowSize:" << descriptor.nfilesizelow();
        qCInfo(lcEngine).noquote().nospace() << "highSize:" << descriptor.nfilesizehigh();
    }
    qCInfo(lcEngine).noquote().nospace() << "createTimeLow:" << descriptor.ftcreationtimelow();
    qCInfo(lcEngine).noquote().nospace() << "createTimeHigh:" << descriptor.ftcreationtimehigh();
    if (folder)
        qCInfo(lcEngine).noquote().nospace() << "self.rootDirectory?.path:"
                                             << (m_rootDirectory ? m_rootDirectory->toLocalFile() : QString());
    const QString name = remoteName(path);
    qCInfo(lcEngine).noquote().nospace() << "finalName:" << name;
    descriptor.set_cfilename(name.toStdString());
    return descriptor;
}

void ClipBoardManager::appendRootFileDescriptor(const QUrl &url)
{
    m_uploadCopyQueue.append(makeDescriptor(url.toLocalFile(), false, true));
    m_uploadCopyUrlList.append(url);
}

void ClipBoardManager::appendRootFolderDescriptor(const QUrl &url)
{
    m_uploadCopyQueue.append(makeDescriptor(url.toLocalFile(), true, true));
    m_uploadCopyUrlList.append(url);
}

void ClipBoardManager::appendDirectoryDescriptors(const QString &path, QStringList &walk)
{
    const auto names = listFolder(path);
    if (!names)
        return;
    for (const QString &name : *names) {
        ++m_uploadQueueNum;
        const QString full = joinPath(path, name);
        const QFileInfo info(full);
        if (!info.exists())
            continue;
        const bool folder = info.isDir();
        qCInfo(lcEngine).noquote().nospace() << (folder ? "Directory: " : "File: ") << full;
        m_uploadCopyQueue.append(makeDescriptor(full, folder, false));
        m_uploadCopyUrlList.append(QUrl::fromLocalFile(full));
        if (folder && enterFolder(full, walk)) {
            appendDirectoryDescriptors(full, walk);
            walk.removeLast();
        }
    }
}

KXFileStreamOperation *ClipBoardManager::uploadStreamerFor(std::uint32_t listIndex)
{
    const QString path = m_uploadCopyUrlList.at(listIndex).toLocalFile();
    // The open file would still read after the user deleted it; the remote side should
    // learn that the file is gone rather than receive what the user threw away.
    if (m_uploadStreamer && m_uploadStreamerIndex == listIndex && !QFileInfo::exists(path)) {
        m_uploadStreamer.reset();
        m_uploadStreamerIndex.reset();
        return nullptr;
    }
    if (!m_uploadStreamer || m_uploadStreamerIndex != listIndex) {
        m_uploadStreamer = KXFileStreamOperation::initFileOperationAtPath(path, false, m_pasteBasePath);
        m_uploadStreamerIndex = m_uploadStreamer ? std::optional(listIndex) : std::nullopt;
    }
    return m_uploadStreamer.get();
}

void ClipBoardManager::sendContentsResponse(std::uint32_t streamId, const QByteArray &data, std::uint32_t msgFlags)
{
    FileSDK::CliprdrFileContentsResponse response;
    *response.mutable_header() = kx::makeHeader(1, 0, msgFlags, 1);
    response.set_streamid(streamId);
    response.set_cbrequested(std::uint32_t(data.size()));
    response.set_requesteddata(data.constData(), size_t(data.size()));
    send(response, FrameType::fileContentsResponse, "send requestContentRequestType success");
}

void ClipBoardManager::handleContentRequest(const QByteArray &payload)
{
    const auto request = kx::parseMessage<FileSDK::CliprdrFileContentsRequest>(payload);
    if (!request) {
        qCInfo(lcEngine).noquote() << "a file contents request could not be decoded; no answer";
        return;
    }
    const std::uint32_t listIndex = request->listindex();
    if (listIndex >= std::uint32_t(m_uploadCopyUrlList.size())) {
        qCInfo(lcEngine).noquote() << "list超过了uploadCopyQueuecount";
        return;
    }
    const FileSDK::FileDescriptorw &descriptor = m_uploadCopyQueue.at(listIndex);
    if (request->dwflags() == 1) {
        // The size answer carries the low half from the offer, as the remote side expects.
        const std::uint32_t low = descriptor.nfilesizelow();
        QByteArray data(4, Qt::Uninitialized);
        for (int i = 0; i < 4; ++i)
            data[i] = char((low >> (8 * i)) & 0xff);
        FileSDK::CliprdrFileContentsResponse response;
        *response.mutable_header() = kx::makeHeader(1, 0, 1, 1);
        response.set_streamid(request->streamid());
        response.set_cbrequested(8);
        response.set_requesteddata(data.constData(), 4);
        send(response, FrameType::fileContentsResponse, "send requestContentRequestType success");
        return;
    }
    if (request->dwflags() != 2)
        return;
    qCInfo(lcEngine).noquote().nospace() << "nPositionLow:" << request->npositionlow();
    qCInfo(lcEngine).noquote().nospace() << "contentRequest.cbRequested:" << request->cbrequested();
    qCInfo(lcEngine).noquote().nospace() << "resultValue:" << request->npositionlow();
    qCInfo(lcEngine).noquote().nospace() << "contentRequest.streamID" << request->streamid();
    const std::uint64_t offset = kx::joinHalves(request->npositionhigh(), request->npositionlow());
    KXFileStreamOperation *reader = uploadStreamerFor(listIndex);
    const std::optional<QByteArray> data = reader ? reader->readDateOffSet(offset, request->cbrequested())
                                                  : std::nullopt;
    if (!data) {
        qCInfo(lcEngine).noquote().nospace() << "could not read " << m_uploadCopyUrlList.at(listIndex).toLocalFile()
                                             << "; the range query is answered as failed";
        m_uploadStreamer.reset();
        m_uploadStreamerIndex.reset();
        sendContentsResponse(request->streamid(), QByteArray(), responseFailedFlags);
        return;
    }
    sendContentsResponse(request->streamid(), *data, 1);
}
