// Remote-to-local paste: format list, descriptor list, folder chooser, then per file a
// size query and range queries of one chunk each, written at their offsets.
#include "ClipBoardManager.h"

#include "KXFileManager.h"
#include "Messages.h"
#include "PasteboardAccess.h"
#include "RemotePathGuard.h"

#include <QFileInfo>
#include <QLoggingCategory>
#include <QMutexLocker>
#include <QRandomGenerator>
#include <QTimer>

Q_DECLARE_LOGGING_CATEGORY(lcEngine)

namespace {

constexpr std::uint32_t sizeQueryFlag = 1;
constexpr std::uint32_t rangeQueryFlag = 2;
constexpr std::uint32_t sizeQueryLength = 8;
constexpr std::uint32_t folderAttributes = 0x10;
constexpr std::uint32_t folderAttributesNotIndexed = 0x2010;

const char *const sizeQuerySent = "send requestContentRequestType success";
const char *const rangeQuerySent = "send requestContentRequestType2 success";
const char *const rangeRetrySent = "send requestContentRequestType3 success";

} // namespace

void ClipBoardManager::handleFormListRespose(const QByteArray &payload)
{
    if (m_pasteboard)
        m_pasteboard->clearContents();
    m_pasteStatus = PasteStatus::start;
    m_formList = kx::parseMessage<FileSDK::CliprdrFormatList>(payload);
    qCInfo(lcEngine).noquote() << "windwos 按下 ctrol+ c handleFormListRespose";
}

void ClipBoardManager::sendFormatDataRequest()
{
    m_pasteStatus = PasteStatus::pasting;
    std::uint32_t formatId = 0;
    for (const FileSDK::CliprdrFormat &format : m_formList->formats()) {
        if (format.formatname() == "FileGroupDescriptorW")
            formatId = format.formatid();
    }
    FileSDK::CliprdrFormatDataRequest request;
    *request.mutable_header() = m_formList->header();
    request.set_requestedformatid(formatId);
    send(request, FrameType::formatDataRequest, "向widows发送control + v成功");
}

void ClipBoardManager::handleFormatDataResponse(const QByteArray &payload)
{
    // The chooser runs a nested event loop; a second list meanwhile must not open a
    // second chooser or replace the list the user is choosing a folder for.
    if (m_choosingFolder) {
        qCInfo(lcEngine).noquote() << "a descriptor list arrived while the folder chooser is open; ignored";
        return;
    }
    m_pasteBasePath.clear();
    m_formatDataResponse = kx::parseMessage<FileSDK::MacCliprdrFormatDataResponse>(payload);
    if (!m_formatDataResponse)
        return;
    qCInfo(lcEngine).noquote() << "收到windows->mac,准备让用户选择下载路径";
    m_choosingFolder = true;
    m_chooserPasteSerial = m_pasteSerial;
    KXFileManager::shared()->chooseDestinationFolder();
    m_choosingFolder = false;
}

void ClipBoardManager::startDownload(const QUrl &url)
{
    resetFileState();
    m_pasteBasePath = url.toLocalFile();
    m_pasteStatus = PasteStatus::downloading;
    m_originFileDescriptorwList.clear();
    m_downloadQueue.clear();
    static const FileSDK::MacCliprdrFormatDataResponse noList;
    const auto &descriptors = (m_formatDataResponse ? *m_formatDataResponse : noList).filedes();
    m_originFileDescriptorwList.reserve(descriptors.size());
    m_downloadQueue.reserve(descriptors.size());
    for (int i = 0; i < descriptors.size(); ++i) {
        m_originFileDescriptorwList.append(descriptors.Get(i));
        m_downloadQueue.append(QueuedFile{descriptors.Get(i), std::uint32_t(i)});
    }
    removeFolderEntries();
    computeDownloadTotals();
    qCInfo(lcEngine).noquote().nospace() << "需要下载的文件总个数:" << m_downloadQueue.size();
    advanceDownload(false);
}

void ClipBoardManager::removeFolderEntries()
{
    // Only these two exact values are folders; the folders of a file's path are made
    // when the file is opened, and an empty remote folder is not created.
    m_downloadQueue.removeIf([](const QueuedFile &file) {
        const std::uint32_t attributes = file.descriptor.dwfileattributes();
        return attributes == folderAttributes || attributes == folderAttributesNotIndexed;
    });
}

void ClipBoardManager::computeDownloadTotals()
{
    m_downloadTotalSize = 0;
    m_alreadySavedTotalSize = 0;
    for (const QueuedFile &file : std::as_const(m_downloadQueue)) {
        const std::uint64_t size = kx::descriptorSize(file.descriptor);
        qCInfo(lcEngine).noquote().nospace() << "此文件大小:" << size;
        m_downloadTotalSize += size;
    }
    qCInfo(lcEngine).noquote().nospace() << "下载文件总大小：" << m_downloadTotalSize;
}

// The download loop, iterative so that a long run of empty files cannot exhaust the stack.
void ClipBoardManager::advanceDownload(bool fileJustFinished)
{
    for (;;) {
        qCInfo(lcEngine).noquote() << "开始启动下载loop";
        if (m_downloadQueue.isEmpty()) {
            m_currentDescriptorw.reset();
            m_pasteStatus = PasteStatus::complete;
            m_originFileDescriptorwList.clear();
            qCInfo(lcEngine).noquote() << "所有文件下载完成";
            if (fileJustFinished)
                finishPaste();
            return;
        }
        m_currentDescriptorw = m_downloadQueue.first();
        qCInfo(lcEngine).noquote().nospace() << "正在下载的文件名：self.currentDescriptorw!.cFileName:"
                                             << QString::fromStdString(m_currentDescriptorw->descriptor.cfilename());
        if (startCurrentFile() != FileStart::empty)
            return;
        finishCurrentFile();
        fileJustFinished = true;
    }
}

ClipBoardManager::FileStart ClipBoardManager::startCurrentFile()
{
    qCInfo(lcEngine).noquote().nospace() << "将要存储的目录是:" << m_pasteBasePath;
    const QString name = QString::fromStdString(m_currentDescriptorw->descriptor.cfilename());
    const std::uint64_t size = kx::descriptorSize(m_currentDescriptorw->descriptor);
    if (!kx::isContainedRemotePath(name)) {
        qCInfo(lcEngine).noquote().nospace() << "refused a remote name outside the chosen folder: " << name;
        failSave();
        return FileStart::failed;
    }
    m_fileStreamer = KXFileStreamOperation::initFileOperationAtPath(name, true, m_pasteBasePath);
    qCInfo(lcEngine).noquote().nospace() << "文件总大小resultValue:" << size;
    if (!m_fileStreamer) {
        failSave();
        return FileStart::failed;
    }
    if (size == 0)
        return FileStart::empty;

    const QString localPath = m_fileStreamer->getMacPathFromWindowsPath(name, m_pasteBasePath);
    qCInfo(lcEngine).noquote().nospace() << "self.pasteBasePath:" << m_pasteBasePath << ' ' << m_pasteBasePath;
    m_pastePathUrl = QUrl::fromLocalFile(localPath);
    qCInfo(lcEngine).noquote().nospace() << "windows转到mac的存储路径为:" << m_pastePathUrl->toString(QUrl::FullyEncoded);
    m_chunks = size / chunkSize + (size % chunkSize ? 1 : 0);
    qCInfo(lcEngine).noquote().nospace() << "总chunks:" << m_chunks;
    sendContentRequest();
    return FileStart::requested;
}

QString ClipBoardManager::currentFileName() const
{
    return m_currentDescriptorw ? QString::fromStdString(m_currentDescriptorw->descriptor.cfilename()) : QString();
}

std::uint32_t ClipBoardManager::descriptorListIndex() const
{
    return m_currentDescriptorw ? m_currentDescriptorw->listIndex : 0;
}

std::uint32_t ClipBoardManager::makeStreamId()
{
    return QRandomGenerator::global()->bounded(10u);
}

void ClipBoardManager::sendContentRequest()
{
    m_contentType = RequestContentType::queryItemSize;
    if (!m_currentDescriptorw)
        return;
    qCInfo(lcEngine).noquote() << "sendContentRequest";
    const std::uint32_t listIndex = descriptorListIndex();
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << listIndex;
    m_streamId = makeStreamId();
    qCInfo(lcEngine).noquote().nospace() << "获取的streamid:" << m_streamId;
    FileSDK::CliprdrFileContentsRequest request;
    request.set_streamid(m_streamId);
    request.set_listindex(listIndex);
    request.set_dwflags(sizeQueryFlag);
    request.set_cbrequested(sizeQueryLength);
    ++m_requestSerial;
    send(request, FrameType::fileContentsRequest, sizeQuerySent);
}

void ClipBoardManager::sendRangeQuery(const char *completionText)
{
    FileSDK::CliprdrFileContentsRequest request;
    request.set_streamid(m_streamId);
    request.set_listindex(descriptorListIndex());
    request.set_dwflags(rangeQueryFlag);
    request.set_npositionlow(std::uint32_t(m_downloadOffset & 0xffffffffu));
    request.set_npositionhigh(std::uint32_t(m_downloadOffset >> 32));
    request.set_cbrequested(std::uint32_t(chunkSize));
    m_contentType = RequestContentType::queryItemFlags;
    ++m_requestSerial;
    send(request, FrameType::fileContentsRequest, completionText);
}

void ClipBoardManager::handleContentResponse(const QByteArray &payload)
{
    if (!m_currentDescriptorw)
        return;
    if (m_pasteStatus == PasteStatus::cancel) {
        endPaste(PastedError::cancelDownload);
        return;
    }
    const auto reply = kx::parseMessage<FileSDK::CliprdrFileContentsResponse>(payload);
    if (!reply) {
        qCInfo(lcEngine).noquote() << "a file contents reply could not be decoded; the paste ends";
        endPaste(PastedError::unKonwnError);
        return;
    }
    const std::uint32_t listIndex = descriptorListIndex();
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << listIndex;
    if (m_contentType != RequestContentType::queryDefault && reply->streamid() != m_streamId) {
        qCInfo(lcEngine).noquote().nospace() << "ignored a reply of stream " << reply->streamid()
                                             << " while stream " << m_streamId << " is current";
        return;
    }
    switch (m_contentType) {
    case RequestContentType::queryDefault:
        return;
    case RequestContentType::queryItemSize:
        m_downloadOffset = 0;
        sendRangeQuery(rangeQuerySent);
        return;
    case RequestContentType::queryItemFlags:
        if (reply->cbrequested() != 0 && !reply->requesteddata().empty()) {
            m_contentType = RequestContentType::queryDefault;
            saveContentData(*reply);
        } else {
            scheduleRangeRetry();
        }
        return;
    }
}

void ClipBoardManager::scheduleRangeRetry()
{
    // Waiting on a timer, not a sleep: the connection and the user stay served meanwhile.
    const std::uint64_t serial = m_requestSerial;
    QTimer::singleShot(retryWaitMs, this, [this, serial] {
        if (serial != m_requestSerial || !m_currentDescriptorw || m_contentType != RequestContentType::queryItemFlags)
            return;
        // Stop pressed during the wait: no reply is outstanding to end the paste, so the
        // repeat that would have drawn one ends it now.
        if (m_pasteStatus == PasteStatus::cancel) {
            endPaste(PastedError::cancelDownload);
            return;
        }
        if (m_pasteStatus == PasteStatus::downloading)
            sendRangeQuery(rangeRetrySent);
    });
}

void ClipBoardManager::saveContentData(const FileSDK::CliprdrFileContentsResponse &reply)
{
    if (m_pasteStatus == PasteStatus::cancel) {
        endPaste(PastedError::cancelDownload);
        return;
    }
    qCInfo(lcEngine).noquote().nospace() << "downloadCurrentIndex:" << m_downloadCurrentIndex << "chunks:" << m_chunks;
    const std::uint64_t size = kx::descriptorSize(m_currentDescriptorw->descriptor);
    // The next range always starts where the bytes written so far end, so a short reply
    // never leaves a gap in the file.
    qCInfo(lcEngine).noquote().nospace() << "这一次存储downloadOffset:" << m_downloadOffset;
    const QByteArray data = QByteArray::fromRawData(reply.requesteddata().data(), qsizetype(reply.requesteddata().size()));
    qCInfo(lcEngine).noquote().nospace() << "这一次写入数据大小:" << data.size() << " bytes";
    if (!m_fileStreamer || !m_fileStreamer->writeDateOffSet(m_downloadOffset, data)) {
        qCInfo(lcEngine).noquote().nospace() << "writing at " << m_downloadOffset << " failed";
        failSave();
        return;
    }
    m_downloadOffset += std::uint64_t(data.size());
    qCInfo(lcEngine).noquote().nospace() << "将要请求的deoffset:" << m_downloadOffset;
    qCInfo(lcEngine).noquote().nospace() << "Low Value: " << std::uint32_t(m_downloadOffset & 0xffffffffu)
                                         << " High Value: " << std::uint32_t(m_downloadOffset >> 32);
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << descriptorListIndex();
    m_contentType = RequestContentType::queryItemFlags;
    ++m_downloadCurrentIndex;

    const QString localPath = m_pastePathUrl ? m_pastePathUrl->toLocalFile() : QString();
    if (!localPath.isEmpty() && !QFileInfo::exists(localPath)) {
        qCInfo(lcEngine).noquote().nospace() << "the file being written has disappeared: " << localPath;
        failSave();
        return;
    }
    const std::uint64_t savedSize = KXFileManager::shared()->fileSizeAtPath(localPath);
    m_alreadySavedTotalSize += std::uint64_t(data.size());
    qCInfo(lcEngine).noquote().nospace() << "当前已经存储了" << savedSize << "大小";
    if (m_pastedProgressCallback)
        m_pastedProgressCallback(double(m_alreadySavedTotalSize) / double(m_downloadTotalSize));
    qCInfo(lcEngine).noquote().nospace() << "已经存储的总大小：" << m_alreadySavedTotalSize
                                         << "文件总大小：" << m_downloadTotalSize;
    if (savedSize >= size) {
        qCInfo(lcEngine).noquote() << "这个文件大小正确下载完成了";
        finishCurrentFile();
        advanceDownload(true);
        return;
    }
    sendRangeQuery(rangeQuerySent);
}

void ClipBoardManager::resetFileState()
{
    if (m_fileStreamer)
        m_fileStreamer->closeFile();
    m_fileStreamer.reset();
    m_chunks = 0;
    m_downloadOffset = 0;
    m_downloadCurrentIndex = 0;
    m_contentType = RequestContentType::queryDefault;
    ++m_requestSerial;
}

void ClipBoardManager::finishCurrentFile()
{
    resetFileState();
    {
        QMutexLocker locker(&m_lock);
        if (!m_downloadQueue.isEmpty())
            m_downloadQueue.removeFirst();
    }
}

void ClipBoardManager::finishPaste()
{
    if (ProgressCallback progress = std::move(m_pastedProgressCallback)) {
        m_pastedProgressCallback = nullptr;
        progress(1.0);
    }
    m_formList.reset();
    m_pasteStatus = PasteStatus::complete;
    ++m_pasteSerial;
    callCompletion(true, PastedError::noError);
}

// Ends the running paste by cancel or by an undecodable reply: the partly written file
// stays on disk, the next paste starts from its first chunk.
void ClipBoardManager::endPaste(PastedError error)
{
    callCompletion(false, error);
    m_formList.reset();
    m_pasteStatus = PasteStatus::complete;
    ++m_pasteSerial;
    resetFileState();
    m_currentDescriptorw.reset();
}

// A file that cannot be created or written stops the paste with saveError. The status
// stays downloading, as after any local save failure, until a new remote copy arrives.
void ClipBoardManager::failSave()
{
    callCompletion(false, PastedError::saveError);
    resetFileState();
    m_currentDescriptorw.reset();
    ++m_pasteSerial;
}
