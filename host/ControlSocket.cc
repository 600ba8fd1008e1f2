#include "host/ControlSocket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace host {

namespace {

std::string failed( const std::string & what ) {
   return fmt::format( "{}: {}", what, std::strerror( errno ) );
}

// Whether somebody listens at the address. Only a socket that refuses is a dead host's.
bool answers( const sockaddr_un & address ) {
   const int fd = socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
   if ( fd < 0 ) {
      return true;
   }
   const bool refused = connect( fd, reinterpret_cast<const sockaddr *>( &address ), sizeof address ) != 0 &&
                        errno == ECONNREFUSED;
   close( fd );
   return !refused;
}

} // namespace

ControlSocket::~ControlSocket() {
   if ( fd_ >= 0 ) {
      close( fd_ );
   }
   if ( !path_.empty() ) {
      unlink( path_.c_str() );
   }
   if ( lockFd_ >= 0 ) {
      close( lockFd_ );
   }
}

int ControlSocket::fdTake() {
   return std::exchange( fd_, -1 );
}

std::optional<std::string> ControlSocket::open( const std::string & path ) {
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   if ( path.empty() || path.size() >= sizeof address.sun_path ) {
      return fmt::format(
            "socket path \"{}\" is empty or longer than {} bytes", path, sizeof address.sun_path - 1 );
   }
   std::memcpy( address.sun_path, path.data(), path.size() );

   const auto directory = std::filesystem::path( path ).parent_path();
   std::error_code error;
   if ( !directory.empty() && !std::filesystem::create_directories( directory, error ) && error ) {
      return fmt::format( "cannot make the directory {}: {}", directory.string(), error.message() );
   }
   const auto lockPath = path + ".lock";
   lockFd_ = ::open( lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600 );
   if ( lockFd_ < 0 ) {
      return failed( "cannot open " + lockPath );
   }
   if ( flock( lockFd_, LOCK_EX | LOCK_NB ) != 0 ) {
      return errno == EWOULDBLOCK ? "another host is running on the socket " + path
                                  : failed( "cannot lock " + lockPath );
   }
   struct stat found {};
   if ( lstat( path.c_str(), &found ) == 0 ) {
      if ( !S_ISSOCK( found.st_mode ) ) {
         return path + " is in the way: it is no socket";
      }
      if ( answers( address ) ) {
         return "another program listens on " + path;
      }
      unlink( path.c_str() );
   }
   fd_ = socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
   if ( fd_ < 0 ) {
      return failed( "cannot make a socket" );
   }
   // The mode holds from the first moment; nothing else of this process makes files yet.
   const auto mask = umask( 0117 );
   const int bound = bind( fd_, reinterpret_cast<const sockaddr *>( &address ), sizeof address );
   umask( mask );
   if ( bound != 0 ) {
      return failed( "cannot bind the socket " + path );
   }
   path_ = path;
   if ( listen( fd_, SOMAXCONN ) != 0 ) {
      return failed( "cannot listen on the socket " + path );
   }
   return std::nullopt;
}

} // namespace host
