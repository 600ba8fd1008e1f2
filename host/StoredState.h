#pragma once

#include "host/Document.h"
#include "host/Schema.h"

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace host {

/// Names of attributes with their values as text.
using StoredFields = std::vector<std::pair<std::string, std::string>>;

/// A root that is stored.
struct StoredRoot {
   std::string path;
   const platform::EntityType * type;
   bool configuration; // false: published by the agent
};

/// The roots of `entityManager` that outlive the process: configuration, and what the agent publishes. What
/// the host says of itself, and what it finds out anew at each start, is neither.
std::vector<StoredRoot> storedRoots( const platform::EntityManager & entityManager, const Schema & schema );

/// Part of the state in the form that all stores share. Each entity has the values of its attributes below
/// its path, and each set and each collection the keys that are in it below its own.
struct StoredState {
   std::unordered_map<std::string, StoredFields> fields{};
   std::unordered_map<std::string, std::vector<std::string>> keys{};

   /// Paths of which the store holds something that is not given, and why not.
   std::vector<std::pair<std::string, std::string>> refused{};

   bool empty() const { return fields.empty() && keys.empty(); }
};

/// The change that brings `roots` to what `state` says, one section each, held against the descriptions only.
/// What the descriptions refuse is left out, and named in `errors` of the change as a document's would be
/// (`source` instead of a file); `untidy` says whether the state holds that or anything else that a store
/// of ours would not. Any thread.
platform::Ptr<CheckedChange> storedChange( const std::vector<StoredRoot> & roots, const StoredState & state,
      const std::string & source, bool & untidy );

} // namespace host
