#include "host/ControlQueries.h"

#include "host/ControlLines.h"
#include "platform/Printable.h"
#include "platform/Trace.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace host {

using namespace platform;

namespace {

using Json = nlohmann::json;

const char * kindName( const AttributeInfo & attribute ) {
   return attribute.scalar()  ? "scalar"
          : attribute.set()   ? "set"
          : attribute.child() ? "child"
                              : "collection";
}

std::string typeName( const AttributeInfo & attribute ) {
   if ( const auto * scalar = attribute.scalar() ) {
      return scalar->typeName();
   }
   const auto * keyed = keyedOf( attribute );
   return keyed ? keyed->keyTypeName() : attribute.child()->childType().name();
}

class CompletionAnswer final : public Answer {
 public:
   CompletionAnswer( const char * kind, Json attributes, std::string begin )
         : kind_( kind ),
           attributes_( std::move( attributes ) ),
           begin_( std::move( begin ) ) {}

   void walkIs( const Ptr<Entity> & entity, const KeyedInfo & keyed ) {
      entity_ = entity;
      keyed_ = &keyed;
   }

   /// False once there is room for no more.
   bool keyAdd( const std::string & key ) {
      constexpr std::size_t maxKeys = 1000;
      constexpr std::size_t maxBytes = 32 * 1024; // as many control bytes take six times that in JSON
      if ( !key.starts_with( begin_ ) ) {
         return true;
      }
      if ( keys_.size() == maxKeys || bytes_ + key.size() > maxBytes ) {
         more_ = true;
         return false;
      }
      bytes_ += key.size();
      keys_.push_back( key );
      return true;
   }

   bool produce( std::string & out ) override {
      constexpr int keysATurn = 256;
      for ( int i = 0; keyed_ && i < keysATurn; ++i ) {
         after_ = keyed_->nextKey( *entity_, after_ );
         // A key that cannot be read back from its text would lead the walk round and round: it ends there.
         if ( !after_ || !keyed_->has( *entity_, *after_ ) || !keyAdd( *after_ ) ) {
            keyed_ = nullptr;
         }
      }
      if ( keyed_ ) {
         return true;
      }
      Json answer{ { "kind", kind_ }, { "attributes", attributes_ }, { "keys", keys_ } };
      if ( more_ ) {
         answer["more"] = true;
      }
      out += jsonLine( answer ) + doneLine();
      return false;
   }

 private:
   const char * const kind_;
   const Json attributes_;
   const std::string begin_;
   Ptr<Entity> entity_;
   const KeyedInfo * keyed_ = nullptr; // while there is something left to walk
   std::optional<std::string> after_;
   Json keys_ = Json::array();
   std::size_t bytes_ = 0;
   bool more_ = false;
};

class RefusedAnswer final : public Answer {
 public:
   explicit RefusedAnswer( const std::string & reason ) : text_( refusedLine( { reason } ) ) {}
   bool produce( std::string & out ) override {
      out += text_;
      return false;
   }

 private:
   const std::string text_;
};

} // namespace

std::string traceTable() {
   const auto facilities = TraceFacility::all();
   std::size_t width = std::string_view( "Facility" ).size();
   for ( const auto & facility : facilities ) {
      width = std::max( width, facility->name().size() );
   }
   auto text = fmt::format( "{:{}}  Levels\n{:-<{}}  ------\n", "Facility", width, "", width );
   auto byName = Json::object();
   for ( const auto & facility : facilities ) {
      const auto levels = traceLevelsText( facility->levels() );
      text += fmt::format( "{:{}}  {}\n", printable( facility->name() ), width, levels );
      byName[facility->name()] = levels;
   }
   return jsonLine( { { "text", text }, { "facilities", byName } } ) + doneLine();
}

std::string traceLevelsIs( const std::string & name, const std::string & levelsText ) {
   const auto facilities = TraceFacility::all();
   const auto facility = std::ranges::find( facilities, name, &TraceFacility::name );
   if ( facility == facilities.end() ) {
      std::string names;
      for ( const auto & each : facilities ) {
         names += ( names.empty() ? "" : ", " ) + each->name();
      }
      return refusedLine( { fmt::format(
            "no such trace facility: {}; there are {}", printable( name.substr( 0, 64 ) ), names ) } );
   }
   const auto levels = traceLevelsFromText( levelsText );
   if ( !levels ) {
      return refusedLine( { fmt::format( "\"{}\" is not a list of levels 0 to 9, as in 0-4 or 0-2,7 or none",
            printable( levelsText.substr( 0, 64 ) ) ) } );
   }
   ( *facility )->levelsIs( *levels );
   return doneLine();
}

std::unique_ptr<Answer> completionAnswer( const ControlServices & services, const std::string & path,
      const std::string & begin, bool configurationOnly ) {
   const auto & schema = *services.schema;
   auto attributes = Json::array();
   std::set<std::string> components;
   bool found = path.empty();
   for ( const auto & root : schema.roots() ) {
      if ( ( root.outsideWrites || !configurationOnly ) && root.path != path &&
            pathIsAtOrBelow( root.path, path ) ) {
         const auto rest = std::string_view( root.path ).substr( path.empty() ? 0 : path.size() + 1 );
         components.emplace( rest.substr( 0, rest.find( '/' ) ) );
         found = true;
      }
   }
   SchemaPlace place;
   const auto refusal = path.empty() ? Refusal( "" ) : schema.resolve( path, place );
   if ( refusal && !found ) {
      return std::make_unique<RefusedAnswer>( *refusal );
   }
   const bool shown = !refusal && ( place.outsideWrites || !configurationOnly );
   if ( shown && !place.attribute ) {
      for ( const auto * attribute : place.type->attributes() ) {
         attributes.push_back( { { "name", attribute->name() }, { "kind", kindName( *attribute ) },
               { "type", typeName( *attribute ) } } );
      }
   }
   const char * const kind = !shown            ? "beginning"
                             : place.member    ? "member"
                             : place.attribute ? kindName( *place.attribute )
                                               : "entity";
   auto answer = std::make_unique<CompletionAnswer>( kind, std::move( attributes ), begin );
   for ( const auto & component : components ) {
      answer->keyAdd( component );
   }
   const auto * keyed = shown && place.attribute && !place.member ? keyedOf( *place.attribute ) : nullptr;
   const auto entity = keyed ? entityAt( *services.entityManager, place ) : nullptr;
   if ( entity ) {
      answer->walkIs( entity, *keyed );
   }
   return answer;
}

} // namespace host
