#include "ClipBoardManager.h"

#include "EngineLog.h"
#include "Frame.h"
#include "FrameSink.h"
#include "KXFileManager.h"
#include "Messages.h"
#include "PasteboardAccess.h"
#include "SendFrame.h"
#include "SocketManager.h"
#include "Wire.h"
#include "paste/PasteSession.h"

#include <QFileInfo>

Q_LOGGING_CATEGORY(lcEngine, "kx.engine")

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
}

// The connection and the file manager hold this engine through a QPointer: once it is
// gone they call nobody, so nothing needs to be unhooked here.
ClipBoardManager::~ClipBoardManager() = default;

void ClipBoardManager::send(const google::protobuf::MessageLite &message, FrameType type,
                            const char *completionText)
{
    kx::sendFrame(m_context.connection, message, type, completionText);
}

void ClipBoardManager::callCompletion(bool success, PastedError error)
{
    // Cleared before the call: a callback that starts another paste must not be wiped.
    CompletionCallback completion = std::move(m_callback);
    m_callback = nullptr;
    if (completion)
        completion(success, error);
}

void ClipBoardManager::socketDidConnect()
{
    qCInfo(lcEngine).noquote() << "websoket connect success";
    const QByteArray frame = kx::clientTypeFrame();
    qCInfo(lcEngine).noquote().nospace() << "data.count:" << frame.size();
    if (m_context.connection.isConnected())
        m_context.connection.write(frame, [] { qCInfo(lcEngine).noquote() << "send clienType success"; });
}

void ClipBoardManager::socketDidDisconnect()
{
    qCInfo(lcEngine).noquote() << "wewebsoketbsoket connect fail,重连websoket";
    if (m_pasteStatus != PasteStatus::start)
        callCompletion(false, PastedError::websoketDisconnect);
    setFormList(std::nullopt);
    m_pasteStatus = PasteStatus::complete;
    m_context.connection.reconnect();
    // The transfer dies with the connection, whatever the status: a stray reply that
    // comes later must find no file of it to write or to end.
    stopTransfer();
    m_copy.connectionLost();
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

void ClipBoardManager::startPaste(ProgressCallback progress, CompletionCallback completion)
{
    m_callback = std::move(completion);
    m_pastedProgressCallback = std::move(progress);
    if (!m_formList)
        return;
    if (m_pasteStatus == PasteStatus::start || m_pasteStatus == PasteStatus::complete)
        sendFormatDataRequest();
}

void ClipBoardManager::copiedFiles(const QList<QUrl> &urls)
{
    m_copy.copiedFiles(urls);
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
}

// Whether files are on offer for a paste: a remote copy with the file list format, and
// no paste of it started yet. A newer copy replaces the older.
void ClipBoardManager::setFormList(std::optional<FileSDK::CliprdrFormatList> list)
{
    m_formList = std::move(list);
    bool offered = false;
    if (m_formList) {
        for (const FileSDK::CliprdrFormat &format : m_formList->formats())
            offered = offered || format.formatname() == kx::wire::descriptorFormatName;
    }
    if (offered || offered != m_filesOffered) // every new copy with files is news
        emit filesOffered(m_filesOffered = offered);
}

void ClipBoardManager::sendFormatDataRequest()
{
    m_pasteStatus = PasteStatus::pasting;
    if (m_filesOffered)
        emit filesOffered(m_filesOffered = false); // the paste has started
    std::uint32_t formatId = 0;
    for (const FileSDK::CliprdrFormat &format : m_formList->formats()) {
        if (format.formatname() == kx::wire::descriptorFormatName)
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
    m_formatDataResponse = kx::parseMessage<FileSDK::MacCliprdrFormatDataResponse>(payload);
    if (!m_formatDataResponse)
        return;
    qCInfo(lcEngine).noquote() << "收到windows->mac,准备让用户选择下载路径";
    m_choosingFolder = true;
    m_chooserPasteSerial = m_pasteSerial;
    m_context.files.chooseDestinationFolder();
    m_choosingFolder = false;
}

void ClipBoardManager::folderChosen(const QUrl &url)
{
    if (m_choosingFolder && m_chooserPasteSerial != m_pasteSerial) {
        qCInfo(lcEngine).noquote() << "paste ended while the folder was being chosen; nothing is downloaded";
        return;
    }
    startDownload(url);
}

void ClipBoardManager::folderChoiceCancelled()
{
    setFormList(std::nullopt);
    m_pasteStatus = PasteStatus::complete;
}

void ClipBoardManager::startDownload(const QUrl &url)
{
    stopTransfer();
    // The chosen folder may itself be a link; it is resolved once, here. Beneath it no
    // link is ever followed.
    const QString chosen = url.toLocalFile();
    const QString canonical = QFileInfo(chosen).canonicalFilePath();
    m_pasteStatus = PasteStatus::downloading;
    // The list moves into the transfer: a list of tens of MiB is held once, not twice.
    google::protobuf::RepeatedPtrField<FileSDK::FileDescriptorw> list;
    if (m_formatDataResponse)
        list.Swap(m_formatDataResponse->mutable_filedes());
    m_formatDataResponse.reset();
    m_paste = std::make_unique<PasteSession>(*this, canonical.isEmpty() ? chosen : canonical, std::move(list));
    m_paste->downloadNextFile();
}

void ClipBoardManager::handleContentResponse(const QByteArray &payload)
{
    if (!m_paste || !m_paste->hasCurrentFile())
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
    m_paste->handleContentResponse(*reply);
}

QString ClipBoardManager::currentFileName() const
{
    return m_paste ? m_paste->currentFileName() : QString();
}

std::uint64_t ClipBoardManager::savedBytes() const
{
    return m_paste ? m_paste->alreadySavedTotalSize() : 0;
}

std::uint64_t ClipBoardManager::totalBytes() const
{
    return m_paste ? m_paste->downloadTotalSize() : 0;
}

void ClipBoardManager::reportProgress(double fraction)
{
    if (m_pastedProgressCallback)
        m_pastedProgressCallback(fraction);
}

// Every file is saved, or there was none to save (only folders): no callback then.
void ClipBoardManager::downloadQueueEmptied()
{
    m_pasteStatus = PasteStatus::complete;
}

void ClipBoardManager::finishPaste()
{
    if (ProgressCallback progress = std::move(m_pastedProgressCallback)) {
        m_pastedProgressCallback = nullptr;
        progress(1.0);
    }
    setFormList(std::nullopt);
    m_pasteStatus = PasteStatus::complete;
    ++m_pasteSerial;
    callCompletion(true, PastedError::noError);
}

// Ends the running paste by cancel or by a reply that cannot be taken: the partly
// written file stays on disk, the next paste starts from its first chunk.
void ClipBoardManager::endPaste(PastedError error)
{
    stopTransfer();
    setFormList(std::nullopt);
    m_pasteStatus = PasteStatus::complete;
    callCompletion(false, error);
}

// A file that cannot be created or written stops the paste with saveError. The status
// stays downloading, as after any local save failure, until a new remote copy arrives.
void ClipBoardManager::failSave()
{
    stopTransfer();
    callCompletion(false, PastedError::saveError);
}

void ClipBoardManager::stopTransfer()
{
    ++m_pasteSerial;
    if (m_paste)
        m_paste->stop();
}
