#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

namespace platform {

template<class T>
class Ptr;

/// Base of everything that is shared by reference count. The count lives in the object, starts at 0, and the
/// last Ptr to go deletes the object, on whatever thread that happens.
///
/// Counts begin as plain additions, which is all a single-threaded start needs. A process that shares objects
/// between threads calls threadSafeRefCountsIs() once, before the first object crosses; from then on every
/// count is changed atomically. There is no way back.
class RefCounted {
 public:
   static void threadSafeRefCountsIs() { threadSafe_.store( true, std::memory_order_relaxed ); }
   static bool threadSafeRefCounts() { return threadSafe_.load( std::memory_order_relaxed ); }

   RefCounted( const RefCounted & ) = delete;
   RefCounted & operator=( const RefCounted & ) = delete;

 protected:
   RefCounted() = default;
   virtual ~RefCounted() = default;

 private:
   template<class T>
   friend class Ptr;

   void refInc() const {
      if ( threadSafeRefCounts() ) {
         refCount_.fetch_add( 1, std::memory_order_relaxed );
      } else {
         refCount_.store( refCount_.load( std::memory_order_relaxed ) + 1, std::memory_order_relaxed );
      }
   }
   void refDec() const {
      std::uint32_t left;
      if ( threadSafeRefCounts() ) {
         left = refCount_.fetch_sub( 1, std::memory_order_acq_rel ) - 1;
      } else {
         left = refCount_.load( std::memory_order_relaxed ) - 1;
         refCount_.store( left, std::memory_order_relaxed );
      }
      if ( left == 0 ) {
         delete this;
      }
   }

   mutable std::atomic<std::uint32_t> refCount_{ 0 };
   // One object in libHmPlatform, so that every library of the process follows the same switch.
   static std::atomic<bool> threadSafe_;
};

/// Shared ownership of a RefCounted object; empty when default-constructed. Converts to Ptr of a base class
/// and to Ptr of const, which is how a read-only view is handed out.
template<class T>
class Ptr {
 public:
   Ptr() = default;
   Ptr( std::nullptr_t ) {}
   Ptr( T * object ) : object_( object ) { hold(); }
   Ptr( const Ptr & other ) : object_( other.object_ ) { hold(); }
   Ptr( Ptr && other ) noexcept : object_( std::exchange( other.object_, nullptr ) ) {}
   template<class U>
   requires std::convertible_to<U *, T *> Ptr( const Ptr<U> & other ) : object_( other.get() ) { hold(); }
   ~Ptr() { release(); }

   Ptr & operator=( Ptr other ) noexcept {
      std::swap( object_, other.object_ );
      return *this;
   }

   T * get() const { return object_; }
   T * operator->() const { return object_; }
   T & operator*() const { return *object_; }
   explicit operator bool() const { return object_ != nullptr; }

   friend bool operator==( const Ptr & a, const Ptr & b ) { return a.object_ == b.object_; }
   friend bool operator==( const Ptr & a, std::nullptr_t ) { return a.object_ == nullptr; }
   friend auto operator<=>( const Ptr & a, const Ptr & b ) {
      return std::compare_three_way{}( a.object_, b.object_ );
   }

 private:
   void hold() const {
      if ( object_ ) {
         object_->refInc();
      }
   }
   void release() const {
      if ( object_ ) {
         object_->refDec();
      }
   }

   T * object_ = nullptr;
};

/// The object as a `T`, or empty when it is of another type.
template<class T, class U>
Ptr<T> dynamicPtrCast( const Ptr<U> & from ) {
   return Ptr<T>( dynamic_cast<T *>( from.get() ) );
}

} // namespace platform

template<class T>
struct std::hash<platform::Ptr<T>> {
   std::size_t operator()( const platform::Ptr<T> & ptr ) const { return std::hash<T *>{}( ptr.get() ); }
};
