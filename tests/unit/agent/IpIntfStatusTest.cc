// The probe source addresses as the tunnel source interface changes.
#include "HealthMonitor/HmIpIntfStatusSm.h"
#include "TestValues.h"
#include "TraceLines.h"

#include <cstdarg>
#include <syslog.h>

namespace {
std::vector<std::pair<int, std::string>> systemLogLines;
}

/// In place of the C library's.
extern "C" void syslog( int priority, const char * format, ... ) {
   char text[1024];
   std::va_list arguments;
   va_start( arguments, format );
   std::vsnprintf( text, sizeof text, format, arguments );
   va_end( arguments );
   systemLogLines.emplace_back( priority, text );
}

namespace hm::test {
namespace {

class TunnelSource : public testing::Test {
 protected:
   TunnelSource() { systemLogLines.clear(); }
   void start() {
      sm_ = ipIntfStatusSmFactory( ipStatus_, ip6Status_, config_, status_ );
      sm_->notificationsEnabledIs( true );
   }
   void ipv4( const char * intf, const char * address ) {
      ipStatus_->ipIntfStatusIs( IntfId( intf ) )->ipAddrIs( ip( address ) );
   }
   Ptr<Ip6::IntfStatus> ipv6( const char * intf, std::initializer_list<const char *> addresses ) {
      const auto status = ip6Status_->intfIs( IntfId( intf ) );
      for ( const auto * address : addresses ) {
         status->addrIs( *IpGenPrefix::fromText( address ) );
      }
      return status;
   }
   void tunnel( const char * intf ) { config_->localTunnelIntfIs( IntfId( intf ) ); }
   /// Both published addresses.
   std::string sources() const {
      return fmt::format( "{} {}", status_->probeSrcIp(), status_->probeSrcIp6() );
   }

   const Ptr<Ip::Status> ipStatus_ = new Ip::Status;
   const Ptr<Ip6::Status> ip6Status_ = new Ip6::Status;
   const Ptr<HmState::ProbeConfig> config_ = new HmState::ProbeConfig;
   const Ptr<HmState::ServerStatus> status_ = new HmState::ServerStatus;
   Ptr<IpIntfStatusSm> sm_;
};

TEST_F( TunnelSource, IsWhatTheInterfaceHasAtTheStart ) {
   const struct {
      const char * name;
      const char * tunnel;
      const char * address;
      std::initializer_list<const char *> addresses6;
      const char * sources;
   } rows[] = {
         { "no tunnel interface", "", "10.0.0.1", { "2001:db8::1/64" }, " " },
         { "another interface", "Loopback1", "10.0.0.1", { "2001:db8::1/64" }, " " },
         { "beside link-local ones", "Loopback0", "10.0.0.1",
               { "fe80::1/64", "2001:db8::1/64", "febf:ffff::1/64" }, "10.0.0.1 2001:db8::1" },
         { "link-local ones", "Loopback0", "10.0.0.1", { "fe80::1/64", "fe80::2/64" }, "10.0.0.1 " },
         { "beside no IPv6 address at all", "Loopback0", "", { "10.0.0.9/24", "2001:db8::1/64" },
               " 2001:db8::1" },
         { "not link-local", "Loopback0", "", { "fec0::1/64" }, " fec0::1" },
   };
   for ( const auto & row : rows ) {
      ipStatus_->ipIntfStatusDelAll();
      ip6Status_->intfDelAll();
      status_->probeSrcIpIs( ip( "192.0.2.99" ) ); // left by an earlier agent
      status_->probeSrcIp6Is( ip( "2001:db8::99" ) );
      tunnel( row.tunnel );
      ipv4( "Loopback0", row.address );
      ipv6( "Loopback0", row.addresses6 );
      start();
      EXPECT_EQ( sources(), row.sources ) << row.name;
   }
   EXPECT_TRUE( systemLogLines.empty() );
}

TEST_F( TunnelSource, FollowsTheInterface ) {
   start();
   tunnel( "Loopback0" );
   EXPECT_EQ( sources(), " " );
   ipv4( "Loopback0", "10.0.0.1" );
   const auto six = ipv6( "Loopback0", { "2001:db8::1/64" } );
   EXPECT_EQ( sources(), "10.0.0.1 2001:db8::1" );
   ipv4( "Loopback0", "10.0.0.2" );
   six->addrDel( *IpGenPrefix::fromText( "2001:db8::1/64" ) );
   EXPECT_EQ( sources(), "10.0.0.2 " );

   ipv4( "Loopback1", "10.0.1.1" );
   ipv6( "Loopback1", { "2001:db8:1::1/64" } );
   EXPECT_EQ( sources(), "10.0.0.2 " );
   tunnel( "Loopback1" );
   EXPECT_EQ( sources(), "10.0.1.1 2001:db8:1::1" );
   ip6Status_->intfDel( IntfId( "Loopback0" ) );
   ipStatus_->ipIntfStatusDel( IntfId( "Loopback0" ) );
   EXPECT_EQ( sources(), "10.0.1.1 2001:db8:1::1" );
   ipStatus_->ipIntfStatusDel( IntfId( "Loopback1" ) );
   EXPECT_EQ( sources(), " 2001:db8:1::1" );
   ipv4( "Loopback1", "10.0.1.2" );
   ip6Status_->intfDel( IntfId( "Loopback1" ) );
   EXPECT_EQ( sources(), "10.0.1.2 " );
   tunnel( "" );
   EXPECT_EQ( sources(), " " );

   tunnel( "Loopback1" );
   sm_->notificationsEnabledIs( false );
   ipv4( "Loopback1", "10.0.1.3" );
   EXPECT_EQ( sources(), "10.0.1.2 " );
}

TEST_F( TunnelSource, SeveralIpv6AddressesAreReportedAndNotUsed ) {
   tunnel( "Loopback0" );
   const auto six = ipv6( "Loopback0", { "2001:db8::1/64", "fe80::1/64" } );
   start();
   six->addrIs( *IpGenPrefix::fromText( "2001:db8::2/64" ) );
   EXPECT_EQ( sources(), " " );
   ASSERT_EQ( systemLogLines.size(), 1u );
   EXPECT_EQ( systemLogLines[0].first & 7, 3 );
   EXPECT_EQ( systemLogLines[0].second,
         "HEALTH_MONITOR_INVALID_IPV6_TUNNEL_ADDRESS: IPv6 tunnel address configuration is being ignored due "
         "to multiple IPv6 addresses on Loopback0." );
   six->addrDel( *IpGenPrefix::fromText( "2001:db8::1/64" ) );
   EXPECT_EQ( sources(), " 2001:db8::2" );
   EXPECT_EQ( systemLogLines.size(), 1u );
   ipv6( "Loopback1", { "2001:db8::3/64", "2001:db8::4/64" } ); // nobody's tunnel
   EXPECT_EQ( systemLogLines.size(), 1u );
}

TEST_F( TunnelSource, TracesWhatItSetsAndWhatItIgnores ) {
   tunnel( "Loopback0" );
   ipv4( "Loopback0", "10.0.0.1" );
   ipv6( "Loopback0", { "2001:db8::1/64" } );
   const auto lines = linesOf( [this] {
      start();
      ipv4( "Loopback1", "10.0.1.1" );
      ipv6( "Loopback1", {} );
      ipStatus_->ipIntfStatusDelAll();
      ip6Status_->intfDelAll();
   } );
   expectLines(
         lines, { { 9, "handleInitialized:" }, { 4, "handleLocalTunnelIntf:Setting probeSrcIp to 10.0.0.1" },
                      { 4, "maybeUpdateIpv6TunnelSourceIp:Setting probeSrcIp6 to 2001:db8::1" },
                      { 4, "handleIpIntfStatusChange:Setting probeSrcIp to 10.0.0.1" },
                      { 9, "handleIpIntfStatusChange:Ignoring ipIntfStatus change for intfId Loopback1" },
                      { 9, "handleIp6IntfStatusChange:Ignoring ip6IntfStatus change for intfId Loopback1" },
                      { 4, "cleanup:Setting probeSrcIp to " }, { 4, "cleanup:Setting probeSrcIp6 to " },
                      { 9, "cleanup:Ignoring ipIntfStatus change for intfId Loopback1" },
                      { 9, "cleanup:Ignoring ip6IntfStatus change for intfId Loopback1" } } );
}

} // namespace
} // namespace hm::test
