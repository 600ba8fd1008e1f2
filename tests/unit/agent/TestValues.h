#pragma once

#include "HealthMonitor/HmNetCHASMInfoSm.h"
#include "platform/IpGenAddr.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gmock/gmock.h>

namespace hm::test {

inline IpGenAddr ip( const std::string & text ) {
   return text.empty() ? IpGenAddr{} : IpGenAddr::fromText( text ).value();
}

inline std::string contentOf( const std::string & path ) {
   std::ifstream file( path );
   return { std::istreambuf_iterator<char>( file ), {} };
}

struct DeathRow {
   const char * message; // part of what the process says as it stops
   std::function<void()> breakIt;
};

inline void expectDeaths( const std::vector<DeathRow> & rows ) {
   for ( const auto & row : rows ) {
      EXPECT_DEATH( row.breakIt(), testing::HasSubstr( row.message ) ) << row.message;
   }
}

inline void removeFiles( const NetCHASMInfoSm & infoSm ) {
   for ( const auto & files : { infoSm.workingCfg(), infoSm.getNetChasmConfig() } ) {
      std::filesystem::remove( files->masterConfigPath() );
      std::filesystem::remove( files->hostConfigPath() );
   }
}

} // namespace hm::test
