#include "hmctl/Output.h"

#include "hmctl/Client.h"
#include "hmctl/Terminal.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace hmctl {

StandardOutput::StandardOutput() : terminal_( isatty( STDOUT_FILENO ) ) {}

void StandardOutput::bytesWrite( std::string_view bytes ) {
   if ( std::fwrite( bytes.data(), 1, bytes.size(), stdout ) != bytes.size() || std::fflush( stdout ) != 0 ) {
      throw Refused( std::string( "standard output: " ) + std::strerror( errno ) );
   }
}

void StandardOutput::write( std::string_view text ) {
   bytesWrite( terminal_ ? terminalText( text ) : text );
}

void StandardOutput::redraw( const std::string & text ) {
   if ( !terminal_ ) {
      write( text );
      return;
   }
   const auto size = terminalSize();
   std::string screen = drawn_ ? "\x1b[H" : "\x1b[H\x1b[2J";
   drawn_ = true;
   const auto safe = terminalText( text );
   std::string_view rest = safe;
   std::size_t row = 1;
   for ( ; !rest.empty() && row < size.rows; ++row ) {
      const auto line = rest.substr( 0, rest.find( '\n' ) );
      rest.remove_prefix( std::min( line.size() + 1, rest.size() ) );
      const bool cutHere = row + 1 == size.rows && !rest.empty();
      screen += cutHere ? "(more than this terminal shows)" : displayCut( line, size.columns );
      screen += "\x1b[K\n";
   }
   bytesWrite( screen + "\x1b[J" );
}

MatchOutput::MatchOutput( const std::string & pattern, Output & next ) : next_( next ) {
   if ( const int error = regcomp( &expression_, pattern.c_str(), REG_EXTENDED | REG_NOSUB ) ) {
      std::array<char, 256> reason{};
      regerror( error, &expression_, reason.data(), reason.size() );
      throw std::invalid_argument( "\"" + pattern + "\": " + reason.data() );
   }
}

MatchOutput::~MatchOutput() {
   regfree( &expression_ );
}

std::string MatchOutput::matching( std::string_view text ) {
   std::string passed;
   line_ += text;
   std::size_t begin = 0;
   for ( auto end = line_.find( '\n' ); end != line_.npos; end = line_.find( '\n', begin ) ) {
      const auto line = line_.substr( begin, end - begin );
      if ( regexec( &expression_, line.c_str(), 0, nullptr, 0 ) == 0 ) {
         passed += line + "\n";
      }
      begin = end + 1;
   }
   line_.erase( 0, begin );
   return passed;
}

void MatchOutput::write( std::string_view text ) {
   if ( const auto passed = matching( text ); !passed.empty() ) {
      next_.write( passed );
   }
}

void MatchOutput::redraw( const std::string & text ) {
   next_.redraw( matching( text ) );
}

void MatchOutput::end() {
   if ( !line_.empty() ) {
      write( "\n" );
   }
   next_.end();
}

} // namespace hmctl
