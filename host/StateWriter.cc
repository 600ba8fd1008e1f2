#include "host/StateWriter.h"

#include "host/Yaml.h"

#include <nlohmann/json.hpp>

namespace host {

using namespace platform;

StateWriter::StateWriter( Format format, std::vector<Section> sections )
      : format_( format ),
        sections_( std::move( sections ) ) {}

std::string scalarJson( const ScalarInfo & scalar, const Entity & entity ) {
   const auto text = scalar.text( entity );
   return scalar.kind() == ValueKind::text ? jsonString( text ) : text;
}

void StateWriter::newLine( std::string & out ) const {
   const auto depth = frames_.size() + ( format_ == Format::json ? 1 : 0 );
   if ( begun_ ) {
      out += '\n';
   }
   out.append( 2 * depth, ' ' );
}

// Begins a named value inside the innermost frame.
void StateWriter::name( const std::string & name, std::string & out ) {
   bool & any = frames_.empty() ? any_ : frames_.back().any;
   if ( format_ == Format::json && any ) {
      out += ',';
   }
   any = true;
   newLine( out );
   begun_ = true;
   out += ( format_ == Format::json ? jsonString( name ) : yamlScalar( name ) ) + ":";
}

void StateWriter::enter( Frame frame, bool empty, std::string & out ) {
   const bool list = frame.attribute && frame.attribute->set();
   if ( empty ) {
      out += list ? " []" : " {}";
      return;
   }
   if ( format_ == Format::json ) {
      out += list ? " [" : " {";
   }
   frames_.push_back( std::move( frame ) );
}

void StateWriter::leave( std::string & out ) {
   const auto * attribute = frames_.back().attribute;
   const bool any = frames_.back().any;
   frames_.pop_back();
   if ( format_ == Format::json ) {
      newLine( out );
      out += attribute && attribute->set() ? ']' : '}';
   } else if ( !any ) {
      out += attribute && attribute->set() ? " []" : " {}"; // all of it went before it was written
   }
}

void StateWriter::attribute(
      const Ptr<Entity> & entity, const AttributeInfo & info, const std::string & label, std::string & out ) {
   name( label, out );
   if ( const auto * scalar = info.scalar() ) {
      out += ' ';
      out += format_ == Format::json             ? scalarJson( *scalar, *entity )
             : scalar->kind() == ValueKind::text ? yamlScalar( scalar->text( *entity ) )
                                                 : scalar->text( *entity );
   } else if ( const auto * child = info.child() ) {
      const auto below = child->child( *entity );
      enter( { below }, below->type().attributes().empty(), out );
   } else {
      enter( { entity, &info }, keyedOf( info )->count( *entity ) == 0, out );
   }
}

bool StateWriter::write( std::string & out ) {
   if ( frames_.empty() ) {
      if ( format_ == Format::json && section_ == 0 && !begun_ ) {
         out += '{';
         begun_ = true;
      }
      if ( section_ == sections_.size() ) {
         out += format_ == Format::yaml ? ( any_ ? "\n" : "" ) : any_ ? "\n}\n" : "}\n";
         return false;
      }
      const auto & [place, entity] = sections_[section_++];
      if ( place.attribute ) {
         attribute( entity, *place.attribute, place.path(), out );
      } else {
         name( place.path(), out );
         enter( { entity }, entity->type().attributes().empty(), out );
      }
      return true;
   }
   Frame & frame = frames_.back();
   if ( !frame.attribute ) {
      const auto & attributes = frame.entity->type().attributes();
      if ( frame.next == attributes.size() ) {
         leave( out );
         return true;
      }
      // Values that stand together are of one moment. What is entered makes `frame` another one.
      const auto entity = frame.entity;
      auto & next = frame.next;
      while ( next < attributes.size() && attributes[next]->scalar() ) {
         attribute( entity, *attributes[next], attributes[next]->name(), out );
         ++next;
      }
      if ( next < attributes.size() ) {
         const auto * info = attributes[next++];
         attribute( entity, *info, info->name(), out );
      }
      return true;
   }
   const auto * keyed = keyedOf( *frame.attribute );
   frame.after = keyed->nextKey( *frame.entity, frame.after );
   if ( !frame.after ) {
      leave( out );
      return true;
   }
   const auto key = *frame.after;
   if ( frame.attribute->set() ) {
      if ( format_ == Format::json && frame.any ) {
         out += ',';
      }
      frame.any = true;
      newLine( out );
      out += format_ == Format::json ? jsonString( key ) : "- " + yamlScalar( key );
      return true;
   }
   const auto entry = frame.attribute->collection()->entry( *frame.entity, key );
   name( key, out );
   enter( { entry }, entry->type().attributes().empty(), out );
   return true;
}

std::optional<std::string> StateWriter::entityJson( const Ptr<Entity> & entity, std::size_t maxBytes ) {
   SchemaPlace place{ "entity" };
   place.type = &entity->type();
   StateWriter writer( Format::json, { { place, entity } } );
   std::string text;
   while ( writer.write( text ) ) {
      if ( text.size() > maxBytes ) {
         return std::nullopt;
      }
   }
   return nlohmann::ordered_json::parse( text ).front().dump();
}

} // namespace host
