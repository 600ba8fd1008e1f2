#include "HealthMonitor/HmPayloadIntake.h"

#include "HealthMonitor/HmCommonData.h"

namespace hm {

bool PayloadIntake::reserve( std::size_t bytes ) {
   if ( waitingBytes_.fetch_add( bytes, std::memory_order_relaxed ) + bytes <= maxWaitingBytes ) {
      return true;
   }
   waitingBytes_.fetch_sub( bytes, std::memory_order_relaxed );
   if ( !full_.exchange( true, std::memory_order_relaxed ) ) {
      HM_TRACE( 2,
            "response bodies come faster than the payload rule judges them: {} bytes wait, more are left out",
            maxWaitingBytes );
   }
   return false;
}

void PayloadIntake::release( std::size_t bytes ) {
   const auto before = waitingBytes_.fetch_sub( bytes, std::memory_order_relaxed );
   if ( before - bytes < maxWaitingBytes / 2 && full_.load( std::memory_order_relaxed ) ) {
      full_.store( false, std::memory_order_relaxed );
   }
}

PayloadTicket::PayloadTicket( Ptr<PayloadIntake> intake, std::size_t bytes ) : bytes_( bytes ) {
   if ( intake->reserve( bytes ) ) {
      intake_ = std::move( intake );
   }
}

PayloadTicket::~PayloadTicket() {
   if ( intake_ ) {
      intake_->release( bytes_ );
   }
}

} // namespace hm
