#include "TestCertificates.h"
#include <csignal>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdexcept>

namespace {

void require( bool good ) {
   if ( !good )
      throw std::runtime_error( "no test certificate" );
}

template< class Write >
std::string pemText( Write write ) {
   const std::unique_ptr< BIO, int ( * )( BIO * ) > bio{ BIO_new( BIO_s_mem() ), BIO_free };
   require( write( bio.get() ) == 1 );
   const char * bytes = nullptr;
   const long size = BIO_get_mem_data( bio.get(), &bytes );
   return { bytes, static_cast< std::size_t >( size ) };
}

void extend( X509 * certificate, X509 * issuer, int nid, const std::string & value ) {
   X509V3_CTX context;
   X509V3_set_ctx( &context, issuer, certificate, nullptr, nullptr, 0 );
   X509_EXTENSION * const extension = X509V3_EXT_conf_nid( nullptr, &context, nid, value.c_str() );
   require( extension && X509_add_ext( certificate, extension, -1 ) == 1 );
   X509_EXTENSION_free( extension );
}

} // namespace

TestCertificate::TestCertificate( const Make & make )
      : key{ EVP_EC_gen( "P-256" ), EVP_PKEY_free },
        certificate{ X509_new(), X509_free } {
   static long serial = 1;
   X509 * const x = certificate.get();
   X509 * const issuer = make.issuer ? make.issuer->certificate.get() : x;
   X509_set_version( x, X509_VERSION_3 );
   ASN1_INTEGER_set( X509_get_serialNumber( x ), ++serial );
   X509_gmtime_adj( X509_getm_notBefore( x ), make.begins );
   X509_gmtime_adj( X509_getm_notAfter( x ), make.ends );
   X509_set_pubkey( x, key.get() );
   const std::string name = make.issuer ? "server" : "test CA " + std::to_string( serial );
   X509_NAME_add_entry_by_txt( X509_get_subject_name( x ), "CN", MBSTRING_ASC,
         reinterpret_cast< const unsigned char * >( name.c_str() ), -1, -1, 0 );
   X509_set_issuer_name( x, X509_get_subject_name( issuer ) );
   extend( x, issuer, NID_basic_constraints, make.issuer ? "CA:FALSE" : "critical,CA:TRUE" );
   if ( !make.ip.empty() )
      extend( x, issuer, NID_subject_alt_name, "IP:" + make.ip );
   require( X509_sign( x, make.issuer ? make.issuer->key.get() : key.get(), EVP_sha256() ) > 0 );
}

std::string TestCertificate::pem() const {
   return pemText( [this]( BIO * bio ) { return PEM_write_bio_X509( bio, certificate.get() ); } );
}

std::string TestCertificate::keyPem() const {
   return pemText( [this]( BIO * bio ) {
      return PEM_write_bio_PrivateKey( bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr );
   } );
}

std::shared_ptr< SSL_CTX > serverContext( const TestCertificate & own, const TestCertificate * clientCa ) {
   std::shared_ptr< SSL_CTX > context{ SSL_CTX_new( TLS_server_method() ), SSL_CTX_free };
   require( SSL_CTX_use_certificate( context.get(), own.certificate.get() ) == 1 &&
            SSL_CTX_use_PrivateKey( context.get(), own.key.get() ) == 1 );
   const unsigned char id[] = "test";
   SSL_CTX_set_session_id_context( context.get(), id, sizeof( id ) );
   if ( clientCa ) {
      X509_STORE_add_cert( SSL_CTX_get_cert_store( context.get() ), clientCa->certificate.get() );
      SSL_CTX_set_verify( context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr );
   }
   return context;
}

TestServer::Handler overTls( std::shared_ptr< SSL_CTX > context, std::function< void( SSL * ) > serve ) {
   ::signal( SIGPIPE, SIG_IGN ); // OpenSSL's own socket BIO writes with plain write()
   return [context, serve]( int fd ) {
      const std::unique_ptr< SSL, void ( * )( SSL * ) > ssl{ SSL_new( context.get() ), SSL_free };
      SSL_set_fd( ssl.get(), fd );
      if ( SSL_accept( ssl.get() ) == 1 )
         serve( ssl.get() );
   };
}

bool answerTls( SSL * ssl, const std::string & reply ) {
   char request[4096];
   if ( SSL_read( ssl, request, sizeof( request ) ) <= 0 )
      return false;
   for ( const char & c : reply )
      SSL_write( ssl, &c, 1 );
   return true;
}
