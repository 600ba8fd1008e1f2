// The way of a result after the check: the engine's thread hands it to the storage observer (observe), the
// main thread's task publishes it (publish). 128 groups of 128 servers, each checked by HTTP and TCP; the
// server of one result is far from that of the next, as it is with checks that are spread over their
// interval.
#include "HealthMonitor/HmNetCHASMStorageObserver.h"
#include "HealthMonitor/HmProbeStatusSm.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "HealthMonitor/HmUtils.h"

#include <benchmark/benchmark.h>
#include <chrono>
#include <ctime>
#include <netchasm/HMCheckData.h>
#include <string>
#include <vector>

namespace {

using namespace hm;

constexpr unsigned groups = 128;
constexpr unsigned serversPerGroup = 128;

struct House {
   House() {
      RefCounted::threadSafeRefCountsIs(); // as in the agent
      for ( unsigned g = 0; g < groups; ++g ) {
         const std::string group = "g" + std::to_string( g );
         const auto config = probeConfig->nhgProbeConfigIs( group );
         config->httpUrlIs( "http://127.1.0.1/" );
         config->tcpUrlIs( "tcp://127.1.0.1:80" );
         for ( unsigned s = 0; s < serversPerGroup; ++s ) {
            const auto server =
                  *IpGenAddr::fromText( "127.1." + std::to_string( g ) + "." + std::to_string( s + 1 ) );
            status->nhgProbeStatusIs( group )->serverProbeStatusIs( server );
            common->httpProbeStatusIs( group )->serverProbeStatusIs( server );
            common->tcpProbeStatusIs( group )->serverProbeStatusIs( server );
            for ( const ProbeType type : { ProbeType::http, ProbeType::tcp } ) {
               const std::string host = hostNameFromNhgAndServerIp( group, type, server );
               common->hostNameToIpNhgPairIs( host, { group, server } );
               common->probeCountersIs( group )->serverIpIs( server )->probeTypeCountersIs( type );
               ( type == ProbeType::http ? httpHosts : tcpHosts ).push_back( host );
            }
         }
      }
      reactor = probeStatusSmFactory( probeConfig, status, queue, common, scheduler );
      reactor->notificationsEnabledIs( true );
      scheduler->runUntilIdle();
   }

   /// One result of every host, HTTP and TCP in turn.
   void observe( bool answered, const std::string & body ) { observe( answered, body, 0, httpHosts.size() ); }
   /// The same of some hosts. Unless empty, the bodies differ.
   void observe( bool answered, const std::string & body, std::size_t first, std::size_t end ) {
      HMCheckData data;
      for ( std::size_t i = first; i < end; ++i ) {
         const std::size_t host = i * 5077 % httpHosts.size(); // prime to 128 x 128: visits each once
         for ( const bool isHttp : { true, false } ) {
            data.m_hostName = isHttp ? httpHosts[host] : tcpHosts[host];
            data.m_response = answered ? HM_RESPONSE_ANSWERED : HM_RESPONSE_CONNECT_FAILURE;
            data.m_reason = answered ? HM_REASON_NONE : HM_REASON_CONNECT_REFUSED;
            data.m_responseCode = isHttp && answered ? 200 : 0;
            data.m_responsePayload = isHttp && answered ? data.m_hostName + body : "";
            data.m_numChecks = ++checks;
            data.m_checkTime.setTime( checks );
            observer.storeHostCheckResult( data );
         }
      }
   }

   std::int64_t resultsPerRound() const { return static_cast< std::int64_t >( 2 * httpHosts.size() ); }

   Ptr< EventLoop > loop = new EventLoop();
   Ptr< TaskScheduler > scheduler = new TaskScheduler( loop );
   Ptr< EventMpmcQueue > queue = new EventMpmcQueue( 0, new FifoEvent( loop ), nullptr, true );
   Ptr< HmState::ProbeConfig > probeConfig = new HmState::ProbeConfig();
   Ptr< HmState::ServerStatus > status = new HmState::ServerStatus();
   Ptr< CommonData > common = new CommonData();
   NetCHASMStorageObserver observer{ queue, common->payloadIntake() };
   Ptr< ProbeStatusSm > reactor;
   std::vector< std::string > httpHosts;
   std::vector< std::string > tcpHosts;
   std::uint32_t checks = 0;
};

/// CPU time of this thread: what else runs on the machine does not count.
std::chrono::duration< double > cpuTime() {
   timespec now;
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &now );
   return std::chrono::seconds( now.tv_sec ) + std::chrono::nanoseconds( now.tv_nsec );
}

void observe( benchmark::State & state ) {
   House house;
   for ( auto _ : state ) {
      const auto begin = cpuTime();
      house.observe( true, "ok\n" );
      state.SetIterationTime( ( cpuTime() - begin ).count() );
      while ( house.queue->pop() ) {}
   }
   state.SetItemsProcessed( state.iterations() * house.resultsPerRound() );
}
BENCHMARK( observe )->UseManualTime()->Unit( benchmark::kMillisecond );

/// Queues a round of results and takes the time of publishing it, a portion at a time: so many bodies wait
/// without being left out.
void publishRounds( benchmark::State & state, House & house, bool flapping, std::size_t bodyBytes ) {
   constexpr std::size_t portion = 256;
   const std::string body( bodyBytes, 'm' );
   bool answered = true;
   for ( auto _ : state ) {
      std::chrono::duration< double > spent{};
      for ( std::size_t first = 0; first < house.httpHosts.size(); first += portion ) {
         house.observe( answered, body, first, first + portion );
         const auto begin = cpuTime();
         do {
            house.loop->runOnce();
            house.scheduler->runUntilIdle();
         } while ( !house.queue->empty() );
         spent += cpuTime() - begin;
      }
      state.SetIterationTime( spent.count() );
      answered = !flapping || !answered;
   }
   const auto status =
         house.status->nhgProbeStatus( "g127" )->serverProbeStatus( *IpGenAddr::fromText( "127.1.127.128" ) );
   const bool wasAnswered = flapping ? !answered : true;
   if ( ( status->operState() == HmState::ServerOperState::up ) != wasAnswered ) {
      state.SkipWithError( "the last round was not published" );
   }
   state.SetItemsProcessed( state.iterations() * house.resultsPerRound() );
}

void publishUnchanged( benchmark::State & state ) {
   House house;
   publishRounds( state, house, false, 3 );
}
BENCHMARK( publishUnchanged )->UseManualTime()->Unit( benchmark::kMillisecond );

/// Every server goes down in one round and comes back in the next.
void publishFlapping( benchmark::State & state ) {
   House house;
   publishRounds( state, house, true, 3 );
}
BENCHMARK( publishFlapping )->UseManualTime()->Unit( benchmark::kMillisecond );

/// With both rules, neither of which matches: the size of the bodies, and whether the pattern on them is
/// plain text (0) or needs the automaton (1).
void publishUnderRules( benchmark::State & state ) {
   House house;
   house.probeConfig->responsePayloadRule()->patternIs(
         state.range( 1 ) == 0 ? "maintenance" : "maintenance|draining" );
   house.probeConfig->responseCodeRule()->patternIs( "5.." );
   publishRounds( state, house, false, static_cast< std::size_t >( state.range( 0 ) ) );
}
BENCHMARK( publishUnderRules )
      ->Args( { 200, 0 } )
      ->Args( { 200, 1 } )
      ->Args( { 16000, 0 } )
      ->UseManualTime()
      ->Unit( benchmark::kMillisecond );

} // namespace
