#include "hmctl/Client.h"

#include "hmctl/Interrupts.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace hmctl {

Client::Client( const std::string & socketPath ) : socketPath_( socketPath ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   if ( socketPath.empty() || socketPath.size() >= sizeof address.sun_path ) {
      throw NoHost( "socket path \"" + socketPath + "\" is empty or too long" );
   }
   std::memcpy( address.sun_path, socketPath.data(), socketPath.size() );
   fd_ = socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   if ( fd_ < 0 || connect( fd_, reinterpret_cast<const sockaddr *>( &address ), sizeof address ) != 0 ) {
      const std::string reason = std::strerror( errno );
      if ( fd_ >= 0 ) {
         close( fd_ );
      }
      throw NoHost( "no host at " + socketPath + ": " + reason );
   }
}

Client::~Client() {
   close( fd_ );
}

bool Client::send( const std::string & bytes ) {
   std::size_t sent = 0;
   while ( sent < bytes.size() ) {
      waitFor( fd_, POLLOUT );
      const auto size = ::send( fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT );
      if ( size < 0 && errno != EINTR && errno != EAGAIN ) {
         return false;
      }
      sent += size > 0 ? static_cast<std::size_t>( size ) : 0;
   }
   return true;
}

bool Client::alive() const {
   char byte = 0;
   return recv( fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT ) < 0 && errno == EAGAIN && input_.empty();
}

std::string Client::lineRead() {
   for ( ;; ) {
      if ( const auto end = input_.find( '\n', scanned_ ); end != input_.npos ) {
         auto line = input_.substr( 0, end );
         input_.erase( 0, end + 1 );
         scanned_ = 0;
         return line;
      }
      scanned_ = input_.size();
      waitFor( fd_, POLLIN );
      std::array<char, 64 * 1024> buffer;
      const auto size = recv( fd_, buffer.data(), buffer.size(), 0 );
      if ( size > 0 ) {
         input_.append( buffer.data(), static_cast<std::size_t>( size ) );
      } else if ( size == 0 || errno != EINTR ) {
         throw NoHost( "the host at " + socketPath_ + " went away" );
      }
   }
}

nlohmann::json Client::request( const nlohmann::json & request, const std::string & document,
      const std::function<void( const nlohmann::json &, const std::string & )> & each ) {
   std::string line;
   try {
      line = request.dump() + "\n";
   } catch ( const nlohmann::json::exception & ) {
      throw std::invalid_argument( "an argument is not UTF-8" );
   }
   // A host that refuses the request may close its side before it has read all of it: its reason is there to
   // read.
   if ( send( line ) ) {
      send( document );
   }
   for ( ;; ) {
      const auto text = lineRead();
      const auto answer = nlohmann::json::parse( text, nullptr, false );
      if ( !answer.is_object() ) {
         throw NoHost( "the host at " + socketPath_ + " does not speak the control protocol" );
      }
      if ( answer.contains( "done" ) ) {
         return answer;
      }
      if ( const auto refused = answer.find( "refused" ); refused != answer.end() && refused->is_array() ) {
         std::string reasons;
         for ( const auto & reason : *refused ) {
            reasons += ( reasons.empty() ? "" : "\n" ) +
                       ( reason.is_string() ? reason.get<std::string>() : reason.dump() );
         }
         throw Refused( reasons );
      }
      each( answer, text );
   }
}

} // namespace hmctl
