#include "host/Document.h"

#include "platform/Printable.h"

#include <algorithm>
#include <map>
#include <unordered_map>

#include <fmt/format.h>

namespace host {

using namespace platform;

namespace {

// A walk visits the nodes behind an alias once for each alias.
constexpr std::size_t maxVisits = 2'000'000;
// The same for the bytes of their text, so that a long text behind many aliases cannot unfold into gigabytes.
constexpr std::size_t maxTextBytes = 32 * 1024 * 1024;
// Longer than any path that can be resolved is.
constexpr std::size_t longestName = 4096;

std::string inQuotes( std::string_view text ) {
   constexpr std::size_t longest = 64;
   return fmt::format( "\"{}{}\"", printable( text.substr( 0, longest ) ), text.size() > longest ? "…" : "" );
}

const char * formOf( const YamlNode & node ) {
   switch ( node.kind ) {
   case YamlNode::Kind::null:
      return "nothing";
   case YamlNode::Kind::scalar:
      return "a single value";
   case YamlNode::Kind::sequence:
      return "a sequence";
   case YamlNode::Kind::map:
      return "a map";
   }
   return "";
}

// Null stands for no content everywhere, and an empty map or sequence for the other: both hold nothing.
bool isEmpty( const YamlNode & node ) {
   return node.kind == YamlNode::Kind::null || ( node.kind != YamlNode::Kind::scalar && node.items.empty() );
}

class Checker {
 public:
   Checker( const Schema & schema, CheckedChange & change, const YamlDocument::Cancelled & cancelled )
         : schema_( schema ),
           change_( change ),
           errors_( change.source ),
           cancelled_( cancelled ) {}

   void error( std::size_t line, const std::string & path, const std::string & attribute,
         const std::string & message ) {
      errors_.add( line, path, attribute, message );
   }
   void finish() {
      change_.errors = errors_.lines();
      if ( !errors_.empty() ) {
         change_.sections.clear();
      }
   }

   void document( const YamlDocument & yaml ) {
      for ( const auto & each : yaml.errors() ) {
         error( each.line, {}, {}, each.message );
      }
      if ( !yaml.errors().empty() ) {
         return;
      }
      if ( !yaml.root() || isEmpty( *yaml.root() ) ) {
         error( 0, {}, {}, "names no path" );
         return;
      }
      if ( yaml.root()->kind != YamlNode::Kind::map ) {
         error( yaml.root()->line, {}, {},
               fmt::format( "expected a map of paths, found {}", formOf( *yaml.root() ) ) );
         return;
      }
      const auto & items = yaml.root()->items;
      for ( std::size_t i = 0; i + 1 < items.size(); i += 2 ) {
         section( *items[i], *items[i + 1] );
      }
   }

   void set( const ChangeRequest & request ) {
      ChangeSection section;
      if ( !writable( 0, request.path, section.place ) ) {
         return;
      }
      const auto path = section.place.path();
      if ( section.place.attribute ) {
         error( 0, path, {}, "names an attribute; give the path of its entity" );
         return;
      }
      const auto * attribute = section.place.type->attribute( request.attribute );
      if ( !attribute ) {
         error( 0, path, {}, "has no attribute " + inQuotes( request.attribute ) );
         return;
      }
      if ( attribute->child() ) {
         error( 0, path, attribute->name(),
               fmt::format( "holds attributes of its own; set them at {}/{}", path, attribute->name() ) );
         return;
      }
      section.place.attribute = attribute;
      const auto * keyed = keyedOf( *attribute );
      const auto refusal =
            keyed ? keyed->keyCheck( request.value ) : attribute->scalar()->check( request.value );
      if ( refusal ) {
         error( 0, path, attribute->name(), fmt::format( "{}: {}", inQuotes( request.value ), *refusal ) );
         return;
      }
      if ( keyed ) {
         section.kind = ChangeSection::Kind::insert;
         section.key = keyed->keyNormal( request.value );
      } else {
         section.kind = ChangeSection::Kind::attribute;
         section.attribute.attribute = attribute;
         section.attribute.text = request.value;
      }
      change_.sections.push_back( std::move( section ) );
   }

   void remove( const ChangeRequest & request ) {
      ChangeSection section;
      if ( !writable( 0, request.path, section.place ) ) {
         return;
      }
      const auto & place = section.place;
      const auto * keyed = place.attribute && !place.member ? keyedOf( *place.attribute ) : nullptr;
      if ( !keyed ) {
         error( 0, place.path(), {}, "names neither a collection nor a set" );
         return;
      }
      if ( const auto refusal = keyed->keyCheck( request.value ) ) {
         error( 0, place.path(), {}, fmt::format( "{}: {}", inQuotes( request.value ), *refusal ) );
         return;
      }
      section.kind = ChangeSection::Kind::remove;
      section.key = keyed->keyNormal( request.value );
      change_.sections.push_back( std::move( section ) );
   }

 private:
   bool writable( std::size_t line, const std::string & path, SchemaPlace & place ) {
      if ( const auto refusal = schema_.resolve( path, place ) ) {
         error( line, {}, {}, *refusal );
         return false;
      }
      if ( !place.outsideWrites ) {
         error( line, place.path(), {}, place.closedBecause );
         return false;
      }
      return true;
   }

   void section( const YamlNode & key, const YamlNode & value ) {
      ChangeSection section;
      if ( key.kind != YamlNode::Kind::scalar ) {
         error( key.line, {}, {}, fmt::format( "expected a path, found {}", formOf( key ) ) );
         return;
      }
      if ( !writable( key.line, key.text, section.place ) || !apart( key.line, section.place.path() ) ) {
         return;
      }
      section.line = key.line;
      const auto & place = section.place;
      if ( place.member ) {
         error( key.line, place.path(), {}, "names a member of a set; name the set" );
         return;
      }
      if ( place.attribute ) {
         section.kind = ChangeSection::Kind::attribute;
         attribute( *place.attribute, key.line, value, place.entityPath(), section.attribute );
      } else {
         section.entity = entity( *place.type, value, place.path() );
      }
      change_.sections.push_back( std::move( section ) );
   }

   // Two paths of one document must not speak of the same thing, neither one inside the other.
   bool apart( std::size_t line, const std::string & path ) {
      const auto clash = [&]( const auto & other ) {
         error( line, path, {}, fmt::format( "overlaps {} on line {}", other->first, other->second ) );
         return false;
      };
      for ( auto end = path.size(); end != path.npos;
            end = end == 0 ? path.npos : path.rfind( '/', end - 1 ) ) {
         if ( const auto above = paths_.find( path.substr( 0, end ) ); above != paths_.end() ) {
            return clash( above );
         }
      }
      if ( const auto below = paths_.lower_bound( path + "/" );
            below != paths_.end() && below->first.starts_with( path + "/" ) ) {
         return clash( below );
      }
      paths_.emplace( path, line );
      return true;
   }

   bool tooMany( const YamlNode & node ) {
      if ( stopped_ ) {
         return true;
      }
      textBytes_ += node.text.size();
      if ( ++visits_ >= maxVisits || textBytes_ > maxTextBytes ) {
         stopped_ = true;
         error( node.line, {}, {},
               fmt::format( "holds more than {} values or {} bytes of text, aliases followed", maxVisits,
                     maxTextBytes ) );
      } else if ( cancelled_ && visits_ % 1024 == 0 && cancelled_() ) {
         stopped_ = true;
         error( node.line, {}, {}, "the check was cancelled" );
      }
      return stopped_;
   }

   // Calls `each( key text, key node, value node )` for the entries of a map whose keys are all different.
   template<class Each>
   void walkMap( const YamlNode & node, const std::string & path, const Each & each ) {
      std::unordered_map<std::string_view, std::size_t> seen;
      for ( std::size_t i = 0; i + 1 < node.items.size(); i += 2 ) {
         const auto & key = *node.items[i];
         if ( tooMany( key ) ) {
            return;
         }
         if ( key.kind != YamlNode::Kind::scalar ) {
            error( key.line, path, {},
                  fmt::format( "expected a name, found {}{}", formOf( key ),
                        key.kind == YamlNode::Kind::null ? " (quote a name that reads as null)" : "" ) );
            continue;
         }
         if ( key.text.size() > longestName ) {
            error( key.line, path, {},
                  fmt::format( "{}: a name of more than {} bytes", inQuotes( key.text ), longestName ) );
            continue;
         }
         if ( const auto [first, fresh] = seen.emplace( key.text, key.line ); !fresh ) {
            error( key.line, path, printable( key.text.substr( 0, 255 ) ),
                  fmt::format( "stands here twice, first on line {}", first->second ) );
            continue;
         }
         each( key, *node.items[i + 1] );
      }
   }

   EntityContent entity( const EntityType & type, const YamlNode & node, const std::string & path ) {
      EntityContent content;
      if ( isEmpty( node ) ) {
         return content;
      }
      if ( node.kind != YamlNode::Kind::map ) {
         error(
               node.line, path, {}, fmt::format( "expected a map of attributes, found {}", formOf( node ) ) );
         return content;
      }
      walkMap( node, path, [&]( const YamlNode & key, const YamlNode & value ) {
         const auto * info = type.attribute( key.text );
         if ( !info ) {
            error( key.line, path, {}, "has no attribute " + inQuotes( key.text ) );
            return;
         }
         attribute( *info, key.line, value, path, content.attributes.emplace_back() );
      } );
      return content;
   }

   void attribute( const AttributeInfo & info, std::size_t line, const YamlNode & node,
         const std::string & path, AttributeContent & content ) {
      content.attribute = &info;
      content.line = line;
      if ( tooMany( node ) ) {
         return;
      }
      if ( const auto * scalar = info.scalar() ) {
         if ( node.kind == YamlNode::Kind::null ) {
            content.text = scalar->defaultText();
         } else if ( node.kind != YamlNode::Kind::scalar ) {
            error( node.line, path, info.name(),
                  fmt::format( "expected {}, found {}", scalar->typeName(), formOf( node ) ) );
         } else if ( const auto refusal = scalar->check( node.text ) ) {
            error( node.line, path, info.name(), fmt::format( "{}: {}", inQuotes( node.text ), *refusal ) );
         } else {
            content.text = node.text;
         }
      } else if ( const auto * set = info.set() ) {
         members( *set, node, path, content );
      } else if ( const auto * collection = info.collection() ) {
         entries( *collection, node, path, content );
      } else if ( const auto * child = info.child() ) {
         content.child = std::make_unique<EntityContent>(
               entity( child->childType(), node, path + "/" + info.name() ) );
      }
   }

   void members(
         const SetInfo & set, const YamlNode & node, const std::string & path, AttributeContent & content ) {
      const auto & name = content.attribute->name();
      if ( isEmpty( node ) ) {
         return;
      }
      if ( node.kind != YamlNode::Kind::sequence ) {
         error( node.line, path, name,
               fmt::format( "expected a sequence of {}, found {}", set.keyTypeName(), formOf( node ) ) );
         return;
      }
      for ( const auto * item : node.items ) {
         if ( tooMany( *item ) ) {
            return;
         }
         if ( item->kind != YamlNode::Kind::scalar ) {
            error( item->line, path, name,
                  fmt::format( "expected {}, found {}", set.keyTypeName(), formOf( *item ) ) );
         } else if ( const auto refusal = set.keyCheck( item->text ) ) {
            error( item->line, path, name, fmt::format( "{}: {}", inQuotes( item->text ), *refusal ) );
         } else {
            keyAdd( set, *item, path, content );
         }
      }
   }

   void entries( const CollectionInfo & collection, const YamlNode & node, const std::string & path,
         AttributeContent & content ) {
      const auto below = path + "/" + content.attribute->name();
      if ( isEmpty( node ) ) {
         return;
      }
      if ( node.kind != YamlNode::Kind::map ) {
         error( node.line, path, content.attribute->name(),
               fmt::format( "expected a map by {}, found {}", collection.keyTypeName(), formOf( node ) ) );
         return;
      }
      walkMap( node, below, [&]( const YamlNode & key, const YamlNode & value ) {
         if ( const auto refusal = collection.keyCheck( key.text ) ) {
            error( key.line, path, content.attribute->name(),
                  fmt::format( "{}: {}", inQuotes( key.text ), *refusal ) );
         } else if ( keyAdd( collection, key, path, content ) ) {
            content.entries.push_back(
                  entity( collection.entryType(), value, below + "/" + pathEscape( content.keys.back() ) ) );
         }
      } );
   }

   bool keyAdd( const KeyedInfo & keyed, const YamlNode & key, const std::string & path,
         AttributeContent & content ) {
      auto normal = keyed.keyNormal( key.text );
      if ( !content.keySet.insert( normal ).second ) {
         error( key.line, path, content.attribute->name(), inQuotes( key.text ) + " stands here twice" );
         return false;
      }
      content.keys.push_back( std::move( normal ) );
      return true;
   }

   const Schema & schema_;
   CheckedChange & change_;
   ChangeErrors errors_;
   const YamlDocument::Cancelled & cancelled_;
   std::size_t visits_ = 0;
   std::size_t textBytes_ = 0;
   bool stopped_ = false;                     // too much, or cancelled
   std::map<std::string, std::size_t> paths_; // of the sections so far, with their lines
};

} // namespace

void ChangeErrors::add( std::size_t line, const std::string & path, const std::string & attribute,
      const std::string & message ) {
   if ( ++count_ > maxLines ) {
      return;
   }
   std::string text = printable( source_ );
   if ( line != 0 ) {
      text += fmt::format( ":{}", line );
   }
   for ( const auto & part : { path, attribute, message } ) {
      if ( !part.empty() ) {
         text += ( text.empty() ? "" : ": " ) + part;
      }
   }
   lines_.push_back( std::move( text ) );
}

std::vector<std::string> ChangeErrors::lines() const {
   auto lines = lines_;
   if ( count_ > maxLines ) {
      lines.push_back( fmt::format( "and {} more", count_ - maxLines ) );
   }
   return lines;
}

Ptr<CheckedChange> checkChange(
      const Schema & schema, const ChangeRequest & request, const YamlDocument::Cancelled & cancelled ) {
   const Ptr<CheckedChange> change = new CheckedChange();
   change->source = request.source;
   Checker checker( schema, *change, cancelled );
   switch ( request.kind ) {
   case ChangeRequest::Kind::document:
      checker.document( YamlDocument( request.text, {}, cancelled ) );
      break;
   case ChangeRequest::Kind::set:
      checker.set( request );
      break;
   case ChangeRequest::Kind::remove:
      checker.remove( request );
      break;
   }
   checker.finish();
   return change;
}

} // namespace host
