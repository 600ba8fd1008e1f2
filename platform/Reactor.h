#pragma once

#include "platform/Entity.h"

#include <functional>
#include <memory>
#include <vector>

namespace platform {

/// Base of the objects that react to state: they watch attributes of entities and have a handler run, on the
/// main thread and before the setter returns, after each change. Handlers read the present state; several
/// changes may have happened by the time one runs, or none that matters.
///
/// Notifications of a new reactor are off until notificationsEnabledIs( true ); what changes meanwhile is not
/// told later. A reactor may be released from one of its own handlers.
class Reactor : public RefCounted {
 public:
   ~Reactor() override;

   bool notificationsEnabled() const { return notificationsEnabled_; }
   /// A reactor with reactors inside overrides this to switch them along.
   virtual void notificationsEnabledIs( bool enabled ) { notificationsEnabled_ = enabled; }

 protected:
   Reactor();

   /// `handler` runs after each change of a scalar of `entity`.
   template<class E>
   void watch( const Ptr<const E> & entity, AttributeOf<E, void> attribute, std::function<void()> handler ) {
      watchAdd( entity, attribute, [handler = std::move( handler )]( const void * ) { handler(); } );
   }
   /// `handler` runs with the key after each entry that comes or goes.
   template<class E, class Key>
   void watch( const Ptr<const E> & entity, AttributeOf<E, Key> attribute,
         std::function<void( const Key & )> handler ) {
      watchAdd( entity, attribute, [handler = std::move( handler )]( const void * key ) {
         handler( *static_cast<const Key *>( key ) );
      } );
   }
   /// Ends all watches of this reactor; its destructor does the same.
   void unwatchAll();

 private:
   class Watch;
   void watchAdd( Ptr<const Entity> entity, const AttributeInfo & attribute,
         std::function<void( const void * )> handler );

   std::vector<std::unique_ptr<Watch>> watches_;
   bool notificationsEnabled_ = false;
};

} // namespace platform
