#pragma once

#include <optional>
#include <string>
#include <vector>

namespace hmctl {

/// What a program printed, and how it ended.
struct ToolResult {
   int status = 0; // 0: well
   std::string output{};
   std::string errors{}; // for people; not empty when status is not 0
};

/// Runs a program of this machine, found as root finds it, with `input` on its standard input; empty when
/// there is none of that name. One that prints without end, or does not end, is ended. Throws Interrupted,
/// and Refused when nothing can be run at all.
std::optional<ToolResult> toolRun( std::vector<std::string> words, const std::string & input = {} );

} // namespace hmctl
