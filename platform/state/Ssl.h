#pragma once

#include "platform/Entity.h"

/// SSL profiles as the switch's certificate management reports them.
namespace Mgmt::Security::Ssl {

enum class ProfileState : std::uint8_t {
   invalid = 0,
   updating = 1, // files are being replaced: those evaluated before stay in effect
   valid = 2,
};

} // namespace Mgmt::Security::Ssl

template<>
struct platform::EnumNames<Mgmt::Security::Ssl::ProfileState> {
   using State = Mgmt::Security::Ssl::ProfileState;
   static constexpr std::pair<State, std::string_view> entries[] = {
         { State::invalid, "invalid" }, { State::updating, "updating" }, { State::valid, "valid" } };
};

namespace Mgmt::Security::Ssl {

/// Of a file's name. The check engine is told the names again for each group that has a profile of its own,
/// and there is a bound to what it can be told together.
inline constexpr std::size_t maxFilePathBytes = 255;
platform::Refusal filePathCheck( const std::string & path ); // empty, or without control bytes

class ProfileStatus : public platform::Entity {
   HM_ENTITY( ProfileStatus )
   HM_ATTRIBUTE( ProfileState, state, ProfileState::invalid )
   HM_ATTRIBUTE_CHECKED( std::string, caFilePath, filePathCheck )   // PEM; trusted roots
   HM_ATTRIBUTE_CHECKED( std::string, certFilePath, filePathCheck ) // PEM; client certificate and its key
};

class Status : public platform::Entity {
   HM_ENTITY( Status )
   HM_COLLECTION( std::string, ProfileStatus, profileStatus )
};

} // namespace Mgmt::Security::Ssl
