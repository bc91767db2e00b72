#include "FilesSize.h"

#include "Wire.h"

#include <QElapsedTimer>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <limits>

using google::protobuf::internal::WireFormatLite;

namespace {

constexpr int descriptorField = 2;
constexpr int attributesField = 3;
constexpr int sizeHighField = 10;
constexpr int sizeLowField = 11;
constexpr qint64 budgetMs = 100;

// The size of one entry, 0 for a folder; nothing if the entry does not read.
std::optional<std::uint64_t> entrySize(google::protobuf::io::CodedInputStream &in)
{
    std::uint32_t attributes = 0, high = 0, low = 0;
    while (const std::uint32_t tag = in.ReadTag()) {
        const int field = WireFormatLite::GetTagFieldNumber(tag);
        const bool number = WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_VARINT;
        std::uint32_t *value = field == attributesField ? &attributes
                             : field == sizeHighField   ? &high
                             : field == sizeLowField    ? &low
                                                        : nullptr;
        if ((value && number) ? !in.ReadVarint32(value) : !WireFormatLite::SkipField(&in, tag))
            return std::nullopt;
    }
    if (!in.ConsumedEntireMessage())
        return std::nullopt;
    return kx::wire::isFolderAttributes(attributes) ? 0 : (std::uint64_t(high) << 32 | low);
}

} // namespace

std::optional<std::uint64_t> kx::filesSize(const QByteArray &payload)
{
    QElapsedTimer clock;
    clock.start();
    google::protobuf::io::CodedInputStream in(reinterpret_cast<const std::uint8_t *>(payload.constData()),
                                              int(payload.size()));
    std::uint64_t total = 0;
    std::size_t entries = 0;
    while (const std::uint32_t tag = in.ReadTag()) {
        if (WireFormatLite::GetTagFieldNumber(tag) != descriptorField) {
            if (!WireFormatLite::SkipField(&in, tag))
                return std::nullopt;
            continue;
        }
        int length = 0;
        if (!in.ReadVarintSizeAsInt(&length) || (++entries % 4096 == 0 && clock.elapsed() > budgetMs))
            return std::nullopt;
        const auto limit = in.PushLimit(length);
        const std::optional<std::uint64_t> size = entrySize(in);
        in.PopLimit(limit);
        if (!size)
            return std::nullopt;
        // A sum past 2^64, which no real list reaches, stays at the top.
        if (__builtin_add_overflow(total, *size, &total))
            total = std::numeric_limits<std::uint64_t>::max();
    }
    return in.ConsumedEntireMessage() ? std::optional(total) : std::nullopt;
}
