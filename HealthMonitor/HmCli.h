#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "platform/CommandCallback.h"

#include <array>
#include <optional>

/// The operator's commands. All of it on the main thread.
namespace hm {

class HmAgent;

/// "clear health-monitor probe delay". `hmAgent` outlives the callback's place in the directory.
class HmCli final : public AgentCommandCallback {
 public:
   HmCli( std::string name, std::string commandType, HmAgent * hmAgent )
         : AgentCommandCallback( std::move( name ), std::move( commandType ) ),
           hmAgent_( hmAgent ) {}
   HmAgent * hmAgent() const { return hmAgent_; }

   std::vector<CommandInfo> commands() const override;
   void handleCommand( unsigned socket, const std::string & command ) override;

 private:
   HmAgent * const hmAgent_;
};

/// "show health-monitor …". As above.
class HmCliF final : public AgentCommandCallbackWithFormat {
 public:
   HmCliF( std::string name, std::string commandType, HmAgent * hmAgent )
         : AgentCommandCallbackWithFormat( std::move( name ), std::move( commandType ) ),
           hmAgent_( hmAgent ) {}
   HmAgent * hmAgent() const { return hmAgent_; }

   std::vector<CommandInfo> commands() const override;
   using AgentCommandCallbackWithFormat::handleCommand;
   void handleCommand( unsigned socket, const std::string & command, unsigned format ) override;
   Ptr<AsyncCommandRequestSm> createAgentAsyncCommandRequestSm(
         const Ptr<const AgentCommandRequest> & request ) override;

 private:
   HmAgent * const hmAgent_;
};

Ptr<HmCli> hmCliFactory( const std::string & name, const std::string & commandType, HmAgent * hmAgent );
Ptr<HmCliF> hmCliFFactory( const std::string & name, const std::string & commandType, HmAgent * hmAgent );

/// A table with a line for each kind of check of each server of each group, printed in slices. A slice ends
/// between two groups, or inside one that is too large for it, and the next one goes on behind what was
/// printed. When the group at which it would go on has gone meanwhile, the walk begins again, and groups that
/// were printed appear a second time.
///
/// The environment variable TEST_YIELD, set to N, ends a slice at every N-th question between two groups, so
/// that tests see many slices; the first group of a slice is printed anyway.
class ShowAsyncCommandRequestBaseSm : public AsyncCommandRequestSm {
 public:
   ShowAsyncCommandRequestBaseSm( std::string name, Ptr<const AgentCommandRequest> agentCommandRequest,
         Seconds maxRunTime, const Clock & clock, HmAgent * hmAgent )
         : AsyncCommandRequestSm( std::move( name ), std::move( agentCommandRequest ), maxRunTime, clock ),
           hmAgent_( hmAgent ) {}

   virtual void handleInitialized() = 0; // once, before the first slice
   bool initialized() const { return initialized_; }
   bool headerPrinted() const { return headerPrinted_; }
   bool forceYieldInTest() const { return forceYieldInTest_; }
   const NexthopGroupName & nhgBookmark() const { return nhgBookmark_; } // empty: none

 protected:
   struct Table {
      const char * key;     // of the JSON object
      const char * columns; // the headings after the group's, and the rule below them
      const char * rule;
   };

   HmAgent & hmAgent() const { return *hmAgent_; }
   void initialize();
   void handleEnvVars();

   /// One slice of the walk over `groups`: `serversOf( group )` are its servers, and `printServer( nhgName,
   /// ip, server )` prints one, each of its lines within probeTypeEntry().
   template<class Groups, class ServersOf, class PrintServer>
   void slice( unsigned socket, unsigned format, const Table & table, const Groups & groups,
         ServersOf serversOf, PrintServer printServer );
   /// Calls `print( printer, word )` in the entry of a kind of check, unless the group has no URL for it.
   template<class Print>
   void probeTypeEntry( ProbeType probeType, Print print );

   // The group of the line that is being printed.
   int nhgMaxWidth() const { return nhgMaxWidth_; }
   const char * nhgText() const { return nhgText_.c_str(); }

 private:
   template<class Groups, class ServersOf, class PrintServer>
   bool walk( const Groups & groups, ServersOf serversOf, PrintServer printServer );
   template<class Servers, class PrintServer>
   bool serversWalk( const NexthopGroupName & nhgName, const Servers & servers, PrintServer printServer );
   template<class Groups>
   void headerPrint( unsigned socket, unsigned format, const Table & table, const Groups & groups );
   void groupEnd();
   bool forceYieldInTestEval();
   void forceYieldInTestCounterInc() { ++forceYieldInTestCounter_; }

   HmAgent * const hmAgent_;
   bool forceYieldInTest_ = false;
   std::uint8_t forceYieldInTestCounter_ = 0;
   std::uint8_t forceYieldInTestVal_ = 0;
   bool initialized_ = false;
   bool headerPrinted_ = false;
   std::uint8_t nhgMaxWidth_ = 0; // bytes
   NexthopGroupName nhgBookmark_; // where the next slice goes on; empty: at the beginning
   // Of a group that was left in the middle, whose objects are open in the output.
   bool groupOpen_ = false;
   IpGenAddr serverBookmark_; // the last server printed

   std::optional<CliPrinter> printer_; // from the header on
   std::string nhgText_;
   std::array<std::string, 2> probeTypeWords_; // by ProbeType; empty: the group has no URL for it
};

class ShowCountersAsyncCommandRequestSm final : public ShowAsyncCommandRequestBaseSm {
 public:
   using ShowAsyncCommandRequestBaseSm::ShowAsyncCommandRequestBaseSm;
   void handleInitialized() override;
   void handleAsyncCommand( unsigned socket, unsigned format ) override;
};

class ShowTimestampsAsyncCommandRequestSm final : public ShowAsyncCommandRequestBaseSm {
 public:
   using ShowAsyncCommandRequestBaseSm::ShowAsyncCommandRequestBaseSm;
   void handleInitialized() override;
   void handleAsyncCommand( unsigned socket, unsigned format ) override;
};

class ShowStatusDetailAsyncCommandRequestSm final : public ShowAsyncCommandRequestBaseSm {
 public:
   using ShowAsyncCommandRequestBaseSm::ShowAsyncCommandRequestBaseSm;
   void handleInitialized() override;
   void handleAsyncCommand( unsigned socket, unsigned format ) override;
};

Ptr<ShowCountersAsyncCommandRequestSm> showCountersAsyncCommandRequestSmFactory( const std::string & name,
      const Ptr<const AgentCommandRequest> & request, Seconds maxRunTime, const Clock & clock,
      HmAgent * hmAgent );
Ptr<ShowTimestampsAsyncCommandRequestSm> showTimestampsAsyncCommandRequestSmFactory( const std::string & name,
      const Ptr<const AgentCommandRequest> & request, Seconds maxRunTime, const Clock & clock,
      HmAgent * hmAgent );
Ptr<ShowStatusDetailAsyncCommandRequestSm> showStatusDetailAsyncCommandRequestSmFactory(
      const std::string & name, const Ptr<const AgentCommandRequest> & request, Seconds maxRunTime,
      const Clock & clock, HmAgent * hmAgent );

} // namespace hm
