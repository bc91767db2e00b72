#include "Messages.h"

#include "Wire.h"

namespace kx {

FileSDK::CliprdrHeader makeHeader(std::uint32_t connID, std::uint32_t msgType, std::uint32_t msgFlags,
                                  std::uint32_t dataLen)
{
    FileSDK::CliprdrHeader header;
    header.set_connid(connID);
    header.set_msgtype(msgType);
    header.set_msgflags(msgFlags);
    header.set_datalen(dataLen);
    return header;
}

FileSDK::CliprdrHeader formatListHeader()
{
    return makeHeader(1, 1, 1, 1);
}

FileSDK::CliprdrHeader answerHeader(std::uint32_t msgFlags)
{
    return makeHeader(1, 0, msgFlags, 1);
}

FileSDK::CliprdrFormatList makeFileFormatList(const FileSDK::CliprdrHeader &header)
{
    FileSDK::CliprdrFormatList list;
    *list.mutable_header() = header;
    list.set_numformats(2);
    FileSDK::CliprdrFormat *descriptors = list.add_formats();
    descriptors->set_formatid(wire::descriptorFormatId);
    descriptors->set_formatname(wire::descriptorFormatName);
    FileSDK::CliprdrFormat *contents = list.add_formats();
    contents->set_formatid(wire::contentsFormatId);
    contents->set_formatname(wire::contentsFormatName);
    return list;
}

FileSDK::CliprdrFileContentsRequest makeContentsQuery(std::uint32_t streamId, std::uint32_t listIndex,
                                                      std::uint32_t flags, std::uint64_t offset,
                                                      std::uint32_t length)
{
    FileSDK::CliprdrFileContentsRequest request;
    request.set_streamid(streamId);
    request.set_listindex(listIndex);
    request.set_dwflags(flags);
    request.set_npositionlow(lowHalf(offset));
    request.set_npositionhigh(highHalf(offset));
    request.set_cbrequested(length);
    return request;
}

FileSDK::CliprdrFileContentsResponse makeContentsAnswer(std::uint32_t streamId, std::string data,
                                                        std::uint32_t msgFlags,
                                                        std::optional<std::uint32_t> cbRequested)
{
    FileSDK::CliprdrFileContentsResponse response;
    *response.mutable_header() = answerHeader(msgFlags);
    response.set_streamid(streamId);
    response.set_cbrequested(cbRequested.value_or(std::uint32_t(data.size())));
    response.set_requesteddata(std::move(data));
    return response;
}

QByteArray serialize(const google::protobuf::MessageLite &message)
{
    QByteArray bytes(qsizetype(message.ByteSizeLong()), Qt::Uninitialized);
    message.SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t *>(bytes.data()));
    return bytes;
}

} // namespace kx
