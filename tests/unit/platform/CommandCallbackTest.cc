#include "platform/CommandCallback.h"

#include "tests/unit/CliReader.h"

#include <algorithm>

#include <gmock/gmock.h>

using namespace platform;

namespace {

/// What "show numbers" prints, on a clock that stands still but for the time that each takes.
struct Work {
   ManualClock clock;
   int count = 10;
   Seconds perItem{ 0 };
   int slices = 0; // that were begun
};

/// Prints numbered lines, one an item.
class Numbers final : public AsyncCommandRequestSm {
 public:
   Numbers( const Ptr<const AgentCommandRequest> & request, Work & work )
         : AsyncCommandRequestSm( request->name(), request, Seconds{ 0.1 }, work.clock ),
           work_( work ) {
      initializeSm();
   }
   void handleAsyncCommand( unsigned socket, unsigned format ) override {
      ++work_.slices;
      CliPrinter printer( socket, format );
      while ( next_ < work_.count ) {
         if ( shouldYield() ) {
            return;
         }
         printer.frill( "%099d\n", next_++ );
         work_.clock.advance( work_.perItem );
      }
      printer.flush();
      executionCompletedIs( true );
   }

 private:
   Work & work_;
   int next_ = 0;
};

class Shower final : public AgentCommandCallbackWithFormat {
 public:
   explicit Shower( Work & work ) : AgentCommandCallbackWithFormat( "Shower", "Show" ), work_( work ) {}
   std::vector<CommandInfo> commands() const override {
      return { { "show greeting", "[NAME]", "A word." }, { "show numbers", "", "Many lines." } };
   }
   using AgentCommandCallbackWithFormat::handleCommand;
   void handleCommand( unsigned socket, const std::string & command, unsigned format ) override {
      CliPrinter printer( socket, format );
      printer.frill( "%s, format %u\n", command.c_str(), format );
      printer.flush();
   }
   Ptr<AsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
         const Ptr<const AgentCommandRequest> & request ) override {
      return request->command() == "show numbers" ? new Numbers( request, work_ ) : nullptr;
   }

 private:
   Work & work_;
};

class Clearer final : public AgentCommandCallback {
 public:
   Clearer() : AgentCommandCallback( "Clearer", "Clear" ) {}
   std::vector<CommandInfo> commands() const override { return { { "clear numbers", "", "None." } }; }
   void handleCommand( unsigned, const std::string & command ) override { done += command + "\n"; }
   std::string done;
};

class CommandTest : public testing::Test {
 protected:
   CommandTest() {
      directory_->commandCallbackIs( clearer_ );
      directory_->commandCallbackIs( shower_ );
   }
   Ptr<CommandRun> run( const std::string & command ) {
      return directory_->run( command, reader_.socket(), static_cast<unsigned>( CliFormat::text ) );
   }
   /// Everything that is printed, the reader taking `atATime` bytes between two steps.
   std::string allOf( const Ptr<CommandRun> & run, std::size_t atATime ) {
      std::string all;
      while ( !run->finished() ) {
         run->step();
         mostPending_ = std::max( mostPending_, run->pending() );
         all += reader_.read( atATime );
      }
      for ( auto more = reader_.read(); !more.empty(); more = reader_.read() ) {
         all += more;
      }
      return all;
   }

   Work work_;
   CliReader reader_;
   const Ptr<CommandRequestDirectory> directory_ = new CommandRequestDirectory;
   const Ptr<Shower> shower_ = new Shower( work_ );
   const Ptr<Clearer> clearer_ = new Clearer;
   std::size_t mostPending_ = 0;
};

} // namespace

TEST_F( CommandTest, FindsWhoAnswers ) {
   const auto shown = run( "show greeting you there" );
   EXPECT_TRUE( shown->finished() );
   EXPECT_EQ( reader_.read(), "show greeting you there, format 0\n" );
   EXPECT_TRUE( run( "clear numbers" )->finished() );
   EXPECT_EQ( clearer_->done, "clear numbers\n" );
   for ( const auto * unknown : { "show", "show greetings", "clear numbers 1", "show numbers 1", "" } ) {
      EXPECT_FALSE( run( unknown ) ) << unknown;
   }
   EXPECT_TRUE( reader_.read().empty() );
}

TEST_F( CommandTest, ASliceEndsWithItsTimeAndMovesOnByOneItemAtLeast ) {
   work_.perItem = std::chrono::milliseconds( 1 );
   auto numbers = run( "show numbers" );
   EXPECT_EQ( std::ranges::count( allOf( numbers, 10'000 ), '\n' ), 10 );
   EXPECT_EQ( work_.slices, 3 ); // 4 ms each
   work_.slices = 0;
   work_.perItem = Seconds{ 1 };
   EXPECT_EQ( std::ranges::count( allOf( run( "show numbers" ), 10'000 ), '\n' ), 10 );
   EXPECT_EQ( work_.slices, 10 );
}

TEST_F( CommandTest, ASlowReaderMakesTheRequestWaitAndTheBufferStaysSmall ) {
   work_.count = 10'000;
   const auto numbers = run( "show numbers" );
   numbers->step();
   const auto slices = work_.slices;
   numbers->step(); // nobody reads
   EXPECT_EQ( work_.slices, slices );
   EXPECT_FALSE( numbers->finished() );
   const auto all = allOf( numbers, 4'000 );
   EXPECT_EQ( all.size(), 1'000'000u );
   EXPECT_EQ( all.substr( all.size() - 5 ), "9999\n" );
   EXPECT_LE( mostPending_, AsyncCommandRequestSm::pendingHighWater + 1'000 );
}

TEST_F( CommandTest, IsDroppedWithWhatItHasPrinted ) {
   work_.count = 10'000;
   run( "show numbers" )->step();
   EXPECT_EQ( CliSocket::find( reader_.socket() )->pending(), 0u );
   while ( !reader_.read().empty() ) {}
   run( "show greeting" );
   EXPECT_EQ( reader_.read(), "show greeting, format 0\n" );
}

TEST_F( CommandTest, EndsWithTheCallbackThatAnswersIt ) {
   work_.count = 10'000;
   const auto numbers = run( "show numbers" );
   numbers->step();
   shower_->parentIs( nullptr );
   EXPECT_FALSE( run( "show greeting" ) );
   numbers->step();
   EXPECT_TRUE( numbers->finished() );
   EXPECT_TRUE( numbers->interrupted() );
   // One that takes another's place detaches it; the other kind stays.
   const Ptr<Clearer> other = new Clearer;
   directory_->commandCallbackIs( other );
   EXPECT_EQ( clearer_->parent(), nullptr );
   clearer_->parentIs( nullptr );
   run( "clear numbers" );
   EXPECT_EQ( other->done, "clear numbers\n" );
}
