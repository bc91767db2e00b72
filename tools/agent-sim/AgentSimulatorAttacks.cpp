// The agent simulator as a hostile agent (--attack NAME), to try the companion as an
// attacker would (scripts/attacks measures what each move costs it):
//   big-binary, big-text  a message of 1.9 GiB right after the client type frame
//   flood-queries         when a copy is announced: 40 range queries of 2 GiB each, and
//                         then nothing more is read
//   range-every           when a copy is announced: a range query for every entry,
//                         whatever it is, folders and special files included
//   long-reply            every range query answered with 48 MiB, whatever was asked
#include "AgentSimulator.h"

#include "Frame.h"
#include "Messages.h"
#include "Wire.h"

#include <QTcpSocket>
#include <QWebSocket>

namespace {

constexpr quint64 hugeMessage = 0x78000000; // 1.9 GiB
constexpr qint64 piece = 16 << 20;

} // namespace

void AgentSimulator::attackOnConnect()
{
    if (m_options.attack == QLatin1String("big-binary") || m_options.attack == QLatin1String("big-text"))
        streamFrame(m_options.attack == QLatin1String("big-text"), hugeMessage);
}

// One frame header announcing `length` bytes, then the bytes, a piece at a time as the
// connection takes them: the simulator itself never holds the message.
void AgentSimulator::streamFrame(bool text, quint64 length)
{
    if (!m_transport)
        return;
    QByteArray header = QByteArray(1, char(text ? 0x81 : 0x82)) + char(127);
    for (int shift = 56; shift >= 0; shift -= 8)
        header += char((length >> shift) & 0xff);
    m_transport->write(header);
    auto left = std::make_shared<quint64>(length);
    auto feeding = std::make_shared<QMetaObject::Connection>();
    auto more = [this, left, feeding] {
        while (m_transport && *left > 0 && m_transport->bytesToWrite() < 2 * piece) {
            const qint64 n = qint64(std::min<quint64>(*left, piece));
            m_transport->write(QByteArray(n, 'x'));
            *left -= quint64(n);
        }
        if (*left == 0 && disconnect(*feeding)) // told once, when the last piece is queued
            say(QStringLiteral("attack sent: a %1 message of %2 bytes").arg(m_options.attack).arg(hugeMessage));
    };
    *feeding = connect(m_transport, &QTcpSocket::bytesWritten, this, more);
    more();
}

bool AgentSimulator::attackOnDescriptorList(const FileSDK::MacCliprdrFormatDataResponse &list)
{
    using namespace kx::wire;
    if (m_options.attack == QLatin1String("flood-queries")) {
        int file = 0;
        while (file < list.filedes_size() && list.filedes(file).dwfileattributes() == folderAttributes)
            ++file;
        if (m_transport) // the frame of the first answer never completes: nothing more is read
            m_transport->setReadBufferSize(1);
        for (std::uint32_t i = 0; i < 40; ++i)
            send(kx::makeContentsQuery(i, std::uint32_t(file), rangeQueryFlag, 0, 0x80000000u), FrameType::fileContentsRequest);
        say(QStringLiteral("attack sent: 40 range queries of 2 GiB, and no more reading"));
        return true;
    }
    if (m_options.attack == QLatin1String("range-every")) {
        for (int i = 0; i < list.filedes_size(); ++i)
            send(kx::makeContentsQuery(std::uint32_t(i), std::uint32_t(i), rangeQueryFlag, 0, 4096), FrameType::fileContentsRequest);
        say(QStringLiteral("attack sent: a range query for each of %1 entries").arg(list.filedes_size()));
        return true;
    }
    return false;
}

bool AgentSimulator::attackOnContents(const FileSDK::CliprdrFileContentsRequest &request)
{
    if (m_options.attack != QLatin1String("long-reply") || request.dwflags() != kx::wire::rangeQueryFlag)
        return false;
    send(kx::makeContentsAnswer(request.streamid(), std::string(48 << 20, 'x')), FrameType::fileContentsResponse);
    say(QStringLiteral("attack sent: 48 MiB for a query of %1 bytes").arg(request.cbrequested()));
    return true;
}
