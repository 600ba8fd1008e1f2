#pragma once

#include "host/Schema.h"
#include "host/Yaml.h"
#include "platform/EventMpmcQueue.h"

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace host {

struct EntityContent;

/// What a document says about one attribute. Keys are in their normal form, in the document's order.
struct AttributeContent {
   const platform::AttributeInfo * attribute = nullptr;
   std::size_t line = 0;
   std::string text{};                       // scalars
   std::vector<std::string> keys{};          // sets and collections
   std::unordered_set<std::string> keySet{}; // the same, to look them up
   std::vector<EntityContent> entries;       // collections: one a key
   std::unique_ptr<EntityContent> child;     // children
};

/// What a document says about one entity; attributes that are not named take their defaults.
struct EntityContent {
   std::vector<AttributeContent> attributes{};
};

/// One change to the state: a path of a document with its content, or one entry that comes or goes.
struct ChangeSection {
   enum class Kind {
      entity,    // the place becomes what `entity` says
      attribute, // the one attribute of the place becomes what `attribute` says
      insert,    // of `key` into the set or collection; what stands is left alone
      remove     // of `key`, which must stand
   };
   Kind kind = Kind::entity;
   SchemaPlace place{};
   std::size_t line = 0;
   EntityContent entity{};
   AttributeContent attribute{};
   std::string key{};
};

/// A change as someone asks for it.
struct ChangeRequest {
   enum class Kind { document, set, remove };
   Kind kind = Kind::document;
   bool checkOnly = false;
   std::string source{};    // documents: name of the file, for messages
   std::string text{};      // documents
   std::string path{};      // set, remove
   std::string attribute{}; // set
   std::string value{};     // set: the value; remove: the key
};

/// What is wrong with a change, one line each: FILE:LINE: PATH: ATTRIBUTE: what is wrong. Beyond a bound they
/// are counted only.
class ChangeErrors {
 public:
   static constexpr std::size_t maxLines = 20;

   /// `source`: name of the file; empty: none.
   explicit ChangeErrors( std::string source ) : source_( std::move( source ) ) {}
   /// `line` 0, and an empty path or attribute: left out.
   void add( std::size_t line, const std::string & path, const std::string & attribute,
         const std::string & message );
   bool empty() const { return count_ == 0; }
   std::vector<std::string> lines() const;

 private:
   const std::string source_;
   std::size_t count_ = 0;
   std::vector<std::string> lines_;
};

/// A change that was checked whole: either what is wrong with it or what to do, in order. Immutable then, and
/// shared between threads.
class CheckedChange : public platform::QueueElement {
 public:
   std::string source{};
   std::vector<std::string> errors{}; // as ChangeErrors has them
   std::vector<ChangeSection> sections{};
};

/// Checks a request against the descriptions alone; CrossCheck holds it against the state. Any thread.
/// `cancelled` ends the work early.
platform::Ptr<CheckedChange> checkChange(
      const Schema & schema, const ChangeRequest & request, const YamlDocument::Cancelled & cancelled = {} );

} // namespace host
