#include "host/ControlRun.h"

#include "host/ControlLines.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace host {

using namespace platform;

namespace {

/// The output of one command of the agent. It prints into a pipe, whose far end is read here as far as the
/// client takes it; so the agent waits for a slow client without knowing of it.
class RunAnswer final : public Answer {
 public:
   /// `readEnd` becomes the answer's. `writeEnd` too; the run prints to it.
   RunAnswer( ControlClient & client, int readEnd, int writeEnd )
         : client_( client ),
           readEnd_( readEnd ),
           writeEnd_( writeEnd ),
           again_( new LoopTimer( client.server().services().mainLoop, [this] {
              waiting_ = false;
              client_.wake();
           } ) ) {}
   ~RunAnswer() override {
      run_ = nullptr; // before its descriptor is closed
      close( writeEnd_ );
      close( readEnd_ );
   }
   void runIs( Ptr<CommandRun> run ) { run_ = std::move( run ); }

   bool ready() const override { return !waiting_; }
   bool produce( std::string & out ) override {
      if ( take( out ) ) {
         return true;
      }
      // The first step may print, the second one hands over what was printed.
      for ( int step = 0; step < 2 && !run_->finished(); ++step ) {
         run_->step();
         if ( take( out ) ) {
            return true;
         }
      }
      if ( run_->finished() ) {
         if ( !kept_.empty() ) {
            out += textLine( kept_ );
         }
         if ( !run_->refusal().empty() ) {
            out += refusedLine( { run_->refusal() } );
            return false;
         }
         out += run_->interrupted() ? refusedLine( { "the agent went away" } ) : doneLine();
         return false;
      }
      // It waits for something else than the client, who may go meanwhile: nothing is sent that would tell.
      if ( client_.peerGone() ) {
         return false;
      }
      waiting_ = true;
      again_->start( std::chrono::milliseconds( 10 ) );
      return true;
   }

 private:
   /// False: nothing has been printed.
   bool take( std::string & out ) {
      std::array<char, 4096> buffer;
      const auto size = read( readEnd_, buffer.data(), buffer.size() - kept_.size() );
      if ( size <= 0 ) {
         return false;
      }
      kept_.append( buffer.data(), static_cast<std::size_t>( size ) );
      // A character that was cut in two goes out with the next piece.
      const auto whole = kept_.size() - cutCharacter( kept_ );
      out += textLine( std::string_view( kept_ ).substr( 0, whole ) );
      kept_.erase( 0, whole );
      return true;
   }

   /// Bytes at the end of `text` that begin a character of UTF-8 (RFC 3629) and do not end it.
   static std::size_t cutCharacter( std::string_view text ) {
      for ( std::size_t back = 1; back <= std::min<std::size_t>( 3, text.size() ); ++back ) {
         const auto byte = static_cast<unsigned char>( text[text.size() - back] );
         const std::size_t length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : byte >= 0xc0 ? 2 : 1;
         if ( byte >= 0xc0 || byte < 0x80 ) {
            return length > back ? back : 0;
         }
      }
      return 0;
   }

   ControlClient & client_; // owns this answer
   const int readEnd_;
   const int writeEnd_;
   const Ptr<LoopTimer> again_;
   Ptr<CommandRun> run_;
   std::string kept_;
   bool waiting_ = false;
};

std::string commandList( const CommandRequestDirectory & directory ) {
   std::string list;
   for ( const auto & [command, arguments, help] : directory.commands() ) {
      list += fmt::format( "\n  {}{}{}", command, arguments.empty() ? "" : " ", arguments );
   }
   return list;
}

} // namespace

std::unique_ptr<Answer> runAnswer( ControlClient & client, const std::string & command, bool json ) {
   const auto & directory = client.server().services().commandDirectory;
   std::array<int, 2> ends{};
   if ( pipe2( ends.data(), O_NONBLOCK | O_CLOEXEC ) != 0 ) {
      return refusedAnswer( fmt::format( "no pipe for the answer: {}", std::strerror( errno ) ) );
   }
   auto answer = std::make_unique<RunAnswer>( client, ends[0], ends[1] );
   auto run = directory->run( command, static_cast<unsigned>( ends[1] ),
         static_cast<unsigned>( json ? CliFormat::json : CliFormat::text ) );
   if ( !run ) {
      return refusedAnswer( "no such command; there are" + commandList( *directory ) );
   }
   answer->runIs( std::move( run ) );
   return answer;
}

std::string commandsLine( const CommandRequestDirectory & directory ) {
   auto list = nlohmann::json::array();
   for ( const auto & [command, arguments, help] : directory.commands() ) {
      list.push_back( { { "command", command }, { "arguments", arguments }, { "help", help } } );
   }
   return jsonLine( { { "commands", list } } );
}

} // namespace host
