#pragma once

#include "KXFileFragment.h"
#include "UniqueFd.h"

#include <QByteArray>
#include <QCborMap>
#include <QList>
#include <QString>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

// Random access to one local file: created for writing a file that arrives from the
// remote side (its remote Windows-style path mapped under a base folder), or opened for
// reading a local file that the remote side fetches. Offsets and sizes are 64-bit.
class KXFileStreamOperation
{
public:
    KXFileStreamOperation() = default;
    KXFileStreamOperation(const KXFileStreamOperation &) = delete;
    KXFileStreamOperation &operator=(const KXFileStreamOperation &) = delete;

    static KXFileStreamOperation &sharedOperation();
    static QString fileKey();

    // write true: path is a remote relative path created under basePath (the downloads
    // folder when basePath is empty); write false: path is a full local path opened for
    // reading and basePath is ignored. Nothing is returned when the file is not there.
    static std::unique_ptr<KXFileStreamOperation> initFileOperationAtPath(const QString &path, bool write,
                                                                          const QString &basePath);
    static std::unique_ptr<KXFileStreamOperation> initFileOperationAtPath(const QString &path,
                                                                          std::int64_t fileSegmentSize,
                                                                          bool forReadOperation);

    static QString getMacPathFromWindowsPath(const QString &windowsPath, const QString &basePath);
    static QString getFullPathWithWindowsPath(const QString &windowsPath, const QString &basePath);
    // Opens every folder of the remote path beneath basePath, creating what is missing,
    // and returns the one the file goes into. Nothing when a component is a link or a
    // file (the folders made before it stay), or when the name does not fit the file
    // system (then nothing was made).
    static UniqueFd createFolder(const QString &windowsPath, const QString &basePath);
    // The folder at these components strictly beneath basePath, no link followed; nothing
    // if absent, and never basePath itself (no components, or only ".").
    static UniqueFd openFolderBeneath(const QString &basePath, const QStringList &components);
    static QString removeTrailingSlash(const QString &string);
    static QString cachesDirectory();
    static QString desktopDirectory();
    static QString downloadDirectory();

    bool getFileInfoAtPath(const QString &path);

    // Empty at or past the end of the file; nothing when no read handle is open or the
    // read failed.
    std::optional<QByteArray> readDateOffSet(std::uint64_t offset, std::uint64_t length) const;
    bool readDateOffSet(std::uint64_t offset, std::uint64_t length, std::string &data) const;
    // False when no write handle is open or not every byte could be written.
    bool writeDateOffSet(std::uint64_t offset, const QByteArray &data);

    void cutFileForFragments(std::int64_t segmentSize);
    std::optional<QByteArray> readDateOfFragment(const std::optional<KXFileFragment> &fragment) const;

    std::optional<QByteArray> readDataOfLength(std::uint64_t length);
    std::optional<QByteArray> readDataToEndOfFile();
    bool writeData(const QByteArray &data);
    void seekToFileOffset(std::uint64_t offset);
    std::uint64_t offsetInFile() const;
    std::uint64_t seekToEndOfFile();
    void closeFile();

    QCborMap encode() const;
    static std::unique_ptr<KXFileStreamOperation> decode(const QCborMap &archive);

    QString fileName;
    std::uint64_t fileSize = 0;
    QString filePath;
    QList<KXFileFragment> fileFragments;
    bool isReadOperation = false;
    std::optional<QString> basePath;

    // A file being written lives under a hidden name beside its target until it is
    // complete. commit puts it in place: onto its own name (replacing a file or link there
    // only when asked to), or else onto the first free "name (k)"; a folder is never
    // replaced. It gives the path it got, or nothing. A file never committed is removed
    // when the operation goes.
    std::optional<QString> commit(bool replace);
    void discard();
    QString partialPath() const;
    int folderDescriptor() const { return m_folderFd.get(); }
    ~KXFileStreamOperation() { discard(); }

    bool hasReadHandle() const { return m_readFd.valid(); }
    int writeDescriptor() const { return m_writeFd.get(); }
    bool hasWriteHandle() const { return m_writeFd.valid(); }

private:
    UniqueFd m_readFd;
    UniqueFd m_writeFd;
    UniqueFd m_folderFd;   // of the file being written
    QString m_partialName; // its hidden name there, until it is committed
    std::uint64_t m_device = 0, m_inode = 0; // the hidden file's, as journaled
};
