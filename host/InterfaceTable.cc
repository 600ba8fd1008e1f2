#include "host/InterfaceTable.h"

namespace host {

using namespace platform;

void InterfaceTable::dumpBegin() {
   ++dump_;
   dumping_ = true;
   eventLinks_.clear();
   eventAddresses_.clear();
}

void InterfaceTable::dumpEnd( bool complete ) {
   dumping_ = false;
   eventLinks_.clear();
   eventAddresses_.clear();
   if ( !complete ) {
      return;
   }
   for ( auto at = interfaces_.begin(); at != interfaces_.end(); ) {
      if ( at->second.seen != dump_ ) {
         at = forget( at );
         continue;
      }
      if ( std::erase_if( at->second.addresses,
                 [this]( const auto & each ) { return each.second.seen != dump_; } ) != 0 ) {
         changed_.insert( at->second.link.name );
      }
      ++at;
   }
}

void InterfaceTable::apply( const LinkMessage & link, Origin origin ) {
   if ( origin == Origin::event && dumping_ ) {
      eventLinks_.insert( link.index );
   } else if ( origin == Origin::dump && eventLinks_.contains( link.index ) ) {
      return;
   }
   const auto found = interfaces_.find( link.index );
   if ( link.removed ) {
      if ( found != interfaces_.end() ) {
         forget( found );
      }
      return;
   }
   auto & interface = found == interfaces_.end() ? interfaces_[link.index] : found->second;
   interface.seen = dump_;
   if ( interface.link.name != link.name ) {
      // Another interface may have taken the old name already, when names are swapped and an event was lost.
      if ( const auto old = indexes_.find( interface.link.name );
            old != indexes_.end() && old->second == link.index ) {
         indexes_.erase( old );
         changed_.insert( interface.link.name );
      }
      indexes_[link.name] = link.index;
      changed_.insert( link.name );
   } else if ( interface.link.up != link.up ) {
      changed_.insert( link.name );
   }
   interface.link = link;
}

void InterfaceTable::apply( const AddressMessage & address, Origin origin ) {
   const auto found = interfaces_.find( address.index );
   if ( found == interfaces_.end() ) {
      return; // gone already, or not listed yet; addresses are listed after all links
   }
   const auto key = keyOf( address );
   if ( origin == Origin::event && dumping_ ) {
      eventAddresses_.emplace( address.index, key );
   } else if ( origin == Origin::dump && eventAddresses_.contains( { address.index, key } ) ) {
      return;
   }
   auto & interface = found->second;
   if ( address.removed ) {
      if ( interface.addresses.erase( key ) != 0 ) {
         changed_.insert( interface.link.name );
      }
      return;
   }
   const auto [at, isNew] = interface.addresses.try_emplace( key );
   auto & known = at->second;
   const Address now{ address.prefix, address.usable, address.secondary, address.global,
         // One that becomes primary goes behind those that are, in the kernel as well.
         isNew || known.secondary != address.secondary ? ++arrivals_ : known.order, dump_ };
   if ( isNew || known.prefix != now.prefix || known.usable != now.usable || known.order != now.order ||
         known.global != now.global ) {
      changed_.insert( interface.link.name );
   }
   known = now;
}

IpGenAddr InterfaceTable::ipv4( const std::string & name ) const {
   const Address * first = nullptr;
   if ( const auto * interface = upInterface( name ) ) {
      for ( const auto & [key, each] : interface->addresses ) {
         if ( each.prefix.address.isIpv4() && each.global && !each.secondary &&
               ( !first || each.order < first->order ) ) {
            first = &each;
         }
      }
   }
   return first ? first->prefix.address : IpGenAddr{};
}

std::vector<IpGenPrefix> InterfaceTable::ipv6( const std::string & name ) const {
   std::vector<IpGenPrefix> prefixes;
   if ( const auto * interface = upInterface( name ) ) {
      for ( const auto & [key, each] : interface->addresses ) {
         if ( each.prefix.address.isIpv6() && each.usable ) {
            prefixes.push_back( each.prefix );
         }
      }
   }
   return prefixes;
}

EthAddr InterfaceTable::bridgeMac() const {
   EthAddr ofEthernet;
   for ( const auto & [index, interface] : interfaces_ ) {
      const auto & link = interface.link;
      if ( !link.ethernet || link.mac == EthAddr{} ) {
         continue;
      }
      if ( link.bridge ) {
         return link.mac;
      }
      if ( link.up && ofEthernet == EthAddr{} ) {
         ofEthernet = link.mac;
      }
   }
   return ofEthernet;
}

std::string InterfaceTable::changedTake() {
   return changed_.empty() ? std::string{} : std::move( changed_.extract( changed_.begin() ).value() );
}

InterfaceTable::AddressKey InterfaceTable::keyOf( const AddressMessage & address ) {
   const auto & [own, length] = address.prefix;
   return own.isIpv4() ? AddressKey{ own, length, address.peer } : AddressKey{ own, 0, {} };
}

const InterfaceTable::Interface * InterfaceTable::upInterface( const std::string & name ) const {
   const auto index = indexes_.find( name );
   if ( index == indexes_.end() ) {
      return nullptr;
   }
   const auto & interface = interfaces_.at( index->second );
   return interface.link.up ? &interface : nullptr;
}

InterfaceTable::Interfaces::iterator InterfaceTable::forget( Interfaces::iterator at ) {
   const auto & name = at->second.link.name;
   if ( const auto index = indexes_.find( name ); index != indexes_.end() && index->second == at->first ) {
      indexes_.erase( index );
      changed_.insert( name );
   }
   return interfaces_.erase( at );
}

} // namespace host
