#include "platform/Reactor.h"

namespace platform {

class Reactor::Watch final : public EntityObserver {
 public:
   Watch( Reactor & reactor, Ptr<const Entity> entity, const AttributeInfo & attribute,
         std::function<void( const void * )> handler )
         : reactor_( reactor ),
           entity_( std::move( entity ) ),
           attribute_( attribute ),
           handler_( std::make_shared<std::function<void( const void * )>>( std::move( handler ) ) ) {
      entity_->observe( *this );
   }
   ~Watch() { entity_->unobserve( *this ); }

   void attributeChanged( const AttributeInfo & attribute, const void * key ) override {
      if ( &attribute == &attribute_ && reactor_.notificationsEnabled() ) {
         // The handler may end this watch; it must outlive its own run, and so must the reactor behind it.
         const auto handler = handler_;
         const Ptr<Reactor> reactor( &reactor_ );
         ( *handler )( key );
      }
   }

 private:
   Reactor & reactor_;
   const Ptr<const Entity> entity_;
   const AttributeInfo & attribute_;
   const std::shared_ptr<std::function<void( const void * )>> handler_;
};

Reactor::Reactor() = default;
Reactor::~Reactor() = default;

void Reactor::watchAdd( Ptr<const Entity> entity, const AttributeInfo & attribute,
      std::function<void( const void * )> handler ) {
   watches_.push_back(
         std::make_unique<Watch>( *this, std::move( entity ), attribute, std::move( handler ) ) );
}

void Reactor::unwatchAll() {
   watches_.clear();
}

} // namespace platform
