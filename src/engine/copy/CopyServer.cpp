#include "CopyServer.h"

#include "EngineLog.h"
#include "Frame.h"
#include "FrameSink.h"
#include "Messages.h"
#include "SendFrame.h"
#include "Wire.h"

#include <QFileInfo>

#include <google/protobuf/text_format.h>

namespace {

// The offer's log lines hold every entry on one line; for tens of thousands of entries
// that text is the largest thing the copy allocates, so it is built in place, once.
QString printed(const QList<QUrl> &urls)
{
    QString text = QStringLiteral("[");
    for (qsizetype i = 0; i < urls.size(); ++i)
        text += (i ? QStringLiteral(", ") : QString()) + urls.at(i).toString();
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
    for (qsizetype i = 0; i < descriptors.size(); ++i) {
        printer.PrintToString(descriptors.at(i), &entry);
        while (!entry.empty() && entry.back() == ' ')
            entry.pop_back();
        text += (i ? ", " : "") + entry;
    }
    return text += ']';
}

const char *const contentsAnswered = "send requestContentRequestType success";

} // namespace

CopyServer::CopyServer(FrameSink &connection, KXFileManager &files)
    : m_connection(connection)
    , m_offer(files)
{
}

void CopyServer::copiedFiles(const QList<QUrl> &urls)
{
    m_offer.setFileList(urls);
    if (urls.isEmpty())
        return;
    qCInfo(lcEngine).noquote().nospace() << "list:" << printed(urls);
    kx::sendFrame(m_connection, kx::makeFileFormatList(kx::formatListHeader()), FrameType::formatList, "send success");
}

void CopyServer::handleDataRequest(const QByteArray &payload)
{
    Q_UNUSED(payload); // any requested format gets the file list
    admit(std::nullopt);
}

void CopyServer::handleContentRequest(const QByteArray &payload)
{
    auto request = kx::parseMessage<FileSDK::CliprdrFileContentsRequest>(payload);
    if (!request) {
        qCInfo(lcEngine).noquote() << "a file contents request could not be decoded; no answer";
        return;
    }
    admit(std::move(request));
}

void CopyServer::admit(Request request)
{
    if (m_waiting.empty() && m_connection.bytesToWrite() <= queuedBytesLimit) {
        serve(request);
        return;
    }
    m_waiting.push_back(std::move(request));
    if (m_waiting.size() > maxWaitingRequests) {
        qCInfo(lcEngine).noquote().nospace() << "more than " << maxWaitingRequests
                                             << " requests wait while the remote side reads nothing; dropping the connection";
        m_waiting.clear();
        m_connection.dropConnection(QStringLiteral("the remote side stopped reading its answers"));
    }
}

void CopyServer::drained()
{
    while (!m_waiting.empty() && m_connection.bytesToWrite() <= queuedBytesLimit) {
        const Request request = std::move(m_waiting.front());
        m_waiting.pop_front();
        serve(request);
    }
}

void CopyServer::connectionLost()
{
    m_waiting.clear();
}

void CopyServer::serve(const Request &request)
{
    if (request)
        answerContentRequest(*request);
    else
        answerDataRequest();
}

void CopyServer::answerDataRequest()
{
    if (m_offer.fileList().isEmpty())
        return;
    qCInfo(lcEngine).noquote().nospace() << "收到widows 发出control + v指令fileList:" << printed(m_offer.fileList());
    const bool walked = m_offer.describe();
    qCInfo(lcEngine).noquote().nospace() << "所有文件个数:" << m_offer.uploadQueueNum();
    if (!walked) {
        qCInfo(lcEngine).noquote() << "the list of this copy is sent again as it was described";
    } else {
        m_uploadStreamer.reset(); // a new list: its indexes name other entries
        m_served.assign(std::size_t(m_offer.uploadCopyQueue().size()), 0);
        m_sending = CopySending();
        m_servedBytes = 0, m_started = false;
        for (const FileSDK::FileDescriptorw &d : m_offer.uploadCopyQueue()) {
            if (d.dwfileattributes() != kx::wire::folderAttributes)
                ++m_sending.files, m_sending.bytes += kx::descriptorSize(d);
        }
        if (lcEngine().isInfoEnabled()) {
            // Handed to the log handler as it is: a QDebug stream or printf formatting would
            // copy a text of tens of MiB for a big offer, and grow it step by step on the way.
            const QMessageLogContext context(__FILE__, __LINE__, Q_FUNC_INFO, lcEngine().categoryName());
            qt_message_output(QtInfoMsg, context, QString::fromUtf8("上传des数组:" + printed(m_offer.uploadCopyQueue())));
            qCInfo(lcEngine).noquote().nospace() << "所有文件路径:" << printed(m_offer.uploadCopyUrlList());
        }
    }

    FileSDK::MacCliprdrFormatDataResponse response;
    *response.mutable_header() = kx::answerHeader();
    // The descriptors are lent to the message for its encoding rather than copied: a big
    // offer would otherwise be held twice at once.
    QList<FileSDK::FileDescriptorw> &descriptors = m_offer.uploadCopyQueue();
    for (FileSDK::FileDescriptorw &descriptor : descriptors)
        response.add_filedes()->Swap(&descriptor);
    kx::sendFrame(m_connection, response, FrameType::formatDataResponse, "send DataResponse success");
    for (qsizetype i = 0; i < descriptors.size(); ++i)
        descriptors[i].Swap(response.mutable_filedes(int(i)));
}

KXFileStreamOperation *CopyServer::uploadStreamerFor(std::uint32_t listIndex)
{
    const QString path = m_offer.uploadCopyUrlList().at(listIndex).toLocalFile();
    // A folder has nothing to read: whether it is still there is all an opening would tell.
    if (m_offer.uploadCopyQueue().at(listIndex).dwfileattributes() == kx::wire::folderAttributes) {
        KXFileStreamOperation().getFileInfoAtPath(path);
        return nullptr;
    }
    // The open file would still read after the user deleted it; the remote side should
    // learn that the file is gone rather than receive what the user threw away, so it is
    // opened again, which fails and says why.
    if (!m_uploadStreamer || m_uploadStreamerIndex != listIndex || !QFileInfo::exists(path)) {
        m_uploadStreamer = KXFileStreamOperation::initFileOperationAtPath(path, false, QString());
        m_uploadStreamerIndex = listIndex;
    }
    return m_uploadStreamer.get();
}

void CopyServer::sendAnswer(std::uint32_t streamId, std::string data, std::uint32_t msgFlags,
                            std::optional<std::uint32_t> cbRequested)
{
    // Encoded first, so that an answer of 64 MiB is not held a third time, in its message,
    // while the connection takes its frame.
    const QByteArray frame = kx::encodeFrame(kx::makeContentsAnswer(streamId, std::move(data), msgFlags, cbRequested),
                                             FrameType::fileContentsResponse);
    kx::sendFrame(m_connection, frame, contentsAnswered);
}

void CopyServer::answerContentRequest(const FileSDK::CliprdrFileContentsRequest &request)
{
    const std::uint32_t listIndex = request.listindex();
    if (listIndex >= std::uint32_t(m_offer.uploadCopyUrlList().size())) {
        qCInfo(lcEngine).noquote() << "list超过了uploadCopyQueuecount";
        return;
    }
    if (request.dwflags() == kx::wire::sizeQueryFlag) {
        // The file is opened as for a range: one gone since the offer is logged, and the
        // ranges that follow read through this opening. The answer is the low half of the
        // size from the offer all the same, little-endian, as the remote side expects.
        uploadStreamerFor(listIndex);
        const std::uint32_t low = m_offer.uploadCopyQueue().at(listIndex).nfilesizelow();
        std::string data(4, '\0');
        for (int i = 0; i < 4; ++i)
            data[size_t(i)] = char((low >> (8 * i)) & 0xff);
        sendAnswer(request.streamid(), std::move(data), kx::wire::responseOk, kx::wire::sizeQueryLength);
        return;
    }
    if (request.dwflags() != kx::wire::rangeQueryFlag)
        return;
    qCInfo(lcEngine).noquote().nospace() << "nPositionLow:" << request.npositionlow();
    qCInfo(lcEngine).noquote().nospace() << "contentRequest.cbRequested:" << request.cbrequested();
    qCInfo(lcEngine).noquote().nospace() << "resultValue:" << request.npositionlow();
    qCInfo(lcEngine).noquote().nospace() << "contentRequest.streamID" << request.streamid();
    KXFileStreamOperation *reader = uploadStreamerFor(listIndex);
    std::string data;
    if (!reader || !reader->readDateOffSet(kx::queryOffset(request), request.cbrequested(), data)) {
        qCInfo(lcEngine).noquote().nospace() << "could not read " << m_offer.uploadCopyUrlList().at(listIndex).toLocalFile()
                                             << "; the range query is answered as failed";
        m_uploadStreamer.reset();
        sendAnswer(request.streamid(), std::string(), kx::wire::responseFailed);
        return;
    }
    const std::uint64_t served = data.size();
    sendAnswer(request.streamid(), std::move(data), kx::wire::responseOk);
    countServed(listIndex, served);
}

// The offer is sent once every file has been served as many bytes as it has; a range
// asked for twice counts twice, so a repeat can only make it seem sent a little early.
void CopyServer::countServed(std::uint32_t listIndex, std::uint64_t bytes)
{
    if (listIndex >= m_served.size() || bytes == 0 || m_sending.done)
        return;
    const std::uint64_t size = kx::descriptorSize(m_offer.uploadCopyQueue().at(listIndex));
    const std::uint64_t before = m_served[listIndex];
    m_served[listIndex] = std::min(size, before + bytes);
    m_servedBytes += m_served[listIndex] - before;
    const bool starting = !std::exchange(m_started, true);
    m_sending.done = m_servedBytes >= m_sending.bytes;
    if (starting)
        qCInfo(lcEngine).noquote().nospace() << "the remote side fetches the local copy: " << m_sending.files
                                             << " files, " << m_sending.bytes << " bytes";
    if (m_sending.done)
        qCInfo(lcEngine).noquote() << "the local copy has been sent";
    if ((starting || m_sending.done) && sendingChanged)
        sendingChanged(m_sending);
}
