#include "HealthMonitor/HmBacklogSm.h"

namespace hm {

bool BacklogSm::evaluateSslProfile( const std::string & name ) {
   using Mgmt::Security::Ssl::ProfileState;
   std::string caFilePath;
   std::string certFilePath;
   if ( !name.empty() ) {
      const auto profile = mgmtSslStatus_->profileStatus( name );
      if ( !profile ) {
         HM_TRACE( 4, "Ssl Profile not found: {}", name );
      } else if ( profile->state() == ProfileState::valid ) {
         caFilePath = profile->caFilePath();
         if ( caFilePath.empty() ) {
            HM_TRACE( 4, "Trusted CA not present in SSL Profile: {}", name );
         }
         certFilePath = profile->certFilePath();
         if ( certFilePath.empty() ) {
            HM_TRACE( 4, "Client Certificate not present in SSL Profile: {}", name );
         }
      } else if ( profile->state() == ProfileState::updating ) {
         caFilePath = caFilePath_;
         certFilePath = certFilePath_;
      } else {
         HM_TRACE( 4, "Invalid Ssl Profile: {}", name );
      }
   }
   caFilePath_ = std::move( caFilePath );
   certFilePath_ = std::move( certFilePath );
   return name.empty();
}

bool BacklogSm::evaluateGlobalSslProfile() {
   caFilePath_ = commonData_->caFilePath();
   certFilePath_ = commonData_->certFilePath();
   const bool noProfile = evaluateSslProfile( probeConfig_->sslProfile() );
   commonData_->caFilePathIs( caFilePath_ );
   commonData_->certFilePathIs( certFilePath_ );
   return noProfile;
}

bool BacklogSm::evaluateNhgSslProfile( const NexthopGroupName & nhgName ) {
   const auto nhgProbeConfig = probeConfig_->nhgProbeConfig( nhgName );
   if ( !nhgProbeConfig ) {
      return true;
   }
   const auto params = commonData_->nhgSslParamsIs( nhgName );
   caFilePath_ = params->caFilePath();
   certFilePath_ = params->certFilePath();
   const bool noProfile = evaluateSslProfile( nhgProbeConfig->sslProfile() );
   params->caFilePathIs( caFilePath_ );
   params->certFilePathIs( certFilePath_ );
   return noProfile;
}

} // namespace hm
