#include "host/Yaml.h"

#include <algorithm>
#include <sstream>
#include <unordered_map>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/parser.h>

namespace host {

namespace {

std::size_t lineAt( std::string_view text, std::size_t offset ) {
   return 1 + static_cast<std::size_t>( std::ranges::count( text.substr( 0, offset ), '\n' ) );
}

struct Refused {
   YamlError error;
};

// What must hold before the parser may see the text.
std::vector<YamlError> textErrors( std::string_view text, const YamlLimits & limits ) {
   if ( text.size() > limits.bytes ) {
      return { { 0, fmt::format( "is larger than {} bytes", limits.bytes ) } };
   }
   if ( const auto nul = text.find( '\0' ); nul != text.npos ) {
      return { { lineAt( text, nul ), "holds a NUL byte" } };
   }
   if ( const auto bad = utf8Invalid( text ); bad != text.npos ) {
      return { { lineAt( text, bad ),
            fmt::format( "byte 0x{:02X} is not UTF-8", static_cast<unsigned char>( text[bad] ) ) } };
   }
   constexpr std::string_view indicators = "[]{},:?-&*!|>\"'%@`";
   const auto count =
         std::ranges::count_if( text, [&]( char c ) { return indicators.find( c ) != indicators.npos; } );
   if ( static_cast<std::size_t>( count ) > limits.indicators ) {
      return { { 0, fmt::format( "holds more than {} YAML indicators", limits.indicators ) } };
   }
   return {};
}

} // namespace

class YamlDocument::Builder final : public YAML::EventHandler {
 public:
   Builder( YamlDocument & document, const YamlLimits & limits, const Cancelled & cancelled )
         : document_( document ),
           limits_( limits ),
           cancelled_( cancelled ) {}

   void OnDocumentStart( const YAML::Mark & mark ) override {
      if ( documents_++ != 0 ) {
         refuse( mark, "a second document begins; one is accepted" );
      }
   }
   void OnDocumentEnd() override {}
   void OnNull( const YAML::Mark & mark, YAML::anchor_t anchor ) override {
      add( YamlNode::Kind::null, mark, anchor );
   }
   void OnAlias( const YAML::Mark & mark, YAML::anchor_t anchor ) override {
      const auto found = anchors_.find( anchor );
      if ( found == anchors_.end() || std::ranges::find( open_, found->second ) != open_.end() ) {
         refuse( mark, "an alias names what encloses it" );
      }
      place( found->second );
   }
   void OnScalar( const YAML::Mark & mark, const std::string &, YAML::anchor_t anchor,
         const std::string & value ) override {
      add( YamlNode::Kind::scalar, mark, anchor )->text = value;
   }
   void OnSequenceStart( const YAML::Mark & mark, const std::string &, YAML::anchor_t anchor,
         YAML::EmitterStyle::value ) override {
      open( add( YamlNode::Kind::sequence, mark, anchor ), mark );
   }
   void OnSequenceEnd() override { open_.pop_back(); }
   void OnMapStart( const YAML::Mark & mark, const std::string &, YAML::anchor_t anchor,
         YAML::EmitterStyle::value ) override {
      open( add( YamlNode::Kind::map, mark, anchor ), mark );
   }
   void OnMapEnd() override { open_.pop_back(); }

 private:
   [[noreturn]] static void refuse( const YAML::Mark & mark, std::string message ) {
      throw Refused{ { static_cast<std::size_t>( mark.line ) + 1, std::move( message ) } };
   }
   YamlNode * add( YamlNode::Kind kind, const YAML::Mark & mark, YAML::anchor_t anchor ) {
      if ( document_.nodes_.size() >= limits_.nodes ) {
         refuse( mark, fmt::format( "holds more than {} values", limits_.nodes ) );
      }
      if ( cancelled_ && document_.nodes_.size() % 1024 == 0 && cancelled_() ) {
         refuse( mark, "the host is stopping" );
      }
      auto * node =
            &document_.nodes_.emplace_back( YamlNode{ kind, static_cast<std::size_t>( mark.line ) + 1 } );
      if ( anchor != YAML::NullAnchor ) {
         anchors_[anchor] = node;
      }
      place( node );
      return node;
   }
   void place( YamlNode * node ) {
      if ( open_.empty() ) {
         document_.root_ = node;
      } else {
         open_.back()->items.push_back( node );
      }
   }
   void open( YamlNode * node, const YAML::Mark & mark ) {
      if ( open_.size() >= limits_.depth ) {
         refuse( mark, fmt::format( "is nested deeper than {} levels", limits_.depth ) );
      }
      open_.push_back( node );
   }

   YamlDocument & document_;
   const YamlLimits & limits_;
   const Cancelled & cancelled_;
   std::vector<YamlNode *> open_;
   std::unordered_map<YAML::anchor_t, YamlNode *> anchors_;
   unsigned documents_ = 0;
};

YamlDocument::YamlDocument( std::string_view text, const YamlLimits & limits, const Cancelled & cancelled )
      : errors_( textErrors( text, limits ) ) {
   if ( !errors_.empty() ) {
      return;
   }
   try {
      std::istringstream stream{ std::string( text ) };
      YAML::Parser parser( stream );
      Builder builder( *this, limits, cancelled );
      while ( parser.HandleNextDocument( builder ) ) {}
   } catch ( const Refused & refused ) {
      errors_.push_back( refused.error );
   } catch ( const YAML::Exception & error ) {
      const bool placed = !error.mark.is_null();
      errors_.push_back(
            { placed ? static_cast<std::size_t>( error.mark.line ) + 1 : 0, "YAML: " + error.msg } );
   }
   if ( !errors_.empty() ) {
      root_ = nullptr;
   }
}

std::size_t utf8Invalid( std::string_view text ) {
   std::size_t i = 0;
   while ( i < text.size() ) {
      const auto lead = static_cast<unsigned char>( text[i] );
      const std::size_t length = lead < 0x80                   ? 1
                                 : lead >= 0xC2 && lead < 0xE0 ? 2
                                 : lead >= 0xE0 && lead < 0xF0 ? 3
                                 : lead >= 0xF0 && lead < 0xF5 ? 4
                                                               : 0;
      if ( length == 0 || length > text.size() - i ) {
         return i;
      }
      for ( std::size_t k = 1; k < length; ++k ) {
         const auto next = static_cast<unsigned char>( text[i + k] );
         // The second byte rules out overlong forms, surrogates and what lies beyond U+10FFFF.
         const unsigned lowest = k > 1 ? 0x80 : lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
         const unsigned highest = k > 1 ? 0xBF : lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
         if ( next < lowest || next > highest ) {
            return i;
         }
      }
      i += length;
   }
   return text.npos;
}

std::string jsonString( std::string_view text ) {
   return nlohmann::json( text ).dump( -1, ' ', false, nlohmann::json::error_handler_t::replace );
}

std::string yamlScalar( std::string_view text ) {
   const auto plain = []( char c ) {
      return ( c >= '0' && c <= '9' ) || ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || c == '.' ||
             c == '_' || c == '/' || c == '-';
   };
   const bool quiet = !text.empty() && std::ranges::all_of( text, plain ) && text.front() != '-' &&
                      text != "null" && text != "Null" && text != "NULL" && !text.starts_with( "..." );
   // What JSON quotes, YAML reads the same way.
   return quiet ? std::string( text ) : jsonString( text );
}

} // namespace host
