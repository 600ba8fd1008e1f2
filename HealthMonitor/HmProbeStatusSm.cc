#include "HealthMonitor/HmProbeStatusSm.h"

#include "HealthMonitor/HmCheckReason.h"
#include "HealthMonitor/HmQueueRecords.h"
#include "HealthMonitor/HmUtils.h"

#include <netchasm/HMTimeStamp.h>

namespace hm {

namespace {

constexpr std::uint8_t responseAnswered = 1;
constexpr std::uint8_t reasonNoVerdict = 1;

} // namespace

ProbeStatusSm::ProbeStatusSm( Ptr<const HmState::ProbeConfig> hmProbeConfig,
      Ptr<HmState::ServerStatus> hmServerStatus, Ptr<EventMpmcQueue> resultQueue,
      Ptr<CommonData> hmCommonData, Ptr<TaskScheduler> scheduler )
      : hmProbeConfig_( std::move( hmProbeConfig ) ),
        hmServerStatus_( std::move( hmServerStatus ) ),
        resultQueue_( std::move( resultQueue ) ),
        hmCommonData_( std::move( hmCommonData ) ),
        scheduler_( std::move( scheduler ) ) {
   handleInitialized();
}

ProbeStatusSm::~ProbeStatusSm() {
   resultQueueEvent_->unwatch();
   task_->runHandlerIs( nullptr );
}

void ProbeStatusSm::handleInitialized() {
   HM_TRACE( 9, "" );
   initialized_ = true;
   task_ = new Task( scheduler_, TaskPriority{ 3 }, "probeStatusSmTask" );
   task_->runHandlerIs( [this] {
      if ( notificationsEnabled() ) {
         processProbeResult();
      }
   } );
   resultQueueEvent_ = resultQueue_->consumerEvent();
   resultQueueEvent_->watch( [this] {
      if ( notificationsEnabled() ) {
         handleProbeResult();
      }
   } );
   watch( hmProbeConfig_->responsePayloadRule(), HmState::ResponseRule::patternAttr(),
         [this] { handlePayloadPattern(); } );
   handleProbeResult();
}

void ProbeStatusSm::notificationsEnabledIs( bool enabled ) {
   Reactor::notificationsEnabledIs( enabled );
   if ( enabled ) {
      handlePayloadPattern();
      handleProbeResult();
   }
}

void ProbeStatusSm::handleProbeResult() {
   HM_TRACE( 9, "" );
   if ( !task_->taskScheduled() ) {
      HM_TRACE( 4, "scheduling task" );
      task_->scheduleTask();
   }
}

void ProbeStatusSm::handlePayloadPattern() {
   hmCommonData_->payloadIntake()->wantedIs(
         hmProbeConfig_->responsePayloadRule()->pattern() != HmState::rulePatternNone );
}

void ProbeStatusSm::processProbeResult() {
   HM_TRACE( 9, "" );
   if ( !task_->taskCurrentlyRunning() ) {
      HM_TRACE( 4, "task not running" );
      return;
   }
   std::uint64_t processed = 0;
   while ( const auto result = dynamicPtrCast<ProbeResult>( resultQueue_->pop() ) ) {
      if ( !hmCommonData_->hostNameToIpNhgPairHas( result->hostName ) ) {
         HM_TRACE( 4, "hostName {} missing in hostNameToIpNhgPair", result->hostName );
      } else {
         handleResult( *result );
      }
      ++processed;
      if ( task_->taskShouldYield() ) {
         break;
      }
   }
   const bool done = resultQueue_->empty();
   HM_TRACE( 4, "processed: {}, done: {}", processed, done );
   task_->taskWorkCountInc( processed );
   if ( !done ) {
      task_->scheduleTask();
   }
}

void ProbeStatusSm::handleResult( const ProbeResult & result ) {
   const auto server = ipNhgPair( result.hostName );
   const auto group = hmServerStatus_->nhgProbeStatus( server.nhgName );
   const auto published = group ? group->serverProbeStatus( server.ip ) : nullptr;
   const auto state = [&published] {
      return published ? std::pair( published->adminState(), published->operState() )
                       : std::pair( AdminState::enabled, OperState::down );
   };
   const auto before = state();
   maybePublishProbeStatus( result.hostName, result.response, result.responseCode, result.responsePayload,
         result.reason, result.weight, result.payloadLeftOut );
   publishProbeCounters( result.hostName, result.response, result.numChecks, result.numResponses,
         result.numConnectFailures, result.numFailures, result.numTimeouts, result.lastResponseTime,
         result.lastCheckTime, result.reason );
   if ( state() == before ) {
      return;
   }
   const auto stateText = []( const std::pair<AdminState, OperState> & both ) {
      return fmt::format( "{} {}", ValueTraits<AdminState>::toText( both.first ),
            ValueTraits<OperState>::toText( both.second ) );
   };
   const auto probeType = probeTypeFromHostName( result.hostName );
   const auto cached = getServerProbeStatus( server.nhgName, server.ip, probeType );
   const bool ruled = result.response == responseAnswered &&
                      ( cached->adminState() != AdminState::enabled || cached->operState() != OperState::up );
   const auto change = fmt::format( "old state: {}, new state: {}, reason: {} check: {}{}, checks: {}",
         stateText( before ), stateText( state() ), probeType,
         checkReasonText( result.response, result.responseCode, result.reason ),
         ruled ? ", matches a response rule" : "", result.numChecks );
   HM_TRACE( 4, "NHG: {}, server: {}, {}", server.nhgName, server.ip, change );
   published->lastChangeIs( change );
}

void ProbeStatusSm::maybePublishProbeStatus( const std::string & hostName, std::uint8_t response,
      std::uint32_t responseCode, const std::string & responsePayload, std::uint8_t reason,
      std::uint32_t weight, bool payloadLeftOut ) {
   HM_TRACE( 9, "hostName: {}, response: {}, response code: {}, response payload: {}, reason: {}, weight: {}",
         hostName, response, responseCode, responsePayload, reason, weight );
   const auto server = ipNhgPair( hostName );
   const auto published = publishedStatus( server );
   if ( !published ) {
      return;
   }
   const auto & [nhgName, serverIp] = server;
   const auto probeType = probeTypeFromHostName( hostName );
   HM_ASSERT(
         probeType == ProbeType::http || probeType == ProbeType::tcp, "unknown probe type {}", probeType );
   AdminState httpAdminState, tcpAdminState;
   OperState httpOperState, tcpOperState;
   if ( probeType == ProbeType::http ) {
      httpAdminState =
            getHttpAdminState( nhgName, serverIp, response, responseCode, responsePayload, payloadLeftOut );
      httpOperState = getHttpOperState(
            nhgName, serverIp, response, responseCode, responsePayload, reason, payloadLeftOut );
      tcpAdminState = getCachedAdminState( nhgName, serverIp, ProbeType::tcp );
      tcpOperState = getCachedOperState( nhgName, serverIp, ProbeType::tcp );
      updateProbeStatusCache( nhgName, serverIp, ProbeType::http, httpAdminState, httpOperState, weight );
   } else {
      httpAdminState = getCachedAdminState( nhgName, serverIp, ProbeType::http );
      httpOperState = getCachedOperState( nhgName, serverIp, ProbeType::http );
      tcpAdminState = getTcpAdminState( nhgName, serverIp, response );
      tcpOperState = getTcpOperState( nhgName, serverIp, response, reason );
      updateProbeStatusCache( nhgName, serverIp, ProbeType::tcp, tcpAdminState, tcpOperState, weight );
      weight = getCachedWeight( nhgName, serverIp, ProbeType::http );
   }
   const bool up = httpOperState == OperState::up && tcpOperState == OperState::up;
   const bool shutdown = httpAdminState != AdminState::enabled || tcpAdminState != AdminState::enabled;
   // Whoever watches the entry sees the three change as one.
   const EntityUpdate update( *published );
   const auto before = std::pair( published->operState(), published->adminState() );
   published->operStateIs( up ? OperState::up : OperState::down );
   published->adminStateIs( shutdown ? AdminState::shutdown : AdminState::enabled );
   published->weightIs( static_cast<std::uint16_t>( weight ) );
   if ( before != std::pair( published->operState(), published->adminState() ) ) {
      published->sinceIs( HMTimeStamp::now().getTimeSinceEpoch() );
   }
}

void ProbeStatusSm::publishProbeCounters( const std::string & hostName, std::uint8_t response,
      std::uint32_t numChecks, std::uint32_t numResponses, std::uint32_t numConnectFailures,
      std::uint32_t numFailures, std::uint32_t numTimeouts, std::uint32_t lastResponseTime,
      std::uint64_t lastCheckTime, std::uint8_t reason ) {
   HM_TRACE( 9,
         "hostName: {}, numChecks: {}, numResponses: {}, numConnectFailures: {}, numFailures: {}, "
         "numTimeouts: {}, lastResponseTime: {}, lastCheckTime: {}",
         hostName, numChecks, numResponses, numConnectFailures, numFailures, numTimeouts, lastResponseTime,
         lastCheckTime );
   const auto server = ipNhgPair( hostName );
   const auto group = hmCommonData_->probeCounters( server.nhgName );
   if ( !group ) {
      HM_TRACE( 4, "No probe config corresponding to {}", server.nhgName );
      return;
   }
   const auto counters = group->serverIp( server.ip );
   if ( !counters ) {
      HM_TRACE( 4, "No probe config corresponding to {}", server.ip );
      return;
   }
   const auto probeTypeCounters = counters->probeTypeCounters( probeTypeFromHostName( hostName ) );
   HM_ASSERT( probeTypeCounters, "probeTypeCounters missing for {} in {}", server.ip, server.nhgName );
   probeTypeCounters->numChecksIs( numChecks );
   probeTypeCounters->numResponsesIs( numResponses );
   probeTypeCounters->numConnectFailuresIs( numConnectFailures );
   probeTypeCounters->numFailuresIs( numFailures );
   probeTypeCounters->numTimeoutsIs( numTimeouts );
   probeTypeCounters->lastResponseTimeIs( lastResponseTime );
   probeTypeCounters->lastCheckTimeIs( lastCheckTime );
   if ( reason != reasonNoVerdict ) { // else the state stands, and so does why
      probeTypeCounters->lastReasonIs( reason );
   }
   // Without an answer the next attempt is a retry, whose time the agent does not know.
   const std::uint64_t untilNextMs =
         response == responseAnswered ? std::uint64_t{ hmCommonData_->probeInterval() } * 1000 : 0;
   probeTypeCounters->nextCheckTimeIs( lastCheckTime + untilNextMs );
}

IpNhgPair ProbeStatusSm::ipNhgPair( const std::string & hostName ) const {
   return hmCommonData_->hostNameToIpNhgPair( hostName ).value_or( IpNhgPair{} );
}

Ptr<HmState::ProbeStatus> ProbeStatusSm::publishedStatus( const IpNhgPair & server ) const {
   const auto group = hmServerStatus_->nhgProbeStatus( server.nhgName );
   if ( !group ) {
      HM_TRACE( 4, "No probe status corresponding to {}", server.nhgName );
      return nullptr;
   }
   const auto status = group->serverProbeStatus( server.ip );
   if ( !status ) {
      HM_TRACE( 4, "No probe status corresponding to {}", server.ip );
   }
   return status;
}

Ptr<HmState::ProbeStatus> ProbeStatusSm::getServerProbeStatus(
      const NexthopGroupName & nhgName, const IpGenAddr & serverIp, ProbeType probeType ) const {
   const auto group = probeType == ProbeType::http ? hmCommonData_->httpProbeStatus( nhgName )
                                                   : hmCommonData_->tcpProbeStatus( nhgName );
   HM_ASSERT( group, "probe status cache missing for {}, {}", probeType, nhgName );
   const auto status = group->serverProbeStatus( serverIp );
   HM_ASSERT( status, "probe status cache missing for {} in {}", serverIp, nhgName );
   return status;
}

void ProbeStatusSm::updateProbeStatusCache( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
      ProbeType probeType, AdminState adminState, OperState operState, std::uint32_t weight ) {
   const auto cache = getServerProbeStatus( nhgName, serverIp, probeType );
   cache->adminStateIs( adminState );
   cache->operStateIs( operState );
   cache->weightIs( static_cast<std::uint16_t>( weight ) );
}

ProbeStatusSm::AdminState ProbeStatusSm::getHttpAdminState( const NexthopGroupName & nhgName,
      const IpGenAddr & serverIp, std::uint8_t response, std::uint32_t responseCode,
      const std::string & responsePayload, bool payloadLeftOut ) {
   if ( response != responseAnswered ) {
      return getServerProbeStatus( nhgName, serverIp, ProbeType::http )->adminState();
   }
   return answerVerdict( nhgName, serverIp, responseCode, responsePayload, payloadLeftOut ).adminState;
}

ProbeStatusSm::OperState ProbeStatusSm::getHttpOperState( const NexthopGroupName & nhgName,
      const IpGenAddr & serverIp, std::uint8_t response, std::uint32_t responseCode,
      const std::string & responsePayload, std::uint8_t reason, bool payloadLeftOut ) {
   if ( response != responseAnswered ) {
      return operStateWithoutAnswer( nhgName, serverIp, ProbeType::http, reason );
   }
   return answerVerdict( nhgName, serverIp, responseCode, responsePayload, payloadLeftOut ).operState;
}

HttpVerdict ProbeStatusSm::answerVerdict( const NexthopGroupName & nhgName, const IpGenAddr & serverIp,
      std::uint32_t responseCode, const std::string & responsePayload, bool payloadLeftOut ) {
   if ( !payloadLeftOut ) {
      return responseRules_.verdict( *hmProbeConfig_, responseCode, responsePayload );
   }
   const auto cached = getServerProbeStatus( nhgName, serverIp, ProbeType::http );
   return responseRules_.verdictWithoutPayload(
         *hmProbeConfig_, responseCode, { cached->adminState(), cached->operState() } );
}

ProbeStatusSm::AdminState ProbeStatusSm::getTcpAdminState(
      const NexthopGroupName & nhgName, const IpGenAddr & serverIp, std::uint8_t response ) const {
   if ( response != responseAnswered ) {
      return getServerProbeStatus( nhgName, serverIp, ProbeType::tcp )->adminState();
   }
   return AdminState::enabled;
}

ProbeStatusSm::OperState ProbeStatusSm::getTcpOperState( const NexthopGroupName & nhgName,
      const IpGenAddr & serverIp, std::uint8_t response, std::uint8_t reason ) const {
   if ( response != responseAnswered ) {
      return operStateWithoutAnswer( nhgName, serverIp, ProbeType::tcp, reason );
   }
   return OperState::up;
}

ProbeStatusSm::OperState ProbeStatusSm::operStateWithoutAnswer( const NexthopGroupName & nhgName,
      const IpGenAddr & serverIp, ProbeType probeType, std::uint8_t reason ) const {
   const auto cached = getServerProbeStatus( nhgName, serverIp, probeType );
   return reason == reasonNoVerdict ? cached->operState() : OperState::down;
}

ProbeStatusSm::AdminState ProbeStatusSm::getCachedAdminState(
      const NexthopGroupName & nhgName, const IpGenAddr & serverIp, ProbeType probeType ) const {
   if ( getUrl( *hmProbeConfig_, nhgName, probeType ).empty() ) {
      return AdminState::enabled;
   }
   return getServerProbeStatus( nhgName, serverIp, probeType )->adminState();
}

ProbeStatusSm::OperState ProbeStatusSm::getCachedOperState(
      const NexthopGroupName & nhgName, const IpGenAddr & serverIp, ProbeType probeType ) const {
   if ( getUrl( *hmProbeConfig_, nhgName, probeType ).empty() ) {
      return OperState::up;
   }
   return getServerProbeStatus( nhgName, serverIp, probeType )->operState();
}

std::uint16_t ProbeStatusSm::getCachedWeight(
      const NexthopGroupName & nhgName, const IpGenAddr & serverIp, ProbeType probeType ) const {
   return getServerProbeStatus( nhgName, serverIp, probeType )->weight();
}

Ptr<ProbeStatusSm> probeStatusSmFactory( Ptr<const HmState::ProbeConfig> hmProbeConfig,
      Ptr<HmState::ServerStatus> hmServerStatus, Ptr<EventMpmcQueue> resultQueue,
      Ptr<CommonData> hmCommonData, Ptr<TaskScheduler> scheduler ) {
   return new ProbeStatusSm( std::move( hmProbeConfig ), std::move( hmServerStatus ),
         std::move( resultQueue ), std::move( hmCommonData ), std::move( scheduler ) );
}

} // namespace hm
