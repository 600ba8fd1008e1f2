#include "host/CrossCheck.h"

#include "platform/state/Ssl.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace host {

using namespace platform;
using namespace HmState;

namespace {

constexpr const char * serverConfigPath = "healthMonitor/config/serverConfig";
constexpr const char * probeConfigPath = "healthMonitor/config/probeConfig";
// Each server address that is probed has a firewall mark of its own, and there are no more of them.
constexpr std::size_t maxServers = 16'383;
// What has a URL is written into the check engine's file: a block for each group and kind of check, and in it
// the name of each server, which holds the group's. The engine refuses a file of more than 16 MiB or
// 1,048,576 values (keys, values, maps and sequences), so that less is accepted here.
constexpr std::size_t maxEngineBytes = 15 * 1024 * 1024;
constexpr std::size_t maxEngineValues = 1'000'000;
constexpr std::size_t valuesBesidesGroups = 1; // the sequence of them
// 13 settings, the map that holds them, and the sequence of servers with its key.
constexpr std::size_t valuesAGroup = 13 * 2 + 1 + 2;
constexpr std::size_t valuesAServer = 1;
// The longest of every setting with its key, indentation and quotes come to some 340 bytes, without the
// group's name, the URL and the names of files.
constexpr std::size_t bytesAGroup = 352;
// Indentation, quotes, kind of check and address come to 54 bytes.
constexpr std::size_t bytesAServer = 64;
// It reads no more hosts than that either, which therefore needs no count of its own.
static_assert( maxEngineBytes / bytesAServer < std::size_t{ 1 } << 18 );
// Trusted roots and client certificate, of at most so many bytes each; a byte beyond ASCII may become two.
constexpr std::size_t bytesOfFiles = std::size_t{ 2 } * 2 * Mgmt::Security::Ssl::maxFilePathBytes;

// At most what a text takes in YAML without its quotes: control bytes as \xNN, and what is escaped beyond
// ASCII (U+0080 to U+00A0 as \xNN, U+FEFF as \uFEFF) in two bytes for each of its own.
std::size_t yamlBytes( std::string_view text ) {
   std::size_t bytes = 0;
   for ( const char c : text ) {
      const auto byte = static_cast<unsigned char>( c );
      const bool plain = byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\';
      bytes += plain ? 1 : byte < 0x20 || byte == 0x7f ? 4 : 2;
   }
   return bytes;
}

const AttributeContent noContent{};

const AttributeContent * attributeOf( const EntityContent & content, const AttributeInfo & attribute ) {
   const auto found = std::ranges::find_if(
         content.attributes, [&]( const auto & each ) { return each.attribute == &attribute; } );
   return found == content.attributes.end() ? nullptr : &*found;
}

// What a section says of all entries of a collection of its root; null when it does not speak of them all.
const AttributeContent * allOf( const ChangeSection & section, const AttributeInfo & collection ) {
   if ( !section.place.steps.empty() ) {
      return nullptr;
   }
   if ( section.kind == ChangeSection::Kind::entity ) {
      const auto * said = attributeOf( section.entity, collection );
      return said ? said : &noContent;
   }
   const bool named =
         section.kind == ChangeSection::Kind::attribute && section.place.attribute == &collection;
   return named ? &section.attribute : nullptr;
}

const char * familyName( const IpGenAddr & address ) {
   return address.isIpv4() ? "IPv4" : "IPv6";
}

} // namespace

CrossCheck::CrossCheck( const Ptr<EntityManager> & entityManager, Ptr<CheckedChange> change )
      : serverConfig_( dynamicPtrCast<ServerConfig>( entityManager->entity( serverConfigPath ) ) ),
        probeConfig_( dynamicPtrCast<ProbeConfig>( entityManager->entity( probeConfigPath ) ) ),
        change_( std::move( change ) ),
        errors_( change_->source ) {}

bool CrossCheck::step() {
   switch ( phase_ ) {
   case Phase::change:
      changeStep();
      return true;
   case Phase::presentServers:
      presentServersStep();
      return true;
   case Phase::presentSettings:
      presentSettingsStep();
      return true;
   case Phase::groups:
      groupStep();
      return true;
   case Phase::addresses:
      addressesStep();
      return true;
   case Phase::release:
      break;
   }
   // One at a time as well: there may be hundreds of thousands.
   if ( !groups_.empty() ) {
      groups_.erase( groups_.begin() );
   }
   return !groups_.empty();
}

// What goes leaves nothing behind that could not be probed before: removals need no check.
void CrossCheck::changeStep() {
   if ( section_ == change_->sections.size() ) {
      if ( !concerned_ || !serverConfig_ || !probeConfig_ ) {
         phase_ = Phase::release;
         return;
      }
      phase_ = Phase::presentServers;
      presentServers_ = serverConfig_->nhgConfigItems().begin();
      presentSettings_ = probeConfig_->nhgProbeConfigItems().begin();
      return;
   }
   const auto & section = change_->sections[section_];
   const auto & place = section.place;
   const bool ofServers = place.root == serverConfigPath;
   if ( section.kind == ChangeSection::Kind::remove || !( ofServers || place.root == probeConfigPath ) ) {
      ++section_;
      return;
   }
   const AttributeInfo & collection =
         ofServers ? ServerConfig::nhgConfigAttr().info : ProbeConfig::nhgProbeConfigAttr().info;
   const AttributeInfo & globalUrl = ProbeConfig::globalUrlAttr();
   if ( const auto * all = allOf( section, collection ) ) {
      if ( entry_ < all->keys.size() ) {
         groupSaid( ofServers, all->keys[entry_], all->entries[entry_] );
         ++entry_;
         return;
      }
      entry_ = 0;
      concerned_ = true;
      ( ofServers ? serversReplaced_ : settingsReplaced_ ) = true;
      if ( !ofServers && section.kind == ChangeSection::Kind::entity ) {
         const auto * said = attributeOf( section.entity, globalUrl );
         globalUrlBytes_ = said ? yamlBytes( said->text ) : 0;
      }
   } else if ( place.steps.empty() ) {
      if ( section.kind == ChangeSection::Kind::attribute && place.attribute == &globalUrl ) {
         concerned_ = true;
         globalUrlBytes_ = yamlBytes( section.attribute.text );
      }
   } else if ( place.steps.size() == 1 && place.steps[0].attribute == &collection ) {
      const auto & name = place.steps[0].key;
      if ( section.kind == ChangeSection::Kind::entity ) {
         groupSaid( ofServers, name, section.entity );
      } else if ( section.kind == ChangeSection::Kind::attribute ) {
         settingSaid( groups_[name], section.attribute );
      } else if ( ofServers ) {
         concerned_ = true;
         groups_[name].added = IpGenAddr::fromText( section.key ).value_or( IpGenAddr{} );
      }
   }
   ++section_;
}

void CrossCheck::groupSaid( bool ofServers, const std::string & name, const EntityContent & content ) {
   Group & group = groups_[name];
   concerned_ = true;
   if ( ofServers ) {
      group.servers = &noContent;
   } else {
      group.httpUrlBytes = 0;
      group.tcp = group.profile = false;
      group.vip = IpGenAddr{};
   }
   for ( const auto & each : content.attributes ) {
      settingSaid( group, each );
   }
}

void CrossCheck::settingSaid( Group & group, const AttributeContent & content ) {
   if ( content.attribute == &NexthopGroupConfig::serverIpAttr().info ) {
      group.servers = &content;
   } else if ( content.attribute == &NexthopGroupProbeConfig::httpUrlAttr().info ) {
      group.httpUrlBytes = yamlBytes( content.text );
   } else if ( content.attribute == &NexthopGroupProbeConfig::tcpUrlAttr().info ) {
      group.tcp = !content.text.empty();
   } else if ( content.attribute == &NexthopGroupProbeConfig::sslProfileAttr().info ) {
      group.profile = !content.text.empty();
   } else if ( content.attribute == &NexthopGroupProbeConfig::vipAttr().info ) {
      group.vip = IpGenAddr::fromText( content.text ).value_or( IpGenAddr{} );
      group.vipLine = content.line;
   } else {
      return;
   }
   concerned_ = true;
}

void CrossCheck::presentServersStep() {
   if ( serversReplaced_ || presentServers_ == std::default_sentinel ) {
      phase_ = Phase::presentSettings;
      return;
   }
   Group & group = groups_[presentServers_->key];
   if ( !group.servers ) {
      group.present = presentServers_->value;
   }
   ++presentServers_;
}

void CrossCheck::presentSettingsStep() {
   if ( settingsReplaced_ || presentSettings_ == std::default_sentinel ) {
      globalUrlBytes_ = globalUrlBytes_.value_or( yamlBytes( probeConfig_->globalUrl() ) );
      phase_ = Phase::groups;
      group_ = groups_.begin();
      return;
   }
   Group & group = groups_[presentSettings_->key];
   const auto & settings = *presentSettings_->value;
   group.httpUrlBytes = group.httpUrlBytes.value_or( yamlBytes( settings.httpUrl() ) );
   group.tcp = group.tcp.value_or( !settings.tcpUrl().empty() );
   group.profile = group.profile.value_or( !settings.sslProfile().empty() );
   group.vip = group.vip.value_or( settings.vip() );
   ++presentSettings_;
}

// The servers of the group one after the other: those of the change, or those that stand and the one that is
// added.
std::optional<IpGenAddr> CrossCheck::serverNext( const Group & group ) {
   if ( group.servers ) {
      return member_ == group.servers->keys.size() ? std::nullopt
                                                   : IpGenAddr::fromText( group.servers->keys[member_++] );
   }
   if ( group.present ) {
      for ( const auto & item : group.present->serverIpItems().after( after_ ) ) {
         return after_ = item.key;
      }
   }
   return group.added.empty() || std::exchange( addedGiven_, true ) ? std::nullopt
                                                                    : std::optional( group.added );
}

// One server of a group that the change says, or the end of a group. Of servers that stand the first speaks
// for all.
void CrossCheck::groupStep() {
   if ( group_ == groups_.end() ) {
      groupsEnd();
      return;
   }
   const auto & [name, group] = *group_;
   if ( group.servers ) {
      if ( const auto server = serverNext( group ); server && ofOneFamily( name, group, *server ) ) {
         return;
      }
   } else {
      const bool stands = group.present && group.present->serverIpCount() != 0;
      first_ = stands ? group.present->serverIpItems().begin()->key : group.added;
      if ( !group.added.empty() ) {
         (void)ofOneFamily( name, group, group.added );
      }
   }
   groupEnd( name, group );
   groupNext();
   first_ = {};
}

bool CrossCheck::ofOneFamily( const std::string & name, const Group & group, const IpGenAddr & server ) {
   if ( first_.empty() ) {
      first_ = server;
   }
   if ( server.family() == first_.family() ) {
      return true;
   }
   groupsAtFault_.insert( name );
   errors_.add( group.servers ? group.servers->line : 0,
         fmt::format( "{}/nhgConfig/{}", serverConfigPath, pathEscape( name ) ), "serverIp",
         fmt::format( "{} is {}, {} of the same group is {}: one group is probed over one family", server,
               familyName( server ), first_, familyName( first_ ) ) );
   return false;
}

void CrossCheck::groupNext() {
   ++group_;
   member_ = 0;
   after_ = {};
   addedGiven_ = false;
}

void CrossCheck::groupEnd( const std::string & name, const Group & group ) {
   const auto vip = group.vip.value_or( IpGenAddr{} );
   if ( !vip.empty() && !first_.empty() && vip.family() != first_.family() ) {
      groupsAtFault_.insert( name );
      errors_.add( group.vipLine != 0 ? group.vipLine
                   : group.servers    ? group.servers->line
                                      : 0,
            fmt::format( "{}/nhgProbeConfig/{}", probeConfigPath, pathEscape( name ) ), "vip",
            fmt::format( "{} is {}, the servers of the group are {}: they cannot be probed through it", vip,
                  familyName( vip ), familyName( first_ ) ) );
   }
   const auto count = group.servers ? group.servers->keys.size()
                                    : ( group.present ? group.present->serverIpCount() : 0 ) +
                                            ( group.added.empty() ? 0 : 1 );
   const auto urlBytes = httpUrlBytes( group );
   const std::size_t checks = ( urlBytes != 0 ? 1 : 0 ) + ( hasTcp( group ) ? 1 : 0 );
   if ( count == 0 || checks == 0 ) {
      return; // it is not written
   }
   const auto nameBytes = yamlBytes( name );
   const auto fileBytes = group.profile.value_or( false ) ? bytesOfFiles : 0;
   members_ += count;
   engineValues_ += checks * ( valuesAGroup + count * valuesAServer );
   engineBytes_ +=
         urlBytes + checks * ( bytesAGroup + nameBytes + fileBytes + count * ( bytesAServer + nameBytes ) );
}

bool CrossCheck::hasTcp( const Group & group ) {
   return group.tcp.value_or( false );
}

// A group without a URL of its own is checked by the global one.
std::size_t CrossCheck::httpUrlBytes( const Group & group ) const {
   const auto own = group.httpUrlBytes.value_or( 0 );
   return own == 0 && !hasTcp( group ) ? *globalUrlBytes_ : own;
}

void CrossCheck::groupsEnd() {
   const auto bound = [this]( const char * ofWhat, std::size_t takes, std::size_t most ) {
      if ( takes > most ) {
         errors_.add( 0, serverConfigPath, {},
               fmt::format( "the groups that have a URL take {} {} of the check engine's configuration, with "
                            "their names, settings and members; at most {} are accepted",
                     takes, ofWhat, most ) );
      }
      return takes <= most;
   };
   const bool bytesFit = bound( "bytes", engineBytes_, maxEngineBytes );
   const bool valuesFit = bound( "values", valuesBesidesGroups + engineValues_, maxEngineValues );
   if ( !bytesFit || !valuesFit ) {
      phase_ = Phase::release;
      return;
   }
   if ( members_ > maxServers ) {
      // Only now it takes a look at every server, for one may be a member of many groups.
      phase_ = Phase::addresses;
      group_ = groups_.begin();
      return;
   }
   phase_ = Phase::release;
}

void CrossCheck::addressesStep() {
   if ( group_ == groups_.end() || servers_.size() > maxServers ) {
      if ( servers_.size() > maxServers ) {
         errors_.add( 0, serverConfigPath, {},
               fmt::format(
                     "the groups that have a URL have more than {} different servers; no more can be probed",
                     maxServers ) );
      }
      phase_ = Phase::release;
      return;
   }
   const auto & group = group_->second;
   const bool probed = hasTcp( group ) || httpUrlBytes( group ) != 0;
   const auto server = probed ? serverNext( group ) : std::nullopt;
   if ( server ) {
      servers_.insert( *server );
      return;
   }
   groupNext();
}

} // namespace host
