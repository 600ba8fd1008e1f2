#include "hmctl/DoctorFacts.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <fmt/format.h>

namespace hmctl {

namespace {

constexpr std::uint32_t lastMark = 0x3fff; // firewall marks of servers: 1 to 16383
constexpr int rawPriority = -300;          // before connection tracking

// "a, b, c and 12 more"
std::string listed( const std::vector<std::string> & all ) {
   constexpr std::size_t most = 5;
   std::string text;
   for ( std::size_t i = 0; i < std::min( most, all.size() ); ++i ) {
      text += ( i == 0 ? "" : ", " ) + all[i];
   }
   return all.size() > most ? fmt::format( "{} and {} more", text, all.size() - most ) : text;
}

unsigned overhead( const Address & address ) {
   return address.family == 4 ? 50 : 70;
}

std::string ipCommand( const Address & address ) {
   return address.family == 4 ? "ip" : "ip -6";
}

class Judge {
 public:
   explicit Judge( const DoctorFacts & facts ) : facts_( facts ), findings_( facts.unknown ) {
      for ( const auto & group : facts.groups ) {
         vips_[group.vip].push_back( &group );
      }
   }

   std::vector<Finding> all() {
      for ( const int family : { 4, 6 } ) {
         const auto first = std::ranges::find_if(
               vips_, [family]( const auto & each ) { return each.first.family == family; } );
         if ( first != vips_.end() ) {
            source( family );
            if ( facts_.rules ) {
               probeRules( first->first );
            }
         }
      }
      if ( facts_.rules ) {
         echoRules();
      }
      queue();
      for ( const auto & [vip, groups] : vips_ ) {
         owned( vip );
         route( vip, groups );
         ports( vip, groups );
      }
      for ( const auto & [what, vips] : ofVips_ ) {
         add( "VIP " + listed( vips ), what.first, what.second );
      }
      serverRoutes();
      reversePath();
      return std::move( findings_ );
   }

 private:
   void add( std::string subject, std::string problem, std::string advice ) {
      findings_.push_back( { std::move( subject ), std::move( problem ), std::move( advice ) } );
   }

   // What is wrong with many in the same way is one finding.
   void addOfVip( const Address & vip, const std::string & problem, const std::string & advice ) {
      ofVips_[{ problem, advice }].push_back( vip.text() );
   }

   void source( int family ) {
      const auto & source = family == 4 ? facts_.sourceIpv4 : facts_.sourceIpv6;
      const auto subject = fmt::format( "IPv{} source address", family );
      const auto name = facts_.tunnelIntf;
      if ( source.unspecified() ) {
         if ( name.empty() ) {
            add( subject, "there is none: no tunnel interface is configured",
                  "hmctl set healthMonitor/config/probeConfig localTunnelIntf INTERFACE" );
         } else if ( family == 4 ) {
            add( subject, fmt::format( "there is none: {} has no IPv4 address in ip/status", name ),
                  "give the interface an address and bring it up, or configure ip/status" );
         } else {
            add( subject,
                  fmt::format( "there is none: {} has no IPv6 address in ip6/status, or several", name ),
                  "give the interface exactly one that is not link-local and bring it up, or configure "
                  "ip6/status" );
         }
      } else if ( facts_.links && !facts_.localAddresses.contains( source ) ) {
         add( subject,
               fmt::format(
                     "{} is on no interface of this machine: no probe can leave with it", source.text() ),
               fmt::format( "{} addr add {} dev INTERFACE, or start hm-host with --interfaces kernel",
                     ipCommand( source ), source.text() ) );
      }
   }

   void probeRules( const Address & vip ) {
      const auto subject = fmt::format( "IPv{} probe rules", vip.family );
      const auto program = vip.family == 4 ? "iptables-nft" : "ip6tables-nft";
      const auto rule =
            fmt::format( "hm-host --packet-filter auto, or {} -t mangle -A OUTPUT -p tcp -m mark ! --mark "
                         "0x0/0x3fff -m mark --mark 0x0/0xffffc000 -j NFQUEUE --queue-num 0",
                  program );
      FilteredPacket probe{ vip.family, FilteredPacket::Protocol::tcp, vip };
      probe.mark = 1;
      const auto queued = facts_.rules->queued( probe );
      const auto rewraps = []( const FilterRules::Queued & each ) {
         return each.hook == "output" && each.type != "nat" && each.priority > rawPriority;
      };
      const auto right = std::ranges::find_if( queued, rewraps );
      if ( right == queued.end() ) {
         if ( queued.empty() ) {
            add( subject, "no rule hands marked TCP to queue 0: probes leave unwrapped", rule );
         } else {
            add( subject,
                  fmt::format( "marked TCP goes to queue 0 in the wrong place: {} (hook {})",
                        queued.front().chain, queued.front().hook ),
                  "only in an output chain behind connection tracking, and not of nat, is the packet routed "
                  "to the server afterwards: " +
                        rule );
         }
         return;
      }
      probe.mark = lastMark;
      if ( std::ranges::none_of( facts_.rules->queued( probe ), rewraps ) ) {
         add( subject,
               fmt::format( "{} does not take all marks: servers have 1 to {}", right->chain, lastMark ),
               rule );
      }
      probe.mark = 0;
      if ( std::ranges::any_of( facts_.rules->queued( probe ), rewraps ) ) {
         add( subject, fmt::format( "{} takes TCP without a mark too, which the agent drops", right->chain ),
               rule );
      }
      if ( right->bypass ) {
         add( subject,
               fmt::format(
                     "{} has bypass: while nobody serves the queue probes leave unwrapped", right->chain ),
               "take bypass off the rule" );
      }
   }

   void echoRules() {
      std::vector<std::string> missing, elsewhere, discovery;
      for ( const auto & [vip, groups] : vips_ ) {
         FilteredPacket packet{ vip.family, FilteredPacket::Protocol::icmp, vip };
         packet.icmpType = 8;
         const auto queued = facts_.rules->queued( packet );
         const auto early = []( const auto & each ) { return each.hook == "prerouting"; };
         if ( !facts_.silentVips.contains( vip ) && std::ranges::none_of( queued, early ) ) {
            ( queued.empty() ? missing : elsewhere ).push_back( vip.text() );
         }
         packet.icmpType = 135; // neighbour solicitation
         if ( vip.family == 6 && !facts_.rules->queued( packet ).empty() ) {
            discovery.push_back( vip.text() );
         }
      }
      const std::string advice =
            "hm-host --packet-filter auto, or for each: iptables-nft -t mangle -A PREROUTING "
            "-d VIP -p icmp --icmp-type echo-request -j NFQUEUE --queue-num 0 (IPv6: "
            "ip6tables-nft, -p ipv6-icmp --icmpv6-type echo-request)";
      if ( !missing.empty() ) {
         add( "echo rules",
               "no rule hands echo requests to queue 0, so that nobody answers them: " + listed( missing ),
               advice );
      }
      if ( !elsewhere.empty() ) {
         add( "echo rules",
               "echo requests go to queue 0 behind a routing decision that may not bring them there: " +
                     listed( elsewhere ),
               advice );
      }
      if ( !discovery.empty() ) {
         add( "echo rules",
               "neighbour discovery goes to queue 0 too, where it is dropped: " + listed( discovery ),
               advice );
      }
   }

   void queue() {
      if ( !facts_.queue ) {
         add( "queue 0", "nobody has bound it: what rules hand to it is lost",
               "run hm-host in this network namespace, as root, and nothing else on that queue" );
         return;
      }
      if ( facts_.queue->lostFull != 0 ) {
         add( "queue 0",
               fmt::format( "{} packets were lost because the queue was full", facts_.queue->lostFull ),
               "spread the checks over more time (probeInterval), or give the agent more of a processor" );
      }
      if ( facts_.queue->lostUnread != 0 ) {
         add( "queue 0",
               fmt::format(
                     "{} packets were lost because the receive buffer was full", facts_.queue->lostUnread ),
               "run hm-host as root, so that it may have a larger buffer, or spread the checks over more "
               "time" );
      }
   }

   void owned( const Address & vip ) {
      if ( const auto found = facts_.localAddresses.find( vip ); found != facts_.localAddresses.end() ) {
         addOfVip( vip,
               fmt::format(
                     "interface {} has it: this machine answers in place of the servers", found->second ),
               fmt::format( "{} addr del VIP dev {}", ipCommand( vip ), found->second ) );
      }
   }

   void route( const Address & vip, const std::vector<const VipGroup *> & groups ) {
      const auto * toVip = routeTo( vip );
      if ( facts_.routes && !toVip ) {
         addOfVip( vip, "there is no route to it: no connection can be opened",
               fmt::format( "{} route add VIP dev lo", ipCommand( vip ) ) );
      }
      // What a packet to one of the servers may have at most.
      auto least = std::numeric_limits<unsigned>::max();
      std::string device;
      for ( const auto * group : groups ) {
         for ( const auto & server : group->servers ) {
            const auto * toServer = routeTo( server );
            const auto mtu = toServer ? mtuOf( *toServer ) : 0;
            if ( mtu != 0 && mtu < least ) {
               least = mtu;
               device = toServer->device;
            }
         }
      }
      // What the machine itself has is routed to itself as long as that is so.
      const auto inner = toVip && !facts_.localAddresses.contains( vip ) ? mtuOf( *toVip ) : 0;
      const auto more = overhead( vip );
      if ( inner != 0 && !device.empty() && inner + more > least ) {
         addOfVip( vip,
               fmt::format(
                     "a probe's packet may have {} bytes, which with {} more do not fit through {} (MTU {}): "
                     "longer requests are lost silently",
                     inner, more, device, least ),
               fmt::format( "give the route an MTU: {} route replace VIP {}dev {} mtu {}", ipCommand( vip ),
                     toVip->gateway.empty() ? "" : fmt::format( "via {} ", toVip->gateway ), toVip->device,
                     least - std::min( least, more ) ) );
      }
   }

   // The ports of one source address towards one address. In the worst case no check is answered.
   void ports( const Address & vip, const std::vector<const VipGroup *> & groups ) {
      double needed = 0;
      for ( const auto * group : groups ) {
         needed += static_cast<double>( group->servers.size() ) * group->checksAServer *
                   group->timeoutSeconds / group->intervalSeconds;
      }
      if ( facts_.sourcePorts != 0 && needed > facts_.sourcePorts ) {
         addOfVip( vip,
               fmt::format( "its checks may need {:.0f} source ports at a time, and there are {}",
                     std::ceil( needed ), facts_.sourcePorts ),
               "lengthen probeInterval, shorten timeout, or widen net.ipv4.ip_local_port_range" );
      }
   }

   void serverRoutes() {
      std::vector<std::string> without;
      for ( const auto & group : facts_.groups ) {
         for ( const auto & server : group.servers ) {
            if ( facts_.routes && !routeTo( server ) ) {
               without.push_back( fmt::format( "{} (group {})", server.text(), group.name ) );
            }
         }
      }
      if ( !without.empty() ) {
         add( "servers",
               fmt::format( "there is no route to {} of them: {}", without.size(), listed( without ) ),
               "ip route add SERVER via GATEWAY, or bring the link to them up" );
      }
   }

   // Answers come straight from the server, with the virtual address as their source.
   void reversePath() {
      std::set<std::string> strict;
      for ( const auto & group : facts_.groups ) {
         for ( const auto & server : group.servers ) {
            const auto * toServer = server.family == 4 ? routeTo( server ) : nullptr;
            const auto * link = toServer && toServer->device != "lo" ? linkOf( toServer->device ) : nullptr;
            // Of the link's value and the one for all the larger one counts.
            if ( link && std::max( link->rpFilter, facts_.rpFilterAll ) == 1 ) {
               strict.insert( toServer->device );
            }
         }
      }
      if ( !strict.empty() ) {
         const std::vector<std::string> names( strict.begin(), strict.end() );
         add( "reverse-path filter",
               "is strict on links to servers and drops their answers: " + listed( names ),
               fmt::format(
                     "sysctl -w net/ipv4/conf/{}/rp_filter=2", names.size() == 1 ? names.front() : "LINK" ) );
      }
   }

   const Route * routeTo( const Address & address ) const {
      if ( !facts_.routes ) {
         return nullptr;
      }
      const auto found = facts_.routes->find( address );
      return found == facts_.routes->end() ? nullptr : &found->second;
   }
   const LocalLink * linkOf( const std::string & name ) const {
      if ( !facts_.links ) {
         return nullptr;
      }
      const auto found = facts_.links->find( name );
      return found == facts_.links->end() ? nullptr : &found->second;
   }
   unsigned mtuOf( const Route & route ) const { // 0: not known
      const auto * link = linkOf( route.device );
      return route.mtu != 0 ? route.mtu : link ? link->mtu : 0;
   }

   const DoctorFacts & facts_;
   std::vector<Finding> findings_;
   std::map<Address, std::vector<const VipGroup *>> vips_;
   std::map<std::pair<std::string, std::string>, std::vector<std::string>> ofVips_; // by problem and advice
};

} // namespace

std::vector<Finding> doctorFindings( const DoctorFacts & facts ) {
   return facts.groups.empty() ? std::vector<Finding>{} : Judge( facts ).all();
}

} // namespace hmctl
