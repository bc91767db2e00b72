#pragma once

#include "filesdk.pb.h"

#include <QList>
#include <QStringList>
#include <QUrl>

#include <cstdint>
#include <optional>

class KXFileManager;

// What the local copy offers the remote side: the copied items, and a descriptor per file
// and folder (folders walked, pre-order, links inside them left out), with the local item
// behind each descriptor at the same index. One local copy is walked once, when the
// remote side first asks for it; every later request gets that same list.
class CopyOffer
{
public:
    explicit CopyOffer(KXFileManager &files) : m_files(files) {}

    // A new local copy: walked at the next request. Until then the last list stays, for
    // the queries of the remote side that still refer to it.
    void setFileList(const QList<QUrl> &urls) { m_fileList = urls, m_walkDue = true; }
    const QList<QUrl> &fileList() const { return m_fileList; }
    // Whatever lies on this device (the remote files, served back) is left out: reading it
    // would wait on ourselves.
    void setMountDevice(std::uint64_t device) { m_mountDevice = device; }

    // Walks the copied items if this copy was not walked yet; true when it did.
    bool describe();

    const QList<FileSDK::FileDescriptorw> &uploadCopyQueue() const { return m_uploadCopyQueue; }
    QList<FileSDK::FileDescriptorw> &uploadCopyQueue() { return m_uploadCopyQueue; }
    const QList<QUrl> &uploadCopyUrlList() const { return m_uploadCopyUrlList; }
    std::int64_t uploadQueueNum() const { return m_uploadQueueNum; }

    // The path from one folder to an item, components joined with "//" as the remote
    // side expects them.
    static QString relativePath(const QString &from, const QString &to);

private:
    void appendRootFileDescriptor(const QUrl &url);   // url: where the copied item is, its link resolved
    void appendRootFolderDescriptor(const QUrl &url);
    void appendDirectoryDescriptors(const QString &path);
    std::optional<QStringList> listFolder(const QString &path);
    FileSDK::FileDescriptorw makeDescriptor(const QString &path, bool folder, bool topLevel = false); // topLevel: a folder the user copied
    QString remoteName(const QString &itemPath) const;
    bool isInMount(const QString &path) const;

    KXFileManager &m_files;
    QList<QUrl> m_fileList;
    QList<FileSDK::FileDescriptorw> m_uploadCopyQueue;
    QList<QUrl> m_uploadCopyUrlList;
    std::int64_t m_uploadQueueNum = 0;
    std::optional<QUrl> m_rootDirectory; // as copied: it names the item on the remote side
    QString m_rootPath;                  // where it is: a copied link, resolved
    bool m_walkDue = false;
    std::uint64_t m_mountDevice = 0;
};
