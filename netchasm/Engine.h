#pragma once

#include "netchasm/Config.h"
#include "netchasm/HMProbeReport.h"
#include "netchasm/HMStorageObserver.h"
#include "netchasm/Log.h"
#include "netchasm/SocketCalls.h"
#include "netchasm/TlsContext.h"
#include "netchasm/Worker.h"
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace netchasm {

/// What stands behind HMStateManager, whose contract its calls share: knows the configuration, the static
/// addresses and the marks, owns the hosts and the workers, and tells each worker what changes for its hosts.
class Engine {
 public:
   /// `calls`: the way to the network.
   explicit Engine( std::unique_ptr< SocketCalls > calls = std::make_unique< SocketCalls >() );
   ~Engine();
   Engine( const Engine & ) = delete;
   Engine & operator=( const Engine & ) = delete;

   void logIs( std::shared_ptr< HMLogBase > log );
   void observerIs( std::shared_ptr< HMStorageObserver > observer );
   [[nodiscard]] bool start( const std::string & masterPath, int logLevel, bool startChecking );
   [[nodiscard]] bool reload( const std::string & masterPath );
   void dropHosts();
   [[nodiscard]] bool addAddresses( const std::string & host, const std::set< HMIPAddress > & addresses );
   [[nodiscard]] bool removeAddresses( const std::string & host, const std::set< HMIPAddress > & addresses );
   [[nodiscard]] bool setMark(
         const std::string & group, const std::string & host, const HMIPAddress & address, int mark );
   [[nodiscard]] bool removeMark(
         const std::string & group, const std::string & host, const HMIPAddress & address, int mark );
   [[nodiscard]] bool probe( const std::string & group, const std::string & host, HMProbeDone done );
   void logLevelIs( int level ) { log_.levelIs( level ); }

   std::vector< unsigned long > probeDelays() const;
   void clearProbeDelays();

 private:
   /// A host group and its hosts by name.
   struct Group {
      std::shared_ptr< const HostGroup > settings;
      std::uint64_t load = 0; ///< the last configuration load that named it
      std::unordered_map< std::string, std::unique_ptr< Host > > hosts;
   };
   using Marks = std::unordered_map< std::string, std::map< HMIPAddress, std::uint32_t > >; ///< by host name
   /// Commands gathered for each worker.
   using Orders = std::vector< std::vector< Command > >;

   bool load( const std::string & masterPath, Config & config );
   /// Starts what is missing; with fewer than wanted the engine makes do. False: there is none.
   bool ensureWorkers( std::size_t count );
   std::size_t workerCount( const Config & config ) const;
   std::shared_ptr< const HostGroup > settingsFor( const Config::Group & wanted, const Group * present );
   void apply( const Config & config );
   Target targetOf( const HostGroup & group, const std::string & host ) const;
   void retarget( const std::string & host, bool settle );
   void deliver( Orders & orders, bool settle );

   Log log_;
   std::unique_ptr< SocketCalls > calls_;
   std::shared_ptr< HMStorageObserver > observer_;

   // Under mutex_: the calls that change the engine, one after another.
   std::mutex mutex_;
   bool started_ = false;
   std::uint64_t loads_ = 0;
   std::size_t activeWorkers_ = 0;
   TlsContexts tls_;
   std::unordered_map< std::string, std::set< HMIPAddress > > addresses_; ///< by host name
   std::unordered_map< std::string, Marks > marks_;                       ///< by group name
   std::unordered_map< std::string, Group > groups_;
   /// The groups' entries that a host name has, by name.
   std::unordered_multimap< std::string, std::pair< Group *, Host * > > byName_;

   // Under delaysMutex_, which no worker takes.
   mutable std::mutex delaysMutex_;
   std::vector< std::unique_ptr< Worker > >
         workers_;                        ///< grows under both locks, never shrinks before the end
   std::vector< unsigned long > cleared_; ///< the histogram when it was last cleared
};

} // namespace netchasm
