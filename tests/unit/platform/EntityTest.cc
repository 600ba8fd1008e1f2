#include "platform/Reactor.h"
#include "platform/state/HmState.h"

#include <gmock/gmock.h>

using namespace platform;
using HmState::NexthopGroupConfig;
using HmState::NexthopGroupProbeConfig;
using HmState::ProbeConfig;
using HmState::ServerConfig;
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
   config->probeIntervalIs( Seconds{ 7 } );
   const auto entry = config->nhgProbeConfigIs( "web" );
   EXPECT_EQ( config->nhgProbeConfigIs( "web" ), entry );
   config->nhgProbeConfigDel( "web" );
   config->nhgProbeConfigDel( "web" );
   recorder->notificationsEnabledIs( false );
   config->globalUrlIs( "" );
   EXPECT_THAT( recorder->seen, ElementsAre( "globalUrl", "nhgProbeConfig web", "nhgProbeConfig web" ) );
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
   group->serverIpDelAll();
   EXPECT_EQ( group->serverIpCount(), 0u );
}

TEST( Entity, WatchersMayComeAndGoWhileTheyAreTold ) {
   Ptr<ProbeConfig> config = new ProbeConfig;
   Ptr<Recorder> late = new Recorder;
   Ptr<Recorder> leaving = new Recorder;
   Ptr<Recorder> last = new Recorder;
   Ptr<Recorder> self = new Recorder;
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

TEST( Entity, UpdateShowsSeveralAttributesAsOneChange ) {
   Ptr<NexthopGroupProbeConfig> group = new NexthopGroupProbeConfig( "web" );
   Ptr<Recorder> recorder = new Recorder;
   std::string vipAtUrlChange;
   recorder->follow(
         group, NexthopGroupProbeConfig::httpUrlAttr(), [&] { vipAtUrlChange = group->vip().text(); } );
   recorder->follow( group, NexthopGroupProbeConfig::vipAttr() );
   {
      const EntityUpdate update( *group );
      group->httpUrlIs( "http://a/" );
      group->httpUrlIs( "http://b/" );
      group->vipIs( ip( "192.0.2.1" ) );
      EXPECT_TRUE( recorder->seen.empty() );
   }
   EXPECT_THAT( recorder->seen, ElementsAre( "httpUrl", "vip" ) );
   EXPECT_EQ( vipAtUrlChange, "192.0.2.1" );
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

TEST( EntityDescription, ListsAttributesInOrderAndReadsThemAsText ) {
   std::vector<std::string> names;
   for ( const auto * attribute : NexthopGroupProbeConfig::entityType().attributes() ) {
      names.push_back( attribute->name() );
   }
   EXPECT_THAT( names, ElementsAre( "httpUrl", "tcpUrl", "probeInterval", "sslProfile", "vip", "disabled",
                             "timeout", "retryDelay", "retryCount" ) );

   Ptr<ProbeConfig> config = new ProbeConfig;
   const auto * groups = ProbeConfig::entityType().attribute( "nhgProbeConfig" )->collection();
   Ptr<Recorder> recorder = new Recorder;
   std::string urlWhenSeen;
   recorder->follow( config, ProbeConfig::nhgProbeConfigAttr(),
         [&] { urlWhenSeen = config->nhgProbeConfig( "web" )->httpUrl(); } );
   const auto entry = groups->entryNew( "web" );
   const auto & type = groups->entryType();
   EXPECT_EQ( type.attribute( "httpUrl" )->scalar()->textIs( *entry, "http://10.0.0.1/" ), std::nullopt );
   EXPECT_EQ( type.attribute( "timeout" )->scalar()->textIs( *entry, "86401" ), "out of range 1..86400" );
   EXPECT_EQ( type.attribute( "timeout" )->scalar()->text( *entry ), "10" );
   EXPECT_EQ( type.attribute( "probeInterval" )->scalar()->defaultText(), "5" );
   groups->insert( *config, "web", entry );
   EXPECT_EQ( urlWhenSeen, "http://10.0.0.1/" ); // nobody saw it half filled
   EXPECT_EQ( groups->nextKey( *config, std::nullopt ), "web" );
   EXPECT_EQ( groups->nextKey( *config, "web" ), std::nullopt );
   EXPECT_EQ( groups->keyCheck( "" ), "is empty" );
   EXPECT_EQ( groups->keyCheck( std::string( 256, 'x' ) ), "is longer than 255 bytes" );
   EXPECT_EQ( groups->keyCheck( "\xff" ), "is not UTF-8 text" );

   const auto * vips = ProbeConfig::entityType().attribute( "pingDisabledVip" )->set();
   vips->insert( *config, "2001:DB8:0::1" );
   EXPECT_TRUE( vips->has( *config, "2001:db8::1" ) );
   EXPECT_EQ( vips->keyNormal( "2001:DB8:0::1" ), "2001:db8::1" );
}

TEST( EntityDescription, RefusesWhatIsOutOfBounds ) {
   struct Case {
      const char * attribute;
      const char * text;
      bool good;
   };
   const Case cases[] = {
         { "monitoringEnabled", "true", true },
         { "monitoringEnabled", "yes", false },
         { "probeInterval", "0.1", true },
         { "probeInterval", "0", false },
         { "probeInterval", "-5", false },
         { "probeInterval", "nan", false },
         { "probeInterval", "1e400", false },
         { "maxNumberOfThreads", "0", false },
         { "maxNumberOfThreads", "65536", false },
         { "maxNumberOfThreads", "99999999999999999999", false },
         { "maxNumberOfThreads", "4 ", false },
         { "niceValue", "-20", true },
         { "niceValue", "20", false },
         { "encapUdpDstPort", "0", false },
         { "encapDstMac", "02:00:00:00:00:01", true },
         { "encapDstMac", "02:00:00:00:00:0g", false },
         { "encapDstMac", "0200.0000.0001", false },
         { "globalUrl", "https://10.0.0.1:8443/x", true },
         { "globalUrl", "ftp://10.0.0.1/", false },
         { "globalUrl", "http://10.0.0.1/a b", false },
         { "globalUrl", "http://[2001:db8::1]:8080", true },
         { "globalUrl", "http://", false },
         { "globalUrl", "http://:80/", false },
         { "globalUrl", "http://[2001:db8::1/", false },
         { "globalUrl", "http://h:99999/", false },
         { "globalUrl", "http://[:]/x", false },
         { "globalUrl", "http://[10.0.0.1]/x", false },
         { "globalUrl", "http://[]/x", false },
         { "globalUrl", "http://[fe80::1%eth0]/x", false },
         { "globalUrl", "http://[::1]x/", false },
         { "globalUrl", "http://a\"b/", false },
         { "globalUrl", "http://a%41b/", false },
         { "globalUrl", "http://a,b/", false },
         { "globalUrl", "http://web_1.a-b/?q=[1]&r='#s", true },
         { "globalUrl", "http://h/\"", false },
         { "globalUrl", "http://h\\x", false },
         { "globalUrl", "http://h/%22", true },
         { "globalUrl", "http://user:pass@h:80/", true },
         { "globalUrl", "http://user@other@h/", false },
         { "globalUrl", "http://h:/", false },
         { "globalUrl", "http://h/\xff", false },
         { "globalUrl", "http://h/\xc3\xa9", true },
         { "sslProfile", "\xed\xa0\x80", false },
         { "sslProfile", "\xc0\xaf", false },
         { "tcpUrl", "tcp://[2001:db8::1]:443", true },
         { "tcpUrl", "tcp://db_1.a-b:65535", true },
         { "tcpUrl", "tcp://10.0.0.1:0", false },
         { "tcpUrl", "tcp://10.0.0.1:65536", false },
         { "tcpUrl", "tcp://10.0.0.1", false },
         { "tcpUrl", "tcp://[2001:db8::1]", false },
         { "tcpUrl", "tcp://1.1.1.1:80/", false },
         { "tcpUrl", "tcp://1.1.1.1:80/abc:zz", false },
         { "tcpUrl", "tcp://1.1.1.1:80/abc:81", false },
         { "tcpUrl", "tcp://a:b@h:80", false },
   };
   for ( const auto & c : cases ) {
      const auto * attribute = ProbeConfig::entityType().attribute( c.attribute );
      attribute = attribute ? attribute : NexthopGroupProbeConfig::entityType().attribute( c.attribute );
      EXPECT_EQ( !attribute->scalar()->check( c.text ), c.good ) << c.attribute << " = " << c.text;
   }
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
