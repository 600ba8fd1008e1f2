#include "HealthMonitor/HmNetCHASMTrace.h"

#include "HealthMonitor/HmQueueRecords.h"

namespace hm {

namespace {

constexpr int lowestLevel = -2; // of the engine
constexpr int highestLevel = TraceFacility::maxLevel;

constexpr unsigned bitOf( int level ) {
   return 1u << ( level - lowestLevel );
}

} // namespace

NetCHASMTraceReactorSm::NetCHASMTraceReactorSm( Ptr<EventMpmcQueue> cmdQueue )
      : cmdQueue_( std::move( cmdQueue ) ) {
   handleInitialized();
}

void NetCHASMTraceReactorSm::handleInitialized() {
   HM_TRACE( 9, "" );
   facility_ = TraceFacility::find( "NetCHASM" );
   HM_ASSERT( facility(), "no trace facility of the engine" );
   observation_ = facility_->observe( [this] {
      if ( notificationsEnabled() ) {
         handleLevelsEnabled();
      }
   } );
   handleLevelsEnabled();
   initialized_ = true;
   minTraceLevel_ = 2;
   setTraceLevel( minTraceLevel_, true );
   handleLevelsEnabled();
}

void NetCHASMTraceReactorSm::handleLevelsEnabled() {
   HM_TRACE( 9, "" );
   if ( !initialized_ ) {
      return;
   }
   for ( int level = 0; level < TraceFacility::levelCount; ++level ) {
      if ( level > minTraceLevel_ && level <= highestLevel ) {
         setTraceLevel( level, facility_->levelEnabled( level ) );
      } else {
         HM_TRACE( 2, "Ignore trace level:{} (unused)", level );
      }
   }
}

void NetCHASMTraceReactorSm::setTraceLevel( int level, bool enable ) {
   HM_TRACE( 9, "level:{} enable:{} current enabled level:0x{:x}", level, enable, traceBitMap_ );
   if ( level > highestLevel || level < lowestLevel ) {
      HM_TRACE( 2, "Ignore trace level:{} (unused)", level );
      return;
   }
   const unsigned bit = bitOf( level );
   const unsigned old = traceBitMap_;
   const unsigned map = enable ? old | bit : old & ~bit;
   traceBitMap_ = static_cast<std::uint16_t>( map );
   HM_TRACE( 9, "New bitmap:0x{:x}", map );
   if ( map == old ) {
      HM_TRACE( 9, "Nothing to be done" );
      return;
   }
   const unsigned higher = map & ~( bit | ( bit - 1 ) );
   HM_TRACE( 9, "hiBit: 0x{:x}", higher );
   if ( higher != 0 ) {
      HM_TRACE( 9, "Lower priority level enabled, no change" );
      return;
   }
   int newLevel = level;
   if ( !enable ) {
      do {
         --newLevel;
      } while ( newLevel >= lowestLevel && !( map & bitOf( newLevel ) ) );
      if ( newLevel < lowestLevel ) {
         newLevel = minTraceLevel_;
      }
   }
   HM_TRACE( 9, "newLevel:{}", newLevel );
   cmdQueue_->push( new CmdSetTrace( newLevel ) );
}

Ptr<NetCHASMTraceReactorSm> netChasmTraceReactorSmFactory( Ptr<EventMpmcQueue> cmdQueue ) {
   return new NetCHASMTraceReactorSm( std::move( cmdQueue ) );
}

} // namespace hm
