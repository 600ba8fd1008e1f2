#include "hmctl/DoctorRules.h"

#include <algorithm>
#include <arpa/inet.h>

namespace hmctl {

namespace {

// The kernel refuses deeper ones.
constexpr int maxJumps = 16;

} // namespace

std::optional<Address> Address::fromText( const std::string & text ) {
   Address address;
   if ( inet_pton( AF_INET, text.c_str(), address.bytes.data() ) == 1 ) {
      address.family = 4;
   } else if ( inet_pton( AF_INET6, text.c_str(), address.bytes.data() ) == 1 ) {
      address.family = 6;
   } else {
      return std::nullopt;
   }
   return address;
}

std::pair<Address, Address> addressRange( const Address & address, unsigned length ) {
   auto first = address, last = address;
   for ( unsigned bit = length; bit < ( address.family == 4 ? 32u : 128u ); ++bit ) {
      const auto mask = static_cast<std::uint8_t>( 0x80u >> ( bit % 8 ) );
      first.bytes[bit / 8] &= static_cast<std::uint8_t>( ~mask );
      last.bytes[bit / 8] |= mask;
   }
   return { first, last };
}

std::string Address::text() const {
   char buffer[INET6_ADDRSTRLEN] = "";
   if ( !empty() ) {
      inet_ntop( family == 4 ? AF_INET : AF_INET6, bytes.data(), buffer, sizeof buffer );
   }
   return buffer;
}

bool Address::unspecified() const {
   return std::ranges::all_of( bytes, []( auto byte ) { return byte == 0; } );
}

template<class T>
bool FilterRules::Test<T>::met( const T & value ) const {
   const bool within = std::ranges::any_of(
         ranges, [&value]( const auto & range ) { return range.first <= value && value <= range.second; } );
   return within != negated;
}

bool FilterRules::meets( const Rule & rule, const FilteredPacket & packet ) {
   using Protocol = FilteredPacket::Protocol;
   return ( rule.family == 0 || rule.family == packet.family ) &&
          std::ranges::all_of(
                rule.destinations, [&]( const auto & test ) { return test.met( packet.destination ); } ) &&
          std::ranges::all_of(
                rule.protocols, [&]( const auto & test ) { return test.met( packet.protocol ); } ) &&
          std::ranges::all_of(
                rule.marks, [&]( const auto & each ) { return each.test.met( packet.mark & each.mask ); } ) &&
          std::ranges::all_of( rule.icmpTypes, [&]( const auto & test ) {
             return packet.protocol == Protocol::icmp && test.met( packet.icmpType );
          } );
}

FilterRules::Outcome FilterRules::walk(
      const Chain & chain, const FilteredPacket & packet, int depth ) const {
   for ( const auto & rule : chain.rules ) {
      if ( !meets( rule, packet ) ) {
         continue;
      }
      switch ( rule.verdict ) {
      case Verdict::next:
         break;
      case Verdict::queue:
         return { Verdict::queue, rule.bypass, chain.name };
      case Verdict::jump: {
         const auto target = chains_.find( rule.target );
         if ( target == chains_.end() || depth == maxJumps ) {
            break;
         }
         if ( auto outcome = walk( target->second, packet, depth + 1 ); outcome.verdict != Verdict::next ) {
            return outcome;
         }
         break;
      }
      case Verdict::accept:
      case Verdict::drop:
         if ( !rule.unknown ) {
            return { rule.verdict };
         }
         break;
      case Verdict::leave:
         if ( !rule.unknown ) {
            return {};
         }
         break;
      }
   }
   return {};
}

std::vector<FilterRules::Queued> FilterRules::queued( const FilteredPacket & packet ) const {
   std::vector<Queued> all;
   for ( const auto & [key, chain] : chains_ ) {
      if ( chain.hook.empty() ) {
         continue;
      }
      if ( auto outcome = walk( chain, packet, 0 ); outcome.verdict == Verdict::queue ) {
         all.push_back( { chain.hook, chain.type, chain.priority, outcome.bypass, outcome.chain } );
      }
   }
   return all;
}

} // namespace hmctl
