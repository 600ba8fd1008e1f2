#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "platform/CommandCallback.h"

#include <optional>

namespace hm {

class HmAgent;

/// "status [NHG]": a row a server with what is published, what each kind of check says, since when, and what
/// the latest check saw. Main thread.
class StatusTableSm final : public AsyncCommandRequestSm {
 public:
   /// `nhgName`: only this group; none: all. `agent` outlives the request.
   StatusTableSm( const Ptr<const AgentCommandRequest> & request, HmAgent * agent,
         std::optional<NexthopGroupName> nhgName );

   void handleAsyncCommand( unsigned socket, unsigned format ) override;

 private:
   /// The columns whose width depends on what stands in them.
   struct Widths {
      int nhg = 13;
      int vip = 3;
      int server = 15;
   };
   /// How wide the columns are to be. False: the slice is over.
   bool measure();
   void begin();
   void groupBegin( const NexthopGroupName & nhgName );
   void groupEnd();
   void row( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
         const HmState::ProbeStatus & published );
   /// Prints from the bookmark on. False: the slice is over.
   bool rows();
   bool wanted( const NexthopGroupName & nhgName ) const { return !only_ || nhgName == *only_; }

   HmAgent * const hmAgent_;
   const std::optional<NexthopGroupName> only_;
   CliPrinter printer_;
   Widths widths_;
   NexthopGroupName measuredTo_ = only_.value_or( NexthopGroupName{} ); // where measure() goes on
   bool begun_ = false;
   // Where the walk stands: a group that has been begun, and the last server of it that was printed.
   std::optional<NexthopGroupName> nhgBookmark_;
   std::optional<IpGenAddr> serverBookmark_;
   bool groupOpen_ = false;
   std::string vip_; // of the group at the bookmark
};

} // namespace hm
