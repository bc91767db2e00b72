#include "ClipBoardManager.h"

#include "EngineLog.h"
#include "Frame.h"
#include "FrameSink.h"
#include "KXFileManager.h"
#include "FilesSize.h"
#include "LogText.h"
#include "Messages.h"
#include "PasteboardAccess.h"
#include "SendFrame.h"
#include "SocketManager.h"
#include "Wire.h"
#include "paste/PasteSession.h"

#include <QFileInfo>

Q_LOGGING_CATEGORY(lcEngine, "kx.engine")

namespace {

bool offersFiles(const std::optional<FileSDK::CliprdrFormatList> &list)
{
    return list && std::any_of(list->formats().begin(), list->formats().end(), [](const FileSDK::CliprdrFormat &format) {
        return format.formatname() == kx::wire::descriptorFormatName;
    });
}

} // namespace

EngineContext EngineContext::shared(PasteboardAccess &pasteboard)
{
    return EngineContext{*SocketManager::shared(), *KXFileManager::shared(), pasteboard};
}

ClipBoardManager::ClipBoardManager(const QString &ip, const QString &port, const QString &token,
                                   const QString &cid, EngineContext context, int window, QObject *parent)
    : QObject(parent)
    , m_context(context)
    , m_window(std::clamp(window, 1, maxWindow))
    , m_copy(context.connection, context.files)
{
    Q_UNUSED(cid); // accepted with the other launch values; the agent does not ask for it
    m_urlText = ip + QLatin1Char(':') + port + QLatin1Char('/') + token;
    qCInfo(lcEngine).noquote().nospace() << "开始连接url:" << ip << ':' << port << '/' << kx::maskedSecret(token);
    m_context.connection.connect(m_urlText);
    m_context.connection.setDelegate(this);
    m_pasteStatus = PasteStatus::start;
    m_context.files.setDelegate(this);
    m_listTimer = new QTimer(this);
    m_listTimer->setSingleShot(true);
    m_listTimer->setInterval(m_replyTimeoutMs);
    connect(m_listTimer, &QTimer::timeout, this, &ClipBoardManager::listTimedOut);
    m_copy.sendingChanged = [this](const CopySending &sending) { emit copySending(sending); };
}

// The connection and the file manager hold this engine through a QPointer: once it is
// gone they call nobody, so nothing needs to be unhooked here.
ClipBoardManager::~ClipBoardManager() = default;

void ClipBoardManager::send(const google::protobuf::MessageLite &message, FrameType type,
                            const char *completionText)
{
    kx::sendFrame(m_context.connection, message, type, completionText);
}

void ClipBoardManager::setReplyTimeout(int ms)
{
    m_replyTimeoutMs = ms;
    m_listTimer->setInterval(ms);
    if (m_paste)
        m_paste->setReplyTimeout(ms);
}

void ClipBoardManager::socketDidConnect()
{
    qCInfo(lcEngine).noquote() << "websoket connect success";
    emit connectionChanged(true);
    const QByteArray frame = kx::clientTypeFrame();
    qCInfo(lcEngine).noquote().nospace() << "data.count:" << frame.size();
    if (m_context.connection.isConnected())
        m_context.connection.write(frame, [] { qCInfo(lcEngine).noquote() << "send clienType success"; });
}

void ClipBoardManager::socketDidDisconnect()
{
    qCInfo(lcEngine).noquote() << "wewebsoketbsoket connect fail,重连websoket";
    // Only a paste that runs hears of it: with nothing asked for, a lost connection is
    // no error of the user's. The transfer dies with the connection, so a stray reply
    // that comes later finds no file of it to write or to end.
    endPendingPaste(PastedError::websoketDisconnect, PasteReport::Why::connectionLost);
    endRunningPaste(PastedError::websoketDisconnect, PasteReport::Why::connectionLost);
    m_listRequests.clear();
    m_comparisonsAwaited = 0;
    m_listTimer->stop();
    if (m_files)
        m_files->connectionLost();
    setFormList(std::nullopt);
    m_pasteStatus = PasteStatus::complete;
    m_staleStreams.clear(); // nothing of the old connection comes any more
    m_context.connection.reconnect();
    m_copy.connectionLost();
    emit connectionChanged(false);
}

void ClipBoardManager::socketDidReceive(const QByteArray &data)
{
    kx::dispatchFrame(data, *this);
}

void ClipBoardManager::socketDidReceive(const QString &text)
{
    Q_UNUSED(text);
    qCInfo(lcEngine).noquote() << "收到字符串数据";
}

void ClipBoardManager::socketDidDrain()
{
    m_copy.drained();
}

// Ctrl+V: a paste of the remote copy on offer, unless one already waits for its list or
// its folder. A download that runs goes on until the new paste has its folder.
void ClipBoardManager::startPaste(ProgressCallback progress, CompletionCallback completion)
{
    if (!m_formList || m_pending || (m_paste && m_paste->asking()))
        return;
    sendFormatDataRequest(std::move(progress), std::move(completion));
}

void ClipBoardManager::setPasteStatus(PasteStatus status)
{
    if (status != PasteStatus::cancel) {
        m_pasteStatus = status;
        return;
    }
    // Stop: the download that runs ends now, or else the paste that waits for its list.
    // Nothing that comes later can undo it.
    if (pasteRunning())
        endRunningPaste(PastedError::cancelDownload, PasteReport::Why::stopped);
    else if (m_pending && !m_pending->choosing)
        endPendingPaste(PastedError::cancelDownload, PasteReport::Why::stopped);
}

// The remote files served back as files are never offered to the remote side, however
// their paths are written: reading them would wait on ourselves.
void ClipBoardManager::copiedFiles(const QList<QUrl> &urls)
{
    QList<QUrl> offered;
    for (const QUrl &url : urls) {
        if (!m_files || !m_files->isUnderMount(url))
            offered.append(url);
        else
            qCInfo(lcEngine).noquote().nospace() << "Skipping " << kx::escapedName(url.toLocalFile())
                                                 << ": one of the remote files themselves";
    }
    if (offered.isEmpty() && !urls.isEmpty()) {
        qCInfo(lcEngine).noquote() << "a local copy of the remote files themselves is not offered back";
        return;
    }
    m_copy.setMountDevice(m_files ? m_files->mountDevice() : 0);
    m_copy.copiedFiles(offered);
}

void ClipBoardManager::handleDataRequest(const QByteArray &payload)
{
    m_copy.handleDataRequest(payload);
}

void ClipBoardManager::handleContentRequest(const QByteArray &payload)
{
    m_copy.handleContentRequest(payload);
}

void ClipBoardManager::handleFormListRespose(const QByteArray &payload)
{
    m_context.pasteboard.clearContents();
    m_pasteStatus = PasteStatus::start;
    setFormList(kx::parseMessage<FileSDK::CliprdrFormatList>(payload));
    qCInfo(lcEngine).noquote() << "windwos 按下 ctrol+ c handleFormListRespose";
    // Queries name no copy: from now on the remote side answers from its newer files. A copy
    // of text leaves them as they were.
    const bool newerFiles = offersFiles(m_formList);
    if (newerFiles)
        emit remoteFilesAnnounced();
    m_copySerial += newerFiles;
    const bool older = pasteRunning() || m_pending || (servesFiles() && m_files->copies() > 0);
    if (newerFiles && older)
        holdForComparison();
    if (servesFiles()) {
        m_files->retireCopy();
        if (newerFiles) // laid out as files at once: the file manager pastes them
            requestList(forFiles | (older ? unsigned(forComparison) : 0u));
    } else if (newerFiles && older) {
        requestList(forComparison);
    }
}

void ClipBoardManager::holdForComparison()
{
    if (m_comparisonsAwaited++ == 0)
        qCInfo(lcEngine).noquote() << "the remote side copied something else while files of its older copy are read; "
                                      "its new file list tells which of them are still the same";
    if (pasteRunning())
        m_paste->setHeld(true);
    if (m_files)
        m_files->setHeld(true);
}

void ClipBoardManager::compareWith(const DescriptorList *newer)
{
    if (pasteRunning())
        m_paste->compareWith(newer);
    if (m_pending && m_pending->choosing && !m_pending->changed) {
        for (std::size_t i = 0; i < m_pending->list.size() && !m_pending->changed; ++i)
            m_pending->changed = !newer || !m_pending->list.sameEntry(i, *newer);
    }
    if (m_files)
        m_files->compareWith(newer);
    if (m_comparisonsAwaited > 0 && --m_comparisonsAwaited == 0) {
        if (pasteRunning())
            m_paste->setHeld(false);
        if (m_files)
            m_files->setHeld(false);
    }
}

// Whether files are on offer for a paste: a remote copy with the file list format, and
// no paste of it under way. A newer copy replaces the older; the same copy can be pasted
// again once a paste of it has ended.
void ClipBoardManager::setFormList(std::optional<FileSDK::CliprdrFormatList> list)
{
    m_formList = std::move(list);
    const bool offered = offersFiles(m_formList);
    emit offerChanged(RemoteOffer{offered, std::nullopt});
    if (offered || offered != m_filesOffered) // every new copy with files is news
        emit filesOffered(m_filesOffered = offered);
}

// A paste has ended: the same remote copy can be pasted again.
void ClipBoardManager::offerAgain()
{
    if (offersFiles(m_formList) && !m_filesOffered)
        emit filesOffered(m_filesOffered = true);
}

void ClipBoardManager::sendFormatDataRequest(ProgressCallback progress, CompletionCallback completion)
{
    m_pasteStatus = PasteStatus::pasting;
    m_pending.emplace();
    m_pending->progress = std::move(progress);
    m_pending->completion = std::move(completion);
    m_pending->copy = m_copySerial;
    if (m_filesOffered)
        emit filesOffered(m_filesOffered = false); // the paste has started
    requestList(forPaste);
}

// Each list asked for must come within the time-out, the file system's as a paste's: lists
// are told apart only by their order, and one that never comes would shift every later one.
void ClipBoardManager::requestList(unsigned use)
{
    if (m_listRequests.empty())
        m_listTimer->start();
    m_listRequests.push_back(use);
    std::uint32_t formatId = 0;
    for (const FileSDK::CliprdrFormat &format : m_formList->formats()) {
        if (format.formatname() == kx::wire::descriptorFormatName)
            formatId = format.formatid();
    }
    FileSDK::CliprdrFormatDataRequest request;
    *request.mutable_header() = m_formList->header();
    request.set_requestedformatid(formatId);
    send(request, FrameType::formatDataRequest,
         use & forPaste  ? "向widows发送control + v成功"
         : use & forFiles ? "asked for the remote copy's file list, to serve it as files"
                          : "asked for the remote copy's file list, to compare it with the older one's");
}

void ClipBoardManager::handleFormatDataResponse(const QByteArray &payload)
{
    // Lists come in the order they were asked for.
    const unsigned use = m_listRequests.empty() ? forPaste : m_listRequests.front();
    if (!m_listRequests.empty())
        m_listRequests.pop_front();
    if (m_listRequests.empty())
        m_listTimer->stop();
    else
        m_listTimer->start(); // the next one's turn
    if (use & (forFiles | forComparison)) {
        DescriptorList list;
        const DescriptorList::Scan scan = DescriptorList::scan(payload, list);
        if (use & forComparison)
            compareWith(scan == DescriptorList::Scan::ok ? &list : nullptr);
        if (!(use & forFiles))
            return;
        if (scan != DescriptorList::Scan::ok)
            return logRefusedList(scan, "served as files");
        return takeListForFiles(std::move(list), payload);
    }
    // Only the paste that asked for a list takes one: a list nobody asked for opens no
    // chooser, and a second one while the chooser is open does not replace the first.
    if (!m_pending || m_pending->choosing) {
        qCInfo(lcEngine).noquote() << "a descriptor list that no paste asked for; ignored";
        return;
    }
    const DescriptorList::Scan scan = DescriptorList::scan(payload, m_pending->list);
    if (scan != DescriptorList::Scan::ok) {
        logRefusedList(scan, "pasted");
        endPendingPaste(PastedError::unKonwnError, scan == DescriptorList::Scan::tooLong ? PasteReport::Why::tooManyFiles
                                                                                        : PasteReport::Why::unreadable);
        return;
    }
    qCInfo(lcEngine).noquote() << "收到windows->mac,准备让用户选择下载路径";
    m_pending->choosing = true;
    const PasteContents contents{m_pending->list.size(), kx::filesSize(payload)};
    emit offerChanged(RemoteOffer{true, contents});
    m_context.files.chooseDestinationFolder(contents);
}

void ClipBoardManager::folderChosen(const QUrl &url)
{
    // The chooser runs a nested event loop: the connection may have been lost meanwhile,
    // and with it the paste the chooser was opened for.
    if (!m_pending || !m_pending->choosing) {
        qCInfo(lcEngine).noquote() << "paste ended while the folder was being chosen; nothing is downloaded";
        return;
    }
    if (m_files && m_files->isUnderMount(url)) {
        qCInfo(lcEngine).noquote() << "the chosen folder holds the remote files themselves; nothing is pasted there";
        return endPendingPaste(PastedError::saveError, PasteReport::Why::insideRemoteFiles, url.toLocalFile());
    }
    if (m_pending->changed) {
        qCInfo(lcEngine).noquote() << "the remote side copied something else while the folder was being chosen; "
                                      "nothing is downloaded";
        return endPendingPaste(PastedError::cancelDownload, PasteReport::Why::remoteCopyChanged);
    }
    startDownload(url);
}

void ClipBoardManager::folderChoiceCancelled()
{
    if (!m_pending || !m_pending->choosing)
        return;
    m_pending.reset();
    m_pasteStatus = pasteRunning() ? PasteStatus::downloading : PasteStatus::complete;
    offerAgain();
}

void ClipBoardManager::startDownload(const QUrl &url)
{
    PendingPaste pending = std::move(*m_pending);
    m_pending.reset();
    // One paste at a time: one that still runs ends as Stop would end it, told to its own
    // callbacks, before the new one starts.
    endRunningPaste(PastedError::cancelDownload, PasteReport::Why::replaced);
    // The chosen folder may itself be a link; it is resolved once, here. Beneath it no
    // link is ever followed.
    const QString chosen = url.toLocalFile();
    const QString canonical = QFileInfo(chosen).canonicalFilePath();
    m_pasteStatus = PasteStatus::downloading;
    m_pasteCopy = pending.copy;
    m_paste = std::make_unique<PasteSession>(*this, canonical.isEmpty() ? chosen : canonical, std::move(pending.list),
                                             std::move(pending.progress), std::move(pending.completion));
    m_paste->setHeld(m_comparisonsAwaited > 0);
    m_paste->start();
}

void ClipBoardManager::handleContentResponse(const QByteArray &payload)
{
    if (!pasteRunning() && m_staleStreams.empty() && !m_files)
        return;
    const auto reply = kx::parseMessage<FileSDK::CliprdrFileContentsResponse>(payload);
    if (reply && m_files && m_files->handleReply(*reply))
        return;
    if (reply && m_staleStreams.erase(reply->streamid())) {
        qCInfo(lcEngine).noquote().nospace() << "ignored a late reply of stream " << reply->streamid()
                                             << ", from a paste that has ended";
        return;
    }
    if (!pasteRunning())
        return;
    if (!reply) {
        qCInfo(lcEngine).noquote() << "a file contents reply could not be decoded; the paste ends";
        endRunningPaste(PastedError::unKonwnError, PasteReport::Why::unreadable);
        return;
    }
    m_paste->handleContentResponse(*reply);
}

void ClipBoardManager::logRefusedList(DescriptorList::Scan scan, const char *what)
{
    qCInfo(lcEngine).noquote().nospace()
        << (scan == DescriptorList::Scan::tooLong
                ? QStringLiteral("the remote copy has more than %1 entries; it is not %2").arg(DescriptorList::maxEntries).arg(QLatin1String(what))
                : QStringLiteral("the remote copy could not be read: its file list does not decode"));
}

void ClipBoardManager::takeListForFiles(DescriptorList list, const QByteArray &payload)
{
    if (!servesFiles())
        return;
    emit offerChanged(RemoteOffer{true, PasteContents{list.size(), kx::filesSize(payload)}});
    m_files->addCopy(std::move(list));
}

RemoteFiles &ClipBoardManager::remoteFiles()
{
    if (!m_files) {
        auto send = [this](std::uint32_t streamId, std::uint32_t listIndex, std::uint64_t offset, std::uint32_t length) {
            if (m_context.connection.isConnected())
                m_context.connection.write(kx::encodeFrame(kx::makeContentsQuery(streamId, listIndex, kx::wire::rangeQueryFlag,
                                                                                 offset, length),
                                                           FrameType::fileContentsRequest),
                                           {});
        };
        m_files = std::make_unique<RemoteFiles>(m_window, send);
        connect(m_files.get(), &RemoteFiles::copyReady, this,
                [this](const QList<QUrl> &urls) { m_context.pasteboard.offerFiles(urls); });
        connect(m_files.get(), &RemoteFiles::copiesGone, this, [this] { m_context.pasteboard.withdrawFiles(); });
    }
    return *m_files;
}

PasteFigures ClipBoardManager::pasteFigures() const
{
    return m_paste ? m_paste->figures() : PasteFigures();
}

ClipBoardManager::RunningPaste ClipBoardManager::runningPaste() const
{
    if (!pasteRunning())
        return RunningPaste::none;
    return m_pasteCopy == m_copySerial ? RunningPaste::sameCopy : RunningPaste::olderCopy;
}

bool ClipBoardManager::pasteRunning() const
{
    return m_paste && m_paste->running();
}

void ClipBoardManager::endPendingPaste(PastedError error, PasteReport::Why why, const QString &folder)
{
    if (!m_pending)
        return;
    m_lastReport = PasteReport();
    m_lastReport.why = why, m_lastReport.file = folder;
    const CompletionCallback completion = std::move(m_pending->completion);
    m_pending.reset();
    m_pasteStatus = pasteRunning() ? PasteStatus::downloading : PasteStatus::complete;
    if (completion)
        completion(false, error);
    offerAgain();
}

void ClipBoardManager::endRunningPaste(PastedError error, PasteReport::Why why)
{
    if (pasteRunning())
        m_paste->end(false, error, why);
}

// A list that never came: none of those still asked for is waited for any more, so that a
// later one is not taken for another's.
void ClipBoardManager::listTimedOut()
{
    const bool comparing = std::any_of(m_listRequests.begin(), m_listRequests.end(),
                                       [](unsigned use) { return use & forComparison; });
    m_listRequests.clear();
    if (comparing) { // what older copies hold can no longer be told apart from the newer
        m_comparisonsAwaited = 1;
        compareWith(nullptr);
    }
    if (!m_pending || m_pending->choosing) {
        qCInfo(lcEngine).noquote().nospace() << "the remote side has not sent the file list asked for in "
                                             << QString::number(m_replyTimeoutMs / 1000.0) << " seconds; it is not waited for";
        return;
    }
    qCInfo(lcEngine).noquote().nospace() << "the remote side has not answered for "
                                         << QString::number(m_replyTimeoutMs / 1000.0) << " seconds; the paste ends";
    endPendingPaste(PastedError::websoketDisconnect, PasteReport::Why::noAnswer);
}

void ClipBoardManager::pasteEnded(PasteSession &session)
{
    Q_UNUSED(session);
    m_pasteStatus = m_pending ? PasteStatus::pasting : PasteStatus::complete;
    if (!m_pending)
        offerAgain();
}
