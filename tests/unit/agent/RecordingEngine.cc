#include "tests/unit/agent/RecordingEngine.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

#include <fmt/format.h>

namespace netchasm {
class Engine {};
} // namespace netchasm

namespace {

struct State {
   std::vector<std::string> calls;
   std::set<std::thread::id> threads;
   std::string refused;
   std::size_t engines = 0;
   std::shared_ptr<HMStorageObserver> observer;
   std::shared_ptr<HMLogBase> log;
   std::vector<HMProbeDone> probes;
   std::vector<unsigned long> probeDelays;
};

struct Record {
   std::mutex mutex;
   std::condition_variable changed;
   State state;
   std::vector<const HMStateManager *> undying; // the agent never destroys its engine; not a leak
};

Record & record() {
   static auto * record = new Record;
   return *record;
}

/// What `act` returns of the state.
template<class Act>
auto locked( Act act ) {
   const std::scoped_lock lock( record().mutex );
   return act( record().state );
}

bool called( const std::string & call ) {
   return locked( [&]( State & state ) {
      state.calls.push_back( call );
      state.threads.insert( std::this_thread::get_id() );
      record().changed.notify_all();
      return state.refused.empty() || !call.starts_with( state.refused );
   } );
}

template<class Condition>
bool waitFor( Condition condition ) {
   std::unique_lock lock( record().mutex );
   return record().changed.wait_for(
         lock, std::chrono::seconds( 30 ), [&] { return condition( record().state.calls ); } );
}

std::string addressesText( const std::set<HMIPAddress> & addresses ) {
   std::string text;
   for ( const auto & address : addresses ) {
      text += ( text.empty() ? "" : "," ) + address.toString();
   }
   return text;
}

} // namespace

void RecordingEngine::reset() {
   locked( []( State & state ) { state = {}; } );
}

void RecordingEngine::refuse( std::string prefix ) {
   locked( [&]( State & state ) { state.refused = std::move( prefix ); } );
}

std::vector<std::string> RecordingEngine::calls() {
   return locked( []( State & state ) { return state.calls; } );
}

bool RecordingEngine::waitForCalls( std::size_t count ) {
   return waitFor( [&]( const auto & calls ) { return calls.size() >= count; } );
}

bool RecordingEngine::waitForCall( const std::string & call ) {
   return waitFor( [&]( const auto & calls ) { return std::ranges::find( calls, call ) != calls.end(); } );
}

std::size_t RecordingEngine::engines() {
   return locked( []( State & state ) { return state.engines; } );
}

bool RecordingEngine::calledFromOneThreadOtherThan( std::thread::id thread ) {
   return locked(
         [&]( State & state ) { return state.threads.size() == 1 && !state.threads.contains( thread ); } );
}

void RecordingEngine::probeDelaysAre( std::vector<unsigned long> histogram ) {
   locked( [&]( State & state ) { state.probeDelays = std::move( histogram ); } );
}

std::shared_ptr<HMStorageObserver> RecordingEngine::observer() {
   return locked( []( State & state ) { return state.observer; } );
}

std::vector<HMProbeDone> RecordingEngine::probes() {
   return locked( []( State & state ) { return std::exchange( state.probes, {} ); } );
}

std::shared_ptr<HMLogBase> RecordingEngine::log() {
   return locked( []( State & state ) { return state.log; } );
}

HMStateManager::HMStateManager() : engine_( std::make_unique<netchasm::Engine>() ), workQueue_( *engine_ ) {
   locked( [this]( State & state ) {
      ++state.engines;
      record().undying.push_back( this );
   } );
}

HMStateManager::~HMStateManager() = default;

void HMStateManager::registerLog( std::shared_ptr<HMLogBase> log ) {
   called( "log" );
   locked( [&]( State & state ) { state.log = std::move( log ); } );
}

void HMStateManager::registerStorageObserver( std::shared_ptr<HMStorageObserver> observer ) {
   called( "observer" );
   locked( [&]( State & state ) { state.observer = std::move( observer ); } );
}

void HMStateManager::dropHosts() {
   called( "drop hosts" );
}

bool HMStateManager::healthCheck( std::string path, HM_LOG_LEVEL level, bool start ) {
   return called(
         fmt::format( "healthCheck {} level {}{}", path, static_cast<int>( level ), start ? " start" : "" ) );
}

bool HMStateManager::reloadDaemonConfigs( std::string path ) {
   return called( "reload " + path );
}

bool HMStateManager::addStaticDNSAddress(
      const std::string & host, const std::set<HMIPAddress> & addresses ) {
   return called( fmt::format( "+address {} {}", host, addressesText( addresses ) ) );
}

bool HMStateManager::removeStaticDNSAddress(
      const std::string & host, const std::set<HMIPAddress> & addresses ) {
   return called( fmt::format( "-address {} {}", host, addressesText( addresses ) ) );
}

bool HMStateManager::setHostMark(
      const std::string & group, const std::string & host, const HMIPAddress & address, int mark ) {
   return called( fmt::format( "+mark {} {} {} {}", group, host, address.toString(), mark ) );
}

bool HMStateManager::removeHostMark(
      const std::string & group, const std::string & host, const HMIPAddress & address, int mark ) {
   return called( fmt::format( "-mark {} {} {} {}", group, host, address.toString(), mark ) );
}

bool HMStateManager::probe( const std::string & group, const std::string & host, HMProbeDone done ) {
   const bool taken = called( fmt::format( "probe {} {}", group, host ) );
   if ( taken ) {
      locked( [&]( State & state ) { state.probes.push_back( std::move( done ) ); } );
   }
   return taken;
}

void HMStateManager::setLogLevel( HM_LOG_LEVEL level ) {
   called( fmt::format( "level {}", static_cast<int>( level ) ) );
}

HMWorkQueue & HMStateManager::workQueue() {
   return workQueue_;
}

void HMWorkQueue::getProbeDelay( std::vector<unsigned long> & histogram ) const {
   (void)engine_; // only the library's own has a use for it
   locked( [&]( State & state ) { histogram = state.probeDelays; } );
}

void HMWorkQueue::clearProbeDelay() {
   called( "clearProbeDelay" );
   locked( []( State & state ) { std::ranges::fill( state.probeDelays, 0 ); } );
}
