#include "host/Host.h"

#include "host/AgentLibrary.h"
#include "host/Applier.h"
#include "host/ControlProtocol.h"
#include "host/HostTrace.h"
#include "platform/Printable.h"
#include "platform/state/Profile.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <event2/event.h>
#include <fmt/format.h>

namespace host {

using namespace platform;

namespace {

// For whoever reads the journal: what went wrong with a change that nobody waits for.
void report( const std::string & line ) {
   // Not through fmt::print, which throws when the journal's pipe is broken or its disk full.
   std::fputs( fmt::format( "hm-host: {}\n", line ).c_str(), stderr );
   HM_TRACE( 1, " {}", line );
}

} // namespace

std::optional<std::string> fileRead( const std::string & path, FileKind kind, std::size_t maxBytes,
      std::string & text, Clock::Duration patience ) {
   text.clear();
   const auto name = printable( path );
   const auto failed = [&name] { return fmt::format( "{}: {}", name, std::strerror( errno ) ); };
   // Opening a pipe that nobody writes must not block; what waits below gives up after a while.
   const int fd = open( path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY );
   if ( fd < 0 ) {
      return failed();
   }
   const std::shared_ptr<void> closed( nullptr, [fd]( void * ) { close( fd ); } );
   struct stat found {};
   if ( fstat( fd, &found ) != 0 ) {
      return failed();
   }
   const bool waits = !S_ISREG( found.st_mode ) && !S_ISDIR( found.st_mode );
   if ( waits && kind == FileKind::regular ) {
      return name + ": is no regular file; what came from a pipe cannot be read again";
   }
   std::array<char, 64 * 1024> buffer;
   while ( text.size() <= maxBytes ) {
      if ( waits ) {
         // Before the first byte as well: without a writer a pipe would look like one that has ended.
         pollfd readable{ fd, POLLIN, 0 };
         const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>( patience ).count();
         const int ready = poll( &readable, 1, static_cast<int>( ms ) );
         if ( ready == 0 ) {
            return fmt::format( "{}: nothing came for {} s", name, Seconds( patience ).count() );
         }
         if ( ready < 0 ) {
            return failed();
         }
      }
      const auto size = read( fd, buffer.data(), buffer.size() );
      if ( size == 0 ) {
         return std::nullopt;
      }
      if ( size > 0 ) {
         text.append( buffer.data(), static_cast<std::size_t>( size ) );
      } else if ( errno != EAGAIN && errno != EINTR ) {
         return failed();
      }
   }
   return fmt::format( "{}: is larger than {} bytes", name, maxBytes );
}

Host::Host( HostOptions options )
      : options_( std::move( options ) ),
        begun_( Clock::steady().now() ),
        mainLoop_( new EventLoop() ),
        scheduler_( new TaskScheduler( mainLoop_ ) ),
        entityManager_( new EntityManager() ),
        status_( new HostStatus() ) {}

Host::~Host() {
   teardown();
   for ( auto * each : signals_ ) {
      event_free( each );
   }
}

std::vector<std::string> Host::start() {
   traceFacility(); // an operator finds it before its first line
   if ( auto refusal = socket_.open( options_.socketPath ) ) {
      return { *refusal };
   }
   signalWatch( SIGTERM, []( int, short, void * self ) { static_cast<Host *>( self )->mainLoop_->stop(); } );
   signalWatch( SIGINT, []( int, short, void * self ) { static_cast<Host *>( self )->mainLoop_->stop(); } );
   signalWatch( SIGHUP, []( int, short, void * self ) { static_cast<Host *>( self )->hangup(); } );

   entityManager_->profileIs( healthMonitorProfile() );
   entityManager_->entityIs( HostStatus::path, status_ );
   status_->versionIs( options_.version );
   status_->agentNameIs( options_.agentName );
   status_->pidIs( static_cast<std::uint32_t>( getpid() ) );
   schema_ = std::make_shared<Schema>( *entityManager_, closedPaths() );

   if ( auto refusal = stateRestore() ) {
      return { *refusal };
   }
   // On top of what was stored: the startup file decides for the paths that it names.
   if ( auto errors = startupConfigure(); !errors.empty() ) {
      return errors;
   }
   if ( options_.interfacesFromKernel ) {
      kernelInterfaces_ = new KernelInterfaces( mainLoop_, scheduler_, entityManager_ );
      if ( auto refusal = kernelInterfaces_->start() ) {
         return { *refusal };
      }
   }
   if ( options_.packetFilter ) {
      packetFilter_ = new PacketFilter( mainLoop_, scheduler_, entityManager_, status_, report );
      packetFilter_->start();
   }
   std::string why;
   auto * factory = agentFactoryLoad( options_.agentLibrary, &why );
   if ( !factory ) {
      return { why };
   }
   agent_ = factory( options_.agentName.c_str() );
   if ( !agent_ ) {
      return { options_.agentLibrary + ": the factory made no agent" };
   }
   AgentContext context;
   context.mainLoop = mainLoop_;
   context.entityManager = entityManager_;
   context.scheduler = scheduler_;
   agent_->contextIs( context );
   agent_->doInit();

   configQueue_ = new ConfigQueue( mainLoop_, entityManager_, scheduler_, schema_ );
   if ( stateKeeper_ ) {
      stateKeeper_->agentStarted( configQueue_, agent_->statistics() );
   }
   changeFeed_ = new ChangeFeed( entityManager_ );
   ControlServices services;
   services.mainLoop = mainLoop_;
   services.scheduler = scheduler_;
   services.entityManager = entityManager_;
   services.schema = schema_;
   services.configQueue = configQueue_;
   services.changeFeed = changeFeed_;
   services.commandDirectory = agent_->commandRequestDirectory();
   services.statusRefresh = [this] { statusRefresh(); };
   services.cleanState = [this] { return agent_->doCheckAgentCleanState(); };
   services.clientCountChanged = [this]( std::size_t count ) {
      status_->clientsIs( static_cast<std::uint32_t>( count ) );
   };
   services.changeEnded = [this]( const ChangeOutcome & outcome ) { changeEnded( outcome ); };
   if ( stateKeeper_ ) {
      services.whenStored = [this]( std::function<void()> done ) {
         stateKeeper_->whenStored( std::move( done ) );
      };
   }
   controlServer_ = new ControlServer( services, socket_.fdTake() );
   return {};
}

void Host::run() {
   mainLoop_->run();
   // A second signal ends the process at once, should the teardown hang; but for SIGHUP, which is ignored now
   // as it was before there was a host.
   for ( auto * each : signals_ ) {
      event_del( each );
   }
   HM_TRACE( 4, " the host is stopping" );
   teardown();
   traceFlush();
}

void Host::teardown() {
   controlServer_ = nullptr;
   if ( stateKeeper_ ) {
      stateKeeper_->finish(); // as it stands, not as an agent that is being torn down leaves it
   }
   configQueue_ = nullptr;
   stateKeeper_ = nullptr;
   kernelInterfaces_ = nullptr;
   agent_ = nullptr;
   packetFilter_ = nullptr;
   changeFeed_ = nullptr;
}

Refusal Host::stateRestore() {
   const auto roots = storedRoots( *entityManager_, *schema_ );
   const auto store = stateStoreMake( options_.stateDb, mainLoop_, schema_, roots );
   if ( !store ) {
      return std::nullopt;
   }
   StateKeeper::Services services;
   services.mainLoop = mainLoop_;
   services.scheduler = scheduler_;
   services.entityManager = entityManager_;
   services.report = []( const std::string & line ) { report( line ); };
   services.changeEnded = [this]( const ChangeOutcome & outcome ) { changeEnded( outcome ); };
   services.refusals = [this]( std::uint64_t count ) {
      status_->stateRefusalsIs( status_->stateRefusals() + count );
   };
   stateKeeper_ = new StateKeeper( services, roots, store );
   return stateKeeper_->restore();
}

std::vector<Schema::Closed> Host::closedPaths() const {
   std::vector<Schema::Closed> closed{ { HostStatus::path } };
   if ( options_.interfacesFromKernel ) {
      for ( const auto & path : KernelInterfaces::paths ) {
         closed.push_back(
               { path, "follows the kernel's interfaces (--interfaces kernel) and is not configured" } );
      }
   }
   return closed;
}

std::vector<std::string> Host::startupConfigure() {
   if ( options_.configFile.empty() ) {
      return {};
   }
   ChangeRequest request;
   request.source = options_.configFile;
   if ( auto refusal =
               fileRead( options_.configFile, FileKind::any, control::maxDocumentBytes, request.text ) ) {
      return { *refusal };
   }
   const auto change = checkChange( *schema_, request );
   if ( !change->errors.empty() ) {
      return change->errors;
   }
   // Nobody watches and nothing else waits yet: no slices.
   CrossCheck crossCheck( entityManager_, change );
   while ( crossCheck.step() ) {}
   if ( !crossCheck.errors().empty() ) {
      return crossCheck.errors().lines();
   }
   Applier applier( entityManager_, change );
   while ( applier.step() ) {}
   changeEnded( { applier.refusals(), applier.changes() } );
   return {};
}

void Host::hangup() {
   mainLoop_->dispatch( [this] {
      if ( options_.configFile.empty() ) {
         report( "SIGHUP: there is no startup configuration to apply again" );
      } else if ( reloading_ ) {
         reloadAgain_ = true;
      } else {
         configReload();
      }
   } );
}

void Host::configReload() {
   ChangeRequest request;
   request.source = options_.configFile;
   if ( const auto refusal =
               fileRead( options_.configFile, FileKind::regular, control::maxDocumentBytes, request.text ) ) {
      report( *refusal );
      changeEnded( { { *refusal }, 0 } );
      return;
   }
   reloading_ = true;
   configQueue_->submit( std::move( request ), [this]( const ChangeOutcome & outcome ) {
      for ( const auto & error : outcome.errors ) {
         report( error );
      }
      changeEnded( outcome );
      reloading_ = false;
      if ( std::exchange( reloadAgain_, false ) ) {
         configReload();
      }
   } );
}

void Host::changeEnded( const ChangeOutcome & outcome ) {
   if ( !outcome.errors.empty() ) {
      HM_TRACE( 4, " change refused: {}", outcome.errors.front() );
      status_->lastConfigurationErrorIs( outcome.errors.front() );
   } else if ( outcome.changes != 0 ) {
      HM_TRACE( 4, " change applied, differences: {}", outcome.changes );
      status_->configurationGenerationIs( status_->configurationGeneration() + 1 );
   }
}

void Host::statusRefresh() {
   using namespace std::chrono;
   status_->uptimeIs(
         static_cast<std::uint64_t>( duration_cast<seconds>( Clock::steady().now() - begun_ ).count() ) );
   status_->longestHoldUsIs(
         static_cast<std::uint64_t>( duration_cast<microseconds>( mainLoop_->longestHold() ).count() ) );
   status_->cleanStateIs( agent_->doCheckAgentCleanState() );
}

void Host::signalWatch( int signal, void ( *handler )( int, short, void * ) ) {
   auto * watch = evsignal_new( mainLoop_->base(), signal, handler, this );
   event_add( watch, nullptr );
   signals_.push_back( watch );
}

} // namespace host
