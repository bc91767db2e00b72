#pragma once

#include "DescriptorList.h"
#include "KXFileStreamOperation.h"
#include "PasteTarget.h"
#include "PasteFigures.h"
#include "PasteReport.h"
#include "PastedError.h"
#include "filesdk.pb.h"

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <vector>

class ClipBoardManager;

// One paste, from the chosen folder to its end: the files to fetch in list order, the
// queries outstanding, what each file has saved, and the paste's own callbacks, so that
// its end is reported to whoever started it, whatever runs after it.
//
// With a window of 1 it is the one-query-at-a-time exchange: per file a size query, then
// ranges of one chunk, each asked for where the bytes saved so far end. With a window of
// N it keeps up to N queries outstanding, each under a stream id of its own, asks for
// the sizes of the next files while earlier ones still arrive, and asks again for
// exactly what a short reply left out. Either way files are finished, and reported, in
// list order, and no reply is written past what its own query asked for.
//
// Work per entry (log lines, empty files, folder times) runs in slices, so no list, however
// long, holds up the event loop: the connection and the user are served meanwhile.
class PasteSession : public QObject
{
public:
    using ProgressCallback = std::function<void(double)>;
    using CompletionCallback = std::function<void(bool, PastedError)>;

    // How long one slice of per-entry work may hold the event loop.
    static constexpr int sliceMs = 50;

    PasteSession(ClipBoardManager &engine, const QString &basePath, DescriptorList list, ProgressCallback progress,
                 CompletionCallback completion);
    ~PasteSession() override;

    // Reads the list through (sizes, totals), then fetches the files; it goes on by
    // itself, reply after reply.
    void start();
    void handleContentResponse(const FileSDK::CliprdrFileContentsResponse &reply);
    // Ends the paste, once: its completion first, then the files are closed and the list
    // let go; replies that still come, and repeats still waiting, write nothing.
    void end(bool success, PastedError error, PasteReport::Why why = PasteReport::Why::none, const QString &file = {},
             const QString &detail = {});
    // The words for a local failure, from the system's error number.
    void endOnLocalError(int error, const QString &file);

    bool running() const { return !m_ended; }
    // The user is being asked what to do with names that are taken.
    bool asking() const { return m_asking; }
    void setReplyTimeout(int ms) { m_replyTimeoutMs = ms, watchReplies(); }
    // Held, nothing is asked for, and replies are kept aside until it is known whether the
    // files they belong to are still the remote side's: a newer copy may answer them.
    void setHeld(bool held);
    // Ends the paste if a file it has still to finish is not the same in the newer list (or
    // if there is none to compare with): what it completed stays.
    void compareWith(const DescriptorList *newer);
    PasteFigures figures() const;

private:
    struct FileTask
    {
        std::uint32_t listIndex = 0;  // position in the list as received, folders counted
        std::uint32_t queryIndex = 0; // what its queries carry: the first equal entry's position
        FileSDK::FileDescriptorw descriptor;
        std::uint64_t size = 0;
        std::unique_ptr<KXFileStreamOperation> out;
        QString localPath;
        std::uint32_t streamId = 0; // one per file in the one-at-a-time exchange
        bool sized = false;
        std::uint64_t requested = 0; // bytes asked for, from the start of the file
        std::uint64_t saved = 0;
        std::vector<std::pair<std::uint64_t, std::uint32_t>> gaps; // what short replies left out
        qint64 carriedAskedAtMs = 0; // a short reply's range: the rest is due when the range was
        std::uint64_t chunks = 0;
        std::int64_t downloadCurrentIndex = 0;
    };
    struct Query
    {
        std::size_t file = 0; // in the download queue
        bool sizeQuery = false;
        std::uint64_t offset = 0;
        std::uint32_t length = 0;
        std::uint64_t serial = 0;
        bool waiting = false; // answered empty; asked again after the retry wait
        bool keptAside = false; // answered while held
        qint64 askedAtMs = 0; // on the session's clock: when the range was first asked for
    };

    bool pipelined() const { return m_window > 1; }
    bool sliceOver() const { return m_slice.elapsed() >= sliceMs; }
    void continueLater(void (PasteSession::*step)());
    void readList();
    void indexDuplicates();
    void checkTargets();
    void resolveConflicts();
    void checkSpace();
    QString stagedName(const QString &remoteName) const;
    QString freeName(QStringList parts, bool folder) const;
    QString shownName(const FileTask &file) const;
    void downloadNextFile();
    void pump();
    void closeSavedFiles();
    void setFolderTimes();
    void finishPaste();
    FileTask &task(std::size_t file) { return m_active[file - m_head]; }
    void startCurrentFile(std::size_t file);
    void sendContentRequest(std::size_t file);
    bool requestNextRange();
    void sendQuery(std::uint32_t streamId, const Query &query, const char *completionText);
    void scheduleRangeRetry(std::uint32_t streamId, std::uint64_t serial);
    void saveContentData(FileTask &file, const Query &query, const FileSDK::CliprdrFileContentsResponse &reply);
    bool finishCurrentFile(FileTask &file);
    void watchReplies();
    void replyTimedOut();
    std::uint32_t nextStreamId();
    std::uint32_t makeStreamId();

    ClipBoardManager &m_engine;
    const int m_window;
    const QString m_pasteBasePath;
    DescriptorList m_originFileDescriptorwList;
    ProgressCallback m_pastedProgressCallback;
    CompletionCallback m_callback;

    std::size_t m_listRead = 0;                          // entries read so far, in slices
    std::vector<std::pair<std::uint64_t, std::uint32_t>> m_entryHashes; // of the files, while the list is read
    std::vector<std::uint32_t> m_files;                  // the download queue: list positions of the files
    std::vector<std::uint32_t> m_queryIndexes;           // by file, where an entry repeats an earlier one
    std::vector<std::uint32_t> m_timedFolders;           // folders that carry a last-write time
    std::size_t m_foldersTimed = 0;

    // Names of the paste already taken in the chosen folder, found before the first byte.
    struct Conflict
    {
        std::uint32_t file = 0;
        kx::Existing what = kx::Existing::nothing;
        std::uint32_t depth = 0;
    };
    std::vector<Conflict> m_conflicts;
    std::size_t m_targetsChecked = 0;
    QSet<QString> m_takenNames;
    QStringList m_firstTaken;
    bool m_asking = false;
    bool m_replaceExisting = false;
    QHash<QString, QString> m_renamedFolders; // a folder of the paste whose name a file has
    QSet<QString> m_cleanedFolders;           // folders already rid of what crashed pastes left
    std::size_t m_skipped = 0;
    std::uint64_t m_filesSaved = 0, m_bytesSaved = 0, m_filesRenamed = 0, m_filesReplaced = 0;
    std::uint64_t m_bytesFree = 0;
    // Told false when the session goes: a modal question runs the event loop, and a newer
    // paste may replace this one meanwhile.
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);

    std::deque<FileTask> m_active; // the files from the head to the last started
    std::size_t m_head = 0;        // the file being downloaded: the first not finished
    std::size_t m_next = 0;        // the first file not started
    std::map<std::uint32_t, Query> m_outstanding;
    std::uint64_t m_querySerial = 0;
    std::uint32_t m_streamCounter = 0;
    std::uint64_t m_downloadTotalSize = 0;
    std::uint64_t m_alreadySavedTotalSize = 0;
    QString m_shownName; // the file the progress window names

    QElapsedTimer m_slice;
    bool m_continuing = false;
    bool m_held = false;
    qint64 m_heldSinceMs = 0;
    std::vector<FileSDK::CliprdrFileContentsResponse> m_keptAside; // one at most per query
    QTimer m_replyTimer; // a remote side that stops answering, or answers a range too slowly, ends the paste
    QElapsedTimer m_clock;
    int m_replyTimeoutMs = 0;
    bool m_ended = false;
};
