#include "HealthMonitor/HmNetCHASMStorageObserver.h"

#include "HealthMonitor/HmCommonData.h"
#include "HealthMonitor/HmQueueRecords.h"

namespace hm {

NetCHASMStorageObserver::NetCHASMStorageObserver(
      Ptr<EventMpmcQueue> resultQueue, Ptr<PayloadIntake> payloadIntake )
      : resultQueue_( std::move( resultQueue ) ),
        payloadIntake_( std::move( payloadIntake ) ) {}

bool NetCHASMStorageObserver::storeHostCheckResult( HMCheckData & data ) {
   HM_TRACE( 9, "hostName: {}, response: {}, response code: {}, response payload: {}, reason: {}",
         data.m_hostName, static_cast<unsigned>( data.m_response ), data.m_responseCode,
         data.m_responsePayload, static_cast<unsigned>( data.m_reason ) );
   constexpr std::uint16_t weight = 0; // the engine knows none
   const auto & payload = data.m_responsePayload;
   // The trace of what is published shows bodies at level 9.
   const bool wanted = payloadIntake_->wanted() || traceFacility().levelEnabled( 9 );
   PayloadTicket ticket =
         wanted && !payload.empty() ? PayloadTicket( payloadIntake_, payload.size() ) : PayloadTicket();
   const bool leftOut = !payload.empty() && !ticket;
   resultQueue_->push( new ProbeResult( data.m_hostName, data.m_response, data.m_responseCode,
         leftOut ? std::string() : payload, data.m_reason, data.m_numChecks, data.m_numResponses,
         data.m_numConnectFailures, data.m_numFailures, data.m_numTimeouts, data.m_responseTimeMs,
         data.m_checkTime.getTimeSinceEpoch(), weight, leftOut, std::move( ticket ) ) );
   return true;
}

} // namespace hm
