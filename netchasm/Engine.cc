#include "netchasm/Engine.h"
#include <algorithm>
#include <cerrno>
#include <functional>
#include <sys/resource.h>
#include <system_error>
#include <thread>

namespace netchasm {

namespace {

/// Every running check holds a descriptor; a fleet that does not answer keeps all of them busy at once.
void raiseDescriptorLimit( const Log & log ) {
   rlimit limit{};
   if ( ::getrlimit( RLIMIT_NOFILE, &limit ) != 0 || limit.rlim_cur == limit.rlim_max )
      return;
   limit.rlim_cur = limit.rlim_max;
   if ( ::setrlimit( RLIMIT_NOFILE, &limit ) != 0 )
      log.write( HM_LOG_NOTICE, "the limit of open descriptors stays: {}",
            std::generic_category().message( errno ) );
}

} // namespace

Engine::Engine( std::unique_ptr< SocketCalls > calls )
      : calls_{ std::move( calls ) },
        cleared_( ProbeDelays::buckets, 0 ) {
   // The embedding program may never destroy the engine: workers may still be at it when the process exits,
   // so OpenSSL must not take itself down before them.
   ::OPENSSL_init_ssl( OPENSSL_INIT_NO_ATEXIT, nullptr );
}

Engine::~Engine() {
   {
      const std::lock_guard lock{ delaysMutex_ };
      workers_.clear();
   }
   if ( started_ && log_.sink() )
      log_.sink()->closeLog();
}

void Engine::logIs( std::shared_ptr< HMLogBase > log ) {
   const std::lock_guard lock{ mutex_ };
   if ( !started_ )
      log_.sinkIs( std::move( log ) );
}

void Engine::observerIs( std::shared_ptr< HMStorageObserver > observer ) {
   const std::lock_guard lock{ mutex_ };
   if ( !started_ )
      observer_ = std::move( observer );
}

bool Engine::start( const std::string & masterPath, int logLevel, bool startChecking ) {
   const std::lock_guard lock{ mutex_ };
   if ( started_ ) {
      log_.write( HM_LOG_ERROR, "checking was started before" );
      return false;
   }
   log_.levelIs( logLevel );
   if ( log_.sink() && !log_.sink()->openLog( "netchasm" ) ) {
      log_.write( HM_LOG_FATAL, "the log cannot be opened, checking is not started" );
      return false;
   }
   Config config;
   bool good = load( masterPath, config );
   if ( good && startChecking ) {
      raiseDescriptorLimit( log_ );
      good = ensureWorkers( workerCount( config ) );
      if ( good ) {
         started_ = true;
         apply( config );
      }
   }
   if ( !started_ && log_.sink() )
      log_.sink()->closeLog();
   return good;
}

bool Engine::reload( const std::string & masterPath ) {
   const std::lock_guard lock{ mutex_ };
   if ( !started_ ) {
      log_.write( HM_LOG_ERROR, "checking was not started, nothing to reload" );
      return false;
   }
   Config config;
   if ( !load( masterPath, config ) || !ensureWorkers( workerCount( config ) ) )
      return false;
   apply( config );
   return true;
}

void Engine::dropHosts() {
   const std::lock_guard lock{ mutex_ };
   if ( started_ )
      apply( {} );
}

bool Engine::load( const std::string & masterPath, Config & config ) {
   std::string error;
   auto loaded = loadConfig( masterPath, error );
   if ( !loaded ) {
      log_.write( HM_LOG_ERROR, "configuration not used: {}", error );
      return false;
   }
   config = std::move( *loaded );
   for ( const std::string & notice : config.notices )
      log_.write( HM_LOG_NOTICE, "{}", notice );
   return true;
}

std::size_t Engine::workerCount( const Config & config ) const {
   return std::clamp< std::size_t >( std::thread::hardware_concurrency(), 1, config.threads );
}

bool Engine::ensureWorkers( std::size_t count ) {
   while ( workers_.size() < count ) {
      auto worker = std::make_unique< Worker >(
            static_cast< unsigned >( workers_.size() ), log_, *calls_, observer_ );
      if ( !worker->start() ) {
         const std::string why = std::generic_category().message( errno );
         log_.write( workers_.empty() ? HM_LOG_FATAL : HM_LOG_ERROR, "{} of {} threads for checks: {}",
               workers_.size(), count, why );
         return !workers_.empty();
      }
      const std::lock_guard lock{ delaysMutex_ };
      workers_.push_back( std::move( worker ) );
   }
   return true;
}

std::shared_ptr< const HostGroup > Engine::settingsFor(
      const Config::Group & wanted, const Group * present ) {
   HostGroup settings = wanted.settings;
   if ( settings.protocol == Protocol::https ) {
      settings.tls = tls_.forGroup( settings );
      if ( !settings.tls->error().empty() )
         log_.write(
               HM_LOG_ERROR, "group \"{}\": its checks fail: {}", settings.name, settings.tls->error() );
   }
   if ( present && *present->settings == settings )
      return present->settings;
   return std::make_shared< const HostGroup >( std::move( settings ) );
}

void Engine::apply( const Config & config ) {
   ++loads_;
   activeWorkers_ = std::min( workerCount( config ), workers_.size() );
   tls_.beginReload();
   // First the hosts leave that are gone or change their worker, then the others learn what is new: a host
   // has one owner.
   Orders leaving( workers_.size() );
   Orders staying( workers_.size() );
   std::size_t hostCount = 0;
   for ( const Config::Group & wanted : config.groups ) {
      const auto found = groups_.find( wanted.settings.name );
      const auto settings = settingsFor( wanted, found == groups_.end() ? nullptr : &found->second );
      Group & group = groups_[settings->name];
      const bool sameSettings = group.settings == settings;
      group.settings = settings;
      group.load = loads_;
      for ( const std::string & name : wanted.hosts ) {
         auto & host = group.hosts[name];
         const bool isNew = !host;
         if ( isNew ) {
            host = std::make_unique< Host >( name );
            byName_.emplace( name, std::pair{ &group, host.get() } );
         }
         host->load = loads_;
         ++hostCount;
         const std::size_t worker = std::hash< std::string >{}( name ) % activeWorkers_;
         const bool moves = !isNew && host->worker != worker;
         if ( moves )
            leaving[host->worker].push_back( { Command::Kind::move, host.get(), {}, {}, {} } );
         if ( isNew || moves || !sameSettings ) {
            host->told = targetOf( *settings, name );
            host->settled = true;
            staying[worker].push_back( { isNew || moves ? Command::Kind::take : Command::Kind::group,
                  host.get(), settings, host->told, {} } );
         }
         host->worker = worker;
      }
   }
   tls_.endReload();

   std::vector< std::unique_ptr< Host > > gone; // freed when no worker knows them
   for ( auto group = groups_.begin(); group != groups_.end(); ) {
      for ( auto host = group->second.hosts.begin(); host != group->second.hosts.end(); ) {
         if ( host->second->load == loads_ ) {
            ++host;
            continue;
         }
         leaving[host->second->worker].push_back( { Command::Kind::drop, host->second.get(), {}, {}, {} } );
         const auto [first, last] = byName_.equal_range( host->first );
         byName_.erase( std::find_if(
               first, last, [&]( const auto & e ) { return e.second.second == host->second.get(); } ) );
         gone.push_back( std::move( host->second ) );
         host = group->second.hosts.erase( host );
      }
      group = group->second.load == loads_ ? std::next( group ) : groups_.erase( group );
   }
   deliver( leaving, true );
   deliver( staying, true );
   log_.write( HM_LOG_NOTICE, "configuration loaded: {} host groups, {} hosts, {} threads",
         config.groups.size(), hostCount, activeWorkers_ );
}

void Engine::deliver( Orders & orders, bool settle ) {
   std::vector< Worker * > told;
   for ( std::size_t i = 0; i < orders.size(); ++i ) {
      if ( !orders[i].empty() ) {
         workers_[i]->post( std::move( orders[i] ) );
         told.push_back( workers_[i].get() );
      }
   }
   if ( settle ) {
      for ( Worker * const worker : told )
         worker->settle();
   }
}

Target Engine::targetOf( const HostGroup & group, const std::string & host ) const {
   Target target;
   const auto known = addresses_.find( host );
   if ( known == addresses_.end() )
      return target;
   for ( const HMIPAddress & address : known->second ) {
      if ( group.takes( address.family() ) ) {
         target.address = address;
         break;
      }
   }
   if ( const auto marks = marks_.find( group.name ); marks != marks_.end() ) {
      if ( const auto mark = marks->second.find( host ); mark != marks->second.end() ) {
         if ( const auto value = mark->second.find( target.address ); value != mark->second.end() )
            target.mark = value->second;
      }
   }
   return target;
}

void Engine::retarget( const std::string & host, bool settle ) {
   if ( !started_ )
      return;
   Orders orders( workers_.size() );
   const auto [first, last] = byName_.equal_range( host );
   for ( auto it = first; it != last; ++it ) {
      const auto & [group, entry] = it->second;
      const Target target = targetOf( *group->settings, host );
      if ( target == entry->told && ( entry->settled || !settle ) )
         continue; // waiting for the worker is what a removal costs
      entry->told = target;
      entry->settled = settle;
      orders[entry->worker].push_back( { Command::Kind::target, entry, {}, target, {} } );
   }
   deliver( orders, settle );
}

bool Engine::addAddresses( const std::string & host, const std::set< HMIPAddress > & addresses ) {
   const std::lock_guard lock{ mutex_ };
   if ( host.empty() || addresses.empty() || addresses.contains( HMIPAddress{} ) )
      return false;
   addresses_[host].insert( addresses.begin(), addresses.end() );
   retarget( host, false );
   return true;
}

bool Engine::removeAddresses( const std::string & host, const std::set< HMIPAddress > & addresses ) {
   const std::lock_guard lock{ mutex_ };
   if ( host.empty() || addresses.empty() || addresses.contains( HMIPAddress{} ) )
      return false;
   const auto known = addresses_.find( host );
   if ( known == addresses_.end() )
      return true;
   for ( const HMIPAddress & address : addresses )
      known->second.erase( address );
   if ( known->second.empty() )
      addresses_.erase( known );
   retarget( host, true );
   return true;
}

bool Engine::setMark(
      const std::string & group, const std::string & host, const HMIPAddress & address, int mark ) {
   const std::lock_guard lock{ mutex_ };
   if ( group.empty() || host.empty() || address.empty() || mark < 1 )
      return false;
   marks_[group][host][address] = static_cast< std::uint32_t >( mark );
   retarget( host, false );
   return true;
}

bool Engine::removeMark(
      const std::string & group, const std::string & host, const HMIPAddress & address, int mark ) {
   const std::lock_guard lock{ mutex_ };
   if ( group.empty() || host.empty() || address.empty() || mark < 1 )
      return false;
   const auto ofGroup = marks_.find( group );
   if ( ofGroup == marks_.end() )
      return true;
   const auto ofHost = ofGroup->second.find( host );
   if ( ofHost == ofGroup->second.end() )
      return true;
   ofHost->second.erase( address );
   if ( ofHost->second.empty() )
      ofGroup->second.erase( ofHost );
   if ( ofGroup->second.empty() )
      marks_.erase( ofGroup );
   retarget( host, true );
   return true;
}

bool Engine::probe( const std::string & group, const std::string & host, HMProbeDone done ) {
   const std::lock_guard lock{ mutex_ };
   const auto ofGroup = groups_.find( group );
   if ( !started_ || ofGroup == groups_.end() )
      return false;
   const auto entry = ofGroup->second.hosts.find( host );
   if ( entry == ofGroup->second.hosts.end() )
      return false;
   const Target & target = entry->second->told;
   if ( target.address.empty() || ( ofGroup->second.settings->needsMark && target.mark == 0 ) )
      return false;
   Orders orders( workers_.size() );
   orders[entry->second->worker].push_back(
         { Command::Kind::probe, entry->second.get(), {}, {}, std::move( done ) } );
   deliver( orders, false );
   return true;
}

std::vector< unsigned long > Engine::probeDelays() const {
   const std::lock_guard lock{ delaysMutex_ };
   std::vector< unsigned long > counts( ProbeDelays::buckets, 0 );
   for ( std::size_t i = 0; i < counts.size(); ++i ) {
      for ( const auto & worker : workers_ )
         counts[i] += worker->delays().at( i );
      counts[i] -= cleared_[i];
   }
   return counts;
}

void Engine::clearProbeDelays() {
   const std::lock_guard lock{ delaysMutex_ };
   for ( std::size_t i = 0; i < cleared_.size(); ++i ) {
      cleared_[i] = 0;
      for ( const auto & worker : workers_ )
         cleared_[i] += worker->delays().at( i );
   }
}

} // namespace netchasm
