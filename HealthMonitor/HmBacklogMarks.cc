#include "HealthMonitor/HmBacklogSm.h"

/// Commands to the engine and the firewall marks that they hand out. One reference on a server's mark is held
/// for each host group under which the server is published, from the addition being queued to the removal
/// being queued.
namespace hm {

void BacklogSm::handleNhgIpChange( const NexthopGroupName & nhgName, ProbeType probeType,
      const IpGenAddr & serverIp, const IpGenAddr & hostIp, bool add ) {
   HM_TRACE(
         7, "nhgName:{} probeType:{} serverIp:{} vip:{} add:{}", nhgName, probeType, serverIp, hostIp, add );
   const HostGroupKey key{ nhgName, probeType };
   auto serverCfg = currNhgServerCfg( key ).value_or( nullptr );
   if ( add ) {
      if ( !serverCfg ) {
         serverCfg = new ServerCfg( key );
         currNhgServerCfgIs( key, serverCfg );
      }
      if ( const auto published = serverCfg->serverIpToHostIp( serverIp ) ) {
         populateUpdateCmdInfo( nhgName, probeType, serverIp, *published, false );
      }
      populateUpdateCmdInfo( nhgName, probeType, serverIp, hostIp, true );
      serverCfg->serverIpToHostIpIs( serverIp, hostIp );
   } else if ( serverCfg && serverCfg->serverIpToHostIp( serverIp ) ) {
      const auto published = serverCfg->serverIpToHostIpDel( serverIp );
      populateUpdateCmdInfo( nhgName, probeType, serverIp, published, false );
      if ( serverCfg->serverIpToHostIpItems().empty() ) {
         currNhgServerCfgDel( key );
      }
   }
}

void BacklogSm::populateUpdateCmdInfo( const NexthopGroupName & nhgName, ProbeType probeType,
      const IpGenAddr & serverIp, const IpGenAddr & hostIp, bool add ) {
   HM_TRACE( 7, "nhg: {}, probeType: {}, server: {}, hostIp: {}, add: {}", nhgName, probeType, serverIp,
         hostIp, add );
   const UpdateCmdInfoKey key{ nhgName, probeType, serverIp, hostIp };
   if ( const auto pending = netChasmInfo_->updateCmdInfo( key ) ) {
      const bool duplicateAdd = add && !pending->remove();
      HM_ASSERT( !duplicateAdd, "addition of serverIp:{} hostIp:{} in {} is queued already", serverIp, hostIp,
            nhgName );
      if ( add ) {
         // The engine has the entry and keeps it. The mark is still there: no update cycle has come between.
         HM_TRACE( 7, "Coalescing add/remove of serverIp:{} hostIp:{}", serverIp, hostIp );
         netChasmInfo_->updateCmdInfoDel( key );
         findOrCreateMarkForServer( serverIp );
      } else if ( !pending->remove() ) {
         deleteMarkForServer( serverIp );
         netChasmInfo_->updateCmdInfoDel( key );
      }
      // A second removal has nothing left to release.
      return;
   }
   if ( const auto waiting = unmarked_.find( serverIp );
         !add && waiting != unmarked_.end() && waiting->second.erase( key ) ) {
      if ( waiting->second.empty() ) {
         unmarked_.erase( waiting );
      }
      return; // never reached the engine, holds no reference
   }
   const auto mark = add ? findOrCreateMarkForServer( serverIp ) : deleteMarkForServer( serverIp );
   if ( mark == 0 ) {
      if ( add ) {
         unmarked_[serverIp].insert( key );
      }
      return;
   }
   const auto command = netChasmInfo_->updateCmdInfoIs( key );
   command->markIs( mark );
   command->removeIs( !add );
}

std::uint32_t BacklogSm::findOrCreateMarkForServer( const IpGenAddr & serverIp ) {
   auto serverMark = commonData_->serverIpToMark( serverIp );
   if ( !serverMark ) {
      const auto & bitmap = commonData_->serverMarkBitmap();
      const auto mark = bitmap->findBitInClearState( 0 );
      if ( mark == HBitmap::nullIndex ) {
         // Once until there was a mark again: thousands of servers may be waiting.
         if ( !markBitmapFullReported_ ) {
            markBitmapFullReported_ = true;
            HM_TRACE( 1, "Server Mark bitmap full: {} marks in use, server {} and others are not probed",
                  bitmap->size() - 1, serverIp );
         }
         return 0;
      }
      markBitmapFullReported_ = false;
      bitmap->setBit( mark );
      serverMark = commonData_->serverIpToMarkIs( serverIp );
      serverMark->markIs( mark );
      commonData_->markToServerIpIs( mark, serverIp );
   }
   serverMark->refCountInc( 1 );
   HM_TRACE( 7, "server: {}, mark: {}, refCount: {}", serverIp, serverMark->mark(), serverMark->refCount() );
   return serverMark->mark();
}

std::uint32_t BacklogSm::deleteMarkForServer( const IpGenAddr & serverIp ) {
   const auto serverMark = commonData_->serverIpToMark( serverIp );
   if ( !serverMark ) {
      HM_TRACE( 7, "mark missing for {}", serverIp );
      return 0;
   }
   serverMark->refCountDec( 1 );
   HM_TRACE( 7, "server: {}, mark: {}, refCount: {}", serverIp, serverMark->mark(), serverMark->refCount() );
   if ( serverMark->refCount() == 0 ) {
      commonData_->delMarkPendingListIs( serverIp );
   }
   return serverMark->mark();
}

void BacklogSm::requeueUnmarkedServers() {
   const auto & bitmap = commonData_->serverMarkBitmap();
   auto free = bitmap->size() - bitmap->bitsSet();
   for ( const auto & [serverIp, keys] : unmarked_ ) {
      if ( !commonData_->serverIpToMarkHas( serverIp ) ) {
         if ( free == 0 ) {
            continue;
         }
         --free;
      }
      for ( const auto & key : keys ) {
         // What the backlog has already is newer than what was published; it may be a withdrawal.
         if ( const IpNhgPair server{ key.nhgName, serverIp };
               !backlogInfo_->nhgServerBacklogHas( server ) ) {
            backlogInfo_->nhgServerBacklogIs( server, true );
         }
      }
   }
}

} // namespace hm
