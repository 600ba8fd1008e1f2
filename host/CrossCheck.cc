#include "host/Document.h"

#include "platform/IpGenAddr.h"

#include <algorithm>
#include <map>
#include <unordered_set>

#include <fmt/format.h>

namespace host {

using namespace platform;

namespace {

constexpr const char * serverConfigPath = "healthMonitor/config/serverConfig";
constexpr const char * probeConfigPath = "healthMonitor/config/probeConfig";
// Each server address that is probed has a firewall mark of its own, and there are no more of them.
constexpr std::size_t maxServers = 16'383;
// A server counts in every group that it is a member of, once for each kind of check, and is written into the
// check engine's file under a name that holds the group's. The engine reads files of up to 16 MiB.
constexpr std::size_t maxHostBytes = 12 * 1024 * 1024;
constexpr std::size_t hostBytesBesidesName = 64;

const AttributeContent * attributeOf( const EntityContent & content, std::string_view name ) {
   const auto found = std::ranges::find_if(
         content.attributes, [&]( const auto & each ) { return each.attribute->name() == name; } );
   return found == content.attributes.end() ? nullptr : &*found;
}

const char * familyName( const IpGenAddr & address ) {
   return address.isIpv4() ? "IPv4" : "IPv6";
}

class CrossChecker {
 public:
   // The same group may be named by a path that ends at it or at any depth above.
   void section( const ChangeSection & section ) {
      const auto & place = section.place;
      const bool servers = place.root == serverConfigPath;
      if ( !servers && place.root != probeConfigPath ) {
         return;
      }
      const auto collection = servers ? "nhgConfig" : "nhgProbeConfig";
      const bool group = place.steps.size() == 1 && place.steps[0].attribute->name() == collection;
      if ( section.kind == ChangeSection::Kind::attribute ) {
         if ( group ) {
            groupAttribute( place.steps[0].key, section.attribute );
         } else if ( place.steps.empty() && place.attribute->name() == collection ) {
            groups( section.attribute );
         }
      } else if ( group ) {
         groupContent( place.steps[0].key, section.entity );
      } else if ( place.steps.empty() ) {
         if ( const auto * all = attributeOf( section.entity, collection ) ) {
            groups( *all );
         }
      }
   }

   std::vector<YamlError> finish() {
      for ( const auto & [name, vip] : vips_ ) {
         const auto servers = families_.find( name );
         if ( servers != families_.end() && servers->second.family() != vip.first.family() ) {
            errors_.push_back(
                  { vip.second, fmt::format( "{}/nhgProbeConfig/{}: vip: {} is {}, the servers of the "
                                             "group are {}: they cannot be probed through it",
                                      probeConfigPath, pathEscape( name ), vip.first, familyName( vip.first ),
                                      familyName( servers->second ) ) } );
         }
      }
      if ( servers_.size() > maxServers ) {
         errors_.push_back( { 0, fmt::format( "{}: names {} different servers, {} can be probed",
                                       serverConfigPath, servers_.size(), maxServers ) } );
      }
      if ( hostBytes_ > maxHostBytes ) {
         errors_.push_back(
               { 0, fmt::format( "{}: its groups have too many members together, or too long names",
                          serverConfigPath ) } );
      }
      return std::move( errors_ );
   }

 private:
   void groups( const AttributeContent & all ) {
      for ( std::size_t i = 0; i < all.keys.size(); ++i ) {
         groupContent( all.keys[i], all.entries[i] );
      }
   }
   void groupContent( const std::string & name, const EntityContent & content ) {
      for ( const auto & attribute : content.attributes ) {
         groupAttribute( name, attribute );
      }
   }
   void groupAttribute( const std::string & name, const AttributeContent & content ) {
      if ( content.attribute->name() == "vip" ) {
         if ( const auto vip = IpGenAddr::fromText( content.text ) ) {
            vips_[name] = { *vip, content.line };
         }
         return;
      }
      if ( content.attribute->name() != "serverIp" ) {
         return;
      }
      for ( const auto & key : content.keys ) {
         const auto server = IpGenAddr::fromText( key ).value_or( IpGenAddr{} );
         servers_.insert( server );
         hostBytes_ += 2 * ( name.size() + hostBytesBesidesName );
         const auto [first, fresh] = families_.emplace( name, server );
         if ( !fresh && first->second.family() != server.family() ) {
            errors_.push_back( { content.line,
                  fmt::format( "{}/nhgConfig/{}: serverIp: {} is {}, {} of the same group is {}: one "
                               "group is probed over one family",
                        serverConfigPath, pathEscape( name ), server, familyName( server ), first->second,
                        familyName( first->second ) ) } );
            return;
         }
      }
   }

   std::map<std::string, IpGenAddr> families_;                     // a server of each group
   std::map<std::string, std::pair<IpGenAddr, std::size_t>> vips_; // of each group, with its line
   std::unordered_set<IpGenAddr> servers_;
   std::size_t hostBytes_ = 0; // of the engine's names, over all groups and both kinds of check
   std::vector<YamlError> errors_;
};

} // namespace

std::vector<YamlError> crossCheck( const std::vector<ChangeSection> & sections ) {
   CrossChecker checker;
   for ( const auto & section : sections ) {
      checker.section( section );
   }
   return checker.finish();
}

} // namespace host
