#pragma once

#include "platform/Entity.h"

#include <type_traits>

/// The macros that declare attributes, and the descriptions they make. Included by Entity.h.
///
///     HM_ENTITY( Class )                   first line of the class
///     HM_ENTITY_TYPE( Class )              once, in a source of the class's library
///     HM_ATTRIBUTE( Type, name, default… ) name(), nameIs( v )
///     HM_ATTRIBUTE_CHECKED( Type, name, check, default… )
///                                          the same; `Refusal check( const Type & )` bounds what comes in as
///                                          text
///     HM_SET( Key, name )                  nameIs( k ), nameDel( k ), nameDelAll(), nameHas( k ),
///                                          nameCount(), nameItems() to walk
///     HM_COLLECTION( Key, Entry, name )    the same with nameIs( k ) giving the entry (found or made) and
///                                          name( k ) giving it or nothing; Entry is built from its key
///     HM_CHILD( Class, name )              name() gives it
///
/// And of the process only, neither described nor notified:
///
///     HM_MAP( Key, Value, name )           nameIs( k, v ), name( k ) as optional
///     HM_HASHED_MAP( Key, Value, name )    the same, for hot lookups
///     HM_HASHED_COLLECTION( Key, Entry, name )
///                                          shared records by key, for hot lookups
///
/// nameAttr() is the description of an attribute: what a reactor names to watch it. A setter given the
/// current value changes nothing and tells nobody; deleting what is not there does nothing. Attributes whose
/// type has no text form (no ValueTraits) are notified like all others and left out of the description.

namespace platform {

/// Tells the declarations of one class apart, by the line on which they stand.
template<int line>
struct AtLine {};

/// Lines from HM_ENTITY on among which the attributes of a class are looked for.
inline constexpr int longestEntity = 200;

template<class E, int line>
void addDeclaredAt( std::vector<EntityType::Declared> & found ) {
   if constexpr ( requires { E::declaredAt( AtLine<line>{} ); } ) {
      found.push_back( { line, E::declaredAt( AtLine<line>{} ) } );
   }
}

template<class E, int... offset>
std::vector<EntityType::Declared> declaredAmong( std::integer_sequence<int, offset...> ) {
   std::vector<EntityType::Declared> found;
   ( addDeclaredAt<E, E::entityLine + offset>( found ), ... );
   return found;
}

/// The attributes of class E. Called in the one source that defines the class's type, so that all the code
/// behind the descriptions is compiled there and nowhere else.
template<class E>
std::vector<EntityType::Declared> declaredAttributes() {
   return declaredAmong<E>( std::make_integer_sequence<int, longestEntity>{} );
}

/// The described kinds of attributes follow, one template each.
template<class T>
class ScalarAttribute final : public AttributeInfo, public ScalarInfo {
 public:
   static constexpr bool described = HasValueTraits<T>;
   using Getter = const T & (*)( const Entity & );
   using Setter = void ( * )( Entity &, const T & );
   using Check = Refusal ( * )( const T & );

   ScalarAttribute( const char * name, Getter getter, Setter setter, T ( *initial )(), Check check )
         : AttributeInfo( name ),
           getter_( getter ),
           setter_( setter ),
           initial_( initial ),
           check_( check ) {}

   const ScalarInfo * scalar() const override { return described ? this : nullptr; }
   ValueKind kind() const override {
      if constexpr ( described ) {
         return ValueTraits<T>::kind;
      }
      return ValueKind::text;
   }
   std::string typeName() const override {
      if constexpr ( described ) {
         return ValueTraits<T>::typeName();
      }
      return {};
   }
   std::string defaultText() const override { return toText( initial_() ); }
   Refusal check( std::string_view text ) const override {
      T value{};
      return parse( text, value );
   }
   std::string text( const Entity & entity ) const override { return toText( getter_( entity ) ); }
   Refusal textIs( Entity & entity, std::string_view text ) const override {
      T value{};
      auto refusal = parse( text, value );
      if ( !refusal ) {
         setter_( entity, value );
      }
      return refusal;
   }

 private:
   static std::string toText( const T & value ) {
      if constexpr ( described ) {
         return ValueTraits<T>::toText( value );
      }
      return {};
   }
   Refusal parse( std::string_view text, T & value ) const {
      if constexpr ( described ) {
         auto refusal = ValueTraits<T>::fromText( text, value );
         if ( !refusal && check_ ) {
            refusal = check_( value );
         }
         return refusal;
      }
      return "has no text form";
   }

   const Getter getter_;
   const Setter setter_;
   T ( *const initial_ )();
   const Check check_;
};

/// Bytes of a key as text: names of groups, profiles and interfaces go into names of the engine, paths and
/// files.
inline constexpr std::size_t longestKey = 255;

/// What the keyed attributes share, over the container that a class keeps under the name.
template<class E, class Key, class Base>
class KeyedAttribute : public AttributeInfo, public Base {
 public:
   using AttributeInfo::AttributeInfo;

   std::string keyText( const void * key ) const override {
      return key ? toText( *static_cast<const Key *>( key ) ) : std::string{};
   }
   std::string keyTypeName() const override {
      if constexpr ( HasValueTraits<Key> ) {
         return ValueTraits<Key>::typeName();
      }
      return {};
   }
   Refusal keyCheck( std::string_view text ) const override {
      if ( text.size() > longestKey ) {
         return "is longer than " + std::to_string( longestKey ) + " bytes";
      }
      Key key{};
      auto refusal = parse( text, key );
      if ( !refusal && key == Key{} ) {
         return "is empty";
      }
      return refusal;
   }
   std::string keyNormal( std::string_view text ) const override { return toText( toKey( text ) ); }

 protected:
   static std::string toText( const Key & key ) {
      if constexpr ( HasValueTraits<Key> ) {
         return ValueTraits<Key>::toText( key );
      }
      return {};
   }
   static Key toKey( std::string_view text ) { return readBack( text ).value_or( Key{} ); }
   template<class Items>
   static std::optional<std::string> next( const Items & items, const std::optional<std::string> & after ) {
      if ( !after ) {
         auto first = items.begin();
         return first == items.end() ? std::nullopt : std::optional( toText( first->key ) );
      }
      // Without its place the walk ends; it would begin again for ever.
      if ( const auto key = readBack( *after ) ) {
         for ( const auto & item : items.after( *key ) ) {
            return toText( item.key );
         }
      }
      return std::nullopt;
   }

 private:
   // The key that toText() wrote. It is not checked: what the process itself put into a map may be longer
   // than what comes from outside, or no UTF-8, and is found all the same.
   static std::optional<Key> readBack( std::string_view text ) {
      if constexpr ( std::is_constructible_v<Key, std::string> && !std::is_aggregate_v<Key> ) {
         return Key( std::string( text ) );
      } else {
         Key key{};
         return parse( text, key ) ? std::nullopt : std::optional( key );
      }
   }
   static Refusal parse( std::string_view text, Key & key ) {
      if constexpr ( HasValueTraits<Key> ) {
         return ValueTraits<Key>::fromText( text, key );
      }
      return "has no text form";
   }
};

struct Nothing {};

template<class E, class Key>
class SetAttribute final : public KeyedAttribute<E, Key, SetInfo> {
 public:
   static constexpr bool described = HasValueTraits<Key>;
   using Items = const OrderedMap<Key, Nothing> & (E::*)() const;
   using Changer = void ( E::* )( const Key & );

   SetAttribute( const char * name, Items items, Changer adder, Changer remover )
         : KeyedAttribute<E, Key, SetInfo>( name ),
           items_( items ),
           adder_( adder ),
           remover_( remover ) {}

   const SetInfo * set() const override { return described ? this : nullptr; }
   std::size_t count( const Entity & entity ) const override { return items( entity ).size(); }
   bool has( const Entity & entity, std::string_view key ) const override {
      return items( entity ).find( this->toKey( key ) ) != nullptr;
   }
   std::optional<std::string> nextKey(
         const Entity & entity, const std::optional<std::string> & after ) const override {
      return this->next( items( entity ), after );
   }
   void insert( Entity & entity, std::string_view key ) const override {
      ( static_cast<E &>( entity ).*adder_ )( this->toKey( key ) );
   }
   void remove( Entity & entity, std::string_view key ) const override {
      ( static_cast<E &>( entity ).*remover_ )( this->toKey( key ) );
   }

 private:
   const OrderedMap<Key, Nothing> & items( const Entity & entity ) const {
      return ( static_cast<const E &>( entity ).*items_ )();
   }
   const Items items_;
   const Changer adder_;
   const Changer remover_;
};

template<class Entry, class Key>
Ptr<Entry> entryFromKey( const Key & key ) {
   if constexpr ( std::is_constructible_v<Entry, const Key &> ) {
      return new Entry( key );
   } else {
      return new Entry();
   }
}

template<class E, class Key, class Entry>
class CollectionAttribute final : public KeyedAttribute<E, Key, CollectionInfo> {
 public:
   static constexpr bool described = HasValueTraits<Key> && std::derived_from<Entry, Entity>;
   using Items = const OrderedMap<Key, Ptr<Entry>> & (E::*)() const;
   using Inserter = void ( E::* )( const Key &, const Ptr<Entry> & );
   using Remover = void ( E::* )( const Key & );

   CollectionAttribute( const char * name, Items items, Inserter inserter, Remover remover )
         : KeyedAttribute<E, Key, CollectionInfo>( name ),
           items_( items ),
           inserter_( inserter ),
           remover_( remover ) {}

   const CollectionInfo * collection() const override { return described ? this : nullptr; }
   std::size_t count( const Entity & entity ) const override { return items( entity ).size(); }
   bool has( const Entity & entity, std::string_view key ) const override {
      return items( entity ).find( this->toKey( key ) ) != nullptr;
   }
   std::optional<std::string> nextKey(
         const Entity & entity, const std::optional<std::string> & after ) const override {
      return this->next( items( entity ), after );
   }
   const EntityType & entryType() const override {
      if constexpr ( described ) {
         return Entry::entityType();
      }
      return E::entityType(); // never asked: the attribute is not described
   }
   Ptr<Entity> entry( const Entity & entity, std::string_view key ) const override {
      if constexpr ( described ) {
         if ( const auto * found = items( entity ).find( this->toKey( key ) ) ) {
            return *found;
         }
      }
      return nullptr;
   }
   Ptr<Entity> entryNew( std::string_view key ) const override {
      if constexpr ( described ) {
         return entryFromKey<Entry>( this->toKey( key ) );
      }
      return nullptr;
   }
   void insert( Entity & entity, std::string_view key, const Ptr<Entity> & entry ) const override {
      if constexpr ( described ) {
         ( static_cast<E &>( entity ).*inserter_ )( this->toKey( key ), dynamicPtrCast<Entry>( entry ) );
      }
   }
   void remove( Entity & entity, std::string_view key ) const override {
      ( static_cast<E &>( entity ).*remover_ )( this->toKey( key ) );
   }

 private:
   const OrderedMap<Key, Ptr<Entry>> & items( const Entity & entity ) const {
      return ( static_cast<const E &>( entity ).*items_ )();
   }
   const Items items_;
   const Inserter inserter_;
   const Remover remover_;
};

template<class E, class Child>
class ChildAttribute final : public AttributeInfo, public ChildInfo {
 public:
   using Getter = Ptr<Child> ( E::* )();

   ChildAttribute( const char * name, Getter getter ) : AttributeInfo( name ), getter_( getter ) {}
   const ChildInfo * child() const override { return this; }
   const EntityType & childType() const override { return Child::entityType(); }
   Ptr<Entity> child( const Entity & entity ) const override {
      // The tree below a read-only view is handed out only to those who walk descriptions.
      return ( const_cast<E &>( static_cast<const E &>( entity ) ).*getter_ )();
   }

 private:
   const Getter getter_;
};

} // namespace platform

#define HM_ENTITY( Class )                               \
 public:                                                 \
   using Self = Class;                                   \
   static constexpr int entityLine = __LINE__;           \
   static const ::platform::EntityType & entityType();   \
   const ::platform::EntityType & type() const override; \
                                                         \
 private:

#define HM_ENTITY_TYPE( Class )                                                                    \
   const ::platform::EntityType & Class::entityType() {                                            \
      static const ::platform::EntityType type( #Class, ::platform::declaredAttributes<Class>() ); \
      return type;                                                                                 \
   }                                                                                               \
   const ::platform::EntityType & Class::type() const {                                            \
      return entityType();                                                                         \
   }

// The attribute's own name for its description. Belongs behind declaredAt() in the same declaration.
#define HM_NAMED_( attr, Key )                                                             \
 public:                                                                                   \
   static ::platform::AttributeOf<Self, Key> attr##Attr() {                                \
      static const ::platform::AttributeInfo & info = entityType().declaredAt( __LINE__ ); \
      return { info };                                                                     \
   }                                                                                       \
   static_assert( __LINE__ < entityLine + ::platform::longestEntity );                     \
                                                                                           \
 private:

#define HM_ATTRIBUTE( Type, attr, ... ) HM_ATTRIBUTE_CHECKED( Type, attr, nullptr, __VA_ARGS__ )

#define HM_ATTRIBUTE_CHECKED( Type, attr, check, ... )                                   \
 public:                                                                                 \
   const Type & attr() const {                                                           \
      return attr##_;                                                                    \
   }                                                                                     \
   void attr##Is( const Type & value ) {                                                 \
      if ( attr##_ == value ) {                                                          \
         return;                                                                         \
      }                                                                                  \
      attr##_ = value;                                                                   \
      changed( attr##Attr() );                                                           \
   }                                                                                     \
   static Type attr##Default() {                                                         \
      return Type{ __VA_ARGS__ };                                                        \
   }                                                                                     \
   static const ::platform::AttributeInfo * declaredAt( ::platform::AtLine<__LINE__> ) { \
      static const ::platform::ScalarAttribute<Type> info(                               \
            #attr,                                                                       \
            []( const ::platform::Entity & entity ) -> const Type & {                    \
               return static_cast<const Self &>( entity ).attr##_;                       \
            },                                                                           \
            []( ::platform::Entity & entity, const Type & value ) {                      \
               static_cast<Self &>( entity ).attr##Is( value );                          \
            },                                                                           \
            attr##Default, check );                                                      \
      return &info;                                                                      \
   }                                                                                     \
                                                                                         \
 private:                                                                                \
   Type attr##_{ __VA_ARGS__ };                                                          \
   HM_NAMED_( attr, void )

#define HM_SET( Key, attr )                                                              \
 public:                                                                                 \
   const ::platform::OrderedMap<Key, ::platform::Nothing> & attr##Items() const {        \
      return attr##_;                                                                    \
   }                                                                                     \
   bool attr##Has( const Key & key ) const {                                             \
      return attr##_.find( key ) != nullptr;                                             \
   }                                                                                     \
   std::size_t attr##Count() const {                                                     \
      return attr##_.size();                                                             \
   }                                                                                     \
   void attr##Is( const Key & key ) {                                                    \
      if ( !attr##Has( key ) ) {                                                         \
         const Key added = key;                                                          \
         attr##_.insert( added, {} );                                                    \
         changed( attr##Attr(), &added );                                                \
      }                                                                                  \
   }                                                                                     \
   void attr##Del( const Key & key ) {                                                   \
      const Key removed = key;                                                           \
      if ( attr##_.erase( removed ) ) {                                                  \
         changed( attr##Attr(), &removed );                                              \
      }                                                                                  \
   }                                                                                     \
   void attr##DelAll() {                                                                 \
      for ( const auto & item : attr##_ ) {                                              \
         attr##Del( item.key );                                                          \
      }                                                                                  \
   }                                                                                     \
   static const ::platform::AttributeInfo * declaredAt( ::platform::AtLine<__LINE__> ) { \
      static const ::platform::SetAttribute<Self, Key> info(                             \
            #attr, &Self::attr##Items, &Self::attr##Is, &Self::attr##Del );              \
      return &info;                                                                      \
   }                                                                                     \
                                                                                         \
 private:                                                                                \
   ::platform::OrderedMap<Key, ::platform::Nothing> attr##_;                             \
   HM_NAMED_( attr, Key )

#define HM_COLLECTION( Key, Entry, attr )                                                \
 public:                                                                                 \
   const ::platform::OrderedMap<Key, ::platform::Ptr<Entry>> & attr##Items() const {     \
      return attr##_;                                                                    \
   }                                                                                     \
   bool attr##Has( const Key & key ) const {                                             \
      return attr##_.find( key ) != nullptr;                                             \
   }                                                                                     \
   std::size_t attr##Count() const {                                                     \
      return attr##_.size();                                                             \
   }                                                                                     \
   ::platform::Ptr<const Entry> attr( const Key & key ) const {                          \
      const auto * entry = attr##_.find( key );                                          \
      return entry ? ::platform::Ptr<const Entry>( *entry ) : nullptr;                   \
   }                                                                                     \
   ::platform::Ptr<Entry> attr( const Key & key ) {                                      \
      const auto * entry = attr##_.find( key );                                          \
      return entry ? *entry : nullptr;                                                   \
   }                                                                                     \
   ::platform::Ptr<Entry> attr##Is( const Key & key ) {                                  \
      if ( const auto * entry = attr##_.find( key ) ) {                                  \
         return *entry;                                                                  \
      }                                                                                  \
      auto entry = ::platform::entryFromKey<Entry>( key );                               \
      attr##Insert( key, entry );                                                        \
      return entry;                                                                      \
   }                                                                                     \
   void attr##Insert( const Key & key, const ::platform::Ptr<Entry> & entry ) {          \
      attr##Del( key );                                                                  \
      const Key added = key;                                                             \
      const Key & place = attr##_.insert( added, entry );                                \
      if constexpr ( std::derived_from<Entry, ::platform::Entity> ) {                    \
         adopt( *entry, attr##Attr(), &place );                                          \
      }                                                                                  \
      changed( attr##Attr(), &added );                                                   \
   }                                                                                     \
   void attr##Del( const Key & key ) {                                                   \
      const auto * found = attr##_.find( key );                                          \
      if ( !found ) {                                                                    \
         return;                                                                         \
      }                                                                                  \
      const Key removed = key;                                                           \
      const ::platform::Ptr<Entry> entry = *found;                                       \
      attr##_.erase( removed );                                                          \
      if constexpr ( std::derived_from<Entry, ::platform::Entity> ) {                    \
         orphan( *entry );                                                               \
      }                                                                                  \
      changed( attr##Attr(), &removed );                                                 \
   }                                                                                     \
   void attr##DelAll() {                                                                 \
      for ( const auto & item : attr##_ ) {                                              \
         attr##Del( item.key );                                                          \
      }                                                                                  \
   }                                                                                     \
   static const ::platform::AttributeInfo * declaredAt( ::platform::AtLine<__LINE__> ) { \
      static const ::platform::CollectionAttribute<Self, Key, Entry> info(               \
            #attr, &Self::attr##Items, &Self::attr##Insert, &Self::attr##Del );          \
      return &info;                                                                      \
   }                                                                                     \
                                                                                         \
 private:                                                                                \
   ::platform::OrderedMap<Key, ::platform::Ptr<Entry>> attr##_;                          \
   HM_NAMED_( attr, Key )

#define HM_CHILD( Class, attr )                                                          \
 public:                                                                                 \
   ::platform::Ptr<const Class> attr() const {                                           \
      return attr##_;                                                                    \
   }                                                                                     \
   ::platform::Ptr<Class> attr() {                                                       \
      return attr##_;                                                                    \
   }                                                                                     \
   static const ::platform::AttributeInfo * declaredAt( ::platform::AtLine<__LINE__> ) { \
      static const ::platform::ChildAttribute<Self, Class> info( #attr, &Self::attr );   \
      return &info;                                                                      \
   }                                                                                     \
                                                                                         \
 private:                                                                                \
   ::platform::Ptr<Class> attr##_ = [this] {                                             \
      ::platform::Ptr<Class> child = new Class();                                        \
      adopt( *child, attr##Attr(), nullptr );                                            \
      return child;                                                                      \
   }();                                                                                  \
   HM_NAMED_( attr, void )

#define HM_MAP_OVER_( Map, Key, Value, attr )                       \
 public:                                                            \
   const ::platform::Map<Key, Value> & attr##Items() const {        \
      return attr##_;                                               \
   }                                                                \
   bool attr##Has( const Key & key ) const {                        \
      return attr##_.find( key ) != nullptr;                        \
   }                                                                \
   std::size_t attr##Count() const {                                \
      return attr##_.size();                                        \
   }                                                                \
   std::optional<Value> attr( const Key & key ) const {             \
      const auto * value = attr##_.find( key );                     \
      return value ? std::optional<Value>( *value ) : std::nullopt; \
   }                                                                \
   void attr##Is( const Key & key, const Value & value ) {          \
      attr##_.insert( key, value );                                 \
   }                                                                \
   void attr##Del( const Key & key ) {                              \
      attr##_.erase( key );                                         \
   }                                                                \
   void attr##DelAll() {                                            \
      attr##_ = {};                                                 \
   }                                                                \
                                                                    \
 private:                                                           \
   ::platform::Map<Key, Value> attr##_;

#define HM_MAP( Key, Value, attr ) HM_MAP_OVER_( OrderedMap, Key, Value, attr )
#define HM_HASHED_MAP( Key, Value, attr ) HM_MAP_OVER_( HashedMap, Key, Value, attr )

#define HM_HASHED_COLLECTION( Key, Entry, attr )                                    \
 public:                                                                            \
   const ::platform::HashedMap<Key, ::platform::Ptr<Entry>> & attr##Items() const { \
      return attr##_;                                                               \
   }                                                                                \
   bool attr##Has( const Key & key ) const {                                        \
      return attr##_.find( key ) != nullptr;                                        \
   }                                                                                \
   std::size_t attr##Count() const {                                                \
      return attr##_.size();                                                        \
   }                                                                                \
   ::platform::Ptr<Entry> attr( const Key & key ) const {                           \
      const auto * entry = attr##_.find( key );                                     \
      return entry ? *entry : nullptr;                                              \
   }                                                                                \
   ::platform::Ptr<Entry> attr##Is( const Key & key ) {                             \
      if ( const auto * entry = attr##_.find( key ) ) {                             \
         return *entry;                                                             \
      }                                                                             \
      auto entry = ::platform::entryFromKey<Entry>( key );                          \
      attr##_.insert( key, entry );                                                 \
      return entry;                                                                 \
   }                                                                                \
   void attr##Del( const Key & key ) {                                              \
      attr##_.erase( key );                                                         \
   }                                                                                \
   void attr##DelAll() {                                                            \
      attr##_ = {};                                                                 \
   }                                                                                \
                                                                                    \
 private:                                                                           \
   ::platform::HashedMap<Key, ::platform::Ptr<Entry>> attr##_;
