#include "hmctl/DoctorRules.h"
#include "hmctl/Words.h"

#include <algorithm>
#include <charconv>
#include <sstream>

namespace hmctl {

namespace {

std::optional<std::uint32_t> numberOf( std::string_view text ) {
   const bool hexadecimal = text.starts_with( "0x" );
   text.remove_prefix( hexadecimal ? 2 : 0 );
   std::uint32_t number = 0;
   const auto [end, error] =
         std::from_chars( text.data(), text.data() + text.size(), number, hexadecimal ? 16 : 10 );
   return error == std::errc() && end == text.data() + text.size() ? std::optional( number ) : std::nullopt;
}

FilteredPacket::Protocol protocolOf( const std::string & name ) {
   using Protocol = FilteredPacket::Protocol;
   return name == "tcp"                                               ? Protocol::tcp
          : name == "icmp" || name == "icmpv6" || name == "ipv6-icmp" ? Protocol::icmp
                                                                      : Protocol::other;
}

} // namespace

/// Reads one rule of what iptables-nft-save prints (iptables(8), iptables-extensions(8)).
class FilterRules::IptablesReader {
 public:
   IptablesReader( std::string table, int family ) : table_( std::move( table ) ) { rule_.family = family; }

   /// The words behind "-A CHAIN".
   Rule read( const std::vector<std::string> & words ) {
      for ( std::size_t i = 0; i < words.size(); ++i ) {
         const auto & word = words[i];
         const std::string value = i + 1 < words.size() ? words[i + 1] : std::string{};
         if ( word == "!" ) {
            negated_ = true;
            continue;
         }
         if ( word == "-m" ) {
            module_ = value;
         } else if ( word == "-j" || word == "-g" ) {
            target( { words.begin() + static_cast<std::ptrdiff_t>( i ) + 1, words.end() } );
            break;
         } else if ( word.starts_with( "-" ) ) {
            rule_.unknown = !option( word, value ) || rule_.unknown;
         }
         negated_ = false;
      }
      return std::move( rule_ );
   }

 private:
   // False when it says something that is not known here.
   bool option( const std::string & name, const std::string & value ) {
      if ( name == "-p" ) {
         rule_.protocols.push_back( test( protocolOf( value ), protocolOf( value ) ) );
         return true;
      }
      if ( name == "-d" ) {
         return destination( value );
      }
      if ( name == "--mark" ) { // of a connection elsewhere
         return module_ == "mark" && mark( value );
      }
      if ( name == "--icmp-type" || name == "--icmpv6-type" ) {
         return icmpType( value );
      }
      return name == "--comment";
   }

   bool destination( const std::string & value ) {
      const auto slash = value.find( '/' );
      const auto address = Address::fromText( value.substr( 0, slash ) );
      const auto length = slash == value.npos ? std::optional( 128u ) : numberOf( value.substr( slash + 1 ) );
      if ( !address || !length ) {
         return false;
      }
      const auto [first, last] = addressRange( *address, *length );
      rule_.destinations.push_back( test( first, last ) );
      return true;
   }

   bool mark( const std::string & value ) {
      const auto slash = value.find( '/' );
      const auto wanted = numberOf( value.substr( 0, slash ) );
      const auto mask =
            slash == value.npos ? std::optional( 0xffffffffu ) : numberOf( value.substr( slash + 1 ) );
      if ( !wanted || !mask ) {
         return false;
      }
      rule_.marks.push_back( { test( *wanted, *wanted ), *mask } );
      return true;
   }

   // A number with or without a code behind it; the echo request is 8 or, for IPv6, 128.
   bool icmpType( const std::string & value ) {
      const auto number = numberOf( value.substr( 0, value.find( '/' ) ) );
      if ( !number ) {
         return false;
      }
      const unsigned type = rule_.family == 6 && *number == 128 ? 8 : *number;
      rule_.icmpTypes.push_back( test( type, type ) );
      return true;
   }

   template<class T>
   Test<T> test( const T & first, const T & last ) const {
      return { { { first, last } }, negated_ };
   }

   void target( const std::vector<std::string> & words ) {
      const std::string name = words.empty() ? std::string{} : words.front();
      const auto valueOf = [&words]( const char * option ) {
         const auto found = std::ranges::find( words, option );
         return found == words.end() || found + 1 == words.end() ? std::string{} : *( found + 1 );
      };
      if ( name == "ACCEPT" ) {
         rule_.verdict = Verdict::accept;
      } else if ( name == "DROP" || name == "REJECT" ) {
         rule_.verdict = Verdict::drop;
      } else if ( name == "RETURN" ) {
         rule_.verdict = Verdict::leave;
      } else if ( name == "NFQUEUE" ) {
         const auto number = valueOf( "--queue-num" ), range = valueOf( "--queue-balance" );
         if ( number == "0" || range.starts_with( "0:" ) || ( number.empty() && range.empty() ) ) {
            rule_.verdict = Verdict::queue;
         }
         rule_.bypass = std::ranges::find( words, "--queue-bypass" ) != words.end();
      } else {
         rule_.verdict = Verdict::jump; // to a chain, or else nowhere
         rule_.target = table_ + name;
      }
   }

   const std::string table_;
   Rule rule_{};
   std::string module_; // whose options follow
   bool negated_ = false;
};

void FilterRules::iptablesAdd( const std::string & text, int family ) {
   static const std::map<std::string, int, std::less<>> priorities{
         { "raw", -300 }, { "mangle", -150 }, { "nat", -100 }, { "filter", 0 }, { "security", 50 } };
   std::istringstream lines( text );
   std::string table, key;
   for ( std::string line; std::getline( lines, line ); ) {
      if ( line.starts_with( "*" ) ) {
         table = line.substr( 1 );
         key = ( family == 4 ? "iptables " : "ip6tables " ) + table + " ";
      } else if ( line.starts_with( ":" ) ) {
         const auto name = line.substr( 1, line.find( ' ' ) - 1 );
         Chain & chain = chains_[key + name];
         chain.name = key + name;
         if ( line.find( " - " ) == line.npos ) { // a chain of the user's has no policy
            chain.hook = name;
            std::ranges::transform( chain.hook, chain.hook.begin(),
                  []( unsigned char c ) { return static_cast<char>( std::tolower( c ) ); } );
            const auto found = priorities.find( table );
            chain.priority = found == priorities.end() ? 0 : found->second;
            chain.type = table == "nat" ? "nat" : table == "mangle" && name == "OUTPUT" ? "route" : "filter";
         }
      } else if ( line.starts_with( "-A " ) ) {
         std::vector<std::string> words;
         for ( const auto & stage : split( line ).stages ) {
            for ( const auto & word : stage ) {
               words.push_back( word.text );
            }
         }
         if ( const auto chain = chains_.find( key + ( words.size() > 1 ? words[1] : "" ) );
               chain != chains_.end() ) {
            chain->second.rules.push_back(
                  IptablesReader( key, family ).read( { words.begin() + 2, words.end() } ) );
         }
      }
   }
}

} // namespace hmctl
