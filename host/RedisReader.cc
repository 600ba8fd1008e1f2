#include "host/RedisReader.h"

#include <fmt/format.h>
#include <hiredis/hiredis.h>

namespace host {

using namespace platform;

namespace {

constexpr std::size_t keysAtATime = 256;
constexpr std::size_t maxUnderWay = 8;

// KEYS are looked at in turn; ARGV: the bounds, then "hash" or "set" for each key. The answer has an array a
// key: what is in it, or a single text that says why it is not given. Texts of hashes are cut where they are
// longer than any that is accepted, so that one of them alone is refused.
constexpr const char * readScript = R"(
local maxFields, maxMembers = tonumber( ARGV[1] ), tonumber( ARGV[2] )
local maxText, bytesLeft = tonumber( ARGV[3] ), tonumber( ARGV[4] )
local function fields( items )
   for i, item in ipairs( items ) do
      items[i] = string.sub( item, 1, maxText )
   end
   return items
end
local function members( items )
   for _, item in ipairs( items ) do
      bytesLeft = bytesLeft - #item
      if bytesLeft < 0 or #item > maxText then
         return 'holds too many bytes'
      end
   end
   return items
end
local answers = {}
for i, key in ipairs( KEYS ) do
   local wanted, found = ARGV[4 + i], redis.call( 'TYPE', key ).ok
   if found == 'none' then
      answers[i] = {}
   elseif found ~= wanted then
      answers[i] = 'is a ' .. found .. ' instead of a ' .. wanted
   elseif wanted == 'hash' then
      if redis.call( 'HLEN', key ) > maxFields then
         answers[i] = 'has more than ' .. maxFields .. ' fields'
      else
         answers[i] = fields( redis.call( 'HGETALL', key ) )
      end
   elseif redis.call( 'SCARD', key ) > maxMembers then
      answers[i] = 'has more than ' .. maxMembers .. ' members'
   else
      answers[i] = members( redis.call( 'SMEMBERS', key ) )
   end
end
return answers
)";

std::string text( const redisReply & reply ) {
   return reply.str ? std::string( reply.str, reply.len ) : std::string{};
}

} // namespace

RedisReader::RedisReader( RedisLink & link, const std::vector<StoredRoot> & roots, Done done )
      : link_( link ),
        done_( std::move( done ) ) {
   for ( const auto & root : roots ) {
      want( root.path, *root.type );
   }
   ask();
}

void RedisReader::want( const std::string & path, const EntityType & type ) {
   bool values = false;
   for ( const auto * attribute : type.attributes() ) {
      const auto below = path + "/" + attribute->name();
      if ( const auto * child = attribute->child() ) {
         want( below, child->childType() );
      } else if ( attribute->scalar() ) {
         values = true;
      } else {
         wanted_.push_back( { below, attribute } );
      }
   }
   if ( values ) {
      wanted_.push_back( { path } );
   }
}

void RedisReader::ask() {
   while ( !wanted_.empty() && underWay_ < maxUnderWay ) {
      std::vector<Wanted> asked;
      while ( !wanted_.empty() && asked.size() < keysAtATime ) {
         asked.push_back( std::move( wanted_.front() ) );
         wanted_.pop_front();
      }
      std::vector<std::string> command{ "EVAL", readScript, std::to_string( asked.size() ) };
      for ( const auto & each : asked ) {
         command.push_back( redisPrefix + each.path );
      }
      for ( const auto bound : { maxFields, maxMembers, maxTextBytes, maxBytes } ) {
         command.push_back( std::to_string( bound ) );
      }
      for ( const auto & each : asked ) {
         command.push_back( each.keyed ? "set" : "hash" );
      }
      keys_ += asked.size();
      ++underWay_;
      link_.send( command, [self = std::weak_ptr( self_ ), asked = std::move( asked )]( const auto & reply ) {
         if ( const auto held = self.lock() ) {
            ( *held )->answered( asked, reply );
         }
      } );
   }
}

void RedisReader::answered( const std::vector<Wanted> & asked, const redisReply & reply ) {
   --underWay_;
   if ( reply.type != REDIS_REPLY_ARRAY || reply.elements != asked.size() ) {
      const auto done = done_;
      done( text( reply ) );
      return;
   }
   for ( std::size_t i = 0; i < asked.size(); ++i ) {
      take( asked[i], *reply.element[i] );
   }
   if ( keys_ + wanted_.size() > maxKeys ) {
      const auto done = done_;
      done( fmt::format( "holds more than {} keys of ours", maxKeys ) );
      return;
   }
   ask();
   if ( underWay_ == 0 ) {
      const auto done = done_;
      done( {} );
   }
}

void RedisReader::take( const Wanted & wanted, const redisReply & reply ) {
   if ( reply.type != REDIS_REPLY_ARRAY ) {
      state_->refused.emplace_back( wanted.path, text( reply ) );
      return;
   }
   if ( reply.elements == 0 ) {
      return;
   }
   if ( !wanted.keyed ) {
      auto & fields = state_->fields[wanted.path];
      for ( std::size_t i = 0; i + 1 < reply.elements; i += 2 ) {
         fields.emplace_back( text( *reply.element[i] ), text( *reply.element[i + 1] ) );
      }
      return;
   }
   auto & keys = state_->keys[wanted.path];
   const auto * collection = wanted.keyed->collection();
   for ( std::size_t i = 0; i < reply.elements; ++i ) {
      keys.push_back( text( *reply.element[i] ) );
      if ( collection && !collection->keyCheck( keys.back() ) ) {
         want( wanted.path + "/" + pathEscape( collection->keyNormal( keys.back() ) ),
               collection->entryType() );
      }
   }
}

} // namespace host
