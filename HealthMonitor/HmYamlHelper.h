#pragma once

#include "HealthMonitor/HmHostModel.h"

#include <string>

#include <yaml-cpp/yaml.h>

namespace hm {

/// Builds the text of one host configuration file in slices: a sequence with a map for each host group.
///
/// The emitter is fed item by item, and gives the text that it would give for the whole document as one node:
/// streaming such a node in one go holds the main loop for most of a second at 32,766 hosts, and its release
/// for a tenth. Names may hold any bytes; the emitter quotes what needs it.
///
/// Exists only while a file is being built; dropping it discards what was built.
class YamlHelper : public RefCounted {
 public:
   explicit YamlHelper( Ptr<const NetCHASMInfo> netchasmInfo );

   /// The settings of a group, which must be in the model, in the order in which they are written.
   YAML::Node initializeHostGroupConfig( const std::string & hostGroupName ) const;

   /// One group after another: its settings, then each of its hosts, then its end.
   void hostGroupBegin( const std::string & hostGroupName );
   void hostAdd( const std::string & hostName );
   void hostGroupEnd();

   /// The finished document (empty without groups), as long as the helper lives. Nothing may be added to it
   /// afterwards.
   std::string_view hostConfigFile();

 private:
   const Ptr<const NetCHASMInfo> & netchasmInfo() const { return netchasmInfo_; }

   const Ptr<const NetCHASMInfo> netchasmInfo_;
   YAML::Emitter hostConfigFile_;
   bool anyGroup_ = false;
   bool anyHost_ = false; // in the group in progress
};

} // namespace hm
