#include "hmctl/Pager.h"

#include "hmctl/Interrupts.h"

#include <algorithm>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace hmctl {

namespace {

// The terminal hands on each key at once and shows none of them.
class KeyMode {
 public:
   KeyMode() {
      tcgetattr( STDIN_FILENO, &before_ );
      auto keys = before_;
      keys.c_lflag &= ~static_cast<tcflag_t>( ICANON | ECHO );
      keys.c_cc[VMIN] = 1;
      keys.c_cc[VTIME] = 0;
      tcsetattr( STDIN_FILENO, TCSADRAIN, &keys );
   }
   ~KeyMode() { tcsetattr( STDIN_FILENO, TCSADRAIN, &before_ ); }
   KeyMode( const KeyMode & ) = delete;
   KeyMode & operator=( const KeyMode & ) = delete;

 private:
   termios before_{};
};

} // namespace

void Pager::write( std::string_view text ) {
   line_ += terminalText( text );
   std::size_t begin = 0;
   for ( auto end = line_.find( '\n' ); end != line_.npos; end = line_.find( '\n', begin ) ) {
      show( std::string_view( line_ ).substr( begin, end + 1 - begin ) );
      begin = end + 1;
   }
   line_.erase( 0, begin );
}

void Pager::end() {
   if ( !line_.empty() ) {
      show( line_ + "\n" );
      line_.clear();
   }
}

void Pager::show( std::string_view line ) {
   if ( paging_ ) {
      const auto size = screen_.size();
      const auto columns = displayColumns( line.substr( 0, line.size() - 1 ) );
      ask( std::max<std::size_t>( 1, ( columns + size.columns - 1 ) / size.columns ) );
   }
   screen_.write( line );
}

// Makes room for `rows` more.
void Pager::ask( std::size_t rows ) {
   constexpr std::string_view question = "--More-- (space: page, Enter: line, G: all, q: no more)";
   const auto height = std::max<std::size_t>( screen_.size().rows, 2 ) - 1; // one is for the question
   while ( rowsShown_ > 0 && rowsShown_ + rows > height ) {
      const auto erase = "\r" + std::string( question.size(), ' ' ) + "\r";
      char key = 'q';
      try {
         key = screen_.key( question );
      } catch ( const Interrupted & ) {
         screen_.write( erase );
         throw;
      }
      screen_.write( erase );
      if ( key == ' ' || key == 'f' ) {
         rowsShown_ = 0;
      } else if ( key == '\r' || key == '\n' || key == 'j' ) {
         rowsShown_ = height - std::min( rows, height );
         break;
      } else if ( key == 'G' ) {
         paging_ = false;
         return;
      } else if ( key == 'q' || key == 'Q' ) {
         throw Interrupted();
      }
   }
   rowsShown_ += rows;
}

Pager::Screen terminalScreen( StandardOutput & output ) {
   return { terminalSize, StandardOutput::bytesWrite,
         []( std::string_view question ) {
            const KeyMode mode; // first, or a key that follows closely is shown
            StandardOutput::bytesWrite( question );
            waitFor( STDIN_FILENO, POLLIN );
            char key = 'q';
            if ( read( STDIN_FILENO, &key, 1 ) <= 0 ) {
               throw Interrupted();
            }
            return key;
         },
         [&output]( const std::string & text ) { output.redraw( text ); } };
}

} // namespace hmctl
