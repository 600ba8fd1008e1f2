#pragma once

#include "host/RedisLink.h"

#include <deque>
#include <functional>
#include <string>

namespace host {

/// Before the path of an entity, a set or a collection: its key.
inline constexpr const char * redisPrefix = "hm:";

/// Reads what a Redis server holds of some roots, level by level as the collections lead, and never by a
/// pattern: what others keep in the same database costs nothing. Each key is looked at by the server itself
/// before anything of it is sent, so that neither its type, nor its size, nor the number of keys is trusted.
///
/// Belongs to the thread of the link. Destroying it ends the reading.
class RedisReader {
 public:
   static constexpr std::size_t maxKeys = 400'000;
   static constexpr std::size_t maxMembers = 65'536; // of a set
   static constexpr std::size_t maxFields = 64;      // of a hash
   static constexpr std::size_t maxTextBytes = 8192; // of one value or member; of ours at most 4,096
   static constexpr std::size_t maxBytes =
         16 << 20; // of the members in one answer, which has a few hundred keys

   /// `done` runs once, never inside this call, and gets why nothing could be read, or an empty text. It may
   /// destroy the reader.
   using Done = std::function<void( const std::string & why )>;
   RedisReader( RedisLink & link, const std::vector<StoredRoot> & roots, Done done );

   /// What was read, once it is done.
   StoredState & state() { return *state_; }

 private:
   struct Wanted {
      std::string path;
      const platform::AttributeInfo * keyed = nullptr; // null: the values of an entity
   };
   void want( const std::string & path, const platform::EntityType & type );
   void ask();
   void answered( const std::vector<Wanted> & asked, const redisReply & reply );
   void take( const Wanted & wanted, const redisReply & reply );

   RedisLink & link_;
   const Done done_;
   const std::shared_ptr<StoredState> state_ = std::make_shared<StoredState>();
   const std::shared_ptr<RedisReader *> self_ = std::make_shared<RedisReader *>( this ); // for late answers
   std::deque<Wanted> wanted_;
   std::size_t underWay_ = 0;
   std::size_t keys_ = 0;
};

} // namespace host
