// The agent simulator as a hostile agent (--attack NAME), to try the companion as an
// attacker would (scripts/attacks measures what each move costs it):
//   big-binary, big-text  a message of 1.9 GiB right after the client type frame
//   unasked-list          right after the client type frame: a descriptor list that no
//                         paste asked for
//   huge-list             the list asked for is 64 MiB of empty entries
//   empty-files           the list asked for is 100,000 files of 0 bytes in one folder
//   format-lists          once the list is asked for: a new copy announced every 300 ms,
//                         40 times (with --rtt-ms 1500, answers come 1.5 s apart)
//   silent                the size query and two ranges are answered, then nothing more,
//                         the connection kept
//   second-copy           after the fourth range of a paste, a new copy is announced
//   newer-copy            after the fourth range of a paste, the offered files get other
//                         bytes and a later time, same names and sizes, and a new copy of
//                         them is announced: later answers come from it
//   flood-queries         when a copy is announced: 40 range queries of 2 GiB each, and
//                         then nothing more is read
//   range-every           when a copy is announced: a range query for every entry,
//                         whatever it is, folders and special files included
//   list-thrice           when a copy is announced: its list asked for three times, and
//                         each one's entries counted
//   long-reply            every range query answered with 48 MiB, whatever was asked
#include "AgentSimulator.h"

#include "Frame.h"
#include "Messages.h"
#include "Wire.h"

#include <QTcpSocket>
#include <QTimer>
#include <QWebSocket>

namespace {

constexpr quint64 hugeMessage = 0x78000000; // 1.9 GiB
constexpr qint64 piece = 16 << 20;

FileSDK::MacCliprdrFormatDataResponse listOf(const QStringList &names, std::uint32_t size)
{
    FileSDK::MacCliprdrFormatDataResponse list;
    *list.mutable_header() = kx::answerHeader();
    for (const QString &name : names) {
        FileSDK::FileDescriptorw *d = list.add_filedes();
        d->set_dwfileattributes(kx::wire::normalAttributes);
        d->set_nfilesizelow(size);
        d->set_cfilename(name.toStdString());
    }
    return list;
}

} // namespace

void AgentSimulator::attackOnConnect()
{
    if (playing("big-binary") || playing("big-text"))
        streamFrame(playing("big-text"), hugeMessage);
    if (playing("unasked-list")) {
        send(listOf({QStringLiteral("photos\\.bashrc")}, 4), FrameType::formatDataResponse);
        say(QStringLiteral("attack sent: a descriptor list that no paste asked for"));
    }
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

bool AgentSimulator::attackOnDescriptorRequest()
{
    if (playing("huge-list")) {
        // Each entry is a field 2 of length 0: two bytes, just under the 64 MiB a message may have.
        constexpr int entries = (32 << 20) - 1;
        deliver(QByteArray::fromHex("1200").repeated(entries) + char(FrameType::formatDataResponse));
        say(QStringLiteral("attack sent: a descriptor list of %1 empty entries").arg(entries));
        return true;
    }
    if (playing("empty-files")) {
        QStringList names;
        for (int i = 0; i < 100000; ++i)
            names.append(QStringLiteral("many\\e%1").arg(i));
        send(listOf(names, 0), FrameType::formatDataResponse);
        say(QStringLiteral("attack sent: a descriptor list of %1 files of 0 bytes").arg(names.size()));
        return true;
    }
    if (playing("format-lists"))
        repeatFormatList(40, 300);
    return false;
}

void AgentSimulator::repeatFormatList(int times, int intervalMs)
{
    auto *timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, [this, timer, times] {
        send(kx::makeFileFormatList(kx::makeHeader(1, 2, 0, 0)), FrameType::formatList);
        if (++m_attackCount < times)
            return;
        timer->deleteLater();
        // The last one is on the wire once the round trip has passed.
        QTimer::singleShot(m_options.rttMs, this, [this, times] {
            say(QStringLiteral("attack over: %1 format lists sent").arg(times));
        });
    });
    timer->start(intervalMs);
    say(QStringLiteral("attack sent: a format list every %1 ms from now on").arg(intervalMs));
}

bool AgentSimulator::attackOnLocalCopy()
{
    if (!playing("list-thrice"))
        return false;
    FileSDK::CliprdrFormatDataRequest request;
    *request.mutable_header() = kx::makeHeader(0, 0, 0, 0);
    request.set_requestedformatid(kx::wire::descriptorFormatId);
    for (int i = 0; i < 3; ++i)
        send(request, FrameType::formatDataRequest);
    say(QStringLiteral("attack sent: the list of the local copy asked for three times"));
    return true;
}

bool AgentSimulator::attackOnDescriptorList(const FileSDK::MacCliprdrFormatDataResponse &list)
{
    using namespace kx::wire;
    if (playing("flood-queries")) {
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
    if (playing("range-every")) {
        for (int i = 0; i < list.filedes_size(); ++i)
            send(kx::makeContentsQuery(std::uint32_t(i), std::uint32_t(i), rangeQueryFlag, 0, 4096), FrameType::fileContentsRequest);
        say(QStringLiteral("attack sent: a range query for each of %1 entries").arg(list.filedes_size()));
        return true;
    }
    if (playing("list-thrice")) {
        QStringList names;
        for (int i = 0; i < std::min(list.filedes_size(), 4); ++i)
            names.append(QString::fromStdString(list.filedes(i).cfilename()));
        if (list.filedes_size() > 4)
            names.append(QStringLiteral("…"));
        say(QStringLiteral("list %1 of 3: %2 entries: %3").arg(++m_attackCount).arg(list.filedes_size()).arg(names.join(", ")));
        return true;
    }
    return false;
}

bool AgentSimulator::attackOnContents(const FileSDK::CliprdrFileContentsRequest &request)
{
    const bool range = request.dwflags() == kx::wire::rangeQueryFlag;
    if (playing("silent")) { // the size query and two ranges are answered, nothing after them
        if (++m_attackCount == 4)
            say(QStringLiteral("attack sent: no more answers, the connection kept"));
        return m_attackCount > 3;
    }
    if (playing("second-copy") && range && ++m_attackCount == 4) {
        // After this range's answer: the paste goes on while a newer copy waits to be pasted.
        QTimer::singleShot(0, this, [this] {
            sendFormatList();
            say(QStringLiteral("attack sent: a second copy announced during the paste"));
        });
    }
    if (playing("newer-copy") && range && ++m_attackCount == 4) {
        QTimer::singleShot(0, this, [this] {
            for (Entry &entry : m_offer) {
                QFile file(entry.localPath);
                if (entry.localPath.isEmpty() || !file.open(QIODevice::ReadWrite))
                    continue;
                QByteArray bytes = file.readAll();
                for (char &c : bytes)
                    c = char(~c);
                file.seek(0);
                file.write(bytes);
                const std::uint64_t later = kx::joinHalves(entry.descriptor.ftlastwritetimehigh(), entry.descriptor.ftlastwritetimelow())
                    + 600000000ull; // a minute
                entry.descriptor.set_ftlastwritetimehigh(kx::highHalf(later));
                entry.descriptor.set_ftlastwritetimelow(kx::lowHalf(later));
            }
            sendFormatList();
            say(QStringLiteral("attack sent: a newer copy of the same names and sizes, with other bytes"));
        });
    }
    if (playing("long-reply") && range) {
        send(kx::makeContentsAnswer(request.streamid(), std::string(48 << 20, 'x')), FrameType::fileContentsResponse);
        say(QStringLiteral("attack sent: 48 MiB for a query of %1 bytes").arg(request.cbrequested()));
        return true;
    }
    return false;
}
