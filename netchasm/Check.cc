#include "netchasm/Check.h"
#include <algorithm>
#include <cerrno>
#include <sys/epoll.h>

namespace netchasm {

namespace {

Outcome answered() {
   return { HM_RESPONSE_ANSWERED, HM_REASON_NONE };
}
Outcome failed( HM_REASON reason, int systemError = 0 ) {
   return { HM_RESPONSE_FAILURE, reason, systemError };
}
Outcome ofThisMachine( const char * call, int systemError ) {
   return { HM_RESPONSE_NOT_CHECKED, HM_REASON_NO_VERDICT, systemError, call };
}

/// What an error before the connection stands says.
Outcome connectFailure( int error ) {
   const auto noConnection = [error]( HM_REASON reason ) {
      return Outcome{ HM_RESPONSE_CONNECT_FAILURE, reason, error };
   };
   switch ( error ) {
   case ECONNREFUSED:
      return noConnection( HM_REASON_CONNECT_REFUSED );
   case ENETUNREACH:
   case EHOSTUNREACH:
   case ENETDOWN:
   case EHOSTDOWN:
   case ENONET:
   case ENOPROTOOPT: // ICMP says that the protocol is not served
      return noConnection( HM_REASON_UNREACHABLE );
   case ETIMEDOUT:
      return noConnection( HM_REASON_CONNECT_TIMEOUT );
   case EADDRNOTAVAIL: // no source port left
   case EADDRINUSE:
   case EAGAIN:
   case ENOBUFS:
   case ENOMEM:
   case EMFILE:
   case ENFILE:
   case EACCES: // refused by this machine's own packet filter
   case EPERM:
      return ofThisMachine( "connect", error );
   default:
      return noConnection( HM_REASON_CONNECT_ERROR );
   }
}

} // namespace

Check::~Check() {
   if ( fd_ >= 0 )
      context_.calls.close( fd_ );
}

std::optional< Outcome > Check::start( Host & host, TimePoint now ) {
   host_ = &host;
   group_ = host.group;
   started_ = now;
   lostBefore_ = context_.lost;
   authority_ = host.authority;
   sent_ = 0;
   response_.reset();
   state_ = State::connecting;
   if ( group_->port == 0 )
      return failed( HM_REASON_SETTINGS );
   if ( overTls() && !group_->tls->error().empty() )
      return failed( HM_REASON_TLS_FILES );
   if ( fd_ < 0 ) {
      if ( auto fault = openSocket() )
         return fault;
   }
   SocketCalls & calls = context_.calls;
   if ( mark_ != host.target.mark ) {
      if ( calls.setMark( fd_, host.target.mark ) != 0 )
         return ofThisMachine( "setsockopt(SO_MARK)", errno );
      mark_ = host.target.mark;
   }
   if ( calls.connect( fd_, SocketAddress{ host.target.address, group_->port } ) != 0 &&
         errno != EINPROGRESS )
      return connectFailure( errno );
   return std::nullopt;
}

std::optional< Outcome > Check::openSocket() {
   SocketCalls & calls = context_.calls;
   const HMIPAddress::Family family = host_->target.address.family();
   // A source of the other family cannot apply; the kernel then chooses.
   const bool forSource = group_->source.family() == family;
   fd_ = calls.open( family == HMIPAddress::Family::ipv4 ? AF_INET : AF_INET6, forSource );
   if ( fd_ < 0 )
      return ofThisMachine( "socket", errno );
   mark_ = 0;
   epoll_event event{};
   event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
   event.data.ptr = this;
   const char * call = "epoll_ctl";
   if ( ::epoll_ctl( context_.epoll, EPOLL_CTL_ADD, fd_, &event ) == 0 ) {
      call = "bind";
      if ( !forSource || calls.bindSource( fd_, SocketAddress{ group_->source, 0 } ) == 0 )
         return std::nullopt;
   }
   const Outcome fault = ofThisMachine( call, errno );
   calls.close( fd_ );
   fd_ = -1;
   return fault;
}

Outcome Check::blamed( const Outcome & outcome ) {
   const bool unheard =
         outcome.response == HM_RESPONSE_CONNECT_FAILURE || outcome.response == HM_RESPONSE_TIMEOUT;
   if ( !unheard || fd_ < 0 || group_->source.family() != host_->target.address.family() )
      return outcome;
   // A bound socket does not notice: its connect finds no route (IPv4) or no answer (IPv6). Only bind()
   // tells.
   context_.calls.close( fd_ );
   fd_ = -1;
   return openSocket().value_or( outcome );
}

std::optional< Outcome > Check::onEvents( std::uint32_t events ) {
   switch ( state_ ) {
   case State::idle:
      return std::nullopt;
   case State::connecting:
      return connected( events );
   case State::handshaking:
      return handshake( events );
   case State::sending:
      return resumeSending( events );
   case State::receiving:
      return receive( events );
   }
   return std::nullopt;
}

/// Notes the time for whoever asked for this check.
void Check::reached( TimePoint Probe::*phase ) {
   if ( host_->probe && ( *host_->probe ).*phase == TimePoint{} )
      ( *host_->probe ).*phase = Clock::now();
}

std::optional< Outcome > Check::connected( std::uint32_t events ) {
   if ( events & ( EPOLLERR | EPOLLHUP ) ) {
      int error = 0;
      socklen_t size = sizeof( error );
      ::getsockopt( fd_, SOL_SOCKET, SO_ERROR, &error, &size );
      // A reset or an end that came after the handshake proves that there was one.
      const bool was = error == ECONNRESET || error == EPIPE;
      if ( !was )
         return error == 0 ? std::nullopt : std::optional{ connectFailure( error ) };
      if ( group_->protocol == Protocol::tcp )
         return answered();
      return failed( overTls() ? HM_REASON_TLS_HANDSHAKE : HM_REASON_REPLY_CLOSED, error );
   }
   if ( !( events & EPOLLOUT ) )
      return std::nullopt;
   reached( &Probe::connected );
   switch ( group_->protocol ) {
   case Protocol::tcp:
      return answered();
   case Protocol::http:
      state_ = State::sending;
      return sendRequest( events );
   case Protocol::https:
      if ( !tls_ )
         tls_ = std::make_unique< TlsConnection >( context_.calls );
      state_ = State::handshaking;
      if ( !tls_->begin( group_->tls, fd_, host_->target.address, host_->ticket, started_ ) )
         return ofThisMachine( "SSL_new", ENOMEM );
      return handshake( events );
   }
   return std::nullopt;
}

std::optional< Outcome > Check::handshake( std::uint32_t events ) {
   switch ( tls_->handshake() ) {
   case TlsConnection::Step::done:
      reached( &Probe::secured );
      state_ = State::sending;
      return sendRequest( events );
   case TlsConnection::Step::wait:
      return std::nullopt;
   case TlsConnection::Step::untrusted:
      return failed( HM_REASON_TLS_VERIFY );
   case TlsConnection::Step::noBuffer:
      return ofThisMachine( "send", ENOBUFS );
   case TlsConnection::Step::closed:
   case TlsConnection::Step::reset:
   case TlsConnection::Step::failed:
      break;
   }
   return failed( HM_REASON_TLS_HANDSHAKE );
}

std::string_view Check::request() {
   std::string & text = context_.scratch;
   text = group_->requestHead;
   text += authority_;
   text += group_->requestTail;
   return text;
}

std::optional< Outcome > Check::sendRequest( std::uint32_t events ) {
   const std::string_view whole = request();
   if ( overTls() ) {
      return sentTls( tls_->send( whole ), events );
   }
   const std::string_view rest = whole.substr( sent_ );
   const ssize_t n = context_.calls.send( fd_, rest.data(), rest.size() );
   if ( n < 0 ) {
      if ( errno == EAGAIN || errno == EINTR )
         return std::nullopt;
      if ( errno == ENOBUFS || errno == ENOMEM )
         return ofThisMachine( "send", errno );
      return failed( HM_REASON_REPLY_CLOSED, errno );
   }
   sent_ += static_cast< std::size_t >( n );
   if ( sent_ < whole.size() )
      return std::nullopt;
   state_ = State::receiving;
   // Edge-triggered: what came before the request was sent is announced by these events and by no later ones.
   return events & ( EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR ) ? receive( events ) : std::nullopt;
}

std::optional< Outcome > Check::resumeSending( std::uint32_t events ) {
   if ( !overTls() )
      return sendRequest( events );
   return sentTls( tls_->flush(), events );
}

std::optional< Outcome > Check::sentTls( TlsConnection::Step step, std::uint32_t events ) {
   switch ( step ) {
   case TlsConnection::Step::done:
      state_ = State::receiving;
      return receive( events );
   case TlsConnection::Step::wait:
      return std::nullopt;
   case TlsConnection::Step::noBuffer:
      return ofThisMachine( "send", ENOBUFS );
   case TlsConnection::Step::closed:
   case TlsConnection::Step::reset:
   case TlsConnection::Step::untrusted:
   case TlsConnection::Step::failed:
      break;
   }
   return failed( HM_REASON_REPLY_CLOSED );
}

std::optional< Outcome > Check::receive( std::uint32_t events ) {
   if ( overTls() )
      return receiveTls();
   if ( !( events & ( EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR ) ) )
      return std::nullopt;
   return receivePlain( events );
}

std::optional< Outcome > Check::receivePlain( std::uint32_t events ) {
   while ( true ) {
      const ssize_t n = context_.calls.receive( fd_, context_.received.get(), CheckContext::receiveBytes );
      if ( n > 0 ) {
         reached( &Probe::firstByte );
         response_.feed( { context_.received.get(), static_cast< std::size_t >( n ) } );
         if ( auto outcome = judge() )
            return outcome;
         // A short read has emptied the socket; only an announced end may still be behind it.
         if ( static_cast< std::size_t >( n ) < CheckContext::receiveBytes &&
               !( events & ( EPOLLRDHUP | EPOLLHUP | EPOLLERR ) ) )
            return std::nullopt;
      } else if ( n == 0 ) {
         response_.endOfStream();
         return endOfReply();
      } else if ( errno == EAGAIN || errno == EINTR ) {
         return std::nullopt;
      } else {
         return failed( HM_REASON_REPLY_CLOSED, errno );
      }
   }
}

std::optional< Outcome > Check::receiveTls() {
   while ( true ) {
      std::size_t got = 0;
      switch ( tls_->receive( context_.received.get(), CheckContext::receiveBytes, got ) ) {
      case TlsConnection::Step::done:
         reached( &Probe::firstByte );
         response_.feed( { context_.received.get(), got } );
         if ( auto outcome = judge() )
            return outcome;
         break;
      case TlsConnection::Step::wait:
         if ( const auto rest = tls_->flush(); rest == TlsConnection::Step::noBuffer )
            return ofThisMachine( "send", ENOBUFS );
         else if ( rest == TlsConnection::Step::reset )
            return failed( HM_REASON_REPLY_CLOSED );
         return std::nullopt;
      case TlsConnection::Step::closed:
         response_.endOfStream();
         return endOfReply();
      case TlsConnection::Step::reset:
      case TlsConnection::Step::noBuffer:
         return failed( HM_REASON_REPLY_CLOSED );
      case TlsConnection::Step::untrusted:
      case TlsConnection::Step::failed:
         // TLS 1.3: a server that wants another client certificate says so only after the handshake.
         return failed( response_.started() ? HM_REASON_REPLY_CLOSED : HM_REASON_TLS_HANDSHAKE );
      }
   }
}

std::optional< Outcome > Check::judge() {
   switch ( response_.state() ) {
   case HttpResponse::State::incomplete:
      return std::nullopt;
   case HttpResponse::State::complete:
      return answered();
   case HttpResponse::State::malformed:
      return failed( HM_REASON_REPLY_MALFORMED );
   case HttpResponse::State::tooLarge:
      return failed( HM_REASON_REPLY_TOO_LARGE );
   }
   return std::nullopt;
}

Outcome Check::endOfReply() {
   return judge().value_or( failed( HM_REASON_REPLY_CLOSED ) );
}

Outcome Check::timedOut() const {
   if ( lost() > stallBound )
      return ofThisMachine( "loop", ETIME );
   switch ( state_ ) {
   case State::idle:
   case State::connecting:
      return { HM_RESPONSE_CONNECT_FAILURE, HM_REASON_CONNECT_TIMEOUT };
   case State::handshaking:
      return { HM_RESPONSE_TIMEOUT, HM_REASON_TLS_TIMEOUT };
   case State::sending:
   case State::receiving:
      break;
   }
   return { HM_RESPONSE_TIMEOUT, HM_REASON_REPLY_TIMEOUT };
}

TimePoint Check::deadline() const {
   const Duration limit = state_ == State::connecting ? group_->connectTimeout : group_->timeout;
   return started_ + limit + std::min< Duration >( lost(), stallBound );
}

bool Check::release( bool answered ) {
   if ( tls_ )
      tls_->end( answered || state_ == State::receiving );
   if ( response_.body().size() > keptBodyBytes )
      response_.shrink();
   state_ = State::idle;
   host_ = nullptr;
   group_.reset();
   return fd_ >= 0 && context_.calls.disconnect( fd_ ) == 0;
}

} // namespace netchasm
