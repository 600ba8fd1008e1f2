#pragma once

#include "HealthMonitor/HmCommonData.h"
#include "HealthMonitor/HmResponseRules.h"
#include "platform/EventMpmcQueue.h"
#include "platform/Reactor.h"
#include "platform/Task.h"

#include <string>

namespace hm {

struct ProbeResult;

/// Turns check results into the published state of servers: keeps what each kind of check says of a server,
/// publishes the two together, and copies the engine's counters. A server is up only if every kind of check
/// that its group runs says so, and shut down if any does.
///
/// Main thread. Results come through the result queue and are taken in slices; one of a server that has been
/// removed meanwhile is dropped.
class ProbeStatusSm final : public Reactor {
 public:
   using AdminState = HmState::ServerAdminState;
   using OperState = HmState::ServerOperState;

   ProbeStatusSm( Ptr<const HmState::ProbeConfig> hmProbeConfig, Ptr<HmState::ServerStatus> hmServerStatus,
         Ptr<EventMpmcQueue> resultQueue, Ptr<CommonData> hmCommonData, Ptr<TaskScheduler> scheduler );
   ~ProbeStatusSm() override;

   void handleInitialized();
   bool initialized() const { return initialized_; }
   /// What was queued while they were off is taken up when they are switched on.
   void notificationsEnabledIs( bool enabled ) override;

   const Ptr<Task> & task() const { return task_; }

   // `response` and `reason` are the engine's codes: response 1 is an answer, reason 1 no verdict. With
   // `payloadLeftOut` the body of the answer is not known, and a rule on it is not asked: the state stands as
   // far as that rule has a say.
   void maybePublishProbeStatus( const std::string & hostName, std::uint8_t response,
         std::uint32_t responseCode, const std::string & responsePayload, std::uint8_t reason,
         std::uint32_t weight, bool payloadLeftOut = false );
   /// Times in milliseconds: a duration, and since the epoch.
   void publishProbeCounters( const std::string & hostName, std::uint8_t response, std::uint32_t numChecks,
         std::uint32_t numResponses, std::uint32_t numConnectFailures, std::uint32_t numFailures,
         std::uint32_t numTimeouts, std::uint32_t lastResponseTime, std::uint64_t lastCheckTime,
         std::uint8_t reason );

   // What one kind of check said last of a published server; neutral (enabled, up) when its group does not
   // run it.
   AdminState getCachedAdminState(
         const NexthopGroupName & nhgName, const IpGenAddr & serverIp, ProbeType probeType ) const;
   OperState getCachedOperState(
         const NexthopGroupName & nhgName, const IpGenAddr & serverIp, ProbeType probeType ) const;
   std::uint16_t getCachedWeight(
         const NexthopGroupName & nhgName, const IpGenAddr & serverIp, ProbeType probeType ) const;

 private:
   void handleProbeResult();
   void handlePayloadPattern(); // bodies are asked for while a rule reads them
   void processProbeResult();
   /// Publishes what a result says; a change of the two states is told in words too, with a trace at level 4.
   void handleResult( const ProbeResult & result );

   IpNhgPair ipNhgPair( const std::string & hostName ) const; // empty when the name is not known (any more)
   Ptr<HmState::ProbeStatus> publishedStatus( const IpNhgPair & server ) const; // empty: none
   Ptr<HmState::ProbeStatus> getServerProbeStatus(
         const NexthopGroupName & nhgName, const IpGenAddr & serverIp, ProbeType probeType ) const;
   void updateProbeStatusCache( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
         ProbeType probeType, AdminState adminState, OperState operState, std::uint32_t weight );

   AdminState getHttpAdminState( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
         std::uint8_t response, std::uint32_t responseCode, const std::string & responsePayload,
         bool payloadLeftOut );
   OperState getHttpOperState( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
         std::uint8_t response, std::uint32_t responseCode, const std::string & responsePayload,
         std::uint8_t reason, bool payloadLeftOut );
   HttpVerdict answerVerdict( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
         std::uint32_t responseCode, const std::string & responsePayload, bool payloadLeftOut );
   AdminState getTcpAdminState(
         const NexthopGroupName & nhgName, const IpGenAddr & serverIp, std::uint8_t response ) const;
   OperState getTcpOperState( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
         std::uint8_t response, std::uint8_t reason ) const;
   /// Without an answer the last state stays while there is no verdict; otherwise the server is down.
   OperState operStateWithoutAnswer( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
         ProbeType probeType, std::uint8_t reason ) const;

   const Ptr<const HmState::ProbeConfig> hmProbeConfig_;
   const Ptr<HmState::ServerStatus> hmServerStatus_;
   const Ptr<EventMpmcQueue> resultQueue_;
   const Ptr<CommonData> hmCommonData_;
   const Ptr<TaskScheduler> scheduler_;
   Ptr<FifoEvent> resultQueueEvent_;
   Ptr<Task> task_;
   bool initialized_ = false;
   HttpResponseRules responseRules_;
};

Ptr<ProbeStatusSm> probeStatusSmFactory( Ptr<const HmState::ProbeConfig> hmProbeConfig,
      Ptr<HmState::ServerStatus> hmServerStatus, Ptr<EventMpmcQueue> resultQueue,
      Ptr<CommonData> hmCommonData, Ptr<TaskScheduler> scheduler );

} // namespace hm
