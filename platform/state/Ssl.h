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

class ProfileStatus : public platform::Entity {
   HM_ENTITY( ProfileStatus )
   HM_ATTRIBUTE( ProfileState, state, ProfileState::invalid )
   HM_ATTRIBUTE( std::string, caFilePath )   // PEM; trusted roots
   HM_ATTRIBUTE( std::string, certFilePath ) // PEM; client certificate and its key
};

class Status : public platform::Entity {
   HM_ENTITY( Status )
   HM_COLLECTION( std::string, ProfileStatus, profileStatus )
};

} // namespace Mgmt::Security::Ssl
