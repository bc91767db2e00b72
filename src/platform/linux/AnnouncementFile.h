#pragma once

#include "LatestAnnouncement.h"

#include <QByteArray>
#include <QString>

// The last announcement as a file in the runtime folder this user's companions share:
// one line, "<pid> <token>", the token drawn afresh each run, so that two runs never
// pass for each other. It is replaced whole (a temporary renamed onto it): a reader sees
// the old line or the new one. One file for each X display: Ctrl+V on one is never seen
// by the companions of another (a second desktop session, a test's virtual server).
class AnnouncementFile : public LatestAnnouncement
{
public:
    AnnouncementFile(const QString &folder, const QString &display);
    void claim() override;
    bool isOurs() const override;

    QString path() const { return m_path; }

private:
    QString m_folder;
    QString m_path;
    QByteArray m_identity;
};
