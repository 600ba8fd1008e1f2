#pragma once

#include "platform/EntityManager.h"

#include <functional>
#include <string>
#include <vector>

namespace host {

/// Turns every change of the state into one line of JSON and hands it to those who asked for its path:
///
///     {"time":"2026-01-31T12:00:00.123Z","path":"…","attribute":"operState","value":"up"}
///     {"time":"…","path":"…","attribute":"serverIp","key":"10.1.1.1","change":"added"}
///
/// `change` is "added" or "removed"; an entry that was added carries its content as `value` unless that is
/// long. Lines end in a newline. Main thread only.
class ChangeFeed final : public platform::RefCounted, private platform::TreeObserver {
 public:
   static constexpr std::size_t maxEntryBytes = 16 * 1024;
   using Receiver = std::function<void( const std::string & line )>;

   /// Watches the roots that `entityManager` has now.
   explicit ChangeFeed( platform::Ptr<platform::EntityManager> entityManager );
   ~ChangeFeed() override;

   /// `receiver` gets the changes at and below `path` (empty: all), and those of the entries that it leads
   /// through. It must not subscribe, unsubscribe or change entities.
   std::uint64_t subscribe( std::string path, Receiver receiver );
   void unsubscribe( std::uint64_t id );

   /// One change line of the present value of a scalar.
   static std::string valueLine( const std::string & path, const platform::AttributeInfo & attribute,
         const platform::Entity & entity );
   /// One change line of an entry that came or went; with the content of the entry when `entity` is given.
   static std::string entryLine( const std::string & path, const platform::AttributeInfo & attribute,
         const std::string & key, bool added, const platform::Entity * entity = nullptr );

 private:
   struct Subscription {
      std::uint64_t id;
      std::string path;
      Receiver receiver;
   };
   void treeChanged( const platform::Entity & entity, const platform::AttributeInfo & attribute,
         const std::string & key ) override;

   const platform::Ptr<platform::EntityManager> entityManager_;
   std::vector<Subscription> subscriptions_;
   std::uint64_t nextId_ = 1;
};

} // namespace host
