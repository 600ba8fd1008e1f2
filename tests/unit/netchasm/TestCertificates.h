#pragma once

#include "TestServer.h"
#include <memory>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <string>

/// A certificate with its key, made for one test.
struct TestCertificate {
   struct Make {
      std::string ip;                           ///< subject alternative name; empty: none
      const TestCertificate * issuer = nullptr; ///< none: signs itself, as a CA
      long begins = -3600;                      ///< seconds from now
      long ends = 3600;
   };
   explicit TestCertificate( const Make & make );

   std::string pem() const;
   std::string keyPem() const;

   std::shared_ptr< EVP_PKEY > key;
   std::shared_ptr< X509 > certificate;
};

/// A server's TLS settings. `clientCa`: clients must show a certificate of this CA.
std::shared_ptr< SSL_CTX > serverContext(
      const TestCertificate & own, const TestCertificate * clientCa = nullptr );

/// Speaks TLS; `serve` goes on once the handshake is done.
TestServer::Handler overTls( std::shared_ptr< SSL_CTX > context, std::function< void( SSL * ) > serve );
/// Reads a request and answers it with a record a byte. False: there was none.
bool answerTls( SSL * ssl, const std::string & reply = okReply() );
