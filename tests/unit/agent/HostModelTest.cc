#include "ConfigFixture.h"

#include <random>
#include <set>

namespace hm::test {
namespace {

/// Holds the model, what is published and what the engine has or is about to be told against what the
/// configuration alone asks for, each time a backlog pass has come to its end.
class HostModel : public ConfigFixture {
 public:
   /// Each host as the engine calls it, and its server.
   using Publications = std::map<std::string, IpGenAddr>;

   void verify() {
      const auto & model = *configSm->netChasmInfo();
      std::map<std::string, std::set<std::string>> groups;
      Publications publications;
      std::size_t monitoredGroups = 0;
      for ( const auto & [name, config] : serverConfig->nhgConfigItems() ) {
         const auto settings = Ptr<const HmState::ProbeConfig>( probeConfig )->nhgProbeConfig( name );
         const bool monitored = probeConfig->monitoringEnabled() && !( settings && settings->disabled() );
         if ( monitored && config->serverIpCount() > 0 ) {
            ++monitoredGroups;
            verifyPublishedStatus( name, *config );
         }
         for ( const auto type : { ProbeType::http, ProbeType::tcp } ) {
            const auto url = getUrl( *probeConfig, name, type );
            const auto params = BacklogSm::parseUrlInfo( type, name, url, false );
            const bool present = monitored && params && config->serverIpCount() > 0;
            verifySettings( name, type, url, settings, present );
            if ( !present ) {
               continue;
            }
            for ( const auto & server : config->serverIpItems() ) {
               const auto hostIp = settings && !settings->vip().empty() ? settings->vip() : server.key;
               const auto hostName = hostNameFromNhgAndServerIp( name, type, server.key );
               groups[hostGroupNameFromNhgAndProbeType( name, type )].insert( hostName );
               publications[fmt::format( "{} at {}", hostName, hostIp )] = server.key;
               EXPECT_EQ( commonData->hostNameToIpNhgPair( hostName ), ( IpNhgPair{ name, server.key } ) );
            }
         }
      }
      EXPECT_EQ( commonData->hostNameToIpNhgPairCount(), publications.size() );
      for ( const auto count : { serverStatus->nhgProbeStatusCount(), commonData->httpProbeStatusCount(),
                  commonData->tcpProbeStatusCount(), commonData->probeCountersCount() } ) {
         EXPECT_EQ( count, monitoredGroups );
      }

      std::map<std::string, std::set<std::string>> modelled;
      for ( const auto & [key, list] : model.nhgHostListItems() ) {
         auto & names = modelled[hostGroupNameFromNhgAndProbeType( key.nhgName, key.probeType )];
         for ( const auto & item : list->hostListItems() ) {
            names.insert( item.key );
         }
      }
      EXPECT_EQ( modelled, groups );
      EXPECT_EQ( model.hostConfig()->hostGrpCfgCount(), groups.size() );
      EXPECT_EQ( configSm->backlogSm()->currNhgServerCfgCount(), groups.size() );
      verifyMarks( publications );
   }

   void verifySettings( const NexthopGroupName & name, ProbeType type, const std::string & url,
         const Ptr<const HmState::NexthopGroupProbeConfig> & settings, bool present ) {
      const auto unset = Seconds{ 5 };
      const bool own = settings && settings->probeInterval() != unset;
      IpGenAddr source;
      for ( const auto & server : nhg( name )->serverIpItems() ) {
         source = server.key.isIpv6() ? serverStatus->probeSrcIp6() : serverStatus->probeSrcIp();
         break;
      }
      configSm->backlogSm()->verifyHostConfig( name, type, url, settings ? settings->vip() : IpGenAddr{},
            own ? settings->probeInterval() : probeConfig->probeInterval(), source,
            settings && !settings->sslProfile().empty() ? settings->sslProfile() : probeConfig->sslProfile(),
            settings ? settings->timeout() : 10, settings ? settings->retryDelay() : 0,
            settings ? settings->retryCount() : 3, present );
   }

   void verifyPublishedStatus( const NexthopGroupName & name, const HmState::NexthopGroupConfig & config ) {
      const auto counters = commonData->probeCounters( name );
      for ( const auto & status : { serverStatus->nhgProbeStatus( name ), commonData->httpProbeStatus( name ),
                  commonData->tcpProbeStatus( name ) } ) {
         ASSERT_TRUE( status && counters ) << name;
         EXPECT_EQ( status->serverProbeStatusCount(), config.serverIpCount() ) << name;
         for ( const auto & server : config.serverIpItems() ) {
            EXPECT_TRUE( status->serverProbeStatusHas( server.key ) ) << name << server.key.text();
            ASSERT_TRUE( counters->serverIp( server.key ) );
            EXPECT_EQ( counters->serverIp( server.key )->probeTypeCountersCount(), 2u );
         }
      }
   }

   /// What the engine will have once the pending commands are executed is every publication, each with its
   /// server's mark, and each one reference; only without free marks may some be missing.
   void verifyMarks( const Publications & publications ) {
      auto told = engine.marks;
      for ( const auto & [key, command] : configSm->netChasmInfo()->updateCmdInfoItems() ) {
         const auto host = fmt::format( "{} at {}",
               hostNameFromNhgAndServerIp( key.nhgName, key.probeType, key.serverIp ), key.hostIp );
         EXPECT_EQ( told.contains( host ), command->remove() ) << host;
         command->remove() ? void( told.erase( host ) ) : void( told[host] = command->mark() );
      }
      std::map<IpGenAddr, std::uint32_t> references;
      for ( const auto & [host, mark] : told ) {
         const auto publication = publications.find( host );
         ASSERT_TRUE( publication != publications.end() ) << host;
         const auto & serverIp = publication->second;
         ++references[serverIp];
         ASSERT_TRUE( commonData->serverIpToMarkHas( serverIp ) ) << host;
         EXPECT_EQ( commonData->serverIpToMark( serverIp )->mark(), mark ) << host;
      }
      for ( const auto & [serverIp, serverMark] : commonData->serverIpToMarkItems() ) {
         EXPECT_EQ( serverMark->refCount(), references[serverIp] ) << serverIp.text();
         EXPECT_EQ( commonData->markToServerIp( serverMark->mark() ), serverIp );
         EXPECT_TRUE( commonData->serverMarkBitmap()->bit( serverMark->mark() ) );
         if ( serverMark->refCount() == 0 ) {
            EXPECT_TRUE( commonData->delMarkPendingListHas( serverIp ) ) << serverIp.text();
         }
      }
      const auto & bitmap = *commonData->serverMarkBitmap();
      EXPECT_EQ( commonData->markToServerIpCount(), commonData->serverIpToMarkCount() );
      EXPECT_EQ( bitmap.bitsSet(), commonData->serverIpToMarkCount() + 1 );
      if ( told.size() != publications.size() ) {
         EXPECT_EQ( bitmap.bitsSet(), bitmap.size() );
      }
   }

   /// Verifies whenever the backlogs have been drained.
   class PassObserver final : public EntityObserver {
    public:
      explicit PassObserver( HostModel & test ) : test_( test ) { test_.commonData->observe( *this ); }
      ~PassObserver() { test_.commonData->unobserve( *this ); }
      void attributeChanged( const AttributeInfo & attribute, const void * ) override {
         if ( &attribute == &CommonData::configPhaseAttr().info &&
               test_.commonData->configPhase() == ConfigPhase::netChasmInfoProcessing ) {
            ++passes;
            test_.verify();
         }
      }
      int passes = 0;

    private:
      HostModel & test_;
   };

   // A small world, so that changes meet.
   template<class T>
   T oneOf( std::initializer_list<T> values ) {
      return *( values.begin() + random( values.size() ) );
   }
   std::size_t random( std::size_t below ) {
      return std::uniform_int_distribution<std::size_t>( 0, below - 1 )( rng );
   }

   void changeConfiguration() {
      const NexthopGroupName name = oneOf( { "a", "b", "c" } );
      if ( random( 3 ) == 0 ) {
         const auto server = ip( oneOf( { "10.1.1.1", "10.1.1.2", "10.1.1.3", "10.1.1.4", "2001:db8::5",
               "2001:db8::6", "2001:db8::7" } ) );
         random( 5 ) < 3 ? nhg( name )->serverIpIs( server ) : nhg( name )->serverIpDel( server );
         return;
      }
      // One at a time: each has to be noticed by itself.
      const std::function<void()> changes[] = {
            [&] { probeConfig->monitoringEnabledIs( random( 4 ) != 0 ); },
            [&] {
               probe( name )->httpUrlIs(
                     oneOf( { "", "http://h/a", "https://h:8443/", "no url", "http://h/b?q" } ) );
            },
            [&] {
               probe( name )->tcpUrlIs(
                     oneOf( { "", "tcp://h:80", "tcp://[::1]:443", "tcp://h", "tcp://h:x" } ) );
            },
            [&] {
               probe( name )->vipIs( ip( oneOf( { "", "192.0.2.1", "192.0.2.2" } ) ) );
            },
            [&] { probe( name )->disabledIs( random( 3 ) == 0 ); },
            [&] {
               probe( name )->sslProfileIs( oneOf( { "", "corp", "missing" } ) );
            },
            [&] {
               probe( name )->probeIntervalIs( Seconds{ oneOf( { 5., 5.5, 7. } ) } );
            },
            [&] {
               probe( name )->timeoutIs( oneOf( { 1u, 10u } ) );
            },
            [&] {
               probe( name )->retryDelayIs( oneOf( { 0u, 4u } ) );
            },
            [&] {
               probe( name )->retryCountIs( oneOf<std::uint16_t>( { 0, 3 } ) );
            },
            [&] { probeConfig->nhgProbeConfigDel( name ); },
            [&] { serverConfig->nhgConfigDel( name ); },
            [&] {
               probeConfig->globalUrlIs( oneOf( { "", "http://g/", "https://g/" } ) );
            },
            [&] {
               probeConfig->sslProfileIs( oneOf( { "", "corp" } ) );
            },
            [&] {
               probeConfig->probeIntervalIs( Seconds{ oneOf( { 3., 9. } ) } );
            },
            [&] {
               serverStatus->probeSrcIpIs( ip( oneOf( { "", "10.0.0.1" } ) ) );
            },
            [&] {
               serverStatus->probeSrcIp6Is( ip( oneOf( { "", "2001:db8::1" } ) ) );
            },
      };
      changes[random( std::size( changes ) )]();
   }

   std::mt19937 rng;
};

TEST_F( HostModel, FollowsTheConfigurationThroughAnySequenceOfChanges ) {
   sslStatus->profileStatusIs( "corp" )->stateIs( Mgmt::Security::Ssl::ProfileState::valid );
   probeConfig->monitoringEnabledIs( true );
   commonData->serverMarkBitmapSizeIs( 6 ); // fewer marks than servers
   startAgent();
   PassObserver observer( *this );
   for ( int round = 0; round < 300 && !HasFailure(); ++round ) {
      SCOPED_TRACE( fmt::format( "round {}", round ) );
      rng.seed( static_cast<unsigned>( round ) );
      scheduler->sliceBudgetIs( random( 2 ) ? Clock::Duration{ 0 } : TaskScheduler::defaultSliceBudget );
      for ( auto changes = random( 40 ); changes > 0 && !HasFailure(); --changes ) {
         changeConfiguration();
         for ( auto slices = random( 4 ); slices > 0; --slices ) {
            scheduler->runSlice();
         }
         if ( random( 3 ) == 0 ) {
            engine.executeCommands();
            clock.advance( NetCHASMInfoSm::defaultTaskInterval );
         }
      }
      runUntilIdle();
      EXPECT_EQ( commonData->configPhase(), ConfigPhase::backlogProcessing );
      EXPECT_EQ( configSm->netChasmInfo()->updateCmdInfos(), 0u );
      EXPECT_EQ( commonData->delMarkPendingListCount(), 0u );
      verify();
   }
   EXPECT_GT( observer.passes, 300 );

   for ( const auto * name : { "a", "b", "c" } ) {
      serverConfig->nhgConfigDel( name );
      probeConfig->nhgProbeConfigDel( name );
   }
   runUntilIdle();
   EXPECT_TRUE( engine.marks.empty() );
   EXPECT_EQ( commonData->serverMarkBitmap()->bitsSet(), 1u );
   EXPECT_EQ( configSm->netChasmInfo()->nhgHostListCount(), 0u );
   EXPECT_EQ( configSm->backlogSm()->currNhgServerCfgCount(), 0u );
   EXPECT_EQ( serverStatus->nhgProbeStatusCount(), 0u );
   EXPECT_EQ( serverStatus->nhgMonitoringDisabledCount(), 0u );
}

} // namespace
} // namespace hm::test
