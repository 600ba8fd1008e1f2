#pragma once

#include <string>

#include <netchasm/HMLogBase.h>

namespace hm {

/// Writes the engine's log entries into the agent's trace, under the facility "NetCHASM", whose enabled
/// levels decide which of them are kept. Holds nothing; any thread.
class NetCHASMLogger final : public HMLogBase {
 public:
   void rotate() override {}
   bool openLog( std::string name ) override; // opens nothing; true
   void closeLog() override {}
   void writeLog( LogEntry * entry ) override;
};

} // namespace hm
