#pragma once

#include "KXFileStreamOperation.h"
#include "filesdk.pb.h"

#include <QObject>
#include <QString>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

class ClipBoardManager;

// The transfer of one paste, from the chosen folder to the last byte: the files to
// fetch in list order, the queries outstanding, and what each file has saved.
//
// With a window of 1 it is the one-query-at-a-time exchange: per file a size query, then
// ranges of one chunk, each asked for where the bytes saved so far end. With a window of
// N it keeps up to N queries outstanding, each under a stream id of its own, asks for
// the sizes of the next files while earlier ones still arrive, and asks again for
// exactly what a short reply left out. Either way files are finished, and reported, in
// list order, and no reply is written past what its own query asked for.
class PasteSession : public QObject
{
public:
    PasteSession(ClipBoardManager &engine, const QString &basePath,
                 google::protobuf::RepeatedPtrField<FileSDK::FileDescriptorw> list);
    ~PasteSession() override;

    // Starts the download loop; it goes on by itself, reply after reply.
    void downloadNextFile();
    void handleContentResponse(const FileSDK::CliprdrFileContentsResponse &reply);
    // Ends the transfer where it is: files closed, and replies that still come, or the
    // repeats still waiting, are ignored, so they write nothing.
    void stop();

    bool hasCurrentFile() const { return !m_stopped && m_head < m_files.size(); }
    QString currentFileName() const;
    std::uint64_t alreadySavedTotalSize() const { return m_alreadySavedTotalSize; }
    std::uint64_t downloadTotalSize() const { return m_downloadTotalSize; }

private:
    struct FileTask
    {
        int listIndex = 0; // position in the list as received, folders counted
        std::uint64_t size = 0;
        std::unique_ptr<KXFileStreamOperation> out;
        QString localPath;
        std::uint32_t streamId = 0; // one per file in the one-at-a-time exchange
        bool sized = false;
        std::uint64_t requested = 0; // bytes asked for, from the start of the file
        std::uint64_t saved = 0;
        // What short replies left out; a vector, as it is empty in nearly every file and an
        // empty vector costs nothing for each of a list's entries.
        std::vector<std::pair<std::uint64_t, std::uint32_t>> gaps;
        std::uint64_t chunks = 0;
        std::int64_t downloadCurrentIndex = 0;
    };
    struct Query
    {
        std::size_t file = 0;
        bool sizeQuery = false;
        std::uint64_t offset = 0;
        std::uint32_t length = 0;
        std::uint64_t serial = 0;
        bool waiting = false; // answered empty; asked again after the retry wait
    };

    const FileSDK::FileDescriptorw &descriptor(const FileTask &file) const;
    bool pipelined() const { return m_window > 1; }
    void pump();
    void closeSavedFiles();
    void finishAll();
    void startCurrentFile(std::size_t index);
    void sendContentRequest(std::size_t index);
    bool requestNextRange();
    void sendQuery(std::uint32_t streamId, const Query &query, const char *completionText);
    void scheduleRangeRetry(std::uint32_t streamId, std::uint64_t serial);
    void saveContentData(FileTask &file, const Query &query, const FileSDK::CliprdrFileContentsResponse &reply);
    void finishCurrentFile(FileTask &file);
    void setFolderTimes();
    std::uint32_t nextStreamId();
    static std::uint32_t makeStreamId();

    ClipBoardManager &m_engine;
    const int m_window;
    const QString m_pasteBasePath;
    google::protobuf::RepeatedPtrField<FileSDK::FileDescriptorw> m_originFileDescriptorwList;
    std::vector<FileTask> m_files; // the download queue: every entry but the folders
    std::size_t m_head = 0;        // the file being downloaded: the first not finished
    std::size_t m_next = 0;        // the first file not started
    std::map<std::uint32_t, Query> m_outstanding;
    std::uint64_t m_querySerial = 0;
    std::uint32_t m_streamCounter = 0;
    std::uint64_t m_downloadTotalSize = 0;
    std::uint64_t m_alreadySavedTotalSize = 0;
    bool m_stopped = false;
};
