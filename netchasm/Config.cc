#include "netchasm/Config.h"
#include "netchasm/FileBytes.h"
#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <functional>
#include <limits>
#include <map>
#include <new>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <unordered_set>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

namespace netchasm {

namespace {

using std::chrono::milliseconds;

/// A hostile file must not flood the log.
constexpr std::size_t maxNotices = 100;

/// Unwinds the reading of a file; never leaves loadConfig().
struct ConfigError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

/// Well-formed UTF-8 (RFC 3629) without NUL.
bool isText( std::string_view bytes ) {
   for ( std::size_t i = 0; i < bytes.size(); ) {
      const auto lead = static_cast< unsigned char >( bytes[i] );
      const std::size_t more = lead < 0x80   ? 0
                               : lead < 0xC2 ? 9
                               : lead < 0xE0 ? 1
                               : lead < 0xF0 ? 2
                               : lead < 0xF5 ? 3
                                             : 9;
      if ( lead == 0 || more == 9 || bytes.size() - i <= more )
         return false;
      for ( std::size_t k = 1; k <= more; ++k ) {
         if ( ( static_cast< unsigned char >( bytes[i + k] ) & 0xC0 ) != 0x80 )
            return false;
      }
      if ( more >= 2 ) { // overlong forms, surrogates, beyond U+10FFFF
         const auto second = static_cast< unsigned char >( bytes[i + 1] );
         if ( ( lead == 0xE0 && second < 0xA0 ) || ( lead == 0xED && second > 0x9F ) ||
               ( lead == 0xF0 && second < 0x90 ) || ( lead == 0xF4 && second > 0x8F ) )
            return false;
      }
      i += more + 1;
   }
   return true;
}

/// Reads a file without building its tree, and refuses one whose tree would not be used or not fit.
class YamlBounds : public YAML::EventHandler {
 public:
   void OnDocumentStart( const YAML::Mark & mark ) override {
      if ( ++documents_ > 1 )
         throw YAML::ParserException( mark, "more than one document" );
   }
   void OnDocumentEnd() override {}
   void OnNull( const YAML::Mark & mark, YAML::anchor_t ) override { count( mark ); }
   void OnAlias( const YAML::Mark & mark, YAML::anchor_t ) override { count( mark ); }
   void OnScalar(
         const YAML::Mark & mark, const std::string &, YAML::anchor_t, const std::string & ) override {
      count( mark );
   }
   void OnSequenceStart(
         const YAML::Mark & mark, const std::string &, YAML::anchor_t, YAML::EmitterStyle::value ) override {
      count( mark );
   }
   void OnSequenceEnd() override {}
   void OnMapStart(
         const YAML::Mark & mark, const std::string &, YAML::anchor_t, YAML::EmitterStyle::value ) override {
      count( mark );
   }
   void OnMapEnd() override {}

 private:
   void count( const YAML::Mark & mark ) {
      if ( ++nodes_ > maxConfigNodes )
         throw YAML::ParserException( mark, fmt::format( "more than {} values", maxConfigNodes ) );
   }
   std::size_t documents_ = 0;
   std::size_t nodes_ = 0;
};

/// One YAML file being read: every complaint names the file and line.
class YamlFile {
 public:
   YamlFile( std::string path, std::vector< std::string > & notices )
         : path_{ std::move( path ) },
           notices_{ notices } {}

   YAML::Node load() {
      std::string why;
      const auto bytes = fileBytes( path_, maxConfigBytes, why );
      if ( !bytes )
         throw ConfigError( fmt::format( "{}: {}", path_, why ) );
      if ( !isText( *bytes ) )
         throw ConfigError( fmt::format( "{}: not UTF-8 text", path_ ) );
      try {
         std::istringstream stream{ *bytes };
         YAML::Parser parser{ stream };
         YamlBounds bounds;
         while ( parser.HandleNextDocument( bounds ) ) {}
         return YAML::Load( *bytes );
      } catch ( const YAML::Exception & e ) {
         throw ConfigError( fmt::format( "{}:{}: not usable YAML: {}", path_, e.mark.line + 1, e.msg ) );
      }
   }

   [[noreturn]] void refuse( const YAML::Node & node, const std::string & why ) const {
      throw ConfigError( where( node ) + why );
   }
   void notice( const YAML::Node & node, const std::string & what ) {
      if ( notices_.size() < maxNotices )
         notices_.push_back( where( node ) + what );
   }

   /// The entries of a map with distinct scalar keys, each of which must be `known`; others are noticed and
   /// left out.
   std::map< std::string, YAML::Node > entries(
         const YAML::Node & map, const char * what, std::span< const char * const > known ) {
      if ( !map.IsMap() )
         refuse( map, fmt::format( "{} is not a map", what ) );
      std::map< std::string, YAML::Node > found;
      for ( const auto & entry : map ) {
         if ( !entry.first.IsScalar() )
            refuse( entry.first, fmt::format( "{} has a key that is not a text", what ) );
         const std::string key = entry.first.Scalar();
         if ( std::find( known.begin(), known.end(), key ) == known.end() )
            notice( entry.first, fmt::format( "\"{}\" is not known and has no effect", key ) );
         else if ( !found.emplace( key, entry.second ).second )
            refuse( entry.first, fmt::format( "\"{}\" is given twice", key ) );
      }
      return found;
   }

   std::string text( const YAML::Node & node, const char * key ) const {
      if ( node.IsNull() )
         return {};
      if ( !node.IsScalar() )
         refuse( node, fmt::format( "\"{}\" is not a text", key ) );
      return node.Scalar();
   }

   std::uint32_t number( const YAML::Node & node, const char * key, std::uint32_t max ) const {
      const std::string value = text( node, key );
      std::uint32_t parsed = 0;
      const auto [end, failure] = std::from_chars( value.data(), value.data() + value.size(), parsed );
      if ( value.empty() || failure != std::errc{} || end != value.data() + value.size() || parsed > max )
         refuse( node, fmt::format( "\"{}\" is not a whole number from 0 to {}", key, max ) );
      return parsed;
   }

 private:
   std::string where( const YAML::Node & node ) const {
      return fmt::format( "{}:{}: ", path_, node.Mark().line + 1 );
   }

   std::string path_;
   std::vector< std::string > & notices_;
};

constexpr auto maxU32 = std::numeric_limits< std::uint32_t >::max();

/// "http", "https" or "tcp", each with "-mark", HTTPS also with "-no-peer-check", in any order.
bool readCheckType( std::string_view type, HostGroup & group ) {
   const std::string_view protocol = type.substr( 0, type.find( '-' ) );
   if ( protocol == "http" )
      group.protocol = Protocol::http;
   else if ( protocol == "https" )
      group.protocol = Protocol::https;
   else if ( protocol == "tcp" )
      group.protocol = Protocol::tcp;
   else
      return false;
   type.remove_prefix( protocol.size() );
   const auto suffix = [&type]( std::string_view s ) {
      if ( !type.starts_with( s ) )
         return false;
      type.remove_prefix( s.size() );
      return true;
   };
   while ( !type.empty() ) {
      if ( !group.needsMark && suffix( "-mark" ) )
         group.needsMark = true;
      else if ( group.protocol == Protocol::https && group.verifyPeer && suffix( "-no-peer-check" ) )
         group.verifyPeer = false;
      else
         return false;
   }
   return true;
}

/// The decimal integer that the text begins with, white space and sign allowed, as std::stoi reads it; what
/// follows it is ignored. Nothing when there is none; 0 when it is no port.
std::optional< std::uint16_t > readPort( const std::string & text ) {
   try {
      const int port = std::stoi( text );
      return port >= 1 && port <= 65535 ? static_cast< std::uint16_t >( port ) : std::uint16_t{ 0 };
   } catch ( const std::out_of_range & ) {
      return std::uint16_t{ 0 };
   } catch ( const std::invalid_argument & ) {
      return std::nullopt;
   }
}

/// The request target: whatever the path holds, the request stays one line (RFC 3986, section 2.1).
std::string requestTarget( const std::string & path ) {
   std::string target = path.starts_with( '/' ) ? "" : "/";
   for ( const char c : path ) {
      const auto byte = static_cast< unsigned char >( c );
      if ( byte <= 0x20 || byte >= 0x7f )
         target += fmt::format( "%{:02X}", byte );
      else
         target += c;
   }
   return target;
}

Config::Group readGroup( YamlFile & file, const YAML::Node & node, Duration connectTimeout,
      const std::string & masterCa, const std::string & masterCert ) {
   static constexpr const char * known[] = { "name", "ttl", "source-address", "timeout", "check-retry-delay",
         "check-retries", "check-type", "dns-type", "check-info", "check-port", "dual-stack-mode", "ca-file",
         "cert-file", "host" };
   const auto entries = file.entries( node, "a host group", known );
   const auto find = [&]( const char * key ) -> const YAML::Node * {
      const auto it = entries.find( key );
      return it == entries.end() ? nullptr : &it->second;
   };
   const auto required = [&]( const char * key ) -> const YAML::Node & {
      const YAML::Node * found = find( key );
      if ( !found || found->IsNull() )
         file.refuse( node, fmt::format( "a host group has no \"{}\"", key ) );
      return *found;
   };
   const auto text = [&]( const char * key ) {
      const YAML::Node * found = find( key );
      return found ? file.text( *found, key ) : std::string{};
   };

   Config::Group group;
   HostGroup & s = group.settings;
   s.name = file.text( required( "name" ), "name" );
   if ( s.name.empty() )
      file.refuse( node, "a host group's \"name\" is empty" );
   const YAML::Node & type = required( "check-type" );
   if ( !readCheckType( file.text( type, "check-type" ), s ) )
      file.refuse( type, fmt::format( "\"{}\" is not a check type", type.Scalar() ) );

   const YAML::Node & ttl = required( "ttl" );
   s.interval = milliseconds{ file.number( ttl, "ttl", maxU32 ) };
   if ( s.interval < minInterval ) {
      file.notice(
            ttl, fmt::format( "group \"{}\": interval raised to {} ms", s.name, minInterval.count() ) );
      s.interval = minInterval;
   }
   const auto duration = [&]( const char * key, milliseconds unset ) {
      const YAML::Node * found = find( key );
      const milliseconds value{ found ? file.number( *found, key, maxU32 ) : 0 };
      return value.count() == 0 ? unset : value;
   };
   s.timeout = duration( "timeout", defaultTimeout );
   s.retryDelay = duration( "check-retry-delay", milliseconds{ 0 } );
   s.connectTimeout = std::min( connectTimeout, s.timeout );
   if ( const YAML::Node * retries = find( "check-retries" ) )
      s.retries = static_cast< std::uint16_t >( file.number( *retries, "check-retries", 65535 ) );
   if ( const YAML::Node * dns = find( "dns-type" ); dns && file.text( *dns, "dns-type" ) != "static" )
      file.refuse( *dns, "\"dns-type\" is not \"static\"" );
   if ( const YAML::Node * mode = find( "dual-stack-mode" ) ) {
      const std::string value = file.text( *mode, "dual-stack-mode" );
      if ( value == "ipv4-only" )
         s.dualStack = DualStack::ipv4Only;
      else if ( value == "ipv6-only" )
         s.dualStack = DualStack::ipv6Only;
      else if ( !value.empty() && value != "both" )
         file.refuse( *mode, "\"dual-stack-mode\" is neither \"ipv4-only\", \"ipv6-only\" nor \"both\"" );
   }
   if ( const YAML::Node * source = find( "source-address" ) ) {
      const std::string value = file.text( *source, "source-address" );
      if ( !value.empty() && !s.source.set( value ) )
         file.refuse( *source, fmt::format( "\"{}\" is not an address", value ) );
   }
   s.port = s.protocol == Protocol::https ? 443 : 80;
   const std::string portText = text( "check-port" );
   if ( !portText.empty() ) {
      const auto port = readPort( portText );
      if ( !port )
         file.refuse( *find( "check-port" ), fmt::format( "\"{}\" is not a port", portText ) );
      s.port = *port;
   } else if ( s.protocol == Protocol::tcp ) {
      s.port = 0;
   }
   if ( s.port == 0 )
      file.notice( node, fmt::format( "group \"{}\": no port from 1 to 65535, its checks fail", s.name ) );
   if ( s.protocol == Protocol::https ) {
      s.caFile = text( "ca-file" );
      s.certFile = text( "cert-file" );
      if ( s.caFile.empty() )
         s.caFile = masterCa;
      if ( s.certFile.empty() )
         s.certFile = masterCert;
   }
   if ( s.protocol != Protocol::tcp ) {
      s.requestHead = fmt::format( "GET {} HTTP/1.1\r\nHost: ", requestTarget( text( "check-info" ) ) );
      s.requestTail = "\r\nUser-Agent: health-monitor\r\nAccept: */*\r\nConnection: close\r\n\r\n";
   }

   if ( const YAML::Node * hosts = find( "host" ); hosts && !hosts->IsNull() ) {
      if ( !hosts->IsSequence() )
         file.refuse( *hosts, "\"host\" is not a sequence" );
      std::unordered_set< std::string > seen;
      for ( const auto & host : *hosts ) {
         const std::string name = file.text( host, "host" );
         if ( name.empty() )
            file.refuse( host, "a host's name is empty" );
         if ( !seen.insert( name ).second )
            file.refuse( host, fmt::format( "host \"{}\" is given twice in group \"{}\"", name, s.name ) );
         group.hosts.push_back( name );
         if ( group.hosts.size() > maxHosts )
            file.refuse( host, fmt::format( "more than {} hosts", maxHosts ) );
      }
   }
   return group;
}

Config readConfig( const std::string & masterPath ) {
   Config config;
   YamlFile master{ masterPath, config.notices };
   const YAML::Node root = master.load();
   static constexpr const char * known[] = { "threads.max", "connectiontimeout", "config.load-file",
         "db.type", "log.type", "socket.path", "ca-file", "cert-file" };
   const auto entries = master.entries( root, "the master configuration", known );
   const auto text = [&]( const char * key ) {
      const auto it = entries.find( key );
      return it == entries.end() ? std::string{} : master.text( it->second, key );
   };
   const auto number = [&]( const char * key, std::uint32_t max, std::uint32_t unset ) {
      const auto it = entries.find( key );
      const std::uint32_t value = it == entries.end() ? 0 : master.number( it->second, key, max );
      return value == 0 ? unset : value;
   };
   config.threads = number( "threads.max", 65535, config.threads );
   const milliseconds connectTimeout{ number( "connectiontimeout", maxU32, defaultConnectTimeout.count() ) };
   for ( const char * key : { "db.type", "log.type", "socket.path" } )
      static_cast< void >( text( key ) );

   const std::string hostPath = text( "config.load-file" );
   if ( hostPath.empty() )
      return config;
   YamlFile hostFile{ hostPath, config.notices };
   const YAML::Node groups = hostFile.load();
   if ( groups.IsNull() )
      return config;
   if ( !groups.IsSequence() )
      hostFile.refuse( groups, "the host configuration is not a sequence of host groups" );
   std::unordered_set< std::string > names;
   std::size_t hosts = 0;
   for ( const auto & node : groups ) {
      Config::Group group =
            readGroup( hostFile, node, connectTimeout, text( "ca-file" ), text( "cert-file" ) );
      if ( !names.insert( group.settings.name ).second )
         hostFile.refuse( node, fmt::format( "host group \"{}\" is given twice", group.settings.name ) );
      hosts += group.hosts.size();
      if ( hosts > maxHosts )
         hostFile.refuse( node, fmt::format( "more than {} hosts", maxHosts ) );
      config.groups.push_back( std::move( group ) );
   }
   return config;
}

} // namespace

bool HostGroup::takes( HMIPAddress::Family family ) const {
   switch ( dualStack ) {
   case DualStack::ipv4Only:
      return family == HMIPAddress::Family::ipv4;
   case DualStack::ipv6Only:
      return family == HMIPAddress::Family::ipv6;
   case DualStack::both:
      return family != HMIPAddress::Family::none;
   }
   return false;
}

std::string HostGroup::authority( const HMIPAddress & address ) const {
   std::string value = address.toString();
   if ( address.family() == HMIPAddress::Family::ipv6 )
      value = '[' + value + ']';
   if ( port != ( protocol == Protocol::https ? 443 : 80 ) )
      value += ':' + std::to_string( port );
   return value;
}

std::optional< Config > loadConfig( const std::string & masterPath, std::string & error ) {
   try {
      return readConfig( masterPath );
   } catch ( const ConfigError & e ) {
      error = e.what();
   } catch ( const YAML::Exception & e ) {
      error = fmt::format( "{}: {}", masterPath, e.what() );
   } catch ( const std::bad_alloc & ) {
      error = masterPath + ": no memory for the configuration";
   }
   return std::nullopt;
}

} // namespace netchasm
