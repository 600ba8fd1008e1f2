// How late checks start, from the engine's histogram to the operator.
#include "HealthMonitor/HmUtils.h"
#include "tests/unit/agent/AgentFixture.h"

using namespace hm;
using namespace hm::test;

namespace {

using Histogram = std::vector<unsigned long>;
constexpr const char * delay = "show health-monitor probe delay";

class ProbeDelayTest : public CliFixture {
 protected:
   ProbeDelayTest() {
      EXPECT_TRUE( RecordingEngine::waitForCalls( 3 ) ); // the engine is there
      agent_->hmCommonData()->probeIntervalIs( 5 );
   }
};

} // namespace

TEST( ProbeDelayRanges, AreScaledToTheIntervalAndStayWithinTheHistogram ) {
   const Histogram ones( 121, 1 );
   const struct {
      Histogram histogram;
      std::uint32_t interval;
      const char * expected;
   } rows[] = {
         { ones, 1, "(0,1] 1, (1,2] 1, (2,3] 1, (3,4] 1, (4,+∞] 117" },
         { ones, 5, "(0,1] 1, (1,2] 1, (2,5] 3, (5,10] 5, (10,15] 5, (15,20] 5, (20,+∞] 101" },
         { ones, 30,
               "(0,1] 1, (1,3] 2, (3,7] 4, (7,15] 8, (15,30] 15, (30,60] 30, (60,90] 30, (90,119] 29, "
               "(119,+∞] 2" },
         { ones, 0, "(0,1] 1, (1,+∞] 120" },
         { ones, 4'294'967'295, "(0,1] 1, (1,119] 118, (119,+∞] 2" },
         { { 0, 0, 7, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }, 5, "(2,5] 7, (5,10] 9" },
         { {}, 5, "" },
         { { 1 }, 5, "(0,1] 1" },
         { { 1, 2 }, 5, "(0,1] 1, (1,+∞] 2" },
         { { 1, 2, 3 }, 5, "(0,1] 1, (1,+∞] 5" },
         { { 1, 2, 3, 4 }, 5, "(0,1] 1, (1,2] 2, (2,+∞] 7" },
   };
   for ( const auto & row : rows ) {
      std::vector<std::string> labels;
      std::vector<std::uint64_t> counts;
      calculateProbeDelayRanges( labels, counts, row.histogram, row.interval );
      std::string text;
      for ( std::size_t i = 0; i < labels.size(); ++i ) {
         text += fmt::format( "{}{} {}", i == 0 ? "" : ", ", labels[i], counts[i] );
      }
      EXPECT_EQ( text, row.expected ) << row.interval;
   }
}

TEST_F( ProbeDelayTest, TextShowsRangesAndJsonEverySecond ) {
   Histogram histogram( 121 );
   histogram[0] = 40;
   histogram[2] = 10;
   RecordingEngine::probeDelaysAre( histogram );
   const auto document = showJson( delay )["intervals"];
   EXPECT_EQ( document.size(), 121u );
   EXPECT_EQ( document["1"].dump(), R"({"numProbes":40,"percentProbes":80})" );
   EXPECT_EQ( document["3"].dump(), R"({"numProbes":10,"percentProbes":20})" );
   EXPECT_EQ( document["120"].dump(), R"({"numProbes":0,"percentProbes":0})" );
   EXPECT_TRUE( document.contains( "greater than 120" ) );

   histogram[119] = 123'456'789;
   RecordingEngine::probeDelaysAre( histogram );
   EXPECT_EQ( show( delay ), "Delay Range ( in seconds ) Probes    Percentage of Probes\n"
                             "-------------------------- ------    --------------------\n"
                             "(0,1]                      40        0.00%\n"
                             "(2,5]                      10        0.00%\n"
                             "(20,+∞]                    123456789 100.00%\n" );

   run( "clear health-monitor probe delay" );
   EXPECT_TRUE( RecordingEngine::waitForCall( "clearProbeDelay" ) );
   EXPECT_EQ( std::ranges::count( show( delay ), '\n' ), 2 );
   EXPECT_EQ(
         showJson( delay )["intervals"]["greater than 120"].dump(), R"({"numProbes":0,"percentProbes":0})" );
   RecordingEngine::probeDelaysAre( { 3 } );
   EXPECT_EQ( show( delay, CliFormat::json ), R"({
  "intervals": {
    "greater than 0": {
      "numProbes": 3,
      "percentProbes": 100
    }
  }
}
)" );
}

TEST_F( ProbeDelayTest, TheIntervalIsTheNumberInTheCommand ) {
   RecordingEngine::probeDelaysAre( Histogram( 121, 1 ) );
   const std::pair<std::string, const char *> rows[] = {
         { "", "(1,2]" },
         { " interval 0", "(1,2]" },
         { " interval 30", "(1,3]" },
         { " interval -40", "(1,4]" },
         { " interval 50x", "(1,5]" },
         { " interval x50", "(1,2]" },
         { " interval 4294967346", "(1,5]" }, // 2^32 + 50
         { " interval 99999999999999999999999", "(1,119]" },
   };
   for ( const auto & [rest, secondRange] : rows ) {
      EXPECT_THAT( show( delay + rest ), testing::HasSubstr( fmt::format( "\n{} ", secondRange ) ) ) << rest;
   }
}

TEST( ProbeDelay, WithoutAnEngineThereIsNothingToReport ) {
   const Ptr<EventLoop> loop = new EventLoop;
   const Ptr<EventMpmcQueue> queue = new EventMpmcQueue( 0, new FifoEvent( loop ), nullptr, true );
   const auto interface = netChasmInterfaceFactory( loop, queue, queue, new CommonData );
   CliReader reader;
   interface->clearProbeDelay();
   interface->showProbeDelay( reader.socket(), 0, 0 );
   const auto text = reader.read();
   EXPECT_EQ( std::ranges::count( text, '\n' ), 2 ) << text;
   interface->showProbeDelay( reader.socket(), 1, 0 );
   EXPECT_EQ( reader.read(), "{\n  \"intervals\": {}\n}\n" );
}
