#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace host {

/// One line of an answer. What is not UTF-8 is replaced.
inline std::string jsonLine( const nlohmann::json & json ) {
   return json.dump( -1, ' ', false, nlohmann::json::error_handler_t::replace ) + "\n";
}
inline std::string textLine( std::string_view text ) {
   return jsonLine( { { "text", text } } );
}
/// The last line of an answer to a request that was done.
inline std::string doneLine() {
   return jsonLine( { { "done", true } } );
}

} // namespace host
