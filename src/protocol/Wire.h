#pragma once

#include <cstdint>

// The values both ends of the connection agree on, named once. The engine and the agent
// simulator use these; the tests keep the literal numbers, so they stay an independent
// check of the wire.
namespace kx::wire {

// File-contents queries (CliprdrFileContentsRequest.dwFlags): FILECONTENTS_SIZE, _RANGE.
constexpr std::uint32_t sizeQueryFlag = 1;
constexpr std::uint32_t rangeQueryFlag = 2;
// cbRequested of a size query, and the range a download asks for at a time.
constexpr std::uint32_t sizeQueryLength = 8;
constexpr std::uint32_t chunkSize = 262144;

// CliprdrHeader.msgFlags of a file-contents answer: served, or could not be read.
constexpr std::uint32_t responseOk = 1;
constexpr std::uint32_t responseFailed = 2;

// Clipboard formats of a file copy.
constexpr std::uint32_t descriptorFormatId = 49346;
constexpr std::uint32_t contentsFormatId = 49327;
constexpr const char *descriptorFormatName = "FileGroupDescriptorW";
constexpr const char *contentsFormatName = "FileContents";

// FileDescriptorw.dwFileAttributes: FILE_ATTRIBUTE_DIRECTORY, the same with
// FILE_ATTRIBUTE_NOT_CONTENT_INDEXED, and FILE_ATTRIBUTE_NORMAL.
constexpr std::uint32_t folderAttributes = 0x10;
constexpr std::uint32_t folderAttributesNotIndexed = 0x2010;
constexpr std::uint32_t normalAttributes = 0x80;
// A pasted entry is a folder for exactly these two values; any other is fetched as a file.
constexpr bool isFolderAttributes(std::uint32_t attributes)
{
    return attributes == folderAttributes || attributes == folderAttributesNotIndexed;
}

// FileDescriptorw.dwFlags: FD_ATTRIBUTES | FD_WRITESTIME | FD_PROGRESSUI, as this side
// writes them; FD_WRITESTIME alone says the last-write time is valid.
constexpr std::uint32_t descriptorFlags = 0x4024;
constexpr std::uint32_t writeTimeFlag = 0x20;
constexpr const char *zeroClsid = "{00000000-0000-0000-0000-000000000000}";

// What a folder's descriptor carries instead of a size: 16 and 16 at the top, 16 and 0
// below it.
constexpr std::uint32_t folderSizeHigh = 16;
constexpr std::uint32_t topFolderSizeLow = 16;

} // namespace kx::wire
