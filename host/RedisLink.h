#pragma once

#include "host/StateStore.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct event_base;
struct redisAsyncContext;
struct redisReply;

namespace host {

/// The text of an answer, of any bytes; empty when it is none.
std::string text( const redisReply & reply );

/// One connection to a Redis server, on the loop of one thread. What is sent goes out in its order without
/// waiting for the answers, also before the connection stands. May be destroyed from its own callbacks; none
/// of them runs after that.
class RedisLink {
 public:
   /// The answer belongs to the link and is there for the time of the call.
   using Answered = std::function<void( const redisReply & )>;
   using Ended = std::function<void( const std::string & why )>;

   /// `ended` runs once, never inside this call; answers that are missing then do not come any more.
   RedisLink( event_base * base, const StoreUrl & url, Ended ended );
   ~RedisLink();

   void send( const std::vector<std::string> & command, Answered answered = {} );
   /// From here on for subscribing alone. `message` gets each one as it comes ("message", channel, content).
   void subscribe( const std::string & channel, Answered message );
   /// Why there is no connection; empty when there may be one. Asked once, after construction.
   const std::string & refusal() const { return refusal_; }

 private:
   struct Waiting;
   static void connected( const redisAsyncContext * context, int status );
   static void disconnected( const redisAsyncContext * context, int status );
   static void answer( redisAsyncContext * context, void * reply, void * waiting );
   static void message( redisAsyncContext * context, void * reply, void * );
   void end( const redisAsyncContext & context );

   redisAsyncContext * context_ = nullptr; // null once it has ended
   const Ended ended_;
   Answered message_;
   std::string refusal_;
};

} // namespace host
