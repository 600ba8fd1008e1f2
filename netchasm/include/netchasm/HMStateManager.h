#pragma once

#include "netchasm/HMIPAddress.h"
#include "netchasm/HMLogBase.h"
#include "netchasm/HMProbeReport.h"
#include "netchasm/HMStorageObserver.h"
#include "netchasm/HMWorkQueue.h"
#include <memory>
#include <set>
#include <string>

namespace netchasm {
class Engine;
}

/// The check engine: keeps asking thousands of hosts over TCP, HTTP and HTTPS whether they are well, and
/// reports every finished check to a storage observer.
///
/// Order of use: construct, registerLog(), registerStorageObserver(), healthCheck(), then any of the other
/// calls. They may come from any thread but the engine's own (the observer and the log must not call back);
/// calls from several threads are taken one after another. Checks run on the engine's threads ("workers"),
/// one for each core and at most "threads.max"; a reload that lowers it leaves the surplus asleep. One engine
/// a process is meant; it raises the process's soft limit of open descriptors to the hard one.
///
/// A host is checked when its host group is configured, it has a static address of a family that the group's
/// "dual-stack-mode" allows, and, for "-mark" check types, the mark for this address. Its first check comes
/// within the shorter of its interval and one second. It goes quiet when any of these is taken away.
///
/// Removals and reloads have taken effect on every worker when they return: no packet of a check that they
/// end follows, except the reset that closes its connection, and no result of it. Additions take effect
/// shortly after.
class HMStateManager {
 public:
   HMStateManager();
   /// Stops the workers and waits for them; running checks are dropped unreported.
   ~HMStateManager();
   HMStateManager( const HMStateManager & ) = delete;
   HMStateManager & operator=( const HMStateManager & ) = delete;

   /// Before healthCheck(), at most once each; without a log or an observer entries or results go nowhere.
   void registerLog( std::shared_ptr< HMLogBase > log );
   void registerStorageObserver( std::shared_ptr< HMStorageObserver > observer );

   /// Loads the master configuration file and the host file that it names, and starts checking. With
   /// `startChecking` false the files are only loaded and judged. False: the files cannot be used, the log
   /// cannot be opened, there is no thread or descriptor for a single worker, or the engine runs already; the
   /// log says where and why, and nothing was started.
   [[nodiscard]] bool healthCheck( std::string masterConfigPath, HM_LOG_LEVEL level, bool startChecking );

   /// Reads both files again and replaces all host groups. A host that is in the same group before and after
   /// keeps its schedule, its counters and its running check; only a check whose worker ("threads.max") or
   /// address ("dual-stack-mode") changes ends unreported and is made again at once. False: the files cannot
   /// be used, or the engine was not started; the log says where and why, and the engine goes on with what it
   /// had. Too few threads or descriptors for new workers are logged and made do with.
   [[nodiscard]] bool reloadDaemonConfigs( std::string masterConfigPath );

   /// Lets go of all hosts, as a reload of files without any does: for a program that is about to end, and
   /// whose network must not see what checks leave behind. The next reload brings them back.
   void dropHosts();

   /// Adds addresses for, or takes them from, a host name, in all host groups that have it, now or after a
   /// later reload. Of several usable addresses the lowest is probed, IPv4 first. True: the addresses are
   /// known (or no longer known), also when they were before. False: the name or the set is empty, or an
   /// address is.
   [[nodiscard]] bool addStaticDNSAddress(
         const std::string & hostName, const std::set< HMIPAddress > & addresses );
   [[nodiscard]] bool removeStaticDNSAddress(
         const std::string & hostName, const std::set< HMIPAddress > & addresses );

   /// Sets or removes the firewall mark (SO_MARK) of all packets of a host's checks to this address, now or
   /// after a later reload. True as above. False: a name or the address is empty, or the mark is below 1.
   /// Removing ignores `mark`'s value beyond that: the address has at most one.
   [[nodiscard]] bool setHostMark( const std::string & hostGroupName, const std::string & hostName,
         const HMIPAddress & address, int mark );
   [[nodiscard]] bool removeHostMark( const std::string & hostGroupName, const std::string & hostName,
         const HMIPAddress & address, int mark );

   /// Checks a host once and at once, over its group's settings, address and mark, beside its schedule:
   /// nothing is counted, retried or told to the observer. A change of the configuration that ends the host's
   /// running check ends this one too, with HM_REASON_NO_VERDICT. False, and `done` is not called: the group
   /// has no such host, the host has no address or mark yet, or the engine was not started.
   [[nodiscard]] bool probe(
         const std::string & hostGroupName, const std::string & hostName, HMProbeDone done );

   /// Later entries are filtered at this level. Any thread, the engine's own included.
   void setLogLevel( HM_LOG_LEVEL level );

   /// The probe-delay histogram; lives as long as the engine.
   HMWorkQueue & workQueue();

 private:
   std::unique_ptr< netchasm::Engine > engine_;
   HMWorkQueue workQueue_;
};
