// SPDX-License-Identifier: Apache-2.0
// Access by name: the attributes, collections and operations of a class, declared once, in one table.
//
//   TypeInfo const& DebugConfig::staticType() {
//     static TypeInfo const type = TypeInfo::of<DebugConfig>("Vantrel::DebugConfig")
//                                      .attribute("version", &DebugConfig::version, &DebugConfig::versionIs);
//     return type;
//   }
//
// Errors: a wrong name, a value of the wrong type and a write to what cannot be written throw AttributeException, whose
//   text names the class, the attribute, what was expected and what came.
// Threading: tables are built once and only read.
#pragma once

#include <concepts>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "ostra/exception.h"
#include "ostra/ptr.h"
#include "pallo/types.h"

namespace Ostra {

// A scalar on its way to or from a name: nothing, bool, an unsigned integer, a double or a text.
using Value = std::variant<std::monostate, bool, U64, double, std::string>;
// The members of a collection.
using Members = std::vector<std::pair<Value, Value>>;

VANTREL_API std::string toText(Value const& value);

// How a C++ type travels as a Value. name is what an error message calls it.
template <class T>
struct ValueOf;

template <>
struct ValueOf<bool> {
  static constexpr std::string_view name = "bool";
  static Value to(bool v) { return v; }
  static bool from(Value const& v, bool& out) {
    auto const* p = std::get_if<bool>(&v);
    return p && (out = *p, true);
  }
};
template <std::unsigned_integral T>
struct ValueOf<T> {
  static constexpr std::string_view name =
      sizeof(T) == 1 ? "U8" : sizeof(T) == 2 ? "U16" : sizeof(T) == 4 ? "U32" : "U64";
  static Value to(T v) { return U64{v}; }
  static bool from(Value const& v, T& out) {
    auto const* p = std::get_if<U64>(&v);
    if (!p || *p > std::numeric_limits<T>::max()) return false;
    out = static_cast<T>(*p);
    return true;
  }
};
template <>
struct ValueOf<double> {
  static constexpr std::string_view name = "double";
  static Value to(double v) { return v; }
  static bool from(Value const& v, double& out) {
    if (auto const* d = std::get_if<double>(&v)) return out = *d, true;
    auto const* u = std::get_if<U64>(&v);
    return u && (out = static_cast<double>(*u), true);
  }
};
template <>
struct ValueOf<std::string> {
  static constexpr std::string_view name = "text";
  static Value to(std::string const& v) { return v; }
  static bool from(Value const& v, std::string& out) {
    auto const* p = std::get_if<std::string>(&v);
    return p && (out = *p, true);
  }
};
// Strong 64-bit types (keys, operation identifiers) travel as their value.
template <class T>
  requires requires(T const& t) {
    { t.value() } -> std::same_as<U64>;
    T{U64{}};
  }
struct ValueOf<T> {
  static constexpr std::string_view name = "U64";
  static Value to(T const& v) { return v.value(); }
  static bool from(Value const& v, T& out) {
    auto const* p = std::get_if<U64>(&v);
    return p && (out = T{*p}, true);
  }
};

enum class AttributeKind { Scalar, Collection, Operation };

// One name of a class. Functions that a kind does not have, or that the name does not allow, are empty.
struct Attribute {
  std::string name;
  AttributeKind kind;
  std::string type;  // the scalar's type, "K -> V" of a collection, "()" of an operation
  std::function<Value(PtrInterface const&)> read;
  std::function<void(PtrInterface&, Value const&)> write;
  std::function<Members(PtrInterface const&)> members;
  std::function<void(PtrInterface&, std::vector<Value> const&)> invoke;
  std::function<std::string(PtrInterface const&)> refusal;  // why a write is not allowed now; empty text: it is
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
  void invoke(PtrInterface& object, std::string_view name, std::vector<Value> const& arguments = {}) const;

 private:
  TypeInfo(std::string name, TypeInfo const* base) : name_(std::move(name)), base_(base) {}
  Attribute const* find(std::string_view name) const;

  std::string name_;
  TypeInfo const* base_;
  std::vector<Attribute> own_;
};

namespace Detail {
[[noreturn]] VANTREL_API void throwWrongType(std::string_view attribute, std::string_view expected, Value const& got);
[[noreturn]] VANTREL_API void throwArgumentCount(std::string_view operation, std::size_t expected, std::size_t got);

template <class T>
T fromValue(std::string_view attribute, Value const& value) {
  std::conditional_t<std::is_default_constructible_v<T>, T, U64> out{};
  if (!ValueOf<T>::from(value, out)) throwWrongType(attribute, ValueOf<T>::name, value);
  return out;
}
}  // namespace Detail

template <class C>
class TypeInfo::Builder {
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
  // A collection: anything that iterates over pairs.
  template <class M>
  Builder& collection(std::string name, M const& (C::*reader)() const) {
    using K = std::remove_cvref_t<decltype(std::declval<M const&>().begin()->first)>;
    using V = std::remove_cvref_t<decltype(std::declval<M const&>().begin()->second)>;
    Attribute& a = add(std::move(name), AttributeKind::Collection,
                       std::string(ValueOf<K>::name) + " -> " + std::string(ValueOf<V>::name));
    a.members = [reader](PtrInterface const& o) {
      Members members;
      for (auto const& [k, v] : (static_cast<C const&>(o).*reader)())
        members.emplace_back(ValueOf<K>::to(k), ValueOf<V>::to(v));
      return members;
    };
    return *this;
  }
  // An operation, its result dropped.
  template <class R, class... Params>
  Builder& operation(std::string name, R (C::*method)(Params...)) {
    Attribute& a = add(name, AttributeKind::Operation, "()");
    a.invoke = [method, name = std::move(name)](PtrInterface& o, std::vector<Value> const& arguments) {
      if (arguments.size() != sizeof...(Params))
        Detail::throwArgumentCount(name, sizeof...(Params), arguments.size());
      call(static_cast<C&>(o), method, name, arguments, std::index_sequence_for<Params...>{});
    };
    return *this;
  }
  // Writes of the attribute declared last are refused while `why` gives a reason.
  Builder& refusedBecause(std::string (*why)(C const&)) {
    info_.own_.back().refusal = [why](PtrInterface const& o) { return why(static_cast<C const&>(o)); };
    return *this;
  }

 private:
  template <class R, class... Params, std::size_t... I>
  static void call(C& object, R (C::*method)(Params...), std::string_view name, std::vector<Value> const& arguments,
                   std::index_sequence<I...>) {
    static_cast<void>((object.*method)(Detail::fromValue<std::remove_cvref_t<Params>>(name, arguments[I])...));
  }
  Attribute& add(std::string name, AttributeKind kind, std::string type) {
    return info_.own_.emplace_back(Attribute{std::move(name), kind, std::move(type), {}, {}, {}, {}, {}});
  }
  TypeInfo info_;
};

}  // namespace Ostra
