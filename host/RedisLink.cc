#include "host/RedisLink.h"

#include <hiredis/adapters/libevent.h>
#include <hiredis/async.h>
#include <hiredis/hiredis.h>

namespace host {

struct RedisLink::Waiting {
   Answered answered;
};

RedisLink::RedisLink( event_base * base, const StoreUrl & url, Ended ended ) : ended_( std::move( ended ) ) {
   context_ = url.host.empty() ? redisAsyncConnectUnix( url.path.c_str() )
                               : redisAsyncConnect( url.host.c_str(), url.port );
   if ( !context_ || context_->err ) {
      refusal_ = context_ ? context_->errstr : "out of memory";
      if ( context_ ) {
         redisAsyncFree( std::exchange( context_, nullptr ) );
      }
      return;
   }
   context_->data = this;
   redisLibeventAttach( context_, base );
   redisAsyncSetConnectCallback( context_, connected );
   redisAsyncSetDisconnectCallback( context_, disconnected );
}

RedisLink::~RedisLink() {
   if ( auto * context = std::exchange( context_, nullptr ) ) {
      context->data = nullptr; // what is left to be called back finds nobody
      redisAsyncFree( context );
   }
}

void RedisLink::send( const std::vector<std::string> & command, Answered answered ) {
   if ( !context_ ) {
      return;
   }
   std::vector<const char *> texts;
   std::vector<std::size_t> sizes;
   texts.reserve( command.size() );
   sizes.reserve( command.size() );
   for ( const auto & word : command ) {
      texts.push_back( word.data() );
      sizes.push_back( word.size() );
   }
   // Without somebody who waits the answer still has to be an entry in the context's list, but no more.
   auto * waiting = answered ? new Waiting{ std::move( answered ) } : nullptr;
   const int code = redisAsyncCommandArgv( context_, waiting ? answer : nullptr, waiting,
         static_cast<int>( texts.size() ), texts.data(), sizes.data() );
   if ( code != REDIS_OK ) {
      delete waiting; // the connection is being ended
   }
}

void RedisLink::subscribe( const std::string & channel, Answered message ) {
   message_ = std::move( message );
   if ( context_ ) {
      redisAsyncCommand(
            context_, RedisLink::message, nullptr, "SUBSCRIBE %b", channel.data(), channel.size() );
   }
}

void RedisLink::connected( const redisAsyncContext * context, int status ) {
   if ( status != REDIS_OK && context->data ) {
      static_cast<RedisLink *>( context->data )->end( *context );
   }
}

void RedisLink::disconnected( const redisAsyncContext * context, int ) {
   if ( context->data ) {
      static_cast<RedisLink *>( context->data )->end( *context );
   }
}

// The context frees itself after this.
void RedisLink::end( const redisAsyncContext & context ) {
   const std::string why = context.err ? context.errstr : "closed";
   context_->data = nullptr;
   context_ = nullptr;
   const auto ended = ended_; // may destroy this
   ended( why );
}

void RedisLink::answer( redisAsyncContext * context, void * reply, void * privdata ) {
   const std::unique_ptr<Waiting> waiting( static_cast<Waiting *>( privdata ) );
   if ( reply && context->data ) {
      waiting->answered( *static_cast<const redisReply *>( reply ) );
   }
}

void RedisLink::message( redisAsyncContext * context, void * reply, void * ) {
   if ( reply && context->data ) {
      static_cast<RedisLink *>( context->data )->message_( *static_cast<const redisReply *>( reply ) );
   }
}

std::string text( const redisReply & reply ) {
   return reply.str ? std::string( reply.str, reply.len ) : std::string{};
}

} // namespace host
