#include "PasteSession.h"

#include "ClipBoardManager.h"
#include "EngineLog.h"
#include "FileTime.h"
#include "KXFileManager.h"
#include "Messages.h"
#include "RemotePath.h"
#include "Wire.h"

#include <QRandomGenerator>
#include <QTimer>
#include <QUrl>

#include <sys/stat.h>

namespace {

constexpr int retryWaitMs = 600;

const char *const sizeQuerySent = "send requestContentRequestType success";
const char *const rangeQuerySent = "send requestContentRequestType2 success";
const char *const rangeRetrySent = "send requestContentRequestType3 success";

bool isFolder(const FileSDK::FileDescriptorw &d)
{
    // Only these two exact values are folders; any other entry is fetched as a file.
    return d.dwfileattributes() == kx::wire::folderAttributes
        || d.dwfileattributes() == kx::wire::folderAttributesNotIndexed;
}

// The descriptor's last-write time onto an open file or folder; its access time is left.
bool setModificationTime(int fd, const FileSDK::FileDescriptorw &d)
{
    timespec accessed{};
    accessed.tv_nsec = UTIME_OMIT;
    const timespec times[] = {accessed, kx::timespecFromFileTime(kx::joinHalves(d.ftlastwritetimehigh(), d.ftlastwritetimelow()))};
    return ::futimens(fd, times) == 0;
}

} // namespace

// Folders are not fetched (a file's folders are made when it is opened), and the sizes of
// the rest are summed; a sum past 2^64, which no real list reaches, stays at the top, so
// that the progress is still a fraction.
PasteSession::PasteSession(ClipBoardManager &engine, const QString &basePath,
                           google::protobuf::RepeatedPtrField<FileSDK::FileDescriptorw> list)
    : m_engine(engine)
    , m_window(engine.window())
    , m_pasteBasePath(basePath)
    , m_originFileDescriptorwList(std::move(list))
{
    m_files.reserve(std::size_t(m_originFileDescriptorwList.size()));
    for (int i = 0; i < m_originFileDescriptorwList.size(); ++i) {
        const FileSDK::FileDescriptorw &d = m_originFileDescriptorwList.Get(i);
        if (isFolder(d))
            continue;
        FileTask file;
        file.listIndex = i;
        file.size = kx::descriptorSize(d);
        qCInfo(lcEngine).noquote().nospace() << "此文件大小:" << file.size;
        if (__builtin_add_overflow(m_downloadTotalSize, file.size, &m_downloadTotalSize))
            m_downloadTotalSize = std::numeric_limits<std::uint64_t>::max();
        m_files.push_back(std::move(file));
    }
    qCInfo(lcEngine).noquote().nospace() << "下载文件总大小：" << m_downloadTotalSize;
    qCInfo(lcEngine).noquote().nospace() << "需要下载的文件总个数:" << m_files.size();
}

PasteSession::~PasteSession() = default;

const FileSDK::FileDescriptorw &PasteSession::descriptor(const FileTask &file) const
{
    return m_originFileDescriptorwList.Get(file.listIndex);
}

QString PasteSession::currentFileName() const
{
    return m_head < m_files.size() ? QString::fromStdString(descriptor(m_files[m_head]).cfilename()) : QString();
}

void PasteSession::downloadNextFile()
{
    qCInfo(lcEngine).noquote() << "开始启动下载loop";
    if (m_files.empty()) {
        // Only folders: nothing to fetch, and nothing to report.
        m_engine.downloadQueueEmptied();
        qCInfo(lcEngine).noquote() << "所有文件下载完成";
        return;
    }
    pump();
}

// Fills the window: finished files are closed in list order, then queries are sent for
// the earliest files first, so that files complete in the order of the list.
void PasteSession::pump()
{
    while (!m_stopped) {
        closeSavedFiles();
        if (m_head == m_files.size()) {
            finishAll();
            return;
        }
        if (m_outstanding.size() >= std::size_t(m_window))
            return;
        if (requestNextRange())
            continue;
        if (m_next < m_files.size() && m_next - m_head < std::size_t(m_window)) {
            startCurrentFile(m_next++);
            continue;
        }
        return;
    }
}

// Files finish in list order: the first one not saved in full holds the later ones back.
void PasteSession::closeSavedFiles()
{
    while (m_head < m_next && m_files[m_head].out && m_files[m_head].saved == m_files[m_head].size) {
        finishCurrentFile(m_files[m_head]);
        ++m_head;
        qCInfo(lcEngine).noquote() << "开始启动下载loop";
    }
}

// Every file saved, and no query outstanding: a reply that still comes matches none and
// is ignored.
void PasteSession::finishAll()
{
    qCInfo(lcEngine).noquote() << "所有文件下载完成";
    setFolderTimes();
    m_engine.finishPaste();
}

void PasteSession::startCurrentFile(std::size_t index)
{
    FileTask &file = m_files[index];
    const QString name = QString::fromStdString(descriptor(file).cfilename());
    qCInfo(lcEngine).noquote().nospace() << "正在下载的文件名：self.currentDescriptorw!.cFileName:" << name;
    qCInfo(lcEngine).noquote().nospace() << "将要存储的目录是:" << m_pasteBasePath;
    if (!kx::isContainedRemotePath(name)) {
        qCInfo(lcEngine).noquote().nospace() << "refused a remote name outside the chosen folder: " << name;
        m_engine.failSave();
        return;
    }
    file.out = KXFileStreamOperation::initFileOperationAtPath(name, true, m_pasteBasePath);
    qCInfo(lcEngine).noquote().nospace() << "文件总大小resultValue:" << file.size;
    if (!file.out) {
        m_engine.failSave();
        return;
    }
    file.localPath = KXFileStreamOperation::getMacPathFromWindowsPath(name, m_pasteBasePath);
    if (file.size == 0)
        return; // complete as it is; finished in its turn
    qCInfo(lcEngine).noquote().nospace() << "self.pasteBasePath:" << m_pasteBasePath << ' ' << m_pasteBasePath;
    qCInfo(lcEngine).noquote().nospace() << "windows转到mac的存储路径为:"
                                         << QUrl::fromLocalFile(file.localPath).toString(QUrl::FullyEncoded);
    file.chunks = file.size / kx::wire::chunkSize + (file.size % kx::wire::chunkSize ? 1 : 0);
    qCInfo(lcEngine).noquote().nospace() << "总chunks:" << file.chunks;
    sendContentRequest(index);
}

void PasteSession::sendContentRequest(std::size_t index)
{
    FileTask &file = m_files[index];
    qCInfo(lcEngine).noquote() << "sendContentRequest";
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << file.listIndex;
    file.streamId = pipelined() ? nextStreamId() : makeStreamId();
    qCInfo(lcEngine).noquote().nospace() << "获取的streamid:" << file.streamId;
    sendQuery(file.streamId, Query{index, true, 0, kx::wire::sizeQueryLength}, sizeQuerySent);
}

// The next range of the earliest file that has one to ask for: first what a short reply
// left out, then the bytes not asked for yet.
bool PasteSession::requestNextRange()
{
    for (std::size_t index = m_head; index < m_next; ++index) {
        FileTask &file = m_files[index];
        if (!file.sized)
            continue;
        Query query{index};
        if (!file.gaps.empty()) {
            std::tie(query.offset, query.length) = file.gaps.front();
            file.gaps.erase(file.gaps.begin());
        } else if (file.requested < file.size) {
            // One at a time, every range asks for a whole chunk, the last one included.
            const std::uint64_t left = file.size - file.requested;
            query.offset = file.requested;
            query.length = pipelined() ? std::uint32_t(std::min<std::uint64_t>(kx::wire::chunkSize, left))
                                       : kx::wire::chunkSize;
            file.requested += std::min<std::uint64_t>(kx::wire::chunkSize, left);
        } else {
            continue;
        }
        sendQuery(pipelined() ? nextStreamId() : file.streamId, query, rangeQuerySent);
        return true;
    }
    return false;
}

void PasteSession::sendQuery(std::uint32_t streamId, const Query &query, const char *completionText)
{
    const FileTask &file = m_files[query.file];
    Query &sent = m_outstanding[streamId] = query;
    sent.serial = ++m_querySerial;
    sent.waiting = false;
    const std::uint32_t flags = query.sizeQuery ? kx::wire::sizeQueryFlag : kx::wire::rangeQueryFlag;
    m_engine.send(kx::makeContentsQuery(streamId, std::uint32_t(file.listIndex), flags, query.offset, query.length),
                  FrameType::fileContentsRequest, completionText);
}

void PasteSession::handleContentResponse(const FileSDK::CliprdrFileContentsResponse &reply)
{
    const auto found = m_outstanding.find(reply.streamid());
    if (found == m_outstanding.end()) {
        qCInfo(lcEngine).noquote().nospace() << "ignored a reply of stream " << reply.streamid()
                                             << ", which no query outstanding carries";
        return;
    }
    const Query query = found->second;
    FileTask &file = m_files[query.file];
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << file.listIndex;
    if (query.sizeQuery) {
        // The size reply's bytes are not read: the descriptor list has told the size.
        m_outstanding.erase(found);
        file.sized = true;
    } else if (reply.cbrequested() == 0 || reply.requesteddata().empty()) {
        if (!query.waiting) {
            found->second.waiting = true;
            scheduleRangeRetry(found->first, query.serial);
        }
        return;
    } else {
        m_outstanding.erase(found);
        saveContentData(file, query, reply);
    }
    pump();
}

// An empty reply: the same range is asked for again after a wait, on a timer so that the
// connection and the user are served meanwhile, whatever the status then (a new remote
// copy does not stop the download), as long as the query is still the one waiting.
void PasteSession::scheduleRangeRetry(std::uint32_t streamId, std::uint64_t serial)
{
    QTimer::singleShot(retryWaitMs, this, [this, streamId, serial] {
        const auto found = m_outstanding.find(streamId);
        if (m_stopped || found == m_outstanding.end() || found->second.serial != serial)
            return;
        // Stop pressed during the wait: no reply is outstanding to end the paste, so the
        // repeat that would have drawn one ends it now.
        if (m_engine.pasteStatus() == ClipBoardManager::PasteStatus::cancel) {
            m_engine.endPaste(PastedError::cancelDownload);
            return;
        }
        sendQuery(streamId, found->second, rangeRetrySent);
    });
}

void PasteSession::saveContentData(FileTask &file, const Query &query, const FileSDK::CliprdrFileContentsResponse &reply)
{
    const std::string &bytes = reply.requesteddata();
    const std::uint64_t size = bytes.size();
    // A reply never writes more than its own query asked for, nor past the announced size.
    const std::uint64_t expected = std::min<std::uint64_t>(query.length, file.size - query.offset);
    if (size > expected) {
        qCInfo(lcEngine).noquote().nospace() << "a reply of " << size << " bytes where at most " << expected
                                             << " were asked for; the paste ends";
        m_engine.endPaste(PastedError::unKonwnError);
        return;
    }
    qCInfo(lcEngine).noquote().nospace() << "downloadCurrentIndex:" << file.downloadCurrentIndex << "chunks:" << file.chunks;
    qCInfo(lcEngine).noquote().nospace() << "这一次存储downloadOffset:" << query.offset;
    qCInfo(lcEngine).noquote().nospace() << "这一次写入数据大小:" << size << " bytes";
    if (!file.out->writeDateOffSet(query.offset, QByteArray::fromRawData(bytes.data(), qsizetype(size)))) {
        qCInfo(lcEngine).noquote().nospace() << "writing at " << query.offset << " failed";
        m_engine.failSave();
        return;
    }
    const std::uint64_t end = query.offset + size;
    qCInfo(lcEngine).noquote().nospace() << "将要请求的deoffset:" << end;
    qCInfo(lcEngine).noquote().nospace() << "Low Value: " << kx::lowHalf(end) << " High Value: " << kx::highHalf(end);
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << file.listIndex;
    ++file.downloadCurrentIndex;
    file.saved += size;
    m_alreadySavedTotalSize += size;
    if (size < expected) {
        // A short reply: no gap is ever left in a file.
        if (pipelined())
            file.gaps.emplace_back(end, std::uint32_t(expected - size));
        else
            file.requested = end;
    }
    struct stat written {};
    if (::fstat(file.out->writeDescriptor(), &written) != 0 || written.st_nlink == 0) {
        qCInfo(lcEngine).noquote().nospace() << "the file being written has disappeared: " << file.localPath;
        m_engine.failSave();
        return;
    }
    const std::uint64_t savedSize = m_engine.m_context.files.fileSizeAtPath(file.localPath);
    qCInfo(lcEngine).noquote().nospace() << "当前已经存储了" << savedSize << "大小";
    m_engine.reportProgress(double(m_alreadySavedTotalSize) / double(m_downloadTotalSize));
    qCInfo(lcEngine).noquote().nospace() << "已经存储的总大小：" << m_alreadySavedTotalSize
                                         << "文件总大小：" << m_downloadTotalSize;
    if (file.saved == file.size)
        qCInfo(lcEngine).noquote() << "这个文件大小正确下载完成了";
}

void PasteSession::finishCurrentFile(FileTask &file)
{
    const FileSDK::FileDescriptorw &d = descriptor(file);
    if ((d.dwflags() & kx::wire::writeTimeFlag) && !setModificationTime(file.out->writeDescriptor(), d))
        qCInfo(lcEngine).noquote().nospace() << "could not set the modification time of " << file.localPath;
    file.out.reset(); // closes the file
    file.gaps.clear();
}

// After the last file, when nothing more is written into them: a folder's time would
// move again with every file made inside it.
void PasteSession::setFolderTimes()
{
    for (const FileSDK::FileDescriptorw &d : m_originFileDescriptorwList) {
        if (!isFolder(d) || !(d.dwflags() & kx::wire::writeTimeFlag))
            continue;
        const UniqueFd folder = KXFileStreamOperation::openFolderBeneath(
            m_pasteBasePath, kx::remoteComponents(QString::fromStdString(d.cfilename())));
        if (folder.valid())
            setModificationTime(folder.get(), d);
    }
}

void PasteSession::stop()
{
    m_stopped = true;
    for (FileTask &file : m_files)
        file.out.reset();
}

std::uint32_t PasteSession::nextStreamId()
{
    while (m_outstanding.count(m_streamCounter))
        ++m_streamCounter;
    return m_streamCounter++;
}

std::uint32_t PasteSession::makeStreamId()
{
    return QRandomGenerator::global()->bounded(10u);
}
