#include "host/ControlClient.h"

#include "host/StateWriter.h"

#include <fmt/format.h>

namespace host {

using namespace platform;

namespace {

/// The present state below some places as the lines that would have told of it, in pieces. An entry that goes
/// between two of them is told to its end, under the path that it had.
class StateLines {
 public:
   /// All of an entity; or of one attribute; or of that one member.
   void add( const Ptr<Entity> & entity, std::string path, const AttributeInfo * attribute = nullptr,
         const std::optional<std::string> & member = std::nullopt ) {
      frames_.push_back( { entity, std::move( path ), attribute, member } );
   }

   /// The next line, or nothing for a step without one; `done` once there are no more.
   std::string next() {
      Frame & frame = frames_.back();
      const auto & attributes = frame.entity->type().attributes();
      if ( frame.index == attributes.size() ) {
         frames_.pop_back();
         return {};
      }
      const auto & attribute = *attributes[frame.index];
      const auto entity = frame.entity;
      const auto path = frame.path;
      if ( frame.only && frame.only != &attribute ) {
         ++frame.index;
         return {};
      }
      if ( attribute.scalar() ) {
         ++frame.index;
         return ChangeFeed::valueLine( path, attribute, *entity );
      }
      if ( const auto * child = attribute.child() ) {
         ++frame.index;
         add( child->child( *entity ), path + "/" + attribute.name() );
         return {};
      }
      const auto * keyed = keyedOf( attribute );
      if ( frame.member ) {
         ++frame.index;
         return keyed->has( *entity, *frame.member )
                      ? ChangeFeed::entryLine( path, attribute, *frame.member, true )
                      : std::string{};
      }
      frame.after = keyed->nextKey( *entity, frame.after );
      if ( !frame.after ) {
         ++frame.index;
         return {};
      }
      const auto key = *frame.after;
      if ( const auto * collection = attribute.collection() ) {
         add( collection->entry( *entity, key ), path + "/" + attribute.name() + "/" + pathEscape( key ) );
      }
      return ChangeFeed::entryLine( path, attribute, key, true );
   }
   bool done() const { return frames_.empty(); }

 private:
   struct Frame {
      Ptr<Entity> entity;
      std::string path;
      const AttributeInfo * only = nullptr;             // null: all attributes
      std::optional<std::string> member = std::nullopt; // of `only`; none: all
      std::size_t index = 0;
      std::optional<std::string> after = std::nullopt;
   };
   std::vector<Frame> frames_;
};

/// Changes are kept until the client takes them, up to a bound; what is beyond is counted, and the client is
/// told how many changes it missed.
class WatchAnswer final : public Answer {
 public:
   WatchAnswer( ControlClient & client, const std::string & path, bool initial )
         : client_( client ),
           feed_( client.server().services().changeFeed ),
           subscription_(
                 feed_->subscribe( path, [this]( const std::string & line ) { changed( line ); } ) ) {
      if ( initial ) {
         const auto & services = client.server().services();
         SchemaPlace place;
         if ( !services.schema->resolve( path, place ) ) {
            if ( const auto entity = entityAt( *services.entityManager, place ) ) {
               present_.add( entity, place.entityPath(), place.attribute, place.member );
            }
            return;
         }
         const auto & roots = services.schema->roots();
         for ( auto root = roots.rbegin(); root != roots.rend(); ++root ) {
            if ( pathIsAtOrBelow( root->path, path ) ) {
               present_.add( services.entityManager->entity( root->path ), root->path );
            }
         }
      }
   }
   ~WatchAnswer() override { feed_->unsubscribe( subscription_ ); }

   bool endless() const override { return true; }
   bool ready() const override { return !present_.done() || !pending_.empty() || lost_ != 0; }
   bool produce( std::string & out ) override {
      constexpr std::size_t pieceBytes = 4096;
      const auto begin = out.size();
      while ( !present_.done() && out.size() - begin < pieceBytes ) {
         out += present_.next();
      }
      if ( !present_.done() ) {
         return true;
      }
      while ( sent_ < pending_.size() && out.size() - begin < pieceBytes ) {
         const auto end = pending_.find( '\n', sent_ ) + 1;
         out.append( pending_, sent_, end - sent_ );
         sent_ = end;
      }
      if ( sent_ == pending_.size() ) {
         pending_.clear();
         sent_ = 0;
         if ( lost_ != 0 ) {
            out += fmt::format( "{{\"lost\":{}}}\n", lost_ );
            lost_ = 0;
         }
      }
      return true;
   }

 private:
   static constexpr std::size_t maxPendingBytes = 1 << 20;

   void changed( const std::string & line ) {
      if ( lost_ != 0 || pending_.size() - sent_ + line.size() > maxPendingBytes ) {
         ++lost_;
         client_.wake(); // what is lost is told even when nothing else waits
         return;
      }
      if ( sent_ > maxPendingBytes ) {
         pending_.erase( 0, sent_ );
         sent_ = 0;
      }
      pending_ += line;
      client_.wake();
   }

   ControlClient & client_; // owns this answer
   const Ptr<ChangeFeed> feed_;
   const std::uint64_t subscription_;
   StateLines present_;
   std::string pending_;
   std::size_t sent_ = 0; // of pending_
   std::uint64_t lost_ = 0;
};

} // namespace

std::unique_ptr<Answer> watchAnswer( ControlClient & client, const std::string & path, bool initial ) {
   return std::make_unique<WatchAnswer>( client, path, initial );
}

} // namespace host
