#pragma once

#include "platform/IpGenAddr.h"

#include <fstream>
#include <iterator>
#include <string>

namespace hm::test {

inline platform::IpGenAddr ip( const std::string & text ) {
   return *platform::IpGenAddr::fromText( text );
}

inline std::string contentOf( const std::string & path ) {
   std::ifstream file( path );
   return { std::istreambuf_iterator<char>( file ), {} };
}

} // namespace hm::test
