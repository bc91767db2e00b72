#pragma once

#include "CertificatePin.h"

#include <QString>
#include <QStringList>

// The four connection values the host application passes, each as "key,value", the
// optional window: how many range queries a paste keeps outstanding (1 unless given), and
// the optional pin: the SHA-256 of the only certificate a wss agent may present, and the
// optional "paste,files": remote files pasted from the file manager.
struct LaunchArguments
{
    enum class Key { none, ip, port, token, cid, window, pin, paste };

    QString ipAdress;
    QString port;
    QString token;
    QString cid;
    int window = 1;
    CertificatePin pin;
    bool pasteFiles = false;

    // Every argument, argument 0 included, is tested; a later one of the same key wins.
    // The token is logged masked.
    static LaunchArguments read(const QStringList &arguments);
    void assignLaunchArgument(const QString &argument);
    static Key keyOf(const QString &argument);
    static QString valueAfterComma(const QString &argument, bool secret = false);
    static int windowValue(const QString &text);
    static CertificatePin pinValue(const QString &text);
};
