// What crosses threads: reference counts, the queue with its wake-ups, loop threads, traces.
#include "platform/EventLoopThread.h"
#include "platform/EventMpmcQueue.h"
#include "platform/Trace.h"

#include <map>
#include <thread>

#include <gmock/gmock.h>

using namespace platform;

namespace {

struct Number : QueueElement {
   Number( int producer_, int value_ ) : producer( producer_ ), value( value_ ) { ++alive; }
   ~Number() override { --alive; }
   const int producer;
   const int value;
   static std::atomic<int> alive;
};
std::atomic<int> Number::alive{ 0 };

class Consumer : public EventLoopThread {
 public:
   Consumer( Ptr<EventLoop> loop, Ptr<EventMpmcQueue> queue, int expected )
         : EventLoopThread( "consumer", std::move( loop ) ),
           queue_( std::move( queue ) ),
           expected_( expected ) {}
   ~Consumer() override { stop(); }
   std::map<int, std::vector<int>> got; // by producer; read once finished
   std::atomic<bool> finished{ false };

 private:
   void doInitSm() override {
      queue_->consumerEvent()->watch( [this] { drain(); } );
   }
   void doDelSm() override { queue_->consumerEvent()->unwatch(); }
   void drain() {
      while ( const auto element = queue_->pop() ) {
         const auto number = dynamicPtrCast<Number>( element );
         got[number->producer].push_back( number->value );
         if ( --expected_ == 0 ) {
            finished = true;
            finished.notify_all();
         }
      }
   }
   const Ptr<EventMpmcQueue> queue_;
   int expected_;
};

} // namespace

TEST( Queue, HandsOverEveryElementInTheOrderOfItsProducer ) {
   RefCounted::threadSafeRefCountsIs();
   constexpr int producers = 4, each = 5'000, early = 3;
   Ptr<EventLoop> loop = new EventLoop;
   Ptr<EventMpmcQueue> queue = new EventMpmcQueue( 0, new FifoEvent( loop ), nullptr, true );
   for ( int i = 0; i < early; ++i ) {
      queue->push( new Number( producers, i ) ); // before the consumer runs: must not be lost
   }
   Ptr<Consumer> consumer = new Consumer( loop, queue, producers * each + early );
   consumer->start();
   std::vector<std::thread> threads;
   for ( int producer = 0; producer < producers; ++producer ) {
      threads.emplace_back( [&queue, producer] {
         for ( int i = 0; i < each; ++i ) {
            queue->push( new Number( producer, i ) );
         }
      } );
   }
   for ( auto & thread : threads ) {
      thread.join();
   }
   consumer->finished.wait( false );
   consumer->stop();
   EXPECT_TRUE( queue->empty() );
   EXPECT_EQ( Number::alive, 0 );
   for ( int producer = 0; producer < producers; ++producer ) {
      ASSERT_EQ( consumer->got[producer].size(), static_cast<std::size_t>( each ) );
      EXPECT_TRUE( std::ranges::is_sorted( consumer->got[producer] ) );
   }
}

TEST( EventLoopThread, StopsThoughTheLoopHasNotBegun ) {
   for ( int round = 0; round < 50; ++round ) {
      Ptr<EventLoop> loop = new EventLoop;
      Ptr<EventMpmcQueue> queue = new EventMpmcQueue( 0, new FifoEvent( loop ), nullptr, true );
      Ptr<Consumer> consumer = new Consumer( loop, queue, 1 );
      consumer->start();
      consumer->stop();
      consumer->stop();
   }
}

TEST( RefCounts, AreAtomicOnceSwitched ) {
   RefCounted::threadSafeRefCountsIs();
   const int before = Number::alive;
   Ptr<Number> shared = new Number( 0, 0 );
   std::vector<std::thread> threads;
   for ( int i = 0; i < 4; ++i ) {
      threads.emplace_back( [shared] {
         for ( int round = 0; round < 20'000; ++round ) {
            Ptr<Number> copy = shared;
            Ptr<QueueElement> base = copy;
            copy = nullptr;
         }
      } );
   }
   for ( auto & thread : threads ) {
      thread.join();
   }
   EXPECT_EQ( Number::alive, before + 1 );
   threads.clear();
   shared = nullptr;
   EXPECT_EQ( Number::alive, before );
}

TEST( Trace, LevelsMayChangeWhileOthersWrite ) {
   const auto facility = TraceFacility::find( "threads" );
   std::thread writer( [&] {
      for ( int i = 0; i < 2'000; ++i ) {
         facility->write( 9, "file.cc", 1, "text" );
      }
   } );
   for ( int i = 0; i < 2'000; ++i ) {
      facility->levelsIs( i % 2 ? 1 << 9 : 0 );
   }
   writer.join();
}
