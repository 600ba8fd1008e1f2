#pragma once

#include "platform/EntityManager.h"

#include <string>
#include <vector>

namespace host {

/// A step from an entity down to the next: a child, or the entry of a collection under `key`.
struct SchemaStep {
   const platform::AttributeInfo * attribute = nullptr;
   std::string key{}; // in its normal form; empty for children
};

/// What a path names, whether or not it stands at the moment: an entity, or one of its attributes, or a
/// member of a set.
struct SchemaPlace {
   std::string root;
   std::vector<SchemaStep> steps{};
   const platform::EntityType * type = nullptr; // of the entity at the end of the steps
   const platform::AttributeInfo * attribute = nullptr;
   std::optional<std::string> member = std::nullopt;
   bool outsideWrites = false;
   std::string closedBecause{}; // when it is not written from outside: why

   std::string entityPath() const;
   std::string path() const; // in its normal form
};

/// The paths of the state database by their descriptions alone. Immutable after construction, and so usable
/// on every thread.
class Schema {
 public:
   struct Root {
      std::string path;
      const platform::EntityType * type;
      bool outsideWrites;          // configuration: written by documents and by hmctl
      std::string closedBecause{}; // otherwise: why, behind the path
   };
   /// A root that is not configuration although the agent does not write it.
   struct Closed {
      std::string path;
      std::string because = writtenByHost;
   };
   static constexpr const char * writtenByHost = "is written by the host and its agent only";
   explicit Schema( std::vector<Root> roots ) : roots_( std::move( roots ) ) {}
   /// All roots of `entityManager`; those that the agent writes, and those named, are read-only from outside.
   Schema( const platform::EntityManager & entityManager, const std::vector<Closed> & closed );

   const std::vector<Root> & roots() const { return roots_; }
   [[nodiscard]] platform::Refusal resolve( const std::string & path, SchemaPlace & place ) const;

 private:
   std::vector<Root> roots_;
};

/// The entity that a place leads to; empty when an entry on the way does not stand.
platform::Ptr<platform::Entity> entityAt(
      const platform::EntityManager & entityManager, const SchemaPlace & place );

/// The keyed view of a set or a collection; null for scalars and children.
const platform::KeyedInfo * keyedOf( const platform::AttributeInfo & attribute );

} // namespace host
