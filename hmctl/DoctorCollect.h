#pragma once

#include "hmctl/DoctorFacts.h"

#include <nlohmann/json.hpp>

namespace hmctl {

class Session;

/// Asks the host, and then this machine, of which it reads what the programs of Debian print and what stands
/// below /proc: a handful of programs, however many servers there are. Throws what Session::request() and
/// toolRun() throw.
DoctorFacts doctorCollect( Session & session );

/// The parts of it that read text; what cannot be read becomes a finding.
/// `state`: entities of the host by their paths.
void hostFactsRead( const nlohmann::json & state, DoctorFacts & facts );
void addressFactsRead( const std::string & ipJson, DoctorFacts & facts );
void routeFactsRead( const std::string & ipJsonLines, DoctorFacts & facts );
void queueFactsRead( const std::string & nfnetlinkQueue, DoctorFacts & facts );

} // namespace hmctl
