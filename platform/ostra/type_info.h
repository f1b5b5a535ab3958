// SPDX-License-Identifier: Apache-2.0
// Access by name: the attributes, collections and operations of a class, declared once, in one table.
//
//   TypeInfo const& DebugConfig::staticType() {
//     static TypeInfo const type = TypeInfo::of<DebugConfig>("Vantrel::DebugConfig")
//                                      .attribute("version", &DebugConfig::version, &DebugConfig::versionIs);
//     return type;
//   }
//
// Errors: a wrong name, a value of the wrong type and a write to what cannot be written throw
//   AttributeException, whose text names the class, the attribute, what was expected and what came.
// Threading: tables are built once and only read.
// Cost: a name is found by a linear search of its class. A collection is walked in slices (membersFrom) at
//   one step a member, whatever happens to it between two slices. A walk of a hash map keeps a copy of the
//   keys of one of its pieces.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ostra/exception.h"
#include "ostra/ptr.h"
#include "ostra/value.h"
#include "pallo/types.h"

namespace Ostra {

enum class AttributeKind { Scalar, Collection, Operation };

// Where a walk of a collection stands between two slices.
struct MemberCursor {
  Value last;                        // ordered collections: the key told last
  U64 part = 0;                      // hash maps: the piece that is being told
  std::shared_ptr<void const> keys;  // the piece's, when the walk came to it
  U64 next = 0;                      // which of `keys` is to be told next
  bool done = false;
};

// One name of a class. Functions that a kind does not have, or that the name does not allow, are empty.
struct Attribute {
  std::string name;
  AttributeKind kind;
  std::string type;  // the scalar's type, "K -> V" of a collection, "(T, ...)" of an operation
  std::function<Value(PtrInterface const&)> read;
  std::function<void(PtrInterface&, Value const&)> write;
  std::function<void(PtrInterface const&, MemberCursor&, std::size_t, Members&)> membersFrom;
  std::function<std::optional<Value>(PtrInterface const&, Value const&)> member;
  std::function<void(PtrInterface&, Value const&, Value const&)> memberIs;
  std::function<void(PtrInterface&, Value const&)> memberDel;
  std::function<Value(PtrInterface&, std::vector<Value> const&)> invoke;
  // Why outsiders may not write or invoke it now (empty text: they may). The process itself may always.
  std::function<std::string(PtrInterface const&)> refusal;
  bool toldLast = false;  // a scalar: other processes hear of it behind everything that changed before it
};

class VANTREL_API TypeInfo {
 public:
  template <class C>
  class Builder;

  // The table of class C, to be filled by chained calls; `base` is the table of the class it derives from.
  template <class C>
  static Builder<C> of(std::string name, TypeInfo const* base = nullptr) {
    return Builder<C>(TypeInfo(std::move(name), base));
  }

  std::string const& name() const { return name_; }
  // All names, those of the base class first, each in the order of declaration.
  std::vector<Attribute const*> attributes() const;
  // Throws AttributeException for a name that is not there.
  Attribute const& at(std::string_view name) const;

  Value read(PtrInterface const& object, std::string_view name) const;
  void write(PtrInterface& object, std::string_view name, Value const& value) const;

  Members members(PtrInterface const& object, std::string_view name) const;
  // Appends the next members, about `atMost` of them, and moves the cursor. A member that stays while the
  // walk lasts is told at least once; one that comes or goes meanwhile may be told or not.
  void membersFrom(PtrInterface const& object, std::string_view name, MemberCursor& cursor,
                   std::size_t atMost, Members& out) const;
  // Nothing when the key is not there.
  std::optional<Value> member(PtrInterface const& object, std::string_view name, Value const& key) const;
  void memberIs(PtrInterface& object, std::string_view name, Value const& key, Value const& value) const;
  void memberDel(PtrInterface& object, std::string_view name, Value const& key) const;

  // What the operation returned; nothing when it returns nothing that a Value can hold.
  Value invoke(PtrInterface& object, std::string_view name, std::vector<Value> const& arguments = {}) const;

  // Throws with the reason when someone outside the process may not write or invoke the attribute now.
  void checkOutsider(PtrInterface const& object, std::string_view name) const;
  // write on behalf of someone outside the process: refusals hold.
  void writeFromOutside(PtrInterface& object, std::string_view name, Value const& value) const;

 private:
  TypeInfo(std::string name, TypeInfo const* base) : name_(std::move(name)), base_(base) {}
  Attribute const* find(std::string_view name) const;
  Attribute const& collectionAt(std::string_view name) const;

  std::string name_;
  TypeInfo const* base_;
  std::vector<Attribute> own_;
};

namespace Detail {
[[noreturn]] VANTREL_API void throwWrongType(std::string_view attribute, std::string_view expected,
                                             Value const& got);
[[noreturn]] VANTREL_API void throwArgumentCount(std::string_view operation, std::size_t expected,
                                                 std::size_t got);

template <class T>
T fromValue(std::string_view attribute, Value const& value) {
  std::conditional_t<std::is_default_constructible_v<T>, T, U64> out{};
  if (!ValueOf<T>::from(value, out)) throwWrongType(attribute, ValueOf<T>::name, value);
  return out;
}

// "(U32, text)"
template <class... Params>
std::string signature() {
  std::string text = "(";
  ((text += (text.size() > 1 ? ", " : "") + std::string(ValueOf<std::remove_cvref_t<Params>>::name)), ...);
  return text + ")";
}

template <class M>
using KeyOf = std::remove_cvref_t<decltype(std::declval<M const&>().begin()->first)>;
template <class M>
using MappedOf = std::remove_cvref_t<decltype(std::declval<M const&>().begin()->second)>;

template <class M, class I>
void tellPair(I const& at, Members& out) {
  auto const& [key, value] = *at;
  out.emplace_back(ValueOf<KeyOf<M>>::to(key), ValueOf<MappedOf<M>>::to(value));
}

template <class M>
void orderedFrom(M const& map, MemberCursor& cursor, std::size_t atMost, Members& out) {
  bool const begins = cursor.last == Value();
  auto at = begins ? map.begin() : map.upper_bound(fromValue<KeyOf<M>>("key", cursor.last));
  for (; at != map.end() && atMost-- > 0; ++at) {
    tellPair<M>(at, out);
    cursor.last = out.back().first;
  }
  cursor.done = at == map.end();
}

// A hash map that consists of pieces(), among which a key's hash chooses: one piece's keys are copied at a
// time, when the walk comes to it. One that falls into pieces meanwhile is walked on in the second.
template <class M>
void piecesFrom(M const& map, MemberCursor& cursor, std::size_t atMost, Members& out) {
  using Keys = std::vector<KeyOf<M>>;
  auto const& pieces = map.pieces();
  for (; cursor.part < pieces.size(); ++cursor.part, cursor.keys.reset()) {
    auto const& piece = pieces[cursor.part];
    if (!cursor.keys) {
      auto const keys = std::make_shared<Keys>();
      keys->reserve(piece.size());
      for (auto at = piece.begin(); at != piece.end(); ++at) keys->push_back(at->first);
      cursor.keys = keys;
      cursor.next = 0;
    }
    Keys const& keys = *static_cast<Keys const*>(cursor.keys.get());
    for (; cursor.next < keys.size(); ++cursor.next, --atMost) {
      if (atMost == 0) return;
      if (auto const at = piece.find(keys[cursor.next]); at != piece.end()) tellPair<M>(at, out);
    }
  }
  cursor.done = true;
}

template <class M>
void membersFrom(M const& map, MemberCursor& cursor, std::size_t atMost, Members& out) {
  if constexpr (requires { map.pieces(); })
    piecesFrom(map, cursor, atMost, out);
  else
    orderedFrom(map, cursor, atMost, out);
}

template <class M>
std::optional<Value> memberOf(M const& map, std::string_view name, Value const& key) {
  KeyOf<M> const k = fromValue<KeyOf<M>>(name, key);
  auto const at = map.find(k);
  if (at == map.end()) return std::nullopt;
  return ValueOf<MappedOf<M>>::to(at->second);
}
}  // namespace Detail

template <class C>
class VANTREL_LOCAL TypeInfo::Builder {
 public:
  explicit Builder(TypeInfo info) : info_(std::move(info)) {}
  operator TypeInfo() const { return info_; }

  // A scalar that is only read.
  template <class R>
  Builder& attribute(std::string name, R (C::*reader)() const) {
    using T = std::remove_cvref_t<R>;
    Attribute& a = add(std::move(name), AttributeKind::Scalar, std::string(ValueOf<T>::name));
    a.read = [reader](PtrInterface const& o) { return ValueOf<T>::to((static_cast<C const&>(o).*reader)()); };
    return *this;
  }
  template <class R, class W>
  Builder& attribute(std::string name, R (C::*reader)() const, void (C::*writer)(W)) {
    using T = std::remove_cvref_t<W>;
    attribute(name, reader);
    info_.own_.back().write = [writer, name = std::move(name)](PtrInterface& o, Value const& v) {
      (static_cast<C&>(o).*writer)(Detail::fromValue<T>(name, v));
    };
    return *this;
  }
  // A reference to another object, read as its name; nothing when null.
  template <class R>
  Builder& reference(std::string name, R (C::*reader)() const) {
    Attribute& a = add(std::move(name), AttributeKind::Scalar, "reference");
    a.read = [reader](PtrInterface const& o) {
      auto const& target = (static_cast<C const&>(o).*reader)();
      if (!target) return Value();
      if constexpr (requires { target->name(); })
        return Value(target->name());
      else
        return Value(std::string("(unnamed)"));
    };
    return *this;
  }
  // A collection: an ordered map, or a hash map in pieces (piecewise_map.h).
  template <class M>
  Builder& collection(std::string name, M const& (C::*reader)() const) {
    using K = Detail::KeyOf<M>;
    using V = Detail::MappedOf<M>;
    Attribute& a = add(name, AttributeKind::Collection,
                       std::string(ValueOf<K>::name) + " -> " + std::string(ValueOf<V>::name));
    a.membersFrom = [reader](PtrInterface const& o, MemberCursor& cursor, std::size_t atMost, Members& out) {
      Detail::membersFrom((static_cast<C const&>(o).*reader)(), cursor, atMost, out);
    };
    a.member = [reader, name = std::move(name)](PtrInterface const& o, Value const& key) {
      return Detail::memberOf((static_cast<C const&>(o).*reader)(), name, key);
    };
    return *this;
  }
  // With the methods that set a member and remove one, the collection can be written by name and mirrored.
  template <class M, class KW, class VW, class R, class KD>
  Builder& collection(std::string name, M const& (C::*reader)() const, void (C::*writer)(KW, VW),
                      R (C::*remover)(KD)) {
    using K = std::remove_cvref_t<KW>;
    using V = std::remove_cvref_t<VW>;
    collection(name, reader);
    info_.own_.back().memberIs = [writer, name](PtrInterface& o, Value const& k, Value const& v) {
      (static_cast<C&>(o).*writer)(Detail::fromValue<K>(name, k), Detail::fromValue<V>(name, v));
    };
    info_.own_.back().memberDel = [remover, name](PtrInterface& o, Value const& k) {
      static_cast<void>((static_cast<C&>(o).*remover)(Detail::fromValue<K>(name, k)));
    };
    return *this;
  }
  template <class R, class... Params>
  Builder& operation(std::string name, R (C::*method)(Params...)) {
    return operationOf<Params...>(std::move(name), method);
  }
  template <class R, class... Params>
  Builder& operation(std::string name, R (C::*method)(Params...) const) {
    return operationOf<Params...>(std::move(name), method);
  }
  // Outsiders may not write or invoke the attribute declared last while `why` gives a reason.
  Builder& refusedBecause(std::string (*why)(C const&)) {
    info_.own_.back().refusal = [why](PtrInterface const& o) { return why(static_cast<C const&>(o)); };
    return *this;
  }
  // The scalar declared last says that what was written before it is complete: other processes hear of it
  // when they have heard everything else. Other scalars wait for nothing.
  Builder& toldLast() {
    info_.own_.back().toldLast = true;
    return *this;
  }

 private:
  template <class... Params, class Method>
  Builder& operationOf(std::string name, Method method) {
    Attribute& a = add(name, AttributeKind::Operation, Detail::signature<Params...>());
    a.invoke = [method, name = std::move(name)](PtrInterface& o, std::vector<Value> const& arguments) {
      if (arguments.size() != sizeof...(Params))
        Detail::throwArgumentCount(name, sizeof...(Params), arguments.size());
      return call<Params...>(static_cast<C&>(o), method, name, arguments,
                             std::index_sequence_for<Params...>{});
    };
    return *this;
  }
  template <class... Params, class Method, std::size_t... I>
  static Value call(C& object, Method method, [[maybe_unused]] std::string_view name,
                    [[maybe_unused]] std::vector<Value> const& arguments, std::index_sequence<I...>) {
    auto const result = [&]() -> decltype(auto) {
      return (object.*method)(Detail::fromValue<std::remove_cvref_t<Params>>(name, arguments[I])...);
    };
    using R = std::remove_cvref_t<decltype(result())>;
    if constexpr (requires(R const& r) { ValueOf<R>::to(r); }) {
      return ValueOf<R>::to(result());
    } else {
      static_cast<void>(result());
      return {};
    }
  }
  Attribute& add(std::string name, AttributeKind kind, std::string type) {
    Attribute& a = info_.own_.emplace_back();
    a.name = std::move(name);
    a.kind = kind;
    a.type = std::move(type);
    return a;
  }
  TypeInfo info_;
};

}  // namespace Ostra
