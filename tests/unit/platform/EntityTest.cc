#include "platform/EntityManager.h"
#include "platform/Reactor.h"
#include "platform/state/HmState.h"
#include "platform/state/Profile.h"

#include <gmock/gmock.h>

using namespace platform;
using HmState::NexthopGroupConfig;
using HmState::NexthopGroupProbeConfig;
using HmState::ProbeConfig;
using testing::ElementsAre;

namespace {

IpGenAddr ip( std::string_view text ) {
   return *IpGenAddr::fromText( text );
}

// Writes down what it is told, and runs what a test wants done at that moment.
class Recorder : public Reactor {
 public:
   Recorder() { notificationsEnabledIs( true ); }
   using Reactor::unwatchAll;
   template<class E, class Key>
   void follow( const Ptr<E> & entity, AttributeOf<E, Key> attribute, std::function<void()> then = {} ) {
      const AttributeInfo & info = attribute;
      if constexpr ( std::is_void_v<Key> ) {
         watch( Ptr<const E>( entity ), attribute, [this, &info, then] { note( info.name(), then ); } );
      } else {
         watch<E, Key>( Ptr<const E>( entity ), attribute, [this, &info, then]( const Key & key ) {
            note( info.name() + " " + info.keyText( &key ), then );
         } );
      }
   }
   std::vector<std::string> seen;

 private:
   void note( const std::string & what, const std::function<void()> & then ) {
      seen.push_back( what );
      if ( then ) {
         then();
      }
   }
};

struct TreeLog final : TreeObserver {
   void treeChanged(
         const Entity & entity, const AttributeInfo & attribute, const std::string & key ) override {
      lines.push_back( entity.path() + " " + attribute.name() + ( key.empty() ? "" : " " + key ) );
   }
   std::vector<std::string> lines;
};

} // namespace

TEST( Entity, SettersNotifyOnceAndOnlyOnChange ) {
   Ptr<ProbeConfig> config = new ProbeConfig;
   Ptr<Recorder> recorder = new Recorder;
   recorder->follow( config, ProbeConfig::globalUrlAttr() );
   recorder->follow( config, ProbeConfig::nhgProbeConfigAttr() );
   config->globalUrlIs( "http://10.0.0.1/" );
   config->globalUrlIs( "http://10.0.0.1/" );
   {
      const EntityUpdate update( *config );
      config->globalUrlIs( "http://10.0.0.2/" );
      config->globalUrlIs( "http://10.0.0.3/" );
      EXPECT_EQ( recorder->seen.size(), 1u );
   }
   config->probeIntervalIs( Seconds{ 7 } );
   const auto entry = config->nhgProbeConfigIs( "web" );
   EXPECT_EQ( config->nhgProbeConfigIs( "web" ), entry );
   config->nhgProbeConfigDel( "web" );
   config->nhgProbeConfigDel( "web" );
   recorder->notificationsEnabledIs( false );
   config->globalUrlIs( "" );
   EXPECT_THAT( recorder->seen,
         ElementsAre( "globalUrl", "globalUrl", "nhgProbeConfig web", "nhgProbeConfig web" ) );
}

TEST( Entity, CollectionsMayChangeWhileTheyAreWalked ) {
   Ptr<NexthopGroupConfig> group = new NexthopGroupConfig( "web" );
   for ( const char * server : { "10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4" } ) {
      group->serverIpIs( ip( server ) );
   }
   std::vector<std::string> walked;
   for ( const auto & item : group->serverIpItems() ) {
      walked.push_back( item.key.text() );
      group->serverIpDel( ip( "10.0.0.1" ) ); // the one behind, then the one under us, and one ahead
      group->serverIpDel( ip( "10.0.0.2" ) );
      group->serverIpDel( ip( "10.0.0.3" ) );
      group->serverIpIs( ip( "10.0.0.9" ) );
   }
   EXPECT_THAT( walked, ElementsAre( "10.0.0.1", "10.0.0.4", "10.0.0.9" ) );
   std::vector<std::string> resumed;
   for ( const auto & item : group->serverIpItems().from( ip( "10.0.0.5" ) ) ) {
      resumed.push_back( item.key.text() );
   }
   EXPECT_THAT( resumed, ElementsAre( "10.0.0.9" ) );
}

TEST( Entity, WatchersMayComeAndGoWhileTheyAreTold ) {
   Ptr<ProbeConfig> config = new ProbeConfig;
   Ptr<Recorder> self = new Recorder, leaving = new Recorder, late = new Recorder, last = new Recorder;
   // The first drops itself out of its own handler, ends the second's watch, and brings in a third.
   self->follow( config, ProbeConfig::globalUrlAttr(), [&] {
      leaving->unwatchAll();
      late->follow( config, ProbeConfig::globalUrlAttr() );
      self = nullptr;
   } );
   leaving->follow( config, ProbeConfig::globalUrlAttr() );
   last->follow( config, ProbeConfig::globalUrlAttr() );
   config->globalUrlIs( "http://10.0.0.1/" );
   EXPECT_EQ( leaving->seen.size(), 0u );
   EXPECT_EQ( last->seen.size(), 1u );
   config->globalUrlIs( "http://10.0.0.2/" );
   EXPECT_EQ( leaving->seen.size(), 0u );
   EXPECT_EQ( last->seen.size(), 2u );
   EXPECT_GE( late->seen.size(), 1u );
   EXPECT_EQ( self, nullptr );
}

TEST( Entity, TreeObserversSeeEveryChangeBelowThemByItsPath ) {
   Ptr<ProbeConfig> config = new ProbeConfig;
   config->rootPathIs( "probe" );
   TreeLog log;
   config->observeTree( log );
   const auto group = config->nhgProbeConfigIs( "a/b" );
   group->timeoutIs( 3 );
   config->responseCodeRule()->patternIs( "5.." );
   config->pingDisabledVipIs( ip( "2001:db8::1" ) );
   config->nhgProbeConfigDel( "a/b" );
   group->timeoutIs( 4 ); // no longer part of the tree
   config->unobserveTree( log );
   config->globalUrlIs( "http://x/" );
   EXPECT_THAT( log.lines, ElementsAre( "probe nhgProbeConfig a/b", "probe/nhgProbeConfig/a%2Fb timeout",
                                 "probe/responseCodeRule pattern", "probe pingDisabledVip 2001:db8::1",
                                 "probe nhgProbeConfig a/b" ) );
}

TEST( EntityDescription, RefusesWhatIsOutOfBounds ) {
   struct Attribute {
      const char * name;
      std::vector<std::string> good, bad;
   };
   const Attribute attributes[] = {
         { "monitoringEnabled", { "true" }, { "yes" } },
         { "probeInterval", { "0.1" }, { "0", "-5", "nan", "1e400" } },
         { "maxNumberOfThreads", { "1" }, { "0", "65536", "99999999999999999999", "4 " } },
         { "niceValue", { "-20" }, { "20" } },
         { "encapDstMac", { "02:00:00:00:00:01" }, { "02:00:00:00:00:0g", "0200.0000.0001" } },
         { "sslProfile", { "naïve" }, { "\xed\xa0\x80", "\xc0\xaf" } },
         { "globalUrl",
               { "https://10.0.0.1:8443/x", "http://[2001:db8::1]:8080", "http://web_1.a-b/?q=[1]&r='#s",
                     "http://h/%22", "http://user:pass@h:80/", "http://h/\xc3\xa9" },
               { "ftp://10.0.0.1/", "http://10.0.0.1/a b", "http://", "http://:80/", "http://[2001:db8::1/",
                     "http://h:99999/", "http://[:]/x", "http://[10.0.0.1]/x", "http://[fe80::1%eth0]/x",
                     "http://[::1]x/", "http://a\"b/", "http://a%41b/", "http://a,b/", "http://h/\"",
                     "http://h\\x", "http://user@other@h/", "http://h:/", "http://h/\xff" } },
         { "tcpUrl", { "tcp://[2001:db8::1]:443", "tcp://db_1.a-b:65535" },
               { "tcp://10.0.0.1:0", "tcp://10.0.0.1:65536", "tcp://10.0.0.1", "tcp://[2001:db8::1]",
                     "tcp://1.1.1.1:80/", "tcp://1.1.1.1:80/abc:81", "tcp://a:b@h:80" } },
   };
   for ( const auto & [name, good, bad] : attributes ) {
      const auto * attribute = ProbeConfig::entityType().attribute( name );
      attribute = attribute ? attribute : NexthopGroupProbeConfig::entityType().attribute( name );
      for ( const auto & text : good ) {
         EXPECT_EQ( attribute->scalar()->check( text ), std::nullopt ) << name << " = " << text;
      }
      for ( const auto & text : bad ) {
         EXPECT_NE( attribute->scalar()->check( text ), std::nullopt ) << name << " = " << text;
      }
   }
   const auto * groups = ProbeConfig::entityType().attribute( "nhgProbeConfig" )->collection();
   EXPECT_EQ( groups->keyCheck( std::string( 255, 'x' ) ), std::nullopt );
   EXPECT_EQ( groups->keyCheck( "" ), "is empty" );
   EXPECT_EQ( groups->keyCheck( std::string( 256, 'x' ) ), "is longer than 255 bytes" );
   EXPECT_EQ( groups->keyCheck( "\xff" ), "is not UTF-8 text" );
}

TEST( EntityPath, AnyKeyIsOneComponent ) {
   for ( const std::string key : { "web", "Ethernet1/1", "a%b", "%2F", "\n\x7f", "naïve", "" } ) {
      const auto escaped = pathEscape( key );
      EXPECT_EQ( escaped.find( '/' ), std::string::npos );
      EXPECT_EQ( pathUnescape( escaped ), key );
   }
   EXPECT_EQ( pathUnescape( "a%2" ), std::nullopt );
   EXPECT_EQ( pathUnescape( "a%zz" ), std::nullopt );
}

TEST( EntityManager, MountsKnownProfilesAndOnlyTheStatusIsTheAgents ) {
   const Ptr<EntityManager> manager = new EntityManager;
   manager->profileIs( healthMonitorProfile() );
   EXPECT_TRUE( manager->agentWrites( "healthMonitor/status/serverStatus/nhgProbeStatus/web" ) );
   EXPECT_FALSE( manager->agentWrites( "healthMonitor/status/serverStatusX" ) );
   EXPECT_FALSE( manager->agentWrites( "healthMonitor/config/probeConfig" ) );
   std::vector<MountStatus> outcomes;
   for ( const char * name : { "HealthMonitor", "Other" } ) {
      const Ptr<MountGroup> group =
            new MountGroup( manager, [&]( MountStatus status ) { outcomes.push_back( status ); } );
      group->mountProfile( name );
      group->close( false, "", Seconds{ 0 } );
      group->close( false, "", Seconds{ 0 } );
   }
   EXPECT_THAT( outcomes, ElementsAre( MountStatus::success, MountStatus::unknownProfile ) );
}
