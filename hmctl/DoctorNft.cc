#include "hmctl/DoctorRules.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace hmctl {

using Json = nlohmann::json;

namespace {

template<class T>
using Range = std::optional<std::pair<T, T>>;

// What `json` holds at `name`; null where it holds nothing of that name.
const Json & member( const Json & json, const char * name ) {
   static const Json none;
   if ( !json.is_object() ) {
      return none;
   }
   const auto found = json.find( name );
   return found == json.end() ? none : *found;
}

std::string textOf( const Json & json ) {
   return json.is_string() ? json.get<std::string>() : std::string{};
}

std::optional<std::uint32_t> numberOf( const Json & json ) {
   const bool fits = json.is_number_unsigned() && json.get<std::uint64_t>() <= 0xffffffffu;
   return fits ? std::optional( json.get<std::uint32_t>() ) : std::nullopt;
}

Range<std::uint32_t> marksOf( const Json & json ) {
   if ( const auto number = numberOf( json ) ) {
      return std::pair( *number, *number );
   }
   if ( const auto & range = member( json, "range" ); range.is_array() && range.size() == 2 ) {
      const auto first = numberOf( range[0] ), last = numberOf( range[1] );
      return first && last ? Range<std::uint32_t>( { *first, *last } ) : std::nullopt;
   }
   // How a mask of leading bits is written.
   const auto & prefix = member( json, "prefix" );
   const auto first = numberOf( member( prefix, "addr" ) ), length = numberOf( member( prefix, "len" ) );
   if ( !first || !length || *length == 0 || *length > 32 ) {
      return std::nullopt;
   }
   const auto rest = static_cast<std::uint32_t>( ( std::uint64_t{ 1 } << ( 32 - *length ) ) - 1 );
   return std::pair( *first & ~rest, *first | rest );
}

Range<Address> addressesOf( const Json & json ) {
   if ( const auto & range = member( json, "range" ); range.is_array() && range.size() == 2 ) {
      const auto first = Address::fromText( textOf( range[0] ) ),
                 last = Address::fromText( textOf( range[1] ) );
      return first && last ? Range<Address>( { *first, *last } ) : std::nullopt;
   }
   const auto & prefix = member( json, "prefix" );
   const auto address = Address::fromText( textOf( prefix.is_null() ? json : member( prefix, "addr" ) ) );
   const auto length = prefix.is_null() ? 128 : numberOf( member( prefix, "len" ) ).value_or( 128 );
   return address ? Range<Address>( addressRange( *address, length ) ) : std::nullopt;
}

Range<FilteredPacket::Protocol> protocolsOf( const Json & json ) {
   using Protocol = FilteredPacket::Protocol;
   const auto name = textOf( json );
   const auto protocol = name == "tcp"                           ? Protocol::tcp
                         : name == "icmp" || name == "ipv6-icmp" ? Protocol::icmp
                                                                 : Protocol::other;
   return std::pair( protocol, protocol );
}

Range<unsigned> icmpTypesOf( const Json & json ) {
   static const std::map<std::string, unsigned, std::less<>> names{ { "echo-request", 8 },
         { "nd-router-solicit", 133 }, { "nd-router-advert", 134 }, { "nd-neighbor-solicit", 135 },
         { "nd-neighbor-advert", 136 } };
   if ( const auto found = names.find( textOf( json ) ); found != names.end() ) {
      return std::pair( found->second, found->second );
   }
   // A name that is not known is that of another type.
   return json.is_string() ? Range<unsigned>( { 256, 256 } ) : marksOf( json );
}

} // namespace

/// Reads what `nft -j list ruleset` prints (libnftables-json(5)).
class FilterRules::NftReader {
 public:
   explicit NftReader( std::map<std::string, Chain> & chains ) : chains_( chains ) {}

   bool read( const Json & json ) {
      const auto & list = member( json, "nftables" );
      if ( !list.is_array() ) {
         return false;
      }
      for ( const auto & each : list ) {
         if ( const auto & set = member( each, "set" ); set.is_object() ) {
            sets_[tableOf( set ) + textOf( member( set, "name" ) )] = member( set, "elem" );
         } else if ( const auto & chain = member( each, "chain" ); chain.is_object() ) {
            const auto key = tableOf( chain ) + textOf( member( chain, "name" ) );
            const auto & priority = member( chain, "prio" );
            chains_[key] = { key, textOf( member( chain, "hook" ) ), textOf( member( chain, "type" ) ),
                  priority.is_number_integer() ? priority.get<int>() : 0 };
         }
      }
      for ( const auto & each : list ) {
         if ( const auto & rule = member( each, "rule" ); rule.is_object() ) {
            ruleAdd( rule );
         }
      }
      return true;
   }

 private:
   static std::string tableOf( const Json & json ) {
      return "nft " + textOf( member( json, "family" ) ) + " " + textOf( member( json, "table" ) ) + " ";
   }

   void ruleAdd( const Json & json ) {
      table_ = tableOf( json );
      const auto chain = chains_.find( table_ + textOf( member( json, "chain" ) ) );
      const auto family = textOf( member( json, "family" ) );
      const auto & expressions = member( json, "expr" );
      if ( chain == chains_.end() || !expressions.is_array() ||
            ( family != "ip" && family != "ip6" && family != "inet" ) ) {
         return;
      }
      Rule rule;
      rule.family = family == "ip" ? 4 : family == "ip6" ? 6 : 0;
      for ( const auto & expression : expressions ) {
         if ( expression.is_object() && expression.contains( "xt" ) ) {
            return; // of iptables, whose own program tells what is in it
         }
         if ( expression.is_object() && !expression.empty() ) {
            statement( rule, expression.begin().key(), expression.begin().value() );
         }
      }
      chain->second.rules.push_back( std::move( rule ) );
   }

   void statement( Rule & rule, const std::string & kind, const Json & content ) {
      if ( kind == "match" ) {
         match( rule, content );
      } else if ( kind == "limit" || kind == "quota" ) {
         rule.unknown = true;
      } else if ( kind == "accept" ) {
         rule.verdict = Verdict::accept;
      } else if ( kind == "drop" || kind == "reject" ) {
         rule.verdict = Verdict::drop;
      } else if ( kind == "return" ) {
         rule.verdict = Verdict::leave;
      } else if ( kind == "jump" || kind == "goto" ) {
         rule.verdict = Verdict::jump;
         rule.target = table_ + textOf( member( content, "target" ) );
      } else if ( kind == "queue" ) {
         const auto & number = member( content, "num" );
         const auto & range = member( number, "range" );
         if ( number.is_null() || number == 0 || ( range.is_array() && !range.empty() && range[0] == 0 ) ) {
            rule.verdict = Verdict::queue;
         }
         const auto & flags = member( content, "flags" );
         rule.bypass =
               flags == "bypass" || ( flags.is_array() && std::ranges::count( flags, "bypass" ) != 0 );
      }
   }

   void match( Rule & rule, const Json & json ) {
      const auto & left = member( json, "left" );
      const auto & masked = member( left, "&" );
      const bool hasMask = masked.is_array() && masked.size() == 2;
      const auto key = textOf( member( member( hasMask ? masked[0] : left, "meta" ), "key" ) );
      const auto & payload = member( left, "payload" );
      const auto protocol = textOf( member( payload, "protocol" ) ),
                 field = textOf( member( payload, "field" ) );
      if ( protocol == "ip" || protocol == "ip6" ) {
         rule.family = protocol == "ip" ? 4 : 6;
      }
      if ( key == "mark" ) {
         if ( auto test = testOf<std::uint32_t>( rule, json, marksOf ) ) {
            rule.marks.push_back( { *test, hasMask ? numberOf( masked[1] ).value_or( 0 ) : 0xffffffff } );
         }
      } else if ( key == "l4proto" || ( protocol == "ip" && field == "protocol" ) ||
                  ( protocol == "ip6" && field == "nexthdr" ) ) {
         if ( auto test = testOf<FilteredPacket::Protocol>( rule, json, protocolsOf ) ) {
            rule.protocols.push_back( *test );
         }
      } else if ( ( protocol == "ip" || protocol == "ip6" ) && field == "daddr" ) {
         if ( auto test = testOf<Address>( rule, json, addressesOf ) ) {
            rule.destinations.push_back( *test );
         }
      } else if ( ( protocol == "icmp" || protocol == "icmpv6" ) && field == "type" ) {
         rule.family = protocol == "icmp" ? 4 : 6;
         if ( auto test = testOf<unsigned>( rule, json, icmpTypesOf ) ) {
            rule.icmpTypes.push_back( *test );
         }
      } else {
         rule.unknown = true;
      }
   }

   // The right side: a value, the members of a set, or those of a named one.
   template<class T>
   std::optional<Test<T>> testOf( Rule & rule, const Json & json, Range<T> ( *rangeOf )( const Json & ) ) {
      const auto operation = textOf( member( json, "op" ) );
      const auto & right = member( json, "right" );
      Test<T> test;
      test.negated = operation == "!=";
      bool known = operation == "==" || operation == "in" || operation == "!=";
      const auto add = [&]( const Json & each ) {
         const auto & element = member( member( each, "elem" ), "val" ); // one with a counter or the like
         const auto range = rangeOf( element.is_null() ? each : element );
         known = known && range;
         if ( range ) {
            test.ranges.push_back( *range );
         }
      };
      if ( const auto & set = member( right, "set" ); set.is_array() ) {
         std::ranges::for_each( set, add );
      } else if ( const auto name = textOf( right ); name.starts_with( "@" ) ) {
         const auto found = sets_.find( table_ + name.substr( 1 ) );
         if ( found != sets_.end() && found->second.is_array() ) {
            std::ranges::for_each( found->second, add );
         }
      } else {
         add( right );
      }
      rule.unknown = rule.unknown || !known;
      return known ? std::optional( test ) : std::nullopt;
   }

   std::map<std::string, Chain> & chains_;
   std::map<std::string, Json> sets_; // their members, by table and name
   std::string table_;                // of the rule that is read
};

bool FilterRules::nftAdd( const std::string & json ) {
   return NftReader( chains_ ).read( Json::parse( json, nullptr, false ) );
}

} // namespace hmctl
