#include "TestCertificate.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

std::optional<TestCertificate> makeSelfSignedCertificate()
{
    QTemporaryDir dir;
    if (!dir.isValid())
        return std::nullopt;
    const QString keyPath = dir.filePath(QStringLiteral("key.pem"));
    const QString certPath = dir.filePath(QStringLiteral("cert.pem"));
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"), QStringLiteral("rsa:2048"),
                   QStringLiteral("-nodes"), QStringLiteral("-keyout"), keyPath, QStringLiteral("-out"), certPath,
                   QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"),
                   QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1")});
    if (!openssl.waitForFinished(60000) || openssl.exitCode() != 0)
        return std::nullopt;
    QFile keyFile(keyPath);
    QFile certFile(certPath);
    if (!keyFile.open(QIODevice::ReadOnly) || !certFile.open(QIODevice::ReadOnly))
        return std::nullopt;
    TestCertificate result{QSslCertificate(certFile.readAll(), QSsl::Pem), QSslKey(keyFile.readAll(), QSsl::Rsa, QSsl::Pem)};
    if (result.certificate.isNull() || result.key.isNull())
        return std::nullopt;
    return result;
}
