#include "netchasm/TlsConnection.h"
#include <cerrno>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <system_error>

namespace netchasm {

namespace {

/// Never freed: checks may run until the very end of the process.
const BIO_METHOD * socketMethod() {
   static const BIO_METHOD * const method = [] {
      BIO_METHOD * m = BIO_meth_new( BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "check" );
      BIO_meth_set_read_ex( m, &TlsConnection::bioRead );
      BIO_meth_set_write_ex( m, &TlsConnection::bioWrite );
      BIO_meth_set_ctrl( m, &TlsConnection::bioControl );
      return m;
   }();
   return method;
}

} // namespace

bool TlsTicket::fits(
      const std::shared_ptr< const TlsContext > & wanted, const HMIPAddress & peer, TimePoint now ) const {
   return session && context == wanted && address == peer && now - fullHandshake < maxAge;
}

TlsConnection::TlsConnection( SocketCalls & calls ) : calls_{ calls } {}

TlsConnection::~TlsConnection() {
   SSL_free( ssl_ );
}

bool TlsConnection::begin( const std::shared_ptr< const TlsContext > & context, int fd,
      const HMIPAddress & peer, TlsTicket & ticket, TimePoint now ) {
   ERR_clear_error();
   ssl_ = SSL_new( context->get() );
   BIO * const bio = ssl_ ? BIO_new( socketMethod() ) : nullptr;
   if ( !bio ) {
      SSL_free( ssl_ );
      ssl_ = nullptr;
      return false;
   }
   BIO_set_data( bio, this );
   BIO_set_init( bio, 1 );
   SSL_set_bio( ssl_, bio, bio );
   SSL_set_app_data( ssl_, this );
   SSL_set_connect_state( ssl_ );
   fd_ = fd;
   ended_ = false;
   out_.clear();
   sent_ = 0;
   received_ = 0;
   error_.clear();
   ticket_ = &ticket;
   context_ = context;
   peer_ = peer;
   began_ = now;
   if ( context->verifyPeer() ) {
      const std::size_t length = peer.family() == HMIPAddress::Family::ipv4 ? 4 : 16;
      if ( X509_VERIFY_PARAM_set1_ip( SSL_get0_param( ssl_ ), peer.bytes().data(), length ) != 1 )
         return false;
   }
   return !ticket.fits( context, peer, now ) || SSL_set_session( ssl_, ticket.session.get() ) == 1;
}

TlsConnection::Step TlsConnection::handshake() {
   if ( const Step step = flush(); step != Step::done )
      return step;
   ERR_clear_error();
   const int result = SSL_do_handshake( ssl_ );
   if ( result == 1 )
      return Step::done;
   const Step step = failure( result );
   // What is left to say is the next flight, or the alert that explains a failure.
   const Step sent = flush();
   return step == Step::wait && sent != Step::done ? sent : step;
}

TlsConnection::Step TlsConnection::send( std::string_view bytes ) {
   ERR_clear_error(); // of another connection of this thread: SSL_get_error() would take it for ours
   const int result = SSL_write( ssl_, bytes.data(), static_cast< int >( bytes.size() ) );
   return result > 0 ? flush() : failure( result );
}

TlsConnection::Step TlsConnection::receive( char * bytes, std::size_t size, std::size_t & got ) {
   got = 0;
   ERR_clear_error();
   const int result = SSL_read_ex( ssl_, bytes, size, &got );
   return result == 1 ? Step::done : failure( result );
}

TlsConnection::Step TlsConnection::flush() {
   while ( sent_ < out_.size() ) {
      const ssize_t n = calls_.send( fd_, out_.data() + sent_, out_.size() - sent_ );
      if ( n < 0 ) {
         if ( errno == ENOBUFS || errno == ENOMEM )
            return Step::noBuffer;
         return errno == EAGAIN || errno == EINTR ? Step::wait : Step::reset;
      }
      sent_ += static_cast< std::size_t >( n );
   }
   out_.clear();
   sent_ = 0;
   return Step::done;
}

TlsConnection::Step TlsConnection::failure( int result ) {
   switch ( SSL_get_error( ssl_, result ) ) {
   case SSL_ERROR_WANT_READ:
   case SSL_ERROR_WANT_WRITE:
      return Step::wait;
   case SSL_ERROR_ZERO_RETURN:
      return Step::closed;
   case SSL_ERROR_SYSCALL:
      ERR_clear_error();
      return ended_ ? Step::closed : Step::reset;
   default:
      break;
   }
   if ( const long verdict = SSL_get_verify_result( ssl_ ); context_->verifyPeer() && verdict != X509_V_OK ) {
      error_ = X509_verify_cert_error_string( verdict );
      ERR_clear_error();
      return Step::untrusted;
   }
   if ( ended_ ) {
      ERR_clear_error();
      return Step::closed;
   }
   error_ = tlsErrorText();
   return Step::failed;
}

void TlsConnection::end( bool sound ) {
   if ( ssl_ ) {
      // Quiet: only marks the connection as ended in order, without which its session counts as broken.
      if ( sound )
         SSL_shutdown( ssl_ );
      SSL_free( ssl_ );
      ssl_ = nullptr;
   }
   if ( !sound && ticket_ )
      ticket_->session.reset();
   ticket_ = nullptr;
   context_.reset();
}

int TlsConnection::onNewSession( SSL * ssl, SSL_SESSION * session ) {
   auto & self = *static_cast< TlsConnection * >( SSL_get_app_data( ssl ) );
   if ( !self.ticket_ || !SSL_SESSION_is_resumable( session ) )
      return 0;
   // TLS 1.3 tickets serve once, so a resumed handshake brings the next one; the age counts from the full
   // handshake.
   TlsTicket & ticket = *self.ticket_;
   ticket.session.reset( session );
   if ( SSL_session_reused( ssl ) )
      return 1;
   ticket.context = self.context_;
   ticket.address = self.peer_;
   ticket.fullHandshake = self.began_;
   return 1;
}

int TlsConnection::bioRead( BIO * bio, char * bytes, std::size_t size, std::size_t * got ) {
   auto & self = *static_cast< TlsConnection * >( BIO_get_data( bio ) );
   BIO_clear_retry_flags( bio );
   *got = 0;
   if ( self.received_ > maxReceivedBytes )
      return -1;
   const ssize_t n = self.calls_.receive( self.fd_, bytes, size );
   if ( n > 0 ) {
      *got = static_cast< std::size_t >( n );
      self.received_ += *got;
      return 1;
   }
   if ( n < 0 && ( errno == EAGAIN || errno == EINTR ) )
      BIO_set_retry_read( bio );
   self.ended_ = n == 0;
   return n < 0 ? -1 : 0;
}

long TlsConnection::bioControl( BIO * bio, int command, long, void * ) {
   switch ( command ) {
   case BIO_CTRL_EOF:
      return static_cast< TlsConnection * >( BIO_get_data( bio ) )->ended_ ? 1 : 0;
   case BIO_CTRL_FLUSH:
      return 1;
   default:
      return 0;
   }
}

int TlsConnection::bioWrite( BIO * bio, const char * bytes, std::size_t size, std::size_t * written ) {
   auto & self = *static_cast< TlsConnection * >( BIO_get_data( bio ) );
   self.out_.append( bytes, size );
   *written = size;
   return 1;
}

} // namespace netchasm
