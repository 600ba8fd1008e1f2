#include "HealthMonitor/HmYamlHelper.h"

namespace hm {

YamlHelper::YamlHelper( Ptr<const NetCHASMInfo> netchasmInfo ) : netchasmInfo_( std::move( netchasmInfo ) ) {}

YAML::Node YamlHelper::initializeHostGroupConfig( const std::string & hostGroupName ) const {
   HM_TRACE( 7, "hostGroupName:{}", hostGroupName );
   HM_ASSERT( netchasmInfo()->hostConfig()->hostGrpCfgHas( hostGroupName ), "no settings for host group {}",
         hostGroupName );
   const auto group = netchasmInfo()->hostConfig()->hostGrpCfg( hostGroupName );
   YAML::Node node;
   const auto ifAny = [&node]( const char * key, const std::string & value ) {
      if ( !value.empty() ) {
         node[key] = value;
      }
   };
   node["name"] = hostGroupName;
   node["ttl"] = group->ttl();
   ifAny( "source-address", group->sourceAddress() );
   node["timeout"] = group->timeout();
   node["check-retry-delay"] = group->checkRetryDelay();
   node["check-retries"] = group->checkRetries();
   node["check-type"] = group->checkType();
   node["dns-type"] = group->dnsType();
   node["check-info"] = group->checkInfo();
   ifAny( "check-port", group->checkPort() );
   ifAny( "dual-stack-mode", group->dualStackMode() );
   ifAny( "ca-file", group->caFilePath() );
   ifAny( "cert-file", group->certFilePath() );
   return node;
}

void YamlHelper::hostGroupBegin( const std::string & hostGroupName ) {
   if ( !anyGroup_ ) {
      anyGroup_ = true;
      hostConfigFile_ << YAML::BeginSeq;
   }
   anyHost_ = false;
   hostConfigFile_ << YAML::BeginMap;
   for ( const auto & setting : initializeHostGroupConfig( hostGroupName ) ) {
      hostConfigFile_ << YAML::Key << setting.first.Scalar() << YAML::Value << setting.second.Scalar();
   }
}

void YamlHelper::hostAdd( const std::string & hostName ) {
   if ( !anyHost_ ) {
      anyHost_ = true;
      hostConfigFile_ << YAML::Key << "host" << YAML::Value << YAML::BeginSeq;
   }
   hostConfigFile_ << hostName;
}

void YamlHelper::hostGroupEnd() {
   if ( anyHost_ ) {
      hostConfigFile_ << YAML::EndSeq;
   }
   hostConfigFile_ << YAML::EndMap;
}

std::string_view YamlHelper::hostConfigFile() {
   if ( anyGroup_ ) {
      hostConfigFile_ << YAML::EndSeq;
   }
   return { hostConfigFile_.c_str(), hostConfigFile_.size() };
}

} // namespace hm
