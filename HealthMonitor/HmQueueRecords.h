#pragma once

#include "HealthMonitor/HmPayloadIntake.h"
#include "platform/EventMpmcQueue.h"
#include "platform/IpGenAddr.h"

#include <cstdint>
#include <string>
#include <utility>

namespace hm {

using namespace platform;

enum class CmdOp : std::uint8_t { init = 0, reload = 1, dnsAndMark = 2, setTrace = 3 };

/// A command for the engine: pushed by the main thread, executed by the command thread. Immutable.
class CmdBase : public QueueElement {
 public:
   CmdOp cmdOp() const { return cmdOp_; }

 protected:
   explicit CmdBase( CmdOp cmdOp ) : cmdOp_( cmdOp ) {}

 private:
   const CmdOp cmdOp_;
};

/// Start the engine on a master configuration.
struct CmdInit final : CmdBase {
   explicit CmdInit( std::string path ) : CmdBase( CmdOp::init ), masterConfigPath( std::move( path ) ) {}

   const std::string masterConfigPath;
};

/// Bring the engine to a newly written master configuration.
struct CmdReload final : CmdBase {
   explicit CmdReload( std::string path ) : CmdBase( CmdOp::reload ), masterConfigPath( std::move( path ) ) {}

   const std::string masterConfigPath;
};

/// Give one host of the engine its static address and its mark, or take both away.
struct CmdDnsAndMark final : CmdBase {
   CmdDnsAndMark( std::string group, std::string host, const IpGenAddr & address, std::uint32_t hostMark,
         bool withdraw )
         : CmdBase( CmdOp::dnsAndMark ),
           hostGroupName( std::move( group ) ),
           hostName( std::move( host ) ),
           hostIp( address ),
           mark( hostMark ),
           remove( withdraw ) {}

   const std::string hostGroupName;
   const std::string hostName;
   const IpGenAddr hostIp;
   const std::uint32_t mark;
   const bool remove;
};

/// Change the engine's log level.
struct CmdSetTrace final : CmdBase {
   explicit CmdSetTrace( std::int32_t level ) : CmdBase( CmdOp::setTrace ), traceLevel( level ) {}

   const std::int32_t traceLevel;
};

/// One finished check: pushed by the engine's threads, consumed on the main thread. The members in their
/// order are what it is built from. `response` and `reason` are the engine's own codes; the counts are
/// running totals of the host.
struct ProbeResult final : QueueElement {
   ProbeResult( std::string hostName_, std::uint8_t response_, std::uint32_t responseCode_,
         std::string responsePayload_, std::uint8_t reason_, std::uint32_t numChecks_,
         std::uint32_t numResponses_, std::uint32_t numConnectFailures_, std::uint32_t numFailures_,
         std::uint32_t numTimeouts_, std::uint32_t lastResponseTime_, std::uint64_t lastCheckTime_,
         std::uint16_t weight_, bool payloadLeftOut_ = false, PayloadTicket payloadTicket_ = {} )
         : hostName( std::move( hostName_ ) ),
           response( response_ ),
           responseCode( responseCode_ ),
           responsePayload( std::move( responsePayload_ ) ),
           reason( reason_ ),
           numChecks( numChecks_ ),
           numResponses( numResponses_ ),
           numConnectFailures( numConnectFailures_ ),
           numFailures( numFailures_ ),
           numTimeouts( numTimeouts_ ),
           lastResponseTime( lastResponseTime_ ),
           lastCheckTime( lastCheckTime_ ),
           weight( weight_ ),
           payloadLeftOut( payloadLeftOut_ ),
           payloadTicket( std::move( payloadTicket_ ) ) {}

   const std::string hostName;
   const std::uint8_t response;
   const std::uint32_t responseCode; // of the protocol; for HTTP the status code
   const std::string responsePayload;
   const std::uint8_t reason;
   const std::uint32_t numChecks;
   const std::uint32_t numResponses;
   const std::uint32_t numConnectFailures;
   const std::uint32_t numFailures;
   const std::uint32_t numTimeouts;
   const std::uint32_t lastResponseTime; // milliseconds
   const std::uint64_t lastCheckTime;    // milliseconds since the epoch
   const std::uint16_t weight;
   const bool payloadLeftOut; // there was a body, and responsePayload does not have it
   const PayloadTicket payloadTicket;
};

} // namespace hm
