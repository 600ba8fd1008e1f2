#pragma once

#include "host/Document.h"
#include "platform/EntityManager.h"

#include <vector>

namespace host {

/// Brings the state to what a checked change says, one step at a time, so that a task may yield between any
/// two steps. Main thread only; holds the change and every entity that it works on.
///
/// Only what differs is set. The scalars of one entity change as one for those who watch it; an entry that is
/// new is filled apart and comes into sight when it is complete, however many steps that takes.
class Applier {
 public:
   Applier( platform::Ptr<platform::EntityManager> entityManager, platform::Ptr<CheckedChange> change );

   /// Does one step; false once there was nothing left to do.
   bool step();
   std::uint64_t changes() const { return changes_; } // attributes set and entries that came or went
   const std::vector<std::string> & refusals() const { return refusals_; }

 private:
   struct Insertion {
      platform::Ptr<platform::Entity> parent;
      const platform::CollectionInfo * collection = nullptr;
      std::string key{};
   };
   // An entity, or one set or collection of an entity, with how far the work on it has come.
   struct Frame {
      platform::Ptr<platform::Entity> entity;
      const EntityContent * content = nullptr; // of an entity; null in a frame of an attribute
      Insertion insertion{};                   // for a new entry, once the frame is done
      /// The attributes that are no scalars, with what is said of them.
      std::vector<std::pair<const platform::AttributeInfo *, const AttributeContent *>> attributes{};
      std::size_t next = 0; // of the attributes, or of the keys
      bool begun = false;
      bool pruned = false;                                  // no more entries to remove
      std::optional<std::string> pruneAfter = std::nullopt; // bookmark of the removal
   };

   void sectionBegin( const ChangeSection & section );
   void entityStep();
   void attributeStep();
   void scalarsSet( platform::Entity & entity, const EntityContent & content );
   void scalarSet(
         platform::Entity & entity, const platform::AttributeInfo & attribute, const std::string & text );
   void push( const platform::Ptr<platform::Entity> & entity, const platform::AttributeInfo & attribute,
         const AttributeContent * content );
   void push(
         const platform::Ptr<platform::Entity> & entity, const EntityContent & content, Insertion insertion );
   void pop();

   const platform::Ptr<platform::EntityManager> entityManager_;
   const platform::Ptr<CheckedChange> change_;
   std::size_t section_ = 0;
   std::vector<Frame> frames_;
   std::uint64_t changes_ = 0;
   std::vector<std::string> refusals_;
};

} // namespace host
