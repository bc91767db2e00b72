#pragma once

#include "TestAgent.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <optional>

// A certificate for 127.0.0.1 made at test time with the openssl command line, with one
// of the faults an agent's own certificate can have, or none: issued by an authority of
// its own (Tls::authority) that a test can trust. Nothing if openssl fails.
enum class CertificateFault { selfSigned, expired, notYetValid, none };
inline std::optional<TestAgent::Tls> makeCertificate(CertificateFault fault)
{
    QTemporaryDir dir;
    const char *dates = fault == CertificateFault::expired       ? "20200101000000Z 20200102000000Z"
                        : fault == CertificateFault::notYetValid ? "20400101000000Z 20410101000000Z"
                                                                 : "20200101000000Z 20400101000000Z";
    const QString key = QStringLiteral("openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ");
    // The agent's own key signs its certificate for 127.0.0.1, valid between the dates; or
    // an authority's key signs it, named for 127.0.0.1 as a browser would want it.
    const QString script = QStringLiteral("set -e\n")
        + key + QStringLiteral("-keyout agent.key -out agent.csr -subj '/CN=127.0.0.1' 2>/dev/null\n")
        + (fault == CertificateFault::none
               ? key + QStringLiteral("-x509 -keyout ca.key -out ca.pem -subj '/CN=test authority' -days 30 2>/dev/null\n"
                                      "echo subjectAltName=IP:127.0.0.1 > san.cnf\n"
                                      "openssl x509 -req -in agent.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 30 "
                                      "-extfile san.cnf -out agent.pem 2>/dev/null\n")
               : QStringLiteral("touch index.txt; echo 01 > serial\n"
                                "printf '[ca]\\ndefault_ca=c\\n[c]\\ndatabase=index.txt\\nnew_certs_dir=.\\nserial=serial\\n"
                                "default_md=sha256\\npolicy=p\\nunique_subject=no\\n[p]\\ncommonName=supplied\\n' > ca.cnf\n"
                                "set -- %1\n"
                                "openssl ca -batch -config ca.cnf -selfsign -keyfile agent.key -in agent.csr -out agent.pem "
                                "-startdate $1 -enddate $2 2>/dev/null\n")
                     .arg(QLatin1String(dates)))
        // What a user would pin: the fingerprint as openssl prints it.
        + QStringLiteral("openssl x509 -in agent.pem -noout -fingerprint -sha256 | cut -d= -f2 > fingerprint\n");
    QProcess shell;
    shell.setWorkingDirectory(dir.path());
    shell.start(QStringLiteral("sh"), {QStringLiteral("-c"), script});
    if (!shell.waitForFinished(60000) || shell.exitCode() != 0)
        return std::nullopt;
    const auto read = [&](const char *name) {
        QFile file(dir.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed() : QByteArray();
    };
    TestAgent::Tls tls;
    tls.certificate = QSslCertificate(read("agent.pem"), QSsl::Pem);
    tls.key = QSslKey(read("agent.key"), QSsl::Ec, QSsl::Pem);
    tls.fingerprint = QString::fromLatin1(read("fingerprint"));
    tls.authority = QSslCertificate(read("ca.pem"), QSsl::Pem);
    if (tls.certificate.isNull() || tls.key.isNull() || tls.fingerprint.size() != 95
        || (fault == CertificateFault::none) == tls.authority.isNull())
        return std::nullopt;
    return tls;
}
