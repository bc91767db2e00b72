#pragma once

#include <QSslCertificate>
#include <QSslKey>

#include <optional>

struct TestCertificate
{
    QSslCertificate certificate;
    QSslKey key;
};

// A fresh self-signed certificate for 127.0.0.1, made with the openssl command line;
// nothing if openssl is missing or fails.
std::optional<TestCertificate> makeSelfSignedCertificate();
