// SPDX-License-Identifier: Apache-2.0
// Entities: named, reference-counted, with attributes that tell their watchers what changed.
//
// A class declares its attributes in one table (type_info.h) and writes each setter as one call:
//
//   class DebugConfig : public Ostra::Entity {
//    public:
//     class Notifiee : public Ostra::NotifieeOf<DebugConfig const> { public: virtual void onVersion() {} };
//     U32 version() const { return version_; }
//     void versionIs(U32 v) { scalarIs("version", version_, v, &Notifiee::onVersion); }
//
// Invariants: watchers hear of a change after it is stored, and only when the value differs.
// Threading: the agent's thread.
// Cost: a write that nobody watches is a comparison, a store and two branches.
#pragma once

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "ostra/notifier.h"
#include "ostra/ptr.h"
#include "ostra/value.h"

namespace Ostra {

class TypeInfo;

// Anything whose attributes can be reached by name.
class VANTREL_API Described : public PtrInterface {
 public:
  virtual TypeInfo const& typeInfo() const = 0;
};

class AttributeWatcher;

class VANTREL_API Entity : public Described {
 public:
  explicit Entity(std::string name) : name_(std::move(name)) {}
  std::string const& name() const { return name_; }
  Notifier& notifieeList() const { return notifiees_; }
  Notifier& attributeWatchers() const { return attributeWatchers_; }

 protected:
  // Stores `value` in `slot` and tells `watchers`, when it differs.
  template <class T, class Handler>
  void scalarIs(Notifier& watchers, std::string_view name, T& slot, std::type_identity_t<T> value,
                Handler handler) {
    if (slot == value) return;
    slot = value;
    tell(watchers, name, handler);
  }
  template <class T, class Handler>
  void scalarIs(std::string_view name, T& slot, std::type_identity_t<T> value, Handler handler) {
    scalarIs(notifiees_, name, slot, value, handler);
  }
  // Inserts or overwrites, and tells the key, unless the stored value is equal already.
  template <class Collection, class Handler>
  void memberIs(std::string_view name, Collection& collection, typename Collection::key_type const& key,
                typename Collection::mapped_type const& value, Handler handler) {
    auto const [at, inserted] = collection.try_emplace(key, value);
    if (!inserted) {
      if (at->second == value) return;
      at->second = value;
    }
    tellMember(name, key, handler);
  }
  // Returns the removed value, or the zero value when there was none.
  template <class Collection, class Handler>
  auto memberDel(std::string_view name, Collection& collection, typename Collection::key_type key,
                 Handler handler) {
    using V = typename Collection::mapped_type;
    auto const at = collection.find(key);
    if (at == collection.end()) return V{};
    V const value = at->second;
    collection.erase(at);
    tellMember(name, key, handler);
    return value;
  }
  // One by one, so that each removal is told; at once, when there is nobody to tell. The keys are copied
  // first: a watcher may change the collection, and some hash maps look for their first member from the
  // beginning each time.
  template <class Collection, class Handler>
  void membersDelAll(std::string_view name, Collection& collection, Handler handler) {
    std::vector<typename Collection::key_type> keys;
    while (!collection.empty()) {
      keys.clear();
      keys.reserve(collection.size());
      for (auto const& member : collection) keys.push_back(member.first);
      for (auto const& key : keys) {
        if (unwatched()) return collection.clear();
        memberDel(name, collection, key, handler);
      }
    }
  }

 private:
  bool unwatched() const { return notifiees_.empty() && attributeWatchers_.empty(); }
  template <class Handler>
  void tell(Notifier& watchers, std::string_view name, Handler handler);
  template <class K, class Handler>
  void tellMember(std::string_view name, K const& key, Handler handler);

  std::string const name_;
  mutable Notifier notifiees_;
  mutable Notifier attributeWatchers_;
};

// Watches every attribute of one entity by name, whatever its class: what publishing is made of.
class VANTREL_API AttributeWatcher : public NotifieeBase {
 public:
  // A scalar changed. / A member of a collection was set or removed.
  virtual void onAttribute(std::string_view name) { static_cast<void>(name); }
  virtual void onMember(std::string_view name, Value const& key) {
    static_cast<void>(name);
    static_cast<void>(key);
  }

  Ptr<Entity const> const& notifier() const { return entity_; }
  void notifierIs(Ptr<Entity const> entity) {
    listIs(entity ? &entity->attributeWatchers() : nullptr);
    std::swap(entity_, entity);
  }

 private:
  Ptr<Entity const> entity_;
};

template <class Handler>
void Entity::tell(Notifier& watchers, std::string_view name, Handler handler) {
  if (watchers.empty() && attributeWatchers_.empty()) return;
  auto const keep = keepAlive(this);
  // Those who only take note come first: they hear of it even when a handler throws.
  attributeWatchers_.notify(&AttributeWatcher::onAttribute, name);
  watchers.notify(handler);
}

template <class K, class Handler>
void Entity::tellMember(std::string_view name, K const& key, Handler handler) {
  if (unwatched()) return;
  auto const keep = keepAlive(this);
  K const told = key;  // the member may go while it is told
  if (!attributeWatchers_.empty())
    attributeWatchers_.notify(&AttributeWatcher::onMember, name, ValueOf<K>::to(told));
  notifiees_.notify(handler, told);
}

}  // namespace Ostra
