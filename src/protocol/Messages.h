#pragma once

#include "filesdk.pb.h"

#include <QByteArray>
#include <cstdint>
#include <optional>
#include <string>

namespace kx {

FileSDK::CliprdrHeader makeHeader(std::uint32_t connID, std::uint32_t msgType, std::uint32_t msgFlags,
                                  std::uint32_t dataLen);
// The header this side writes on a format list (1, 1, 1, 1), and on every answer it
// sends: file list and file contents (1, 0, msgFlags, 1).
FileSDK::CliprdrHeader formatListHeader();
FileSDK::CliprdrHeader answerHeader(std::uint32_t msgFlags = 1);

// The announcement of a file copy: the descriptor format, then the contents format.
FileSDK::CliprdrFormatList makeFileFormatList(const FileSDK::CliprdrHeader &header);

// A size or range query; no header, as the queries of a download carry none.
FileSDK::CliprdrFileContentsRequest makeContentsQuery(std::uint32_t streamId, std::uint32_t listIndex,
                                                      std::uint32_t flags, std::uint64_t offset,
                                                      std::uint32_t length);
// The answer to one query: cbRequested is the number of bytes given, unless stated.
FileSDK::CliprdrFileContentsResponse makeContentsAnswer(std::uint32_t streamId, std::string data,
                                                        std::uint32_t msgFlags = 1,
                                                        std::optional<std::uint32_t> cbRequested = std::nullopt);

// A payload that does not parse yields no message; the caller decides what that means.
template <typename Message>
std::optional<Message> parseMessage(const QByteArray &payload)
{
    Message message;
    if (!message.ParseFromArray(payload.constData(), int(payload.size())))
        return std::nullopt;
    return message;
}

QByteArray serialize(const google::protobuf::MessageLite &message);

inline std::uint64_t joinHalves(std::uint32_t high, std::uint32_t low)
{
    return (std::uint64_t(high) << 32) | low;
}
inline std::uint32_t lowHalf(std::uint64_t value) { return std::uint32_t(value & 0xffffffffu); }
inline std::uint32_t highHalf(std::uint64_t value) { return std::uint32_t(value >> 32); }

inline std::uint64_t descriptorSize(const FileSDK::FileDescriptorw &d)
{
    return joinHalves(d.nfilesizehigh(), d.nfilesizelow());
}
inline std::uint64_t queryOffset(const FileSDK::CliprdrFileContentsRequest &q)
{
    return joinHalves(q.npositionhigh(), q.npositionlow());
}

} // namespace kx
