#pragma once

#include "platform/Ptr.h"

#include <atomic>
#include <cstddef>

namespace hm {

/// Decides which response bodies travel with the check results to the main thread. Servers decide how large
/// bodies are and how hard they are to judge, so without a bound a single one could fill the memory: a body
/// travels only while a rule reads it and while there is room for it. A result without its body is still a
/// result; it says that the body was left out.
///
/// Shared by the main thread, which says what it reads, and the engine's threads, which ask. No lock.
class PayloadIntake final : public platform::RefCounted {
 public:
   /// Of the bodies that travel at a time: half a thousand of the largest.
   static constexpr std::size_t maxWaitingBytes = 8 * 1024 * 1024;

   /// Whether anything reads bodies; true until it is known.
   void wantedIs( bool wanted ) { wanted_.store( wanted, std::memory_order_relaxed ); }
   bool wanted() const { return wanted_.load( std::memory_order_relaxed ); }

   std::size_t waitingBytes() const { return waitingBytes_.load( std::memory_order_relaxed ); }

 private:
   friend class PayloadTicket;
   bool reserve( std::size_t bytes );
   void release( std::size_t bytes );

   std::atomic<bool> wanted_{ true };
   std::atomic<std::size_t> waitingBytes_{ 0 };
   std::atomic<bool> full_{ false }; // it has been said, and not half of it is free yet
};

/// Room for one body, given back with the object. Any thread; the last one may be another than the first.
class PayloadTicket final {
 public:
   PayloadTicket() = default; // of no body
   /// Empty when there is no room; a trace says so when that begins.
   PayloadTicket( platform::Ptr<PayloadIntake> intake, std::size_t bytes );
   PayloadTicket( PayloadTicket && ) = default;
   PayloadTicket & operator=( PayloadTicket && ) = delete;
   ~PayloadTicket();

   explicit operator bool() const { return static_cast<bool>( intake_ ); }

 private:
   platform::Ptr<PayloadIntake> intake_;
   std::size_t bytes_ = 0;
};

} // namespace hm
