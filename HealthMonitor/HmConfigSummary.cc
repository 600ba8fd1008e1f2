#include "HealthMonitor/HmConfigSm.h"
#include "platform/CliPrinter.h"
#include "platform/Printable.h"

namespace hm {

void ConfigSm::showSummary( unsigned socket, unsigned format ) const {
   HM_TRACE( 7, "socket: {}, output format: {}", socket, format );
   const auto orNone = []( const std::string & value ) {
      return value.empty() ? std::string( "not configured" ) : value;
   };
   try {
      CliPrinter printer( socket, format );
      printer.start();
      const bool monitoring = probeConfig_->monitoringEnabled();
      printer.attribute( "monitoring", monitoring, "Monitoring: %s\n", monitoring ? "enabled" : "disabled" );
      const bool processed = backlogSm_->allBacklogsEmpty() &&
                             commonData_->configPhase() == ConfigPhase::backlogProcessing &&
                             !backlogTask_->taskScheduled();
      printer.attribute(
            "configProcessed", processed, "Config processing: %s\n", processed ? "completed" : "pending" );
      const auto files = netChasmInfoSm_->getNetChasmConfig();
      printer.attribute( "masterConfigFile", files->masterConfigPath(), "Master Config File: %s\n",
            files->masterConfigPath().c_str() );
      printer.attribute( "hostConfigFile", files->hostConfigPath(), "Host Config File: %s\n",
            files->hostConfigPath().c_str() );
      printer.subModelStart( "lbSummary" );
      printer.frill( "Load balancer: \n" );
      const auto interval = static_cast<int>( probeConfig_->probeInterval().count() );
      printer.attribute( "probeInterval", interval, "   Probe interval: %d seconds\n", interval );
      const auto profile = orNone( probeConfig_->sslProfile() );
      printer.attribute( "sslProfile", profile, "   SSL Profile: %s\n", printable( profile ).c_str() );
      const auto status = mgmtSslStatus_->profileStatus( probeConfig_->sslProfile() );
      const bool valid = status && status->state() == Mgmt::Security::Ssl::ProfileState::valid;
      printer.attribute(
            "sslProfileValid", valid, "   SSL Profile State: %s\n", valid ? "valid" : "invalid" );
      const auto caFile = orNone( commonData_->caFilePath() );
      printer.attribute( "caFile", caFile, "   Trusted Root CA File: %s\n", printable( caFile ).c_str() );
      printer.subModelEnd();
      printer.end();
      printer.flush();
   } catch ( const CliInterrupt & interrupt ) {
      HM_TRACE( 1, "got exception: {}", interrupt.what() );
   }
}

} // namespace hm
