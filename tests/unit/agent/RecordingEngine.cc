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

struct Record {
   std::mutex mutex;
   std::condition_variable changed;
   std::vector<std::string> calls;
   std::set<std::thread::id> threads;
   std::string refused;
   bool held = false;
   std::size_t engines = 0;
   std::vector<const HMStateManager *> undying; // the agent never destroys its engine; not a leak
   std::shared_ptr<HMStorageObserver> observer;
   std::shared_ptr<HMLogBase> log;
   std::vector<HMProbeDone> probes;
   std::vector<unsigned long> probeDelays;

   bool called( const std::string & call ) {
      std::unique_lock lock( mutex );
      calls.push_back( call );
      threads.insert( std::this_thread::get_id() );
      changed.notify_all();
      changed.wait( lock, [this] { return !held; } );
      return refused.empty() || !call.starts_with( refused );
   }
};

Record & record() {
   static auto * record = new Record;
   return *record;
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
   const std::scoped_lock lock( record().mutex );
   record().calls.clear();
   record().threads.clear();
   record().refused.clear();
   record().held = false;
   record().engines = 0;
   record().observer = nullptr;
   record().log = nullptr;
   record().probeDelays.clear();
}

void RecordingEngine::refuse( std::string prefix ) {
   const std::scoped_lock lock( record().mutex );
   record().refused = std::move( prefix );
}

void RecordingEngine::holdIs( bool held ) {
   const std::scoped_lock lock( record().mutex );
   record().held = held;
   record().changed.notify_all();
}

std::vector<std::string> RecordingEngine::calls() {
   const std::scoped_lock lock( record().mutex );
   return record().calls;
}

bool RecordingEngine::waitForCalls( std::size_t count ) {
   std::unique_lock lock( record().mutex );
   return record().changed.wait_for(
         lock, std::chrono::seconds( 30 ), [count] { return record().calls.size() >= count; } );
}

bool RecordingEngine::waitForCall( const std::string & call ) {
   std::unique_lock lock( record().mutex );
   return record().changed.wait_for( lock, std::chrono::seconds( 30 ),
         [&call] { return std::ranges::find( record().calls, call ) != record().calls.end(); } );
}

std::size_t RecordingEngine::engines() {
   const std::scoped_lock lock( record().mutex );
   return record().engines;
}

bool RecordingEngine::calledFromOneThreadOtherThan( std::thread::id thread ) {
   const std::scoped_lock lock( record().mutex );
   return record().threads.size() == 1 && !record().threads.contains( thread );
}

void RecordingEngine::probeDelaysAre( std::vector<unsigned long> histogram ) {
   const std::scoped_lock lock( record().mutex );
   record().probeDelays = std::move( histogram );
}

std::shared_ptr<HMStorageObserver> RecordingEngine::observer() {
   const std::scoped_lock lock( record().mutex );
   return record().observer;
}

std::vector<HMProbeDone> RecordingEngine::probes() {
   const std::scoped_lock lock( record().mutex );
   return std::exchange( record().probes, {} );
}

std::shared_ptr<HMLogBase> RecordingEngine::log() {
   const std::scoped_lock lock( record().mutex );
   return record().log;
}

HMStateManager::HMStateManager() : engine_( std::make_unique<netchasm::Engine>() ), workQueue_( *engine_ ) {
   const std::scoped_lock lock( record().mutex );
   ++record().engines;
   record().undying.push_back( this );
}

HMStateManager::~HMStateManager() = default;

void HMStateManager::registerLog( std::shared_ptr<HMLogBase> log ) {
   record().called( "log" );
   const std::scoped_lock lock( record().mutex );
   record().log = std::move( log );
}

void HMStateManager::registerStorageObserver( std::shared_ptr<HMStorageObserver> observer ) {
   record().called( "observer" );
   const std::scoped_lock lock( record().mutex );
   record().observer = std::move( observer );
}

void HMStateManager::dropHosts() {
   record().called( "drop hosts" );
}

bool HMStateManager::healthCheck( std::string path, HM_LOG_LEVEL level, bool start ) {
   return record().called(
         fmt::format( "healthCheck {} level {}{}", path, static_cast<int>( level ), start ? " start" : "" ) );
}

bool HMStateManager::reloadDaemonConfigs( std::string path ) {
   return record().called( "reload " + path );
}

bool HMStateManager::addStaticDNSAddress(
      const std::string & host, const std::set<HMIPAddress> & addresses ) {
   return record().called( fmt::format( "+address {} {}", host, addressesText( addresses ) ) );
}

bool HMStateManager::removeStaticDNSAddress(
      const std::string & host, const std::set<HMIPAddress> & addresses ) {
   return record().called( fmt::format( "-address {} {}", host, addressesText( addresses ) ) );
}

bool HMStateManager::setHostMark(
      const std::string & group, const std::string & host, const HMIPAddress & address, int mark ) {
   return record().called( fmt::format( "+mark {} {} {} {}", group, host, address.toString(), mark ) );
}

bool HMStateManager::removeHostMark(
      const std::string & group, const std::string & host, const HMIPAddress & address, int mark ) {
   return record().called( fmt::format( "-mark {} {} {} {}", group, host, address.toString(), mark ) );
}

bool HMStateManager::probe( const std::string & group, const std::string & host, HMProbeDone done ) {
   const bool taken = record().called( fmt::format( "probe {} {}", group, host ) );
   const std::scoped_lock lock( record().mutex );
   if ( taken ) {
      record().probes.push_back( std::move( done ) );
   }
   return taken;
}

void HMStateManager::setLogLevel( HM_LOG_LEVEL level ) {
   record().called( fmt::format( "level {}", static_cast<int>( level ) ) );
}

HMWorkQueue & HMStateManager::workQueue() {
   return workQueue_;
}

void HMWorkQueue::getProbeDelay( std::vector<unsigned long> & histogram ) const {
   (void)engine_; // only the library's own has a use for it
   const std::scoped_lock lock( record().mutex );
   histogram = record().probeDelays;
}

void HMWorkQueue::clearProbeDelay() {
   record().called( "clearProbeDelay" );
   const std::scoped_lock lock( record().mutex );
   std::ranges::fill( record().probeDelays, 0 );
}
