#pragma once

#include "filesdk.pb.h"

#include <QByteArray>
#include <cstdint>
#include <optional>

namespace kx {

inline FileSDK::CliprdrHeader makeHeader(std::uint32_t connID, std::uint32_t msgType,
                                         std::uint32_t msgFlags, std::uint32_t dataLen)
{
    FileSDK::CliprdrHeader header;
    header.set_connid(connID);
    header.set_msgtype(msgType);
    header.set_msgflags(msgFlags);
    header.set_datalen(dataLen);
    return header;
}

// The announcement of a file copy: the descriptor format, then the contents format.
inline FileSDK::CliprdrFormatList makeFileFormatList(const FileSDK::CliprdrHeader &header)
{
    FileSDK::CliprdrFormatList list;
    *list.mutable_header() = header;
    list.set_numformats(2);
    FileSDK::CliprdrFormat *descriptors = list.add_formats();
    descriptors->set_formatid(49346);
    descriptors->set_formatname("FileGroupDescriptorW");
    FileSDK::CliprdrFormat *contents = list.add_formats();
    contents->set_formatid(49327);
    contents->set_formatname("FileContents");
    return list;
}

// A payload that does not parse yields no message; the caller decides what that means.
template <typename Message>
std::optional<Message> parseMessage(const QByteArray &payload)
{
    Message message;
    if (!message.ParseFromArray(payload.constData(), int(payload.size())))
        return std::nullopt;
    return message;
}

inline QByteArray serialize(const google::protobuf::MessageLite &message)
{
    QByteArray bytes(qsizetype(message.ByteSizeLong()), Qt::Uninitialized);
    message.SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t *>(bytes.data()));
    return bytes;
}

inline std::uint64_t joinHalves(std::uint32_t high, std::uint32_t low)
{
    return (std::uint64_t(high) << 32) | low;
}

inline std::uint64_t descriptorSize(const FileSDK::FileDescriptorw &d)
{
    return joinHalves(d.nfilesizehigh(), d.nfilesizelow());
}

} // namespace kx
