#pragma once

#include "host/Document.h"
#include "platform/EntityManager.h"
#include "platform/state/HmState.h"

#include <map>
#include <optional>
#include <set>
#include <unordered_set>

namespace host {

/// What the descriptions of single attributes cannot say: servers that could never be probed. Judges the
/// state as it will be once a checked change is applied: servers and virtual addresses of one family in a
/// group, no more servers in groups that have a URL than can be probed at a time, and no more groups, members
/// and texts of theirs than the check engine reads.
///
/// Works one step at a time, so that a task may yield between any two. Main thread only; the state must not
/// be changed by others between the first step and the end of applying the change.
class CrossCheck {
 public:
   CrossCheck(
         const platform::Ptr<platform::EntityManager> & entityManager, platform::Ptr<CheckedChange> change );

   /// Does one step; false once there was nothing left to do.
   bool step();
   const ChangeErrors & errors() const { return errors_; }
   /// Groups that cannot stand as they would be. Without servers each of them could.
   const std::set<std::string> & groupsAtFault() const { return groupsAtFault_; }

 private:
   // One group as it will be. What the change does not say comes from the state.
   struct Group {
      const AttributeContent * servers = nullptr; // what the change says of them
      platform::Ptr<const HmState::NexthopGroupConfig> present{};
      platform::IpGenAddr added{};                            // one server more
      std::optional<std::size_t> httpUrlBytes = std::nullopt; // in YAML; 0: none
      std::optional<bool> tcp = std::nullopt;
      std::optional<bool> profile = std::nullopt; // of SSL, of its own
      std::optional<platform::IpGenAddr> vip = std::nullopt;
      std::size_t vipLine = 0;
   };
   using Groups = std::map<std::string, Group>;
   template<class Entry>
   using Walk = typename platform::OrderedMap<std::string, platform::Ptr<Entry>>::Iterator;
   enum class Phase { change, presentServers, presentSettings, groups, addresses, release };

   void changeStep();
   void groupSaid( bool ofServers, const std::string & name, const EntityContent & content );
   void settingSaid( Group & group, const AttributeContent & content );
   void presentServersStep();
   void presentSettingsStep();
   void groupStep();
   [[nodiscard]] bool ofOneFamily(
         const std::string & name, const Group & group, const platform::IpGenAddr & server );
   void groupNext();
   void groupEnd( const std::string & name, const Group & group );
   void groupsEnd();
   void addressesStep();
   std::optional<platform::IpGenAddr> serverNext( const Group & group );
   static bool hasTcp( const Group & group );
   std::size_t httpUrlBytes( const Group & group ) const;

   const platform::Ptr<HmState::ServerConfig> serverConfig_;
   const platform::Ptr<HmState::ProbeConfig> probeConfig_;
   const platform::Ptr<CheckedChange> change_;
   ChangeErrors errors_;
   std::set<std::string> groupsAtFault_;

   Phase phase_ = Phase::change;
   std::size_t section_ = 0;
   std::size_t entry_ = 0; // of the collection that a section holds
   bool concerned_ = false;
   bool serversReplaced_ = false;
   bool settingsReplaced_ = false;
   std::optional<std::size_t> globalUrlBytes_; // in YAML; 0: none
   Walk<HmState::NexthopGroupConfig> presentServers_;
   Walk<HmState::NexthopGroupProbeConfig> presentSettings_;

   Groups groups_;
   Groups::const_iterator group_; // the one that is looked at
   std::size_t member_ = 0;       // of its servers, where the change says them
   platform::IpGenAddr after_{};  // the last one of its servers, where the state does
   bool addedGiven_ = false;
   platform::IpGenAddr first_{}; // of its servers

   std::size_t members_ = 0; // of the groups that have a URL
   // What those take of the check engine's configuration, at most.
   std::size_t engineBytes_ = 0;
   std::size_t engineValues_ = 0;
   std::unordered_set<platform::IpGenAddr> servers_;
};

} // namespace host
