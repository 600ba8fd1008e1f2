#include "netchasm/TlsContext.h"
#include "netchasm/Config.h"
#include "netchasm/FileBytes.h"
#include "netchasm/TlsConnection.h"
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/pem.h>

namespace netchasm {

namespace {

constexpr std::size_t maxPemBytes = 16U << 20;

struct BioFree {
   void operator()( BIO * bio ) const { BIO_free( bio ); }
};
struct X509Free {
   void operator()( X509 * certificate ) const { X509_free( certificate ); }
};
struct KeyFree {
   void operator()( EVP_PKEY * key ) const { EVP_PKEY_free( key ); }
};
using CertificatePtr = std::unique_ptr< X509, X509Free >;

std::unique_ptr< BIO, BioFree > reader( const std::string & bytes ) {
   return std::unique_ptr< BIO, BioFree >{
         BIO_new_mem_buf( bytes.data(), static_cast< int >( bytes.size() ) ) };
}

/// Encrypted keys are refused instead of asking on a terminal.
int noPassword( char *, int, int, void * ) {
   return -1;
}

/// The file's bytes, or nothing in them when it cannot be read.
std::string bytesOrNothing( const std::string & path ) {
   std::string ignored;
   return path.empty() ? std::string{} : fileBytes( path, maxPemBytes, ignored ).value_or( std::string{} );
}

} // namespace

std::string tlsErrorText() {
   const unsigned long code = ERR_peek_last_error();
   ERR_clear_error();
   if ( code == 0 )
      return "no reason given";
   char text[256];
   ERR_error_string_n( code, text, sizeof( text ) );
   return text;
}

TlsContext::TlsContext( const std::string & caFile, const std::string & certFile, bool verifyPeer )
      : verifyPeer_{ verifyPeer } {
   error_ = load( caFile, certFile );
   if ( !error_.empty() )
      context_.reset();
   ERR_clear_error();
}

bool TlsContext::current( const std::string & caFile, const std::string & certFile ) const {
   return error_.empty() && ( !verifyPeer_ || bytesOrNothing( caFile ) == caBytes_ ) &&
          bytesOrNothing( certFile ) == certBytes_;
}

std::string TlsContext::load( const std::string & caFile, const std::string & certFile ) {
   context_.reset( SSL_CTX_new( TLS_client_method() ) );
   if ( !context_ )
      return "no TLS context: " + tlsErrorText();
   SSL_CTX * const context = context_.get();
   SSL_CTX_set_options( context, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION );
   // One receive a record would be two calls, header and rest.
   SSL_CTX_set_read_ahead( context, 1 );
   SSL_CTX_set_quiet_shutdown( context, 1 );
   SSL_CTX_set_session_cache_mode( context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL );
   SSL_CTX_sess_set_new_cb( context, &TlsConnection::onNewSession );
   SSL_CTX_set_verify( context, verifyPeer_ ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr );
   if ( verifyPeer_ ) {
      if ( std::string why = loadTrusted( caFile ); !why.empty() )
         return why;
   }
   return certFile.empty() ? std::string{} : loadClientCertificate( certFile );
}

std::string TlsContext::loadTrusted( const std::string & caFile ) {
   if ( caFile.empty() ) {
      SSL_CTX_set_default_verify_paths( context_.get() );
      return {};
   }
   std::string why;
   const auto bytes = fileBytes( caFile, maxPemBytes, why );
   if ( !bytes )
      return fmt::format( "CA file {}: {}", caFile, why );
   caBytes_ = *bytes;
   const auto in = reader( caBytes_ );
   X509_STORE * const trusted = SSL_CTX_get_cert_store( context_.get() );
   int count = 0;
   while (
         const CertificatePtr certificate{ PEM_read_bio_X509_AUX( in.get(), nullptr, noPassword, nullptr ) } )
      count += X509_STORE_add_cert( trusted, certificate.get() );
   const bool readToEnd = ERR_GET_REASON( ERR_peek_last_error() ) == PEM_R_NO_START_LINE;
   if ( count == 0 || !readToEnd )
      return fmt::format( "CA file {}: {}", caFile, readToEnd ? "no certificate in it" : tlsErrorText() );
   return {};
}

std::string TlsContext::loadClientCertificate( const std::string & certFile ) {
   std::string why;
   const auto bytes = fileBytes( certFile, maxPemBytes, why );
   if ( !bytes )
      return fmt::format( "certificate file {}: {}", certFile, why );
   certBytes_ = *bytes;
   const auto complain = [&]( const char * what ) {
      return fmt::format( "certificate file {}: {}: {}", certFile, what, tlsErrorText() );
   };
   auto in = reader( certBytes_ );
   const CertificatePtr own{ PEM_read_bio_X509_AUX( in.get(), nullptr, noPassword, nullptr ) };
   if ( !own || SSL_CTX_use_certificate( context_.get(), own.get() ) != 1 )
      return complain( "no usable certificate" );
   while ( CertificatePtr issuer{ PEM_read_bio_X509( in.get(), nullptr, noPassword, nullptr ) } ) {
      if ( SSL_CTX_add0_chain_cert( context_.get(), issuer.get() ) == 1 )
         static_cast< void >( issuer.release() );
   }
   ERR_clear_error();
   in = reader( certBytes_ );
   const std::unique_ptr< EVP_PKEY, KeyFree > key{
         PEM_read_bio_PrivateKey( in.get(), nullptr, noPassword, nullptr ) };
   if ( !key || SSL_CTX_use_PrivateKey( context_.get(), key.get() ) != 1 )
      return complain( "no usable private key for the certificate" );
   return {};
}

std::shared_ptr< const TlsContext > TlsContexts::forGroup( const HostGroup & group ) {
   const std::tuple key{ group.verifyPeer ? group.caFile : std::string{}, group.certFile, group.verifyPeer };
   const auto it = entries_.find( key );
   if ( it != entries_.end() ) {
      Entry & entry = it->second;
      if ( entry.reload == reload_ || entry.context->current( group.caFile, group.certFile ) ) {
         entry.reload = reload_;
         return entry.context;
      }
   }
   auto context = std::make_shared< const TlsContext >( group.caFile, group.certFile, group.verifyPeer );
   entries_.insert_or_assign( key, Entry{ context, reload_ } );
   return context;
}

void TlsContexts::endReload() {
   std::erase_if( entries_, [this]( const auto & entry ) { return entry.second.reload != reload_; } );
}

} // namespace netchasm
