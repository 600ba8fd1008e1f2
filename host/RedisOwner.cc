#include "host/RedisOwner.h"

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace host {

namespace {

std::string firstLine( const std::string & file ) {
   std::ifstream stream( file );
   std::string line;
   std::getline( stream, line );
   return line;
}

// Clock ticks after boot, field 22 of proc(5)'s stat, of a process that runs; empty otherwise. The name
// before it, in parentheses, may hold anything.
std::string startOf( const std::string & pid ) {
   const auto stat = firstLine( "/proc/" + pid + "/stat" );
   std::size_t at = stat.rfind( ')' );
   if ( at == stat.npos || stat.substr( at, 3 ) == ") Z" ) {
      return {};
   }
   for ( int field = 2; field < 22 && at != stat.npos; ++field ) {
      at = stat.find( ' ', at + 1 );
   }
   return at == stat.npos ? std::string{} : stat.substr( at + 1, stat.find( ' ', at + 1 ) - at - 1 );
}

// Of processes that can see each other.
std::string place() {
   struct stat space {};
   stat( "/proc/self/ns/pid", &space );
   return fmt::format(
         "boot {}, namespace {}", firstLine( "/proc/sys/kernel/random/boot_id" ), space.st_ino );
}

} // namespace

std::string redisOwner() {
   char name[256] = {};
   gethostname( name, sizeof name - 1 );
   const auto pid = std::to_string( getpid() );
   return fmt::format( "{} process {} (started {}, {})", name, pid, startOf( pid ), place() );
}

bool redisOwnerHasEnded( std::string_view owner ) {
   constexpr std::string_view process = " process ", started = " (started ";
   const auto processAt = owner.rfind( process ), startedAt = owner.rfind( started );
   const auto placeAt = owner.find( ", ", startedAt );
   if ( processAt == owner.npos || startedAt == owner.npos || placeAt == owner.npos ||
         startedAt < processAt || owner.substr( placeAt + 2 ) != place() + ")" ) {
      return false;
   }
   const auto pidAt = processAt + process.size(), startAt = startedAt + started.size();
   const auto pid = owner.substr( pidAt, startedAt - pidAt );
   if ( pid.empty() || pid.find_first_not_of( "0123456789" ) != pid.npos ) {
      return false;
   }
   return startOf( std::string( pid ) ) != owner.substr( startAt, placeAt - startAt );
}

} // namespace host
