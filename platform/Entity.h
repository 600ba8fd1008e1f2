#pragma once

#include "platform/Collection.h"
#include "platform/Ptr.h"
#include "platform/Value.h"

#include <memory>
#include <string>
#include <vector>

/// Entities: the objects of the state database, and the agent's own records that are watched or walked in the
/// same way. A class lists its attributes once and from each line come getter, setter, notification and the
/// description that the configuration loader, the state stores and `hmctl` walk:
///
///     class NexthopGroupConfig : public Entity {
///        HM_ENTITY( NexthopGroupConfig )
///        HM_SET( IpGenAddr, serverIp )
///      public:
///        explicit NexthopGroupConfig( const NexthopGroupName & nhgName );
///     };
///
/// Everything here belongs to the main thread, but for the descriptions, which never change after start-up.

namespace platform {

class Entity;
class AttributeInfo;
class ScalarInfo;
class SetInfo;
class CollectionInfo;
class ChildInfo;

/// The description of a class of entities: its attributes in the order of their declaration, but for those
/// whose type has no text form.
class EntityType {
 public:
   /// An attribute and the line on which its class declares it.
   struct Declared {
      int line;
      const AttributeInfo * attribute;
   };
   EntityType( const char * name, std::vector<Declared> declared );

   const std::string & name() const { return name_; }
   const std::vector<const AttributeInfo *> & attributes() const { return attributes_; }
   const AttributeInfo * attribute( std::string_view name ) const; // null when there is none
   const AttributeInfo & declaredAt( int line ) const;             // also one that has no text form

 private:
   const std::string name_;
   const std::vector<Declared> declared_;
   std::vector<const AttributeInfo *> attributes_;
};

/// One attribute of a class of entities. At most one of the four views is not null; none when the type of the
/// value, key or entry has no text form.
class AttributeInfo {
 public:
   AttributeInfo( const AttributeInfo & ) = delete;
   AttributeInfo & operator=( const AttributeInfo & ) = delete;
   virtual ~AttributeInfo() = default;

   const std::string & name() const { return name_; }
   virtual const ScalarInfo * scalar() const { return nullptr; }
   virtual const SetInfo * set() const { return nullptr; }
   virtual const CollectionInfo * collection() const { return nullptr; }
   virtual const ChildInfo * child() const { return nullptr; }
   /// Text of the key that a change notification carries; empty for scalars and children.
   virtual std::string keyText( const void * ) const { return {}; }

 protected:
   explicit AttributeInfo( const char * name ) : name_( name ) {}

 private:
   const std::string name_;
};

/// An attribute of the entities of class E; Key is the type that its notifications carry, void for none.
template<class E, class Key>
struct AttributeOf {
   const AttributeInfo & info;
   operator const AttributeInfo &() const { return info; }
};

/// A single value. Entities passed in must be of the attribute's class.
class ScalarInfo {
 public:
   virtual ValueKind kind() const = 0;
   virtual std::string typeName() const = 0;
   virtual std::string defaultText() const = 0;
   [[nodiscard]] virtual Refusal check( std::string_view text ) const = 0;
   virtual std::string text( const Entity & entity ) const = 0;
   /// Refuses what check() refuses and leaves the entity alone then.
   [[nodiscard]] virtual Refusal textIs( Entity & entity, std::string_view text ) const = 0;

 protected:
   ~ScalarInfo() = default;
};

/// What sets and collections share: keys in their order, as text. Keys passed in must have passed keyCheck().
class KeyedInfo {
 public:
   virtual std::string keyTypeName() const = 0;
   [[nodiscard]] virtual Refusal keyCheck( std::string_view key ) const = 0;
   /// The one text form of a key that may be written in several ways, as IPv6 addresses may.
   virtual std::string keyNormal( std::string_view key ) const = 0;
   virtual std::size_t count( const Entity & entity ) const = 0;
   virtual bool has( const Entity & entity, std::string_view key ) const = 0;
   /// The first key above `after`, or the first one; empty at the end. For walks in slices.
   virtual std::optional<std::string> nextKey(
         const Entity & entity, const std::optional<std::string> & after ) const = 0;
   virtual void remove( Entity & entity, std::string_view key ) const = 0;

 protected:
   ~KeyedInfo() = default;
};

class SetInfo : public KeyedInfo {
 public:
   virtual void insert( Entity & entity, std::string_view key ) const = 0;

 protected:
   ~SetInfo() = default;
};

/// Named entities below an entity. A new entry is made apart, filled, and then inserted, so that nobody who
/// is notified of it sees it half filled.
class CollectionInfo : public KeyedInfo {
 public:
   virtual const EntityType & entryType() const = 0;
   virtual Ptr<Entity> entry( const Entity & entity, std::string_view key ) const = 0; // empty: none
   virtual Ptr<Entity> entryNew( std::string_view key ) const = 0;
   virtual void insert( Entity & entity, std::string_view key, const Ptr<Entity> & entry ) const = 0;

 protected:
   ~CollectionInfo() = default;
};

/// One entity that is always there below another.
class ChildInfo {
 public:
   virtual const EntityType & childType() const = 0;
   virtual Ptr<Entity> child( const Entity & entity ) const = 0;

 protected:
   ~ChildInfo() = default;
};

/// Told of every change of one entity, after the new value stands. `key` points at the key of the entry that
/// came or went (as the attribute's key type) and is null for scalars. May subscribe and unsubscribe anyone,
/// and may destroy itself.
class EntityObserver {
 public:
   virtual void attributeChanged( const AttributeInfo & attribute, const void * key ) = 0;

 protected:
   ~EntityObserver() = default;
};

/// Told of every change of an entity and of everything below it, before the entity's own observers. `key` is
/// the text of the entry that came or went, empty for scalars. Must not subscribe, unsubscribe or change
/// entities.
class TreeObserver {
 public:
   virtual void treeChanged(
         const Entity & entity, const AttributeInfo & attribute, const std::string & key ) = 0;

 protected:
   ~TreeObserver() = default;
};

class Entity : public RefCounted {
 public:
   ~Entity() override;
   virtual const EntityType & type() const = 0;

   void observe( EntityObserver & observer ) const;
   void unobserve( EntityObserver & observer ) const;
   void observeTree( TreeObserver & observer ) const;
   void unobserveTree( TreeObserver & observer ) const;

   /// Names of attributes and keys from the root down, joined by "/", keys escaped by pathEscape(). The root
   /// begins with its own path; an entity that stands in no tree gives the part that is known.
   std::string path() const;
   void rootPathIs( const std::string & path ); // roots only

 protected:
   Entity();

   /// Tells tree observers, then observers. Called by setters once the new value stands.
   void changed( const AttributeInfo & attribute, const void * key = nullptr );
   /// `key` must stay where it is for as long as `child` is adopted.
   void adopt( Entity & child, const AttributeInfo & attribute, const void * key );
   static void orphan( Entity & child );

 private:
   friend class EntityUpdate;
   struct Watchers;
   Watchers & watchers() const;
   void notify( const AttributeInfo & attribute, const void * key );

   mutable std::unique_ptr<Watchers> watchers_; // most entities are watched by nobody
   Entity * parent_ = nullptr;
   const AttributeInfo * parentAttribute_ = nullptr;
   const void * parentKey_ = nullptr;
};

/// Holds back the notifications of the scalars of one entity while it lives and gives them, one an attribute,
/// when it goes: several attributes then change as one for everyone who watches. Updates nest in the order of
/// a stack.
class EntityUpdate {
 public:
   explicit EntityUpdate( Entity & entity );
   ~EntityUpdate();
   EntityUpdate( const EntityUpdate & ) = delete;
   EntityUpdate & operator=( const EntityUpdate & ) = delete;

 private:
   friend class Entity;
   const Ptr<Entity> entity_;
   EntityUpdate * const outer_;
   std::vector<const AttributeInfo *> pending_;
   static EntityUpdate * innermost_; // main thread
};

/// Writes "%XX" for "/", "%" and control bytes, so that any key is one component of a path; pathUnescape()
/// undoes it (empty when the text is not well formed).
std::string pathEscape( std::string_view key );
[[nodiscard]] std::optional<std::string> pathUnescape( std::string_view component );

/// Whether `path` is `root` or stands below it; everything stands below the empty path.
bool pathIsAtOrBelow( std::string_view path, std::string_view root );

} // namespace platform

#include "platform/EntityMacros.h"
