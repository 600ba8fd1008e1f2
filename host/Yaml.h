#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace host {

/// One value of a YAML document. Owned by the YamlDocument that it came from.
struct YamlNode {
   enum class Kind { null, scalar, sequence, map };
   Kind kind = Kind::null;
   std::size_t line = 0; // counted from 1
   std::string text{};   // scalars
   /// Of a sequence its values; of a map each key followed by its value, in the order of the text, keys that
   /// are written twice included.
   std::vector<const YamlNode *> items{};
};

struct YamlError {
   std::size_t line = 0; // 0: the text as a whole
   std::string message{};
};

/// What a text from outside may hold before it is refused. Reading takes memory in proportion to these.
struct YamlLimits {
   std::size_t bytes = 16u << 20;
   std::size_t nodes = 1'000'000;
   std::size_t depth = 32;
   /// The scanner holds a flow collection ("[…]", "{…}") as tokens until it is closed, before anything else
   /// can count it, so the characters that may begin or end a token are counted first.
   std::size_t indicators = 2'000'000;
};

/// The values of one YAML text, with what is needed to say where something is wrong. Aliases share the node
/// of their anchor, so that a walk may visit more nodes than there are. Safe to build on any thread.
class YamlDocument {
 public:
   /// `cancelled` is asked now and then and ends the reading early, with an error.
   using Cancelled = std::function<bool()>;
   YamlDocument( std::string_view text, const YamlLimits & limits = {}, const Cancelled & cancelled = {} );

   const YamlNode * root() const { return root_; } // null: an error, or nothing but blanks and comments
   const std::vector<YamlError> & errors() const { return errors_; }

 private:
   class Builder;
   std::deque<YamlNode> nodes_; // an arena: releasing it does not recurse, whatever the document's shape
   const YamlNode * root_ = nullptr;
   std::vector<YamlError> errors_;
};

/// Offset of the first byte that is not part of well-formed UTF-8 (RFC 3629, section 4), or npos.
std::size_t utf8Invalid( std::string_view text );

/// `text` as it may stand in YAML wherever a scalar may, with quotes when it needs them; bytes that are not
/// UTF-8 are replaced.
std::string yamlScalar( std::string_view text );
/// The same for JSON, quotes always.
std::string jsonString( std::string_view text );

} // namespace host
