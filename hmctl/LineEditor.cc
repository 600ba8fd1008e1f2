#include "hmctl/LineEditor.h"

#include "hmctl/Interrupts.h"
#include "hmctl/Terminal.h"
#include "hmctl/Words.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <unistd.h>

#include <histedit.h>

namespace hmctl {

namespace {

constexpr int historyLines = 1000;

std::string beforeCursor( EditLine * editor ) {
   const auto * line = el_line( editor );
   return { line->buffer, line->cursor };
}

// The library counts characters, not bytes.
int characters( std::string_view text ) {
   int count = 0;
   for ( const char c : text ) {
      count += ( static_cast<unsigned char>( c ) & 0xC0 ) != 0x80;
   }
   return count;
}

} // namespace

struct LineEditor::Parts {
   std::function<Completions( const std::string & )> complete;
   EditLine * editor = nullptr;
   History * history = nullptr;
   std::string path = historyPath();

   static Parts & of( EditLine * editor ) {
      void * parts = nullptr;
      el_get( editor, EL_CLIENTDATA, &parts );
      return *static_cast<Parts *>( parts );
   }

   // In place of the library's own, which misses a Ctrl-C that comes while it does not wait.
   static int characterRead( EditLine *, wchar_t * character ) {
      std::mbstate_t state{};
      for ( ;; ) {
         try {
            waitFor( STDIN_FILENO, POLLIN );
         } catch ( const Interrupted & ) {
            errno = EINTR;
            return -1;
         }
         char byte = 0;
         const auto size = read( STDIN_FILENO, &byte, 1 );
         if ( size <= 0 ) {
            return static_cast<int>( size );
         }
         const auto bytes = std::mbrtowc( character, &byte, 1, &state );
         if ( bytes == static_cast<std::size_t>( -1 ) ) {
            state = {}; // no character of this locale: it is left out
         } else if ( bytes != static_cast<std::size_t>( -2 ) ) {
            return 1;
         }
      }
   }

   static void list( const Completions & completions ) {
      const auto text = choiceList( completions, terminalSize().rows - 2 );
      std::fputs( ( "\n" + ( text.empty() ? "  nothing can follow here\n" : terminalText( text ) ) ).c_str(),
            stdout );
      std::fflush( stdout );
   }

   static unsigned char completeKey( EditLine * editor, int ) {
      const auto line = beforeCursor( editor );
      const auto completions = of( editor ).complete( line );
      const auto choices = completions.insertable();
      std::vector<std::string> texts;
      for ( const auto * choice : choices ) {
         texts.push_back( choice->text );
      }
      const auto common = commonBeginning( texts );
      std::string word;
      if ( choices.size() == 1 ) {
         word = choices.front()->goesOn ? quotedOpen( common ) : quoted( common ) + " ";
      } else if ( common.size() > completions.begun.size() ) {
         word = quotedOpen( common );
      } else if ( completions.choices.empty() ) {
         return CC_REFRESH_BEEP;
      } else {
         list( completions );
         return CC_REDISPLAY;
      }
      el_deletestr( editor, characters( std::string_view( line ).substr( completions.begin ) ) );
      el_insertstr( editor, word.c_str() );
      return CC_REFRESH;
   }

   static unsigned char helpKey( EditLine * editor, int ) {
      const auto completions = of( editor ).complete( beforeCursor( editor ) );
      if ( completions.freeText() ) {
         el_insertstr( editor, "?" );
         return CC_REFRESH;
      }
      list( completions );
      return CC_REDISPLAY;
   }

   // Written anew and renamed, so that a shell that is killed, or another one at the same time, leaves a
   // whole file, and nobody else can read it at any moment.
   void historySave() const {
      if ( path.empty() ) {
         return;
      }
      const auto fresh = path + "." + std::to_string( getpid() );
      const int fd = open( fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600 );
      std::FILE * file = fd < 0 ? nullptr : fdopen( fd, "w" );
      if ( !file ) {
         return; // lines are remembered until the shell ends, and no longer
      }
      HistEvent event;
      const bool written = ::history( history, &event, H_SAVE_FP, file ) >= 0;
      if ( std::fclose( file ) != 0 || !written || std::rename( fresh.c_str(), path.c_str() ) != 0 ) {
         unlink( fresh.c_str() );
      }
   }
};

std::string historyPath() {
   namespace fs = std::filesystem;
   const char * state = std::getenv( "XDG_STATE_HOME" );
   const char * home = std::getenv( "HOME" );
   fs::path folder;
   if ( state && *state == '/' ) {
      folder = state;
   } else if ( home && *home == '/' ) {
      folder = fs::path( home ) / ".local/state";
   } else {
      return {};
   }
   std::error_code error;
   fs::create_directories( folder, error );
   return error ? std::string{} : ( folder / "hmctl_history" ).string();
}

LineEditor::LineEditor( std::function<Completions( const std::string & line )> complete )
      : parts_( std::make_unique<Parts>() ) {
   parts_->complete = std::move( complete );
   parts_->history = history_init();
   HistEvent event;
   ::history( parts_->history, &event, H_SETSIZE, historyLines );
   ::history( parts_->history, &event, H_SETUNIQUE, 1 );
   if ( !parts_->path.empty() ) {
      ::history( parts_->history, &event, H_LOAD, parts_->path.c_str() );
   }
   auto * editor = parts_->editor = el_init( "hmctl", stdin, stdout, stderr );
   el_set( editor, EL_CLIENTDATA, parts_.get() );
   static std::string prompt = "hmctl> ";
   using Prompt = char * (*)( EditLine * );
   const Prompt promptOf = []( EditLine * ) { return prompt.data(); };
   el_set( editor, EL_PROMPT, promptOf );
   el_set( editor, EL_HIST, ::history, parts_->history );
   el_set( editor, EL_EDITOR, "emacs" );
   el_set( editor, EL_SIGNAL, 1 );
   el_source( editor, nullptr );
   // Wide: of narrow names the library makes copies that it never frees.
   el_wset( editor, EL_ADDFN, L"hm-complete", L"Completes the word", Parts::completeKey );
   el_wset( editor, EL_ADDFN, L"hm-help", L"Says what may come next", Parts::helpKey );
   el_set( editor, EL_BIND, "^I", "hm-complete", nullptr );
   el_set( editor, EL_BIND, "?", "hm-help", nullptr );
   el_set( editor, EL_BIND, "^R", "em-inc-search-prev", nullptr );
   el_set( editor, EL_GETCFN, Parts::characterRead );
}

LineEditor::~LineEditor() {
   el_end( parts_->editor );
   history_end( parts_->history );
}

std::optional<std::string> LineEditor::line() {
   int count = 0;
   el_set( parts_->editor, EL_PREP_TERM, 1 ); // or keys that follow the prompt closely are taken as a line's
   errno = 0;
   const char * text = el_gets( parts_->editor, &count );
   if ( !text || count <= 0 ) {
      const bool interrupted = errno == EINTR;
      std::fputs( "\n", stdout );
      std::fflush( stdout );
      if ( !interrupted ) {
         return std::nullopt;
      }
      el_reset( parts_->editor );
      return std::string{};
   }
   std::string line( text, static_cast<std::size_t>( count ) );
   while ( !line.empty() && ( line.back() == '\n' || line.back() == '\r' ) ) {
      line.pop_back();
   }
   if ( line.find_first_not_of( " \t" ) != line.npos ) {
      HistEvent event;
      ::history( parts_->history, &event, H_ENTER, line.c_str() );
      parts_->historySave();
   }
   return line;
}

} // namespace hmctl
