#pragma once

#include <iterator>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

namespace platform {

/// Keyed values in the order of their keys. A walk may lose any entry, its own included, or gain some, at any
/// step: the iterator remembers a key, not a place, and goes on at the next key above it. That also makes a
/// key a bookmark: from( key ) resumes there with one search.
template<class Key, class Value>
class OrderedMap {
 public:
   struct Item {
      Key key;
      Value value;
   };
   class Iterator {
    public:
      Iterator() = default;
      Iterator( const std::map<Key, Value> & map, typename std::map<Key, Value>::const_iterator at )
            : map_( &map ) {
         set( at );
      }
      const Item & operator*() const { return *item_; }
      const Item * operator->() const { return &*item_; }
      Iterator & operator++() {
         set( map_->upper_bound( item_->key ) );
         return *this;
      }
      bool operator==( std::default_sentinel_t ) const { return !item_; }

    private:
      void set( typename std::map<Key, Value>::const_iterator at ) {
         item_.reset();
         if ( at != map_->end() ) {
            item_.emplace( Item{ at->first, at->second } );
         }
      }
      const std::map<Key, Value> * map_ = nullptr;
      std::optional<Item> item_;
   };
   class Range {
    public:
      explicit Range( Iterator begin ) : begin_( std::move( begin ) ) {}
      Iterator begin() const { return begin_; }
      std::default_sentinel_t end() const { return {}; }

    private:
      Iterator begin_;
   };

   Iterator begin() const { return Iterator( map_, map_.begin() ); }
   std::default_sentinel_t end() const { return {}; }
   /// The entries at and above `key`.
   Range from( const Key & key ) const { return Range( Iterator( map_, map_.lower_bound( key ) ) ); }
   /// The entries above `key`.
   Range after( const Key & key ) const { return Range( Iterator( map_, map_.upper_bound( key ) ) ); }

   const Value * find( const Key & key ) const {
      const auto at = map_.find( key );
      return at == map_.end() ? nullptr : &at->second;
   }
   Value * find( const Key & key ) {
      const auto at = map_.find( key );
      return at == map_.end() ? nullptr : &at->second;
   }
   /// Sets the value and returns the place of its key, which stays valid until the entry is erased.
   const Key & insert( const Key & key, Value value ) {
      return map_.insert_or_assign( key, std::move( value ) ).first->first;
   }
   bool erase( const Key & key ) { return map_.erase( key ) != 0; }
   std::size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }

 private:
   std::map<Key, Value> map_;
};

/// The same operations over a hash table, for lookups on hot paths. A walk goes over a snapshot taken at
/// begin().
template<class Key, class Value>
class HashedMap {
 public:
   struct Item {
      Key key;
      Value value;
   };
   class Iterator {
    public:
      explicit Iterator( std::vector<Item> items ) : items_( std::move( items ) ) {}
      const Item & operator*() const { return items_[at_]; }
      Iterator & operator++() {
         ++at_;
         return *this;
      }
      bool operator==( std::default_sentinel_t ) const { return at_ == items_.size(); }

    private:
      std::vector<Item> items_;
      std::size_t at_ = 0;
   };

   Iterator begin() const {
      std::vector<Item> items;
      items.reserve( map_.size() );
      for ( const auto & [key, value] : map_ ) {
         items.push_back( { key, value } );
      }
      return Iterator( std::move( items ) );
   }
   std::default_sentinel_t end() const { return {}; }

   const Value * find( const Key & key ) const {
      const auto at = map_.find( key );
      return at == map_.end() ? nullptr : &at->second;
   }
   Value * find( const Key & key ) {
      const auto at = map_.find( key );
      return at == map_.end() ? nullptr : &at->second;
   }
   const Key & insert( const Key & key, Value value ) {
      return map_.insert_or_assign( key, std::move( value ) ).first->first;
   }
   bool erase( const Key & key ) { return map_.erase( key ) != 0; }
   std::size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }

 private:
   std::unordered_map<Key, Value> map_;
};

} // namespace platform
