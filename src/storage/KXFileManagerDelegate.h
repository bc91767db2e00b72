#pragma once

#include <QUrl>

class KXFileManagerDelegate
{
public:
    virtual ~KXFileManagerDelegate() = default;
    virtual void folderChosen(const QUrl &url) = 0;
    virtual void folderChoiceCancelled() = 0;
};
