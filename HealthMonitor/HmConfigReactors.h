#pragma once

#include "platform/Reactor.h"
#include "platform/state/HmState.h"
#include "platform/state/Ssl.h"

/// The reactors nested in ConfigSm. Each is bound to one entry of a collection, is made when the entry
/// appears, and goes after its handleDel() when the entry has gone. `parent` outlives them. Main thread only.
namespace hm {

using namespace platform;

class ConfigSm;

/// The servers of one nexthop group.
class NhgConfigReactor : public Reactor {
 public:
   NhgConfigReactor( Ptr<const HmState::NexthopGroupConfig> config, ConfigSm & parent );
   const NexthopGroupName & nhgName() const { return config_->nhgName(); }
   const Ptr<const HmState::NexthopGroupConfig> & config() const { return config_; }

   void handleInitialized();
   void handleNhgServerIp( const IpGenAddr & serverIp ); // came or went
   void handleDel();

 private:
   const Ptr<const HmState::NexthopGroupConfig> config_;
   ConfigSm & parent_;
};

/// The probe settings of one nexthop group.
class NhgProbeConfigReactor : public Reactor {
 public:
   NhgProbeConfigReactor( Ptr<const HmState::NexthopGroupProbeConfig> config, ConfigSm & parent );
   const NexthopGroupName & nhgName() const { return config_->nhgName(); }
   const Ptr<const HmState::NexthopGroupProbeConfig> & config() const { return config_; }

   void handleInitialized();
   void handleNhgUrl();
   void handleNhgVip();
   void handleNhgSslProfile();
   void handleNhgProbeInterval();
   void handleNhgDisabled();
   void handleNhgTimeout();
   void handleNhgRetryDelay();
   void handleNhgRetryCount();
   void handleDel();

 private:
   // What several handlers end in; `handler` names the one in traces.
   void serversChanged( const char * handler );
   void localAttrsChanged( const char * handler );

   const Ptr<const HmState::NexthopGroupProbeConfig> config_;
   ConfigSm & parent_;
};

/// The state of one SSL profile.
class SslStatusReactor : public Reactor {
 public:
   SslStatusReactor(
         std::string profileName, Ptr<const Mgmt::Security::Ssl::ProfileStatus> status, ConfigSm & parent );
   const Ptr<const Mgmt::Security::Ssl::ProfileStatus> & status() const { return status_; }

   void handleState();
   void handleDel();

 private:
   const std::string profileName_;
   const Ptr<const Mgmt::Security::Ssl::ProfileStatus> status_;
   ConfigSm & parent_;
};

} // namespace hm
