#include "host/Applier.h"

#include "platform/Assert.h"

#include <algorithm>

namespace host {

using namespace platform;

namespace {

const EntityContent nothingSaid{};
const AttributeContent nothingSaidOfAttribute{};

} // namespace

Applier::Applier( Ptr<EntityManager> entityManager, Ptr<CheckedChange> change )
      : entityManager_( std::move( entityManager ) ),
        change_( std::move( change ) ) {}

bool Applier::step() {
   if ( frames_.empty() ) {
      if ( section_ == change_->sections.size() ) {
         return false;
      }
      sectionBegin( change_->sections[section_++] );
      return true;
   }
   if ( frames_.back().content ) {
      entityStep();
   } else {
      attributeStep();
   }
   return true;
}

void Applier::sectionBegin( const ChangeSection & section ) {
   const auto & place = section.place;
   auto entity = entityManager_->entity( place.root );
   Insertion insertion;
   for ( const auto & step : place.steps ) {
      if ( const auto * child = step.attribute->child() ) {
         entity = child->child( *entity );
         continue;
      }
      const auto * collection = step.attribute->collection();
      if ( const auto entry = collection->entry( *entity, step.key ) ) {
         entity = entry;
         continue;
      }
      if ( section.kind == ChangeSection::Kind::remove ) {
         refusals_.push_back( section.place.path() + ": there is no such entry" );
         return;
      }
      const auto entry = collection->entryNew( step.key );
      if ( insertion.parent ) {
         collection->insert( *entity, step.key, entry ); // below an entry that nobody sees yet
      } else {
         insertion = { entity, collection, step.key };
      }
      entity = entry;
   }
   switch ( section.kind ) {
   case ChangeSection::Kind::entity:
      push( entity, section.entity, std::move( insertion ) );
      return;
   case ChangeSection::Kind::remove:
      if ( const auto * keyed = keyedOf( *place.attribute ); keyed->has( *entity, section.key ) ) {
         keyed->remove( *entity, section.key );
         ++changes_;
      } else {
         refusals_.push_back( place.path() + "/" + pathEscape( section.key ) + ": there is no such entry" );
      }
      return;
   case ChangeSection::Kind::attribute:
   case ChangeSection::Kind::insert:
      break;
   }
   if ( insertion.parent ) {
      // The entity takes its place when the frame below the attribute's is done; it has no more to say.
      Frame & frame = frames_.emplace_back();
      frame.entity = entity;
      frame.content = &nothingSaid;
      frame.begun = true;
      frame.insertion = std::move( insertion );
   }
   if ( section.kind == ChangeSection::Kind::attribute ) {
      if ( place.attribute->scalar() ) {
         scalarSet( *entity, *place.attribute, section.attribute.text );
      } else {
         push( entity, *place.attribute, &section.attribute );
      }
      return;
   }
   if ( keyedOf( *place.attribute )->has( *entity, section.key ) ) {
      return;
   }
   if ( const auto * collection = place.attribute->collection() ) {
      collection->insert( *entity, section.key, collection->entryNew( section.key ) );
   } else {
      place.attribute->set()->insert( *entity, section.key );
   }
   ++changes_;
}

void Applier::push( const Ptr<Entity> & entity, const EntityContent & content, Insertion insertion ) {
   Frame & frame = frames_.emplace_back();
   frame.entity = entity;
   frame.content = &content;
   frame.insertion = std::move( insertion );
}

void Applier::push(
      const Ptr<Entity> & entity, const AttributeInfo & attribute, const AttributeContent * content ) {
   if ( const auto * child = attribute.child() ) {
      push( child->child( *entity ), content && content->child ? *content->child : nothingSaid, {} );
      return;
   }
   Frame & frame = frames_.emplace_back();
   frame.entity = entity;
   frame.attributes.emplace_back( &attribute, content ? content : &nothingSaidOfAttribute );
}

void Applier::pop() {
   const auto insertion = std::move( frames_.back().insertion );
   const auto entity = frames_.back().entity;
   frames_.pop_back();
   if ( insertion.parent ) {
      insertion.collection->insert( *insertion.parent, insertion.key, entity );
      ++changes_;
   }
}

void Applier::entityStep() {
   Frame & frame = frames_.back();
   if ( !frame.begun ) {
      frame.begun = true;
      const auto & said = frame.content->attributes;
      for ( const auto & each : said ) {
         if ( !each.attribute->scalar() ) {
            frame.attributes.emplace_back( each.attribute, &each );
         }
      }
      for ( const auto * attribute : frame.entity->type().attributes() ) {
         const bool named =
               std::ranges::any_of( said, [&]( const auto & each ) { return each.attribute == attribute; } );
         if ( !attribute->scalar() && !named ) {
            frame.attributes.emplace_back( attribute, nullptr );
         }
      }
      // The frame may move from here on: handlers run, but only this class pushes frames.
      scalarsSet( *frame.entity, *frame.content );
      return;
   }
   if ( frame.next == frame.attributes.size() ) {
      pop();
      return;
   }
   const auto [attribute, content] = frame.attributes[frame.next++];
   const auto entity = frame.entity;
   push( entity, *attribute, content );
}

void Applier::scalarsSet( Entity & entity, const EntityContent & content ) {
   const EntityUpdate update( entity );
   for ( const auto * attribute : entity.type().attributes() ) {
      if ( const auto * scalar = attribute->scalar() ) {
         const auto said = std::ranges::find_if(
               content.attributes, [&]( const auto & each ) { return each.attribute == attribute; } );
         scalarSet(
               entity, *attribute, said == content.attributes.end() ? scalar->defaultText() : said->text );
      }
   }
}

void Applier::scalarSet( Entity & entity, const AttributeInfo & attribute, const std::string & text ) {
   const auto * scalar = attribute.scalar();
   const auto before = scalar->text( entity );
   const auto refusal = scalar->textIs( entity, text );
   HM_ASSERT( !refusal, "{} was checked and is refused now: {}", attribute.name(), *refusal );
   if ( scalar->text( entity ) != before ) {
      ++changes_;
   }
}

// One entry goes, or comes, or is gone into.
void Applier::attributeStep() {
   Frame & frame = frames_.back();
   const auto [attribute, content] = frame.attributes.front();
   const auto * keyed = keyedOf( *attribute );
   const auto entity = frame.entity;
   if ( !frame.pruned ) {
      frame.pruneAfter = keyed->nextKey( *entity, frame.pruneAfter );
      if ( !frame.pruneAfter ) {
         frame.pruned = true;
      } else if ( !content->keySet.contains( *frame.pruneAfter ) ) {
         keyed->remove( *entity, *frame.pruneAfter );
         ++changes_;
      }
      return;
   }
   if ( frame.next == content->keys.size() ) {
      pop();
      return;
   }
   const auto index = frame.next++;
   const auto & key = content->keys[index];
   if ( const auto * set = attribute->set() ) {
      if ( !set->has( *entity, key ) ) {
         set->insert( *entity, key );
         ++changes_;
      }
      return;
   }
   const auto * collection = attribute->collection();
   if ( const auto entry = collection->entry( *entity, key ) ) {
      push( entry, content->entries[index], {} );
   } else {
      push( collection->entryNew( key ), content->entries[index], { entity, collection, key } );
   }
}

} // namespace host
