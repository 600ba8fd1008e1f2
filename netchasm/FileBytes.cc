#include "netchasm/FileBytes.h"
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace netchasm {

std::optional< std::string > fileBytes(
      const std::string & path, std::size_t maxBytes, std::string & error ) {
   const auto systemError = [&] { error = std::generic_category().message( errno ); };
   // Non-blocking, so that a FIFO does not hold up the caller before it is recognised.
   const int fd = ::open( path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY );
   if ( fd < 0 ) {
      systemError();
      return std::nullopt;
   }
   std::optional< std::string > bytes;
   struct stat status {};
   if ( ::fstat( fd, &status ) != 0 ) {
      systemError();
   } else if ( !S_ISREG( status.st_mode ) ) {
      error = "not a regular file";
   } else {
      bytes.emplace();
      char piece[16384];
      ssize_t got = 0;
      while ( bytes->size() <= maxBytes && ( got = ::read( fd, piece, sizeof( piece ) ) ) > 0 )
         bytes->append( piece, static_cast< std::size_t >( got ) );
      if ( got < 0 ) {
         systemError();
         bytes.reset();
      } else if ( bytes->size() > maxBytes ) {
         error = fmt::format( "larger than {} bytes", maxBytes );
         bytes.reset();
      }
   }
   ::close( fd );
   return bytes;
}

} // namespace netchasm
